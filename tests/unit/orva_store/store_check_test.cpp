#include "unit/orva_store/store_fixture.h"

namespace orva::store {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

constexpr const char* kRows =
    "1700000000000,1,Plant/Load,double,20.5,0\n"
    "1700000001000,1,Plant/Load,double,21,0\n"
    "1700000000000,2,Plant/State,string,run,0\n";

TEST_F(StoreTest, AWholeStoreIsFine) {
  ASSERT_EQ(import(kRows).exitCode, 0);
  const CommandResult result = orva({"store", "check", place()});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.out, "store     " + file() +
                            "\n"
                            "looked at 2 items, 2 layers of them, 2 segments, 3 samples\n"
                            "damaged   nothing\n");
}

TEST_F(StoreTest, ADamagedSegmentIsListedWithItemLayerAndStretch) {
  ASSERT_EQ(import(kRows).exitCode, 0);
  change(
      "UPDATE segment SET data = substr(data, 1, 8) || x'FF' || substr(data, 10) "
      "WHERE handle = 1");
  const CommandResult result = orva({"store", "check", place(), "--utc"});
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_THAT(result.out, HasSubstr("1 samples\ndamaged   1 stretches:\n"));
  EXPECT_THAT(result.out, HasSubstr("   1  Plant/Load      0  2023-11-14T22:13:20.000Z  "
                                    "2023-11-14T22:13:21.000Z        2  its checksum"));
  EXPECT_EQ(number("SELECT count(*) FROM damaged"), 0) << "it changed the file";
}

TEST_F(StoreTest, WhatAHostHasSetApartIsListed) {
  ASSERT_EQ(import(kRows).exitCode, 0);
  change(
      "INSERT INTO damaged(handle, layer, first, last, count, found, reason) "
      "VALUES(2, 1, 133444736000000000, 133444736010000000, 7, 0, 'cannot be decoded')");
  const CommandResult result = orva({"store", "check", place(), "--utc"});
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_THAT(result.out, HasSubstr("   2  Plant/State      1  2023-11-14T22:13:20.000Z"));
  EXPECT_THAT(result.out, HasSubstr("set apart by a host: cannot be decoded"));
  EXPECT_THAT(orva({"store", "stat", place(), "--csv"}).out,
              HasSubstr("2,Plant/State,1,0,0,0,,,1\n"));
}

TEST_F(StoreTest, SegmentsThatOverlapOrHaveNoItemAreFound) {
  ASSERT_EQ(import(kRows).exitCode, 0);
  change(
      "UPDATE segment SET first = first - 1 WHERE handle = 2;"
      "INSERT INTO segment SELECT 99, handle, layer, first, seq + 1, last, count, data "
      "FROM segment WHERE handle = 1;"
      "DELETE FROM item WHERE handle = 2");
  const CommandResult result = orva({"store", "check", place()});
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_THAT(result.out, HasSubstr("it begins before the segment before it ends"));
  EXPECT_THAT(result.out, HasSubstr("segments of item number 2, which is not in the table"));
  EXPECT_THAT(result.out, HasSubstr("its checksum or a field is wrong"));
}

// A text stands behind every number in an index, and is read as the number 0: whoever goes on from
// there comes back to it for ever.
TEST_F(StoreTest, AnIndexThatLeadsBackDoesNotKeepTheCheckFromItsEnd) {
  ASSERT_EQ(import(kRows).exitCode, 0);
  change("UPDATE segment SET handle = 'x' WHERE handle = 1");
  const CommandResult result = orva({"store", "check", place()});
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_THAT(result.out, HasSubstr("file      the index is out of order: it leads to 0 segments "
                                    "of item number 0, layer 0, of which there are 1\n"));
  EXPECT_THAT(result.out, HasSubstr("looked at 2 items, 2 layers of them, 1 segments, 1 samples"));
}

TEST_F(StoreTest, PagesThatBelongToTwoTablesAreFound) {
  ASSERT_EQ(import(kRows).exitCode, 0);
  change(
      "PRAGMA writable_schema = ON;"
      "UPDATE sqlite_master SET rootpage = (SELECT rootpage FROM sqlite_master "
      "WHERE name = 'item') WHERE name = 'damaged'");
  const CommandResult result = orva({"store", "check", place()});
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_THAT(result.out, HasSubstr("file      "));
}

TEST_F(StoreTest, WhatIsNoStoreIsNamed) {
  CommandResult result = orva({"store", "check", place()});
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_THAT(result.err, StartsWith("there is no store at " + place()));
  folder_.write("store/archive.db", std::string(5000, 'x'));
  result = orva({"store", "check", place()});
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_THAT(result.err, HasSubstr("is no store that this program can read"));
  EXPECT_THAT(orva({"store", "import", place(), csv(kRows)}).err, HasSubstr("is no store"));
}

TEST_F(StoreTest, StatListsItemsLayersAndSizes) {
  ASSERT_EQ(import(kRows).exitCode, 0);
  const CommandResult table = orva({"store", "stat", place(), "--utc"});
  EXPECT_EQ(table.exitCode, 0);
  EXPECT_THAT(table.out, HasSubstr("id  path         layer  segments  samples  bytes  "));
  EXPECT_THAT(table.out, HasSubstr("\n 1  Plant/Load       0         1        2 "));
  EXPECT_THAT(table.out, HasSubstr("2023-11-14T22:13:20.000Z  2023-11-14T22:13:21.000Z"));
  EXPECT_THAT(table.out, HasSubstr("samples   3 in "));
  EXPECT_THAT(orva({"store", "stat", place(), "--json"}).out,
              HasSubstr(R"("path":"Plant/Load","layer":0,"segments":1,"samples":2,"bytes":)"));
}

TEST_F(StoreTest, WhatAnotherHasOpenIsNotChanged) {
  ASSERT_EQ(import(kRows).exitCode, 0);
  const StoreWriter other(place(), StoreWriter::Missing::kFails);
  for (const char* action : {"import", "compact"}) {
    const CommandResult result =
        std::string(action) == "import" ? import(kRows) : orva({"store", action, place()});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_THAT(result.err, HasSubstr("stop it first"));
  }
  EXPECT_EQ(orva({"store", "check", place()}).exitCode, 0);
  EXPECT_EQ(orva({"store", "stat", place()}).exitCode, 0);
  EXPECT_THAT(exported(), Not(""));
}

TEST_F(StoreTest, WrongUsageEndsWithTwo) {
  for (const std::vector<std::string>& words :
       {std::vector<std::string>{"store"},
        {"store", "check"},
        {"store", "nonsense", "here"},
        {"store", "stat", place(), "--csv", "--json"},
        {"store", "import", place(), "--filter"},
        {"store", "export", place(), "--from", "noon"},
        {"store", "export", place(), "--from", "now", "--to", "-1h"}}) {
    EXPECT_EQ(orva(words).exitCode, 2) << words.back();
  }
}

}  // namespace
}  // namespace orva::store
