#include "support/manual_clock.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "host/host_time.h"
#include "orva_host/host_clock.h"
#include "share/ticks.h"

namespace orva::test {
namespace {

TEST(ManualClockTest, TimeMovesOnlyWhenAdvanced) {
  ManualClock clock;
  EXPECT_EQ(getInt64FileTime(), ManualClock::kStart);
  clock.advance(5);
  EXPECT_EQ(getInt64FileTime(), ManualClock::kStart + 5);
  clock.setTime(7);
  EXPECT_EQ(getInt64FileTime(), 7);
}

TEST(ManualClockTest, MachineTimeComesBackAfterIt) {
  { ManualClock clock(1); }
  const long long before = host::machineTime();
  EXPECT_GE(getInt64FileTime(), before);
}

TEST(ManualClockTest, WaitEndsWhenTimeIsAdvancedPastIt) {
  ManualClock clock;
  Signal signal;
  bool notified = true;
  std::thread waiter([&] { notified = signal.wait(signal.count(), 10); });
  while (clock.waiting() == 0) std::this_thread::yield();
  clock.advance(9);
  clock.setTime(ManualClock::kStart + kTicksPerHour);
  EXPECT_EQ(clock.waiting(), 1);
  clock.advance(1);
  waiter.join();
  EXPECT_FALSE(notified);
}

TEST(ManualClockTest, WaitEndsWhenItsSignalIsNotified) {
  ManualClock clock;
  Signal signal;
  const std::uint64_t seen = signal.count();
  bool notified = false;
  std::thread waiter([&] { notified = signal.wait(seen, INT64_MAX); });
  while (clock.waiting() == 0) std::this_thread::yield();
  signal.notify();
  waiter.join();
  EXPECT_TRUE(notified);
  EXPECT_EQ(clock.now(), ManualClock::kStart);
}

TEST(ManualClockTest, AutoAdvanceMovesTimeInPlaceOfWaiting) {
  ManualClock clock;
  clock.setAutoAdvance(true);
  Signal signal;
  EXPECT_FALSE(signal.wait(signal.count(), kTicksPerHour));
  EXPECT_EQ(clock.now(), ManualClock::kStart + kTicksPerHour);
  const std::uint64_t seen = signal.count();
  signal.notify();
  EXPECT_TRUE(signal.wait(seen, kTicksPerHour));
  EXPECT_EQ(clock.now(), ManualClock::kStart + kTicksPerHour);
}

TEST(ManualClockTest, WaitWithoutTicksOnlyLooks) {
  ManualClock clock;
  clock.setAutoAdvance(true);
  Signal signal;
  EXPECT_FALSE(signal.wait(signal.count(), 0));
  EXPECT_FALSE(signal.wait(signal.count(), -1));
  EXPECT_EQ(clock.now(), ManualClock::kStart);
}

// A thread that waits again and again, as the worker of a singleton does.
class Worker {
 public:
  Worker() : thread_([this] { run(); }) {}
  ~Worker() {
    stop_ = true;
    signal_.notify();
    thread_.join();
  }
  int rounds() const { return rounds_; }
  void waitForRounds(int more) const {
    const int enough = rounds_ + more;
    while (rounds_ < enough) std::this_thread::yield();
  }

 private:
  void run() {
    while (!stop_) {
      signal_.wait(signal_.count(), kTicksPerMillisecond);
      ++rounds_;
    }
  }
  Signal signal_;
  std::atomic<bool> stop_{false};
  std::atomic<int> rounds_{0};
  std::thread thread_;
};

TEST(ManualClockTest, ThreadThatWaitedBeforeGoesOnInRealTime) {
  Worker worker;
  worker.waitForRounds(1);
  ManualClock clock;
  worker.waitForRounds(3);
  EXPECT_EQ(clock.waiting(), 0);
}

TEST(ManualClockTest, OldThreadsAreGovernedOnDemandAndSetFreeAtTheEnd) {
  Worker worker;
  worker.waitForRounds(1);
  {
    ManualClock clock;
    clock.governOldThreads();
    while (clock.waiting() == 0) std::this_thread::yield();
    const int rounds = worker.rounds();
    const long long begun = clock.waitsBegun();
    clock.advance(kTicksPerMillisecond);
    while (clock.waitsBegun() == begun) std::this_thread::yield();
    EXPECT_EQ(worker.rounds(), rounds + 1);
  }
  worker.waitForRounds(3);
}

}  // namespace
}  // namespace orva::test
