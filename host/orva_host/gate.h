#pragma once

#include <chrono>

#include "share/condition.h"
#include "share/mutex.h"

namespace orva::host {

// Opens once; threads wait for it. Time is the machine's own, so that stopping works whatever the
// controller's clock does. Thread-safe.
class Gate {
 public:
  using Clock = std::chrono::steady_clock;

  Gate() = default;
  // One that is not a leaf among the locks.
  explicit Gate(LockClass lockClass) : mutex_(lockClass) {}

  void open() EXCLUDES(mutex_) {
    // Told under the lock: whoever waits may destroy the gate as soon as it is open.
    const MutexLock lock(mutex_);
    open_ = true;
    opened_.notifyAll();
  }
  bool isOpen() const EXCLUDES(mutex_) {
    const MutexLock lock(mutex_);
    return open_;
  }
  void wait() EXCLUDES(mutex_);
  // Whether it is open when it opens or `until` has come.
  bool waitUntil(Clock::time_point until) EXCLUDES(mutex_);
  bool waitFor(std::chrono::milliseconds limit) { return waitUntil(Clock::now() + limit); }

 private:
  mutable Mutex mutex_;  // leaf, unless made otherwise
  Condition opened_;
  bool open_ GUARDED_BY(mutex_) = false;
};

}  // namespace orva::host
