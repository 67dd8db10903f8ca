#pragma once

#include <chrono>
#include <cstdint>

namespace orva::host {

// Milliseconds of a clock that nobody sets: for time-outs, which must hold whatever happens to the
// controller's own.
inline std::int64_t steadyMs() {
  using std::chrono::duration_cast;
  return duration_cast<std::chrono::milliseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

}  // namespace orva::host
