#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <sstream>

#include "orva_cli/failure.h"
#include "orva_cli/host_client.h"
#include "orva_cli/options.h"

namespace orva::cli {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

struct Parsed {
  Options options;
  std::optional<int> exitCode;
  std::string out;
  std::string err;
};

Parsed parse(std::vector<const char*> arguments) {
  arguments.insert(arguments.begin(), "orva");
  Parsed parsed;
  std::ostringstream out;
  std::ostringstream err;
  parsed.exitCode =
      readOptions(static_cast<int>(arguments.size()), arguments.data(), parsed.options, out, err);
  parsed.out = out.str();
  parsed.err = err.str();
  return parsed;
}

TEST(OptionsTest, ReadTakesItemsRangeAndFormat) {
  const Parsed parsed = parse({"read", "Plant/Load", "12", "--from", "-1h", "--to", "now", "--csv",
                               "--points", "500", "--host", "http://station:1"});
  ASSERT_FALSE(parsed.exitCode) << parsed.err;
  EXPECT_EQ(parsed.options.command, Command::kRead);
  EXPECT_THAT(parsed.options.items, ElementsAre("Plant/Load", "12"));
  EXPECT_EQ(parsed.options.from->at(10'000'000), 6'400'000);
  EXPECT_EQ(parsed.options.to->at(10'000'000), 10'000'000);
  EXPECT_EQ(parsed.options.format, Format::kCsv);
  EXPECT_EQ(parsed.options.points, 500);
  EXPECT_EQ(parsed.options.host, "http://station:1");
}

TEST(OptionsTest, UtcHoldsForTimesBeforeAndBehindIt) {
  setenv("TZ", "XYZ-3", 1);
  tzset();
  const Parsed utc = parse({"read", "A", "--from", "2026-03-01T08:00", "--utc"});
  const Parsed local = parse({"read", "A", "--from", "2026-03-01T11:00"});
  setenv("TZ", "UTC0", 1);
  tzset();
  ASSERT_FALSE(utc.exitCode) << utc.err;
  EXPECT_EQ(utc.options.from->at(0), 1'772'352'000'000);
  EXPECT_EQ(local.options.from->at(0), 1'772'352'000'000);
}

TEST(OptionsTest, JsonOfTailHasALineForEachValue) {
  EXPECT_EQ(parse({"tail", "A", "--json"}).options.format, Format::kJsonLines);
  EXPECT_EQ(parse({"read", "A", "--json"}).options.format, Format::kJson);
}

TEST(OptionsTest, WhatIsWrongIsSaidAndEndsWithTwo) {
  const std::vector<std::pair<std::vector<const char*>, const char*>> wrong = {
      {{}, "A command is required"},
      {{"storage"}, "not expected"},
      {{"store"}, "One of check, stat, export, import and compact is required"},
      {{"store", "nonsense"}, "not expected"},
      {{"read"}, "ITEM is required"},
      {{"read", "A", "--from", "noon"}, "--from: \"noon\" is no time"},
      {{"read", "A", "--to", "2026-02-30"}, "--to: \"2026-02-30\" is no time"},
      {{"read", "A", "--points", "2"}, "--points"},
      {{"read", "A", "--points", "x"}, "--points"},
      {{"read", "A", "--limit", "0"}, "--limit"},
      {{"read", "A", "--limit", "5", "--points", "5"}, "excludes"},
      {{"read", "A", "--csv", "--json"}, "excludes"},
      {{"tail", "A", "--interval", "0"}, "--interval"},
      {{"tail", "A", "--nonsense"}, "--nonsense"},
  };
  for (const auto& [arguments, text] : wrong) {
    const Parsed parsed = parse(arguments);
    EXPECT_EQ(parsed.exitCode, kExitUsage) << text;
    EXPECT_THAT(parsed.err, HasSubstr(text));
    EXPECT_EQ(parsed.out, "");
  }
}

TEST(OptionsTest, HelpAndVersionGoToStdout) {
  const Parsed help = parse({"--help"});
  EXPECT_EQ(help.exitCode, kExitFine);
  EXPECT_THAT(help.out, HasSubstr("orva read Plant/Tank/Level"));
  EXPECT_EQ(parse({"--version"}).out, "orva " ORVA_VERSION "\n");
  EXPECT_THAT(parse({"read", "--help"}).out, HasSubstr("-1d12h"));
}

TEST(OptionsTest, TheTokenIsTakenFromTheEnvironmentAndNeverShown) {
  setenv("ORVA_TOKEN", "very-secret", 1);
  const Parsed parsed = parse({"status"});
  const Parsed help = parse({"--help"});
  const Parsed wrong = parse({"read"});
  unsetenv("ORVA_TOKEN");
  EXPECT_EQ(parsed.options.token, "very-secret");
  EXPECT_EQ((help.out + help.err + wrong.out + wrong.err).find("very-secret"), std::string::npos);
}

TEST(HostUrlTest, NameAndPortAreTaken) {
  HostAddress address;
  ASSERT_TRUE(readHostUrl("http://127.0.0.1:8580", address));
  EXPECT_EQ(address.name, "127.0.0.1");
  EXPECT_EQ(address.port, "8580");
  ASSERT_TRUE(readHostUrl("http://station/", address));
  EXPECT_EQ(address.name, "station");
  EXPECT_EQ(address.port, "80");
  ASSERT_TRUE(readHostUrl("http://[::1]:81", address));
  EXPECT_EQ(address.name, "::1");
  EXPECT_EQ(address.port, "81");
}

TEST(HostUrlTest, OtherTextsAreNoAddress) {
  HostAddress address;
  for (const char* url :
       {"", "station", "https://station", "http://", "http://:80", "http://a:", "http://a:x",
        "http://a:65536", "http://a/b", "http://me@a", "http://a b"}) {
    EXPECT_FALSE(readHostUrl(url, address)) << url;
  }
}

TEST(HostClientTest, ATokenThatWouldBreakTheHeaderIsRefusedWithoutShowingIt) {
  try {
    HostClient("http://127.0.0.1:1", "evil\r\nX: y");
    FAIL() << "it was taken";
  } catch (const UsageError& error) {
    EXPECT_EQ(std::string(error.what()).find("evil"), std::string::npos);
  }
}

}  // namespace
}  // namespace orva::cli
