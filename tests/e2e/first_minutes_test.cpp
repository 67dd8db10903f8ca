// docs/first-ten-minutes.md, done as it stands there.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <memory>
#include <regex>
#include <sstream>

#include "support/documentation.h"
#include "support/host_process.h"
#include "support/temp_folder.h"

namespace orva::test {
namespace {

using ::testing::HasSubstr;
using ::testing::MatchesRegex;

// What stands in a block of the page.
std::string block(const std::string& info) {
  static const std::string page = repositoryFile("docs/first-ten-minutes.md");
  const std::string fence = "\n```" + info + "\n";
  const std::size_t begin = page.find(fence);
  EXPECT_NE(begin, std::string::npos) << info;
  if (begin == std::string::npos) return {};
  const std::size_t start = begin + fence.size();
  return page.substr(start, page.find("\n```", start) + 1 - start);
}

// A line that is typed, and what the page shows below it.
struct Typed {
  std::string command;
  std::vector<std::string> shown;
};

std::vector<Typed> sessionOf(const std::string& info) {
  std::istringstream lines(block(info));
  std::vector<Typed> session;
  for (std::string line; std::getline(lines, line);) {
    if (line.compare(0, 2, "$ ") == 0) {
      session.push_back({line.substr(2), {}});
    } else if (!session.empty()) {
      session.back().shown.push_back(line);
    }
  }
  return session;
}

std::vector<std::string> linesOf(const std::string& text) {
  std::istringstream stream(text);
  std::vector<std::string> lines;
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  return lines;
}

// Times and values differ; all else is as on the page.
std::string shape(const std::string& line) {
  std::string text = std::regex_replace(line, std::regex("http://[0-9.:]+"), "URL");
  text = std::regex_replace(text, std::regex(R"([0-9-]+T[0-9:.]+[+-][0-9:]+)"), "TIME");
  text = std::regex_replace(text, std::regex(R"(\d+(\.\d+)*( (s|min|kB|MB)\b)?)"), "N");
  return std::regex_replace(text, std::regex(" +"), " ");
}

class FirstMinutesTest : public ::testing::Test {
 protected:
  void SetUp() override {
    program("orva", ORVA_CLI_PROGRAM);
    program("orva_host", ORVA_HOST_PROGRAM);
    std::string config = block("json plant.json");
    const std::string port = "\"http\": {}";
    const std::size_t at = config.find(port);
    ASSERT_NE(at, std::string::npos);
    // Any free port, so that tests do not meet.
    folder_.write("plant.json", config.replace(at, port.size(), "\"http\": {\"port\": 0}"));
    folder_.write("pump.lua", block("lua pump.lua"));
  }

  void program(const std::string& name, const std::string& path) const {
    const std::string file =
        folder_.write(name, "#!/bin/sh\nexec " ORVA_LAUNCHER " " + path + " \"$@\"\n");
    ASSERT_EQ(chmod(file.c_str(), 0755), 0);
  }
  void start() {
    host_ = std::make_unique<HostProcess>(folder_.path("plant.json"));
    const std::uint16_t port = host_->waitUntilListening();
    ASSERT_NE(port, 0) << host_->log();
    url_ = "http://127.0.0.1:" + std::to_string(port);
  }
  ProgramResult type(const std::string& command) const {
    return runProgram({"/bin/sh", "-c",
                       "cd " + folder_.path("") + "; export TZ=ABC-1 ORVA_HOST=" + url_ +
                           " PATH=$PWD:$PATH\n" + command},
                      60'000);
  }
  // The output is as many lines as on the page, or more, and these look alike.
  void expectSession(const std::string& info) const {
    for (const Typed& typed : sessionOf(info)) {
      SCOPED_TRACE(typed.command);
      const ProgramResult result = type(typed.command);
      EXPECT_EQ(result.exitCode, 0) << result.err;
      const std::vector<std::string> printed = linesOf(result.out);
      ASSERT_GE(printed.size(), typed.shown.size()) << result.out;
      for (std::size_t i = 0; i < typed.shown.size(); ++i) {
        EXPECT_EQ(shape(printed[i]), shape(typed.shown[i]));
      }
    }
  }
  std::string rows(const std::string& item) const {
    return type("orva read " + item + " --from -1h --csv").out;
  }
  bool waitForRows(const std::string& item, std::size_t count) const {
    return waitUntil([&] { return linesOf(rows(item)).size() > count; }, 60'000);
  }

  TempFolder folder_;
  std::unique_ptr<HostProcess> host_;
  std::string url_;
};

TEST_F(FirstMinutesTest, ThePlantRunsIsReadAndKeepsItsHistoryOverARestart) {
  expectSession("console check");
  start();
  ASSERT_TRUE(waitForRows("Pump/Pressure", 5)) << host_->log();
  ASSERT_TRUE(waitForRows("Machine/Load", 1)) << host_->log();
  ASSERT_TRUE(waitForRows("Pump/Running", 1)) << host_->log();
  expectSession("console session");
  EXPECT_THAT(readFile(folder_.path("pressure.csv")), HasSubstr("Pump/Pressure"));

  const std::vector<std::string> before = linesOf(rows("Pump/Pressure"));
  EXPECT_EQ(host_->stop(), 0);
  start();
  const std::vector<std::string> after = linesOf(rows("Pump/Pressure"));
  ASSERT_GE(after.size(), before.size());
  for (std::size_t i = 0; i < before.size(); ++i) EXPECT_EQ(after[i], before[i]);
  expectSession("console again");
  ASSERT_TRUE(waitForRows("Pump/Pressure", after.size() + 2)) << "it does not go on";
}

TEST_F(FirstMinutesTest, APortThatIsTakenIsNamedWithWhatToDo) {
  start();
  const std::string port = url_.substr(url_.rfind(':') + 1);
  const std::string config = folder_.write("other.json", "{\"http\": {\"port\": " + port + "}}");
  const ProgramResult second = runHost({"--config", config});
  EXPECT_EQ(second.exitCode, 1);
  EXPECT_THAT(second.err, HasSubstr("127.0.0.1:" + port + ": Address already in use"));
  EXPECT_THAT(second.err, HasSubstr("--port"));
}

TEST_F(FirstMinutesTest, AProgramWithAMistakeIsNamedAndTheHostRuns) {
  folder_.write("pump.lua", block("lua pump.lua") + "\nx = = 1\n");
  start();
  EXPECT_TRUE(host_->waitForLog("pump.lua:"));
  expectSession("console check");
}

}  // namespace
}  // namespace orva::test
