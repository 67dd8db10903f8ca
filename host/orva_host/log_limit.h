#pragma once

#include <chrono>

namespace orva::host {

// Lets at most one line a second through and counts the others. For one thread.
class LogLimit {
 public:
  using Clock = std::chrono::steady_clock;

  // Whether a line may be written now. When it may, `suppressed` is how many were not since the
  // last one.
  bool allow(Clock::time_point now, long long& suppressed) {
    if (written_ && now - last_ < std::chrono::seconds(1)) {
      ++suppressed_;
      return false;
    }
    written_ = true;
    last_ = now;
    suppressed = suppressed_;
    suppressed_ = 0;
    return true;
  }

 private:
  bool written_ = false;
  Clock::time_point last_;
  long long suppressed_ = 0;
};

}  // namespace orva::host
