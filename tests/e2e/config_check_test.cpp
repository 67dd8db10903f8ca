// orva_host --check-config, and the rest of the command line.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "share/json.h"
#include "support/host_process.h"
#include "support/temp_folder.h"

// After share/json.h, which says how the library is used.
#include <rapidjson/pointer.h>

namespace orva::test {
namespace {

using ::testing::HasSubstr;

// Every field that the host itself reads.
constexpr const char* kWholeConfig = R"({
  "log": {"levels": 48, "file": ""},
  "addins": ["liborva_database.so", "liborva_sqlite.so"],
  "layers": [{"number": 0, "cache": true, "resampleInterval": 0},
             {"number": 1, "cache": true, "resampleInterval": 600000000}],
  "variables": [
    {"id": 1, "path": "Plant/Load", "type": "Double",
     "layers": {"0": {"archive": 0, "parameter": 0}, "1": {"archive": 0}}},
    {"id": 2, "path": "Plant/Open", "type": "Boolean"}],
  "programs": [{"name": "load", "file": "load.lua", "cycleMs": 100}],
  "sources": [
    {"type": "system", "periodMs": 1000, "values": {"cpu.load": 1}},
    {"type": "csv", "file": "day.csv", "speed": 1.5, "values": {"load": 1}}],
  "http": {"bind": "127.0.0.1", "port": 0, "token": "secret", "web": "pages",
           "limits": {"bodyBytes": 1000, "headerBytes": 1000, "headerTimeMs": 1000,
                      "bodyTimeMs": 1000, "idleTimeMs": 1000, "connections": 10, "threads": 2}},
  "network": {"index": 1, "bind": "127.0.0.1", "basePort": 9000, "timeoutMs": 10000,
              "retryMs": 100, "retries": 6, "answerBytes": 262144,
              "controllers": [{"index": 2, "address": "127.0.0.1", "port": 9100}]},
  "DataArchive": {"archives": [{"connection": {"providerType": "sqlite", "location": "store"},
                                "limits": {}, "filter": {}}]},
  "EventsArchive": {},
  "RemoteData": {}
})";

class ConfigCheckTest : public ::testing::Test {
 protected:
  ConfigCheckTest() {
    folder_.write("load.lua", "function cycle() end\n");
    folder_.write("day.csv", "time,load\n2024-01-01T00:00:00Z,1\n");
    config_.Parse(kWholeConfig);
  }

  std::string file() const { return folder_.path("broken.json"); }

  ProgramResult checkText(const std::string& text) const {
    folder_.write("broken.json", text);
    return runHost({"--check-config", "--config", file(), "--addins", ORVA_ADDIN_DIR});
  }
  // The configuration with one change.
  template <class Change>
  ProgramResult checkWith(Change change) const {
    json::Document changed;
    changed.CopyFrom(config_, changed.GetAllocator());
    change(changed);
    rapidjson::StringBuffer text;
    rapidjson::Writer<rapidjson::StringBuffer> writer(text);
    changed.Accept(writer);
    return checkText(text.GetString());
  }
  // The value at a pointer replaced by a JSON text.
  ProgramResult checkReplaced(const std::string& pointer, const std::string& value) const {
    return checkWith([&](json::Document& config) {
      json::Document parsed(&config.GetAllocator());
      parsed.Parse(value);
      rapidjson::Pointer(pointer).Set(config, parsed.Move());
    });
  }

  // It fails, and one line of its errors begins with the file and the field.
  void expectFault(const ProgramResult& result, const std::string& field) const {
    EXPECT_EQ(result.exitCode, 1) << field;
    EXPECT_THAT("\n" + result.err, HasSubstr("\n" + file() + ": " + field + ": ")) << field;
    EXPECT_EQ(result.out, "") << field;
  }

  TempFolder folder_;
  json::Document config_;
};

TEST_F(ConfigCheckTest, AWholeConfigurationIsFine) {
  const ProgramResult result = checkText(kWholeConfig);
  EXPECT_EQ(result.exitCode, 0) << result.err;
}

// "/layers/0/number" -> "layers[0].number"
std::string placeOf(const std::string& pointer) {
  std::string place;
  const rapidjson::Pointer parsed(pointer);
  const auto* tokens = parsed.GetTokens();
  for (std::size_t i = 0; i < parsed.GetTokenCount(); ++i) {
    const std::string name = tokens[i].name;
    // The layers of a variable are members named by a number, not elements.
    const bool element = tokens[i].index != rapidjson::kPointerInvalidIndex && i != 3;
    place += element ? "[" + name + "]" : (place.empty() ? "" : ".") + name;
  }
  return place;
}

TEST_F(ConfigCheckTest, AFieldOfAWrongTypeOrValueIsNamed) {
  const std::pair<const char*, std::vector<const char*>> kFaults[] = {
      {"/log", {"5"}},
      {"/log/levels", {"\"48\"", "-1", "4294967296", "1.5"}},
      {"/log/file", {"5", "null"}},
      {"/addins", {"\"liborva_database.so\""}},
      {"/addins/0", {"5", "\"\""}},
      {"/layers", {"{}"}},
      {"/layers/0", {"[]"}},
      {"/layers/0/number", {"\"0\"", "-1", "2147483648"}},
      {"/layers/0/cache", {"1"}},
      {"/layers/0/resampleInterval", {"-1", "true", "9223372036854775808"}},
      {"/variables", {"5"}},
      {"/variables/0", {"null"}},
      {"/variables/0/id", {"\"1\"", "1e3", "9223372036854775808"}},
      {"/variables/0/path", {"5", "\"\""}},
      {"/variables/0/type", {"11", "\"double\"", "\"Number\""}},
      {"/variables/0/layers", {"[0]"}},
      {"/variables/0/layers/0", {"0"}},
      {"/variables/0/layers/0/archive", {"-1", "\"0\""}},
      {"/variables/0/layers/0/parameter", {"\"0\"", "0.5"}},
      {"/programs", {"{}"}},
      {"/programs/0/name", {"5", "\"\""}},
      {"/programs/0/file", {"5", "\"missing.lua\""}},
      {"/programs/0/cycleMs", {"0", "-1", "\"100\"", "86400001"}},
      {"/sources", {"{}"}},
      {"/sources/0/type", {"5", "\"xml\""}},
      {"/sources/0/periodMs", {"0", "\"1000\""}},
      {"/sources/0/values", {"[]"}},
      {"/sources/0/values/cpu.load", {"\"1\"", "77"}},
      {"/sources/1/file", {"5", "\"missing.csv\""}},
      {"/sources/1/speed", {"-1", "\"fast\"", "1e300"}},
      {"/http", {"8580"}},
      {"/http/bind", {"5", "\"localhost\"", "\"1.2.3\""}},
      {"/http/port", {"-1", "65536", "\"8580\""}},
      {"/http/token", {"5", "\"two words\""}},
      {"/http/web", {"5", "true"}},
      {"/http/limits", {"5"}},
      {"/http/limits/bodyBytes", {"0", "-1", "\"1\""}},
      {"/http/limits/headerBytes", {"0", "10000000000"}},
      {"/http/limits/headerTimeMs", {"0", "true"}},
      {"/http/limits/bodyTimeMs", {"0", "1.5"}},
      {"/http/limits/idleTimeMs", {"0", "null"}},
      {"/http/limits/connections", {"0", "100000"}},
      {"/http/limits/threads", {"0", "100000"}},
      {"/network", {"5"}},
      {"/network/index", {"-1", "\"1\"", "2147483648"}},
      {"/network/bind", {"5", "\"localhost\"", "\"\""}},
      {"/network/basePort", {"0", "65536", "\"9000\""}},
      {"/network/timeoutMs", {"9", "600001", "true"}},
      {"/network/retryMs", {"0", "801"}},
      {"/network/retries", {"-1", "1001"}},
      {"/network/answerBytes", {"1023", "262145"}},
      {"/network/controllers", {"{}"}},
      {"/network/controllers/0", {"2"}},
      {"/network/controllers/0/index", {"1", "-1", "\"2\""}},
      {"/network/controllers/0/address", {"5", "\"plc2\"", "\"::1\""}},
      {"/network/controllers/0/port", {"0", "9000", "null"}},
      {"/DataArchive", {"[]"}},
      {"/EventsArchive", {"\"\""}},
      {"/RemoteData", {"true"}},
  };
  for (const auto& [pointer, values] : kFaults) {
    for (const char* value : values) {
      SCOPED_TRACE(std::string(pointer) + " = " + value);
      expectFault(checkReplaced(pointer, value), placeOf(pointer));
    }
  }
}

TEST_F(ConfigCheckTest, AMissingFieldIsNamed) {
  for (const char* pointer :
       {"/layers/0/number", "/variables/0/id", "/variables/0/path", "/variables/0/type",
        "/variables/0/layers/0/archive", "/programs/0/name", "/programs/0/file", "/sources/0/type",
        "/sources/0/values", "/sources/1/file", "/network/index", "/network/basePort",
        "/network/controllers/0/index", "/network/controllers/0/address",
        "/network/controllers/0/port"}) {
    const ProgramResult result =
        checkWith([&](json::Document& config) { rapidjson::Pointer(pointer).Erase(config); });
    expectFault(result, placeOf(pointer));
    EXPECT_THAT(result.err, HasSubstr("is missing")) << pointer;
  }
}

TEST_F(ConfigCheckTest, AFieldThatNobodyKnowsIsNamed) {
  for (const char* pointer : {"/speed", "/log/level", "/layers/0/interval", "/variables/0/name",
                              "/variables/0/layers/0/arch", "/programs/0/cycle", "/sources/0/file",
                              "/http/ports", "/http/limits/body"}) {
    expectFault(checkReplaced(pointer, "1"), placeOf(pointer));
  }
}

TEST_F(ConfigCheckTest, WhatMustBeUniqueIsNamedWhenItIsThereTwice) {
  expectFault(checkReplaced("/layers/1/number", "0"), "layers[1].number");
  expectFault(checkReplaced("/variables/1/id", "1"), "variables[1].id");
  expectFault(checkReplaced("/variables/1/path", "\"Plant/Load\""), "variables[1].path");
  expectFault(checkReplaced("/programs/1", R"({"name": "load", "file": "load.lua"})"),
              "programs[1].name");
  expectFault(checkReplaced("/addins/1", "\"liborva_database.so\""), "addins[1]");
  expectFault(checkText(R"({"log": {}, "http": {"port": 1, "port": 2}})"), "http.port");
}

TEST_F(ConfigCheckTest, AnAddressOtherMachinesReachNeedsAToken) {
  expectFault(checkReplaced("/http", R"({"bind": "0.0.0.0", "port": 0})"), "http.token");
}

TEST_F(ConfigCheckTest, AnAddinThatCannotBeLoadedIsNamed) {
  const ProgramResult result = checkReplaced("/addins/1", "\"libno_such_addin.so\"");
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_THAT(result.err, HasSubstr("libno_such_addin.so"));
}

TEST_F(ConfigCheckTest, TextThatIsNoJsonIsPlacedByLineAndColumn) {
  expectFault(checkText("{\n  \"log\": {]\n}\n"), "line 2, column 11");
}

TEST_F(ConfigCheckTest, AConfigurationCutAnywhereIsRefused) {
  const std::string whole = R"({"log": {"levels": 48}, "layers": [{"number": 0}], "http": {}})";
  for (std::size_t length = 0; length < whole.size(); ++length) {
    const ProgramResult result = checkText(whole.substr(0, length));
    EXPECT_EQ(result.exitCode, 1) << length;
    EXPECT_THAT(result.err, HasSubstr(file() + ": ")) << length;
  }
}

TEST_F(ConfigCheckTest, AMillionNestedBracketsAreRefused) {
  const ProgramResult result = checkText("{\"log\":" + std::string(1'000'000, '['));
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_THAT(result.err, HasSubstr("nests deeper than 64 levels"));
}

TEST_F(ConfigCheckTest, AFileThatIsNotThereIsNamed) {
  const ProgramResult result = runHost({"--check-config", "--config", folder_.path("none.json")});
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_THAT(result.err, HasSubstr(folder_.path("none.json")));
}

TEST(CommandLineTest, HelpAndVersionGoToStandardOutput) {
  const ProgramResult help = runHost({"--help"});
  EXPECT_EQ(help.exitCode, 0);
  EXPECT_EQ(help.err, "");
  for (const char* option : {"--config", "--check-config", "--addins", "--version"}) {
    EXPECT_THAT(help.out, HasSubstr(option));
  }
  const ProgramResult version = runHost({"--version"});
  EXPECT_EQ(version.exitCode, 0);
  EXPECT_THAT(version.out, ::testing::MatchesRegex("orva_host [0-9]+\\.[0-9]+\\.[0-9]+\n"));
}

TEST(CommandLineTest, WrongUsageExitsWithTwo) {
  const std::vector<std::vector<std::string>> kWrong = {
      {}, {"--check-config"}, {"--config"}, {"--no-such-option"}, {"plant.json"}};
  for (const auto& arguments : kWrong) {
    const ProgramResult result = runHost(arguments);
    EXPECT_EQ(result.exitCode, 2) << ::testing::PrintToString(arguments);
    EXPECT_NE(result.err, "") << ::testing::PrintToString(arguments);
    EXPECT_EQ(result.out, "") << ::testing::PrintToString(arguments);
  }
}

}  // namespace
}  // namespace orva::test
