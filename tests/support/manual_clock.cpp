#include "support/manual_clock.h"

#include <atomic>
#include <cstdint>
#include <thread>

#include "orva_host/host_clock.h"
#include "share/ticks.h"

namespace orva::test {

namespace {

// What stands behind every ManualClock. Never destroyed: a thread may look at it at any time.
class Clock final : public host::HostClock, public Signal::WaitClock {
 public:
  static Clock& instance() {
    static auto* clock = new Clock;
    return *clock;
  }

  void begin(long long start) {
    wall = start;
    autoAdvance = false;
    frozen = false;
    governsOld = false;
    owner = std::this_thread::get_id();
    waitsBegun = 0;
    ++generation;  // odd: a manual clock lives
    host::setHostClock(this);
  }

  void end() {
    host::setHostClock(nullptr);
    ++generation;
  }

  long long now() override { return isActive(generation) ? wall.load() : host::machineTime(); }

  long long elapsed() override {
    return isActive(generation) ? elapsedTicks.load() : Signal::elapsedReal();
  }

  bool wait(Signal& signal, std::uint64_t seen, long long ticks) override {
    const long long current = generation;
    if (!governs(current)) return signal.waitReal(seen, ticks);
    if (signal.count() != seen) return true;
    if (ticks <= 0) return false;
    if (autoAdvance) {
      advance(ticks);
      return signal.count() != seen;
    }
    return block(signal, seen, ticks, current);
  }

  void advance(long long ticks) {
    if (!frozen) wall += ticks;
    elapsedTicks += ticks;
  }

  std::atomic<long long> wall{0};
  std::atomic<long long> elapsedTicks{kTicksPerHour};  // what waits measure; never goes back
  std::atomic<bool> frozen{false};
  std::atomic<bool> autoAdvance{false};
  std::atomic<bool> governsOld{false};
  std::atomic<int> waiting{0};
  std::atomic<long long> waitsBegun{0};

 private:
  static bool isActive(long long generation) { return generation % 2 != 0; }

  bool governs(long long current) {
    thread_local long long bornUnder = current;
    return isActive(current) &&
           (bornUnder == current || governsOld || owner.load() == std::this_thread::get_id());
  }

  bool block(Signal& signal, std::uint64_t seen, long long ticks, long long current) {
    long long end = 0;
    if (__builtin_add_overflow(elapsedTicks.load(), ticks, &end)) end = INT64_MAX;
    ++waitsBegun;  // before `waiting`: whoever sees a wait in progress finds it counted
    ++waiting;
    bool notified = false;
    while (!notified && elapsedTicks < end && !autoAdvance && generation == current) {
      notified = signal.waitReal(seen, kTicksPerMillisecond);
    }
    --waiting;
    return notified || signal.count() != seen;
  }

  std::atomic<long long> generation{0};
  std::atomic<std::thread::id> owner{};
};

// From the start of the process on, so that every thread's first wait is seen.
const bool installed = (Signal::setWaitClock(&Clock::instance()), true);
}  // namespace

ManualClock::ManualClock(long long start) { Clock::instance().begin(start); }
ManualClock::~ManualClock() { Clock::instance().end(); }

long long ManualClock::now() const { return Clock::instance().wall; }
void ManualClock::advance(long long ticks) { Clock::instance().advance(ticks); }
void ManualClock::setTime(long long time) { Clock::instance().wall = time; }
void ManualClock::setFrozen(bool on) { Clock::instance().frozen = on; }
void ManualClock::setAutoAdvance(bool on) { Clock::instance().autoAdvance = on; }
void ManualClock::governOldThreads() { Clock::instance().governsOld = true; }
int ManualClock::waiting() const { return Clock::instance().waiting; }
long long ManualClock::waitsBegun() const { return Clock::instance().waitsBegun; }

}  // namespace orva::test
