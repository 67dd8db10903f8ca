// Damage of the kind that makes a read look past the segment that is damaged.

#include <string>
#include <vector>

#include "share/status_codes.h"
#include "share/ticks.h"
#include "unit/orva_sqlite/archive_fixture.h"

namespace orva::sqlite::test {
namespace {

class HiddenDamageTest : public ArchiveTest {
 protected:
  // Segments of ten samples, a second apart.
  void writeSegments(int count) {
    limits_.maxWriteValues = 10;
    open();
    for (int i = 0; i < 10 * count; ++i) write(second(i), i);
    ASSERT_TRUE(worker().writeAll());
  }
  StatusCode statusOf(std::int64_t from, std::int64_t to, Kind kind = Kind::range) {
    return ask({{1, "a"}, 0, from, to, kind}).failure;
  }
};

TEST_F(HiddenDamageTest, ANewestSegmentThatEndsBeforeItBeginsHidesNothing) {
  for (const int segments : {1, 3}) {
    if (archive_) close();
    writeSegments(segments);
    close();
    changeFile("UPDATE segment SET last = 0 WHERE id = " + std::to_string(segments));
    for (const Kind kind : {Kind::range, Kind::newest, Kind::oldest}) {
      open();
      const int newest = 10 * segments - 5;
      EXPECT_TRUE(isBad(statusOf(second(newest - 5), 0, kind))) << segments;
      EXPECT_TRUE(isBad(statusOf(second(newest - 5), second(newest), kind))) << segments;
      archive_.reset();  // what it found is not set apart
    }
    changeFile("DELETE FROM segment");
    changeFile("DELETE FROM item");
  }
}

TEST_F(HiddenDamageTest, ASegmentAmongOthersThatEndsBeforeItBeginsHidesNothing) {
  writeSegments(3);
  close();
  changeFile("UPDATE segment SET last = first - 1 WHERE id = 2");
  for (const Kind kind : {Kind::range, Kind::newest, Kind::oldest}) {
    open();
    EXPECT_TRUE(isBad(statusOf(second(13), second(17), kind)));
    archive_.reset();
  }
}

TEST_F(HiddenDamageTest, ASegmentThatEndsBeforeItBeginsIsNotDeletedForItsAge) {
  limits_.maxTime = kTicksPerMinute;
  writeSegments(3);
  close();
  changeFile("UPDATE segment SET last = 0 WHERE id = 2");
  clock_.setTime(second(15) + kTicksPerMinute);
  open();
  ASSERT_TRUE(worker().cleanUp());
  EXPECT_EQ(inFile("SELECT first FROM damaged"), second(10));
  EXPECT_EQ(inFile("SELECT last FROM damaged"), second(20));  // where the next one begins
  EXPECT_TRUE(isBad(statusOf(second(17), second(18))));
}

TEST_F(HiddenDamageTest, AnOlderSampleDoesNotGoBehindASegmentThatEndsBeforeItBegins) {
  writeSegments(3);
  close();
  changeFile("UPDATE segment SET last = 0 WHERE id = 2");
  open();
  write(second(15) + 1, -1);
  ASSERT_TRUE(worker().writeAll());
  EXPECT_EQ(inFile("SELECT count(*) FROM damaged"), 1);
  EXPECT_EQ(values({}).size(), 21U);
}

// The limit is reached by samples that are not in the file yet, behind the damage.
TEST_F(HiddenDamageTest, ALimitedReadOverDamageAtTheNewestEndIsNotComplete) {
  writeSegments(2);
  ASSERT_TRUE(worker().store().db().exec("UPDATE segment SET data = x'00' WHERE id = 2"));
  EXPECT_TRUE(isBad(statusOf(0, 0)));
  worker().pass();
  ASSERT_EQ(inFile("SELECT count(*) FROM damaged"), 1);
  for (int i = 20; i < 25; ++i) write(second(i), i);
  Question question;
  question.limit = 5;  // not so far
  EXPECT_EQ(ask(question).failure, 0U);
  question.limit = 12;
  const Answer answer = ask(question);
  EXPECT_GE(answer.pushed.size(), 12U);
  EXPECT_TRUE(isBad(answer.failure));
}

}  // namespace
}  // namespace orva::sqlite::test
