#include <benchmark/benchmark.h>

#include <boost/smart_ptr/make_shared.hpp>
#include <memory>
#include <vector>

#include "bench/allocation_count.h"
#include "bench/counting_archive.h"
#include "bench/plant_load.h"
#include "orva_database/pin.h"
#include "orva_host/variables.h"

// What it costs to take a sample in: filter, cache, writer. Both sides are measured where they are
// after hours: every sample that comes makes an old one go.

namespace orva::bench {
namespace {

constexpr std::uint32_t kItems = 100;
constexpr std::uint32_t kSamples = 10'000;

const PlantLoad& load() {
  static const PlantLoad made(kItems, kSamples);
  return made;
}

// Goes through the load second by second, item by item, for ever.
class Feed {
 public:
  std::uint32_t item() const { return item_; }
  std::uint64_t second() const { return second_; }
  std::int64_t time() const { return PlantLoad::time(second_); }
  double value() const { return load().value(item_, row_); }
  void next() {
    if (++item_ < kItems) return;
    item_ = 0;
    ++second_;
    if (++row_ == kSamples) row_ = 0;
  }

 private:
  std::uint32_t item_ = 0;
  std::uint32_t row_ = 0;
  std::uint64_t second_ = 0;
};

// Items with one raw, cached layer each, in a block storage of their own.
class CachedPlant {
 public:
  CachedPlant() {
    useStorage();
    constexpr std::int32_t kLayer = 0;
    host::setLayer({kLayer, /*cache=*/true, /*resampleInterval=*/0});
    archive::Filter filter;
    filter.allValues = true;
    for (std::uint32_t i = 0; i < kItems; ++i) {
      items_.push_back(cache::CachedItem::make());
      items_.back()->addLayer(writer_, kLayer);
      items_.back()->setFilter(filter);
    }
  }
  CachedPlant(const CachedPlant&) = delete;
  CachedPlant& operator=(const CachedPlant&) = delete;

  // Benchmarks take turns, and each has its own storage.
  void useStorage() { cache::Layer::storage = storage_; }

  void append() {
    OpcUa_VariantHlp value;
    value.SetDouble(feed_.value());
    *items_[feed_.item()] << makePin(feed_.time(), std::move(value));
    feed_.next();
  }
  std::uint64_t written() const { return writer_.written; }

 private:
  const boost::shared_ptr<cache::BlockStorage> storage_ =
      cache::BlockStorage::make(cache::Layer::kStorageBlocks);
  CountingWriter writer_;
  std::vector<boost::shared_ptr<cache::CachedItem>> items_;
  Feed feed_;
};

void BM_AppendSample(benchmark::State& state) {
  static CachedPlant plant;
  static std::uint64_t appended = 0;
  plant.useStorage();
  if (appended == 0) {
    for (; appended < 2 * load().total(); ++appended) plant.append();
  }
  const std::uint64_t allocations = allocationCount();
  for (auto _ : state) plant.append();
  const auto count = static_cast<std::uint64_t>(state.iterations());
  appended += count;
  state.SetItemsProcessed(state.iterations());
  state.counters["allocs_per_sample"] =
      static_cast<double>(allocationCount() - allocations) / static_cast<double>(count);
  if (plant.written() != appended) state.SkipWithError("samples were lost on the way");
}
BENCHMARK(BM_AppendSample);

// ---- the baseline

struct PlainSample {
  std::uint32_t quality = 0;
  std::int64_t time = 0;
  OpcUa_VariantHlp value;
};

// Keeps as many samples as the cache does, on average. Lists are emptied in turn, since the cache's
// blocks go one by one.
class PlainPlant {
 public:
  void append() {
    auto sample = boost::make_shared<PlainSample>();
    sample->time = feed_.time();
    sample->value.SetDouble(feed_.value());
    List& list = lists_[feed_.item()];
    {
      MutexLock lock(list.mutex);
      if ((feed_.second() + feed_.item() * kKept / kItems) % kKept == 0) list.samples.clear();
      list.samples.push_back(std::move(sample));
    }
    feed_.next();
  }

 private:
  static constexpr std::uint64_t kKept = 24'000;
  struct List {
    Mutex mutex;
    std::vector<boost::shared_ptr<PlainSample>> samples GUARDED_BY(mutex);
  };

  std::vector<List> lists_ = std::vector<List>(kItems);
  Feed feed_;
};

void BM_Baseline_MakeSharedPush(benchmark::State& state) {
  static PlainPlant plant;
  static std::uint64_t appended = 0;
  if (appended == 0) {
    for (; appended < 2 * load().total(); ++appended) plant.append();
  }
  const std::uint64_t allocations = allocationCount();
  for (auto _ : state) plant.append();
  state.SetItemsProcessed(state.iterations());
  state.counters["allocs_per_sample"] = static_cast<double>(allocationCount() - allocations) /
                                        static_cast<double>(state.iterations());
}
BENCHMARK(BM_Baseline_MakeSharedPush);

}  // namespace
}  // namespace orva::bench
