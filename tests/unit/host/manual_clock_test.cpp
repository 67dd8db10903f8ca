#include "support/manual_clock.h"

#include <gtest/gtest.h>

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

}  // namespace
}  // namespace orva::test
