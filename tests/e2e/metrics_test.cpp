// The metrics of the running host, and the page that documents them.

#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "support/exposition_parser.h"
#include "support/plant.h"

namespace orva::test {
namespace {

Exposition scrape(std::uint16_t port) {
  const HttpReply reply = httpGet(port, "/metrics");
  EXPECT_EQ(reply.status, 200);
  EXPECT_EQ(reply.field("Content-Type"), "text/plain; version=0.0.4; charset=utf-8");
  const Exposition text(reply.body);
  EXPECT_EQ(text.error(), "") << reply.body;
  return text;
}

// The example plant, in a folder of its own and on any free port.
class ExamplePlantTest : public ::testing::Test {
 protected:
  void SetUp() override {
    const std::string examples = std::string(ORVA_SOURCE_DIR) + "/examples/";
    std::string config = readFile(examples + "plant.json");
    const std::string port = "\"port\": 8580";
    ASSERT_NE(config.find(port), std::string::npos);
    config.replace(config.find(port), port.size(), "\"port\": 0");
    const std::string file = folder_.write("plant.json", config);
    std::filesystem::copy(examples + "programs", folder_.path("programs"));
    host_ = std::make_unique<HostProcess>(file);
    port_ = host_->waitUntilListening();
    ASSERT_NE(port_, 0) << host_->log();
  }

  Exposition scrape() const { return test::scrape(port_); }
  // Scrapes until the sum of a family's samples is at least this.
  bool waitForSum(const std::string& family, double least) const {
    return waitUntil([&] { return scrape().sum(family) >= least; }, 30'000);
  }

  TempFolder folder_;
  std::unique_ptr<HostProcess> host_;
  std::uint16_t port_ = 0;
};

TEST_F(ExamplePlantTest, CountersMoveAndNeverFall) {
  ASSERT_TRUE(waitForSum("orva_sqlite_written_samples_total", 20));
  const Exposition before = scrape();
  const HistoryClient client(port_);
  const HistoryReply history = client.readRaw(client.archiveItemId("Plant/Tank/Level"), "");
  EXPECT_FALSE(history.item().values.empty());
  ASSERT_TRUE(waitForSum("orva_sqlite_written_samples_total",
                         before.sum("orva_sqlite_written_samples_total") + 1));
  const Exposition after = scrape();
  for (const auto& [name, family] : before.families()) {
    if (family.type != "counter") continue;
    for (const MetricSample& sample : family.samples) {
      EXPECT_GE(after.value(name, sample.labels), sample.value) << name;
    }
  }
  for (const char* moved : {"orva_reads_total", "orva_values_returned_total",
                            "orva_samples_accepted_total", "orva_sqlite_accepted_samples_total",
                            "orva_sqlite_commits_total", "orva_sqlite_written_bytes_total",
                            "orva_sqlite_write_seconds_total", "orva_host_http_requests_total"}) {
    EXPECT_GT(after.sum(moved), before.sum(moved)) << moved;
  }
  EXPECT_GT(after.sum("orva_cache_hits_total") + after.sum("orva_cache_misses_total"),
            before.sum("orva_cache_hits_total") + before.sum("orva_cache_misses_total"));
  EXPECT_GE(after.value("orva_cache_items"), 10);
  EXPECT_GT(after.value("orva_host_uptime_seconds"), before.value("orva_host_uptime_seconds"));
}

TEST_F(ExamplePlantTest, FiguresAgreeWithEachOther) {
  ASSERT_TRUE(waitForSum("orva_sqlite_written_samples_total", 20));
  httpGet(port_, "/nothing");
  const Exposition text = scrape();
  EXPECT_LE(text.sum("orva_sqlite_written_samples_total"),
            text.sum("orva_sqlite_accepted_samples_total"));
  EXPECT_EQ(text.sum("orva_sqlite_dropped_samples_total"), 0);
  EXPECT_EQ(text.sum("orva_sqlite_failures_total"), 0);
  // Not every machine has all signals, and some items get their first value late.
  const double first = text.value("orva_samples_accepted_total", {{"rule", "first"}});
  EXPECT_GE(first, 10);
  EXPECT_LE(first, text.value("orva_cache_items"));
  EXPECT_EQ(text.value("orva_host_http_requests_total", {{"code", "4xx"}}), 1);
  EXPECT_EQ(text.value("orva_host_http_requests_total", {{"code", "5xx"}}), 0);
  // Every item has its newest block.
  EXPECT_GE(text.sum("orva_cache_blocks"), text.value("orva_cache_items"));
  EXPECT_LE(text.sum("orva_cache_blocks"), text.value("orva_cache_capacity_blocks"));
  EXPECT_GT(text.value("orva_sqlite_file_bytes", {{"archive", "data/fast"}}), 0);
  EXPECT_GT(text.value("orva_sqlite_file_bytes", {{"archive", "data/slow"}}), 0);
}

TEST_F(ExamplePlantTest, NoLabelNamesAnItem) {
  ASSERT_TRUE(waitForSum("orva_samples_accepted_total", 10));
  const std::set<std::string> few{"archive", "code", "queue", "rule", "version"};
  const Exposition text = scrape();
  for (const auto& [name, family] : text.families()) {
    EXPECT_EQ(name.find("orva_"), 0U) << name;
    const bool isTotal = name.size() > 6 && name.compare(name.size() - 6, 6, "_total") == 0;
    EXPECT_EQ(isTotal, family.type == "counter") << name;
    EXPECT_FALSE(family.help.empty()) << name;
    for (const MetricSample& sample : family.samples) {
      for (const auto& [label, value] : sample.labels) {
        EXPECT_EQ(few.count(label), 1U) << name << " " << label;
        EXPECT_EQ(value.find("System/"), std::string::npos) << name;
        EXPECT_EQ(value.find("Plant/"), std::string::npos) << name;
      }
    }
  }
}

TEST_F(ExamplePlantTest, ArchivesBuiltAnewCountAnewAndTheServiceGoesOn) {
  ASSERT_TRUE(waitForSum("orva_sqlite_accepted_samples_total", 10));
  const Exposition before = scrape();
  host_->signal(SIGUSR1);
  ASSERT_TRUE(host_->waitForLog("the archives were built anew"));
  ASSERT_TRUE(
      waitForSum("orva_samples_accepted_total", before.sum("orva_samples_accepted_total") + 10));
  EXPECT_EQ(scrape().families().at("orva_sqlite_reads_total").samples.size(), 2U);
}

// ---- the page

struct Documented {
  std::string type;
  std::set<std::string> labels;

  bool operator==(const Documented& other) const {
    return type == other.type && labels == other.labels;
  }
};
std::ostream& operator<<(std::ostream& out, const Documented& documented) {
  out << documented.type;
  for (const std::string& label : documented.labels) out << " " << label;
  return out;
}

std::string trimmed(const std::string& text) {
  const std::size_t first = text.find_first_not_of(" `");
  if (first == std::string::npos) return {};
  return text.substr(first, text.find_last_not_of(" `") - first + 1);
}

// The rows "| `name` | kind | `label` | ...": one label at most.
std::map<std::string, Documented> documentedMetrics() {
  std::map<std::string, Documented> all;
  std::istringstream page(readFile(std::string(ORVA_SOURCE_DIR) + "/docs/metrics.md"));
  for (std::string line; std::getline(page, line);) {
    if (line.compare(0, 8, "| `orva_") != 0) continue;
    std::vector<std::string> cells;
    std::istringstream row(line);
    for (std::string cell; std::getline(row, cell, '|');) cells.push_back(trimmed(cell));
    EXPECT_GE(cells.size(), 6U) << line;
    if (cells.size() < 6) continue;
    Documented documented{cells[2], {}};
    if (!cells[3].empty()) documented.labels.insert(cells[3]);
    EXPECT_FALSE(cells[4].empty()) << line;
    EXPECT_TRUE(all.emplace(cells[1], documented).second) << line;
  }
  return all;
}

TEST_F(ExamplePlantTest, ServesExactlyWhatThePageSays) {
  std::map<std::string, Documented> served;
  const Exposition text = scrape();
  for (const auto& [name, family] : text.families()) {
    Documented& entry = served[name];
    entry.type = family.type;
    for (const MetricSample& sample : family.samples) {
      for (const auto& [label, value] : sample.labels) entry.labels.insert(label);
    }
  }
  EXPECT_EQ(served, documentedMetrics());
}

TEST_F(ExamplePlantTest, ThePageNamesEveryRuleAndQueue) {
  const std::string page = readFile(std::string(ORVA_SOURCE_DIR) + "/docs/metrics.md");
  const Exposition text = scrape();
  for (const char* family :
       {"orva_samples_accepted_total", "orva_samples_refused_total", "orva_cache_blocks"}) {
    ASSERT_EQ(text.families().count(family), 1U);
    for (const MetricSample& sample : text.families().at(family).samples) {
      const std::string& value = sample.labels.begin()->second;
      EXPECT_NE(page.find("`" + value + "`"), std::string::npos) << value;
    }
  }
}

// ---- who may scrape

TEST(MetricsAccessTest, TheTokenIsNeededWhereThereIsOne) {
  PlantConfig config;
  config.http = R"({"port": 0, "token": "secret"})";
  Plant plant(config);
  ASSERT_TRUE(plant.start());
  const HttpReply refused = httpGet(plant.port(), "/metrics");
  EXPECT_EQ(refused.status, 401);
  EXPECT_EQ(refused.body.find("orva_"), std::string::npos);
  EXPECT_EQ(httpGet(plant.port(), "/metrics", "Authorization: Bearer wrong\r\n").status, 401);
  const HttpReply served = httpGet(plant.port(), "/metrics", "Authorization: Bearer secret\r\n");
  EXPECT_EQ(served.status, 200);
  const Exposition text(served.body);
  EXPECT_EQ(text.error(), "");
  EXPECT_EQ(text.value("orva_host_http_requests_total", {{"code", "4xx"}}), 2);
}

TEST(MetricsAccessTest, OnlyGetIsServed) {
  Plant plant{PlantConfig()};
  ASSERT_TRUE(plant.start());
  EXPECT_EQ(httpPost(plant.port(), "/metrics", "{}").status, 405);
}

TEST(MetricsAccessTest, AScrapeIsAnsweredWhileReadsHang) {
  PlantConfig config;
  config.addins = R"(["liborva_database.so", "liborva_silent.so"])";
  config.variables = "[" + variable(1, "Plant/Load", "Double") + "]";
  config.dataArchive = R"({"archives": [{"connection": {"providerType": "silent"},
    "limits": {}, "filter": {"allValues": true}}]})";
  Plant plant(config);
  ASSERT_TRUE(plant.start());
  const std::int64_t id = plant.itemId("Plant/Load");
  std::vector<std::unique_ptr<HttpConnection>> hanging;
  for (int i = 0; i < 20; ++i) {
    hanging.push_back(std::make_unique<HttpConnection>(plant.port()));
    ASSERT_TRUE(hanging.back()->send(postRequest(
        "/Methods/HistoryReadRaw", R"({"data":[{"archiveItemId":)" + std::to_string(id) + "}]}")));
  }
  EXPECT_TRUE(
      waitUntil([&] { return scrape(plant.port()).value("orva_reads_total") >= 1; }, 20'000));
  EXPECT_EQ(scrape(plant.port()).value("orva_cache_items"), 1);
  plant.host().killNow();
}

}  // namespace
}  // namespace orva::test
