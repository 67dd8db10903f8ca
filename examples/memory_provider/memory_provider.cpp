// An add-in with the provider type "memory": archives that keep the newest samples of each item in
// memory and forget them when they stop.

#include <algorithm>
#include <boost/make_shared.hpp>
#include <deque>
#include <iterator>
#include <map>
#include <utility>
#include <vector>

#include "host/addin_base.h"
#include "share/archive_manager.h"
#include "share/mutex.h"

namespace {

using namespace orva;
using namespace orva::archive;

// The samples of one item and one layer, oldest first.
class MemoryLayer final : public ILayerWriter {
 public:
  explicit MemoryLayer(std::size_t most) : most_(std::max<std::size_t>(most, 1)) {}

  void write(const PinPtr& pin) override EXCLUDES(mutex_) {
    const MutexLock lock(mutex_);
    samples_.push_back(pin);
    if (samples_.size() > most_) samples_.pop_front();
  }

  // What answers the interval. A copy: nothing is pushed under the lock.
  std::vector<PinPtr> answer(const Interval& interval) const EXCLUDES(mutex_) {
    const std::int64_t start = interval.start();
    const std::int64_t end = interval.end();  // 0: open
    if (end != 0 && end < start) return {};
    const MutexLock lock(mutex_);
    auto first = std::partition_point(samples_.begin(), samples_.end(),
                                      [&](const PinPtr& pin) { return pin->time < start; });
    auto last = std::partition_point(
        first, samples_.end(), [&](const PinPtr& pin) { return end == 0 || pin->time <= end; });
    if (first != last && interval.kind() == Interval::Kind::oldest) last = std::next(first);
    if (first != last && interval.kind() == Interval::Kind::newest) first = std::prev(last);
    if (interval.bounds().left && first != samples_.begin()) --first;
    if (interval.bounds().right && last != samples_.end()) ++last;
    return {first, last};
  }

 private:
  const std::size_t most_;
  mutable Mutex mutex_;                            // leaf; the item's lock may be held
  std::deque<PinPtr> samples_ GUARDED_BY(mutex_);  // by ascending time
};

class MemoryArchive final : public IDataArchive {
 public:
  explicit MemoryArchive(const ArchiveCfg& limits) : samplesPerLayer_(limits.writeBufferSize) {}

  void read(const SharedInterval& interval) override EXCLUDES(mutex_) {
    if (const MemoryLayer* layer = find(interval->handle(), interval->layer())) {
      const std::vector<PinPtr> pins = layer->answer(*interval);
      interval->push(pins.data(), pins.size());
    }
    interval->finalize();
  }

  std::uint32_t itemHandle(const ItemKey& key) override EXCLUDES(mutex_) {
    const MutexLock lock(mutex_);
    const auto found = handles_.find(key);
    return stopped_ || found == handles_.end() ? 0 : found->second;
  }

  const Filter& filter() override { return filter_; }
  void loadFilter(const json::Value& filter) override { filter_.load(filter); }

  ILayerWriter& layerWriter(const ItemKey& key, std::int32_t layer,
                            std::int64_t /*parameter*/) override EXCLUDES(mutex_) {
    const MutexLock lock(mutex_);
    const auto next = static_cast<std::uint32_t>(handles_.size() + 1);
    const std::uint32_t handle = handles_.try_emplace(key, next).first->second;
    return layers_.try_emplace({handle, layer}, samplesPerLayer_).first->second;
  }

  void stop() EXCLUDES(mutex_) {
    const MutexLock lock(mutex_);
    stopped_ = true;
  }

 private:
  // Null for what the archive does not hold. Layers are never removed, so the pointer stays good.
  const MemoryLayer* find(std::uint32_t handle, std::int32_t layer) const EXCLUDES(mutex_) {
    const MutexLock lock(mutex_);
    if (stopped_) return nullptr;
    const auto found = layers_.find({handle, std::max(layer, 0)});  // -1: every archive, raw values
    return found == layers_.end() ? nullptr : &found->second;
  }

  const std::size_t samplesPerLayer_;
  Filter filter_;        // set before start(), unchanged afterwards
  mutable Mutex mutex_;  // leaf: the layers have locks of their own, never taken under it
  std::map<ItemKey, std::uint32_t> handles_ GUARDED_BY(mutex_);
  std::map<std::pair<std::uint32_t, std::int32_t>, MemoryLayer> layers_ GUARDED_BY(mutex_);
  bool stopped_ GUARDED_BY(mutex_) = false;
};

class MemoryProvider final : public IDataArchiveProc {
 public:
  explicit MemoryProvider(const ArchiveCfg& limits) : archive_(limits) {}
  IDataArchive* archive() override { return &archive_; }
  void start() override {}
  void stop() override { archive_.stop(); }

 private:
  MemoryArchive archive_;
};

class MemoryFactory final : public IDataArchiveProcFactory {
 public:
  boost::shared_ptr<IDataArchiveProc> create(const ArchiveCfg& limits,
                                             const ConnectionCfg&) override {
    return boost::make_shared<MemoryProvider>(limits);
  }
};

}  // namespace

extern "C" ORVA_API int InitAddin(HostCallback) {
  static MemoryFactory factory;  // lives as long as the process
  DataArchiveManager::instance().regFactory("memory", &factory);
  return 0;
}
