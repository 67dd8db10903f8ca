#pragma once

#include <boost/optional.hpp>
#include <boost/smart_ptr/shared_ptr.hpp>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "host/archive_adapter.h"
#include "host/archive_source.h"
#include "orva_database/cache.h"
#include "share/archive_request.h"

namespace orva::archive {

class DataArchiveManager;
struct FilterFields;

// The older archive interface on the archive manager: what hosts' older machinery asks of an
// archive source is done by the manager and its cached items.
//
//   source.FindArchiveItemId(7, "", item);   // binds the legacy id 7 to variable 7
//   source.AddValue(item, ArchiveRec(time, value));
//   ArchiveRequest request;                  // items, range
//   if (source.AddRequest(&request) == 0) request.Wait();
//
// A legacy id is the low half of a variable's id; of ids alike in it, the one found first is meant.
// Every operation that takes one returns 0x803E0000 when FindArchiveItemId() never met it, but for
// GetDisableWriteByChange() and AddRequest(). Nothing but AddRequest() throws; what is thrown
// inside the others is traced, and the result is 0x80030000.
//
// Thread-safe from Init() on. Sources may share items: an item has one filter, what was set last
// counts. When archives are rebuilt, each source binds its legacy ids anew as they are used, and
// sets again on the new filter what had been set through it.
class ProxyOldArchiveApi final : public ArchiveSource {
 public:
  ProxyOldArchiveApi();
  // Ends the reads under way, as a time-out does.
  ~ProxyOldArchiveApi() override;
  ProxyOldArchiveApi(const ProxyOldArchiveApi&) = delete;
  ProxyOldArchiveApi& operator=(const ProxyOldArchiveApi&) = delete;

  // Whether every record added from then on is also written to the host's own archive.
  void SetHostArchive(ArchiveAdapter* archive, bool forward);

  void LoadArchSettings(const json::Value* settings) override;
  // Takes the manager; the arguments are ignored.
  int Init(int number, const json::Value* settings) override;
  // The cache id of (low half of id, name), -1 when that is not cached. It is no legacy id: nothing
  // is bound.
  int GetArchiveItemId(long long id, const std::string& name, const std::string& second,
                       int& out) override;
  // The legacy id of a variable. The path is not used: items of this interface have none.
  int FindArchiveItemId(long long id, const std::string& path, int& out) override;
  // The item's write filter decides whether the record is archived; 0 in either case.
  int AddValue(int item, const ArchiveRec& rec) override;
  int SetDisableWriteByChange(int item, bool disable) override;
  // The filter's `writeByChange` itself, not its negation: what was disabled reads back false.
  // Callers rely on it (WhatWasDisabledReadsBackFalse pins this).
  bool GetDisableWriteByChange(int item) override;
  // Returns at once; see ArchiveRequest. The read is given 60 s. An item that is not known has no
  // records, and the request's status says so.
  int AddRequest(ArchiveRequest* legacyRequest) override;
  // Fields that are not given stay. blocksWrite is also cleared by writeByChange false, unless it
  // is given: that silences the function blocks of the item.
  int SetFilter(int item, boost::optional<bool> allValues, boost::optional<bool> writeByChange,
                boost::optional<long long> maxWritePeriod,
                boost::optional<long long> minWritePeriod, boost::optional<double> deadband,
                boost::optional<bool> blocksWrite) override;
  // Time of the newest record, 0 when there is none. May ask the archive, for 60 s at most.
  int GetLastTime(int item, long long& out) override;
  // Nothing is left for these to do.
  int InitSource() override;
  int DestroySource() override;
  int ExecuteWrite(std::map<int, std::vector<ArchiveRec>>& records) override;
  int ExecuteRead(ArchiveRequest* request) override;
  int ReadItemList(ArchiveRequest* request) override;
  int ExecuteDelete(unsigned int item, int* deleted) override;

  // Hands what was read to the legacy request and wakes its caller; also when it was timed out.
  // The first call for a request does, later ones find nothing. Never throws.
  void RequestFinished(const boost::shared_ptr<Request>& request);

 private:
  struct State;
  using Pin = cache::Cache::Pin;

  // A legacy id in use.
  struct Held {
    boost::shared_ptr<Pin> pin;  // null: the id is not known
    std::int64_t cacheId = cache::Cache::ID_NOT_FOUND;
  };
  Held hold(int item);
  Held bind(int item, std::int64_t variable);
  StatusCode findItem(long long id, int& out);
  StatusCode setFields(int item, const FilterFields& fields);
  StatusCode write(int item, const ArchiveRec& rec);
  void writeToHost(int item, const ArchiveRec& rec);
  boost::shared_ptr<Request> makeRequest(const ArchiveRequest& legacyRequest);

  DataArchiveManager* manager = nullptr;  // set by Init()
  // Listeners of requests hold it weakly, so one that runs while the source ends is safe.
  const boost::shared_ptr<State> state_;
};

}  // namespace orva::archive
