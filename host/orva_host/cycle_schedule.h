#pragma once

#include <chrono>

namespace orva::host {

// When the next cycle is due: whole periods from the first one on, so that cycles do not drift. One
// that took longer than its period makes those it missed fall out; they are not made up for.
class CycleSchedule {
 public:
  using Clock = std::chrono::steady_clock;

  CycleSchedule(Clock::time_point first, std::chrono::milliseconds period)
      : due_(first), period_(period) {}

  Clock::time_point due() const { return due_; }
  // The cycle that was due is over at `now`. Returns how many others were missed.
  long long finished(Clock::time_point now) {
    due_ += period_;
    if (now < due_) return 0;
    const long long missed = (now - due_) / period_ + 1;
    due_ += missed * period_;
    return missed;
  }

 private:
  Clock::time_point due_;
  std::chrono::milliseconds period_;
};

}  // namespace orva::host
