#include <boost/smart_ptr/make_shared.hpp>
#include <memory>
#include <new>
#include <string>
#include <thread>

#include "orva_sqlite/archive_status.h"
#include "share/archive_request.h"
#include "share/status_codes.h"
#include "share/ticks.h"
#include "support/failing_allocations.h"
#include "support/host_event_recorder.h"
#include "unit/orva_sqlite/failing_disk.h"

// Memory that is not there, at the places where a transaction or a reader is half-way.

namespace orva::sqlite::test {
namespace {

using orva::test::FailingAllocations;
using orva::test::withAllocations;

// ---- a batch, and the mark of the one before

class MarkerTest : public FailingDiskTest {
 protected:
  // A place of its own, without waiting for the disk unless a test is about that.
  void begin(long round) {
    connection_.location = folder_ / std::to_string(round);
    list_ = PlainList();
    open();
  }
  void write(std::int64_t id, std::int64_t time) {
    ArchiveTest::write({id, "x"}, 0, makePin(second(time), realValue(1)));
  }
  // More streams than in any batch before, and an allocation that fails while they are written;
  // then once more. Whether none failed.
  bool writeWith(long allocations) {
    for (std::int64_t id = 1; id <= 5; ++id) write(id, 10);
    try {
      bool done = false;
      withAllocations(allocations, [&] { done = worker().writeAll(); });
      return done;
    } catch (const std::bad_alloc&) {
      worker().interrupted();
      EXPECT_TRUE(worker().writeAll());
      return false;
    }
  }
  void expectAllOnce(long allocations) {
    for (std::int64_t id = 1; id <= 5; ++id) {
      EXPECT_TRUE(answers({{id, "x"}})) << "item " << id << ", " << allocations << " allocations";
    }
  }
};

TEST_F(MarkerTest, ABatchBehindACommitIsNotTakenForTheCommittedOne) {
  long allocations = 0;
  for (bool through = false; !through && allocations < 500; ++allocations) {
    begin(allocations);
    write(1, 1);
    ASSERT_TRUE(worker().writeAll());
    through = writeWith(allocations);
    expectAllOnce(allocations);
  }
  EXPECT_GT(allocations, 10);
  EXPECT_LT(allocations, 500);
}

TEST_F(MarkerTest, NorBehindOneThatWasFoundInTheFileAfterItHadFailed) {
  connection_.parameters = "synchronous=FULL";
  long allocations = 0;
  for (bool through = false; !through && allocations < 500; ++allocations) {
    begin(allocations);
    write(1, 1);
    ASSERT_TRUE(worker().writeAll());
    write(1, 2);
    failAll(Operation::kSync);
    ASSERT_FALSE(worker().writeAll());
    disk().disarm();
    EXPECT_EQ(counters().written, 1U);
    clock_.advance(connection_.reconnectTimeout);
    worker().pass();
    ASSERT_EQ(counters().written, 2U) << "the transaction was not in the file";
    through = writeWith(allocations);
    expectAllOnce(allocations);
  }
  EXPECT_GT(allocations, 10);
  EXPECT_LT(allocations, 500);
}

// ---- readers

class ReaderMemoryTest : public ArchiveTest {
 protected:
  ReaderMemoryTest() {
    open();
    ArchiveTest::write(second(1), 1);
    EXPECT_TRUE(worker().writeAll());
    pool_.open(folder_ / "archive.db", 100);
  }
  std::unique_ptr<FileReader> take() {
    std::string problem;
    std::unique_ptr<FileReader> reader = pool_.take(problem);
    EXPECT_TRUE(reader) << problem;
    return reader;
  }

  ReaderPool pool_{2};
};

TEST_F(ReaderMemoryTest, AReaderThatThereIsNoMemoryToKeepIsClosed) {
  take().reset();
  const long long before = FailingAllocations::sqliteBytes();
  std::unique_ptr<FileReader> reader = take();
  ASSERT_TRUE(reader->db.exec("PRAGMA cache_size=-77"));
  EXPECT_NO_THROW(withAllocations(0, [&] { pool_.giveBack(std::move(reader)); }));
  EXPECT_EQ(FailingAllocations::sqliteBytes(), before);
  reader = take();
  EXPECT_EQ(reader->db.number("PRAGMA cache_size"), -100);
}

TEST_F(ReaderMemoryTest, AReaderIsKeptWhereThereIsMemory) {
  std::unique_ptr<FileReader> reader = take();
  ASSERT_TRUE(reader->db.exec("PRAGMA cache_size=-77"));
  pool_.giveBack(std::move(reader));
  reader = take();
  EXPECT_EQ(reader->db.number("PRAGMA cache_size"), -77);
}

// ---- the copy of SQLite's log

TEST_F(FailingDiskTest, WhatThereIsNoMemoryToSayOfACopyIsSaidAfterTheNextCommit) {
  connection_.parameters = "synchronous=NORMAL;checkpointPages=16";
  open();
  write(second(1), 1);
  ASSERT_TRUE(worker().writeAll());
  Store& store = worker().store();
  ASSERT_TRUE(store.begin(true));
  ASSERT_TRUE(store.db().exec("CREATE TABLE fill AS SELECT zeroblob(200000) AS data"));
  failAll(Operation::kSync);
  bool committed = false;
  EXPECT_NO_THROW(withAllocations(0, [&] { committed = store.commit(); }));
  EXPECT_TRUE(committed);
  EXPECT_GT(disk().struck(), 0U);
  EXPECT_EQ(store.space().logProblem(), "");
  write(second(2), 2);
  ASSERT_TRUE(worker().writeAll());
  EXPECT_NE(store.space().logProblem(), "");
  disk().disarm();
  EXPECT_EQ(inFile("SELECT length(data) FROM fill"), 200000);
  EXPECT_TRUE(answers({}));
}

// ---- what is asked for

TEST_F(ArchiveTest, AReadOneAllocationOfWhichFailsSaysSoAndTakesNothingForDamage) {
  FailingAllocations failing;
  std::string texts[2];
  for (int i = 0; i < 400; ++i) texts[i % 2] += "a text that is worth to be compressed ";
  open();
  for (int i = 1; i <= 20; ++i) {
    ArchiveTest::write({1, "a"}, 0, makePin(second(i), textValue(texts[i % 2])));
  }
  ASSERT_TRUE(worker().writeAll());
  int refused = 0;
  long nth = 0;
  for (bool struck = true; struck && nth < 1000;) {
    open();  // so that a reader is made
    const auto request = boost::make_shared<archive::Request>();
    const archive::SharedItem item = request->addItem(1);
    const archive::SharedInterval interval = item->addInterval(0, 0, 0);
    interval->setHandle(archive_->itemHandle({1, "a"}));
    failing.arm(++nth);
    archive_->read(interval);
    failing.disarm();
    struck = failing.hasFailed();
    EXPECT_TRUE(item->isFinal()) << nth;
    const StatusCode failure = item->failure();
    if (failure == 0) {
      EXPECT_EQ(interval->buffer().size(), 20U) << nth;
    } else {
      EXPECT_TRUE(failure == orva::status::kBadOutOfMemory ||
                  failure == status::kBadDataUnavailable)
          << nth << ": " << std::hex << failure;
      ++refused;
    }
    EXPECT_EQ(counters().damaged, 0U) << nth;
  }
  EXPECT_GT(refused, 20);
  EXPECT_LT(nth, 1000);
  close();
}

TEST_F(ArchiveTest, AnItemThatThereIsNoMemoryForIsNotKnown) {
  open();
  const ItemKey key{5, "a path that is too long to stand in a string itself"};
  int refused = 0;
  for (long allocations = 0; archive_->itemHandle(key) == 0 && allocations < 50; ++allocations) {
    try {
      withAllocations(allocations, [&] { archive_->layerWriter(key, 0, 0); });
    } catch (const std::bad_alloc&) {
      ++refused;
    }
  }
  EXPECT_GT(refused, 2);
  archive_->layerWriter({6, "b"}, 0, 0);
  EXPECT_EQ(archive_->itemHandle(key), 1U) << "what was refused took no number";
  EXPECT_EQ(archive_->itemHandle({6, "b"}), 2U);
  ArchiveTest::write(key, 0, makePin(second(1), realValue(1)));
  ASSERT_TRUE(worker().writeAll());
  EXPECT_TRUE(answers({key}));
}

// ---- the thread that writes

TEST_F(ArchiveTest, ItsThreadGoesOnAfterAPassThatRanOutOfMemory) {
  open();
  ArchiveTest::write(second(1), 1);
  FailingAllocations allocations;  // of all threads
  std::thread thread([this] { archive_->work(); });
  Signal& progress = archive_->progress();
  const auto passUntil = [&](const auto& done) {
    for (int i = 0; i < 1000 && !done(); ++i) {
      const std::uint64_t seen = progress.count();
      clock_.advance(limits_.writePeriod);
      progress.waitReal(seen, 10 * kTicksPerMillisecond);
    }
    return done();
  };
  {
    const FailingAllocations::Unharmed unharmed;
    allocations.arm(1);
    EXPECT_TRUE(passUntil([&] { return allocations.hasFailed(); }));
    allocations.disarm();
    EXPECT_TRUE(passUntil([&] { return counters().written == 1; }));
  }
  archive_->shutDown();
  thread.join();
  EXPECT_EQ(trace_.countContaining("sqlite worker throws: "), 1);
  EXPECT_TRUE(inFile("SELECT count(*) FROM segment") == 1);
}

}  // namespace
}  // namespace orva::sqlite::test
