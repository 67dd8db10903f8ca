#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "orva_sqlite/catalog.h"
#include "orva_sqlite/counters.h"
#include "orva_sqlite/segment_table.h"
#include "share/mutex.h"

namespace orva::sqlite {

// The stretches of which samples are lost because their segment is damaged. Whoever meets a damaged
// segment reports it here; the writer's thread sets its row apart. Thread-safe; its mutex is a
// leaf.
class DamageRegister {
 public:
  explicit DamageRegister(Counters& counters) : counters_(counters) {}

  struct Found {
    const Stream* stream = nullptr;
    Segment segment;
    std::string reason;
  };
  // A segment just found damaged: logged and counted, once.
  void report(const Stream& stream, const Segment& segment, Decoded how) EXCLUDES(mutex_);
  // One that was set apart before this start.
  void remember(const Stream& stream, const Segment& segment) EXCLUDES(mutex_);
  // Whether a read of these times, both included, meets a damaged stretch.
  bool meets(const Stream& stream, std::int64_t from, std::int64_t to) const EXCLUDES(mutex_);
  // What was reported and not settled yet.
  std::vector<Found> reported() const EXCLUDES(mutex_);
  // The first `count` of them were dealt with.
  void settled(std::size_t count) EXCLUDES(mutex_);
  bool hasReported() const EXCLUDES(mutex_);
  // The row turned out to be good: nothing is lost where it was thought to be.
  void acquit(const Found& found) EXCLUDES(mutex_);

  // The index does not fit the rows, or SQLite says that the file is damaged.
  void doubt() { doubted_ = true; }
  bool isDoubted() const { return doubted_; }
  bool takeDoubt() { return doubted_.exchange(false); }

  void forgetBefore(std::int64_t time) EXCLUDES(mutex_);
  // The rows are those of a file that is gone: their numbers may come again. What is lost stays so.
  void forgetRows() EXCLUDES(mutex_);

 private:
  struct Stretch {
    std::int64_t first;
    std::int64_t last;
    std::int64_t id;  // 0 when its row is set apart already
  };

  Counters& counters_;
  std::atomic<bool> doubted_{false};
  std::atomic<bool> any_{false};  // spares reads the lock while nothing is damaged
  mutable Mutex mutex_;           // leaf
  std::map<const Stream*, std::vector<Stretch>> stretches_ GUARDED_BY(mutex_);
  std::vector<Found> reported_ GUARDED_BY(mutex_);
};

}  // namespace orva::sqlite
