#pragma once

#include <atomic>
#include <chrono>
#include <deque>
#include <optional>
#include <thread>

#include "share/condition.h"
#include "share/mutex.h"

namespace orva::host {

// Takes the signals that a host is told things by, on a thread of its own, and keeps them until
// they are asked for: SIGHUP, SIGUSR1, SIGTERM, SIGINT.
//
// Made before any other thread: those inherit that the signals are blocked.
class SignalThread {
 public:
  SignalThread();
  ~SignalThread();
  SignalThread(const SignalThread&) = delete;
  SignalThread& operator=(const SignalThread&) = delete;

  // As if this signal had come. Callable from every thread.
  void give(int signal) EXCLUDES(mutex_);

  // The oldest signal not yet given out. Waits for one, until `end` if given; 0 when none came.
  int next(std::optional<std::chrono::steady_clock::time_point> end) EXCLUDES(mutex_);

 private:
  void run() EXCLUDES(mutex_);

  Mutex mutex_;
  Condition arrived_;
  std::deque<int> signals_ GUARDED_BY(mutex_);
  std::atomic<bool> ending_{false};
  std::thread thread_;
};

}  // namespace orva::host
