#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

#include "orva_sqlite/activity.h"
#include "orva_sqlite/catalog.h"
#include "orva_sqlite/cleaner.h"
#include "orva_sqlite/counters.h"
#include "orva_sqlite/damage_register.h"
#include "orva_sqlite/drop_report.h"
#include "orva_sqlite/reader_pool.h"
#include "orva_sqlite/segment_writer.h"
#include "orva_sqlite/store.h"
#include "orva_sqlite/write_buffer.h"
#include "share/archive_configs.h"
#include "share/signal.h"
#include "sqlite_base/age_clock.h"
#include "sqlite_base/location.h"
#include "sqlite_base/problem_log.h"

namespace orva::sqlite {

// Everything that changes an archive's file: opens it, writes the batches of the buffer, sets
// damaged segments apart, joins small segments, enforces age and size. All of it happens in pass(),
// on one thread at a time; what failed is tried again after the connection's reconnect time-out.
class StorageWorker {
 public:
  StorageWorker(const archive::ArchiveCfg& limits, const archive::ConnectionCfg& connection,
                Catalog& catalog, WriteBuffer& buffer, ReaderPool& readers, DamageRegister& damage,
                Counters& counters, Activity& activity);
  ~StorageWorker();
  StorageWorker(const StorageWorker&) = delete;
  StorageWorker& operator=(const StorageWorker&) = delete;

  // Does what is due. Returns in how many ticks something else will be, 0 for at once.
  std::int64_t pass();
  // Writes all that is buffered, joins small segments, cleans up: now, and not when it is due.
  // False when a transaction failed or the file is not open.
  bool writeAll();
  bool mergeAll();
  bool cleanUp();
  // One of these threw. The file is opened anew by the next one, which finds out how far it came.
  void interrupted();
  // Writes what is buffered, as well as it can, and closes the file.
  void finish();
  // When that failed: counts what is buffered as dropped and closes the file.
  void abandon() noexcept;

  // Whether the file is open and known. Readable from any thread, as is refused().
  bool ready() const { return ready_; }
  // Whether another archive has the place.
  bool refused() const { return refused_; }
  const std::string& file() const { return location_.file(); }
  // A sample was counted as dropped; whether the worker has to be woken. Thread-safe.
  bool noteDrop() { return drops_.note(); }
  Store& store() { return store_; }  // for tests, on the worker's thread

 private:
  bool open();
  bool openFile();
  bool load();
  std::size_t learn();
  bool renumber(const std::vector<Item*>& items);
  bool rememberLoss(const Stream& stream, const Span& span);
  void sayLoss(std::size_t streams);
  bool settleDoubt();
  bool moveAside();
  bool writeBatch();
  bool tryBatch();
  void appendBatch();
  bool cleanSome();
  bool setDamagedApart();
  bool setApart(const DamageRegister::Found& found);
  bool settleIndex(std::int64_t now);
  void sayIndexIsNew();
  bool cleanUpIsDue(std::int64_t now) const;
  void startCleanUp(std::int64_t now);
  std::int64_t ticksToSetApart(std::int64_t now) const;
  bool mergeSome();
  void queueForMerge(Stream& stream);
  bool tryAgainAt(std::int64_t now) const;
  void failed(const char* doing);
  void succeeded();
  std::int64_t ticksToNext(std::int64_t now) const;

  const archive::ArchiveCfg limits_;
  const std::int64_t retryTicks_;
  Location location_;
  const StoreParameters parameters_;
  Catalog& catalog_;
  WriteBuffer& buffer_;
  ReaderPool& readers_;
  DamageRegister& damage_;
  Counters& counters_;
  Activity& activity_;
  ProblemLog problems_;
  DropReport drops_;
  Store store_;
  SegmentWriter writer_;
  Cleaner cleaner_;
  std::unordered_map<std::int64_t, Item*> byRow_;       // what load() found
  std::unordered_map<const Stream*, Span> loaded_;      // the same
  std::unordered_map<const Item*, std::int64_t> rows_;  // byRow_ the other way round
  std::vector<Item*> newItems_;                         // of the batch being written
  std::vector<Stream*> mergeQueue_;
  Columns columns_;
  // Times are those of Signal::elapsed().
  std::int64_t marker_ = 0;         // first row of the batch tried last
  std::int64_t failedAt_ = 0;       // when something failed, 0 when nothing has to be tried again
  std::int64_t apartFailedAt_ = 0;  // when setting damage apart failed, 0 when it did not
  std::int64_t mendedAt_ = 0;       // when the index was last made anew for the sake of a read
  std::int64_t cleanedAt_ = 0;      // when the last clean-up began
  AgeClock ageClock_;
  bool nameless_ = false;  // the file was found to have segments of unknown items
  bool mergeEverything_ = false;
  bool doubtful_ = false;  // the file was unreadable in use: check it whole before going on
  std::atomic<bool> ready_{false};
  std::atomic<bool> refused_{false};
};

}  // namespace orva::sqlite
