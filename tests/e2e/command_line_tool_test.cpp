// The program orva against a running host.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>

#include "share/json.h"
#include "support/plant.h"

namespace orva::test {
namespace {

using ::testing::HasSubstr;
using ::testing::StartsWith;

constexpr int kCount = 25'000;  // more than two pages

constexpr const char* kProgram = R"(
local load = ArchiveProc.new{Id = 1, Path = "Plant/Load"}
local state = ArchiveProc.new{Id = 2, Path = "Plant/State, odd"}
local done = false
function cycle()
  if done then return end
  done = true
  for n, value in ipairs{'run', 'say "stop",\nnow', 'run'} do
    state.Value = DataValue{Value = value, SourceTime = 1700000000000 + 1000 * n}
    state()
  end
  for n = 1, 25000 do
    load.Value = DataValue{Value = n == 12345 and 777 or n % 10,
                           SourceTime = 1700000000000 + 1000 * n,
                           Status = n == 5 and 0x40000000 or 0}
    load()
  end
end
)";

// All of the history.
const std::string kRange = " --from 2023-11-14 --to 2023-11-16 --utc";

class CommandLineToolTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    PlantConfig config;
    config.variables = "[" + variable(1, "Plant/Load", "Double") + "," +
                       variable(2, "Plant/State, odd", "String") + "," +
                       variable(3, "Plant/Silent", "Double", "{}") + "]";
    config.programs = "[" + program("writer", "writer.lua", 100) + "]";
    config.http = R"({"port": 0, "token": "open-sesame"})";
    plant_ = std::make_unique<Plant>(config);
    plant_->folder().write("writer.lua", kProgram);
    if (!plant_->start()) return;
    EXPECT_TRUE(waitUntil(
        [] { return lines(orva("read 1" + kRange + " --csv").out) == kCount + 1; }, 30'000));
  }
  static void TearDownTestSuite() { plant_.reset(); }

  // Runs a line of the shell in which "orva" is the program, and knows host and token.
  static ProgramResult shell(const std::string& line) {
    return runProgram({"/bin/sh", "-c",
                       "orva() { " ORVA_LAUNCHER " " ORVA_CLI_PROGRAM " \"$@\"; }\n"
                       "export TZ=UTC0 ORVA_TOKEN=open-sesame ORVA_HOST=" +
                           url() + "\n" + line});
  }
  static ProgramResult orva(const std::string& arguments) { return shell("orva " + arguments); }
  static std::string url() { return "http://127.0.0.1:" + std::to_string(plant_->port()); }
  static int lines(const std::string& text) {
    return static_cast<int>(std::count(text.begin(), text.end(), '\n'));
  }

  static std::unique_ptr<Plant> plant_;
};

std::unique_ptr<Plant> CommandLineToolTest::plant_;

// Exit code 1, nothing on stdout, and on stderr the host and this text.
void expectFailure(const ProgramResult& result, const std::string& host, const std::string& text) {
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_EQ(result.out, "");
  EXPECT_THAT(result.err, StartsWith("orva: "));
  EXPECT_THAT(result.err, HasSubstr(host));
  EXPECT_THAT(result.err, HasSubstr(text));
  EXPECT_EQ(result.err.find("sesame"), std::string::npos) << "the token is shown";
}

TEST_F(CommandLineToolTest, ItemsAreListedAndSearched) {
  const ProgramResult all = orva("items");
  EXPECT_EQ(all.exitCode, 0);
  EXPECT_EQ(all.err, "");
  EXPECT_EQ(all.out,
            "        id  type        layers    path\n"
            "         1  Double      0         Plant/Load\n"
            "         2  String      0         Plant/State, odd\n"
            "         3  Double      -         Plant/Silent\n");
  EXPECT_EQ(orva("items ODD plant --json").out,
            R"([{"id":2,"path":"Plant/State, odd","type":"String","layers":[0]}])"
            "\n");
}

TEST_F(CommandLineToolTest, ASearchWithoutMatchesSaysSoBesideTheData) {
  const ProgramResult none = orva("items nothing");
  EXPECT_EQ(none.exitCode, 0);
  EXPECT_EQ(none.out, "");
  EXPECT_THAT(none.err, HasSubstr("matches"));
  EXPECT_EQ(orva("items nothing --json").out, "[]\n");
}

TEST_F(CommandLineToolTest, ReadPrintsATableByPathOrId) {
  const std::string table =
      "time (UTC)                item               value  quality\n"
      "2023-11-14T22:13:24.000Z  Plant/Load           4.0  good\n"
      "2023-11-14T22:13:25.000Z  Plant/Load           5.0  uncertain\n";
  const std::string range = " --utc --from 2023-11-14T22:13:24 --to 2023-11-14T22:13:25";
  EXPECT_EQ(orva("read Plant/Load" + range).out, table);
  EXPECT_EQ(orva("read 1" + range).out, table);
}

TEST_F(CommandLineToolTest, LocalTimesAreReadAndShownInTheZoneOfThisMachine) {
  const ProgramResult result =
      shell("TZ=ABC-2 orva read 1 --csv --from 2023-11-15T00:13:24 --to '2023-11-15 00:13:25'");
  EXPECT_EQ(result.out,
            "time,item,value,quality,status\n"
            "2023-11-15T00:13:24.000+02:00,Plant/Load,4.0,0,good\n"
            "2023-11-15T00:13:25.000+02:00,Plant/Load,5.0,1073741824,uncertain\n")
      << result.err;
}

TEST_F(CommandLineToolTest, ReadGivesManyPagesWithoutLossOrRepetition) {
  const ProgramResult result = orva("read Plant/Load --json" + kRange);
  json::Document rows;
  rows.Parse(result.out.c_str());
  ASSERT_TRUE(rows.IsArray()) << result.err;
  ASSERT_EQ(rows.Size(), static_cast<unsigned>(kCount));
  for (unsigned i = 0; i < rows.Size(); ++i) {
    ASSERT_EQ(rows[i]["time"].GetInt64(), 1'700'000'001'000 + std::int64_t{1000} * i);
  }
}

TEST_F(CommandLineToolTest, ALimitHoldsForEachItemAlsoBeyondAPage) {
  EXPECT_EQ(lines(orva("read 1 2 --limit 2 --csv" + kRange).out),
            1 + 2 + 3);  // a text of two lines
  EXPECT_EQ(lines(orva("read 1 --limit 10001 --csv" + kRange).out), 10'002);
}

TEST_F(CommandLineToolTest, PointsThinWithoutLosingAPeak) {
  const ProgramResult result = orva("read 1 --points 100 --csv" + kRange);
  EXPECT_LE(lines(result.out), 101);
  EXPECT_GE(lines(result.out), 10);
  EXPECT_THAT(result.out, HasSubstr(",777.0,"));
}

TEST_F(CommandLineToolTest, CsvQuotesPathsAndTexts) {
  EXPECT_THAT(orva("read 2 --csv" + kRange).out,
              HasSubstr("22.000Z,\"Plant/State, odd\",\"say \"\"stop\"\",\nnow\",0,good\n"));
}

TEST_F(CommandLineToolTest, ARangeWithoutSamplesIsNoFailure) {
  const ProgramResult result = orva("read 1 --json");
  EXPECT_EQ(result.exitCode, 0) << result.err;
  EXPECT_EQ(result.out, "[]\n");
}

TEST_F(CommandLineToolTest, TailFollowsItemsFromATimeOn) {
  const ProgramResult result =
      orva("tail 1 --from 2023-11-14T22:13:24 --limit 2 --json --utc --interval 0.05");
  EXPECT_EQ(result.exitCode, 0) << result.err;
  EXPECT_EQ(result.out,
            R"({"time":1700000004000,"item":"Plant/Load","value":4.0,"quality":0,"status":"good"})"
            "\n"
            R"({"time":1700000005000,"item":"Plant/Load","value":5.0,"quality":1073741824,)"
            R"("status":"uncertain"})"
            "\n");
}

TEST_F(CommandLineToolTest, TailEndsQuietlyWithTheReaderOfItsPipe) {
  const ProgramResult result =
      shell("orva tail 1 --from 2023-11-14 --csv --utc --interval 0.05 | head -n 2");
  EXPECT_EQ(lines(result.out), 2);
  EXPECT_EQ(result.err, "");
}

TEST_F(CommandLineToolTest, TailEndsQuietlyAtAnInterrupt) {
  const ProgramResult result =
      shell("env --default-signal=INT timeout --preserve-status -s INT 2 " ORVA_LAUNCHER
            " " ORVA_CLI_PROGRAM " tail 1");
  EXPECT_EQ(result.exitCode, 130);
  EXPECT_EQ(result.err, "");
}

TEST_F(CommandLineToolTest, StatusSaysHowTheHostFares) {
  const ProgramResult result = orva("status");
  EXPECT_EQ(result.exitCode, 0) << result.err;
  EXPECT_THAT(result.out, StartsWith("host      " + url() + ", version "));
  EXPECT_THAT(result.out, HasSubstr("accepted  25003 new values: 25001 all values, 2 first\n"));
  EXPECT_THAT(result.out, HasSubstr("refused   0 new values\n"));
  EXPECT_THAT(result.out, HasSubstr("archive   store: "));
}

TEST_F(CommandLineToolTest, StatusGivesItsFiguresAsJson) {
  const ProgramResult result = orva("status --json");
  EXPECT_EQ(result.exitCode, 0) << result.err;
  json::Document status;
  status.Parse(result.out.c_str());
  ASSERT_TRUE(status.IsObject()) << result.out;
  EXPECT_EQ(status["host"].GetString(), url());
  EXPECT_EQ(status["accepted"]["all_values"].GetInt(), 25'001);
  EXPECT_STREQ(status["archives"][0]["name"].GetString(), "store");
  EXPECT_GE(status["archives"][0]["writtenSamples"].GetInt(), kCount);
}

TEST_F(CommandLineToolTest, AHostThatIsNotThereIsNamed) {
  for (const std::string command : {"items", "read 1", "tail 1", "status"}) {
    expectFailure(orva("--host http://127.0.0.1:1 " + command), "http://127.0.0.1:1",
                  "is it running?");
  }
}

TEST_F(CommandLineToolTest, ATokenThatLacksOrIsWrongIsSaidAndNotShown) {
  expectFailure(shell("unset ORVA_TOKEN; orva items"), url(), "wants a token");
  expectFailure(orva("read 1 --token not-sesame"), url(), "refuses the token");
}

TEST_F(CommandLineToolTest, ItemsThatAreUnknownOrNotArchivedAreNamed) {
  expectFailure(orva("read Plant/Load Plant/NoSuch"), url(), "has no item \"Plant/NoSuch\"");
  expectFailure(orva("tail 99"), url(), "has no item \"99\"");
  expectFailure(orva("read Plant/Silent"), url(), "does not archive \"Plant/Silent\"");
}

TEST_F(CommandLineToolTest, WrongUsageEndsWithTwo) {
  for (const std::string arguments :
       {"", "read", "read 1 --from noon", "read 1 --from now --to -1h", "--host station items",
        "items --nonsense"}) {
    const ProgramResult result = orva(arguments);
    EXPECT_EQ(result.exitCode, 2) << arguments;
    EXPECT_EQ(result.out, "") << arguments;
    EXPECT_NE(result.err, "") << arguments;
  }
}

TEST_F(CommandLineToolTest, AnOutputThatCannotBeWrittenIsAFailure) {
  const ProgramResult result = shell("orva items > /dev/full");
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_THAT(result.err, HasSubstr("cannot write"));
}

}  // namespace
}  // namespace orva::test
