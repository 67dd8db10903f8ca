#pragma once

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "orva_sqlite/archive.h"
#include "support/manual_clock.h"
#include "support/trace_capture.h"
#include "unit/orva_sqlite/samples.h"

namespace orva::sqlite::test {

using archive::ItemKey;
using Kind = archive::Interval::Kind;

// A folder of its own that goes with the test.
class TemporaryFolder {
 public:
  TemporaryFolder();
  ~TemporaryFolder();
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;

  const std::string& path() const { return path_; }
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

// What is asked of an archive.
struct Question {
  ItemKey key{1, "a"};
  std::int32_t layer = 0;
  std::int64_t start = 0;
  std::int64_t end = 0;
  Kind kind = Kind::range;
  bool left = false;
  bool right = false;
  std::uint32_t limit = 0;  // 0 unlimited
};

struct Answer {
  std::vector<PinPtr> pushed;
  bool final = false;
  StatusCode failure = 0;
  std::uint64_t wanted = 0;
};

Answer ask(archive::IDataArchive& archive, const Question& question);

// Everything accepted for each item and layer: the plain list against which an archive is held.
class PlainList {
 public:
  using Key = std::pair<ItemKey, std::int32_t>;
  void add(const ItemKey& key, std::int32_t layer, const PinPtr& pin);
  // All of it that answers the question, whatever its limit.
  std::vector<PinPtr> answer(const Question& question) const;
  std::vector<PinPtr>& samples(const ItemKey& key, std::int32_t layer) {
    return lists_[{key, layer}];
  }
  std::map<Key, std::vector<PinPtr>>& all() { return lists_; }

 private:
  std::map<Key, std::vector<PinPtr>> lists_;
};

// Whether the archive answers as the list does: the same samples, in the same order, as many as are
// wanted or all there are.
::testing::AssertionResult answersLike(archive::IDataArchive& archive, const PlainList& list,
                                       const Question& question);

// An archive without a thread: a test runs its worker.
class ArchiveTest : public ::testing::Test {
 protected:
  ArchiveTest();

  // Opens the archive (anew, if there is one).
  void open();
  void close();  // stops it: what is buffered is written
  void write(const ItemKey& key, std::int32_t layer, const PinPtr& pin);
  void write(std::int64_t time, double value) {
    write({1, "a"}, 0, makePin(time, realValue(value)));
  }
  Answer ask(const Question& question) { return test::ask(*archive_, question); }
  std::vector<double> values(const Question& question);
  ::testing::AssertionResult answers(const Question& question) {
    return answersLike(*archive_, list_, question);
  }
  StorageWorker& worker() { return archive_->worker(); }
  const Counters& counters() { return archive_->counters(); }
  // A look into the file, beside the archive.
  std::int64_t inFile(const std::string& sql);
  std::string textInFile(const std::string& sql);
  // A change of the file, as damage does it.
  void changeFile(const std::string& sql);

  TemporaryFolder folder_;
  orva::test::ManualClock clock_;
  orva::test::TraceCapture trace_;
  archive::ArchiveCfg limits_;
  archive::ConnectionCfg connection_;
  PlainList list_;
  std::unique_ptr<Archive> archive_;
};

// Time of the n-th second of a series.
inline std::int64_t second(std::int64_t n) {
  return orva::test::ManualClock::kStart + n * kTicksPerSecond;
}

}  // namespace orva::sqlite::test
