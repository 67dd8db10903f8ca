#pragma once

#include <cstdint>

#include "share/condition.h"
#include "share/mutex.h"
#include "share/orva_export.h"

namespace orva {

// A counter that threads wait on: the one way in which this service and its providers let time
// pass. Everything that waits with a time limit waits here, so that a test which replaces the
// clock (setWaitClock) and getInt64FileTime() controls all time there is.
//
//   const std::uint64_t seen = signal.count();
//   ... find that there is nothing to do ...
//   signal.wait(seen, ticks);   // returns at once if notify() ran after count()
//
// Thread-safe.
class ORVA_API Signal {
 public:
  // How a wait passes; tests put a manual clock here. Must return true as soon as
  // signal.count() != seen, false once `ticks` of its own time have gone by.
  class WaitClock {
   public:
    virtual ~WaitClock() = default;
    virtual bool wait(Signal& signal, std::uint64_t seen, long long ticks) = 0;
    // What Signal::elapsed() says.
    virtual long long elapsed() { return elapsedReal(); }
  };
  // Null gives the real clock back. Set it while nothing waits. Returns the one there was.
  static WaitClock* setWaitClock(WaitClock* clock);

  // Ticks of the time that waits go by, from some beginning: above 0, and never less than before.
  // For periods and time-outs, which must hold whatever happens to the controller's clock: that one
  // is set back and forward, and may stand still.
  static long long elapsed();
  // The same of the machine's own clock, whatever setWaitClock() says.
  static long long elapsedReal();

  std::uint64_t count() const EXCLUDES(mutex_);
  // Wakes every waiter; a wait whose `seen` is older returns at once.
  void notify() EXCLUDES(mutex_);
  // Waits for a notify() after `seen`, at most `ticks` (100 ns each; a negative or zero limit
  // only looks). True if notified.
  bool wait(std::uint64_t seen, long long ticks) EXCLUDES(mutex_);
  // The same on the machine's own clock, whatever setWaitClock() says.
  bool waitReal(std::uint64_t seen, long long ticks) EXCLUDES(mutex_);

 private:
  mutable Mutex mutex_;  // leaf
  Condition changed_;
  std::uint64_t count_ GUARDED_BY(mutex_) = 0;
};

}  // namespace orva
