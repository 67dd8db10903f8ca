#include "orva_store/store_import.h"

#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <random>
#include <set>
#include <thread>

#include "orva_host/trace_log.h"
#include "orva_store/import_plan.h"
#include "orva_store/progress.h"
#include "orva_store/store_compact.h"
#include "share/ticks.h"
#include "support/host_process.h"
#include "unit/orva_store/store_fixture.h"

namespace orva::store {
namespace {

using ::testing::ContainsRegex;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::StartsWith;

std::string counts(int rows, int stored, int same, int refused = 0) {
  return "rows      " + std::to_string(rows) + "\nstored    " + std::to_string(stored) +
         "\nsame      " + std::to_string(same) + "\nrefused   " + std::to_string(refused) + "\n";
}

// Rows of one item, so many milliseconds apart.
std::string rows(int count, int everyMs, int firstMs = 0) {
  std::string all;
  for (int i = 0; i < count; ++i) {
    all += std::to_string(1'700'000'000'000 + firstMs + std::int64_t{everyMs} * i) +
           ",1,Plant/Load,double," + std::to_string(i * 37 % 1000) + ",0\n";
  }
  return all;
}

TEST_F(StoreTest, TheSameRowsTwiceChangeNothing) {
  const std::string both = rows(2500, 1000) +
                           "1700000000000,2,\"a, b\",string,\"two\nlines\",0\n"
                           "1700000000000,2,\"a, b\",string,,1073741824\n";
  EXPECT_EQ(import(both).out, counts(2502, 2502, 0));
  const std::string before = exported();
  const std::int64_t newest = number("SELECT max(id) FROM segment");
  EXPECT_EQ(import(both).out, counts(2502, 0, 2502));
  EXPECT_EQ(exported(), before);
  EXPECT_EQ(number("SELECT max(id) FROM segment"), newest) << "a segment was written";
}

TEST_F(StoreTest, OneSampleIsTheSameInTimeValueTypeAndQuality) {
  const std::string first = "1000,1,a,double,1.5,0\n";
  ASSERT_EQ(import(first + first).out, counts(2, 1, 1));
  for (const char* other :
       {"1000.0001,1,a,double,1.5,0\n", "1000,1,a,double,2,0\n", "1000,1,a,float,1.5,0\n",
        "1000,1,a,double,1.5,1073741824\n", "1000,1,b,double,1.5,0\n", "1000,2,a,double,1.5,0\n",
        "1000,1,a,double,NaN,0\n", "1000,1,a,double,-0,0\n", "1000,1,a,double,0,0\n"}) {
    EXPECT_EQ(import(other).out, counts(1, 1, 0)) << other;
    EXPECT_EQ(import(other).out, counts(1, 0, 1)) << other;
  }
  EXPECT_EQ(import("1000,1,a,double,1.5000,0\n").out, counts(1, 0, 1));
}

TEST_F(StoreTest, EveryTypeComesBackAsItWent) {
  const std::string canonical =
      "-1,1,a,double,1e-300,0\n0.5,1,a,float,-Inf,0\n1,1,a,bool,true,0\n2,1,a,int64,-5,0\n"
      "3,1,a,uint32,4294967295,0\n4,1,a,int32,-7,0\n5,1,a,uint64,18446744073709551615,0\n"
      "6,1,a,int16,-3,0\n7,1,a,uint16,65535,0\n8,1,a,int8,-128,0\n9,1,a,uint8,255,0\n"
      "10,1,a,datetime,133000000000000000,0\n11,1,a,json,[1],0\n12,1,a,null,,0\n"
      "13,1,a,string,\"\",2147483648\n14,1,a,string,\" x\",0\n15,1,a,double,NaN,4294967295\n";
  EXPECT_EQ(import(canonical).exitCode, 0);
  EXPECT_EQ(exported(), canonical);
  EXPECT_EQ(import(canonical).out, counts(17, 0, 17));
}

TEST_F(StoreTest, RefusedRowsAreToldWithLineAndReasonAndTheOthersAreStored) {
  const std::string file =
      csv("1000,1,a,double,1,0\n"
          "x,1,a,double,1,0\n"
          "1000,1,a,real,1,0\n"
          "2000,1,a,string,\"two\nlines\",0\n"
          "1000,1,a,double,one,0\n"
          "3000,1\n");
  const CommandResult all = orva({"store", "import", place(), file});
  EXPECT_EQ(all.exitCode, 1);
  EXPECT_EQ(all.out, counts(6, 2, 0, 4));
  EXPECT_THAT(all.err, HasSubstr(file + ":3: time_ms is no time in milliseconds\n"));
  EXPECT_THAT(all.err, HasSubstr(file + ":4: the type is none of "));
  EXPECT_THAT(all.err, HasSubstr(file + ":7: the value is none of its type\n"));
  EXPECT_THAT(all.err, HasSubstr(file + ":8: a row has six columns\n"));
  const CommandResult one = orva({"store", "import", place(), file, "--show", "1"});
  EXPECT_EQ(one.err, file + ":3: time_ms is no time in milliseconds\nand 3 more refused rows\n");
}

TEST_F(StoreTest, AFileThatCannotBeReadEndsTheImportBeforeAStoreIsMade) {
  const std::string good = csv(rows(3, 1000));
  const std::string other = folder_.write("other.csv", "time,value\n1,2\n");
  CommandResult result = orva({"store", "import", place(), good, other});
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_THAT(result.err, StartsWith(other + ": the first line must be time_ms,item_id"));
  result = orva({"store", "import", place(), good, folder_.path("none.csv")});
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_THAT(result.err, HasSubstr("none.csv cannot be read: No such file"));
  EXPECT_FALSE(std::filesystem::exists(place()));
}

TEST_F(StoreTest, WhatCanBeReadButOnceIsImported) {
  const std::string file = csv(rows(3, 1000));
  const std::string pipe = folder_.path("pipe");
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  std::thread writer([&] { std::ofstream(pipe) << std::ifstream(file).rdbuf(); });
  EXPECT_EQ(orva({"store", "import", place(), pipe}).out, counts(3, 3, 0));
  writer.join();
}

// A page that the store must not take stands for a disk that is full.
TEST_F(StoreTest, AnImportThatFailsSaysWhatItHasDone) {
  ASSERT_EQ(import("1,1,a,double,1,0\n").exitCode, 0);
  change(
      "CREATE TRIGGER full BEFORE INSERT ON segment WHEN NEW.handle > 1 "
      "BEGIN SELECT RAISE(ABORT, 'no room'); END");
  const CommandResult result = orva({"store", "import", place(),
                                     csv("1,1,a,double,1,0\n5,1,a,double,1,0\n"
                                         "noon,1,a,double,1,0\nnoon,1,a,double,1,0\n"
                                         "2,1,b,double,1,0\n"),
                                     "--show", "1"});
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_EQ(result.out, counts(5, 0, 0, 2)) << "the batch that failed was undone";
  EXPECT_THAT(result.err, HasSubstr("\nand 1 more refused rows\n"));
  EXPECT_THAT(result.err, HasSubstr("no room"));
}

// ---- damage

TEST_F(StoreTest, ADamagedSegmentThatAnImportMeetsIsInItsResult) {
  ASSERT_EQ(import(rows(1500, 1000)).exitCode, 0);
  change("UPDATE segment SET data = x'00' WHERE count = 500");
  const std::string late = csv(rows(1, 1000, 1'200'500), "late.csv");
  CommandResult result = orva({"store", "import", place(), late, "--dry-run"});
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_EQ(result.out, counts(1, 1, 0) +
                            "damaged   1 stretches; `orva store check` lists them\n"
                            "nothing was changed\n");
  EXPECT_EQ(number("SELECT count(*) FROM damaged"), 0);
  result = orva({"store", "import", place(), late});
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_EQ(result.out, counts(1, 1, 0) + "damaged   1 stretches set apart\n");
  EXPECT_EQ(number("SELECT count(*) FROM damaged"), 1);
  EXPECT_EQ(orva({"store", "import", place(), late}).exitCode, 0) << "it is met no more";
}

TEST_F(StoreTest, AnImportThatADamagedIndexStopsSaysWhatMendsIt) {
  ASSERT_EQ(import(rows(2500, 1000)).exitCode, 0);
  changeBehindTheIndex("UPDATE segment SET handle = 7 WHERE id = 2");
  const std::string late = csv(rows(1, 1000, 1'200'500), "late.csv");
  const CommandResult result = orva({"store", "import", place(), late});
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_EQ(result.out, counts(1, 0, 0));
  EXPECT_THAT(result.err, EndsWith("`orva store compact` mends the index"));
}

TEST_F(StoreTest, ADryRunSaysNothingOfSettingApart) {
  ASSERT_EQ(import(rows(500, 1000)).exitCode, 0);
  change("UPDATE segment SET data = x'00'");
  const std::string late = csv(rows(1, 1000, 500), "late.csv");
  const std::string log = folder_.path("log");
  ASSERT_EQ(host::setTraceFile(log), 0);
  orva({"store", "import", place(), late, "--dry-run"});
  EXPECT_EQ(test::readFile(log), "");
  orva({"store", "import", place(), late});
  EXPECT_THAT(test::readFile(log), HasSubstr("are set apart"));
  EXPECT_EQ(host::setTraceFile(""), 0);
}

TEST_F(StoreTest, ADryRunCountsAndChangesNothing) {
  const std::string file = csv(rows(1200, 1000) + rows(1200, 1000, 500) + rows(5, 1000));
  const CommandResult fresh = orva({"store", "import", place(), file, "--dry-run"});
  EXPECT_EQ(fresh.out, counts(2405, 2400, 5) + "nothing was changed\n");
  EXPECT_THAT(orva({"store", "stat", place()}).err, HasSubstr("there is no store"));
  ASSERT_EQ(import(rows(1200, 1000)).exitCode, 0);
  const CommandResult half =
      orva({"store", "import", place(), csv(rows(1200, 1000) + rows(1200, 1000, 500), "more.csv"),
            "--dry-run"});
  EXPECT_EQ(half.out, counts(2400, 1200, 1200) + "nothing was changed\n");
  EXPECT_EQ(exported(), rows(1200, 1000));
}

// Batches so small that rows of one time, late rows and repetitions meet their boundaries.
TEST_F(StoreTest, RowsInAnyOrderAndAnyBatchesGiveTheDistinctRowsInOrder) {
  std::mt19937 random(4711);
  for (int round = 0; round < 8; ++round) {
    std::set<std::string> distinct;
    std::string text;
    const auto time = [&random] { return 100'000 + static_cast<int>(random() % 300); };
    int count = 0;
    for (; count < 600; ++count) {
      const std::string row = std::to_string(time()) + "," + std::to_string(1 + random() % 3) +
                              ",a,double," + std::to_string(random() % 2) + ",0\n";
      distinct.insert(row);
      text += row;
    }
    const std::string place = folder_.path("store" + std::to_string(round));
    std::uint64_t same = 0;
    for (int pass = 0; pass < 2; ++pass) {
      ImportPlan plan(place, false);
      Importer::Options options;
      options.batchRows = 5 + random() % 150;
      Progress progress(nullptr, "rows");
      ImportInput input({csv(text)});
      plan.openStores();
      ImportCounts result;
      importFiles(
          plan, options, input, progress,
          [](const std::string&, long long, const char*) { FAIL(); }, result);
      EXPECT_EQ(result.stored, pass == 0 ? distinct.size() : 0U);
      same += result.same;
      EXPECT_EQ(result.stored + result.same, result.rows);
    }
    EXPECT_EQ(same, 2 * static_cast<std::uint64_t>(count) - distinct.size());
    std::istringstream exportedRows(orva({"store", "export", place}).out);
    std::set<std::string> found;
    std::string line;
    std::getline(exportedRows, line);
    int lines = 0;
    for (; std::getline(exportedRows, line); ++lines) found.insert(line + "\n");
    EXPECT_EQ(found, distinct);
    EXPECT_EQ(lines, static_cast<int>(distinct.size())) << "a row stands twice";
    EXPECT_EQ(orva({"store", "check", place}).exitCode, 0);
  }
}

TEST_F(StoreTest, ExportTakesItemsRangeAndFile) {
  ASSERT_EQ(import(rows(10, 1000) + "1700000003000,2,Plant/State,string,run,0\n"
                                    "1700000003000,3,2,double,1,0\n")
                .exitCode,
            0);
  const std::string out = folder_.path("out.csv");
  const CommandResult result =
      orva({"store", "export", place(), "Plant/Load", "--from", "2023-11-14T22:13:22Z", "--to",
            "2023-11-14T22:13:23Z", "--output", out});
  EXPECT_EQ(result.out, "") << result.err;
  EXPECT_EQ(test::readFile(out),
            "time_ms,item_id,path,type,value,quality\n"
            "1700000002000,1,Plant/Load,double,74,0\n"
            "1700000003000,1,Plant/Load,double,111,0\n");
  // A name is a path first, then an id.
  EXPECT_THAT(orva({"store", "export", place(), "2"}).out, HasSubstr(",3,2,double,1,0\n"));
  const CommandResult unknown = orva({"store", "export", place(), "4"});
  EXPECT_EQ(unknown.exitCode, 1);
  EXPECT_THAT(unknown.err, HasSubstr("the store has no item \"4\""));
}

TEST_F(StoreTest, AnExportWithoutADamagedSegmentFails) {
  ASSERT_EQ(import(rows(1500, 1000)).exitCode, 0);
  change("UPDATE segment SET data = x'00' WHERE count = 500");
  const CommandResult result = orva({"store", "export", place()});
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_EQ(std::count(result.out.begin(), result.out.end(), '\n'), 1001);
  EXPECT_EQ(result.err,
            "not everything was exported: 1 damaged segments were left out; `orva store check` "
            "lists them");
}

// What a host, a compaction or an import has set apart is missing for good.
TEST_F(StoreTest, AnExportOfAStretchThatWasSetApartFails) {
  ASSERT_EQ(import(rows(10, 1000) + "1700000000000,2,Plant/State,string,run,0\n").exitCode, 0);
  change(
      "INSERT INTO damaged(handle, layer, first, last, count, found, reason) "
      "SELECT handle, 0, first, first, 7, 0, 'cannot be decoded' FROM segment WHERE handle = 1");
  const CommandResult all = orva({"store", "export", place()});
  EXPECT_EQ(all.exitCode, 1);
  EXPECT_EQ(std::count(all.out.begin(), all.out.end(), '\n'), 12);
  EXPECT_THAT(all.err, HasSubstr("exported: 1 stretches that were set apart were left out"));
  EXPECT_EQ(orva({"store", "export", place(), "1"}).exitCode, 1);
  EXPECT_EQ(orva({"store", "export", place(), "2"}).exitCode, 0) << "another item";
  EXPECT_EQ(orva({"store", "export", place(), "1", "--from", "2023-11-14T22:13:25Z"}).exitCode, 0)
      << "another time";
}

TEST_F(StoreTest, AnExportWithoutTheSegmentsOfANamelessItemFails) {
  ASSERT_EQ(import(rows(10, 1000) + "1700000000000,2,Plant/State,string,run,0\n").exitCode, 0);
  change("DELETE FROM item WHERE handle = 2");
  const CommandResult result = orva({"store", "export", place()});
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_EQ(std::count(result.out.begin(), result.out.end(), '\n'), 11);
  EXPECT_THAT(result.err, HasSubstr("exported: 1 segments of items without a name were left out"));
  EXPECT_EQ(orva({"store", "export", place(), "1"}).exitCode, 0);
}

TEST_F(StoreTest, AnExportWithoutWhatTheIndexDoesNotLeadToFails) {
  ASSERT_EQ(import(rows(2500, 1000)).exitCode, 0);
  changeBehindTheIndex(
      "INSERT INTO segment SELECT 99, handle, layer, first + 1, seq, last, count, "
      "data FROM segment WHERE id = 1");
  const CommandResult result = orva({"store", "export", place()});
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_THAT(result.err, HasSubstr("exported: 1 segments that the index does not lead to were"));
}

TEST_F(StoreTest, AnExportOfALayerThatIsNotThereFails) {
  ASSERT_EQ(import(rows(2, 1000)).exitCode, 0);
  change("UPDATE segment SET layer = 1");
  for (const char* layer : {"0", "7"}) {
    const CommandResult result = orva({"store", "export", place(), "--layer", layer});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, "the store has no layer " + std::string(layer) + ", but 1");
  }
  EXPECT_EQ(exported("1"), rows(2, 1000));
}

TEST_F(StoreTest, AnExportIntoTheStoreItselfIsRefused) {
  ASSERT_EQ(import(rows(2, 1000)).exitCode, 0);
  std::filesystem::create_symlink(file(), folder_.path("link.csv"));
  std::filesystem::create_hard_link(file(), folder_.path("same.csv"));
  for (const std::string& name :
       {file(), file() + "-wal", file() + "-shm", file() + ".lock", folder_.path("link.csv"),
        folder_.path("same.csv"), folder_.path("store/../store/archive.db")}) {
    const CommandResult result = orva({"store", "export", place(), "--output", name});
    EXPECT_EQ(result.exitCode, 1) << name;
    EXPECT_THAT(result.err, HasSubstr("is a file of the store itself")) << name;
  }
  EXPECT_EQ(exported(), rows(2, 1000));
}

TEST_F(StoreTest, AnExportTakesItsNameInTheEnd) {
  ASSERT_EQ(import(rows(2, 1000)).exitCode, 0);
  const std::string earlier = folder_.write("all.csv", "an earlier one");
  std::filesystem::create_symlink(earlier, folder_.path("link.csv"));
  EXPECT_EQ(orva({"store", "export", place(), "--output", folder_.path("link.csv")}).exitCode, 0);
  EXPECT_THAT(test::readFile(earlier), EndsWith(rows(2, 1000)));
  EXPECT_TRUE(std::filesystem::is_symlink(folder_.path("link.csv")));
  EXPECT_FALSE(std::filesystem::exists(earlier + ".new"));
  EXPECT_EQ(orva({"store", "export", place(), "--output", "/dev/null"}).exitCode, 0);
  EXPECT_THAT(orva({"store", "export", place(), "--output", "/dev/full"}).err,
              HasSubstr("cannot write /dev/full; is the disk full?"));
  EXPECT_THAT(orva({"store", "export", place(), "--output", folder_.path("none/x.csv")}).err,
              HasSubstr("none/x.csv.new cannot be written"));
}

// ---- with a configuration

class ConfiguredImportTest : public StoreTest {
 protected:
  ConfiguredImportTest() {
    folder_.write("plant.json", R"({
      "layers": [{"number": 0}, {"number": 1, "resampleInterval": 600000000},
                 {"number": 2, "resampleInterval": 36000000000}, {"number": 3}],
      "variables": [
        {"id": 1, "path": "Plant/Load", "type": "Double", "layers":
          {"0": {"archive": 0}, "1": {"archive": 0}, "2": {"archive": 1}, "3": {"archive": 0}}},
        {"id": 2, "path": "Plant/Silent", "type": "Double", "layers": {"1": {"archive": 0}}}],
      "DataArchive": {"archives": [
        {"connection": {"providerType": "sqlite", "location": "store"},
         "limits": {}, "filter": {"writeByChange": true, "deadband": 100}},
        {"connection": {"providerType": "sqlite", "location": "slow"},
         "limits": {}, "filter": {}}]}})");
  }
  CommandResult import(const std::string& rows, std::vector<std::string> further = {}) const {
    std::vector<std::string> words{"store",   "import",   place(),
                                   csv(rows), "--config", folder_.path("plant.json")};
    words.insert(words.end(), further.begin(), further.end());
    return orva(words);
  }
  std::string slow() const {
    return orva({"store", "export", folder_.path("slow"), "--layer", "2"}).out;
  }
};

TEST_F(ConfiguredImportTest, LayersGetTheFirstAndTheExtremesOfEachPeriod) {
  // Two minutes; 1699999980000 is a whole one.
  const CommandResult result = import(
      "1699999980000,1,Plant/Load,double,5,0\n1699999981000,1,Plant/Load,double,9,0\n"
      "1699999982000,1,Plant/Load,double,6,0\n1699999983000,1,Plant/Load,double,1,0\n"
      "1700000040000,1,Plant/Load,double,2,0\n1700000041000,1,Plant/Load,double,2,0\n");
  EXPECT_EQ(result.exitCode, 0) << result.err;
  EXPECT_EQ(exported("1"),
            "1699999980000,1,Plant/Load,double,5,0\n1699999981000,1,Plant/Load,double,9,0\n"
            "1699999983000,1,Plant/Load,double,1,0\n1700000040000,1,Plant/Load,double,2,0\n");
  EXPECT_THAT(slow(), HasSubstr("1699999983000,1,Plant/Load,double,1,0\n"));
  EXPECT_EQ(exported("3"), exported("0")) << "a layer that keeps every sample";
  EXPECT_EQ(result.out,
            counts(6, 6, 0) + "layer 1   4 samples\nlayer 2   3 samples\nlayer 3   6 samples\n");
}

TEST_F(ConfiguredImportTest, LayersAreWhatOneImportOfAllGivesWhateverTheOrderOfFiles) {
  const std::string early = rows(9000, 700);
  const std::string late = rows(9000, 700, 350);
  ASSERT_EQ(import(late).exitCode, 0);
  ASSERT_EQ(import(early).exitCode, 0);
  const std::string minutes = exported("1");
  const std::string hours = slow();
  EXPECT_EQ(import(early + late).out,
            counts(18'000, 0, 18'000) +
                "layer 1   0 samples\nlayer 2   0 samples\nlayer 3   0 samples\n");
  EXPECT_EQ(exported("1"), minutes);
  for (const char* name : {"store", "slow"}) std::filesystem::remove_all(folder_.path(name));
  ASSERT_EQ(import(early + late).exitCode, 0);
  EXPECT_EQ(exported("1"), minutes);
  EXPECT_EQ(slow(), hours);
  EXPECT_EQ(orva({"store", "check", place()}).exitCode, 0);
}

TEST_F(ConfiguredImportTest, LayersThatAnEarlierImportLeftOutAreFilled) {
  const std::string all = rows(3000, 1000);
  ASSERT_EQ(StoreTest::import(all).exitCode, 0);
  EXPECT_EQ(number("SELECT max(layer) FROM segment"), 0);
  ASSERT_EQ(import(all).exitCode, 0);
  const std::string minutes = exported("1");
  EXPECT_NE(minutes, "");
  // What layer 0 has lost since keeps its place in the others.
  change(
      "DELETE FROM segment WHERE layer = 0 AND first = (SELECT min(first) FROM segment "
      "WHERE layer = 0)");
  ASSERT_EQ(import(rows(10, 1000, 995'100)).exitCode, 0);
  EXPECT_EQ(exported("1").substr(0, 500), minutes.substr(0, 500));
}

TEST_F(ConfiguredImportTest, ItemsThatAreNotConfiguredHereAreRefused) {
  const CommandResult result = import(
      "1000,1,Plant/Load,double,5,0\n1000,1,Plant/Other,double,5,0\n"
      "1000,2,Plant/Silent,double,5,0\n");
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_THAT(result.err, HasSubstr(":3: the configuration has no such item\n"));
  EXPECT_THAT(result.err, HasSubstr(":4: the configuration does not keep layer 0"));
  const CommandResult elsewhere =
      orva({"store", "import", folder_.path("else"), "--config", folder_.path("plant.json")});
  EXPECT_EQ(elsewhere.exitCode, 2);
  EXPECT_THAT(elsewhere.err, HasSubstr("has its location at"));
}

TEST_F(ConfiguredImportTest, TheWriteFilterIsAskedWhereThatIsWanted) {
  const std::string all =
      "1000,1,Plant/Load,double,500,0\n2000,1,Plant/Load,double,550,0\n"
      "3000,1,Plant/Load,double,600,0\n2500,1,Plant/Load,double,900,0\n";
  const CommandResult result = import(all, {"--filter"});
  EXPECT_THAT(result.out, StartsWith("rows      4\nstored    2\nsame      0\nfiltered  2\n"));
  EXPECT_EQ(exported(), "1000,1,Plant/Load,double,500,0\n3000,1,Plant/Load,double,600,0\n");
  EXPECT_THAT(import(all, {"--filter"}).out, HasSubstr("stored    0\nsame      2\nfiltered  2\n"));
}

// ---- compaction

// A segment for each sample, as a host writes them that gets one a second.
void storeOneByOne(const std::string& place, int count) {
  StoreWriter writer(place, StoreWriter::Missing::kIsMade);
  sqlite::Stream& stream = writer.stream({1, "a"}, 0);
  writer.begin();
  writer.makeRow(stream);
  for (int i = 0; i < count; ++i) {
    Pin pin;
    pin.time = kUnixEpochTicks + i * kTicksPerSecond;
    pin.value.SetDouble(i * 37 % 1000);
    sqlite::Columns sample;
    sample.add(pin);
    writer.segments().append(stream, sample);
    stream.stored.extend(pin.time, pin.time);
  }
  writer.commit();
}

TEST_F(StoreTest, CompactJoinsSmallSegmentsAndFreesSpace) {
  storeOneByOne(place(), 2500);
  change(
      "CREATE TABLE ballast(x); INSERT INTO ballast VALUES(zeroblob(3000000));"
      "DROP TABLE ballast");
  const std::string before = exported();
  const CommandResult result = orva({"store", "compact", place()});
  EXPECT_EQ(result.exitCode, 0) << result.err;
  EXPECT_THAT(result.out, StartsWith("segments  2500 before, 3 now\nsize      3."));
  EXPECT_THAT(result.out, HasSubstr(" MB before, "));
  EXPECT_THAT(result.out, HasSubstr(" kB now\n"));
  EXPECT_EQ(exported(), before);
  EXPECT_EQ(orva({"store", "check", place()}).exitCode, 0);
  EXPECT_THAT(orva({"store", "compact", place()}).out, StartsWith("segments  3 before, 3 now\n"));
}

TEST_F(StoreTest, ACompactionThatIsKilledLosesNothing) {
  constexpr int kSamples = 20'000;
  storeOneByOne(place(), kSamples);
  const std::string before = exported();
  const pid_t child = fork();
  if (child == 0) {
    StoreWriter writer(place(), StoreWriter::Missing::kFails);
    Progress progress(nullptr, "segments");
    compactStore(writer, progress);
    pause();
  }
  const auto hasBegun = [this] { return number("SELECT count(*) FROM segment") < kSamples; };
  EXPECT_TRUE(test::waitUntil(hasBegun, 30'000));
  kill(child, SIGKILL);
  waitpid(child, nullptr, 0);
  EXPECT_EQ(exported(), before);
  EXPECT_EQ(orva({"store", "check", place()}).exitCode, 0);
  EXPECT_EQ(orva({"store", "compact", place()}).exitCode, 0);
  EXPECT_EQ(number("SELECT count(*) FROM segment"), kSamples / 1000);
  EXPECT_EQ(exported(), before);
}

TEST_F(StoreTest, CompactMakesADamagedIndexAnewBeforeItJoins) {
  storeOneByOne(place(), 2500);
  const std::string before = exported();
  changeBehindTheIndex("UPDATE segment SET id = id + 10000 WHERE id % 3 = 0");
  ASSERT_EQ(orva({"store", "check", place()}).exitCode, 1);
  const CommandResult result = orva({"store", "compact", place()});
  EXPECT_EQ(result.exitCode, 0) << result.err;
  EXPECT_THAT(result.out, StartsWith("index     was damaged; made anew from the segments\n"
                                     "segments  2500 before, 3 now\n"));
  EXPECT_EQ(exported(), before);
  EXPECT_EQ(orva({"store", "check", place()}).exitCode, 0);
}

// Bits of the index's page, one at a time.
TEST_F(StoreTest, CompactLosesNothingToADamagedIndex) {
  storeOneByOne(place(), 20);
  const std::string before = exported();
  change("PRAGMA wal_checkpoint(TRUNCATE)");
  const std::string whole = test::readFile(file());
  const auto page = static_cast<std::size_t>(
      number("SELECT rootpage FROM sqlite_master WHERE name = 'segment_by_time'") - 1);
  const auto bytes = static_cast<std::size_t>(number("PRAGMA page_size"));
  int mended = 0;
  for (std::size_t at = page * bytes; at < (page + 1) * bytes; ++at) {
    if (whole[at] == 0 || at % 3 != 0) continue;
    std::string damaged = whole;
    damaged[at] = static_cast<char>(damaged[at] ^ 0x40);
    for (const char* log : {"-wal", "-shm"}) std::filesystem::remove(file() + log);
    folder_.write("store/archive.db", damaged);
    const CommandResult result = orva({"store", "compact", place()});
    if (result.exitCode == 0) {
      ++mended;
      EXPECT_EQ(exported(), before) << "byte " << at;
    } else {
      EXPECT_THAT(result.err, ContainsRegex("is damaged, and left as it is|is no store"));
    }
  }
  EXPECT_GT(mended, 50);
}

TEST_F(StoreTest, CompactLeavesADamagedTableAsItIs) {
  storeOneByOne(place(), 20);
  changeBehindTheIndex("UPDATE segment SET seq = 0, first = 0 WHERE id IN (3, 4)");
  const CommandResult result = orva({"store", "compact", place()});
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_THAT(result.err, HasSubstr("archive.db is damaged, and left as it is"));
  EXPECT_EQ(number("SELECT count(*) FROM segment NOT INDEXED"), 20);
}

// A text stands behind every number in an index, and is read as the number 0.
TEST_F(StoreTest, CompactEndsWhereTheIndexLeadsBack) {
  storeOneByOne(place(), 20);
  change("UPDATE segment SET first = 'x' WHERE id = 3");
  const CommandResult result = orva({"store", "compact", place()});
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_THAT(result.err, HasSubstr(" is damaged"));
  EXPECT_EQ(number("SELECT count(*) FROM segment"), 20);
}

TEST_F(StoreTest, ADamagedSegmentThatACompactionMeetsIsInItsResult) {
  storeOneByOne(place(), 20);
  change("UPDATE segment SET data = x'00' WHERE id IN (3)");
  const CommandResult result = orva({"store", "compact", place()});
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_THAT(result.out, EndsWith(" now\ndamaged   1 stretches set apart\n"));
  EXPECT_EQ(orva({"store", "compact", place()}).exitCode, 0) << "it is met no more";
}

TEST_F(StoreTest, CompactNeedsAStore) {
  EXPECT_THAT(orva({"store", "compact", place()}).err, HasSubstr("there is no store"));
}

// ---- progress

TEST(ProgressTest, TellsShareCountRateAndTheTimeLeft) {
  EXPECT_EQ(progressText(45, 100, 900'000, "rows", 9),
            "45 %, 900000 rows, 100000 rows/s, 11 s left");
  EXPECT_EQ(progressText(1, 1000, 10, "rows", 60), "0 %, 10 rows, 0 rows/s, 16.6 h left");
  EXPECT_EQ(progressText(0, 0, 10, "rows", 2), "10 rows, 5 rows/s");
}

TEST(ProgressTest, NobodyLooksNothingIsWritten) {
  std::ostringstream out;
  {
    Progress progress(&out, "rows");
    progress.at(1, 1);  // too soon
  }
  EXPECT_EQ(out.str(), "");
}

}  // namespace
}  // namespace orva::store
