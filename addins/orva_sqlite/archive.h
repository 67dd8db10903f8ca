#pragma once

#include <atomic>
#include <cstdint>

#include "orva_sqlite/activity.h"
#include "orva_sqlite/archive_metrics.h"
#include "orva_sqlite/catalog.h"
#include "orva_sqlite/counters.h"
#include "orva_sqlite/damage_register.h"
#include "orva_sqlite/interval_reader.h"
#include "orva_sqlite/reader_pool.h"
#include "orva_sqlite/storage_worker.h"
#include "orva_sqlite/write_buffer.h"
#include "share/archive_provider.h"
#include "share/signal.h"
#include "sqlite_base/trace_limit.h"

namespace orva::sqlite {

// An archive in one SQLite file: what the cache and the manager see of it. Samples go into the
// write buffer, reads are answered on the thread that asks, and everything that changes the file is
// the worker's. start() and stop() are the provider's, and so is the thread that runs work().
//
// Thread-safe, worker() apart.
class Archive final : public archive::IDataArchive, private Intake {
 public:
  Archive(const archive::ArchiveCfg& limits, const archive::ConnectionCfg& connection);
  ~Archive() override;
  Archive(const Archive&) = delete;
  Archive& operator=(const Archive&) = delete;

  void read(const archive::SharedInterval& interval) override;
  std::uint32_t itemHandle(const archive::ItemKey& key) override;
  const archive::Filter& filter() override { return filter_; }
  archive::ILayerWriter& layerWriter(const archive::ItemKey& key, std::int32_t layer,
                                     std::int64_t parameter) override;
  void loadFilter(const json::Value& filter) override { filter_.load(filter); }

  // Tries to open the file, so that what it holds is known when the provider's start() returns.
  void open();
  // Does the worker's passes until shutDown().
  void work();
  // From now on nothing is accepted nor answered; work() ends.
  void shutDown();
  // Writes what is buffered and closes the file; when work() has ended.
  void close();

  const Counters& counters() const { return counters_; }
  // What the host logs every minute.
  Stats& stats() { return activity_.stats(); }
  // Notified after each pass of work().
  Signal& progress() { return progress_; }
  // For whoever runs the passes: the thread in work(), or a test without one.
  StorageWorker& worker() { return worker_; }

 private:
  void accept(Stream& stream, const PinPtr& pin) override;
  bool crowded() override { return buffer_.crowded(); }
  void drop(const Stream& stream);
  void refuse(const Stream& stream, const PinPtr& pin);

  archive::Filter filter_;  // unchanged after loadFilter()
  Counters counters_;
  Activity activity_;
  Signal wake_;
  Signal progress_;
  Catalog catalog_;
  WriteBuffer buffer_;
  ReaderPool readers_;
  DamageRegister damage_;
  IntervalReader reader_;
  StorageWorker worker_;
  TraceLimit dropTrace_;
  TraceLimit refuseTrace_;
  std::atomic<bool> stopped_{false};
  const ArchiveMetrics metrics_;
};

}  // namespace orva::sqlite
