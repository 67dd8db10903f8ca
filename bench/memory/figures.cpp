#include "bench/memory/figures.h"

#include <algorithm>
#include <memory>
#include <stdexcept>

#include "bench/memory/heap_count.h"
#include "bench/memory/measured_service.h"
#include "orva_database/layer.h"
#include "orva_database/write_data_fb.h"
#include "orva_host/lua_state.h"
#include "orva_sqlite/write_buffer.h"

namespace orva::bench {
namespace {

// A limit for machines with 64 and with 32 bits.
constexpr std::int64_t limitOf(std::int64_t wide, std::int64_t narrow) {
  return sizeof(void*) == 8 ? wide : narrow;
}

struct ItemCost {
  std::int64_t host = 0;     // the host's description of the variable
  std::int64_t service = 0;  // the item itself, with what its archive keeps of it
  std::int64_t sample = 0;   // its first sample, which stays in memory
};

std::int64_t each(std::int64_t before, std::int64_t after, std::uint32_t count) {
  return (after - before + count / 2) / count;
}

// Of items that come on top of as many others.
ItemCost costOf(Archive archive, Kind kind, std::uint32_t count) {
  const std::uint32_t half = count / 2;
  MeasuredService service(archive, kind);
  service.describe(half);
  service.makeItems();
  ItemCost cost;
  const std::int64_t start = heapBytes();
  service.describe(half);
  const std::int64_t described = heapBytes();
  service.makeItems();
  const std::int64_t made = heapBytes();
  // What this program holds of each item itself.
  constexpr std::int64_t kOwn = sizeof(boost::shared_ptr<cache::CachedItem>) + sizeof(std::int64_t);
  cost.host = each(start, described, half);
  cost.service = each(described, made, half) - kOwn;
  if (archive == Archive::none) {  // that of SQLite would write them at the same time
    for (std::uint32_t i = half; i < count; ++i) service.item(i) << MeasuredService::sample(1);
    cost.sample = each(made, heapBytes(), half);
  }
  return cost;
}

using Queues = cache::BlockStorage::Counts;

bool isFull(const Queues& queues) {
  return queues.firstIn + queues.probation + queues.main == cache::Layer::kStorageBlocks;
}

// One item's samples, block after block, and reads of old ones until each queue is full.
void fillCache(MeasuredService& service) {
  constexpr std::uint32_t kBlock = cache::DataBlock::MAX_SIZE;
  constexpr std::uint32_t kMost = 8 * cache::Layer::kStorageBlocks;
  // A block that lately left the first-in queue.
  constexpr std::uint32_t kBack = cache::Layer::kStorageBlocks / 4 + 10;
  for (std::uint32_t block = 0; block < kMost; ++block) {
    for (std::uint32_t i = 0; i < kBlock; ++i) {
      service.item(0) << MeasuredService::sample(block * kBlock + i);
    }
    if (block >= kBack && block % 2 == 0) service.read(0, 1, (block - kBack) * kBlock + 10, 10);
    if (isFull(cache::Layer::storage->counts()) && block >= 2 * cache::Layer::kStorageBlocks)
      return;
  }
  throw std::runtime_error("the cache does not get full");
}

void addRead(const char* name, const MeasuredService::Reply& reply, std::int64_t limit,
             Figures& out) {
  if (reply.values != 10'000) {
    throw std::runtime_error(std::string(name) + ": " + std::to_string(reply.values) + " values");
  }
  out.push_back({std::string(name) + ": peak on the heap", reply.peak, limit});
  out.push_back({std::string(name) + ": bytes of the reply", reply.bytes, 0});
}

}  // namespace

void measureItems(std::uint32_t count, Figures& out) {
  const ItemCost cached = costOf(Archive::none, Kind::cached, count);
  out.push_back({"item: the host's description of the variable", cached.host, 0});
  out.push_back({"item, cached: the service", cached.service, limitOf(1600, 1100)});
  out.push_back({"item, cached: its first sample", cached.sample, limitOf(90, 62)});
  const ItemCost stored = costOf(Archive::sqlite, Kind::cached, count);
  out.push_back(
      {"item, cached: the SQLite archive", stored.service - cached.service, limitOf(450, 300)});
  const std::uint32_t few = std::max(count / 10, 2U);
  out.push_back({"item, not cached: the service",
                 costOf(Archive::none, Kind::uncached, few).service, limitOf(1200, 830)});
  out.push_back({"item, three cached layers: the service",
                 costOf(Archive::none, Kind::threeLayers, few).service, limitOf(3300, 2100)});
}

void measureBlocks(std::uint32_t count, Figures& out) {
  MeasuredService service(Archive::none, Kind::cached);
  service.describe(count);
  service.makeItems();
  RegisterSTLibsWriteDataFB();
  host::LuaState state;
  std::string error;
  std::string program = "blocks = {}\n";
  if (!state.open(error) || !state.run(program, "blocks", error)) throw std::runtime_error(error);
  const auto make = [&](std::uint32_t from, std::uint32_t to) {
    for (std::uint32_t i = from; i < to; ++i) {
      const archive::ItemKey key = MeasuredService::key(i);
      program = "blocks[" + std::to_string(i + 1) +
                "] = ArchiveProc.new{Id = " + std::to_string(key.first) + ", Path = '" +
                key.second + "'}";
      if (!state.run(program, "blocks", error)) throw std::runtime_error(error);
    }
    if (!state.run("collectgarbage() collectgarbage()", "blocks", error)) {
      throw std::runtime_error(error);
    }
  };
  make(0, count / 2);
  const std::int64_t before = heapBytes();
  make(count / 2, count);
  out.push_back({"function block of an item", each(before, heapBytes(), count - count / 2),
                 limitOf(700, 580)});
}

void measureFullCache(Figures& out) {
  MeasuredService service(Archive::none, Kind::cached);
  service.describe(1);
  service.makeItems();
  const std::int64_t before = heapBytes();
  fillCache(service);
  const std::int64_t bytes = heapBytes() - before;
  const Queues queues = cache::Layer::storage->counts();
  constexpr std::int64_t kSamples =
      std::int64_t{cache::Layer::kStorageBlocks} * cache::DataBlock::MAX_SIZE;
  out.push_back({"cache full: blocks", queues.firstIn + queues.probation + queues.main, 0});
  out.push_back({"cache full: all blocks", bytes, limitOf(95'000'000, 75'000'000)});
  out.push_back(
      {"cache full: 1000 samples, Doubles", bytes * 1000 / kSamples, limitOf(58'000, 46'000)});
}

void measureReads(Figures& out) {
  constexpr std::uint32_t kValues = 10'000;
  {
    MeasuredService service(Archive::none, Kind::cached);
    service.describe(100);
    service.makeItems();
    // One sample more at either end: then the cache knows that nothing is missing.
    for (std::uint32_t n = 0; n < kValues + 2; ++n) service.item(0) << MeasuredService::sample(n);
    for (std::uint32_t i = 1; i < 100; ++i) {
      for (std::uint32_t n = 0; n < 102; ++n) service.item(i) << MeasuredService::sample(n);
    }
    addRead("read of 10000 values, cached", service.read(0, 1, 1, kValues),
            limitOf(330'000, 150'000), out);
    addRead("read of 100 values of 100 items, cached", service.read(0, 100, 1, 100),
            limitOf(550'000, 550'000), out);
  }
  MeasuredService service(Archive::sqlite, Kind::uncached);
  service.describe(1);
  service.makeItems();
  for (std::uint32_t n = 0; n < kValues + 2; ++n) {
    while (service.item(0).crowded()) {
    }
    service.item(0) << MeasuredService::sample(n);
  }
  service.restart();
  addRead("read of 10000 values, from a file", service.read(0, 1, 1, kValues),
          limitOf(1'200'000, 830'000), out);
}

void measureWriteBuffer(Figures& out) {
  constexpr std::uint32_t kSamples = 10'000;
  Signal wake;
  sqlite::WriteBuffer buffer(kSamples, kSamples, wake);
  const auto streams = std::make_unique<sqlite::BufferedStream[]>(kSamples);
  const std::int64_t empty = heapBytes();
  restartHeapPeak();
  const auto write = [&](std::uint32_t stream, std::uint32_t count) {
    for (std::uint32_t n = 0; n < count; ++n) {
      if (!buffer.offer(streams[stream], MeasuredService::sample(n))) {
        throw std::runtime_error("the write buffer is full too early");
      }
    }
  };
  const auto store = [&] {
    buffer.takeBatch();
    buffer.committing(1);
    buffer.committed(true);
  };
  for (std::uint32_t stream = 0; stream < kSamples; ++stream) write(stream, 1);
  out.push_back(
      {"write buffer: a sample that waits", each(empty, heapBytes(), kSamples), limitOf(110, 78)});
  store();
  out.push_back({"write buffer: kept by an item written one by one",
                 each(empty, heapBytes(), kSamples), limitOf(110, 60)});
  const std::int64_t before = heapBytes();
  constexpr std::uint32_t kBursts = 10;
  for (std::uint32_t stream = 0; stream < kBursts; ++stream) write(stream, kSamples / kBursts);
  store();
  out.push_back({"write buffer: kept by an item after a burst of 1000 samples",
                 each(before, heapBytes(), kBursts), limitOf(1024, 1024)});
}

}  // namespace orva::bench
