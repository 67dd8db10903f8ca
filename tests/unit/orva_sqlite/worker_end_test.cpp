// What an archive's worker owes also when there is much to do, or no memory to do it with.

#include <string>

#include "share/ticks.h"
#include "support/failing_allocations.h"
#include "unit/orva_sqlite/archive_fixture.h"

namespace orva::sqlite::test {
namespace {

using orva::test::withAllocations;

class WorkerEndTest : public ArchiveTest {};

TEST_F(WorkerEndTest, SteadyWritingDoesNotKeepACleanUpWaiting) {
  limits_.maxTime = kTicksPerMinute;
  limits_.cleanupPeriod = kTicksPerMinute;
  limits_.maxWriteValues = 10;
  open();
  for (int i = 0; i < 1000; ++i) {
    // A whole batch waits at each pass.
    for (int n = 0; n < 10; ++n) write(clock_.now() + n, n);
    worker().pass();
    clock_.advance(kTicksPerSecond);
  }
  EXPECT_GT(counters().deleted, 8000U);
  EXPECT_GE(inFile("SELECT min(first) FROM segment"), clock_.now() - 3 * kTicksPerMinute);
}

TEST_F(WorkerEndTest, AStopWithoutMemoryCountsWhatItLosesAndGivesThePlaceFree) {
  for (int count = 0; count < 300; count += 7) {
    TemporaryFolder folder;
    connection_.location = folder.path();
    open();
    for (int i = 0; i < 10; ++i) write(second(i), i);
    ASSERT_TRUE(worker().writeAll());
    for (int i = 10; i < 30; ++i) {
      write(second(i), i);
      write({2, "b"}, 1, makePin(second(i), realValue(i)));
    }
    archive_->shutDown();
    withAllocations(count, [&] { archive_->close(); });
    EXPECT_EQ(counters().accepted, counters().written + counters().dropped) << count;
    const std::unique_ptr<Archive> first = std::move(archive_);
    open();
    EXPECT_TRUE(worker().ready()) << count;
    close();
  }
}

// Memory that lacks when the batch is taken leaves a part of it taken.
TEST(WriteBufferLackTest, ABatchThatWasTakenInPartIsLostOnce) {
  for (int count = 0; count < 20; ++count) {
    orva::test::ManualClock clock;
    Signal wake;
    WriteBuffer buffer(100, 100, wake);
    BufferedStream first;
    BufferedStream second;
    for (int i = 0; i < 10; ++i) {
      ASSERT_TRUE(buffer.offer(first, makePin(i, realValue(i))));
      ASSERT_TRUE(buffer.offer(second, makePin(i, realValue(i))));
    }
    try {
      withAllocations(count, [&] { buffer.takeBatch(); });
    } catch (const std::bad_alloc&) {
    }
    EXPECT_EQ(buffer.discard(), 20U) << count;
  }
}

}  // namespace
}  // namespace orva::sqlite::test
