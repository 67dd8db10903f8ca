#pragma once

#include <boost/smart_ptr/make_shared.hpp>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <thread>
#include <utility>
#include <vector>

#include "model/random.h"
#include "share/archive_provider.h"
#include "share/live_count.h"
#include "share/mutex.h"
#include "share/signal.h"

namespace orva::model {

// What flaky archives keep, one after the other: every sample that was written. Thread-safe.
class FlakyStore {
 public:
  using Samples = std::vector<PinPtr>;

  std::uint32_t handleOf(const archive::ItemKey& key) EXCLUDES(mutex_);
  void add(std::uint32_t handle, const PinPtr& pin) EXCLUDES(mutex_);
  Samples answer(const archive::Interval& interval) const EXCLUDES(mutex_);

 private:
  mutable Mutex mutex_;                                    // leaf
  std::vector<archive::ItemKey> keys_ GUARDED_BY(mutex_);  // by handle - 1
  std::vector<Samples> samples_ GUARDED_BY(mutex_);        // of layer 0, by time
};

// An archive that fails at random: it answers at once or later, in part and says so, throws, or
// lets go of what it was asked. It never says that an answer is whole which is not.
class FlakyArchive final : public archive::IDataArchiveProc,
                           public archive::IDataArchive,
                           public LiveCount<FlakyArchive> {
 public:
  FlakyArchive(std::shared_ptr<FlakyStore> store, std::uint64_t seed);
  ~FlakyArchive() override;

  archive::IDataArchive* archive() override { return this; }
  void start() override EXCLUDES(mutex_);
  void stop() override EXCLUDES(mutex_);
  void read(const archive::SharedInterval& interval) override EXCLUDES(mutex_);
  std::uint32_t itemHandle(const archive::ItemKey& key) override EXCLUDES(mutex_);
  const archive::Filter& filter() override { return filter_; }
  archive::ILayerWriter& layerWriter(const archive::ItemKey& key, std::int32_t layer,
                                     std::int64_t parameter) override EXCLUDES(mutex_);
  void loadFilter(const json::Value& filter) override { filter_.load(filter); }

 private:
  struct Writer;
  struct Task {
    archive::SharedInterval interval;
    bool fails = false;
    std::int64_t pauseTicks = 0;
  };

  bool chance(double probability) EXCLUDES(mutex_);
  void answer(const archive::SharedInterval& interval, bool fails);
  void work() EXCLUDES(mutex_);

  const std::shared_ptr<FlakyStore> store_;
  archive::Filter filter_;
  Signal changed_;
  Mutex mutex_;  // leaf
  Random random_ GUARDED_BY(mutex_);
  std::map<std::uint32_t, std::unique_ptr<Writer>> writers_ GUARDED_BY(mutex_);
  std::deque<Task> tasks_ GUARDED_BY(mutex_);
  bool stopped_ GUARDED_BY(mutex_) = false;
  std::thread thread_;  // from start() to stop(), which the manager calls one after the other
};

class FlakyFactory final : public archive::IDataArchiveProcFactory {
 public:
  boost::shared_ptr<archive::IDataArchiveProc> create(const archive::ArchiveCfg&,
                                                      const archive::ConnectionCfg&) override {
    return boost::make_shared<FlakyArchive>(store, ++made);
  }

  std::shared_ptr<FlakyStore> store = std::make_shared<FlakyStore>();
  std::uint64_t made = 0;
};

}  // namespace orva::model
