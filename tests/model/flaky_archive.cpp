#include "model/flaky_archive.h"

#include <algorithm>
#include <stdexcept>

#include "share/status_codes.h"
#include "share/ticks.h"
#include "support/scripted_provider.h"

namespace orva::model {

using archive::Interval;
using archive::ItemKey;
using archive::SharedInterval;

// ---- the store

std::uint32_t FlakyStore::handleOf(const ItemKey& key) {
  MutexLock lock(mutex_);
  const auto found = std::find(keys_.begin(), keys_.end(), key);
  const auto index = static_cast<std::size_t>(found - keys_.begin());
  if (found == keys_.end()) {
    keys_.push_back(key);
    samples_.emplace_back();
  }
  return static_cast<std::uint32_t>(index + 1);
}

void FlakyStore::add(std::uint32_t handle, const PinPtr& pin) {
  MutexLock lock(mutex_);
  Samples& samples = samples_[handle - 1];
  const auto later = [](const PinPtr& a, const PinPtr& b) { return a->time < b->time; };
  samples.insert(std::upper_bound(samples.begin(), samples.end(), pin, later), pin);
}

FlakyStore::Samples FlakyStore::answer(const Interval& interval) const {
  MutexLock lock(mutex_);
  const Samples& samples = samples_[interval.handle() - 1];
  // Two samples more on each side are enough for bounds; copying all would be most of the work.
  const auto earlier = [](const PinPtr& p, std::int64_t time) { return p->time < time; };
  const auto later = [](std::int64_t time, const PinPtr& p) { return time < p->time; };
  auto from = std::lower_bound(samples.begin(), samples.end(), interval.start(), earlier);
  auto to = interval.end() == 0 ? samples.end()
                                : std::upper_bound(from, samples.end(), interval.end(), later);
  from -= std::min<std::ptrdiff_t>(2, from - samples.begin());
  to += std::min<std::ptrdiff_t>(2, samples.end() - to);
  return test::rightAnswer(interval, Samples(from, to));
}

// ---- the archive

struct FlakyArchive::Writer final : archive::ILayerWriter {
  Writer(FlakyStore& kept, std::uint32_t number) : store(kept), handle(number) {}
  void write(const PinPtr& pin) override { store.add(handle, pin); }

  FlakyStore& store;
  const std::uint32_t handle;
};

FlakyArchive::FlakyArchive(std::shared_ptr<FlakyStore> store, std::uint64_t seed)
    : store_(std::move(store)), random_(seed) {}

FlakyArchive::~FlakyArchive() { stop(); }

void FlakyArchive::start() {
  thread_ = std::thread([this] { work(); });
}

void FlakyArchive::stop() {
  {
    MutexLock lock(mutex_);
    stopped_ = true;
  }
  changed_.notify();
  if (thread_.joinable()) thread_.join();
}

bool FlakyArchive::chance(double probability) {
  MutexLock lock(mutex_);
  return random_.chance(probability);
}

std::uint32_t FlakyArchive::itemHandle(const ItemKey& key) {
  if (chance(.005)) throw std::runtime_error("flaky itemHandle");
  {
    MutexLock lock(mutex_);
    if (stopped_) return 0;
  }
  return store_->handleOf(key);
}

archive::ILayerWriter& FlakyArchive::layerWriter(const ItemKey& key, std::int32_t, std::int64_t) {
  const std::uint32_t handle = store_->handleOf(key);
  MutexLock lock(mutex_);
  std::unique_ptr<Writer>& writer = writers_[handle];
  if (!writer) writer = std::make_unique<Writer>(*store_, handle);
  return *writer;
}

void FlakyArchive::read(const SharedInterval& interval) {
  bool stopped = false;
  bool fails = false;
  bool later = false;
  {
    MutexLock lock(mutex_);
    stopped = stopped_;
    fails = random_.chance(.05);
    const std::uint64_t kind = stopped ? 100 : random_.below(100);
    if (kind < 1 && random_.chance(.3)) return;  // lets go of it
    if (kind < 6) throw std::runtime_error("flaky read");
    later = kind < 25;
    if (later) {
      tasks_.push_back({interval, fails, random_.between(0, 20) * kTicksPerMillisecond});
    }
  }
  if (later) return changed_.notify();
  if (stopped) return interval->finalize();
  answer(interval, fails);
}

void FlakyArchive::answer(const SharedInterval& interval, bool fails) {
  FlakyStore::Samples samples = store_->answer(*interval);
  if (fails) {
    samples.resize(samples.size() / 2);
    interval->push(samples.data(), samples.size());
    interval->fail(status::kBadNoData);
  } else {
    interval->push(samples.data(), samples.size());
  }
  interval->finalize();
}

void FlakyArchive::work() {
  for (;;) {
    const std::uint64_t seen = changed_.count();
    Task task;
    bool stopped = false;
    {
      MutexLock lock(mutex_);
      stopped = stopped_;
      if (!tasks_.empty()) {
        task = std::move(tasks_.front());
        tasks_.pop_front();
      }
    }
    if (task.interval) {
      if (!stopped) changed_.waitReal(seen, task.pauseTicks);
      if (stopped) {
        task.interval->finalize();
      } else {
        answer(task.interval, task.fails);
      }
    } else if (stopped) {
      return;
    } else {
      changed_.waitReal(seen, kTicksPerSecond);
    }
  }
}

}  // namespace orva::model
