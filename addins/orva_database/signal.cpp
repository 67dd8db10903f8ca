#include "share/signal.h"

#include <algorithm>
#include <atomic>
#include <chrono>

namespace orva {

namespace {
std::atomic<Signal::WaitClock*> waitClock{nullptr};

// Longer waits are cut to this; whoever waits looks again anyway.
constexpr long long kLongestWaitTicks = 864'000'000'000;  // a day
}  // namespace

Signal::WaitClock* Signal::setWaitClock(WaitClock* clock) { return waitClock.exchange(clock); }

std::uint64_t Signal::count() const {
  MutexLock lock(mutex_);
  return count_;
}

void Signal::notify() {
  {
    MutexLock lock(mutex_);
    ++count_;
  }
  changed_.notify_all();
}

bool Signal::wait(std::uint64_t seen, long long ticks) {
  if (WaitClock* clock = waitClock.load()) return clock->wait(*this, seen, ticks);
  return waitReal(seen, ticks);
}

bool Signal::waitReal(std::uint64_t seen, long long ticks) NO_THREAD_SAFETY_ANALYSIS {
  // The analysis does not know std::unique_lock; it holds mutex_ whenever the predicate runs.
  const std::chrono::nanoseconds limit(std::clamp(ticks, 0LL, kLongestWaitTicks) * 100);
  std::unique_lock<std::mutex> lock(mutex_.native());
  return changed_.wait_for(lock, limit,
                           [this, seen]() NO_THREAD_SAFETY_ANALYSIS { return count_ != seen; });
}

}  // namespace orva
