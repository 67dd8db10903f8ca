#include "support/manual_clock.h"

#include "share/ticks.h"

namespace orva::test {

ManualClock::ManualClock(long long start) : wall_(start) {
  host::setHostClock(this);
  Signal::setWaitClock(this);
}

ManualClock::~ManualClock() {
  Signal::setWaitClock(nullptr);
  host::setHostClock(nullptr);
}

void ManualClock::advance(long long ticks) {
  wall_ += ticks;
  elapsed_ += ticks;
}

bool ManualClock::wait(Signal& signal, std::uint64_t seen, long long ticks) {
  if (signal.count() != seen) return true;
  if (ticks <= 0) return false;
  if (autoAdvance_) {
    advance(ticks);
    return signal.count() != seen;
  }
  long long end = 0;
  if (__builtin_add_overflow(elapsed_.load(), ticks, &end)) end = INT64_MAX;
  ++waiting_;
  bool notified = false;
  while (!notified && elapsed_.load() < end && !autoAdvance_) {
    notified = signal.waitReal(seen, kTicksPerMillisecond);
  }
  --waiting_;
  return notified || signal.count() != seen;
}

}  // namespace orva::test
