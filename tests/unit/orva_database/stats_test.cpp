#include "share/stats.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <limits>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "orva_host/gate.h"
#include "orva_host/tasks_pool.h"
#include "support/trace_capture.h"

namespace orva::stats_test {
namespace {

constexpr long long kSecond = 10'000'000;
constexpr long long kMost = std::numeric_limits<long long>::max();
constexpr long long kLeast = std::numeric_limits<long long>::min();

class StatsTest : public ::testing::Test {
 protected:
  // The one line that a log() now writes.
  std::string line() {
    trace_.clear();
    stats_.log();
    const auto lines = trace_.texts();
    EXPECT_EQ(lines.size(), 1U);
    return lines.empty() ? std::string() : lines.front();
  }

  test::TraceCapture trace_;
  Stats stats_{"data/fast"};
};

TEST_F(StatsTest, APeriodWithNothingPrintsZeros) {
  EXPECT_EQ(line(),
            "Stat: data/fast\r\nR(Tm:0.000000, Ct:0, Av:0) W(Tm:0.000000, Ct:0, Av:0, Wt: 0) "
            "D(Tm:0.000000, Ct:0, Av:0)\r\n");
}

TEST_F(StatsTest, EachOperationHasItsTimeCountAndRate) {
  stats_.update_read(2 * kSecond, 10);
  stats_.update_read(kSecond / 2, 15);
  stats_.update_write(4 * kSecond, 1000);
  stats_.update_delete(kSecond / 4, 3);
  stats_.set_wait_data(17);
  EXPECT_EQ(line(),
            "Stat: data/fast\r\nR(Tm:2.500000, Ct:25, Av:10) W(Tm:4.000000, Ct:1000, Av:250, Wt: "
            "17) D(Tm:0.250000, Ct:3, Av:12)\r\n");
}

TEST_F(StatsTest, TheLineIsTheLogsAndCarriesNoLevel) {
  stats_.log();
  ASSERT_EQ(trace_.lines().size(), 1U);
  EXPECT_EQ(trace_.lines().front().level, 0U);
}

TEST_F(StatsTest, TheResultIsTheLogs) {
  const int written = stats_.log();
  EXPECT_EQ(static_cast<std::size_t>(written), trace_.texts().front().size());
}

TEST_F(StatsTest, ANewPeriodBeginsWithEachLineButTheWaitDataStay) {
  stats_.update_read(kSecond, 1);
  stats_.update_write(kSecond, 2);
  stats_.update_delete(kSecond, 3);
  stats_.set_wait_data(4);
  line();
  EXPECT_EQ(line(),
            "Stat: data/fast\r\nR(Tm:0.000000, Ct:0, Av:0) W(Tm:0.000000, Ct:0, Av:0, Wt: 4) "
            "D(Tm:0.000000, Ct:0, Av:0)\r\n");
  stats_.update_read(kSecond, 5);
  EXPECT_NE(line().find("R(Tm:1.000000, Ct:5, Av:5)"), std::string::npos);
}

TEST_F(StatsTest, RatesAreCutTowardZero) {
  stats_.update_read(3 * kSecond, 10);
  stats_.update_write(-3 * kSecond, 10);
  stats_.update_delete(10 * kSecond, 9);
  EXPECT_EQ(line(),
            "Stat: data/fast\r\nR(Tm:3.000000, Ct:10, Av:3) W(Tm:-3.000000, Ct:10, Av:-3, Wt: 0) "
            "D(Tm:10.000000, Ct:9, Av:0)\r\n");
}

TEST_F(StatsTest, ACountWithoutTimeHasTheLargestRate) {
  stats_.update_read(0, 1);
  EXPECT_NE(line().find("R(Tm:0.000000, Ct:1, Av:9223372036854775807)"), std::string::npos);
}

TEST_F(StatsTest, RatesThatDoNotFitSaturateAtBothEnds) {
  stats_.update_read(1, kMost);
  stats_.update_write(-1, kMost);
  const std::string text = line();
  EXPECT_NE(text.find("Ct:9223372036854775807, Av:9223372036854775807) W"), std::string::npos);
  EXPECT_NE(text.find("Ct:9223372036854775807, Av:-9223372036854775808, Wt"), std::string::npos);
}

TEST_F(StatsTest, CountsBelowOneHaveNoRate) {
  stats_.update_read(kSecond, 0);
  stats_.update_write(kSecond, -5);
  stats_.update_delete(0, kLeast);
  EXPECT_EQ(line(),
            "Stat: data/fast\r\nR(Tm:1.000000, Ct:0, Av:0) W(Tm:1.000000, Ct:-5, Av:0, Wt: 0) "
            "D(Tm:0.000000, Ct:-9223372036854775808, Av:0)\r\n");
}

TEST_F(StatsTest, SecondsAreOfSinglePrecision) {
  // Neither 16777217 s nor its ticks are a single-precision number, nor is 0.1 s.
  stats_.update_read(16'777'217 * kSecond, 0);
  stats_.update_write(kSecond / 10, 1);
  const std::string text = line();
  EXPECT_NE(text.find("R(Tm:16777218.000000, "), std::string::npos) << text;
  // 1 / 0.1F is 10 in single precision, though 0.1F is a little more than 0.1.
  EXPECT_NE(text.find("W(Tm:0.100000, Ct:1, Av:10, "), std::string::npos) << text;
}

TEST_F(StatsTest, NegativeValuesAreSubtracted) {
  stats_.update_read(3 * kSecond, 9);
  stats_.update_read(-kSecond, -3);
  EXPECT_NE(line().find("R(Tm:2.000000, Ct:6, Av:3)"), std::string::npos);
  stats_.set_wait_data(-1);
  EXPECT_NE(line().find("Wt: -1)"), std::string::npos);
}

TEST_F(StatsTest, ANewHeaderStandsInTheNextLine) {
  stats_.set_header("100 % of \"it\"");
  EXPECT_EQ(line().find("Stat: 100 % of \"it\"\r\nR("), 0U);
  stats_.set_header("");
  EXPECT_EQ(line().find("Stat: \r\nR("), 0U);
}

TEST_F(StatsTest, UpdatesFromSeveralThreadsAddUp) {
  constexpr int kThreads = 4;
  constexpr int kRounds = 5000;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([this] {
      for (int i = 0; i < kRounds; ++i) {
        stats_.update_read(1000, 1);
        stats_.update_write(2000, 2);
        stats_.update_delete(3000, 3);
        stats_.set_wait_data(i);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(line(),
            "Stat: data/fast\r\nR(Tm:2.000000, Ct:20000, Av:10000) W(Tm:4.000000, Ct:40000, "
            "Av:10000, Wt: 4999) D(Tm:6.000000, Ct:60000, Av:10000)\r\n");
}

TEST_F(StatsTest, NoUpdateIsLostOrToldTwiceAcrossPeriods) {
  constexpr int kRounds = 20'000;
  std::thread updater([this] {
    for (int i = 0; i < kRounds; ++i) stats_.update_read(0, 1);
  });
  for (int i = 0; i < 50; ++i) stats_.log();
  updater.join();
  stats_.log();
  long long told = 0;
  for (const std::string& text : trace_.texts()) {
    told += std::stoll(text.substr(text.find("Ct:") + 3));
  }
  EXPECT_EQ(told, kRounds);
}

// Holds up whoever logs, until it is let go.
class StuckLog final : public host::TraceHook {
 public:
  StuckLog() { host::setTraceHook(this); }
  ~StuckLog() override { host::setTraceHook(nullptr); }

  void onLine(const host::TraceLine&) override {
    entered.open();
    leave.wait();
    left = true;
  }

  host::Gate entered{LockClass::kTraceHook};
  host::Gate leave{LockClass::kTraceHook};
  std::atomic<bool> left{false};
};

TEST(StatsLifeTest, ALineIsDueEverySixtySeconds) {
  const std::chrono::seconds period(60);
  host::TasksPool& pool = host::TasksPool::instance();
  ASSERT_FALSE(pool.nextDue()) << "another test has left a task";
  const auto before = host::TaskSchedule::Clock::now();
  const Stats stats("period");
  const auto due = pool.nextDue();
  ASSERT_TRUE(due);
  EXPECT_GE(*due, before + period);
  EXPECT_LE(*due, host::TaskSchedule::Clock::now() + period);
}

TEST(StatsLifeTest, TheHostsTaskPoolWritesTheLines) {
  StuckLog log;
  const Stats stats("pool");
  host::TasksPool::instance().makeAllDue();
  log.entered.wait();
  log.leave.open();
}

TEST(StatsLifeTest, DestructionWaitsForTheLineThatThePoolIsWriting) {
  StuckLog log;
  auto stats = std::make_unique<Stats>("destroyed");
  host::TasksPool::instance().makeAllDue();
  log.entered.wait();
  std::thread destroyer([&] {
    stats.reset();
    EXPECT_TRUE(log.left);
  });
  EXPECT_FALSE(log.left);
  log.leave.open();
  destroyer.join();
}

TEST(StatsLifeTest, AnUpdateWaitsForTheLineBeingWritten) {
  StuckLog log;
  Stats stats("stuck");
  std::thread logger([&] { stats.log(); });
  log.entered.wait();
  std::thread updater([&] {
    stats.update_read(1, 1);
    EXPECT_TRUE(log.left);
  });
  log.leave.open();
  updater.join();
  logger.join();
}

TEST(StatsLifeTest, ManyComeAndGoWithTheirTasks) {
  const test::TraceCapture trace;
  std::vector<std::unique_ptr<Stats>> all;
  for (int i = 0; i < 100; ++i) all.push_back(std::make_unique<Stats>(std::to_string(i)));
  all.clear();
  EXPECT_TRUE(trace.texts().empty());  // none of them lived for a period
}

}  // namespace
}  // namespace orva::stats_test
