#include <cstdint>
#include <fstream>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "share/status_codes.h"
#include "share/ticks.h"
#include "unit/orva_sqlite/archive_fixture.h"

namespace orva::sqlite::test {
namespace {

// What cannot be made smaller.
std::string noise(std::mt19937_64& random, std::size_t size) {
  std::string text;
  for (std::size_t i = 0; i < size; ++i) text += static_cast<char>('!' + random() % 90);
  return text;
}

constexpr std::int64_t kMost = std::numeric_limits<std::int64_t>::max();
constexpr std::int64_t kLeast = std::numeric_limits<std::int64_t>::min();

TEST_F(ArchiveTest, AWrongCountInARowStopsNeitherTheLimitOfSizeNorTheProcess) {
  std::mt19937_64 random(1);
  for (const char* const count : {"0", "-1", "-9223372036854775808", "9223372036854775807"}) {
    TemporaryFolder folder;
    connection_.location = folder.path();
    limits_.maxSize = 1;
    open();
    for (int i = 0; i < 4000; ++i) {
      write({1, "a"}, 0, makePin(second(i), textValue(noise(random, 400))));
    }
    for (int i = 0; i < 2000; ++i) {
      write({2, "b"}, 0, makePin(second(i), textValue(noise(random, 400))));
    }
    ASSERT_TRUE(worker().writeAll());
    const std::string row = " WHERE id = (SELECT id FROM segment ORDER BY first, handle LIMIT 1)";
    ASSERT_TRUE(worker().store().db().exec(
        ("UPDATE segment SET count = " + std::string(count) + row).c_str()));
    ASSERT_TRUE(worker().cleanUp()) << count;
    ASSERT_TRUE(worker().cleanUp()) << count;
    EXPECT_LE(worker().store().space().used(), 1'000'000) << count;
    for (int item = 1; item <= 2; ++item) {
      const Answer newest = ask({{item, item == 1 ? "a" : "b"}, 0, 0, 0, Kind::newest});
      ASSERT_EQ(newest.pushed.size(), 1U) << count;
      EXPECT_EQ(newest.pushed[0]->time, second(item == 1 ? 3999 : 1999)) << count;
    }
  }
}

TEST_F(ArchiveTest, ARowWithoutSamplesIsSetApartWhenItIsTooOld) {
  limits_.maxTime = kTicksPerMinute;
  limits_.maxWriteValues = 10;
  open();
  for (int i = 0; i < 30; ++i) write(second(i), i);
  ASSERT_TRUE(worker().writeAll());
  ASSERT_TRUE(worker().store().db().exec("UPDATE segment SET count = 0 WHERE id = 2"));
  clock_.advance(kTicksPerHour);
  ASSERT_TRUE(worker().cleanUp());
  EXPECT_EQ(counters().damaged, 1U);
  EXPECT_EQ(inFile("SELECT count(*) FROM segment WHERE id = 2"), 0);
  EXPECT_EQ(values({}), (std::vector<double>{29}));
}

TEST_F(ArchiveTest, PeriodsAtTheEndsOfTheirRangeAreLongOrNone) {
  for (const std::int64_t period : {kMost, kMost - 1, std::int64_t{-1}, kLeast}) {
    limits_.writePeriod = limits_.cleanupPeriod = limits_.maxTime = period;
    connection_.reconnectTimeout = period;
    open();
    write(clock_.now(), 1);
    clock_.advance(kTicksPerSecond);
    const std::int64_t next = worker().pass();
    EXPECT_LE(next, kTicksPerHour) << period;
    EXPECT_EQ(counters().written, period < 0 ? 1U : 0U) << period;
    EXPECT_TRUE(worker().writeAll());
    EXPECT_TRUE(worker().cleanUp());
    EXPECT_TRUE(answers({})) << period;
  }
}

TEST_F(ArchiveTest, AnEndlessReconnectTimeoutIsWaitedFor) {
  std::ofstream(folder_ / "file") << "x";
  connection_.location = folder_ / "file/under";
  connection_.reconnectTimeout = kMost;
  open();
  clock_.advance(kTicksPerHour);
  EXPECT_EQ(worker().pass(), kMost - kTicksPerHour);
  EXPECT_FALSE(worker().ready());
}

// Makes one kind of change impossible while it lives.
class Forbidden {
 public:
  Forbidden(StorageWorker& worker, const std::string& change) : worker_(worker) {
    const std::string trigger = "CREATE TRIGGER forbidden BEFORE " + change +
                                " BEGIN SELECT RAISE(ABORT, 'forbidden'); END";
    EXPECT_TRUE(worker_.store().db().exec(trigger.c_str()));
  }
  ~Forbidden() { EXPECT_TRUE(worker_.store().db().exec("DROP TRIGGER forbidden")); }

 private:
  StorageWorker& worker_;
};

TEST_F(ArchiveTest, SamplesAreWrittenWhileDamageCannotBeSetApart) {
  open();
  write(second(1), 1);
  ASSERT_TRUE(worker().writeAll());
  ASSERT_TRUE(worker().store().db().exec("UPDATE segment SET data = x'00'"));
  ask({});  // meets the damage
  {
    Forbidden forbidden(worker(), "INSERT ON damaged");
    worker().pass();
    EXPECT_EQ(counters().failures, 1U);
    write(second(2), 2);
    clock_.advance(10 * kTicksPerSecond);
    worker().pass();
    EXPECT_EQ(counters().written, 2U);
    EXPECT_EQ(counters().failures, 1U);
    write(second(3), 3);
    EXPECT_FALSE(worker().writeAll());
    EXPECT_EQ(counters().written, 3U);
    clock_.advance(10 * kTicksPerSecond);
    worker().pass();  // opens the file again
  }
  EXPECT_EQ(inFile("SELECT count(*) FROM damaged"), 0);
  clock_.advance(2 * kTicksPerMinute);
  for (int i = 0; i < 3; ++i) worker().pass();
  EXPECT_EQ(inFile("SELECT count(*) FROM damaged"), 1);
}

TEST_F(ArchiveTest, AFailedCleanUpForgetsNoSample) {
  limits_.maxTime = kTicksPerMinute;
  limits_.maxWriteValues = 10;
  open();
  for (int i = 0; i < 30; ++i) write(second(i), i);
  ASSERT_TRUE(worker().writeAll());
  clock_.advance(kTicksPerHour);
  {
    // The oldest segments go, a later one cannot.
    Forbidden forbidden(worker(),
                        "DELETE ON segment WHEN old.first > " + std::to_string(second(5)));
    EXPECT_FALSE(worker().cleanUp());
    write(second(30), 30);
    ASSERT_TRUE(worker().writeAll());
    EXPECT_EQ(values({}).size(), 31U);
    ASSERT_TRUE(worker().store().isOpen());
  }
  ASSERT_TRUE(worker().cleanUp());
  EXPECT_EQ(values({}), (std::vector<double>{30}));
}

// A failed commit may have reached the file: whoever reads meanwhile asks the file for the marker.
TEST(WriteBufferMarkerTest, ABatchOfADoubtfulTransactionKeepsItsMarkerUntilItIsKnownToBeWritten) {
  orva::test::ManualClock clock;
  Signal wake;
  WriteBuffer buffer(10, 10, wake);
  BufferedStream stream;
  ASSERT_TRUE(buffer.offer(stream, makePin(1, realValue(1))));
  buffer.takeBatch();
  buffer.committing(7);
  buffer.committed(false);
  WriteBuffer::Snapshot snapshot;
  buffer.snapshot(stream, kLeast, kMost, snapshot);
  EXPECT_EQ(snapshot.marker, 7);
  EXPECT_EQ(snapshot.inFlight.size(), 1U);
  EXPECT_TRUE(snapshot.stored.meets(1, 1));
  EXPECT_EQ(buffer.committed(true), 1U);
  buffer.snapshot(stream, kLeast, kMost, snapshot);
  EXPECT_EQ(snapshot.marker, 0);
  EXPECT_TRUE(snapshot.inFlight.empty());
}

}  // namespace
}  // namespace orva::sqlite::test
