#include <benchmark/benchmark.h>

#include <boost/smart_ptr/make_shared.hpp>
#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "bench/allocation_count.h"
#include "bench/plant_load.h"
#include "bench/row_table.h"
#include "bench/temp_folder.h"
#include "orva_sqlite/provider.h"

// The archive in SQLite files against a table with a row for each sample: how fast samples become
// durable, how many bytes they take, and how fast history comes back.

namespace orva::bench {
namespace {

constexpr std::uint32_t kItems = 100;
constexpr std::uint32_t kSamples = 10'000;
constexpr std::uint32_t kPerTransaction = 10'000;

const PlantLoad& load() {
  static const PlantLoad made(kItems, kSamples);
  return made;
}

archive::ItemKey keyOf(std::uint32_t item) { return {item + 1, "Plant/T" + std::to_string(item)}; }

PinPtr sampleOf(std::uint32_t item, std::uint32_t n) {
  OpcUa_VariantHlp value;
  value.SetDouble(load().value(item, n));
  return makePin(PlantLoad::time(n), std::move(value));
}

double secondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

archive::ArchiveCfg limits() {
  archive::ArchiveCfg cfg;
  // The whole load comes at once here, so the buffer has to take what the disk is behind.
  cfg.writeBufferSize = kItems * kSamples;
  cfg.maxWriteValues = kPerTransaction;
  return cfg;
}

archive::ConnectionCfg connectionTo(const TempFolder& folder) {
  archive::ConnectionCfg connection;
  connection.location = folder.file("archive");
  connection.providerType = "sqlite";
  return connection;
}

// Hands every sample of the load to the writers, second by second.
void writeLoad(archive::IDataArchive& target) {
  std::vector<archive::ILayerWriter*> writers;
  for (std::uint32_t item = 0; item < kItems; ++item) {
    writers.push_back(&target.layerWriter(keyOf(item), 0, 0));
  }
  for (std::uint32_t n = 0; n < kSamples; ++n) {
    for (std::uint32_t item = 0; item < kItems; ++item) writers[item]->write(sampleOf(item, n));
  }
}

// Joins what small segments there are and empties the log, as an archive does in a quiet hour.
bool tidyUp(const TempFolder& folder) {
  sqlite::Archive archive(limits(), connectionTo(folder));
  archive.open();
  const bool done = archive.worker().mergeAll();
  archive.worker().store().space().checkpoint();
  archive.shutDown();
  archive.close();
  return done;
}

void BM_SqliteIngest(benchmark::State& state) {
  const auto total = static_cast<double>(load().total());
  for (auto _ : state) {
    const TempFolder folder;
    sqlite::Provider provider(limits(), connectionTo(folder));
    provider.start();
    const std::uint64_t allocations = allocationCount();
    const auto start = std::chrono::steady_clock::now();
    writeLoad(*provider.archive());
    provider.stop();  // returns when all is durable
    state.SetIterationTime(secondsSince(start));
    state.counters["allocs_per_sample"] =
        static_cast<double>(allocationCount() - allocations) / total;
    const sqlite::Counters& counters = provider.sqliteArchive().counters();
    state.counters["dropped"] = static_cast<double>(counters.dropped.load());
    if (counters.accepted != load().total() || counters.written != load().total()) {
      state.SkipWithError("samples were lost on the way");
    }
    const auto tidyStart = std::chrono::steady_clock::now();
    if (!tidyUp(folder)) state.SkipWithError("the segments cannot be joined");
    state.counters["tidy_s"] = secondsSince(tidyStart);
    state.counters["bytes_per_sample"] = static_cast<double>(folder.bytes()) / total;
  }
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(load().total()));
}
BENCHMARK(BM_SqliteIngest)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);

// ---- reading

// A started archive that holds the load.
class FilledArchive {
 public:
  FilledArchive() {
    sqlite::Provider filling(limits(), connectionTo(folder_));
    filling.start();
    writeLoad(*filling.archive());
    filling.stop();
    tidyUp(folder_);
    provider_ = std::make_unique<sqlite::Provider>(limits(), connectionTo(folder_));
    provider_->start();
  }
  archive::IDataArchive& archive() { return *provider_->archive(); }

 private:
  const TempFolder folder_;
  std::unique_ptr<sqlite::Provider> provider_;
};

// Reads `count` samples of an item as the manager does it: the number of values that came.
std::size_t readItem(archive::IDataArchive& archive, std::uint32_t item, std::uint32_t count) {
  const auto request = boost::make_shared<archive::Request>();
  const archive::SharedItem& asked = request->addItem(item + 1);
  asked->numValuesPerNode = count;
  const archive::SharedInterval interval =
      asked->addInterval(0, PlantLoad::time(0), PlantLoad::time(count - 1));
  interval->setHandle(archive.itemHandle(keyOf(item)));
  archive.read(interval);
  return request->complete() ? asked->values().size() : 0;
}

void BM_SqliteColdRead(benchmark::State& state) {
  static FilledArchive filled;
  const auto count = static_cast<std::uint32_t>(state.range(0));
  std::uint32_t item = 0;
  const std::uint64_t allocations = allocationCount();
  for (auto _ : state) {
    if (readItem(filled.archive(), item, count) != count)
      state.SkipWithError("samples are missing");
    if (++item == kItems) item = 0;
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
  state.counters["allocs_per_sample"] = static_cast<double>(allocationCount() - allocations) /
                                        static_cast<double>(state.iterations() * state.range(0));
}
BENCHMARK(BM_SqliteColdRead)->Arg(kSamples)->Unit(benchmark::kMicrosecond);

// ---- the baselines

void writeRows(RowTable& table) {
  std::uint32_t inTransaction = 0;
  for (std::uint32_t n = 0; n < kSamples; ++n) {
    for (std::uint32_t item = 0; item < kItems; ++item) {
      if (inTransaction == 0) table.begin();
      table.insert(item + 1, *sampleOf(item, n));
      if (++inTransaction < kPerTransaction) continue;
      table.commit();
      inTransaction = 0;
    }
  }
}

void BM_Baseline_SqliteRows(benchmark::State& state) {
  const auto total = static_cast<double>(load().total());
  for (auto _ : state) {
    const TempFolder folder;
    RowTable table(folder.file("rows.db"));
    const std::uint64_t allocations = allocationCount();
    const auto start = std::chrono::steady_clock::now();
    writeRows(table);
    state.SetIterationTime(secondsSince(start));
    state.counters["allocs_per_sample"] =
        static_cast<double>(allocationCount() - allocations) / total;
    table.checkpoint();
    state.counters["bytes_per_sample"] = static_cast<double>(folder.bytes()) / total;
  }
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(load().total()));
}
BENCHMARK(BM_Baseline_SqliteRows)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);

// A table that holds the load.
class FilledTable {
 public:
  FilledTable() : table_(folder_.file("rows.db")) {
    writeRows(table_);
    table_.checkpoint();
  }
  RowTable& table() { return table_; }

 private:
  const TempFolder folder_;
  RowTable table_;
};

void BM_Baseline_SqliteSelect(benchmark::State& state) {
  static FilledTable filled;
  const auto count = static_cast<std::uint32_t>(state.range(0));
  std::uint32_t item = 0;
  const std::uint64_t allocations = allocationCount();
  for (auto _ : state) {
    std::vector<PinPtr> samples;
    filled.table().select(item + 1, PlantLoad::time(0), PlantLoad::time(count - 1), samples);
    if (samples.size() != count) state.SkipWithError("samples are missing");
    if (++item == kItems) item = 0;
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
  state.counters["allocs_per_sample"] = static_cast<double>(allocationCount() - allocations) /
                                        static_cast<double>(state.iterations() * state.range(0));
}
BENCHMARK(BM_Baseline_SqliteSelect)->Arg(kSamples)->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace orva::bench
