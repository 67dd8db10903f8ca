#include "orva_sqlite/write_buffer.h"

#include <gtest/gtest.h>

#include "share/signal.h"
#include "share/ticks.h"
#include "support/manual_clock.h"
#include "unit/orva_sqlite/samples.h"

namespace orva::sqlite {
namespace {

using namespace orva::sqlite::test;

class WriteBufferTest : public ::testing::Test {
 protected:
  WriteBufferTest() : buffer_(10, 4, wake_) {}

  bool offer(BufferedStream& stream, std::int64_t time) {
    return buffer_.offer(stream, makePin(time, realValue(static_cast<double>(time))));
  }
  // The times of what a reader finds of a stretch, in flight and waiting.
  std::vector<std::int64_t> times(const BufferedStream& stream, std::int64_t from,
                                  std::int64_t to) {
    WriteBuffer::Snapshot snapshot;
    buffer_.snapshot(stream, from, to, snapshot);
    std::vector<std::int64_t> all;
    for (const PinPtr& pin : snapshot.inFlight) all.push_back(pin->time);
    for (const PinPtr& pin : snapshot.waiting) all.push_back(pin->time);
    return all;
  }

  orva::test::ManualClock clock_;
  Signal wake_;
  WriteBuffer buffer_;
  BufferedStream a_;
  BufferedStream b_;
};

TEST_F(WriteBufferTest, IsCrowdedFromHalfItsCapacityOnUntilABatchIsTaken) {
  for (std::int64_t time = 1; time <= 4; ++time) offer(a_, time);
  EXPECT_FALSE(buffer_.crowded());
  offer(b_, 5);
  EXPECT_TRUE(buffer_.crowded());
  buffer_.takeBatch();
  EXPECT_FALSE(buffer_.crowded());
}

TEST_F(WriteBufferTest, WhoeverFindsItCrowdedMakesTheBatchDueAndWakesTheWriterOnce) {
  WriteBuffer buffer(10, 10, wake_);
  for (std::int64_t time = 1; time <= 5; ++time) buffer.offer(a_, makePin(time, realValue(1)));
  EXPECT_FALSE(buffer.batchIsDue(Signal::elapsed(), kTicksPerSecond));
  const std::uint64_t woken = wake_.count();
  EXPECT_TRUE(buffer.crowded());
  EXPECT_TRUE(buffer.crowded());
  EXPECT_EQ(wake_.count(), woken + 1);
  EXPECT_TRUE(buffer.batchIsDue(Signal::elapsed(), kTicksPerSecond));
  buffer.takeBatch();
  EXPECT_EQ(buffer.committed(true), 5U);
  buffer.offer(a_, makePin(6, realValue(1)));
  EXPECT_FALSE(buffer.crowded());
  EXPECT_FALSE(buffer.batchIsDue(Signal::elapsed(), kTicksPerSecond));
}

TEST_F(WriteBufferTest, TheWriterIsWokenByTheFirstSampleAndWhenABatchWaits) {
  const std::uint64_t start = wake_.count();
  offer(a_, 1);
  EXPECT_EQ(wake_.count(), start + 1);
  offer(a_, 2);
  offer(b_, 3);
  EXPECT_EQ(wake_.count(), start + 1);
  offer(b_, 4);
  EXPECT_EQ(wake_.count(), start + 2);
  offer(b_, 5);
  EXPECT_EQ(wake_.count(), start + 2);
}

TEST_F(WriteBufferTest, AfterABurstAStreamKeepsPlacesForFewSamples) {
  WriteBuffer buffer(1000, 1000, wake_);
  for (std::int64_t time = 1; time <= 1000; ++time) buffer.offer(a_, makePin(time, realValue(1)));
  EXPECT_GE(buffer.kept(a_), 1000U);
  buffer.takeBatch();
  EXPECT_EQ(buffer.committed(true), 1000U);
  EXPECT_LE(buffer.kept(a_), 64U);
  buffer.offer(a_, makePin(1001, realValue(1)));
  buffer.takeBatch();
  EXPECT_EQ(buffer.batchOf(a_).size(), 1U);
}

TEST_F(WriteBufferTest, ABatchHasTheOldestSamplesOfAllStreams) {
  for (const std::int64_t time : {1, 2, 3}) offer(a_, time);
  for (const std::int64_t time : {4, 5}) offer(b_, time);
  offer(a_, 6);
  buffer_.takeBatch();
  EXPECT_EQ(buffer_.batchOf(a_).size(), 3U);
  EXPECT_EQ(buffer_.batchOf(b_).size(), 1U);
  EXPECT_EQ(buffer_.waiting(), 2U);
  EXPECT_EQ(buffer_.committed(true), 4U);
  buffer_.takeBatch();
  EXPECT_EQ(buffer_.batchOf(a_).size(), 1U);
  EXPECT_EQ(buffer_.batchOf(b_).size(), 1U);
}

TEST_F(WriteBufferTest, TheBatchMakesRoomForNewSamples) {
  for (std::int64_t time = 0; time < 10; ++time) EXPECT_TRUE(offer(a_, time));
  EXPECT_FALSE(offer(a_, 10));
  buffer_.takeBatch();
  for (std::int64_t time = 10; time < 14; ++time) EXPECT_TRUE(offer(a_, time));
  EXPECT_FALSE(offer(a_, 14));
  EXPECT_EQ(buffer_.discard(), 14U);
  EXPECT_EQ(buffer_.waiting(), 0U);
}

TEST_F(WriteBufferTest, AReaderFindsAnyStretchWhateverWasTaken) {
  for (std::int64_t time = 1; time <= 9; ++time) offer(a_, 10 * time);
  for (int batch = 0; batch < 3; ++batch) {
    EXPECT_EQ(times(a_, 25, 70), (std::vector<std::int64_t>{30, 40, 50, 60, 70})) << batch;
    EXPECT_EQ(times(a_, 95, 200), std::vector<std::int64_t>()) << batch;
    EXPECT_EQ(times(b_, 0, 200), std::vector<std::int64_t>()) << batch;
    if (batch == 0) buffer_.takeBatch();
    if (batch == 1) buffer_.committed(false);
  }
  buffer_.committed(true);
  EXPECT_EQ(times(a_, 0, 200), (std::vector<std::int64_t>{50, 60, 70, 80, 90}));
}

TEST_F(WriteBufferTest, SamplesThatDoNotAscendAreFoundToo) {
  for (const std::int64_t time : {50, 20, 80, 30}) offer(a_, time);
  EXPECT_EQ(times(a_, 25, 60), (std::vector<std::int64_t>{50, 30}));
  buffer_.takeBatch();
  buffer_.committed(true);
  for (const std::int64_t time : {1, 2, 3}) offer(a_, time);
  EXPECT_EQ(times(a_, 2, 9), (std::vector<std::int64_t>{2, 3}));
}

TEST_F(WriteBufferTest, ACutIsTheSameUntilTheFileMayHaveChanged) {
  offer(a_, 1);
  WriteBuffer::Snapshot snapshot;
  buffer_.snapshot(a_, 0, 9, snapshot);
  offer(a_, 2);
  buffer_.takeBatch();
  EXPECT_TRUE(buffer_.sameCut(snapshot));
  buffer_.committing(17);
  EXPECT_FALSE(buffer_.sameCut(snapshot));
  buffer_.snapshot(a_, 0, 9, snapshot);
  EXPECT_EQ(snapshot.marker, 17);
  EXPECT_TRUE(snapshot.stored.meets(2, 2));
  buffer_.committed(true);
  EXPECT_FALSE(buffer_.sameCut(snapshot));
  buffer_.snapshot(a_, 0, 9, snapshot);
  EXPECT_EQ(snapshot.marker, 0);
}

}  // namespace
}  // namespace orva::sqlite
