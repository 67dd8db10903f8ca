#pragma once

#include "share/signal.h"

namespace orva::test {

// Time that passes only when a test says so. From construction to destruction it stands in for
// getInt64FileTime(), Signal::elapsed() and for timed waits on an orva::Signal.
//
// A wait ends when its signal is notified, or once the virtual time has moved on by its ticks. With
// autoAdvance a wait that would block moves the virtual time on by its ticks itself and ends at
// once: code that waits in a loop runs through without real time.
//
// It governs the waits of the thread that makes it and of threads that wait for the first time
// while it lives. A thread that waited before goes on in real time, unless governOldThreads(): the
// worker of a singleton, once started, would else be met in every later test.
//
// Thread-safe. One at a time; threads may still wait when it goes.
class ManualClock final {
 public:
  // 2024-01-01 00:00 UTC.
  static constexpr long long kStart = 133'485'408'000'000'000;

  explicit ManualClock(long long start = kStart);
  ~ManualClock();
  ManualClock(const ManualClock&) = delete;
  ManualClock& operator=(const ManualClock&) = delete;

  long long now() const;

  // Time goes by: waits see it too.
  void advance(long long ticks);
  // Somebody sets the controller's clock: no time goes by, waits go on as before.
  void setTime(long long time);
  // The controller's clock stands still: time goes by for waits and Signal::elapsed() alone.
  void setFrozen(bool on);
  void setAutoAdvance(bool on);
  void governOldThreads();

  // How many governed waits are in progress; what a test polls before it advances.
  int waiting() const;
  // How many there were that blocked; tells that a thread has come round.
  long long waitsBegun() const;
};

}  // namespace orva::test
