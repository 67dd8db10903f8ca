#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "orva_sqlite/archive_status.h"
#include "orva_sqlite/segment_writer.h"
#include "share/ticks.h"
#include "support/host_event_recorder.h"
#include "unit/orva_sqlite/failing_disk.h"

// What an archive does and says when its disk or its file fails it, one failure at a time.

namespace orva::sqlite::test {
namespace {

namespace fs = std::filesystem;

// What cannot be made smaller.
std::string noise(std::mt19937_64& random, std::size_t size) {
  std::string text;
  for (std::size_t i = 0; i < size; ++i) text += static_cast<char>('!' + random() % 90);
  return text;
}

// ---- the copy of SQLite's log

TEST_F(FailingDiskTest, ALogThatCannotBeCopiedIsAProblemUntilItCan) {
  orva::test::HostEventRecorder host;
  connection_.parameters = "synchronous=NORMAL;checkpointPages=16";
  open();
  write(second(1), 1);
  ASSERT_TRUE(worker().writeAll());
  failAll(Operation::kSync);
  int i = 2;
  for (; i < 100 && disk().struck() == 0; ++i) {
    write({i, "x"}, 0, makePin(second(i), textValue(std::string(2000, 'x'))));
    ASSERT_TRUE(worker().writeAll());
  }
  ASSERT_GT(disk().struck(), 0U);
  EXPECT_EQ(trace_.countContaining("copying the log into the file failed: "), 1);
  ASSERT_EQ(host.events(HostEventKind::kProviderFailure).size(), 1U);
  EXPECT_EQ(counters().failures, 0U) << "the samples themselves are written";
  EXPECT_EQ(trace_.countContaining("works again"), 0);
  disk().disarm();
  write(second(i), 1);
  ASSERT_TRUE(worker().writeAll());
  EXPECT_EQ(trace_.countContaining("works again"), 1);
  EXPECT_EQ(host.events(HostEventKind::kProviderRecovered).size(), 1U);
}

// ---- opening

// A place with a transaction that had failed and is in the file all the same, so that opening it
// anew has everything to look up.
class DoubtfulFileTest : public FailingDiskTest {
 protected:
  void begin(std::uint64_t round) {
    connection_.parameters = "synchronous=FULL";
    connection_.location = folder_ / std::to_string(round);
    list_ = PlainList();
    open();
    for (int id = 1; id <= 3; ++id) write({id, "x"}, 0, makePin(second(id), realValue(id)));
    ASSERT_TRUE(worker().writeAll());
    write({1, "x"}, 0, makePin(second(10), realValue(10)));
    failAll(Operation::kSync);
    ASSERT_FALSE(worker().writeAll());
    disk().disarm();
    clock_.advance(connection_.reconnectTimeout);
  }
  std::uint64_t readsOfOpening() {
    begin(0);
    disk().arm({});
    worker().pass();
    EXPECT_TRUE(worker().store().isOpen());
    return disk().count(Operation::kRead);
  }
};

TEST_F(DoubtfulFileTest, NoReadThatFailsWhileItIsOpenedLosesOrDoublesASample) {
  const std::uint64_t reads = readsOfOpening();
  ASSERT_GT(reads, 5U);
  int said = 0;
  for (std::uint64_t nth = 1; nth <= reads; ++nth) {
    begin(nth);
    trace_.clear();
    failOnce(Operation::kRead, nth);
    worker().pass();
    EXPECT_EQ(disk().struck(), 1U);
    disk().disarm();
    if (!worker().store().isOpen()) {
      EXPECT_EQ(trace_.countContaining("cannot be opened: disk I/O error"), 1) << "read " << nth;
      ++said;
      EXPECT_TRUE(answers({{2, "x"}})) << "the readers have their own connections";
      clock_.advance(connection_.reconnectTimeout);
      worker().pass();
    }
    ASSERT_TRUE(worker().store().isOpen()) << "read " << nth;
    EXPECT_EQ(counters().written, 4U) << "read " << nth;
    EXPECT_TRUE(worker().writeAll());
    for (int id = 1; id <= 3; ++id) EXPECT_TRUE(answers({{id, "x"}})) << "read " << nth;
    EXPECT_EQ(trace_.countContaining("was moved to"), 0) << "read " << nth;
  }
  EXPECT_GT(said, 3);
}

TEST_F(ArchiveTest, AFileThatCanBeNeitherReadNorMovedIsLeftAlone) {
  // Its name leaves no room for what is added to that of a file moved aside.
  const std::string file = folder_ / (std::string(235, 'x') + ".db");
  std::ofstream(file) << std::string(10'000, 'y');
  connection_.location = file;
  open();
  EXPECT_FALSE(worker().ready());
  EXPECT_EQ(trace_.countContaining("cannot be read, nor moved aside: "), 1);
  write(second(1), 1);
  EXPECT_FALSE(worker().writeAll());
  EXPECT_EQ(ask({}).failure, status::kBadDataUnavailable);
  EXPECT_EQ(fs::file_size(file), 10'000U);
  fs::remove(file);
  clock_.advance(connection_.reconnectTimeout);
  EXPECT_TRUE(worker().writeAll());
  EXPECT_TRUE(answers({}));
}

TEST_F(ArchiveTest, APlaceWhoseLockCannotBeOpenedIsTriedAgain) {
  fs::create_directory(folder_ / "archive.db.lock");
  open();
  EXPECT_FALSE(worker().ready());
  EXPECT_EQ(trace_.countContaining("archive.db.lock cannot be opened: Is a directory"), 1);
  EXPECT_FALSE(fs::exists(folder_ / "archive.db"));
  fs::remove(folder_ / "archive.db.lock");
  clock_.advance(connection_.reconnectTimeout);
  worker().pass();
  EXPECT_TRUE(worker().ready());
}

TEST_F(ArchiveTest, AStoreThatLacksATableOrAColumnIsMovedAside) {
  const char* const changes[] = {
      "DROP TABLE item",
      "ALTER TABLE item DROP COLUMN path",
      "DROP TABLE segment",
      "DROP TABLE damaged",
      "DROP INDEX segment_by_time; ALTER TABLE segment DROP COLUMN seq",
  };
  for (const char* const change : changes) {
    const TemporaryFolder folder;
    connection_.location = folder.path();
    list_ = PlainList();
    open();
    write(second(1), 1);
    ASSERT_TRUE(worker().writeAll());
    ASSERT_TRUE(worker().store().db().exec(change)) << change;
    trace_.clear();
    open();
    EXPECT_TRUE(worker().ready()) << change;
    EXPECT_EQ(trace_.countContaining("it was moved to"), 1) << change;
    list_ = PlainList();
    write(second(2), 2);
    ASSERT_TRUE(worker().writeAll());
    EXPECT_EQ(values({}), (std::vector<double>{2})) << change;
    close();
  }
}

// ---- a file that somebody holds

// A tool that looks into the file, and writes.
class Holder {
 public:
  explicit Holder(const std::string& file) {
    EXPECT_TRUE(db_.open(file, Database::Mode::kReadWrite));
    EXPECT_TRUE(db_.begin());
  }

 private:
  Database db_;
};

TEST_F(FailingDiskTest, WhatAHeldFileKeepsFromBeingDoneIsDoneWhenItIsFree) {
  limits_.maxTime = kTicksPerMinute;
  limits_.cleanupPeriod = kTicksPerHour;
  limits_.maxWriteValues = 3;
  open();
  for (int i = 0; i < 30; ++i) write(second(i), i);
  ASSERT_TRUE(worker().writeAll());
  {
    const Holder holder(folder_ / "archive.db");
    write(second(30), 30);
    EXPECT_FALSE(worker().writeAll());
    EXPECT_EQ(trace_.countContaining("writing samples failed: database is locked"), 1);
    EXPECT_EQ(counters().written, 30U);
    EXPECT_TRUE(answers({})) << "from file and buffer";
  }
  ASSERT_TRUE(worker().writeAll());
  EXPECT_EQ(trace_.countContaining("works again"), 1);
  {
    const Holder holder(folder_ / "archive.db");
    EXPECT_FALSE(worker().mergeAll());
    EXPECT_EQ(trace_.countContaining("joining segments failed: database is locked"), 1);
    EXPECT_EQ(counters().merged, 0U);
    EXPECT_TRUE(answers({}));
  }
  ASSERT_TRUE(worker().mergeAll());
  EXPECT_GT(counters().merged, 0U);
  clock_.advance(kTicksPerHour);
  {
    const Holder holder(folder_ / "archive.db");
    EXPECT_FALSE(worker().cleanUp());
    EXPECT_EQ(trace_.countContaining("cleaning up failed: database is locked"), 1);
    EXPECT_EQ(counters().deleted, 0U);
    EXPECT_TRUE(answers({}));
  }
  ASSERT_TRUE(worker().cleanUp());
  EXPECT_EQ(values({}), (std::vector<double>{30}));
}

TEST_F(FailingDiskTest, APassInWhichJoiningOrCleaningUpFailsWaitsForTheReconnectTimeout) {
  limits_.maxTime = kTicksPerMinute;
  limits_.cleanupPeriod = kTicksPerHour;
  limits_.maxWriteValues = 3;
  open();
  for (int i = 0; i < 30; ++i) write(second(i), i);
  while (counters().written < 30) EXPECT_EQ(worker().pass(), 0);
  {
    const Holder holder(folder_ / "archive.db");
    EXPECT_EQ(worker().pass(), connection_.reconnectTimeout);
    EXPECT_EQ(trace_.countContaining("joining segments failed"), 1);
  }
  clock_.advance(kTicksPerHour);
  EXPECT_EQ(worker().pass(), 0) << "a clean-up begins";
  {
    const Holder holder(folder_ / "archive.db");
    EXPECT_EQ(worker().pass(), connection_.reconnectTimeout);
    EXPECT_EQ(trace_.countContaining("cleaning up failed"), 1);
    EXPECT_TRUE(answers({}));
  }
  EXPECT_EQ(worker().pass(), connection_.reconnectTimeout) << "over, until the next one";
  clock_.advance(kTicksPerHour);
  while (worker().pass() == 0) {
  }
  EXPECT_EQ(values({}), (std::vector<double>{29}));
}

// ---- size

TEST_F(ArchiveTest, WhereOnlyNewestSamplesAreLeftDamagedOnesGo) {
  limits_.maxSize = 1;
  open();
  std::mt19937_64 random(1);
  for (int id = 1; id <= 60; ++id) {
    write({id, "x"}, 0, makePin(second(id), textValue(noise(random, 30'000))));
  }
  ASSERT_TRUE(worker().writeAll());
  ASSERT_TRUE(worker().store().db().exec(
      "INSERT INTO damaged SELECT id, handle, layer, first, last, count, data, 0, 'a test' "
      "FROM segment WHERE id <= 5"));
  ASSERT_GT(worker().store().space().used(), 1'000'000);
  ASSERT_TRUE(worker().cleanUp());
  EXPECT_EQ(worker().store().db().number("SELECT count(*) FROM damaged"), 0);
  EXPECT_EQ(counters().deleted, 0U);
  for (int id = 1; id <= 60; ++id) EXPECT_TRUE(answers({{id, "x"}}));
}

TEST_F(ArchiveTest, ACleanUpForSizeGoesOnBehindADamagedSegment) {
  limits_.maxSize = 1;
  limits_.maxWriteValues = 10;
  limits_.maxDelValues = 5;  // less than a segment, so that each is decoded
  std::mt19937_64 random(1);
  for (const char* const damage : {"data = x'0102'", "count = 0", "count = -1"}) {
    const TemporaryFolder folder;
    connection_.location = folder.path();
    open();
    for (int i = 0; i < 600; ++i) {
      write({1, "a"}, 0, makePin(second(i), textValue(noise(random, 3000))));
    }
    ASSERT_TRUE(worker().writeAll());
    Store& store = worker().store();
    const std::string change = std::string("UPDATE segment SET ") + damage + " WHERE id = 1";
    ASSERT_TRUE(store.db().exec(change.c_str()));
    ASSERT_GT(store.space().used(), store.space().target());
    ASSERT_TRUE(worker().cleanUp());
    EXPECT_LE(store.space().used(), store.space().target()) << damage;
    EXPECT_EQ(store.db().number("SELECT count(*) FROM damaged"), 1) << damage;
    EXPECT_EQ(counters().damaged, 1U) << damage;
    const std::uint64_t deleted = counters().deleted;
    EXPECT_GT(deleted, 100U) << damage;
    EXPECT_LT(deleted, 500U) << damage;
    EXPECT_EQ(ask({}).pushed.size(), 590 - deleted) << damage;
    close();
  }
}

// ---- rows set apart

// Damage that a change meets: the row is set apart, and what was to be stored is.
class DamagedRowTest : public ArchiveTest {
 protected:
  // Rows of ten samples each, the n-th of which, from 1, is damaged.
  void openWithDamage(int nth) {
    limits_.maxWriteValues = 10;
    open();
    for (int i = 0; i < 30; ++i) ArchiveTest::write(second(10 * i), i);
    ASSERT_TRUE(worker().writeAll());
    const std::string row = "UPDATE segment SET data = x'0102' WHERE id = " + std::to_string(nth);
    ASSERT_TRUE(worker().store().db().exec(row.c_str()));
  }
  void expectSetApart(std::int64_t id) {
    EXPECT_EQ(counters().damaged, 1U);
    EXPECT_EQ(inFile("SELECT count(*) FROM damaged"), 1);
    EXPECT_EQ(inFile("SELECT count(*) FROM segment WHERE id = " + std::to_string(id)), 0);
    EXPECT_EQ(trace_.countContaining("is damaged (its checksum or a field is wrong)"), 1);
    EXPECT_EQ(ask({}).failure, status::kBadDataLost);
  }
};

TEST_F(DamagedRowTest, AnOlderSampleThatFallsIntoOneIsStoredBesideIt) {
  openWithDamage(2);
  ArchiveTest::write(second(155), 155);
  ASSERT_TRUE(worker().writeAll());
  expectSetApart(2);
  EXPECT_EQ(ask({}).pushed.size(), 21U);
  EXPECT_EQ(values({{1, "a"}, 0, second(155), second(155)}), (std::vector<double>{155}));
}

TEST_F(DamagedRowTest, ACleanUpSetsApartTheOneAtItsCutoff) {
  openWithDamage(2);
  limits_.maxTime = kTicksPerMinute;
  ASSERT_TRUE(worker().store().db().exec("SELECT 1"));
  open();
  clock_.setTime(second(150) + kTicksPerMinute);
  ASSERT_TRUE(worker().cleanUp());
  expectSetApart(2);
  EXPECT_EQ(ask({}).pushed.size(), 10U);
}

class DamagedRowWriterTest : public DamagedRowTest {
 protected:
  void openWithDamage(int nth) {
    DamagedRowTest::openWithDamage(nth);
    stream_.item.row = 1;
    stream_.stored = {second(0), second(290)};
    ASSERT_TRUE(worker().store().begin(true));
  }
  Columns samples(std::int64_t from, std::int64_t to) {
    Columns made;
    for (std::int64_t i = from; i <= to; ++i) made.add(*makePin(second(i), realValue(1)));
    return made;
  }
  std::int64_t number(const char* sql) { return worker().store().db().number(sql); }

  struct NoIntake final : Intake {
    void accept(Stream&, const PinPtr&) override {}
  } intake_;
  Catalog catalog_{intake_};
  Stream& stream_ = catalog_.addStream(catalog_.add({1, "a"}), 0);
  Counters own_;
  DamageRegister register_{own_};
};

TEST_F(DamagedRowWriterTest, NewSamplesDoNotGoIntoOneThatIsTheNewest) {
  openWithDamage(3);
  SegmentWriter writer(worker().store(), register_, own_);
  Columns more = samples(300, 309);
  writer.extend(stream_, more);
  ASSERT_TRUE(worker().store().commit());
  EXPECT_EQ(number("SELECT count(*) FROM segment"), 4);
  EXPECT_EQ(number("SELECT count(*) FROM segment WHERE data = x'0102'"), 1);
  const std::string added = "SELECT sum(count) FROM segment WHERE first >= ";
  EXPECT_EQ(number((added + std::to_string(second(300))).c_str()), 10);
}

TEST_F(DamagedRowWriterTest, WhatReplacesSamplesSetsItApart) {
  openWithDamage(2);
  SegmentWriter writer(worker().store(), register_, own_);
  writer.replace(stream_, second(95), second(205), samples(100, 105));
  ASSERT_TRUE(worker().store().commit());
  EXPECT_EQ(own_.damaged, 1U);
  EXPECT_EQ(number("SELECT count(*) FROM damaged WHERE reason = 'cannot be decoded'"), 1);
  // Nine of the first row, six new ones, nine of the last row.
  EXPECT_EQ(number("SELECT sum(count) FROM segment"), 10 + 6 + 9);
  EXPECT_EQ(number("SELECT count(*) FROM segment WHERE data = x'0102'"), 0);
}

TEST_F(DamagedRowWriterTest, NothingInThePlaceOfNothingIsNothing) {
  openWithDamage(2);
  SegmentWriter writer(worker().store(), register_, own_);
  writer.replace(stream_, second(1000), second(2000), {});
  ASSERT_TRUE(worker().store().commit());
  EXPECT_EQ(number("SELECT count(*) FROM segment"), 3);
}

TEST_F(ArchiveTest, OnlyTheVeryRowThatWasReadIsSetApart) {
  open();
  for (int i = 1; i <= 3; ++i) write(second(i), i);
  ASSERT_TRUE(worker().writeAll());
  Store& store = worker().store();
  Segment row;
  {
    SegmentTable::Cursor cursor = store.segments().forward({1, 0});
    ASSERT_TRUE(cursor.next());
    row = cursor.segment();
  }
  Segment longer = row;
  ++longer.last;
  Segment fuller = row;
  ++fuller.count;
  Segment absent = row;
  absent.id = 77;
  ASSERT_TRUE(store.begin(true));
  for (const Segment& other : {longer, fuller, absent}) {
    EXPECT_FALSE(store.setApart(other, "a test"));
  }
  EXPECT_EQ(store.db().number("SELECT count(*) FROM damaged"), 0);
  EXPECT_EQ(store.db().number("SELECT count(*) FROM segment"), 1);
  Segment misplaced = row;  // by a damaged index
  --misplaced.first;
  EXPECT_TRUE(store.setApart(misplaced, "a test"));
  EXPECT_EQ(store.db().number("SELECT count(*) FROM damaged"), 1);
  EXPECT_EQ(store.db().number("SELECT count(*) FROM segment"), 0);
  store.rollback();
}

TEST_F(ArchiveTest, ARowOfAnotherFileIsNotTakenForTheDamagedOne) {
  open();
  for (int i = 1; i <= 3; ++i) write(second(i), i);
  ASSERT_TRUE(worker().writeAll());
  changeFile("CREATE TABLE kept AS SELECT data FROM segment");
  changeFile("UPDATE segment SET data = x'00', last = last + 1");
  EXPECT_EQ(ask({}).failure, status::kBadDataLost);
  changeFile("UPDATE segment SET data = (SELECT data FROM kept), last = last - 1");
  worker().pass();
  EXPECT_EQ(inFile("SELECT count(*) FROM damaged"), 0);
  open();
  EXPECT_TRUE(answers({}));
}

// ---- samples that are not kept

TEST_F(ArchiveTest, ADataValueThatFindsTheBufferFullIsDroppedAndCounted) {
  limits_.writeBufferSize = 1;
  open();
  OpcUa_VariantHlp wrapped;
  wrapped.SetDataValue(realValue(2), 0, second(2));
  write(second(1), 1);
  archive_->layerWriter({1, "a"}, 0, 0).write(makePin(second(2), wrapped));
  EXPECT_EQ(counters().accepted, 1U);
  EXPECT_EQ(counters().dropped, 1U);
  EXPECT_EQ(trace_.countContaining("has its write buffer full: sample of item 1 \"a\" dropped"), 1);
}

TEST_F(ArchiveTest, NoSampleAndNoQuestionAreNothing) {
  open();
  archive_->layerWriter({1, "a"}, 0, 0).write(PinPtr());
  archive_->read(archive::SharedInterval());
  EXPECT_EQ(counters().accepted, 0U);
  EXPECT_EQ(counters().refused, 0U);
  EXPECT_EQ(counters().reads, 0U);
}

}  // namespace
}  // namespace orva::sqlite::test
