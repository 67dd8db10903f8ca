// Changes of a file that fail half-way though the disk is well: a look-up whose pages are in
// memory, a transaction's begin or end, an allocation.

#include <sqlite3.h>

#include <cstdint>
#include <functional>
#include <new>
#include <string>
#include <vector>

#include "orva_sqlite/archive_status.h"
#include "orva_sqlite/segment_writer.h"
#include "share/status_codes.h"
#include "share/ticks.h"
#include "support/failing_allocations.h"
#include "unit/orva_sqlite/archive_fixture.h"
#include "unit/orva_sqlite/failing_statements.h"

namespace orva::sqlite::test {
namespace {

// They come before the archive and go after it.
struct WithFailures {
  orva::test::FailingAllocations allocations;
  FailingStatements statements;
};

class HalfWayTest : protected WithFailures, public ArchiveTest {
 protected:
  using Step = std::function<void()>;
  using Change = std::function<bool()>;

  // So many segments of so many samples a second apart; they begin 100 s after each other.
  void writeSegments(int count, int samples) {
    limits_.maxWriteValues = static_cast<std::uint32_t>(samples);
    open();
    for (int i = 0; i < count; ++i) {
      for (int n = 0; n < samples; ++n) write(second(100 * i + n), 100 * i + n);
    }
    ASSERT_TRUE(worker().writeAll());
    ASSERT_EQ(inFile("SELECT count(*) FROM segment"), count);
  }
  std::string file() const { return connection_.location + "/archive.db"; }
  std::int64_t inFile(const std::string& sql) {
    Database db;
    EXPECT_TRUE(db.open(file(), Database::Mode::kReadOnly));
    return db.number(sql.c_str());
  }
  void changeFile(const char* sql) { ASSERT_TRUE(worker().store().db().exec(sql)) << sql; }

  // For each n, or every so many: a place of its own, `prepare`, `change` of which the n-th of
  // whatever `arm` says fails, then `check`. Until there are no more.
  void eachFails(const std::function<void(long)>& arm, const std::function<bool()>& hasFailed,
                 const Step& prepare, const Change& change, const Step& check, long every) {
    int failures = 0;
    long nth = 1 - every;
    for (bool struck = true; struck && nth < kMost && !HasFailure(); clearPlace()) {
      SCOPED_TRACE(nth += every);
      connection_.location = folder_ / std::to_string(nth);
      list_ = PlainList();
      prepare();
      arm(nth);
      const bool done = attempt(change);
      struck = hasFailed();
      allocations.disarm();
      statements.disarm();
      EXPECT_TRUE(done || struck) << "it failed by itself";
      failures += done ? 0 : 1;
      check();
      expectNothingWasTakenForDamage();
    }
    EXPECT_GT(failures, 3);
    EXPECT_LT(nth, kMost);
  }
  void eachStatementFails(const Step& prepare, const Change& change, const Step& check) {
    eachFails([this](long n) { statements.arm(n); }, [this] { return statements.hasFailed(); },
              prepare, change, check, 1);
  }
  void allocationsFail(const Step& prepare, const Change& change, const Step& check, long every) {
    eachFails([this](long n) { allocations.arm(n); }, [this] { return allocations.hasFailed(); },
              prepare, change, check, every);
  }

  // Whether what there is of item "a" is what was written, once: now, and after the archive went
  // on.
  void expectAllOnce() {
    EXPECT_TRUE(answers({}));
    EXPECT_TRUE(worker().writeAll());
    EXPECT_TRUE(answers({}));
    const auto all = static_cast<std::int64_t>(list_.samples({1, "a"}, 0).size());
    EXPECT_EQ(inFile("SELECT sum(count) FROM segment"), all);
    EXPECT_EQ(counters().dropped, 0U);
    write(second(100'000), 1);
    EXPECT_TRUE(worker().writeAll());
    EXPECT_TRUE(answers({}));
  }

  std::uint64_t damaged_ = 0;

 private:
  static constexpr long kMost = 3000;

  bool attempt(const Change& change) {
    try {
      return change();
    } catch (const std::bad_alloc&) {
      worker().interrupted();
      return false;
    }
  }
  void clearPlace() {
    if (archive_) close();
  }
  void expectNothingWasTakenForDamage() {
    EXPECT_EQ(counters().damaged, damaged_);
    EXPECT_EQ(trace_.countContaining("was moved to"), 0);
    EXPECT_EQ(trace_.countContaining("made anew"), 0);
  }
};

// ---- older samples

class OlderSamplesTest : public HalfWayTest {
 protected:
  void prepare() {
    writeSegments(4, 10);
    write(second(105) + 1, -1);  // into the second one, and between others
    write(second(107) + 1, -2);
    write(second(250), -3);
    write(second(-50), -4);
  }
};

TEST_F(OlderSamplesTest, AreThereOnceWhicheverStatementFails) {
  eachStatementFails([this] { prepare(); }, [this] { return worker().writeAll(); },
                     [this] { expectAllOnce(); });
}

TEST_F(OlderSamplesTest, AreThereOnceWhereverMemoryFails) {
  allocationsFail([this] { prepare(); }, [this] { return worker().writeAll(); },
                  [this] { expectAllOnce(); }, 3);
}

// ---- joining

class JoiningTest : public HalfWayTest {
 protected:
  void expectJoined() {
    EXPECT_TRUE(answers({}));
    EXPECT_TRUE(worker().mergeAll());
    EXPECT_EQ(inFile("SELECT count(*) FROM segment"), 1);
    expectAllOnce();
  }
};

TEST_F(JoiningTest, LosesAndDoublesNothingWhicheverStatementFails) {
  eachStatementFails([this] { writeSegments(12, 3); }, [this] { return worker().mergeAll(); },
                     [this] { expectJoined(); });
}

TEST_F(JoiningTest, LosesAndDoublesNothingWhereverMemoryFails) {
  allocationsFail([this] { writeSegments(12, 3); }, [this] { return worker().mergeAll(); },
                  [this] { expectJoined(); }, 3);
}

// ---- cleaning up

class CleaningUpTest : public HalfWayTest {
 protected:
  // A clean-up has the first segment to delete, and five samples of the second one.
  void prepare() {
    limits_.maxTime = kTicksPerHour;
    clock_.setTime(second(0));
    writeSegments(3, 10);
    clock_.setTime(second(105) + kTicksPerHour);
  }
  void expectCleanedUp() {
    const std::vector<double> left = values({});
    std::vector<double> all = written();
    ASSERT_GE(left.size(), 15U);
    ASSERT_LE(left.size(), all.size());
    all.erase(all.begin(), all.end() - static_cast<std::ptrdiff_t>(left.size()));
    EXPECT_EQ(left, all) << "the newest ones, each once";
    EXPECT_TRUE(worker().cleanUp());
    std::vector<PinPtr>& samples = list_.samples({1, "a"}, 0);
    samples.erase(samples.begin(), samples.begin() + 15);
    expectAllOnce();
  }

 private:
  std::vector<double> written() {
    std::vector<double> all;
    for (int i = 0; i < 30; ++i) all.push_back(100 * (i / 10) + i % 10);
    return all;
  }
};

TEST_F(CleaningUpTest, LosesNoYoungSampleWhicheverStatementFails) {
  eachStatementFails([this] { prepare(); }, [this] { return worker().cleanUp(); },
                     [this] { expectCleanedUp(); });
}

TEST_F(CleaningUpTest, LosesNoYoungSampleWhereverMemoryFails) {
  allocationsFail([this] { prepare(); }, [this] { return worker().cleanUp(); },
                  [this] { expectCleanedUp(); }, 3);
}

// Each step cuts a segment in two.
TEST_F(CleaningUpTest, InSmallStepsLosesNoYoungSampleWhicheverStatementFails) {
  limits_.maxDelValues = 4;
  eachStatementFails([this] { prepare(); }, [this] { return worker().cleanUp(); },
                     [this] { expectCleanedUp(); });
}

TEST_F(CleaningUpTest, InSmallStepsLosesNoYoungSampleWhereverMemoryFails) {
  limits_.maxDelValues = 4;
  allocationsFail([this] { prepare(); }, [this] { return worker().cleanUp(); },
                  [this] { expectCleanedUp(); }, 3);
}

// ---- damage on the way

class DamageOnTheWayTest : public HalfWayTest {
 protected:
  // The second of three segments of ten samples is damaged.
  void prepare() {
    damaged_ = 1;
    writeSegments(3, 10);
    changeFile("UPDATE segment SET data = x'0102' WHERE id = 2");
    std::vector<PinPtr>& samples = list_.samples({1, "a"}, 0);
    samples.erase(samples.begin() + 10, samples.begin() + 20);
  }
  // What is not damaged is there, once, and the damaged row was set apart, once.
  void expectSetApart() {
    EXPECT_TRUE(worker().writeAll());
    EXPECT_EQ(inFile("SELECT count(*) FROM damaged"), 1);
    EXPECT_EQ(inFile("SELECT count(*) FROM damaged WHERE data = x'0102' AND count = 10"), 1);
    EXPECT_EQ(inFile("SELECT count(*) FROM segment WHERE data = x'0102'"), 0);
    const Answer answer = ask({});
    EXPECT_EQ(answer.failure, status::kBadDataLost);
    const std::vector<PinPtr>& right = list_.samples({1, "a"}, 0);
    ASSERT_EQ(answer.pushed.size(), right.size());
    for (std::size_t i = 0; i < right.size(); ++i) {
      EXPECT_TRUE(sameSample(*answer.pushed[i], *right[i])) << i;
    }
  }
};

TEST_F(DamageOnTheWayTest, OfAnOlderSampleIsSetApartOnceWhicheverStatementFails) {
  eachStatementFails(
      [this] {
        prepare();
        write(second(105), -1);
      },
      [this] { return worker().writeAll(); }, [this] { expectSetApart(); });
}

TEST_F(DamageOnTheWayTest, OfJoiningIsSetApartOnceWhicheverStatementFails) {
  eachStatementFails([this] { prepare(); }, [this] { return worker().mergeAll(); },
                     [this] {
                       EXPECT_TRUE(worker().mergeAll());
                       EXPECT_TRUE(worker().mergeAll());
                       expectSetApart();
                     });
}

TEST_F(DamageOnTheWayTest, OfACleanUpIsSetApartOnceWhicheverStatementFails) {
  limits_.maxTime = kTicksPerHour;
  eachStatementFails(
      [this] {
        clock_.setTime(second(0));
        prepare();
        clock_.setTime(second(105) + kTicksPerHour);
      },
      [this] { return worker().cleanUp(); },
      [this] {
        EXPECT_TRUE(worker().cleanUp());
        std::vector<PinPtr>& samples = list_.samples({1, "a"}, 0);
        samples.erase(samples.begin(), samples.begin() + 10);
        expectSetApart();
      });
}

// ---- samples in the place of others

class ReplacingTest : public HalfWayTest {
 protected:
  // Six samples in the place of the last one of the first segment, the second, and five of the
  // third.
  bool replace() {
    Store& store = worker().store();
    if (!store.isOpen() && !worker().writeAll()) return false;
    Counters counters;
    DamageRegister damage(counters);
    SegmentWriter writer(store, damage, counters);
    Stream& stream = catalog_.addStream(catalog_.add({1, "a"}), 0);
    stream.item.row = 1;
    stream.stored = {second(0), second(209)};
    Columns samples;
    for (int i = 150; i < 156; ++i) samples.add(*makePin(second(i), realValue(-i)));
    if (store.begin(true)) writer.replace(stream, second(9), second(204), samples);
    EXPECT_EQ(counters.damaged, 0U);
    if (!store.db().failed() && store.commit()) return true;
    worker().interrupted();
    return false;
  }
  void expectReplaced() {
    const bool done = values({}).size() == 20;
    EXPECT_TRUE(done || answers({})) << "nothing, or all of it";
    EXPECT_TRUE(replace());
    std::vector<double> right;
    for (int i = 0; i < 9; ++i) right.push_back(i);
    for (int i = 150; i < 156; ++i) right.push_back(-i);
    for (int i = 205; i < 210; ++i) right.push_back(i);
    EXPECT_EQ(values({}), right);
    EXPECT_EQ(inFile("SELECT sum(count) FROM segment"), 20);
  }

 private:
  struct NoIntake final : Intake {
    void accept(Stream&, const PinPtr&) override {}
  } intake_;
  Catalog catalog_{intake_};
};

TEST_F(ReplacingTest, HappensAsAWholeOrNotAtAllWhicheverStatementFails) {
  eachStatementFails([this] { writeSegments(3, 10); }, [this] { return replace(); },
                     [this] { expectReplaced(); });
}

// ---- opening, with a transaction that had failed and is in the file all the same

class DoubtfulTransactionTest : public HalfWayTest {
 protected:
  void prepare() {
    writeSegments(3, 2);
    write(second(105), -1);
    write({2, "b"}, 0, makePin(second(5), realValue(1)));
    // Called when a transaction is in SQLite's log.
    sqlite3_wal_hook(
        worker().store().db().handle(),
        [](void*, sqlite3*, const char*, int) { return SQLITE_IOERR; }, nullptr);
    EXPECT_FALSE(worker().writeAll());
    EXPECT_FALSE(worker().store().isOpen());
    EXPECT_EQ(inFile("SELECT sum(count) FROM segment"), 8);
    EXPECT_EQ(counters().written, 6U);
  }
  void expectSettled() {
    EXPECT_TRUE(answers({}));
    EXPECT_TRUE(answers({{2, "b"}}));
    EXPECT_TRUE(worker().writeAll());
    EXPECT_EQ(counters().written, 8U);
    EXPECT_EQ(inFile("SELECT sum(count) FROM segment"), 8);
    EXPECT_TRUE(answers({}));
    EXPECT_TRUE(answers({{2, "b"}}));
    write({2, "b"}, 0, makePin(second(6), realValue(1)));
    EXPECT_TRUE(worker().writeAll());
    EXPECT_TRUE(answers({{2, "b"}}));
  }
};

TEST_F(DoubtfulTransactionTest, IsNotWrittenTwiceWhicheverStatementOfOpeningFails) {
  eachStatementFails([this] { prepare(); }, [this] { return worker().writeAll(); },
                     [this] { expectSettled(); });
}

TEST_F(DoubtfulTransactionTest, IsNotWrittenTwiceWhereverMemoryFailsWhileOpening) {
  allocationsFail([this] { prepare(); }, [this] { return worker().writeAll(); },
                  [this] { expectSettled(); }, 17);
}

// ---- reads

TEST_F(HalfWayTest, AReadWhoseTransactionDoesNotBeginSaysSo) {
  writeSegments(2, 10);
  write(second(200), 200);  // not in the file
  ASSERT_TRUE(answers({}));
  statements.arm(1, "BEGIN");
  const Answer answer = ask({});
  EXPECT_TRUE(statements.hasFailed());
  EXPECT_TRUE(answer.final);
  EXPECT_EQ(answer.failure, status::kBadDataUnavailable);
  ASSERT_EQ(answer.pushed.size(), 1U);
  EXPECT_EQ(answer.pushed.front()->time, second(200));
  EXPECT_EQ(trace_.countContaining("reading failed: interrupted"), 1);
  EXPECT_TRUE(answers({}));
}

class HalfWayReadTest : public HalfWayTest, public ::testing::WithParamInterface<Kind> {};

// The end of the reader's transaction, too: it goes on giving what is in the file.
TEST_P(HalfWayReadTest, SaysWhichStatementOfItFailed) {
  writeSegments(3, 10);
  const Question question{{1, "a"}, 0, second(5), second(205), GetParam(), true, true};
  int refused = 0;
  long nth = 0;
  for (bool struck = true; struck && nth < 100;) {
    statements.arm(++nth);
    const Answer answer = ask(question);
    struck = statements.hasFailed();
    statements.disarm();
    EXPECT_TRUE(answer.final) << nth;
    if (answer.failure == 0) {
      EXPECT_EQ(answer.pushed.size(), list_.answer(question).size()) << nth;
    } else {
      EXPECT_EQ(answer.failure, status::kBadDataUnavailable) << nth;
      ++refused;
    }
    write(second(1000 + nth), 1);
    ASSERT_TRUE(worker().writeAll());
    EXPECT_TRUE(answers(question)) << nth;
    EXPECT_TRUE(answers({})) << nth;
  }
  EXPECT_GT(refused, 2);
  EXPECT_LT(nth, 100);
}

INSTANTIATE_TEST_SUITE_P(Each, HalfWayReadTest,
                         ::testing::Values(Kind::range, Kind::newest, Kind::oldest));

// ---- rows that nobody could read

TEST_F(HalfWayTest, ASegmentWhoseSamplesAreOutOfOrderIsNotStored) {
  writeSegments(2, 10);
  Store& store = worker().store();
  Columns samples;
  for (const int i : {300, 302, 301}) samples.add(*makePin(second(i), realValue(i)));
  ASSERT_TRUE(store.begin(true));
  store.insert({1, 0}, samples, 0, 2, 0);
  EXPECT_FALSE(store.db().failed());
  store.insert({1, 0}, samples, 1, 3, 0);
  EXPECT_TRUE(store.db().isUnreadable());
  EXPECT_EQ(store.db().failure(), "samples of a segment are out of order");
  worker().interrupted();
  EXPECT_TRUE(worker().writeAll());
  EXPECT_EQ(inFile("SELECT count(*) FROM segment"), 2);
  EXPECT_TRUE(answers({}));
}

}  // namespace
}  // namespace orva::sqlite::test
