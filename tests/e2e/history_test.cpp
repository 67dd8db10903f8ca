// What control programs write, as clients read it over HTTP.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <memory>

#include "support/plant.h"

namespace orva::test {
namespace {

constexpr std::int64_t kBegin = 1'700'000'000'000;  // ms since 1970, of the sample before the first
constexpr int kCount = 2500;
constexpr std::int64_t kStep = 1000;  // ms

// Any sequence without a regular shape.
int valueAt(int n) { return n * 37 % 101; }

// Sample n, counted from 1.
Sample sampleAt(int n) {
  return {kBegin + n * kStep, std::to_string(valueAt(n)) + ".0", n % 10 == 0 ? 0x40000000U : 0U};
}

Samples samplesFrom(int first, int last) {
  Samples samples;
  for (int n = first; n <= last; ++n) samples.push_back(sampleAt(n));
  return samples;
}

std::string range(int first, int last) {
  return "\"startTime\":" + std::to_string(kBegin + first * kStep) +
         ",\"endTime\":" + std::to_string(kBegin + last * kStep);
}

constexpr const char* kProgram = R"(
local load = ArchiveProc.new{Id = 1, Path = "Plant/Load"}
local kinds = {
  {ArchiveProc.new{Id = 2, Path = "Plant/Open"}, {true, false}},
  {ArchiveProc.new{Id = 3, Path = "Plant/State"}, {"", 'say "no"\n', "Füllstand"}},
  {ArchiveProc.new{Id = 4, Path = "Plant/Odd"}, {0/0, -1/0, 1/0, 5}},
}
local done = false
function cycle()
  if done then return end
  done = true
  for i, kind in ipairs(kinds) do
    for n, value in ipairs(kind[2]) do
      kind[1].Value = DataValue{Value = value, SourceTime = 1700000000000 + 1000 * n}
      kind[1]()
    end
  end
  for n = 1, 2500 do
    load.Value = DataValue{Value = n * 37 % 101, SourceTime = 1700000000000 + 1000 * n,
                           Status = n % 10 == 0 and 0x40000000 or 0}
    load()
  end
end
)";

// All tests read one history.
class HistoryTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    PlantConfig config;
    config.variables =
        "[" + variable(1, "Plant/Load", "Double", R"({"0": {"archive": 0}, "1": {"archive": 0}})") +
        "," + variable(2, "Plant/Open", "Boolean") + "," + variable(3, "Plant/State", "String") +
        "," + variable(4, "Plant/Odd", "Double") + "]";
    config.programs = "[" + program("writer", "writer.lua", 100) + "]";
    plant_ = std::make_unique<Plant>(config);
    plant_->folder().write("writer.lua", kProgram);
    if (!plant_->start()) return;
    load_ = plant_->itemId("Plant/Load");
    EXPECT_TRUE(plant_->waitForValue(load_, sampleAt(kCount).value)) << plant_->host().log();
  }
  static void TearDownTestSuite() { plant_.reset(); }

  static Samples history(const std::string& path) {
    return plant_->client().readAll(plant_->itemId(path));
  }
  static std::vector<std::string> valuesOf(const std::string& path) {
    std::vector<std::string> values;
    for (const Sample& sample : history(path)) values.push_back(sample.value);
    return values;
  }

  static std::unique_ptr<Plant> plant_;
  static std::int64_t load_;
};

std::unique_ptr<Plant> HistoryTest::plant_;
std::int64_t HistoryTest::load_ = -1;

TEST_F(HistoryTest, EverySampleComesBackWithItsTimeValueAndQuality) {
  const HistoryReply reply = plant_->client().readRaw(load_, "");
  EXPECT_EQ(reply.code, 0);
  EXPECT_EQ(reply.item().archiveItemId, load_);
  EXPECT_EQ(reply.item().statusCode, 0U);
  EXPECT_FALSE(reply.item().areMoreValues);
  EXPECT_EQ(reply.item().values, samplesFrom(1, kCount));
}

TEST_F(HistoryTest, TypesKeepTheirForm) {
  EXPECT_EQ(valuesOf("Plant/Open"), (std::vector<std::string>{"true", "false"}));
  EXPECT_EQ(valuesOf("Plant/State"),
            (std::vector<std::string>{"\"\"", R"("say \"no\"\n")", "\"Füllstand\""}));
}

TEST_F(HistoryTest, NotANumberAndMinusInfinityReadAsNullAndPlusInfinityIsNotArchived) {
  EXPECT_EQ(valuesOf("Plant/Odd"), (std::vector<std::string>{"null", "null", "5.0"}));
}

TEST_F(HistoryTest, ARangeHoldsItsBothEnds) {
  const HistoryReply reply = plant_->client().readRaw(load_, range(100, 150));
  EXPECT_EQ(reply.item().values, samplesFrom(100, 150));
  EXPECT_FALSE(reply.item().areMoreValues);
}

TEST_F(HistoryTest, BoundsAreTheSamplesNextToTheRange) {
  const HistoryReply inside =
      plant_->client().readRaw(load_, range(100, 150) + ",\"returnBounds\":true");
  EXPECT_EQ(inside.item().values, samplesFrom(99, 151));
  const HistoryReply atTheEnds =
      plant_->client().readRaw(load_, range(1, kCount) + ",\"returnBounds\":true");
  EXPECT_EQ(atTheEnds.item().values, samplesFrom(1, kCount));
}

TEST_F(HistoryTest, FirstAndLastAreTheEndsOfTheHistory) {
  const HistoryReply reply = plant_->client().readRaw(load_, R"("returnFirstLastValue": true)");
  EXPECT_EQ(reply.item().values, (Samples{sampleAt(1), sampleAt(kCount)}));
}

TEST_F(HistoryTest, PagesJoinedAreTheOneBigRead) {
  for (const int limit : {300, 500, 999, 2500}) {
    Samples joined;
    std::int64_t point = 0;
    for (bool more = true; more;) {
      const HistoryReply page =
          plant_->client().readRaw(load_, "\"numValuesPerNode\":" + std::to_string(limit), point);
      const ItemReply& item = page.item();
      ASSERT_LE(item.values.size(), static_cast<std::size_t>(limit));
      joined.insert(joined.end(), item.values.begin(), item.values.end());
      more = item.areMoreValues;
      if (more) {
        ASSERT_TRUE(item.continuationPoint) << page.text;
        ASSERT_NE(*item.continuationPoint, point);
        point = *item.continuationPoint;
      }
    }
    EXPECT_EQ(joined, samplesFrom(1, kCount)) << limit;
  }
}

TEST_F(HistoryTest, NewRecordsAreThoseFromTheContinuationPointOn) {
  const HistoryReply first = plant_->client().readNewRecords("Plant/Load", 0);
  EXPECT_EQ(first.code, 0);
  EXPECT_EQ(first.item().values, samplesFrom(1, kCount));
  EXPECT_NE(first.text.find("\"randID\":7"), std::string::npos);
  ASSERT_TRUE(first.item().continuationPoint);

  const HistoryReply rest =
      plant_->client().readNewRecords("Plant/Load", *first.item().continuationPoint);
  EXPECT_TRUE(rest.item().values.empty());
  EXPECT_FALSE(rest.item().areMoreValues);
  EXPECT_EQ(rest.item().continuationPoint, first.item().continuationPoint);
}

// The samples of each whole minute that the minute layer must hold.
std::map<std::int64_t, std::pair<int, int>> extremesByMinute() {
  std::map<std::int64_t, std::pair<int, int>> extremes;
  for (int n = 1; n <= kCount; ++n) {
    const std::int64_t minute = sampleAt(n).timeMs / 60'000;
    const auto [at, isNew] = extremes.try_emplace(minute, valueAt(n), valueAt(n));
    if (isNew) continue;
    at->second.first = std::min(at->second.first, valueAt(n));
    at->second.second = std::max(at->second.second, valueAt(n));
  }
  extremes.erase(std::prev(extremes.end()));  // still open
  return extremes;
}

TEST_F(HistoryTest, TheMinuteLayerThinsTheSamplesAndKeepsEachMinutesExtremes) {
  const Samples thinned = plant_->client().readAll(load_, R"("resampleInterval": 600000000.0)");
  const Samples raw = samplesFrom(1, kCount);
  EXPECT_LT(thinned.size(), raw.size() / 5);
  std::map<std::int64_t, std::vector<std::string>> byMinute;
  for (const Sample& sample : thinned) {
    EXPECT_NE(std::find(raw.begin(), raw.end(), sample), raw.end()) << sample;
    byMinute[sample.timeMs / 60'000].push_back(sample.value);
  }
  for (const auto& [minute, extremes] : extremesByMinute()) {
    for (const int value : {extremes.first, extremes.second}) {
      EXPECT_THAT(byMinute[minute], ::testing::Contains(std::to_string(value) + ".0")) << minute;
    }
  }
}

TEST_F(HistoryTest, PathsThatAreNotArchivedHaveNoId) {
  EXPECT_EQ(plant_->client().archiveItemId("Plant/NoSuch"), -1);
  EXPECT_EQ(plant_->client().archiveItemId(""), -1);
}

}  // namespace
}  // namespace orva::test
