#include <functional>
#include <random>
#include <string>
#include <vector>

#include "orva_sqlite/archive_status.h"
#include "share/ticks.h"
#include "unit/orva_sqlite/failing_disk.h"

// Each read of the disk that one change of a file makes fails in turn, with nothing in memory.

namespace orva::sqlite::test {
namespace {

class ColdFileTest : public FailingDiskTest {
 protected:
  static constexpr int kSamples = 60;  // in rows of ten

  // A place of its own with large samples, ten seconds apart.
  void begin(std::uint64_t round) {
    std::mt19937_64 random(round);
    disk().disarm();
    connection_.location = folder_ / std::to_string(round);
    limits_.maxWriteValues = 10;
    list_ = PlainList();
    open();
    for (int i = 0; i < kSamples; ++i) {
      std::string text;
      for (int c = 0; c < 1000; ++c) text += static_cast<char>('!' + random() % 90);
      write({1, "a"}, 0, makePin(second(10 * i), textValue(text)));
    }
    ASSERT_TRUE(worker().writeAll());
  }
  void forgetPages() {
    worker().store().space().checkpoint();
    ASSERT_TRUE(worker().store().db().exec("PRAGMA shrink_memory"));
  }
  // Lets the time for another try pass, and the worker come to rest.
  void settle() {
    disk().disarm();
    clock_.advance(2 * kTicksPerMinute);
    while (worker().pass() == 0) {
    }
    EXPECT_TRUE(worker().store().isOpen());
  }
  void forEachRead(const std::function<void()>& prepare, const std::function<void()>& change,
                   const std::function<void(std::uint64_t)>& check) {
    std::uint64_t reads = 0;
    int failures = 0;
    for (std::uint64_t nth = 0; nth <= reads; ++nth) {
      begin(nth);
      prepare();
      forgetPages();
      failOnce(Operation::kRead, nth);
      change();
      if (nth == 0) reads = disk().count(Operation::kRead);
      EXPECT_EQ(disk().struck(), nth == 0 ? 0U : 1U) << "read " << nth;
      failures += counters().failures > 0 ? 1 : 0;
      settle();
      check(nth);
    }
    EXPECT_GT(reads, 3U);
    EXPECT_GT(failures, 2) << "failed transactions";
    EXPECT_EQ(trace_.countContaining("it was moved to"), 0);
  }
};

TEST_F(ColdFileTest, AnOlderSampleIsStoredOnce) {
  forEachRead([] {},
              [this] {
                write({1, "a"}, 0, makePin(second(155), realValue(1)));
                worker().writeAll();
              },
              [this](std::uint64_t nth) {
                EXPECT_EQ(counters().written, kSamples + 1U) << "read " << nth;
                EXPECT_TRUE(answers({})) << "read " << nth;
              });
}

TEST_F(ColdFileTest, ACleanUpTakesNothingThatIsNotTooOld) {
  const std::int64_t cutoff = second(255);
  limits_.maxTime = kTicksPerHour;
  const auto expectKept = [this, cutoff](std::uint64_t nth) {
    EXPECT_TRUE(answers({{1, "a"}, 0, cutoff, 0})) << "read " << nth;
  };
  forEachRead([] {},
              [this, cutoff] {
                clock_.setTime(cutoff + kTicksPerHour);
                worker().cleanUp();
              },
              [this, cutoff, &expectKept](std::uint64_t nth) {
                expectKept(nth);
                clock_.setTime(cutoff + kTicksPerHour);
                ASSERT_TRUE(worker().cleanUp()) << "read " << nth;
                expectKept(nth);
                EXPECT_EQ(counters().deleted, 26U) << "read " << nth;
                EXPECT_EQ(ask({}).pushed.size(), kSamples - 26U) << "read " << nth;
              });
}

TEST_F(ColdFileTest, JoiningLosesNothing) {
  forEachRead([] {}, [this] { worker().mergeAll(); },
              [this](std::uint64_t nth) {
                EXPECT_TRUE(answers({})) << "read " << nth;
                EXPECT_TRUE(worker().mergeAll()) << "read " << nth;
                EXPECT_TRUE(answers({})) << "read " << nth;
              });
}

TEST_F(ColdFileTest, ADamagedRowIsSetApartInTheEndAndNoOther) {
  forEachRead(
      [this] {
        ASSERT_TRUE(worker().store().db().exec("UPDATE segment SET data = x'00' WHERE id = 3"));
        EXPECT_EQ(ask({}).failure, status::kBadDataLost);
      },
      [this] { worker().pass(); },
      [this](std::uint64_t nth) {
        EXPECT_EQ(worker().store().db().number("SELECT count(*) FROM damaged"), 1)
            << "read " << nth;
        const Answer answer = ask({});
        EXPECT_EQ(answer.failure, status::kBadDataLost) << "read " << nth;
        EXPECT_EQ(answer.pushed.size(), kSamples - 10U) << "read " << nth;
      });
}

}  // namespace
}  // namespace orva::sqlite::test
