// docs/configuration.md has every field of the configuration, with its default, and no other. What
// the host reads itself is asked of the host; what add-ins read is taken from their sources.

#include <gtest/gtest.h>

#include <map>
#include <regex>
#include <set>

#include "orva_host/config_file.h"
#include "share/archive_configs.h"
#include "share/write_filter.h"
#include "sqlite_base/store_parameters.h"
#include "support/documentation.h"
#include "support/host_process.h"
#include "support/temp_folder.h"

namespace orva::test {
namespace {

using Names = std::set<std::string>;

struct Field {
  std::string type;
  std::string defaultText;  // as on the page: "required", JSON, or empty for none
};
using Fields = std::map<std::string, Field>;

// The part of a page below a heading, to the next one.
std::string sectionOf(const std::string& page, const std::string& heading) {
  const std::size_t begin = ("\n" + page).find("\n" + heading + "\n");
  EXPECT_NE(begin, std::string::npos) << heading;
  if (begin == std::string::npos) return {};
  const std::size_t end = page.find("\n#", begin + heading.size());
  return page.substr(begin, end - begin);
}

// The fields of the tables below a heading; the columns begin with field, type, default.
Fields fieldsOf(const std::string& page, const std::string& heading) {
  static const std::regex quoted("\"(\\w+)\"");
  Fields fields;
  for (const auto& row : tableRows(sectionOf(page, heading))) {
    if (row.size() < 3 || row[0].front() != '"') continue;
    for (std::sregex_iterator at(row[0].begin(), row[0].end(), quoted), end; at != end; ++at) {
      EXPECT_TRUE(fields.emplace((*at)[1], Field{row[1], row[2]}).second) << (*at)[1];
    }
  }
  EXPECT_FALSE(fields.empty()) << heading;
  return fields;
}

Names namesOf(const Fields& fields) {
  Names names;
  for (const auto& field : fields) names.insert(field.first);
  return names;
}

// All that a pattern finds in a source, its first group.
Names foundIn(const std::string& source, const std::string& pattern) {
  const std::string text = repositoryFile(source);
  const std::regex expression(pattern);
  Names names;
  for (std::sregex_iterator at(text.begin(), text.end(), expression), end; at != end; ++at) {
    names.insert((*at)[1]);
  }
  return names;
}

// An object of the configuration that the host reads.
struct Section {
  const char* heading;
  const char* place;   // how faults name it
  const char* before;  // the configuration up to the object's fields
  const char* after;
};

// For the messages of failures.
void PrintTo(const Section& section, std::ostream* out) { *out << section.heading; }

constexpr Section kSections[] = {
    {"# Configuration", "", "{", "}"},
    {"## \"log\"", "log.", R"({"log": {)", "}}"},
    {"## \"layers\"", "layers[0].", R"({"layers": [{)", "}]}"},
    {"## \"variables\"", "variables[0].", R"({"variables": [{)", "}]}"},
    {"### \"layers\" of a variable", "variables[0].layers.0.",
     R"({"layers": [{"number": 0}], "variables": [{"id": 1, "path": "a", "type": "Double",
         "layers": {"0": {)",
     "}}}]}"},
    {"## \"programs\"", "programs[0].", R"({"programs": [{)", "}]}"},
    {"### Sources of the type \"system\"", "sources[0].", R"({"sources": [{"type": "system")",
     "}]}"},
    {"### Sources of the type \"csv\"", "sources[0].", R"({"sources": [{"type": "csv")", "}]}"},
    {"## \"http\"", "http.", R"({"http": {)", "}}"},
    {"### \"limits\" of \"http\"", "http.limits.", R"({"http": {"limits": {)", "}}}"},
    {"## \"network\"", "network.", R"({"network": {)", "}}"},
    {"### \"controllers\"", "network.controllers[0].",
     R"({"network": {"index": 1, "basePort": 9000, "controllers": [{)", "}]}}"},
};

class ConfigurationPageTest : public ::testing::Test {
 protected:
  const std::string page_ = repositoryFile("docs/configuration.md");
};

class HostFieldsTest : public ConfigurationPageTest, public ::testing::WithParamInterface<Section> {
 protected:
  // What the host says of the fields that are given, by field.
  std::multimap<std::string, std::string> faultsOf(const std::string& members) const {
    const Section& section = GetParam();
    std::string text = section.before;
    const bool isBegun = text.back() == '"';
    text += (isBegun && !members.empty() ? ", " : "") + members + section.after;
    const std::string file = folder_.write("plant.json", text);
    const std::string start = file + ": " + section.place;
    std::multimap<std::string, std::string> faults;
    std::istringstream lines(runHost({"--check-config", "--config", file}).err);
    for (std::string line; std::getline(lines, line);) {
      if (line.compare(0, start.size(), start) != 0) continue;
      const std::string fault = line.substr(start.size());
      const std::size_t colon = fault.find(": ");
      faults.emplace(fault.substr(0, colon), fault.substr(std::min(colon, fault.size())));
    }
    return faults;
  }
  // Those of the names that the host takes for fields.
  Names known(const Names& candidates) const {
    std::string members;
    for (const std::string& name : candidates) {
      members += (members.empty() ? "\"" : ", \"") + name + "\": 5";
    }
    Names names = candidates;
    for (const auto& [name, what] : faultsOf(members)) {
      if (what.find("not a known field") != std::string::npos) names.erase(name);
    }
    return names;
  }

  TempFolder folder_;
};

// Whatever the readers may know is a text in their sources.
TEST_P(HostFieldsTest, EachFieldThatTheHostKnowsStandsOnThePage) {
  Names candidates = foundIn("host/orva_host/config_file.cpp", "\"(\\w+)\"");
  candidates.merge(foundIn("host/orva_host/network_config.cpp", "\"(\\w+)\""));
  EXPECT_GE(candidates.size(), 40U);
  EXPECT_LE(candidates.size(), 90U) << "the host tells of the first hundred faults alone";
  EXPECT_EQ(namesOf(fieldsOf(page_, GetParam().heading)), known(candidates));
}

TEST_P(HostFieldsTest, WhatThePageCallsRequiredIsAndNothingElse) {
  Names required;
  for (const auto& [name, field] : fieldsOf(page_, GetParam().heading)) {
    if (field.defaultText == "required" && name != "type") required.insert(name);
  }
  Names missing;
  for (const auto& [name, what] : faultsOf("")) {
    if (what.find("is missing") != std::string::npos && name != "type") missing.insert(name);
  }
  EXPECT_EQ(missing, required);
}

std::string wrongValueFor(const std::string& type) {
  if (type.find("text") == 0 || type.find("numeric address") == 0) return "5";
  if (type.find("boolean") == 0) return "1";
  if (type.find("integer") == 0 || type.find("number") == 0 || type.find("64-bit") == 0) {
    return "\"x\"";
  }
  return type.find("object") == 0 || type.find("array") == 0 ? "5" : "";
}

TEST_P(HostFieldsTest, AValueOfAnotherTypeIsRefusedAndTheDefaultIsNot) {
  for (const auto& [name, field] : fieldsOf(page_, GetParam().heading)) {
    SCOPED_TRACE(name);
    const bool isSource = std::string(GetParam().place) == "sources[0]." && name == "type";
    if (isSource) continue;  // the heading says it
    const std::string wrong = wrongValueFor(field.type);
    ASSERT_NE(wrong, "") << field.type;
    EXPECT_EQ(faultsOf("\"" + name + "\": " + wrong).count(name), 1U) << wrong;
    if (field.defaultText == "required" || field.defaultText.empty()) continue;
    EXPECT_EQ(faultsOf("\"" + name + "\": " + field.defaultText).count(name), 0U);
  }
}

INSTANTIATE_TEST_SUITE_P(Sections, HostFieldsTest, ::testing::ValuesIn(kSections));

// ---- defaults

std::string jsonOf(const std::string& text) { return "\"" + text + "\""; }
std::string jsonOf(bool flag) { return flag ? "true" : "false"; }
template <class Number>
std::string jsonOf(Number number) {
  std::ostringstream text;
  text << +number;
  return text.str();
}

// What the page has to say, by heading and field.
using Defaults = std::map<std::string, std::string>;

void expectDefaults(const std::string& page, const char* heading, const Defaults& defaults) {
  SCOPED_TRACE(heading);
  Defaults onThePage;
  for (const auto& [name, field] : fieldsOf(page, heading)) {
    if (field.defaultText != "required") onThePage[name] = field.defaultText;
  }
  EXPECT_EQ(onThePage, defaults);
}

TEST_F(ConfigurationPageTest, TheDefaultsOfTheHostAreThoseOfThePage) {
  const host::HostConfig config;
  expectDefaults(page_, "## \"log\"",
                 {{"levels", jsonOf(config.log.levels)}, {"file", jsonOf(config.log.file)}});
  const vm::Layer layer;
  expectDefaults(
      page_, "## \"layers\"",
      {{"cache", jsonOf(layer.cache)}, {"resampleInterval", jsonOf(layer.resampleInterval)}});
  expectDefaults(page_, "### \"layers\" of a variable",
                 {{"parameter", jsonOf(vm::ArchivedLayers()[0].second)}});
  expectDefaults(page_, "## \"programs\"", {{"cycleMs", jsonOf(host::ProgramCfg().cycleMs)}});
  const host::SourceCfg source;
  expectDefaults(page_, "### Sources of the type \"system\"",
                 {{"periodMs", jsonOf(source.periodMs)}});
  expectDefaults(page_, "### Sources of the type \"csv\"",
                 {{"speed", jsonOf(source.speed)}, {"values", "{}"}});
}

TEST_F(ConfigurationPageTest, TheDefaultsOfTheListenerAndTheNetworkAreThoseOfThePage) {
  const host::HttpCfg http;
  expectDefaults(page_, "## \"http\"",
                 {{"bind", jsonOf(http.bind)},
                  {"port", jsonOf(http.port)},
                  {"token", jsonOf(http.token)},
                  {"web", jsonOf(http.web)},
                  {"limits", "{}"}});
  const host::HttpLimits& limits = http.limits;
  expectDefaults(page_, "### \"limits\" of \"http\"",
                 {{"bodyBytes", jsonOf(limits.bodyBytes)},
                  {"headerBytes", jsonOf(limits.headerBytes)},
                  {"headerTimeMs", jsonOf(limits.headerTimeMs)},
                  {"bodyTimeMs", jsonOf(limits.bodyTimeMs)},
                  {"idleTimeMs", jsonOf(limits.idleTimeMs)},
                  {"connections", jsonOf(limits.connections)},
                  {"threads", jsonOf(limits.threads)}});
  const host::NetworkCfg network;
  expectDefaults(page_, "## \"network\"",
                 {{"bind", jsonOf(network.bind)},
                  {"controllers", "[]"},
                  {"timeoutMs", jsonOf(network.timing.timeoutMs)},
                  {"retryMs", jsonOf(network.timing.retryMs)},
                  {"retries", jsonOf(network.timing.retries)},
                  {"answerBytes", jsonOf(network.answerBytes)}});
}

TEST_F(ConfigurationPageTest, TheFieldsOfArchivesAreThoseThatTheirReadersKnow) {
  const std::string manager = "addins/orva_database/archive_manager.cpp";
  Names ofArchives = foundIn(manager, R"re(expectedMember\(entry, "(\w+)"\))re");
  EXPECT_EQ(namesOf(fieldsOf(page_, "### An archive")), ofArchives);
  EXPECT_EQ(namesOf(fieldsOf(page_, "## \"DataArchive\"")),
            foundIn("addins/orva_database/archive_section.cpp", R"re(ember\(cfg, "(\w+)"\))re"));
  const std::string configs = "addins/orva_database/configs.cpp";
  EXPECT_EQ(namesOf(fieldsOf(page_, "### \"connection\"")),
            foundIn(configs, R"re(member\(connection, "(\w+)"\))re"));
  EXPECT_EQ(namesOf(fieldsOf(page_, "### \"limits\" of an archive")),
            foundIn(configs, R"re(member\(limits, "(\w+)"\))re"));
  EXPECT_EQ(namesOf(fieldsOf(page_, "### \"filter\"")),
            foundIn("addins/orva_database/filter.cpp", R"re(member\(value, "(\w+)"\))re"));
}

TEST_F(ConfigurationPageTest, TheDefaultsOfArchivesAreThoseOfThePage) {
  const archive::ConnectionCfg connection;
  expectDefaults(page_, "### \"connection\"",
                 {{"providerType", jsonOf(connection.providerType)},
                  {"location", jsonOf(connection.location)},
                  {"parameters", jsonOf(connection.parameters)},
                  {"reconnectTimeout", jsonOf(connection.reconnectTimeout)},
                  {"connectionsCount", jsonOf(connection.connectionsCount)},
                  {"user", jsonOf(connection.user)},
                  {"pass", jsonOf(connection.pass)},
                  {"host", jsonOf(connection.host)},
                  {"port", jsonOf(connection.port)}});
  const archive::ArchiveCfg limits;
  expectDefaults(page_, "### \"limits\" of an archive",
                 {{"writeBufferSize", jsonOf(limits.writeBufferSize)},
                  {"writePeriod", jsonOf(limits.writePeriod)},
                  {"maxWriteValues", jsonOf(limits.maxWriteValues)},
                  {"maxTime", jsonOf(limits.maxTime)},
                  {"maxSize", jsonOf(limits.maxSize)},
                  {"cleanupPeriod", jsonOf(limits.cleanupPeriod)},
                  {"maxDelValues", jsonOf(limits.maxDelValues)}});
  const archive::Filter filter;
  expectDefaults(page_, "### \"filter\"",
                 {{"allValues", jsonOf(filter.allValues)},
                  {"writeByChange", jsonOf(filter.writeByChange)},
                  {"deadband", jsonOf(filter.deadband)},
                  {"minWritePeriod", jsonOf(filter.minWritePeriod)},
                  {"maxWritePeriod", jsonOf(filter.maxWritePeriod)}});
}

// What a wrong type gives, as the page says it.
TEST_F(ConfigurationPageTest, AWrongTypeInAnArchivesLimitsDoesWhatThePageSays) {
  json::Document wrong;
  wrong.Parse(R"({"writeBufferSize": [], "writePeriod": [], "maxWriteValues": [], "maxTime": [],
                  "maxSize": [], "cleanupPeriod": [], "maxDelValues": []})");
  const archive::ArchiveCfg limits(wrong);
  const std::map<std::string, std::string> got = {
      {"writeBufferSize", jsonOf(limits.writeBufferSize)},
      {"writePeriod", jsonOf(limits.writePeriod)},
      {"maxWriteValues", jsonOf(limits.maxWriteValues)},
      {"maxTime", jsonOf(limits.maxTime)},
      {"maxSize", jsonOf(limits.maxSize)},
      {"cleanupPeriod", jsonOf(limits.cleanupPeriod)},
      {"maxDelValues", jsonOf(limits.maxDelValues)}};
  int rows = 0;
  for (const auto& row : tableRows(sectionOf(page_, "### \"limits\" of an archive"))) {
    if (row[0].front() != '"') continue;
    const std::string name = row[0].substr(1, row[0].size() - 2);
    EXPECT_EQ(got.at(name), row[3] == "default" ? row[2] : row[3]) << name;
    ++rows;
  }
  EXPECT_EQ(rows, 7);
}

TEST_F(ConfigurationPageTest, TheParametersOfSqliteArchivesAreThoseThatAreKnown) {
  const sqlite::StoreParameters defaults;
  const std::map<std::string, std::string> expected = {
      {"synchronous", defaults.synchronous},
      {"cacheKiB", jsonOf(defaults.cacheKiB)},
      {"checkpointPages", jsonOf(defaults.checkpointPages)}};
  std::map<std::string, std::string> onThePage;
  for (const auto& row : tableRows(sectionOf(page_, "### \"parameters\" of SQLite archives"))) {
    if (!codeOf(row[0]).empty()) onThePage[codeOf(row[0])] = row[2];
  }
  EXPECT_EQ(onThePage, expected);
  EXPECT_EQ(foundIn("addins/sqlite_base/store_parameters.cpp", R"re(isWord\(key, "(\w+)"\))re"),
            (Names{"synchronous", "cacheKiB", "checkpointPages"}));
}

TEST_F(ConfigurationPageTest, TheFieldsOfRemoteDataAreThoseThatTheirReadersKnow) {
  const std::string source = "addins/orva_database/remote_archive_source.cpp";
  const std::string info = "addins/orva_database/remote_source_info.cpp";
  Names known = foundIn(source, R"re(member\(\w+, "(\w+)"\))re");
  known.merge(foundIn(info, R"re((?:member|textOf)\(item, "(\w+)"\))re"));
  EXPECT_EQ(namesOf(fieldsOf(repositoryFile("docs/remote-data.md"), "## Setting it up")), known);
}

}  // namespace
}  // namespace orva::test
