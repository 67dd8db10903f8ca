// The flat history that dashboards and spreadsheets read.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>

#include "share/json.h"
#include "support/plant.h"

namespace orva::test {
namespace {

using ::testing::HasSubstr;

constexpr std::int64_t kBegin = 1'700'000'000'000;  // ms since 1970
constexpr int kCount = 20'000;                      // more than a page

// One sample a second with a spike each 3000; a few texts.
constexpr const char* kProgram = R"(
local load = ArchiveProc.new{Id = 1, Path = "Plant/Load"}
local state = ArchiveProc.new{Id = 2, Path = "Plant/State, odd"}
local done = false
function cycle()
  if done then return end
  done = true
  for n, value in ipairs{'run', 'say "stop", now', 'run'} do
    state.Value = DataValue{Value = value, SourceTime = 1700000000000 + 1000 * n}
    state()
  end
  for n = 1, 20000 do
    load.Value = DataValue{Value = n % 3000 == 0 and 1000 + n or n % 10,
                           SourceTime = 1700000000000 + 1000 * n,
                           Status = n == 5 and 0x40000000 or 0}
    load()
  end
end
)";

class HistoryRouteTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    PlantConfig config;
    config.variables =
        "[" + variable(1, "Plant/Load", "Double", R"({"0": {"archive": 0}, "1": {"archive": 0}})") +
        "," + variable(2, "Plant/State, odd", "String") + "," +
        variable(3, "Plant/Silent", "Double", "{}") + "]";
    config.programs = "[" + program("writer", "writer.lua", 100) + "]";
    plant_ = std::make_unique<Plant>(config);
    plant_->folder().write("writer.lua", kProgram);
    if (!plant_->start()) return;
    EXPECT_TRUE(plant_->waitForValue(plant_->itemId("Plant/Load"), "0.0")) << plant_->host().log();
    EXPECT_TRUE(waitUntil(
        [] { return plant_->client().readAll(plant_->itemId("Plant/Load")).size() == kCount; },
        20'000));
  }
  static void TearDownTestSuite() { plant_.reset(); }

  static HttpReply get(const std::string& query, const std::string& headers = {}) {
    return httpGet(plant_->port(), "/api/history?" + query, headers);
  }
  static std::string range(int first, int last) {
    return "&from=" + std::to_string(kBegin + first * 1000) +
           "&to=" + std::to_string(kBegin + last * 1000);
  }
  static json::Document rows(const std::string& query) {
    const HttpReply reply = get(query);
    EXPECT_EQ(reply.status, 200) << reply.body;
    EXPECT_EQ(reply.field("Content-Type"), "application/json");
    json::Document document;
    document.Parse(reply.body.c_str());
    EXPECT_TRUE(document.IsArray()) << reply.body;
    if (!document.IsArray()) document.SetArray();
    return document;
  }

  static std::unique_ptr<Plant> plant_;
};

std::unique_ptr<Plant> HistoryRouteTest::plant_;

TEST_F(HistoryRouteTest, ARowSaysTimeItemValueAndQuality) {
  EXPECT_EQ(
      get("item=Plant/Load" + range(4, 5)).body,
      R"([{"time":1700000004000,"item":"Plant/Load","value":4.0,"quality":0,"status":"good"},)"
      "\n"
      R"({"time":1700000005000,"item":"Plant/Load","value":5.0,"quality":1073741824,)"
      R"("status":"uncertain"}])");
}

TEST_F(HistoryRouteTest, CommaSeparatedValuesComeOnDemand) {
  const std::string expected =
      "time,item,value,quality,status\n"
      "2023-11-14T22:13:21.000Z,\"Plant/State, odd\",run,0,good\n"
      "2023-11-14T22:13:22.000Z,\"Plant/State, odd\",\"say \"\"stop\"\", now\",0,good\n"
      "2023-11-14T22:13:23.000Z,\"Plant/State, odd\",run,0,good\n"
      "2023-11-14T22:13:21.000Z,Plant/Load,1.0,0,good\n";
  const std::string query = "item=Plant/State,+odd&item=Plant%2FLoad&to=2023-11-14T22:13:24Z";
  const HttpReply reply = get(query + "&from=2023-11-14T22:13:21Z&format=csv");
  EXPECT_EQ(reply.field("Content-Type"), "text/csv; charset=utf-8");
  EXPECT_EQ(reply.body.substr(0, expected.size()), expected);
  EXPECT_EQ(get(query + "&from=2023-11-14T22:13:21Z", "Accept: text/csv\r\n").body, reply.body);
}

TEST_F(HistoryRouteTest, NumberOfPointsIsALimitAndEveryPeakIsThere) {
  for (const int points : {100, 1000, 15'000}) {
    const json::Document all =
        rows("item=Plant/Load&points=" + std::to_string(points) + range(1, kCount));
    EXPECT_LE(all.Size(), static_cast<unsigned>(points));
    EXPECT_GE(all.Size(), 20U);
    std::int64_t before = 0;
    int peaks = 0;
    for (const json::Value& row : all.GetArray()) {
      EXPECT_LE(before, row["time"].GetInt64());
      before = row["time"].GetInt64();
      if (row["value"].GetDouble() > 1000) ++peaks;
    }
    EXPECT_EQ(peaks, kCount / 3000) << points;
  }
}

TEST_F(HistoryRouteTest, MorePointsThanAPageComeUnthinned) {
  EXPECT_EQ(rows("item=Plant/Load&points=25000" + range(1, kCount)).Size(),
            static_cast<unsigned>(kCount));
}

TEST_F(HistoryRouteTest, ARangeWithoutSamplesIsAnEmptyList) {
  EXPECT_EQ(get("item=Plant/Load&from=1000&to=2000").body, "[]");
  EXPECT_EQ(get("item=Plant/Load&from=1000&to=2000&format=csv").body,
            "time,item,value,quality,status\n");
  EXPECT_EQ(get("item=Plant/Load").body, "[]");  // the last hour
}

TEST_F(HistoryRouteTest, WhatCannotBeAnsweredSaysWhy) {
  HttpReply reply = get("");
  EXPECT_EQ(reply.status, 400);
  EXPECT_THAT(reply.body, HasSubstr(R"(\"item\" is missing)"));
  reply = get("item=Plant/Load&item=Plant/NoSuch");
  EXPECT_EQ(reply.status, 404);
  EXPECT_THAT(reply.body, HasSubstr(R"(there is no item \"Plant/NoSuch\")"));
  EXPECT_EQ(get("item=Plant/Load&points=x").status, 400);
  EXPECT_EQ(get("item=Plant/Load&from=2&to=1").status, 400);
  EXPECT_EQ(httpPost(plant_->port(), "/api/history", "{}").status, 405);
}

}  // namespace
}  // namespace orva::test
