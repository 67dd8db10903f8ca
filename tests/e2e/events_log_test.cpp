// What the events log holds of a host's life.

#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "host/host_events.h"
#include "share/ticks.h"
#include "sqlite_base/database.h"
#include "support/plant.h"

namespace orva::test {
namespace {

namespace fs = std::filesystem;
using Kind = HostEventKind;
using Kinds = std::vector<Kind>;

struct Row {
  std::int64_t id;
  std::int64_t time;
  Kind kind;
  std::string source;
  std::string text;
  std::int64_t count;
};
using Rows = std::vector<Row>;

constexpr const char* kCounterPath = "Plant/Counter";
constexpr const char* kCounterProgram = R"(
local counter = ArchiveProc.new{Id = 1, Path = "Plant/Counter"}
local n = 0
function cycle()
  n = n + 1
  counter.Value = n
  counter()
end
)";

// A counter that is archived at `location` by way of a small buffer, and an events log.
PlantConfig configWith(const std::string& location) {
  PlantConfig config;
  config.addins = R"(["liborva_database.so", "liborva_sqlite.so", "liborva_events_log.so"])";
  config.variables = "[" + variable(1, kCounterPath, "Double") + "]";
  config.programs = "[" + program("counter", "counter.lua", 2) + "]";
  config.dataArchive = R"({"archives": [{
    "connection": {"providerType": "sqlite", "location": ")" +
                       location + R"(", "reconnectTimeout": 1000000},
    "limits": {"writePeriod": 1000000, "writeBufferSize": 100},
    "filter": {"allValues": true}}]})";
  config.eventsArchive = R"({"archives": [{
    "connection": {"providerType": "eventslog", "location": "events"},
    "limits": {"writePeriod": 1000000}}]})";
  return config;
}

class EventsLogTest : public ::testing::Test {
 protected:
  bool start(const PlantConfig& config) {
    plant_.configure(config);
    plant_.folder().write("counter.lua", kCounterProgram);
    return plant_.start();
  }
  HostProcess& host() { return plant_.host(); }

  // What is in the file; nothing while there is none.
  Rows rows() const {
    Rows found;
    const std::string file = plant_.folder().path("events/events.db");
    sqlite::Database db;
    if (!fs::exists(file) || !db.open(file, sqlite::Database::Mode::kReadOnly)) return found;
    sqlite::Statement statement(
        db, "SELECT id, time, kind, source, text, count FROM event ORDER BY id");
    sqlite::Query query(statement);
    while (query.row()) {
      found.push_back({query.number(0), query.number(1), Kind{static_cast<int>(query.number(2))},
                       query.text(3), query.text(4), query.number(5)});
    }
    return found;
  }
  Rows rows(Kind kind) const {
    Rows found = rows();
    found.erase(std::remove_if(found.begin(), found.end(),
                               [kind](const Row& row) { return row.kind != kind; }),
                found.end());
    return found;
  }
  // Drops of samples apart, which come when they come.
  Kinds kinds() const {
    Kinds found;
    for (const Row& row : rows()) {
      if (row.kind != Kind::kSamplesDropped) found.push_back(row.kind);
    }
    return found;
  }
  bool waitFor(Kind kind, std::size_t count = 1) const {
    return waitUntil([&] { return rows(kind).size() >= count; }, 20'000);
  }
  void expectNumberedAndInOrder() const {
    const Rows all = rows();
    for (std::size_t i = 0; i < all.size(); ++i) {
      EXPECT_EQ(all[i].id, static_cast<std::int64_t>(i + 1));
      EXPECT_LE(all[i == 0 ? 0 : i - 1].time, all[i].time);
    }
  }

  Plant plant_{PlantConfig()};
};

TEST_F(EventsLogTest, WholeLifeOfAHostIsThereOnceAndInOrder) {
  ASSERT_TRUE(start(configWith("store")));
  ASSERT_TRUE(waitFor(Kind::kStarted)) << host().log();

  plant_.folder().write("blocked", "in the way of a folder");
  plant_.configure(configWith("blocked/store"));
  host().signal(SIGHUP);
  ASSERT_TRUE(waitFor(Kind::kConfigurationRead)) << host().log();
  plant_.folder().write("plant.json", R"({"http": 5})");
  host().signal(SIGHUP);
  ASSERT_TRUE(waitFor(Kind::kConfigurationRefused)) << host().log();

  // The archives of the configuration read last: one that cannot be opened.
  host().signal(SIGUSR1);
  ASSERT_TRUE(waitFor(Kind::kArchivesRebuilt)) << host().log();
  ASSERT_TRUE(waitFor(Kind::kSamplesDropped)) << host().log();
  fs::remove(plant_.folder().path("blocked"));
  ASSERT_TRUE(waitFor(Kind::kProviderRecovered)) << host().log();
  EXPECT_EQ(host().stop(), 0) << host().log();

  EXPECT_EQ(kinds(), (Kinds{Kind::kStarted, Kind::kConfigurationRead, Kind::kConfigurationRefused,
                            Kind::kProviderFailure, Kind::kArchivesRebuilt,
                            Kind::kProviderRecovered, Kind::kStopping}));
  expectNumberedAndInOrder();
  EXPECT_EQ(rows(Kind::kStarted)[0].source, "orva_host");
  EXPECT_NE(rows(Kind::kConfigurationRefused)[0].text.find("http: must be an object"),
            std::string::npos);
  EXPECT_EQ(rows(Kind::kProviderFailure)[0].source, "sqlite: blocked/store/archive.db");
}

TEST_F(EventsLogTest, NextStartGoesOnInTheSameFile) {
  for (int i = 0; i < 2; ++i) {
    ASSERT_TRUE(start(configWith("store")));
    EXPECT_EQ(host().stop(), 0) << host().log();
  }
  EXPECT_EQ(kinds(), (Kinds{Kind::kStarted, Kind::kStopping, Kind::kStarted, Kind::kStopping}));
  expectNumberedAndInOrder();
}

TEST_F(EventsLogTest, RebuildingTheArchivesManyTimesDoublesAndLosesNothing) {
  ASSERT_TRUE(start(configWith("store")));
  Kinds expected{Kind::kStarted};
  for (std::size_t i = 1; i <= 5; ++i) {
    host().signal(SIGUSR1);
    ASSERT_TRUE(waitFor(Kind::kArchivesRebuilt, i)) << host().log();
    expected.push_back(Kind::kArchivesRebuilt);
  }
  EXPECT_EQ(host().stop(), 0) << host().log();
  expected.push_back(Kind::kStopping);
  EXPECT_EQ(kinds(), expected);
  expectNumberedAndInOrder();
}

TEST_F(EventsLogTest, EverySampleIsStoredOrItsLossIsThere) {
  plant_.folder().write("blocked", "in the way of a folder");
  ASSERT_TRUE(start(configWith("blocked/store")));
  ASSERT_TRUE(waitFor(Kind::kSamplesDropped, 3)) << host().log();
  fs::remove(plant_.folder().path("blocked"));
  ASSERT_TRUE(waitFor(Kind::kProviderRecovered)) << host().log();
  EXPECT_EQ(host().stop(), 0) << host().log();

  const Rows drops = rows(Kind::kSamplesDropped);
  std::int64_t dropped = 0;
  for (std::size_t i = 0; i < drops.size(); ++i) {
    EXPECT_GT(drops[i].count, 0);
    dropped += drops[i].count;
    // The last one may be told early, when the archive ends.
    if (i > 0 && i + 1 < drops.size()) {
      EXPECT_GE(drops[i].time - drops[i - 1].time, kTicksPerSecond);
    }
  }

  PlantConfig silent = configWith("blocked/store");
  silent.programs.clear();
  ASSERT_TRUE(start(silent));
  const Samples stored = plant_.client().readAll(plant_.itemId(kCounterPath));
  ASSERT_FALSE(stored.empty());
  // The program counts its samples; with its end the block writes one more.
  const auto written = static_cast<std::int64_t>(std::stod(stored.back().value)) + 1;
  EXPECT_EQ(static_cast<std::int64_t>(stored.size()) + dropped, written);
}

TEST_F(EventsLogTest, DamagedFileIsMovedAsideAndTheStartIsThere) {
  fs::create_directories(plant_.folder().path("events"));
  plant_.folder().write("events/events.db", std::string(20'000, 'x'));
  ASSERT_TRUE(start(configWith("store")));
  EXPECT_EQ(host().stop(), 0) << host().log();
  EXPECT_EQ(kinds(), (Kinds{Kind::kStarted, Kind::kProviderFailure, Kind::kStopping}));
  EXPECT_EQ(rows(Kind::kProviderFailure)[0].source, "eventslog: events/events.db");
}

TEST_F(EventsLogTest, ExampleIsAConfigurationThatStarts) {
  const ProgramResult result =
      runHost({"--check-config", "--config", ORVA_SOURCE_DIR "/examples/plant.json", "--addins",
               ORVA_ADDIN_DIR});
  EXPECT_EQ(result.exitCode, 0) << result.err;
  EXPECT_NE(result.out.find("3 add-ins, 3 layers, 18 variables"), std::string::npos) << result.out;
}

}  // namespace
}  // namespace orva::test
