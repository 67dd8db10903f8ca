#include "share/signal.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "share/ticks.h"
#include "support/manual_clock.h"

namespace orva {
namespace {

constexpr long long kMinuteTicks = kTicksPerMinute;

// Records the waits of the thread that made it; those of others (the archive manager's worker runs
// once another test has used it) pass in real time.
class RecordingClock final : public Signal::WaitClock {
 public:
  RecordingClock() : former_(Signal::setWaitClock(this)) {}
  ~RecordingClock() override { Signal::setWaitClock(former_); }
  bool wait(Signal& signal, std::uint64_t seen, long long ticks) override {
    if (std::this_thread::get_id() != owner_) return signal.waitReal(seen, ticks);
    signals.push_back(&signal);
    seens.push_back(seen);
    waits.push_back(ticks);
    return answer;
  }

  bool answer = false;
  std::vector<Signal*> signals;
  std::vector<std::uint64_t> seens;
  std::vector<long long> waits;

 private:
  const std::thread::id owner_ = std::this_thread::get_id();
  Signal::WaitClock* const former_;
};

}  // namespace

TEST(SignalTest, EveryNotifyCounts) {
  Signal signal;
  EXPECT_EQ(signal.count(), 0U);
  signal.notify();
  signal.notify();
  EXPECT_EQ(signal.count(), 2U);
}

TEST(SignalTest, WaitReturnsAtOnceWhenNotifiedAfterTheCountWasSeen) {
  Signal signal;
  const std::uint64_t seen = signal.count();
  signal.notify();
  EXPECT_TRUE(signal.wait(seen, kMinuteTicks));
  EXPECT_TRUE(signal.wait(seen, 0));
}

TEST(SignalTest, WaitWithoutTimeOnlyLooks) {
  Signal signal;
  EXPECT_FALSE(signal.wait(0, 0));
  EXPECT_FALSE(signal.wait(0, -kMinuteTicks));
  EXPECT_FALSE(signal.waitReal(0, 0));
  EXPECT_FALSE(signal.waitReal(0, -1));
}

TEST(SignalTest, WaitEndsWhenItsTimeIsUp) {
  Signal signal;
  EXPECT_FALSE(signal.wait(signal.count(), 1));
}

TEST(SignalTest, NotifyWakesEveryWaiter) {
  Signal signal;
  std::atomic<int> woken{0};
  std::vector<std::thread> waiters;
  for (int i = 0; i < 3; ++i) {
    waiters.emplace_back([&] {
      if (signal.wait(0, kMinuteTicks)) ++woken;
    });
  }
  signal.notify();
  for (std::thread& waiter : waiters) waiter.join();
  EXPECT_EQ(woken.load(), 3);
}

TEST(SignalTest, AnotherClockDecidesHowWaitsPass) {
  Signal signal;
  RecordingClock clock;
  EXPECT_FALSE(signal.wait(5, 1234));
  clock.answer = true;
  EXPECT_TRUE(signal.wait(6, 1));
  EXPECT_EQ(clock.signals, (std::vector<Signal*>{&signal, &signal}));
  EXPECT_EQ(clock.seens, (std::vector<std::uint64_t>{5, 6}));
  EXPECT_EQ(clock.waits, (std::vector<long long>{1234, 1}));
}

TEST(SignalTest, RealWaitsIgnoreAnotherClock) {
  Signal signal;
  RecordingClock clock;
  EXPECT_FALSE(signal.waitReal(0, 1));
  signal.notify();
  EXPECT_TRUE(signal.waitReal(0, kMinuteTicks));
  EXPECT_TRUE(clock.waits.empty());
}

TEST(SignalTest, SettingAClockTellsTheFormerOne) {
  RecordingClock first;
  {
    RecordingClock second;
    EXPECT_EQ(Signal::setWaitClock(&second), &second);
  }
  Signal signal;
  signal.wait(0, 7);
  EXPECT_EQ(first.waits, (std::vector<long long>{7}));
}

TEST(SignalTest, WaitOnAManualClockEndsByItsTimeOrByANotify) {
  test::ManualClock clock;
  clock.setAutoAdvance(true);
  Signal signal;
  const long long before = clock.now();
  EXPECT_FALSE(signal.wait(0, kMinuteTicks));
  EXPECT_EQ(clock.now() - before, kMinuteTicks);
  signal.notify();
  EXPECT_TRUE(signal.wait(0, kMinuteTicks));
  EXPECT_EQ(clock.now() - before, kMinuteTicks)
      << "no time passes when there is nothing to wait for";
}

}  // namespace orva
