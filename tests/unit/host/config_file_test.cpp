#include "orva_host/config_file.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>

#include "share/json.h"

namespace orva::host {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

const char kWhole[] = R"({
  "log": {"levels": 16, "file": "log/host.log"},
  "addins": ["liborva_database.so", "./own/libown.so", "/opt/libother.so"],
  "layers": [{"number": 0, "cache": true}, {"number": 2, "resampleInterval": 36000000000}],
  "variables": [
    {"id": 1, "path": "Plant/Load", "type": "Double",
     "layers": {"0": {"archive": 0, "parameter": -7}, "2": {"archive": 1}}},
    {"id": -9223372036854775808, "path": "Plant/On", "type": "Boolean"}],
  "programs": [{"name": "system", "file": "programs/system.lua", "cycleMs": 50}],
  "sources": [
    {"type": "system", "periodMs": 500, "values": {"cpu.load": 1}},
    {"type": "csv", "file": "day.csv", "speed": "max", "values": {"Load": 1}},
    {"type": "csv", "file": "/data/day.csv", "speed": 2.5}],
  "http": {"bind": "::1", "port": 0, "token": "secret", "limits": {
    "bodyBytes": 1000, "headerBytes": 2000, "headerTimeMs": 30, "bodyTimeMs": 40,
    "idleTimeMs": 50, "connections": 6, "threads": 7}},
  "network": {"index": 1, "basePort": 9000},
  "DataArchive": {"archives": [{"limits": {"maxTime": 9007199254740993}}], "x": 0.1},
  "EventsArchive": {},
  "RemoteData": {"requestPeriod": 1000}
})";

std::vector<std::string> errorsOf(const std::string& text, HostConfig& config) {
  std::vector<std::string> errors;
  const bool fine = readConfigText(text, "/etc/orva/host.json", config, errors);
  EXPECT_EQ(fine, errors.empty());
  return errors;
}

std::vector<std::string> errorsOf(const std::string& text) {
  HostConfig config;
  return errorsOf(text, config);
}

TEST(ConfigFileTest, EveryFieldIsRead) {
  HostConfig config;
  ASSERT_THAT(errorsOf(kWhole, config), IsEmpty());
  EXPECT_EQ(config.log.levels, 16U);
  EXPECT_EQ(config.log.file, "/etc/orva/log/host.log");
  EXPECT_THAT(config.addins,
              ElementsAre("liborva_database.so", "/etc/orva/own/libown.so", "/opt/libother.so"));
  ASSERT_EQ(config.layers.size(), 2U);
  EXPECT_TRUE(config.layers[0].cache);
  EXPECT_EQ(config.layers[1].number, 2);
  EXPECT_EQ(config.layers[1].resampleInterval, 36'000'000'000);
  ASSERT_EQ(config.variables.size(), 2U);
  EXPECT_EQ(config.variables[0].item.path, "Plant/Load");
  EXPECT_EQ(config.variables[0].item.type, OpcUaType_Double);
  EXPECT_EQ(config.variables[0].layers.at(0), (std::pair<std::int32_t, std::int64_t>(0, -7)));
  EXPECT_EQ(config.variables[0].layers.at(2), (std::pair<std::int32_t, std::int64_t>(1, 0)));
  EXPECT_EQ(config.variables[1].item.id, INT64_MIN);
  EXPECT_EQ(config.folder, "/etc/orva");
}

TEST(ConfigFileTest, ProgramsSourcesAndListenerAreRead) {
  HostConfig config;
  ASSERT_THAT(errorsOf(kWhole, config), IsEmpty());
  ASSERT_EQ(config.programs.size(), 1U);
  EXPECT_EQ(config.programs[0].name, "system");
  EXPECT_EQ(config.programs[0].file, "/etc/orva/programs/system.lua");
  EXPECT_EQ(config.programs[0].cycleMs, 50);
  ASSERT_EQ(config.sources.size(), 3U);
  EXPECT_EQ(config.sources[0].periodMs, 500);
  EXPECT_EQ(config.sources[0].values.at("cpu.load"), 1);
  EXPECT_EQ(config.sources[1].speed, 0);
  EXPECT_EQ(config.sources[1].file, "/etc/orva/day.csv");
  EXPECT_EQ(config.sources[2].speed, 2.5);
  EXPECT_EQ(config.sources[2].file, "/data/day.csv");
  EXPECT_TRUE(config.http.enabled);
  EXPECT_EQ(config.http.bind, "::1");
  EXPECT_EQ(config.http.port, 0);
  EXPECT_EQ(config.http.token, "secret");
  const HttpLimits& limits = config.http.limits;
  EXPECT_EQ(limits.bodyBytes, 1000U);
  EXPECT_EQ(limits.headerBytes, 2000U);
  EXPECT_EQ(limits.headerTimeMs, 30);
  EXPECT_EQ(limits.bodyTimeMs, 40);
  EXPECT_EQ(limits.idleTimeMs, 50);
  EXPECT_EQ(limits.connections, 6U);
  EXPECT_EQ(limits.threads, 7);
}

TEST(ConfigFileTest, SectionsOfAddinsComeAsTextWithTheirNumbersWhole) {
  HostConfig config;
  ASSERT_THAT(errorsOf(kWhole, config), IsEmpty());
  EXPECT_EQ(config.sections.at("DataArchive"),
            R"({"archives":[{"limits":{"maxTime":9007199254740993}}],"x":0.1})");
  EXPECT_EQ(config.sections.at("EventsArchive"), "{}");
  EXPECT_EQ(config.sections.at("network"), R"({"index":1,"basePort":9000})");
  EXPECT_EQ(config.sections.count("http"), 0U);
}

TEST(ConfigFileTest, EmptyObjectGivesTheDefaults) {
  HostConfig config;
  ASSERT_THAT(errorsOf("{}", config), IsEmpty());
  EXPECT_EQ(config.log.levels, 48U);
  EXPECT_EQ(config.log.file, "");
  EXPECT_FALSE(config.http.enabled);
  ASSERT_THAT(errorsOf(R"({"http":{}})", config), IsEmpty());
  EXPECT_TRUE(config.http.enabled);
  EXPECT_EQ(config.http.bind, "127.0.0.1");
  EXPECT_EQ(config.http.port, 8580);
  EXPECT_EQ(config.http.limits.bodyBytes, 1048576U);
  EXPECT_EQ(config.http.limits.headerTimeMs, 10'000);
  EXPECT_EQ(config.http.limits.bodyTimeMs, 10'000);
  EXPECT_EQ(config.http.limits.connections, 64U);
}

struct Fault {
  const char* text;
  const char* error;  // without the file's name
};

class ConfigFaultTest : public testing::TestWithParam<Fault> {};

TEST_P(ConfigFaultTest, IsReportedWithFileAndField) {
  EXPECT_THAT(errorsOf(GetParam().text),
              ElementsAre(std::string("/etc/orva/host.json: ") + GetParam().error));
}

INSTANTIATE_TEST_SUITE_P(
    All, ConfigFaultTest,
    testing::Values(
        Fault{"[]", "must be an object"}, Fault{"7", "must be an object"},
        Fault{"", "line 1, column 1: The document is empty."},
        Fault{"{\n \"log\": }", "line 2, column 9: Invalid value."},
        Fault{"{\"log\":\"\xFF\"}", "line 1, column 9: Invalid encoding in string."},
        Fault{R"({"logs":{}})", "logs: is not a known field"},
        Fault{R"({"log":{},"log":{}})", "log: is there twice"},
        Fault{R"({"log":[]})", "log: must be an object"},
        Fault{R"({"log":{"levels":-1}})", "log.levels: must be an integer from 0 to 4294967295"},
        Fault{R"({"log":{"levels":1.5}})", "log.levels: must be an integer from 0 to 4294967295"},
        Fault{R"({"log":{"file":5}})", "log.file: must be a text"},
        Fault{R"({"log":{"level":5}})", "log.level: is not a known field"},
        Fault{R"({"addins":{}})", "addins: must be an array"},
        Fault{R"({"addins":["a.so",5]})", "addins[1]: must be the name of a file"},
        Fault{R"({"addins":["a.so","a.so"]})", "addins[1]: is there twice"},
        Fault{R"({"layers":[5]})", "layers[0]: must be an object"},
        Fault{R"({"layers":[{}]})", "layers[0].number: is missing"},
        Fault{R"({"layers":[{"number":0,"cache":1}]})", "layers[0].cache: must be true or false"},
        Fault{R"({"layers":[{"number":0,"resampleInterval":9223372036854775808}]})",
              "layers[0].resampleInterval: must be an integer from 0 to 9223372036854775807"},
        Fault{R"({"layers":[{"number":3},{"number":3}]})",
              "layers[1].number: another layer has it already"}));

INSTANTIATE_TEST_SUITE_P(
    Variables, ConfigFaultTest,
    testing::Values(
        Fault{R"({"variables":[{"path":"a","type":"Double"}]})", "variables[0].id: is missing"},
        Fault{R"({"variables":[{"id":"1","path":"a","type":"Double"}]})",
              "variables[0].id: must be an integer from -9223372036854775808 to "
              "9223372036854775807"},
        Fault{R"({"variables":[{"id":1,"type":"Double"}]})", "variables[0].path: is missing"},
        Fault{R"({"variables":[{"id":1,"path":"","type":"Double"}]})",
              "variables[0].path: must not be empty"},
        Fault{R"({"variables":[{"id":1,"path":"a"}]})", "variables[0].type: is missing"},
        Fault{R"({"variables":[{"id":1,"path":"a","type":"Null"}]})",
              "variables[0].type: \"Null\" is not the name of a built-in type"},
        Fault{R"({"variables":[{"id":1,"path":"a","type":"Double"},
                               {"id":1,"path":"b","type":"Double"}]})",
              "variables[1].id: another variable has it already"},
        Fault{R"({"variables":[{"id":1,"path":"a","type":"Double"},
                               {"id":2,"path":"a","type":"Double"}]})",
              "variables[1].path: another variable has it already"},
        Fault{R"({"variables":[{"id":1,"path":"a","type":"Double","layers":[]}]})",
              "variables[0].layers: must be an object"},
        Fault{R"({"variables":[{"id":1,"path":"a","type":"Double","layers":{"0":{"archive":0}}}]})",
              "variables[0].layers.0: is not the number of a layer of the section \"layers\""},
        Fault{R"({"layers":[{"number":0}],"variables":[
               {"id":1,"path":"a","type":"Double","layers":{"4294967296":{"archive":0}}}]})",
              "variables[0].layers.4294967296: is not the number of a layer of the section "
              "\"layers\""},
        Fault{R"({"layers":[{"number":0}],"variables":[
               {"id":1,"path":"a","type":"Double","layers":{"00":{"archive":0}}}]})",
              "variables[0].layers.00: is not the number of a layer of the section \"layers\""},
        Fault{R"({"layers":[{"number":0}],"variables":[
               {"id":1,"path":"a","type":"Double","layers":{"0":{}}}]})",
              "variables[0].layers.0.archive: is missing"},
        Fault{R"({"layers":[{"number":0}],"variables":[
               {"id":1,"path":"a","type":"Double","layers":{"0":{"archive":0,"x":1}}}]})",
              "variables[0].layers.0.x: is not a known field"}));

INSTANTIATE_TEST_SUITE_P(
    Runners, ConfigFaultTest,
    testing::Values(Fault{R"({"programs":[{"file":"a.lua"}]})", "programs[0].name: is missing"},
                    Fault{R"({"programs":[{"name":"a"}]})", "programs[0].file: is missing"},
                    Fault{R"({"programs":[{"name":"a","file":"a.lua","cycleMs":0}]})",
                          "programs[0].cycleMs: must be an integer from 1 to 86400000"},
                    Fault{R"({"programs":[{"name":"a","file":"a"},{"name":"a","file":"b"}]})",
                          "programs[1].name: another program has it already"},
                    Fault{R"({"sources":[{"values":{}}]})", "sources[0].type: is missing"},
                    Fault{R"({"sources":[{"type":"x"}]})",
                          "sources[0].type: must be \"system\" or \"csv\""},
                    Fault{R"({"sources":[{"type":"system","values":{"cpu.load":1}}]})",
                          "sources[0].values.cpu.load: there is no variable with the id 1"},
                    Fault{R"({"sources":[{"type":"system","values":{},"speed":1}]})",
                          "sources[0].speed: is not a known field"},
                    Fault{R"({"sources":[{"type":"csv"}]})", "sources[0].file: is missing"},
                    Fault{R"({"sources":[{"type":"csv","file":"a","speed":-1}]})",
                          "sources[0].speed: must be a number from 0 to 1e+09"},
                    Fault{R"({"sources":[{"type":"csv","file":"a","speed":"fast"}]})",
                          "sources[0].speed: must be a number from 0 to 1e+09"},
                    Fault{R"({"sources":[{"type":"csv","file":"a","values":5}]})",
                          "sources[0].values: must be an object"}));

INSTANTIATE_TEST_SUITE_P(
    Http, ConfigFaultTest,
    testing::Values(
        Fault{R"({"http":5})", "http: must be an object"},
        Fault{R"({"http":{"port":65536}})", "http.port: must be an integer from 0 to 65535"},
        Fault{R"({"http":{"bind":"localhost"}})",
              "http.bind: \"localhost\" is not a numeric IP address"},
        Fault{R"({"http":{"bind":"0.0.0.0"}})",
              "http.token: must be set, since http.bind is reached from other machines"},
        Fault{R"({"http":{"bind":"::","token":""}})",
              "http.token: must be set, since http.bind is reached from other machines"},
        Fault{R"({"http":{"token":"a b"}})",
              "http.token: must consist of visible ASCII characters"},
        Fault{R"({"http":{"limits":{"connections":0}}})",
              "http.limits.connections: must be an integer from 1 to 10000"},
        Fault{R"({"http":{"limits":{"body":0}}})", "http.limits.body: is not a known field"},
        Fault{R"({"DataArchive":[]})", "DataArchive: must be an object"},
        Fault{R"({"network":5})", "network: must be an object"}));

TEST(ConfigFileTest, AllFaultsAreReportedAtOnce) {
  EXPECT_EQ(errorsOf(R"({"log":5,"addins":5,"layers":5,"http":5,"other":5})").size(), 5U);
}

TEST(ConfigFileTest, ListOfFaultsEndsSomewhere) {
  std::string text = "{\"layers\":[0";
  for (int i = 0; i < 5000; ++i) text += ",0";
  const auto errors = errorsOf(text + "]}");
  ASSERT_EQ(errors.size(), 101U);
  EXPECT_THAT(errors.back(), HasSubstr("more faults are not listed"));
}

TEST(ConfigFileTest, OutsideBindIsFineWithAToken) {
  EXPECT_THAT(errorsOf(R"({"http":{"bind":"0.0.0.0","token":"t"}})"), IsEmpty());
  EXPECT_THAT(errorsOf(R"({"http":{"bind":"127.8.9.10"}})"), IsEmpty());
}

TEST(ConfigFileTest, DeepNestingIsRefused) {
  const auto nested = [](std::size_t depth) {
    return "{\"DataArchive\":{\"a\":" + std::string(depth - 2, '[') + std::string(depth - 2, ']') +
           "}}";
  };
  EXPECT_THAT(errorsOf(nested(64)), IsEmpty());
  EXPECT_THAT(errorsOf(nested(65)), ElementsAre(HasSubstr("nests deeper than 64 levels")));
  EXPECT_THAT(errorsOf(nested(1'000'000)), ElementsAre(HasSubstr("nests deeper")));
}

TEST(ConfigFileTest, TextCutAnywhereIsRefused) {
  const std::string whole = kWhole;
  for (std::size_t length = 0; length < whole.size(); ++length) {
    EXPECT_FALSE(errorsOf(whole.substr(0, length)).empty()) << length;
  }
}

// Puts each of `replacements` in the place of every value of the document, one at a time.
void replaceEach(json::Value& value, json::Document& document, const json::Document& replacements,
                 int& tried) {
  const auto tryAll = [&](json::Value& target) {
    for (const auto& replacement : replacements.GetArray()) {
      json::Value kept = std::move(target);
      target.CopyFrom(replacement, document.GetAllocator());
      rapidjson::StringBuffer text;
      rapidjson::Writer<rapidjson::StringBuffer> writer(text);
      document.Accept(writer);
      errorsOf(text.GetString());  // a clear end, whatever it is
      ++tried;
      target = std::move(kept);
    }
    replaceEach(target, document, replacements, tried);
  };
  if (value.IsObject()) {
    for (auto& member : value.GetObject()) tryAll(member.value);
  } else if (value.IsArray()) {
    for (auto& element : value.GetArray()) tryAll(element);
  }
}

TEST(ConfigFileTest, ValueOfAnyTypeInAnyPlaceEndsClearly) {
  json::Document document;
  json::Document replacements;
  document.Parse(kWhole);
  replacements.Parse(
      "[null, true, -1, 18446744073709551615, 1e308, \"\", \"x\", [], [[]], {}, "
      "{\"a\": 1}]");
  int tried = 0;
  replaceEach(document, document, replacements, tried);
  EXPECT_GT(tried, 500);
  EXPECT_THAT(errorsOf(kWhole), IsEmpty());
}

class ConfigOnDiskTest : public testing::Test {
 protected:
  ConfigOnDiskTest() { std::filesystem::create_directories(folder_); }
  ~ConfigOnDiskTest() override { std::filesystem::remove_all(folder_); }

  std::string write(const std::string& name, const std::string& text) const {
    std::ofstream(folder_ + "/" + name) << text;
    return folder_ + "/" + name;
  }
  std::vector<std::string> errorsOfFile(const std::string& path) {
    std::vector<std::string> errors;
    const bool fine = readConfigFile(path, config_, errors);
    EXPECT_EQ(fine, errors.empty());
    return errors;
  }

  const std::string folder_ = testing::TempDir() + "config_test." + std::to_string(getpid());
  HostConfig config_;
};

TEST_F(ConfigOnDiskTest, FileIsReadAndItsFolderKnown) {
  write("p.lua", "");
  const std::string path = write("host.json", R"({"programs":[{"name":"p","file":"p.lua"}]})");
  EXPECT_THAT(errorsOfFile(path), IsEmpty());
  EXPECT_EQ(config_.folder, folder_);
  EXPECT_EQ(config_.programs[0].file, folder_ + "/p.lua");
}

TEST_F(ConfigOnDiskTest, UnreadableFileSaysWhy) {
  EXPECT_THAT(errorsOfFile(folder_ + "/none.json"),
              ElementsAre(folder_ + "/none.json: cannot be read: No such file or directory"));
  EXPECT_THAT(errorsOfFile(folder_), ElementsAre(folder_ + ": cannot be read: Is a directory"));
}

TEST_F(ConfigOnDiskTest, MissingProgramIsAFault) {
  const std::string path = write("host.json", R"({"programs":[{"name":"p","file":"none.lua"}],
                             "sources":[{"type":"csv","file":"none.csv"}]})");
  EXPECT_THAT(errorsOfFile(path),
              ElementsAre(path + ": programs[0].file: \"" + folder_ +
                              "/none.lua\" cannot be read: No such file or directory",
                          path + ": sources[0].file: \"" + folder_ +
                              "/none.csv\" cannot be read: No such file or directory"));
}

}  // namespace
}  // namespace orva::host
