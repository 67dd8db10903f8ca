// The program orva on stores, beside a real host.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <sstream>

#include "support/plant.h"

namespace orva::test {
namespace {

using ::testing::HasSubstr;

constexpr const char* kHead = "time_ms,item_id,path,type,value,quality\n";

// An hour and a half of three items, with late rows, repeated ones, equal times and spells of
// quality; in the order of arrival.
std::string recording() {
  std::string text = kHead;
  std::uint32_t random = 7;
  const auto next = [&random] { return random = random * 1664525U + 1013904223U; };
  for (int second = 0; second < 5400; ++second) {
    for (int item = 1; item <= 3; ++item) {
      const bool isLate = next() % 97 == 0;
      const std::int64_t time =
          1'700'000'000'000 + 1000 * std::int64_t{second} - (isLate ? 5000 : 0);
      const auto value = static_cast<double>(next() >> 20) / 8;
      const std::string row = std::to_string(time) + "," + std::to_string(item) + ",Plant/Item " +
                              std::to_string(item) + ",double," + std::to_string(value) + "," +
                              (second / 600 % 3 == 2 ? "1073741824" : "0") + "\n";
      text += row;
      if (next() % 89 == 0) text += row;
    }
  }
  return text;
}

class StoreCommandsTest : public ::testing::Test {
 protected:
  static PlantConfig config(const std::string& location) {
    PlantConfig config;
    std::string variables;
    for (int item = 1; item <= 3; ++item) {
      variables += (item == 1 ? "[" : ",") +
                   variable(item, "Plant/Item " + std::to_string(item), "Double",
                            R"({"0": {"archive": 0}, "1": {"archive": 0}, "2": {"archive": 0}})");
    }
    config.variables = variables + "]";
    config.dataArchive = R"({"archives": [{"connection": {"providerType": "sqlite",
      "location": ")" + location +
                         R"("}, "limits": {"writeBufferSize": 1000000},
      "filter": {"allValues": true}}]})";
    return config;
  }
  // Runs a line of the shell in the plant's folder, in which "orva" is the program.
  ProgramResult shell(const std::string& line, int timeoutMs = 60'000) const {
    return runProgram({"/bin/sh", "-c",
                       "orva() { " ORVA_LAUNCHER " " ORVA_CLI_PROGRAM " \"$@\"; }\ncd '" +
                           plant_.folder().path() + "'\n" + line},
                      timeoutMs);
  }

  Plant plant_{config("service")};
};

// What a host archives from a recording, and what an import of it archives.
TEST_F(StoreCommandsTest, AnImportFillsAllLayersAsAHostDoes) {
  plant_.folder().write("rows.csv", recording());
  PlantConfig replay = config("service");
  replay.sources = R"([{"type": "csv", "file": "rows.csv", "speed": "max"}])";
  plant_.configure(replay);
  ASSERT_TRUE(plant_.start());
  ASSERT_TRUE(plant_.host().waitForLog("rows replayed", 30'000)) << "no summary of the recording";
  const ProgramResult refused = shell("orva store import service rows.csv");
  EXPECT_EQ(refused.exitCode, 1);
  EXPECT_THAT(refused.err, HasSubstr("stop it first"));
  EXPECT_EQ(shell("orva store compact service").exitCode, 1);
  const ProgramResult live = shell("orva store check service && orva store stat service");
  EXPECT_EQ(live.exitCode, 0) << live.out << live.err;
  ASSERT_EQ(plant_.host().stop(), 0);

  plant_.configure(config("imported"));
  const ProgramResult result =
      shell("orva store import imported --config plant.json --filter rows.csv");
  EXPECT_EQ(result.exitCode, 0) << result.err;
  EXPECT_THAT(result.out, HasSubstr("refused   0\n"));
  // A host keeps a row that comes twice, and adds a last sample of its own when it stops.
  for (const int layer : {0, 1, 2}) {
    const std::string of = " --layer " + std::to_string(layer);
    const ProgramResult same =
        shell("orva store export service" + of + " | grep -v ',11010048$' | uniq > a\n" +
              "orva store export imported" + of + " > b\ntest $(wc -l < b) -gt 10 && cmp a b");
    EXPECT_EQ(same.exitCode, 0) << "layer " << layer << ": " << same.out << same.err;
  }

  // A host goes on with an imported store.
  ASSERT_TRUE(plant_.start());
  EXPECT_GE(plant_.client().readAll(plant_.itemId("Plant/Item 1")).size(), 5000U);
}

TEST_F(StoreCommandsTest, TheSortedExportOfAnImportIsItsDistinctRows) {
  plant_.folder().write("rows.csv", recording());
  ASSERT_EQ(shell("orva store import store rows.csv").exitCode, 0);
  EXPECT_THAT(shell("orva store import store rows.csv").out, HasSubstr("stored    0\n"));
  const ProgramResult same = shell(
      "orva store export store | sort > a; "
      "sed -E '2,$s/(double,[0-9]+)(\\.[0-9]*[1-9])?\\.?0*,/\\1\\2,/' rows.csv | sort -u > b; "
      "test -s a && cmp a b");
  EXPECT_EQ(same.exitCode, 0) << same.out << same.err;
}

TEST_F(StoreCommandsTest, AnImportThatIsKilledIsCompletedByAnother) {
  std::string text = kHead;
  constexpr int kRows = 1'000'000;
  for (int i = 0; i < kRows; ++i) {
    text += std::to_string(1'700'000'000'000 + 1000 * std::int64_t{i / 2}) + "," +
            std::to_string(1 + i % 2) + ",Plant/Item " + std::to_string(1 + i % 2) + ",double," +
            std::to_string(i % 1000) + ",0\n";
  }
  plant_.folder().write("rows.csv", text);
  plant_.configure(config("store"));
  // The rows come slowly at the end, so that the kill meets the import at work.
  const ProgramResult killed =
      shell("mkfifo pipe; (head -n 600000 rows.csv; sleep 60) > pipe & feeder=$!\n" ORVA_LAUNCHER
            " " ORVA_CLI_PROGRAM
            " store import store --config plant.json < pipe & import=$!\n"
            "while ! orva store stat store --csv 2>/dev/null | grep -q ,0,; do sleep 0.05; done\n"
            "kill -9 $import; kill $feeder; wait $import; echo $?");
  EXPECT_EQ(killed.out, "137\n") << killed.err;
  const ProgramResult check = shell("orva store check store");
  EXPECT_EQ(check.exitCode, 0) << check.out << check.err;
  const ProgramResult again = shell("orva store import store --config plant.json rows.csv");
  EXPECT_EQ(again.exitCode, 0) << again.err;
  EXPECT_THAT(again.out, HasSubstr("rows      1000000\n"));
  EXPECT_EQ(again.out.find("same      0\n"), std::string::npos) << "nothing was there";
  plant_.configure(config("whole"));
  ASSERT_EQ(shell("orva store import whole --config plant.json rows.csv").exitCode, 0);
  for (const int layer : {0, 1, 2}) {
    const std::string of = " --layer " + std::to_string(layer);
    const ProgramResult same = shell("orva store export store" + of +
                                     " > a; orva store export whole" + of + " > b; cmp a b");
    EXPECT_EQ(same.exitCode, 0) << "layer " << layer << same.out;
  }
}

// A file that may not grow stands for a disk that is full.
TEST_F(StoreCommandsTest, AnImportThatTheDiskHasNoRoomForSaysSoAndIsCompletedByAnother) {
  plant_.folder().write("rows.csv", recording());
  const ProgramResult full =
      shell("(trap '' XFSZ; ulimit -f 64; orva store import store rows.csv)");
  EXPECT_EQ(full.exitCode, 1) << full.out << full.err;
  EXPECT_THAT(full.err, HasSubstr("archive.db"));
  const ProgramResult again = shell("orva store import store rows.csv && orva store check store");
  EXPECT_EQ(again.exitCode, 0) << again.out << again.err;
  ASSERT_EQ(shell("orva store import whole rows.csv").exitCode, 0);
  const ProgramResult same =
      shell("orva store export store > a; orva store export whole > b; test -s a && cmp a b");
  EXPECT_EQ(same.exitCode, 0) << same.out << same.err;
}

TEST_F(StoreCommandsTest, AnExportThatCannotBeginLeavesAnEarlierOneAsItIs) {
  plant_.folder().write("rows.csv", recording());
  ASSERT_EQ(shell("orva store import store rows.csv && orva store export store --output all.csv")
                .exitCode,
            0);
  const ProgramResult failed = shell(
      "cp all.csv before.csv; orva store export nowhere --output all.csv; echo $?; "
      "orva store export store Plant/Unknown --output all.csv; echo $?; cmp all.csv before.csv");
  EXPECT_EQ(failed.exitCode, 0) << failed.out << failed.err;
  EXPECT_EQ(failed.out.find("0\n"), std::string::npos) << failed.out;
}

TEST_F(StoreCommandsTest, AnExportThatTheDiskHasNoRoomForLeavesAnEarlierOneAsItIs) {
  plant_.folder().write("rows.csv", recording());
  ASSERT_EQ(shell("orva store import store rows.csv && orva store export store --output all.csv && "
                  "cp all.csv before.csv")
                .exitCode,
            0);
  const ProgramResult full =
      shell("(trap '' XFSZ; ulimit -f 64; orva store export store --output all.csv)");
  EXPECT_EQ(full.exitCode, 1) << full.out;
  EXPECT_THAT(full.err, HasSubstr("cannot write all.csv; is the disk full?"));
  EXPECT_EQ(shell("cmp all.csv before.csv && test ! -e all.csv.new").exitCode, 0);
}

// The second half of the rows comes when it is time to say something.
TEST_F(StoreCommandsTest, ProgressIsShownAtATerminal) {
  plant_.folder().write("rows.csv", recording());
  plant_.folder().write("import.sh",
                        "(head -n 3000 rows.csv; sleep 1; tail -n +3001 rows.csv) | " ORVA_LAUNCHER
                        " " ORVA_CLI_PROGRAM " store import store\n");
  const ProgramResult result = shell("script -qec 'sh import.sh' /dev/null < /dev/null");
  EXPECT_EQ(result.exitCode, 0) << result.err;
  EXPECT_THAT(result.out, HasSubstr(" rows/s"));
  EXPECT_THAT(result.out, HasSubstr("\r\033[Krows   ")) << "the line stays";
}

TEST_F(StoreCommandsTest, NothingIsSaidOfProgressInAPipe) {
  plant_.folder().write("rows.csv", recording());
  const ProgramResult result = shell("orva store import store < rows.csv");
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(shell("orva store export store > /dev/full").exitCode, 1);
}

}  // namespace
}  // namespace orva::test
