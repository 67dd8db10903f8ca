#pragma once

#include <time.h>

#include <chrono>
#include <cstdint>

namespace orva::bench {

inline std::int64_t steadyNs() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

inline std::int64_t cpuNs(clockid_t clock) {
  timespec used{};
  clock_gettime(clock, &used);
  return std::int64_t{used.tv_sec} * 1'000'000'000 + used.tv_nsec;
}

// What the calling thread used of the processor.
inline std::int64_t threadCpuNs() { return cpuNs(CLOCK_THREAD_CPUTIME_ID); }
// What all threads of the process used.
inline std::int64_t processCpuNs() { return cpuNs(CLOCK_PROCESS_CPUTIME_ID); }

}  // namespace orva::bench
