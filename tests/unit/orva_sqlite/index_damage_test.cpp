// An archive whose index of segments says something else than its rows.

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <vector>

#include "share/status_codes.h"
#include "share/ticks.h"
#include "unit/orva_sqlite/archive_fixture.h"
#include "unit/orva_sqlite/failing_statements.h"

namespace orva::sqlite::test {
namespace {

constexpr std::size_t kPage = 4096;
constexpr char kIndexLeaf = 0x0A;  // first byte of such a page

std::string bigEndian(std::int64_t v) {
  std::string bytes;
  for (int shift = 56; shift >= 0; shift -= 8) bytes += static_cast<char>(v >> shift);
  return bytes;
}

class IndexDamageTest : public ArchiveTest {
 protected:
  // So many segments of 20 samples each, a second apart; they begin 100 s after each other.
  void writeSegments(int count) {
    limits_.maxWriteValues = 20;
    open();
    for (int i = 0; i < count; ++i) {
      for (int n = 0; n < 20; ++n) write(begin(i) + n * kTicksPerSecond, i * 100 + n);
    }
    ASSERT_TRUE(worker().writeAll());
    ASSERT_EQ(inFile("SELECT count(*) FROM segment"), count);
  }
  // Without what is stored.
  void startAnew() {
    if (archive_) close();
    std::filesystem::remove_all(folder_.path());
    list_.all().clear();
  }
  static std::int64_t begin(int segment) { return second(segment * 100); }

  // Changes the time under which the index has a segment, and nothing else.
  void changeInIndex(std::int64_t first, std::int64_t wrong) {
    changeIndex(first, 0, bigEndian(wrong));
  }
  // Has the index lead to another row, by its number, from 1 to 127.
  void leadInIndex(std::int64_t first, int id) {
    changeIndex(first, 8, std::string(1, static_cast<char>(id)));
  }
  void changeIndex(std::int64_t first, std::size_t behind, const std::string& bytes) {
    const std::string file = folder_ / "archive.db";
    std::ifstream in(file, std::ios::binary);
    std::string content((std::istreambuf_iterator<char>(in)), {});
    int changed = 0;
    for (std::size_t page = 0; page + kPage <= content.size(); page += kPage) {
      if (content[page] != kIndexLeaf) continue;
      const std::size_t at = content.substr(page, kPage).find(bigEndian(first));
      if (at == std::string::npos) continue;
      content.replace(page + at + behind, bytes.size(), bytes);
      ++changed;
    }
    ASSERT_EQ(changed, 1);
    std::ofstream(file, std::ios::binary)
        .write(content.data(), static_cast<std::streamsize>(content.size()));
  }

  // Damage that SQLite notices, if it comes that way: a segment that is in the index only.
  void damageIndex(int segment) {
    close();
    leadInIndex(begin(segment), 100);
    open();
  }
  void passes(int count) {
    for (int i = 0; i < count; ++i) worker().pass();
  }
  ::testing::AssertionResult indexWasMended(int times = 1) {
    const int mended = trace_.countContaining("its index was made anew");
    if (mended == times && trace_.countContaining("was moved to") == 0) {
      return ::testing::AssertionSuccess();
    }
    return ::testing::AssertionFailure() << "mended " << mended << " times, or moved aside";
  }

  // The values of every sample of item "a", as the rows have them and not as the index does.
  std::vector<double> valuesByRow() {
    changeFile("REINDEX segment_by_time");
    open();
    std::vector<double> found = values({});
    std::sort(found.begin(), found.end());
    return found;
  }
  std::vector<double> writtenValues() {
    std::vector<double> all;
    for (const PinPtr& pin : list_.samples({1, "a"}, 0)) {
      double number = 0;
      EXPECT_TRUE(pin->value.GetDouble(number));
      all.push_back(number);
    }
    std::sort(all.begin(), all.end());
    return all;
  }
};

TEST_F(IndexDamageTest, AnOlderSampleThatAnIndexOutOfOrderHasNoPlaceForEndsInAFailure) {
  writeSegments(4);
  close();
  changeInIndex(begin(1), second(250));
  open();
  write(second(260), -1);
  EXPECT_FALSE(worker().writeAll());
  EXPECT_EQ(trace_.countContaining("the index is out of order"), 1);
}

// A row whose place is wrong is joined with others, or others in its place.
TEST_F(IndexDamageTest, JoiningThroughAWrongIndexLosesNoSample) {
  for (const int segment : {1, 30, 59}) {
    for (const int wrong : {-50, 50, 150, 2950, 5950, 100000}) {
      startAnew();
      writeSegments(60);
      close();
      changeInIndex(begin(segment), second(wrong));
      open();
      worker().mergeAll();
      close();
      EXPECT_EQ(valuesByRow(), writtenValues()) << "segment " << segment << " at " << wrong;
    }
  }
}

TEST_F(IndexDamageTest, JoiningARowThatTheIndexHasTwiceLosesNoSample) {
  for (const int segment : {1, 30, 59}) {
    for (const int id : {1, 3, 30, 32, 59, 60}) {
      if (id == segment + 1) continue;
      startAnew();
      writeSegments(60);
      close();
      leadInIndex(begin(segment), id);
      open();
      worker().mergeAll();
      close();
      EXPECT_EQ(valuesByRow(), writtenValues()) << "segment " << segment << " to row " << id;
    }
  }
}

TEST_F(IndexDamageTest, AReadThatMeetsAWrongIndexHasItMended) {
  const std::function<void()> damages[] = {[this] { leadInIndex(begin(1), 100); },
                                           [this] { leadInIndex(begin(1), 3); },
                                           [this] { changeInIndex(begin(1), second(90)); }};
  for (const auto& damage : damages) {
    startAnew();
    trace_.clear();
    writeSegments(4);
    close();
    damage();
    open();
    EXPECT_TRUE(isBad(ask({}).failure));
    passes(3);
    EXPECT_TRUE(answers({}));
    EXPECT_TRUE(indexWasMended());
    EXPECT_EQ(inFile("SELECT count(*) FROM damaged"), 0);
    EXPECT_EQ(inFile("SELECT count(*) FROM pragma_integrity_check WHERE integrity_check <> 'ok'"),
              0);
  }
}

TEST_F(IndexDamageTest, AStartThatMeetsAWrongIndexHasItMended) {
  writeSegments(4);
  damageIndex(3);
  EXPECT_TRUE(answers({}));
  EXPECT_TRUE(indexWasMended());
}

TEST_F(IndexDamageTest, WritingGoesOnBehindAWrongIndex) {
  writeSegments(4);
  damageIndex(1);
  write(begin(1) + 1, -1);
  EXPECT_FALSE(worker().writeAll());
  clock_.advance(kTicksPerMinute);
  EXPECT_TRUE(worker().writeAll());
  EXPECT_TRUE(answers({}));
  EXPECT_TRUE(indexWasMended());
}

TEST_F(IndexDamageTest, CleaningUpGoesOnBehindAWrongIndex) {
  limits_.maxTime = kTicksPerMinute;
  writeSegments(4);
  clock_.advance(kTicksPerHour);
  damageIndex(1);
  EXPECT_FALSE(worker().cleanUp());
  EXPECT_TRUE(worker().cleanUp());
  EXPECT_EQ(values({}), (std::vector<double>{319}));
  EXPECT_TRUE(indexWasMended());
}

TEST_F(IndexDamageTest, ARowOfAnotherPlaceIsNotCleanedUp) {
  limits_.maxTime = kTicksPerMinute;
  limits_.maxWriteValues = 1;
  clock_.setTime(second(1000));
  open();
  for (int i = 0; i < 3; ++i) write(second(i), i);
  write({2, "b"}, 0, makePin(second(3), realValue(3)));  // the fourth row, and all that "b" has
  ASSERT_TRUE(worker().writeAll());
  close();
  leadInIndex(second(1), 4);
  open();
  worker().cleanUp();
  EXPECT_TRUE(worker().cleanUp());
  EXPECT_EQ(values({}), (std::vector<double>{2}));
  EXPECT_EQ(values({{2, "b"}}), (std::vector<double>{3}));
}

TEST_F(IndexDamageTest, AnIndexThatCouldNotBeMadeAnewIsMadeAnewAnHourLater) {
  FailingStatements statements;
  writeSegments(4);
  damageIndex(1);
  EXPECT_TRUE(isBad(ask({}).failure));
  statements.arm(1, "REINDEX");
  passes(3);
  EXPECT_TRUE(statements.hasFailed());
  EXPECT_EQ(trace_.countContaining("making the index anew failed: interrupted"), 1);
  EXPECT_TRUE(indexWasMended(0));
  write(second(1000), 1);
  clock_.advance(kTicksPerMinute);
  EXPECT_TRUE(worker().writeAll());
  EXPECT_TRUE(answers({{1, "a"}, 0, begin(3), 0}));
  clock_.advance(kTicksPerHour);
  EXPECT_TRUE(isBad(ask({}).failure));
  passes(3);
  EXPECT_TRUE(answers({}));
  EXPECT_TRUE(indexWasMended());
}

TEST_F(IndexDamageTest, SoIsOneWhoseFileSomebodyHeld) {
  writeSegments(4);
  damageIndex(1);
  EXPECT_TRUE(isBad(ask({}).failure));
  {
    Database holder;
    ASSERT_TRUE(holder.open(folder_ / "archive.db", Database::Mode::kReadWrite));
    ASSERT_TRUE(holder.begin());
    worker().pass();
  }
  EXPECT_TRUE(indexWasMended(0));
  write(second(1000), 1);
  EXPECT_TRUE(worker().writeAll());
  clock_.advance(kTicksPerHour);
  EXPECT_TRUE(isBad(ask({}).failure));
  passes(3);
  EXPECT_TRUE(answers({}));
  EXPECT_TRUE(indexWasMended());
}

// Rows that run over many pages, one of which leads nowhere: no index helps there.
TEST_F(IndexDamageTest, WhereANewIndexDoesNotHelpItIsMadeOnceAnHour) {
  writeSegments(4);
  close();
  changeFile("UPDATE segment SET data = CAST(printf('%.9000c', 'Q') AS BLOB) WHERE id = 2");
  changeFile("UPDATE segment SET data = zeroblob(70000) WHERE id = 3");  // joining stops here
  const std::string file = folder_ / "archive.db";
  std::ifstream in(file, std::ios::binary);
  std::string content((std::istreambuf_iterator<char>(in)), {});
  const std::size_t text = content.find(std::string(4000, 'Q'));
  ASSERT_EQ(text % kPage, 4U);  // behind the number of the next page
  content.replace(text - 4, 4, 4, '\x7F');
  std::ofstream(file, std::ios::binary)
      .write(content.data(), static_cast<std::streamsize>(content.size()));
  open();
  for (int hour = 1; hour < 3; ++hour) {
    for (int i = 0; i < 5; ++i) {
      EXPECT_TRUE(isBad(ask({}).failure));
      passes(3);
      clock_.advance(kTicksPerMinute);
    }
    EXPECT_TRUE(indexWasMended(hour));
    write(second(1000 + hour), 1);
    EXPECT_TRUE(worker().writeAll());
    clock_.advance(kTicksPerHour);
  }
}

}  // namespace
}  // namespace orva::sqlite::test
