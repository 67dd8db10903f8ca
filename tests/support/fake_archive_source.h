#pragma once

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "host/archive_source.h"

namespace orva::test {

// A source of the older archive interface that keeps records in memory, of the items that were
// found. Says what it was asked, and fails where a test wants it to.
//
// For one thread, but for what `onRequest` does.
class FakeArchiveSource : public ArchiveSource {
 public:
  void LoadArchSettings(const json::Value* settings) override;
  int Init(int number, const json::Value* settings) override;
  // `out` is 1000 more than `id`.
  int GetArchiveItemId(long long id, const std::string& name, const std::string& second,
                       int& out) override;
  // `out` is the low half of `id`, which is known from then on.
  int FindArchiveItemId(long long id, const std::string& path, int& out) override;
  int AddValue(int item, const ArchiveRec& rec) override;
  int SetDisableWriteByChange(int item, bool disable) override;
  bool GetDisableWriteByChange(int item) override;
  // Answers at once, unless onRequest is set.
  int AddRequest(ArchiveRequest* request) override;
  int SetFilter(int item, boost::optional<bool> allValues, boost::optional<bool> writeByChange,
                boost::optional<long long> maxWritePeriod,
                boost::optional<long long> minWritePeriod, boost::optional<double> deadband,
                boost::optional<bool> blocksWrite) override;
  int GetLastTime(int item, long long& out) override;
  int InitSource() override;
  int DestroySource() override;
  int ExecuteWrite(std::map<int, std::vector<ArchiveRec>>& records) override;
  int ExecuteRead(ArchiveRequest* request) override;
  int ReadItemList(ArchiveRequest* request) override;
  int ExecuteDelete(unsigned int item, int* deleted) override;

  // Puts what is asked for into the request, and posts its semaphore.
  void answer(ArchiveRequest& request);

  std::map<int, std::vector<ArchiveRec>> records;  // by item, the items that are known
  // What was called, each as "Name argument argument".
  std::vector<std::string> calls;
  // What the operations of that name return in place of 0.
  std::map<std::string, int> failures;
  std::function<void(ArchiveRequest&)> onRequest;

 private:
  int called(const std::string& name, const std::string& arguments = {});
  int calledFor(int item, const std::string& name, const std::string& arguments = {});

  std::map<int, bool> disabled_;
};

}  // namespace orva::test
