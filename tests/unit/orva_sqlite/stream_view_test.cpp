#include "orva_sqlite/stream_view.h"

#include <gtest/gtest.h>

#include "orva_sqlite/segment_writer.h"
#include "orva_sqlite/store.h"
#include "unit/orva_sqlite/archive_fixture.h"

namespace orva::sqlite::test {
namespace {

// Buffer and file held at the points of a transaction at which a read may come.
class StreamViewTest : public ::testing::Test, private Intake {
 protected:
  StreamViewTest()
      : catalog_(*this),
        buffer_(100, 100, wake_),
        damage_(counters_),
        store_({}, 0, counters_),
        writer_(store_, damage_, counters_),
        pool_(2),
        stream_(catalog_.addStream(catalog_.add({1, "a"}), 0)) {
    EXPECT_EQ(store_.open(folder_ / "archive.db", Look::kUsual), Opened::kReady);
    pool_.open(folder_ / "archive.db", 1000);
    stream_.item.row = 1;
  }

  void accept(Stream& stream, const PinPtr& pin) override {
    EXPECT_TRUE(buffer_.offer(stream, pin));
  }
  void write(std::int64_t n) { stream_.write(makePin(n, realValue(static_cast<double>(n)))); }

  // As a transaction goes: taken, in the file's log, announced, committed, known as committed.
  void take() { buffer_.takeBatch(); }
  void append() {
    marker_ = store_.nextSegmentId();
    ASSERT_TRUE(store_.begin(true));
    Columns columns;
    for (const PinPtr& pin : buffer_.batchOf(stream_)) columns.add(*pin);
    writer_.append(stream_, columns);
  }
  void announce() { buffer_.committing(marker_); }
  void commit() { ASSERT_TRUE(store_.commit()); }
  void know() {
    for (const PinPtr& pin : buffer_.batchOf(stream_)) stream_.stored.extend(pin->time, pin->time);
    buffer_.committed(true);
  }

  std::vector<std::int64_t> times() {
    struct Times final : SampleSink {
      bool take(const PinPtr* first, std::size_t count) override {
        for (const PinPtr* pin = first; pin != first + count; ++pin) list.push_back((*pin)->time);
        return true;
      }
      std::uint64_t room() const override { return 1000; }
      std::vector<std::int64_t> list;
    } sink;
    StreamView view(stream_, kEarliest, kLatest, buffer_, pool_, damage_);
    view.range(kEarliest, kLatest, sink);
    EXPECT_FALSE(view.unavailable());
    return sink.list;
  }

  TemporaryFolder folder_;
  Signal wake_;
  Counters counters_;
  Catalog catalog_;
  WriteBuffer buffer_;
  DamageRegister damage_;
  Store store_;
  SegmentWriter writer_;
  ReaderPool pool_;
  Stream& stream_;
  std::int64_t marker_ = 0;
};

TEST_F(StreamViewTest, SeesEachSampleOnceAtEveryPointOfATransaction) {
  const std::vector<std::int64_t> right = {1, 2, 3, 4};
  for (const std::int64_t n : {1, 2}) write(n);
  take();
  append();
  announce();
  commit();
  know();
  for (const std::int64_t n : {3, 4}) write(n);
  EXPECT_EQ(times(), right) << "waiting";
  take();
  EXPECT_EQ(times(), right) << "taken";
  append();
  EXPECT_EQ(times(), right) << "written, not committed";
  announce();
  EXPECT_EQ(times(), right) << "announced, not committed";
  commit();
  EXPECT_EQ(times(), right) << "committed, not known as such";
  know();
  EXPECT_EQ(times(), right) << "committed";
  EXPECT_EQ(buffer_.waiting(), 0U);
}

TEST_F(StreamViewTest, AFailedTransactionStaysReadableFromTheBuffer) {
  for (const std::int64_t n : {1, 2}) write(n);
  take();
  append();
  announce();
  store_.rollback();
  EXPECT_EQ(times(), (std::vector<std::int64_t>{1, 2}));
  buffer_.committed(false);
  write(3);
  EXPECT_EQ(times(), (std::vector<std::int64_t>{1, 2, 3}));
  EXPECT_TRUE(buffer_.hasBatch());
}

TEST_F(StreamViewTest, KeepsItsMomentWhileTheFileChanges) {
  for (const std::int64_t n : {1, 2}) write(n);
  take();
  append();
  announce();
  commit();
  know();
  StreamView view(stream_, kEarliest, kLatest, buffer_, pool_, damage_);
  ASSERT_TRUE(store_.begin(true));
  store_.remove(1);
  commit();
  const PinPtr oldest = view.oldest(kEarliest, kLatest);
  ASSERT_TRUE(oldest);
  EXPECT_EQ(oldest->time, 1);
}

TEST_F(StreamViewTest, AFileThatCannotBeOpenedIsSaid) {
  write(1);
  take();
  append();
  announce();
  commit();
  know();
  write(2);
  pool_.close();
  StreamView view(stream_, kEarliest, kLatest, buffer_, pool_, damage_);
  EXPECT_TRUE(view.unavailable());
  const PinPtr newest = view.newest(kEarliest, kLatest);
  ASSERT_TRUE(newest);
  EXPECT_EQ(newest->time, 2);
}

}  // namespace
}  // namespace orva::sqlite::test
