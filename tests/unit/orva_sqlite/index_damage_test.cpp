// An archive whose index of segments says something else than its rows.

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "share/status_codes.h"
#include "share/ticks.h"
#include "unit/orva_sqlite/archive_fixture.h"

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

}  // namespace
}  // namespace orva::sqlite::test
