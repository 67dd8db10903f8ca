#include <benchmark/benchmark.h>

#include <boost/smart_ptr/make_shared.hpp>
#include <memory>
#include <string>
#include <vector>

#include "bench/allocation_count.h"
#include "bench/counting_archive.h"
#include "bench/plant_load.h"
#include "orva_database/pin.h"
#include "orva_database/request_processor.h"
#include "orva_host/config_sections.h"
#include "orva_host/variables.h"
#include "share/archive_manager.h"
#include "share/json.h"

// A history read of a client, from the request's text to the reply's, with everything in the cache;
// against a JSON writer that walks over an array and knows nothing of requests, items or caches.

namespace orva::bench {
namespace {

using archive::DataArchiveManager;

constexpr int kReplyBytes = 1 << 20;
// Of a storage no more than half the blocks stay when each of them is used in turn.
constexpr unsigned kStorageBlocks = 4 * cache::Layer::kStorageBlocks;

// What a benchmark with this many values per read works on.
struct Shape {
  std::uint32_t items;
  std::uint32_t samples;  // of each item in the cache
};
Shape shapeFor(std::int64_t values) {
  return values > 1000 ? Shape{100, 10'000} : Shape{1000, 1000};
}

const PlantLoad& loadFor(std::int64_t values) {
  static const PlantLoad few(100, 10'000);
  static const PlantLoad many(1000, 1000);
  return shapeFor(values).items == few.items() ? few : many;
}

class CountingFactory : public archive::IDataArchiveProcFactory {
 public:
  boost::shared_ptr<archive::IDataArchiveProc> create(const archive::ArchiveCfg&,
                                                      const archive::ConnectionCfg&) override {
    archive = boost::make_shared<CountingArchive>();
    return archive;
  }
  boost::shared_ptr<CountingArchive> archive;
};

// The manager with the load in its cache, as a plant fills it, and the requests for the newest
// values of each item.
class ServedPlant {
 public:
  // There is one manager, so there is one plant; it is filled anew for another shape.
  static ServedPlant& filledFor(std::int64_t values) {
    static ServedPlant plant;
    cache::Layer::storage = plant.storage_;
    if (plant.values_ != values) plant.fill(values);
    return plant;
  }

  // Reads the next item. The length of the reply, 0 if it is not what it should be.
  int read() {
    const std::string& request = requests_[next_];
    if (++next_ == requests_.size()) next_ = 0;
    int length = 0;
    const int code = RequestProcessor::ProcessJSONRequest(&processor_, 0, request.data(),
                                                          static_cast<int>(request.size()),
                                                          reply_.get(), kReplyBytes, &length);
    return code == 0 ? length : 0;
  }
  const char* reply() const { return reply_.get(); }
  std::uint64_t archiveReads() const { return factory_.archive->reads; }

 private:
  ServedPlant() {
    DataArchiveManager::instance().regFactory("counting", &factory_);
    host::setConfigSection(
        "DataArchive",
        R"({"archives":[{"limits":{},"connection":{"providerType":"counting"},"filter":{}}]})");
  }

  void fill(std::int64_t values) {
    DataArchiveManager& manager = DataArchiveManager::instance();
    manager.clear();
    storage_ = cache::BlockStorage::make(kStorageBlocks);
    cache::Layer::storage = storage_;
    manager.init();
    const PlantLoad& load = loadFor(values);
    makeItems(load, values);
    append(load);
    values_ = values;
    next_ = 0;
  }

  void makeItems(const PlantLoad& load, std::int64_t values) {
    host::setLayer({0, /*cache=*/true, /*resampleInterval=*/0});
    pins_.clear();
    requests_.clear();
    const std::int64_t start =
        PlantLoad::milliseconds(load.samples() + 1 - static_cast<std::uint64_t>(values));
    for (std::uint32_t i = 0; i < load.items(); ++i) {
      const archive::ItemKey key(i + 1, "Plant/T" + std::to_string(i + 1));
      vm::Item item;
      item.id = key.first;
      item.path = key.second;
      item.type = OpcUaType_Double;
      host::setVariable(item, {{0, {0, 0}}});
      const std::int64_t id = DataArchiveManager::instance().createPinCache(key);
      pins_.push_back(DataArchiveManager::instance().getPinCache(id));
      requests_.push_back(
          "/Methods/HistoryReadRaw\nbench\n{\"data\":[{\"archiveItemId\":" + std::to_string(id) +
          "}],\"parameters\":{\"startTime\":" + std::to_string(start) +
          ",\"numValuesPerNode\":10000}}");
    }
  }

  // One sample more than the benchmarks read: nothing is known of what lies before the first one.
  void append(const PlantLoad& load) {
    for (std::uint32_t n = 0; n <= load.samples(); ++n) {
      for (std::uint32_t item = 0; item < load.items(); ++item) {
        OpcUa_VariantHlp value;
        value.SetDouble(load.value(item, n == 0 ? 0 : n - 1));
        *pins_[item] << makePin(PlantLoad::time(n), std::move(value));
      }
    }
  }

  boost::shared_ptr<cache::BlockStorage> storage_;
  CountingFactory factory_;
  RequestProcessor processor_;
  const std::unique_ptr<char[]> reply_{new char[kReplyBytes]};
  std::int64_t values_ = 0;
  std::vector<boost::shared_ptr<cache::CachedItem>> pins_;
  std::vector<std::string> requests_;
  std::size_t next_ = 0;
};

// The number of values in a reply with one item.
std::int64_t valuesIn(const char* reply) {
  json::Document document;
  document.Parse(reply);
  if (document.HasParseError()) return -1;
  const json::Value& data = json::member(document, "data");
  if (!data.IsArray() || data.Size() != 1) return -1;
  const json::Value& values = json::member(data[0], "values");
  return values.IsArray() ? values.Size() : -1;
}

void BM_CachedReadJson(benchmark::State& state) {
  const std::int64_t values = state.range(0);
  ServedPlant& plant = ServedPlant::filledFor(values);
  if (plant.read() == 0 || valuesIn(plant.reply()) != values) {
    return state.SkipWithError("the reply is not what it should be");
  }
  const std::uint64_t allocations = allocationCount();
  std::int64_t bytes = 0;
  for (auto _ : state) {
    const int length = plant.read();
    if (length == 0) state.SkipWithError("a read failed");
    bytes += length;
  }
  state.SetItemsProcessed(state.iterations() * values);
  state.SetBytesProcessed(bytes);
  state.counters["reads_per_s"] =
      benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
  state.counters["allocs_per_sample"] = static_cast<double>(allocationCount() - allocations) /
                                        static_cast<double>(state.iterations() * values);
  if (plant.archiveReads() != 0) state.SkipWithError("the cache asked its archive");
}
BENCHMARK(BM_CachedReadJson)->Arg(10'000)->Arg(100)->Unit(benchmark::kMicrosecond);

// ---- the baseline

struct PlainSample {
  std::int64_t milliseconds;
  double value;
  std::uint32_t quality;
};

// The newest values of each item, as an array each.
std::vector<std::vector<PlainSample>> plainArrays(std::int64_t values) {
  const PlantLoad& load = loadFor(values);
  std::vector<std::vector<PlainSample>> arrays(load.items());
  for (std::uint32_t item = 0; item < load.items(); ++item) {
    for (std::uint32_t n = 0; n < load.samples(); ++n) {
      arrays[item].push_back({PlantLoad::milliseconds(n + 1), load.value(item, n), 0});
    }
    arrays[item].erase(arrays[item].begin(), arrays[item].end() - values);
  }
  return arrays;
}

void encode(const std::vector<PlainSample>& samples, rapidjson::StringBuffer& out) {
  rapidjson::Writer<rapidjson::StringBuffer> writer(out);
  writer.StartArray();
  for (const PlainSample& sample : samples) {
    writer.StartArray();
    writer.Int64(sample.milliseconds);
    writer.Double(sample.value);
    writer.Uint(sample.quality);
    writer.EndArray();
  }
  writer.EndArray();
}

void BM_Baseline_RapidJsonEncode(benchmark::State& state) {
  const std::int64_t values = state.range(0);
  const auto arrays = plainArrays(values);
  rapidjson::StringBuffer out;
  out.Reserve(kReplyBytes);  // as the reader's buffer is there already
  std::size_t next = 0;
  std::int64_t bytes = 0;
  for (auto _ : state) {
    out.Clear();
    encode(arrays[next], out);
    benchmark::DoNotOptimize(out.GetString());
    bytes += static_cast<std::int64_t>(out.GetSize());
    if (++next == arrays.size()) next = 0;
  }
  state.SetItemsProcessed(state.iterations() * values);
  state.SetBytesProcessed(bytes);
}
BENCHMARK(BM_Baseline_RapidJsonEncode)->Arg(10'000)->Arg(100)->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace orva::bench
