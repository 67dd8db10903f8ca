#pragma once

#include <atomic>
#include <cstdint>
#include <limits>
#include <string>

#include "share/ticks.h"
#include "sqlite_base/problem_log.h"

namespace orva::sqlite {

// Tells the host of dropped samples, one event a second at most. The counts of its events add up
// to the counter of dropped samples once tellRest() was called.
class DropReport {
 public:
  DropReport(const std::atomic<std::uint64_t>& dropped, const ProblemLog& log)
      : dropped_(dropped), log_(log) {}

  // A sample was counted as dropped. Whether the writer's thread has to be woken for that.
  // Thread-safe; all else is for the writer's thread, under no lock.
  bool note() { return !noted_.exchange(true); }

  // Posts what is to be told, if it is time.
  void tell(std::int64_t now) {
    if (ticksToNext(now) == 0) tellRest(now);
  }
  void tellRest(std::int64_t now) {
    noted_ = false;
    const std::uint64_t dropped = dropped_;
    if (dropped == told_) return;
    const std::uint64_t count = dropped - told_;
    try {
      log_.post(HostEventKind::kSamplesDropped, HostEventSeverity::kWarning,
                std::to_string(count) + " samples were dropped", static_cast<std::int64_t>(count));
    } catch (...) {
      noted_ = true;  // still to be told
      throw;
    }
    told_ = dropped;
    toldAt_ = now;
  }
  // When tell() will have something to do.
  std::int64_t ticksToNext(std::int64_t now) const {
    if (!noted_) return std::numeric_limits<std::int64_t>::max();
    const bool waits = toldAt_ != 0 && now >= toldAt_ && now - toldAt_ < kTicksPerSecond;
    return waits ? kTicksPerSecond - (now - toldAt_) : 0;
  }

 private:
  const std::atomic<std::uint64_t>& dropped_;
  const ProblemLog& log_;
  std::atomic<bool> noted_{false};
  std::uint64_t told_ = 0;
  std::int64_t toldAt_ = 0;
};

}  // namespace orva::sqlite
