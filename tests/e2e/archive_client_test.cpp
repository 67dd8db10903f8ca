// The older archive interface, used from outside: orva_host as an older-style client.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <csignal>
#include <fstream>
#include <sstream>

#include "support/plant.h"

namespace orva::test {
namespace {

using testing::EndsWith;
using testing::HasSubstr;

// Differs from variable 1 in the high half of its id alone.
constexpr const char* kTwin = R"({"id": 4294967297, "path": "Plant/Twin", "type": "Double",
  "layers": {"0": {"archive": 0}}})";

PlantConfig clientConfig() {
  PlantConfig config;
  config.variables = "[" + variable(1, "Plant/Load", "Double") + "," +
                     variable(2, "Plant/Name", "String") + "," +
                     variable(3, "Plant/Count", "Int32") + "," + kTwin + "]";
  // Changes only, so that filters have something to say.
  config.dataArchive = R"({"archives": [{
    "connection": {"providerType": "sqlite", "location": "store"},
    "limits": {"writePeriod": 1000000, "writeBufferSize": 200000},
    "filter": {"writeByChange": true}}]})";
  return config;
}

class ArchiveClientTest : public ::testing::Test {
 protected:
  void configure(const PlantConfig& config) {
    configFile_ = folder_.write("plant.json", config.text());
  }

  // Runs the commands to their end.
  ProgramResult run(const std::string& commands) const {
    const std::string script = folder_.write("script", commands);
    return runHost(
        {"--config", configFile_, "--addins", ORVA_ADDIN_DIR, "--archive-client", script}, 60'000);
  }
  // What they print; a failure of the test when one fails.
  std::string out(const std::string& commands) const {
    const ProgramResult result = run(commands);
    EXPECT_EQ(result.exitCode, 0) << result.err;
    return result.out;
  }

  const TempFolder folder_;
  std::string configFile_ = folder_.write("plant.json", clientConfig().text());
};

TEST_F(ArchiveClientTest, WhatOneRunWritesTheNextOneReads) {
  const std::string samples =
      "1 2024-05-17T08:00:00.000Z 20.5 0x00000000\n"
      "1 2024-05-17T08:00:01.0000001Z -1 0x40000000\n"
      "2 2024-05-17T08:00:02.000Z \"two words\" 0x00000000\n";
  EXPECT_EQ(out("find 1\n"
                "find 2\n"
                "last 1\n"
                "write 1 2024-05-17T08:00:00Z 20.5\n"
                "write 1 2024-05-17T08:00:01.0000001Z -1 0x40000000\n"
                "write 2 2024-05-17T08:00:02Z \"two words\"\n"
                "read 1,2 0 0\n"
                "last 1\n"),
            "1\n2\nnone\n" + samples + "2024-05-17T08:00:01.0000001Z\n");
  EXPECT_EQ(out("find 1\n"
                "find 2\n"
                "last 1\n"
                "last 2\n"
                "read 1,2 0 0\n"
                "read 1 2024-05-17T08:00:01Z 2024-05-18\n"
                "read 1 0 0 max=1\n"
                "find 3\n"
                "last 3\n"
                "read 3 0 0\n"),
            "1\n2\n2024-05-17T08:00:01.0000001Z\n2024-05-17T08:00:02.000Z\n" + samples +
                "1 2024-05-17T08:00:01.0000001Z -1 0x40000000\n"
                "1 2024-05-17T08:00:00.000Z 20.5 0x00000000\n"
                "3\nnone\n");
}

TEST_F(ArchiveClientTest, TheFilterSaysWhatIsArchived) {
  EXPECT_EQ(out("find 3\n"
                "write 3 10000000 1\n"
                "write 3 20000000 1    # no change\n"
                "write 3 30000000 2\n"
                "filter 3 deadband=5\n"
                "write 3 40000000 4    # within the dead band\n"
                "write 3 50000000 7\n"
                "filter 3 deadband=0 minWritePeriod=20000000\n"
                "write 3 60000000 8    # too soon\n"
                "write 3 80000000 9\n"
                "filter 3 minWritePeriod=0 maxWritePeriod=10000000\n"
                "write 3 90000001 9    # the same, but late\n"
                "filter 3 allValues=true\n"
                "write 3 90000002 9\n"
                "read 3 0 0\n"),
            "3\n"
            "3 1601-01-01T00:00:01.000Z 1 0x00000000\n"
            "3 1601-01-01T00:00:03.000Z 2 0x00000000\n"
            "3 1601-01-01T00:00:05.000Z 7 0x00000000\n"
            "3 1601-01-01T00:00:08.000Z 9 0x00000000\n"
            "3 1601-01-01T00:00:09.0000001Z 9 0x00000000\n"
            "3 1601-01-01T00:00:09.0000002Z 9 0x00000000\n");
}

TEST_F(ArchiveClientTest, DisablingWriteByChangeReadsBackReversed) {
  EXPECT_EQ(out("find 1\n"
                "disable-write-by-change 1\n"
                "disable-write-by-change 1 true\n"
                "disable-write-by-change 1\n"
                "write 1 1 20\n"
                "write 1 2 21   # nothing but the first sample passes any more\n"
                "read 1 0 0\n"),
            "1\ntrue\nfalse\n1 1601-01-01T00:00:00.0000001Z 20 0x00000000\n");
}

TEST_F(ArchiveClientTest, IdsAlikeInTheirLowHalfAreOneItem) {
  const std::string sample = "1 1601-01-01T00:00:01.000Z 20 0x00000000\n";
  EXPECT_EQ(out("find 1\n"
                "find 4294967297\n"
                "write 1 10000000 20\n"
                "read 1 0 0\n"),
            "1\n1\n" + sample);
  EXPECT_EQ(out("find 4294967297\n"
                "read 1 0 0\n"),
            "1\n")
      << "the variable that is found first is the item";
  EXPECT_EQ(out("find 1\nread 1 0 0\n"), "1\n" + sample);
}

TEST_F(ArchiveClientTest, CacheIdsAreNoItems) {
  const ProgramResult result = run("id 1 \"\"\nfind 1\nid 1 \"\"\nid 1 Plant/Load\n");
  EXPECT_EQ(result.exitCode, 0);
  std::istringstream lines(result.out);
  int before = 0;
  int item = 0;
  int cacheId = 0;
  int byPath = 0;
  lines >> before >> item >> cacheId >> byPath;
  EXPECT_EQ(before, -1) << "nobody has used the variable";
  EXPECT_EQ(item, 1);
  EXPECT_GT(cacheId, 0);
  EXPECT_NE(cacheId, item);
  EXPECT_EQ(byPath, -1) << "items of this interface have no path";
  EXPECT_EQ(run("find 1\nwrite " + std::to_string(cacheId) + " 1 20\n").exitCode, 1);
}

TEST_F(ArchiveClientTest, ASecondSourceHasIdsOfItsOwnOnTheSameHistory) {
  EXPECT_EQ(out("find 1\n"
                "write 1 10000000 20\n"
                "source 1\n"
                "find 1\n"
                "write 1 20000000 21\n"
                "read 1 0 0\n"
                "source 0\n"
                "last 1\n"),
            "1\n1\n"
            "1 1601-01-01T00:00:01.000Z 20 0x00000000\n"
            "1 1601-01-01T00:00:02.000Z 21 0x00000000\n"
            "1601-01-01T00:00:02.000Z\n");
  const ProgramResult result = run("find 1\nsource 1\nlast 1\n");
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_THAT(result.err, HasSubstr("script:3: last: GetLastTime returns 0x803E0000 (not found)"));
}

TEST_F(ArchiveClientTest, AFailedCommandIsToldWithItsLineAndTheOthersGoOn) {
  const ProgramResult result = run("# comment\nfind 99\nfind 1\nfetch 1\nlast 1\n");
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_EQ(result.out, "1\nnone\n");
  EXPECT_THAT(result.err,
              HasSubstr("script:2: find: FindArchiveItemId returns 0x803E0000 (not found)\n"));
  EXPECT_THAT(result.err, HasSubstr("script:4: no command is called \"fetch\"\n"));
}

TEST_F(ArchiveClientTest, WithoutAScriptOrASourceNothingIsExecuted) {
  const ProgramResult noScript = runHost({"--config", configFile_, "--addins", ORVA_ADDIN_DIR,
                                          "--archive-client", folder_.path("missing")});
  EXPECT_EQ(noScript.exitCode, 1);
  EXPECT_THAT(noScript.err, EndsWith("missing: No such file or directory\n"));

  PlantConfig config = clientConfig();
  config.addins = "[]";
  configure(config);
  const ProgramResult noSource = run("find 1\n");
  EXPECT_EQ(noSource.exitCode, 1);
  EXPECT_EQ(noSource.out, "");
  EXPECT_THAT(noSource.err, HasSubstr("no add-in offers archive sources of type \"sqlite3\"\n"));
}

// Fifty items, two thousand samples each, a tenth of a second apart.
class LongHistoryTest : public ArchiveClientTest {
 protected:
  static constexpr int kItems = 50;
  static constexpr int kSamples = 2000;
  static constexpr long long kStep = 1'000'000;

  void SetUp() override {
    PlantConfig config = clientConfig();
    config.variables = "[";
    for (int id = 1; id <= kItems; ++id) {
      config.variables +=
          (id == 1 ? "" : ",") + variable(id, "Plant/Item" + std::to_string(id), "Int32");
    }
    config.variables += "]";
    configure(config);
  }

  static std::string finding() {
    std::string commands;
    for (int id = 1; id <= kItems; ++id) commands += "find " + std::to_string(id) + "\n";
    return commands;
  }
  static std::string foundAll() {
    std::string text;
    for (int id = 1; id <= kItems; ++id) text += std::to_string(id) + "\n";
    return text;
  }
  static std::string allItems() {
    std::string list = "1";
    for (int id = 2; id <= kItems; ++id) list += "," + std::to_string(id);
    return list;
  }
  static int valueOf(int id, int n) { return n * 100 + id; }

  // What a read of samples `first` to `last` of all items prints.
  static std::string page(int first, int last) {
    std::string text;
    char line[80];
    for (int id = 1; id <= kItems; ++id) {
      for (int n = first; n <= last; ++n) {
        std::snprintf(line, sizeof line, "%d 1601-01-01T00:%02d:%02d.%d00Z %d 0x00000000\n", id,
                      n / 600, n / 10 % 60, n % 10, valueOf(id, n));
        text += line;
      }
    }
    return text;
  }
};

TEST_F(LongHistoryTest, IsReadBackInPagesOfTime) {
  std::string writing = finding();
  for (int n = 1; n <= kSamples; ++n) {
    for (int id = 1; id <= kItems; ++id) {
      writing += "write " + std::to_string(id) + " " + std::to_string(n * kStep) + " " +
                 std::to_string(valueOf(id, n)) + "\n";
    }
  }
  ASSERT_EQ(out(writing), foundAll());

  constexpr int kPage = 300;
  std::string reading = finding();
  std::string expected = foundAll();
  for (int first = 1; first <= kSamples; first += kPage) {
    const int last = std::min(first + kPage - 1, kSamples);
    reading += "read " + allItems() + " " + std::to_string(first * kStep) + " " +
               std::to_string(last * kStep) + "\n";
    expected += page(first, last);
  }
  // Too long to be shown where it differs.
  EXPECT_TRUE(out(reading) == expected);
}

// A client whose commands the test gives one by one.
class InteractiveClientTest : public ArchiveClientTest {
 protected:
  void start() {
    const std::string pipe = folder_.path("pipe");
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    commands_.open(pipe);  // for both directions, so that opening waits for nobody
    host_ = std::make_unique<HostProcess>(configFile_,
                                          std::vector<std::string>{"--archive-client", pipe});
  }
  // Gives a command and waits until so much is printed.
  void expectOut(const std::string& command, const std::string& out) {
    commands_ << command << "\n" << std::flush;
    expected_ += out;
    EXPECT_TRUE(waitUntil([this] { return host_->out() == expected_; }, 10'000))
        << command << " printed " << host_->out() << host_->log();
  }

  std::fstream commands_;
  std::string expected_;
  std::unique_ptr<HostProcess> host_;
};

TEST_F(InteractiveClientTest, AnItemOutlivesItsArchive) {
  start();
  expectOut("find 1", "1\n");
  expectOut("filter 1 allValues=true", "");
  expectOut("write 1 10000000 20\nlast 1", "1601-01-01T00:00:01.000Z\n");
  host_->signal(SIGUSR1);
  ASSERT_TRUE(host_->waitForLog("the archives were built anew"));
  const std::string first = "1 1601-01-01T00:00:01.000Z 20 0x00000000\n";
  const std::string second = "1 1601-01-01T00:00:02.000Z 20 0x00000000\n";
  const std::string third = "1 1601-01-01T00:00:03.000Z 20 0x00000000\n";
  expectOut("write 1 20000000 20\nwrite 1 30000000 20\nread 1 0 0", first + second + third);
  host_->stop();
  EXPECT_EQ(out("find 1\nread 1 0 0\n"), "1\n" + first + second + third);
}

TEST_F(InteractiveClientTest, ASignalEndsTheWaitForCommands) {
  start();
  expectOut("find 1", "1\n");
  EXPECT_EQ(host_->stop(), 1);
  EXPECT_THAT(host_->log(), HasSubstr("pipe:1: stopped before the end of the commands\n"));
}

TEST_F(InteractiveClientTest, ASignalEndsAReadThatTheArchiveDoesNotAnswer) {
  PlantConfig config = clientConfig();
  config.addins = R"(["liborva_database.so", "liborva_silent.so"])";
  config.dataArchive = R"({"archives": [{"connection": {"providerType": "silent"}}]})";
  configure(config);
  start();
  expectOut("find 1", "1\n");
  expectOut("find 2\nread 1 0 0", "2\n");
  const std::int64_t begin = steadyMilliseconds();
  EXPECT_EQ(host_->stop(), 1);
  EXPECT_LT(steadyMilliseconds() - begin, 5'000);
  EXPECT_THAT(host_->log(), HasSubstr("pipe:"));
}

}  // namespace
}  // namespace orva::test
