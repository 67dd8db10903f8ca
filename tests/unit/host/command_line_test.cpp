#include "orva_host/command_line.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <vector>

namespace orva::host {
namespace {

using testing::HasSubstr;

// Reads a command line and keeps what it printed.
struct Outcome {
  explicit Outcome(std::vector<const char*> arguments) {
    arguments.insert(arguments.begin(), "orva_host");
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    exitCode = readCommandLine(static_cast<int>(arguments.size()), arguments.data(), options);
    out = testing::internal::GetCapturedStdout();
    err = testing::internal::GetCapturedStderr();
  }

  CommandLine options;
  std::optional<int> exitCode;
  std::string out;
  std::string err;
};

TEST(HostCommandLineTest, OptionsAreRead) {
  const Outcome outcome(
      {"--config", "a.json", "--check-config", "--addins", "lib", "--port", "0", "--seconds", "5"});
  EXPECT_EQ(outcome.exitCode, std::nullopt);
  EXPECT_EQ(outcome.options.config, "a.json");
  EXPECT_TRUE(outcome.options.checkConfig);
  EXPECT_EQ(outcome.options.addins, "lib");
  EXPECT_EQ(outcome.options.port, 0);
  EXPECT_EQ(outcome.options.seconds, 5);
}

TEST(HostCommandLineTest, OnlyTheConfigurationIsNeeded) {
  const Outcome outcome({"--config", "a.json"});
  EXPECT_EQ(outcome.exitCode, std::nullopt);
  EXPECT_FALSE(outcome.options.checkConfig);
  EXPECT_EQ(outcome.options.port, std::nullopt);
  EXPECT_EQ(outcome.options.seconds, std::nullopt);
}

TEST(HostCommandLineTest, TheArchiveClientHasAScriptOrStdin) {
  EXPECT_EQ(Outcome({"--config", "a.json"}).options.archiveClient, std::nullopt);
  EXPECT_EQ(Outcome({"--config", "a.json", "--archive-client"}).options.archiveClient, "");
  EXPECT_EQ(Outcome({"--archive-client", "--config", "a.json"}).options.archiveClient, "");
  EXPECT_EQ(Outcome({"--archive-client", "-", "--config", "a.json"}).options.archiveClient, "-");
  const Outcome outcome({"--config", "a.json", "--archive-client", "script.txt"});
  EXPECT_EQ(outcome.exitCode, std::nullopt);
  EXPECT_EQ(outcome.options.archiveClient, "script.txt");
}

TEST(HostCommandLineTest, HelpAndVersionGoToStdout) {
  const Outcome help({"--help"});
  EXPECT_EQ(help.exitCode, 0);
  EXPECT_THAT(help.out, HasSubstr("--check-config"));
  EXPECT_THAT(help.out, HasSubstr("  find ID\n")) << "the client's commands";
  EXPECT_EQ(help.err, "");
  const Outcome version({"--version"});
  EXPECT_EQ(version.exitCode, 0);
  EXPECT_EQ(version.out, "orva_host " ORVA_VERSION "\n");
}

TEST(HostCommandLineTest, WrongUsageIsExplainedOnStderr) {
  const std::vector<std::vector<const char*>> wrong = {
      {},
      {"--config"},
      {"a.json"},
      {"--config", "a.json", "--unknown"},
      {"--config", "a.json", "more"},
      {"--config", "a.json", "--port", "65536"},
      {"--config", "a.json", "--port", "-1"},
      {"--config", "a.json", "--seconds", "-1"},
      {"--config", "a.json", "--seconds", "x"},
      {"--config", "a.json", "--archive-client", "a", "b"},
      {"--config", "a.json", "--archive-client", "--check-config"},
      {"--config", "a.json", "--archive-client", "--port", "0"}};
  for (const auto& arguments : wrong) {
    const Outcome outcome(arguments);
    EXPECT_EQ(outcome.exitCode, 2) << testing::PrintToString(arguments);
    EXPECT_NE(outcome.err, "") << testing::PrintToString(arguments);
    EXPECT_EQ(outcome.out, "") << testing::PrintToString(arguments);
  }
}

}  // namespace
}  // namespace orva::host
