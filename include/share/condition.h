#pragma once

#include <chrono>
#include <condition_variable>

#include "share/mutex.h"

namespace orva {

// What threads wait on under a Mutex that they hold. Waiting lets the mutex go and takes it again,
// so look at what is waited for in a loop.
class Condition {
 public:
  using Clock = std::chrono::steady_clock;

  void notifyOne() { changed_.notify_one(); }
  void notifyAll() { changed_.notify_all(); }

  void wait(Mutex& mutex) REQUIRES(mutex) {
    std::unique_lock<std::mutex> lock(mutex.nativeForWait(), std::adopt_lock);
    changed_.wait(lock);
    lock.release();
  }
  // False once `end` has come.
  bool waitUntil(Mutex& mutex, Clock::time_point end) REQUIRES(mutex) {
    std::unique_lock<std::mutex> lock(mutex.nativeForWait(), std::adopt_lock);
    const bool inTime = changed_.wait_until(lock, end) == std::cv_status::no_timeout;
    lock.release();
    return inTime;
  }

 private:
  std::condition_variable changed_;
};

}  // namespace orva
