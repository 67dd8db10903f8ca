#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "orva_sqlite/counters.h"
#include "share/stats.h"

namespace orva::sqlite {

// The time that an archive spends, told to its counters and to the line that goes to the log every
// minute. Times are ticks, counts are samples. Thread-safe.
class Activity {
 public:
  Activity(const std::string& location, Counters& counters)
      : counters_(counters), stats_(location) {}

  void noteRead(std::int64_t ticks, std::uint64_t samples) {
    note(counters_.readTicks, ticks);
    stats_.update_read(ticks, static_cast<long long>(samples));
  }
  void noteWrite(std::int64_t ticks, std::uint64_t samples) {
    note(counters_.writeTicks, ticks);
    stats_.update_write(ticks, static_cast<long long>(samples));
  }
  void noteDelete(std::int64_t ticks, std::uint64_t samples) {
    note(counters_.deleteTicks, ticks);
    stats_.update_delete(ticks, static_cast<long long>(samples));
  }
  // How many samples wait in the write buffer.
  void noteWaiting(std::size_t samples) { stats_.set_wait_data(static_cast<long long>(samples)); }

  Stats& stats() { return stats_; }

 private:
  static void note(std::atomic<std::uint64_t>& sum, std::int64_t ticks) {
    sum.fetch_add(static_cast<std::uint64_t>(ticks), std::memory_order_relaxed);
  }

  Counters& counters_;
  Stats stats_;
};

}  // namespace orva::sqlite
