// The examples of the documentation, run as they stand there.

#include "support/documentation.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "share/json.h"
#include "sqlite_base/database.h"
#include "support/plant.h"

namespace orva::test {
namespace {

// A fenced block of a page: ```<info>, lines, ```.
struct Fence {
  std::string info;
  std::string text;
};

std::vector<Fence> fencesOf(const std::string& page) {
  std::istringstream lines(readFile(std::string(ORVA_SOURCE_DIR) + "/" + page));
  std::vector<Fence> fences;
  bool inside = false;
  for (std::string line; std::getline(lines, line);) {
    if (line.compare(0, 3, "```") == 0) {
      inside = !inside;
      if (inside) fences.push_back({line.substr(3), {}});
    } else if (inside) {
      fences.back().text += line + "\n";
    }
  }
  return fences;
}

constexpr const char* kFourSamples = R"(
local load = ArchiveProc.new{Id = 1, Path = "Plant/Load"}
local values = {20.5, 21, 19.75, 22}
function cycle()
  if load.Value then return end
  for n, value in ipairs(values) do
    load.Value = DataValue{Value = value, SourceTime = 1700000000000 + 1000 * (n - 1),
                           Status = n == 3 and 0x40000000 or 0}
    load()
  end
end
)";

class JsonMethodsPageTest : public ::testing::Test {
 protected:
  void SetUp() override {
    PlantConfig config;
    config.variables = "[" + variable(1, "Plant/Load", "Double") + "]";
    config.programs = "[" + program("writer", "writer.lua", 10) + "]";
    plant_.configure(config);
    plant_.folder().write("writer.lua", kFourSamples);
    ASSERT_TRUE(plant_.start());
    ASSERT_TRUE(plant_.waitForValue(plant_.itemId("Plant/Load"), "22.0"));
  }

  // `info` is "json request <method>" or "json request GET <path>".
  std::string run(const Fence& request) {
    const std::string what = request.info.substr(std::string("json request ").size());
    if (what.compare(0, 4, "GET ") != 0) return plant_.client().call(what, request.text).body;
    HttpConnection connection(plant_.port());
    connection.send(what + " HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n");
    return connection.receive().body;
  }

  static void expectSameJson(const std::string& got, const std::string& documented) {
    json::Document left;
    json::Document right;
    left.Parse(got);
    right.Parse(documented);
    ASSERT_FALSE(left.HasParseError()) << got;
    ASSERT_FALSE(right.HasParseError()) << documented;
    EXPECT_TRUE(left == right) << "got " << got << "\nbut the page says " << documented;
  }

  Plant plant_{PlantConfig()};
};

TEST_F(JsonMethodsPageTest, EachRequestHasTheReplyThatStandsBelowIt) {
  for (const auto& [page, atLeast] :
       {std::pair("docs/json-methods.md", 18), std::pair("docs/grafana.md", 1)}) {
    const std::vector<Fence> fences = fencesOf(page);
    int examples = 0;
    for (std::size_t i = 0; i + 1 < fences.size(); ++i) {
      if (fences[i].info.find("json request ") != 0) continue;
      SCOPED_TRACE(fences[i].info + fences[i].text);
      ASSERT_EQ(fences[i + 1].info, "json reply");
      expectSameJson(run(fences[i]), fences[i + 1].text);
      ++examples;
    }
    EXPECT_GE(examples, atLeast) << page;
  }
}

// Each method and address that the sources register has an example on one of the pages.
TEST(MethodsPageTest, EachMethodHasAnExample) {
  std::set<std::string> documented;
  for (const char* page : {"docs/json-methods.md", "docs/grafana.md"}) {
    for (const Fence& fence : fencesOf(page)) {
      const std::string start = "json request ";
      if (fence.info.find(start) != 0) continue;
      documented.insert(fence.info.substr(start.size(), fence.info.find('?') - start.size()));
    }
  }
  std::set<std::string> registered;
  const std::regex method(R"re(\{"/Methods/(\w+)",|route\.path = "(/api/\w+)")re");
  for (const auto& [name, source] : deliveredSources()) {
    for (std::sregex_iterator at(source.begin(), source.end(), method), end; at != end; ++at) {
      registered.insert((*at)[1].matched ? (*at)[1].str() : "GET " + (*at)[2].str());
    }
  }
  EXPECT_GE(registered.size(), 7U);
  EXPECT_EQ(documented, registered);
}

// What is typed stands behind "$ ", below it what is printed.
TEST_F(JsonMethodsPageTest, TheCommandsOfTheCommandLinePagePrintWhatStandsBelowThem) {
  const std::string shell = "orva() { " ORVA_LAUNCHER " " ORVA_CLI_PROGRAM
                            " \"$@\"; }\n"
                            "export ORVA_HOST=http://127.0.0.1:" +
                            std::to_string(plant_.port()) + "\ncd '" + plant_.folder().path() +
                            "'\n";
  // What a store is asked for must be in its file, which takes the archive its "writePeriod".
  const ProgramResult stored = runProgram(
      {"/bin/sh", "-c",
       shell + "for i in $(seq 200); do orva store export store | grep -q ',22,0$' && exit; "
               "sleep 0.05; done; exit 1"});
  ASSERT_EQ(stored.exitCode, 0) << stored.err;
  int commands = 0;
  for (const Fence& fence : fencesOf("docs/command-line.md")) {
    if (fence.info != "console session") continue;
    std::istringstream lines(fence.text);
    std::string script = shell;
    for (std::string line; std::getline(lines, line);) {
      if (line.compare(0, 2, "$ ") != 0) continue;
      script += "cat <<'END'\n" + line + "\nEND\n" + line.substr(2) + "\n";
      ++commands;
    }
    const ProgramResult result = runProgram({"/bin/sh", "-c", script});
    EXPECT_EQ(result.out, fence.text) << result.err;
  }
  EXPECT_GE(commands, 16);
}

json::Document jsonFile(const std::string& name) {
  json::Document document;
  document.Parse(readFile(std::string(ORVA_SOURCE_DIR) + "/" + name));
  EXPECT_FALSE(document.HasParseError()) << name;
  return document;
}

TEST(DashboardExampleTest, ItAsksForVariablesOfTheExamplePlant) {
  const json::Document plant = jsonFile("examples/plant.json");
  const json::Document dashboard = jsonFile("examples/grafana/dashboard.json");
  std::set<std::string> paths;
  for (const json::Value& each : plant["variables"].GetArray()) {
    paths.insert(each["path"].GetString());
  }
  int asked = 0;
  for (const json::Value& panel : dashboard["panels"].GetArray()) {
    for (const json::Value& target : panel["targets"].GetArray()) {
      EXPECT_STREQ(target["url"].GetString(), "${host}/api/history");
      const json::Value& item = target["url_options"]["params"][0];
      EXPECT_STREQ(item["key"].GetString(), "item");
      EXPECT_EQ(paths.count(item["value"].GetString()), 1U) << item["value"].GetString();
      ++asked;
    }
  }
  EXPECT_GE(asked, 4);
}

// What is typed in a session stands behind "> ", all else is what the client prints.
void splitSession(const std::string& session, std::string& typed, std::string& printed) {
  std::istringstream lines(session);
  for (std::string line; std::getline(lines, line);) {
    const bool isTyped = line.compare(0, 2, "> ") == 0;
    (isTyped ? typed : printed) += line.substr(isTyped ? 2 : 0) + "\n";
  }
}

TEST(ArchiveInterfacePageTest, TheSessionsOfThePageGoAsTheyStandThere) {
  const TempFolder folder;
  std::string config;
  int sessions = 0;
  for (const Fence& fence : fencesOf("docs/archive-interface.md")) {
    if (fence.info == "json archive-client configuration") {
      config = folder.write("plant.json", fence.text);
    } else if (fence.info == "archive-client session") {
      std::string typed;
      std::string printed;
      splitSession(fence.text, typed, printed);
      const ProgramResult result = runHost({"--config", config, "--addins", ORVA_ADDIN_DIR,
                                            "--archive-client", folder.write("script", typed)});
      EXPECT_EQ(result.exitCode, 0) << result.err;
      EXPECT_EQ(result.out, printed);
      ++sessions;
    }
  }
  EXPECT_EQ(sessions, 2);
}

// The rows of a query, their fields separated by bars.
std::string rowsOf(sqlite::Database& db, const std::string& query, int columns) {
  sqlite::Statement statement(db, query.c_str());
  sqlite::Query run(statement);
  std::string rows;
  while (run.row()) {
    for (int i = 0; i < columns; ++i) rows += run.text(i) + (i + 1 < columns ? "|" : "\n");
  }
  EXPECT_FALSE(db.failed()) << db.failure();
  return rows;
}

TEST(EventsLogPageTest, TheFileIsWhatThePageSays) {
  PlantConfig config;
  config.addins = R"(["liborva_database.so", "liborva_events_log.so"])";
  std::string schema;
  std::string query;
  std::string result;
  for (const Fence& fence : fencesOf("docs/events-log.md")) {
    if (fence.info == "json EventsArchive") config.eventsArchive = fence.text;
    if (fence.info == "sql schema") schema = fence.text;
    if (fence.info == "sql query") query = fence.text;
    if (fence.info == "text") result = fence.text;
  }
  Plant plant(config);
  ASSERT_TRUE(plant.start());
  ASSERT_EQ(plant.host().stop(), 0);
  sqlite::Database db;
  ASSERT_TRUE(
      db.open(plant.folder().path("data/events/events.db"), sqlite::Database::Mode::kReadOnly));
  EXPECT_EQ(rowsOf(db, query, 4), result);
  std::replace(schema.begin(), schema.end(), '\n', ' ');
  const std::string made =
      rowsOf(db, "SELECT group_concat(sql || ';', ' ') FROM sqlite_master WHERE type <> 'view'", 1);
  EXPECT_EQ(schema, made.substr(0, made.size() - 1) + " ");
  EXPECT_EQ(db.number("PRAGMA user_version"), 1);
}

TEST(ProviderGuideTest, TheProviderOfTheGuideIsTheOneThatIsBuilt) {
  const std::string source =
      readFile(std::string(ORVA_SOURCE_DIR) + "/examples/memory_provider/memory_provider.cpp");
  ASSERT_NE(source, "");
  std::string shown;
  for (const Fence& fence : fencesOf("docs/provider-guide.md")) {
    if (fence.info == "cpp memory_provider.cpp") shown += fence.text;
  }
  EXPECT_EQ(shown, source);
}

TEST(ProviderGuideTest, TheProviderOfTheGuideKeepsHistory) {
  PlantConfig config;
  config.addins = R"(["liborva_database.so", "liborva_memory.so"])";
  config.variables = "[" + variable(1, "Plant/Load", "Double") + "]";
  config.programs = "[" + program("writer", "writer.lua", 10) + "]";
  // Not cached, so that every read is the provider's.
  config.layers = R"([{"number": 0, "cache": false}])";
  config.dataArchive = R"({"archives": [{"connection": {"providerType": "memory"},
    "limits": {"writeBufferSize": 3}, "filter": {"allValues": true}}]})";
  Plant plant(config);
  plant.folder().write("writer.lua", kFourSamples);
  ASSERT_TRUE(plant.start());
  const std::int64_t id = plant.itemId("Plant/Load");
  ASSERT_TRUE(plant.waitForValue(id, "22.0"));
  const Sample second{1'700'000'001'000, "21.0", 0};
  const Sample third{1'700'000'002'000, "19.75", 0x40000000};
  const Sample fourth{1'700'000'003'000, "22.0", 0};
  const auto read = [&](const std::string& parameters) {
    return plant.client().readRaw(id, parameters).item().values;
  };
  EXPECT_EQ(read(""), (Samples{second, third, fourth}));
  EXPECT_EQ(read(R"("returnFirstLastValue": true)"), (Samples{second, fourth}));
  const std::string middle = R"("startTime": 1700000001500, "endTime": 1700000002500)";
  EXPECT_EQ(read(middle), (Samples{third}));
  EXPECT_EQ(read(middle + R"(, "returnBounds": true)"), (Samples{second, third, fourth}));
  EXPECT_EQ(plant.client().readAll(id, R"("numValuesPerNode": 1)"),
            (Samples{second, third, fourth}));
}

}  // namespace
}  // namespace orva::test
