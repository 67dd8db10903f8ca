#pragma once

#include <atomic>
#include <cstdint>

#include "share/signal.h"
#include "share/ticks.h"

namespace orva::sqlite {

// Lets one trace line a second through, for what may happen with every sample. Thread-safe.
class TraceLimit {
 public:
  // Whether to trace now.
  bool pass() {
    const long long now = Signal::elapsed();
    long long before = last_.load(std::memory_order_relaxed);
    if (before != 0 && now - before < kTicksPerSecond) return false;
    return last_.compare_exchange_strong(before, now, std::memory_order_relaxed);
  }

 private:
  std::atomic<long long> last_{0};
};

}  // namespace orva::sqlite
