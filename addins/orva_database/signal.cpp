#include "share/signal.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <ratio>

namespace orva {

namespace {
std::atomic<Signal::WaitClock*> waitClock{nullptr};

// Longer waits are cut to this; whoever waits looks again anyway.
constexpr long long kLongestWaitTicks = 864'000'000'000;  // a day
}  // namespace

Signal::WaitClock* Signal::setWaitClock(WaitClock* clock) { return waitClock.exchange(clock); }

long long Signal::elapsed() {
  WaitClock* const clock = waitClock.load();
  return clock != nullptr ? clock->elapsed() : elapsedReal();
}

long long Signal::elapsedReal() {
  using Ticks = std::chrono::duration<long long, std::ratio<1, 10'000'000>>;
  const auto since = Condition::Clock::now().time_since_epoch();
  return std::max(1LL, std::chrono::duration_cast<Ticks>(since).count());
}

std::uint64_t Signal::count() const {
  MutexLock lock(mutex_);
  return count_;
}

void Signal::notify() {
  {
    MutexLock lock(mutex_);
    ++count_;
  }
  changed_.notifyAll();
}

bool Signal::wait(std::uint64_t seen, long long ticks) {
  if (WaitClock* clock = waitClock.load()) return clock->wait(*this, seen, ticks);
  return waitReal(seen, ticks);
}

bool Signal::waitReal(std::uint64_t seen, long long ticks) {
  const auto end = Condition::Clock::now() +
                   std::chrono::nanoseconds(std::clamp(ticks, 0LL, kLongestWaitTicks) * 100);
  MutexLock lock(mutex_);
  while (count_ == seen) {
    if (!changed_.waitUntil(mutex_, end)) return count_ != seen;
  }
  return true;
}

}  // namespace orva
