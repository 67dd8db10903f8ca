#include "orva_sqlite/archive.h"

#include <exception>

#include "host/trace.h"
#include "orva_sqlite/archive_status.h"
#include "orva_sqlite/stopwatch.h"
#include "share/status_codes.h"

namespace orva::sqlite {
namespace {

// Idle reading connections that are kept; more may be in use.
std::size_t readersOf(const archive::ConnectionCfg& connection) {
  constexpr std::size_t kUsual = 4;
  return connection.connectionsCount > 0 ? static_cast<std::size_t>(connection.connectionsCount)
                                         : kUsual;
}

// What is kept of a sample: a DataValue's inner value, everything else as it is. Empty when that is
// no value an archive keeps.
PinPtr storable(const PinPtr& pin) {
  if (isStorable(pin->value)) return pin;
  if (pin->value.IsArray() || pin->value.GetType() != OpcUaType_DataValue) return {};
  const OpcUa_DataValue* const outer = pin->value.GetDataValue();
  PinPtr unwrapped =
      makePin(pin->time, outer == nullptr ? OpcUa_VariantHlp() : OpcUa_VariantHlp(outer->Value),
              pin->quality);
  return storable(unwrapped);
}

}  // namespace

Archive::Archive(const archive::ArchiveCfg& limits, const archive::ConnectionCfg& connection)
    : activity_(connection.location, counters_),
      catalog_(*this),
      buffer_(limits.writeBufferSize, limits.maxWriteValues, wake_),
      readers_(readersOf(connection)),
      damage_(counters_),
      reader_(catalog_, buffer_, readers_, damage_, counters_),
      worker_(limits, connection, catalog_, buffer_, readers_, damage_, counters_, activity_),
      metrics_(connection.location, worker_.file(), counters_, buffer_) {}

Archive::~Archive() = default;

// ---- samples

void Archive::accept(Stream& stream, const PinPtr& pin) {
  if (!pin || stopped_.load(std::memory_order_relaxed)) return;
  if (worker_.refused()) return drop(stream);
  if (isStorable(pin->value)) {
    if (!buffer_.offer(stream, pin)) return drop(stream);
  } else {
    const PinPtr kept = storable(pin);
    if (!kept) return refuse(stream, pin);
    if (!buffer_.offer(stream, kept)) return drop(stream);
  }
  counters_.accepted.fetch_add(1, std::memory_order_relaxed);
}

void Archive::drop(const Stream& stream) {
  const std::uint64_t dropped = ++counters_.dropped;
  if (worker_.noteDrop()) wake_.notify();
  if (!dropTrace_.pass()) return;
  OpcUa_Trace_Imp(kTraceError,
                  "sqlite: archive \"%s\" %s: sample of item %lld \"%s\" dropped, %llu so far\n",
                  __FILE__, __LINE__, worker_.file().c_str(),
                  worker_.refused() ? "is another's" : "has its write buffer full",
                  static_cast<long long>(stream.item.key.first), stream.item.key.second.c_str(),
                  static_cast<unsigned long long>(dropped));
}

void Archive::refuse(const Stream& stream, const PinPtr& pin) {
  const std::uint64_t refused = ++counters_.refused;
  if (!refuseTrace_.pass()) return;
  OpcUa_Trace_Imp(
      kTraceError,
      "sqlite: archive \"%s\": sample of item %lld \"%s\" refused, %s of type %d is not kept, "
      "%llu so far\n",
      __FILE__, __LINE__, worker_.file().c_str(), static_cast<long long>(stream.item.key.first),
      stream.item.key.second.c_str(), pin->value.IsArray() ? "an array" : "a value",
      static_cast<int>(pin->value.GetType()), static_cast<unsigned long long>(refused));
}

archive::ILayerWriter& Archive::layerWriter(const archive::ItemKey& key, std::int32_t layer,
                                            std::int64_t) {
  return catalog_.addStream(catalog_.add(key), layer);
}

// ---- reads

std::uint32_t Archive::itemHandle(const archive::ItemKey& key) {
  if (stopped_ || worker_.refused()) return 0;
  return catalog_.handleOf(key);
}

void Archive::read(const archive::SharedInterval& interval) {
  if (!interval) return;
  const std::uint32_t handle = interval->handle();
  if (!stopped_ && !worker_.refused()) {
    ++counters_.reads;
    const Stopwatch watch;
    std::uint64_t pushed = 0;
    try {
      if (!worker_.ready()) interval->fail(status::kBadDataUnavailable);
      pushed = reader_.answer(*interval, handle);
    } catch (const std::exception& error) {
      OpcUa_Trace_Imp(kTraceError, "<--ReturnError: sqlite read throws: %s\n", __FILE__, __LINE__,
                      error.what());
      interval->fail(orva::status::kBadOutOfMemory);
    }
    activity_.noteRead(watch.ticks(), pushed);
    if (damage_.isDoubted()) wake_.notify();
  }
  interval->finalize();
}

// ---- life

void Archive::open() {
  try {
    worker_.pass();
  } catch (const std::exception& error) {
    OpcUa_Trace_Imp(kTraceError, "<--ReturnError: sqlite start throws: %s\n", __FILE__, __LINE__,
                    error.what());
    worker_.interrupted();
  }
}

void Archive::work() {
  while (!stopped_) {
    const std::uint64_t seen = wake_.count();
    std::int64_t ticks = 0;
    try {
      ticks = worker_.pass();
    } catch (const std::exception& error) {
      OpcUa_Trace_Imp(kTraceError, "<--ReturnError: sqlite worker throws: %s\n", __FILE__, __LINE__,
                      error.what());
      worker_.interrupted();
      ticks = kTicksPerSecond;
    }
    progress_.notify();
    if (ticks > 0 && !stopped_) wake_.wait(seen, ticks);
  }
}

void Archive::shutDown() {
  stopped_ = true;
  wake_.notify();
}

// A lack of memory may be over at the next attempt.
void Archive::close() {
  constexpr int kAttempts = 3;
  for (int i = 0; i < kAttempts; ++i) {
    try {
      worker_.finish();
      return;
    } catch (const std::exception& error) {
      OpcUa_Trace_Imp(kTraceError, "<--ReturnError: sqlite stop throws: %s\n", __FILE__, __LINE__,
                      error.what());
      worker_.interrupted();
    }
  }
  worker_.abandon();
}

}  // namespace orva::sqlite
