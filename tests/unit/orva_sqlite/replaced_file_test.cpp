// An archive's file that goes, or becomes another one, while it is in use.

#include <filesystem>
#include <string>
#include <vector>

#include "share/status_codes.h"
#include "share/ticks.h"
#include "unit/orva_sqlite/archive_fixture.h"

namespace orva::sqlite::test {
namespace {

const ItemKey kOld{1, "a"};
const ItemKey kOther{2, "b"};
const ItemKey kNew{3, "c"};

class ReplacedFileTest : public ArchiveTest {
 protected:
  void writeBoth(int from, int to) {
    for (int i = from; i < to; ++i) {
      write(kOld, 0, makePin(second(i), realValue(i)));
      write(kOther, 0, makePin(second(i), realValue(1000 + i)));
    }
    ASSERT_TRUE(worker().writeAll());
  }
  // The connection is lost; the next one meets another file.
  void removeFile() {
    for (const char* const part : {"archive.db", "archive.db-wal", "archive.db-shm"}) {
      std::filesystem::remove(folder_ / part);
    }
    worker().interrupted();
  }
  StatusCode statusOf(const ItemKey& key, int from, int to) {
    return ask({key, 0, second(from), second(to)}).failure;
  }
};

TEST_F(ReplacedFileTest, ItemsGetNumbersOfTheNewFileAndWhatIsLostIsSaid) {
  open();
  writeBoth(0, 10);
  removeFile();
  write(kNew, 0, makePin(second(20), realValue(2020)));
  write(kOther, 0, makePin(second(20), realValue(1020)));
  ASSERT_TRUE(worker().writeAll());
  write(kOld, 0, makePin(second(21), realValue(21)));
  ASSERT_TRUE(worker().writeAll());

  EXPECT_EQ(values({kOld}), (std::vector<double>{21}));
  EXPECT_EQ(values({kOther}), (std::vector<double>{1020}));
  EXPECT_EQ(values({kNew}), (std::vector<double>{2020}));
  for (const ItemKey& key : {kOld, kOther}) {
    EXPECT_TRUE(isBad(statusOf(key, 0, 9)));
    EXPECT_TRUE(isBad(statusOf(key, 9, 9)));
    EXPECT_EQ(statusOf(key, 15, 30), 0U);
  }
  EXPECT_EQ(statusOf(kNew, 0, 30), 0U);
  EXPECT_EQ(trace_.countContaining("newer samples of 2 items and layers are lost"), 1);

  open();
  EXPECT_EQ(values({kOld}), (std::vector<double>{21}));
  EXPECT_EQ(values({kOther}), (std::vector<double>{1020}));
  EXPECT_EQ(values({kNew}), (std::vector<double>{2020}));
}

TEST_F(ReplacedFileTest, AnOlderCopyLacksItsNewerSamplesOnly) {
  open();
  writeBoth(0, 10);
  close();
  std::filesystem::copy(folder_ / "archive.db", folder_ / "copy");
  open();
  writeBoth(10, 20);
  removeFile();
  std::filesystem::copy(folder_ / "copy", folder_ / "archive.db");
  writeBoth(30, 31);
  EXPECT_EQ(statusOf(kOld, 0, 9), 0U);
  EXPECT_TRUE(isBad(statusOf(kOld, 0, 10)));
  EXPECT_TRUE(isBad(statusOf(kOld, 19, 19)));
  EXPECT_EQ(statusOf(kOld, 20, 40), 0U);
  EXPECT_EQ(values({kOld}).size(), 11U);
}

TEST_F(ReplacedFileTest, TheSameFileOpenedAgainLacksNothing) {
  limits_.maxTime = kTicksPerMinute;
  open();
  writeBoth(0, 10);
  clock_.advance(kTicksPerHour);
  ASSERT_TRUE(worker().cleanUp());
  worker().interrupted();
  writeBoth(10, 20);
  EXPECT_EQ(statusOf(kOld, 0, 40), 0U);
  EXPECT_EQ(values({kOld}).size(), 11U);
  EXPECT_EQ(trace_.countContaining("are lost"), 0);
}

TEST_F(ReplacedFileTest, WhatWasSetApartStaysLostWhenTheFileIsMovedAside) {
  open();
  writeBoth(0, 10);
  writeBoth(100, 110);
  const std::string damage =
      "UPDATE segment SET data = x'00' WHERE first < " + std::to_string(second(50));
  ASSERT_TRUE(worker().store().db().exec(damage.c_str()));
  EXPECT_TRUE(isBad(statusOf(kOld, 0, 200)));
  worker().pass();
  ASSERT_EQ(inFile("SELECT count(*) FROM damaged"), 1);
  removeFile();
  std::filesystem::copy(folder_ / "archive.db.lock", folder_ / "archive.db");
  std::filesystem::resize_file(folder_ / "archive.db", 5000);  // no database
  writeBoth(200, 210);
  EXPECT_EQ(trace_.countContaining("was moved to"), 1);
  EXPECT_TRUE(isBad(statusOf(kOld, 5, 5)));
  EXPECT_TRUE(isBad(statusOf(kOld, 105, 105)));
  EXPECT_EQ(statusOf(kOld, 200, 300), 0U);
}

}  // namespace
}  // namespace orva::sqlite::test
