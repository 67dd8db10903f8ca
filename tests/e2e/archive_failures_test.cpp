// What clients are told when an archive is missing, silent, or its answer too large.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <future>

#include "support/plant.h"

namespace orva::test {
namespace {

using ::testing::HasSubstr;

constexpr std::uint32_t kBadNotFound = 0x803E0000;
constexpr std::uint32_t kBadTimeout = 0x800A0000;
constexpr std::int64_t kBadEncodingLimits = 0x80080000;

constexpr const char* kManySamples = R"(
local load = ArchiveProc.new{Id = 1, Path = "Plant/Load"}
function cycle()
  if load.Value then return end
  for n = 1, 1000 do
    load.Value = DataValue{Value = n, SourceTime = 1700000000000 + n}
    load()
  end
end
)";

// One archive that answers, one that never does, and one that is not configured.
class ArchiveFailuresTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    PlantConfig config;
    config.addins = R"(["liborva_database.so", "liborva_sqlite.so", "liborva_silent.so"])";
    config.variables = "[" + variable(1, "Plant/Load", "Double") + "," +
                       variable(2, "Plant/Silent", "Double", R"({"0": {"archive": 1}})") + "," +
                       variable(3, "Plant/Nowhere", "Double", R"({"0": {"archive": 7}})") + "," +
                       variable(4, "Plant/Live", "Double", "{}") + "]";
    config.programs = "[" + program("writer", "writer.lua", 10) + "]";
    config.dataArchive = R"({"archives": [
      {"connection": {"providerType": "sqlite", "location": "store"},
       "limits": {"writePeriod": 1000000}, "filter": {"allValues": true}},
      {"connection": {"providerType": "silent"}, "limits": {}, "filter": {}}]})";
    plant_ = std::make_unique<Plant>(config);
    plant_->folder().write("writer.lua", kManySamples);
    if (!plant_->start()) return;
    EXPECT_TRUE(plant_->waitForValue(plant_->itemId("Plant/Load"), "1000.0"));
  }
  static void TearDownTestSuite() { plant_.reset(); }

  static const HistoryClient& client() { return plant_->client(); }
  static std::string readBody(std::int64_t id) {
    return R"({"data":[{"archiveItemId":)" + std::to_string(id) + R"(}],"parameters":{}})";
  }
  static std::unique_ptr<Plant> plant_;
};

std::unique_ptr<Plant> ArchiveFailuresTest::plant_;

TEST_F(ArchiveFailuresTest, AnIdThatNobodyHandedOutIsNotFound) {
  const HistoryReply reply = client().readRaw(1234567, "");
  EXPECT_EQ(reply.code, 0);
  EXPECT_EQ(reply.item().statusCode, kBadNotFound);
  EXPECT_TRUE(reply.item().values.empty());
}

TEST_F(ArchiveFailuresTest, AnItemWhoseArchiveIsMissingIsNotFound) {
  const std::int64_t id = plant_->itemId("Plant/Nowhere");
  ASSERT_NE(id, -1);
  const HistoryReply reply = client().readRaw(id, "");
  EXPECT_EQ(reply.code, 0);
  EXPECT_EQ(reply.item().statusCode, kBadNotFound);
  // Signed, as all status codes of items are.
  EXPECT_THAT(reply.text, HasSubstr("\"statusCode\":-2143420416"));
}

TEST_F(ArchiveFailuresTest, AVariableWithoutArchivedLayersHasNoId) {
  EXPECT_EQ(client().archiveItemId("Plant/Live"), -1);
}

TEST_F(ArchiveFailuresTest, AReplyThatDoesNotFitIsACodeAlone) {
  const std::string body = readBody(plant_->itemId("Plant/Load"));
  const HttpReply whole = client().call("HistoryReadRaw", body);
  const auto withBuffer = [&](std::size_t bytes) {
    return httpPost(plant_->port(), "/Methods/HistoryReadRaw", body,
                    "X-Orva-Buffer: " + std::to_string(bytes) + "\r\n");
  };
  // The terminating NUL needs room too.
  EXPECT_EQ(withBuffer(whole.body.size() + 1).body, whole.body);
  const HttpReply tooLarge = withBuffer(whole.body.size() / 2);
  EXPECT_EQ(tooLarge.body, "{\"code\":2148007936}");
  EXPECT_EQ(parseHistoryReply(tooLarge.body).code, kBadEncodingLimits);
}

TEST_F(ArchiveFailuresTest, NewRecordsComeInPagesThatFit) {
  Samples all;
  std::int64_t point = 0;
  for (int page = 0; page < 1000; ++page) {
    const HttpReply reply = httpPost(
        plant_->port(), "/Methods/ReadNewRecords",
        R"({"items":[{"path":"Plant/Load","continuationPoint":)" + std::to_string(point) + "}]}",
        "X-Orva-Buffer: 1400\r\n");
    EXPECT_LT(reply.body.size(), 1400U);
    const HistoryReply parsed = parseHistoryReply(reply.body);
    ASSERT_EQ(parsed.code, 0) << reply.body;
    all.insert(all.end(), parsed.item().values.begin(), parsed.item().values.end());
    if (!parsed.item().areMoreValues) break;
    point = parsed.item().continuationPoint.value_or(point);
  }
  ASSERT_EQ(all.size(), 1000U);
  for (int i = 0; i < 1000; ++i) EXPECT_EQ(all[i].value, std::to_string(i + 1) + ".0");
}

// Last of its suite: it rebuilds the archives.
TEST_F(ArchiveFailuresTest, AReadAtASilentArchiveIsGivenUpWhenTheArchivesAreRebuilt) {
  const std::int64_t id = plant_->itemId("Plant/Silent");
  auto pending = std::async(std::launch::async, [id] { return client().readRaw(id, ""); });
  EXPECT_EQ(pending.wait_for(std::chrono::milliseconds(500)), std::future_status::timeout);
  plant_->host().signal(SIGUSR1);
  ASSERT_EQ(pending.wait_for(std::chrono::seconds(10)), std::future_status::ready);
  const HistoryReply reply = pending.get();
  EXPECT_EQ(reply.code, 0);
  EXPECT_EQ(reply.item().statusCode, kBadTimeout);
  EXPECT_THAT(reply.text, HasSubstr("\"statusCode\":-2146828288"));
}

}  // namespace
}  // namespace orva::test
