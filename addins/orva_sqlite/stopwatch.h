#pragma once

#include <chrono>
#include <cstdint>
#include <ratio>

namespace orva::sqlite {

// How long something takes, on the machine's monotonic clock: the controller's may be set
// meanwhile.
class Stopwatch {
 public:
  // Since construction, in 100 ns.
  std::int64_t ticks() const {
    using Ticks = std::chrono::duration<std::int64_t, std::ratio<1, 10'000'000>>;
    return std::chrono::duration_cast<Ticks>(std::chrono::steady_clock::now() - start_).count();
  }

 private:
  const std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

}  // namespace orva::sqlite
