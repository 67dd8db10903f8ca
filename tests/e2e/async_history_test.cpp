// History for clients that do not wait for it, over HTTP.

#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <future>

#include "support/plant.h"

namespace orva::test {
namespace {

constexpr std::int64_t kNoSubscription = 0x802A0000;
constexpr std::int64_t kNotYet = 0x80320000;
constexpr std::int64_t kNothingToPublish = 0x804A0000;
constexpr std::int64_t kInvalid = 0x805A0000;
constexpr std::int64_t kOtherRequest = 0x80840000;
constexpr std::int64_t kDoesNotFit = 0x80080000;

constexpr const char* kThousandSamples = R"(
local load = ArchiveProc.new{Id = 1, Path = "Plant/Load"}
function cycle()
  if load.Value then return end
  for n = 1, 1000 do
    load.Value = DataValue{Value = n, SourceTime = 1700000000000 + n}
    load()
  end
end
)";

// "Plant/Load" in an archive that answers, "Plant/Silent" in one that never does.
class AsyncHistoryTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    PlantConfig config;
    config.addins = R"(["liborva_database.so", "liborva_sqlite.so", "liborva_silent.so"])";
    config.variables = "[" + variable(1, "Plant/Load", "Double") + "," +
                       variable(2, "Plant/Silent", "Double", R"({"0": {"archive": 1}})") + "]";
    config.programs = "[" + program("writer", "writer.lua", 10) + "]";
    config.dataArchive = R"({"archives": [
      {"connection": {"providerType": "sqlite", "location": "store"},
       "limits": {"writePeriod": 1000000}, "filter": {"allValues": true}},
      {"connection": {"providerType": "silent"}, "limits": {}, "filter": {}}]})";
    plant_ = std::make_unique<Plant>(config);
    plant_->folder().write("writer.lua", kThousandSamples);
    if (!plant_->start()) return;
    load_ = plant_->itemId("Plant/Load");
    silent_ = plant_->itemId("Plant/Silent");
    EXPECT_TRUE(plant_->waitForValue(load_, "1000.0"));
  }
  static void TearDownTestSuite() { plant_.reset(); }

  static std::string idsOf(int subscription, int request) {
    return R"("subscriptionId":)" + std::to_string(subscription) + R"(,"requestId":)" +
           std::to_string(request);
  }
  static std::string publishBody(int subscription, int request) {
    return R"({"parameters":{)" + idsOf(subscription, request) + "}}";
  }
  // `parameters` are members, without braces.
  static HistoryReply ask(int subscription, int request, std::int64_t id,
                          const std::string& parameters = R"("startTime":0)") {
    const std::string body = R"({"data":[{"archiveItemId":)" + std::to_string(id) +
                             R"(}],"parameters":{)" + idsOf(subscription, request) + "," +
                             parameters + "}}";
    return parseHistoryReply(plant_->client().call("HistoryReadRawAsync", body).body);
  }
  static HistoryReply publish(int subscription, int request) {
    return parseHistoryReply(
        plant_->client().call("PublishHistoryData", publishBody(subscription, request)).body);
  }
  // From "data" on.
  static std::string dataPart(const HistoryReply& reply) {
    const std::size_t data = reply.text.find("\"data\":");
    return data == std::string::npos ? reply.text : reply.text.substr(data);
  }

  static std::unique_ptr<Plant> plant_;
  static std::int64_t load_;
  static std::int64_t silent_;
};

std::unique_ptr<Plant> AsyncHistoryTest::plant_;
std::int64_t AsyncHistoryTest::load_ = -1;
std::int64_t AsyncHistoryTest::silent_ = -1;

TEST_F(AsyncHistoryTest, AClientComesBackForWhatASynchronousReadWouldHaveGiven) {
  const std::string parameters =
      R"("startTime":1700000000100,"endTime":1700000000200,"numValuesPerNode":50)";
  const HistoryReply asked = ask(1, 7, load_, parameters);
  EXPECT_EQ(asked.text, R"({"subscriptionId":1,"requestId":7,"code":0})");
  const HistoryReply reply = publish(1, 7);
  EXPECT_EQ(reply.code, 0);
  EXPECT_EQ(reply.item().values.size(), 50U);
  EXPECT_TRUE(reply.item().areMoreValues);
  EXPECT_EQ(dataPart(reply), dataPart(plant_->client().readRaw(load_, parameters)));
  EXPECT_EQ(publish(1, 7).code, kNothingToPublish);
}

TEST_F(AsyncHistoryTest, EachMisuseHasItsCode) {
  EXPECT_EQ(publish(2, 1).code, kNothingToPublish);
  EXPECT_EQ(parseHistoryReply(plant_->client().call("PublishHistoryData", "{}").body).code,
            kNoSubscription);
  EXPECT_EQ(parseHistoryReply(plant_->client().call("HistoryReadRawAsync", "{}").body).code,
            kInvalid);
  ask(2, 1, load_);
  ask(2, 2, load_);
  EXPECT_EQ(publish(2, 1).code, kOtherRequest);
  EXPECT_EQ(publish(2, 2).item().values.size(), 1000U);
}

TEST_F(AsyncHistoryTest, AResultLargerThanTheReplyMayBeStaysForALargerOne) {
  ask(3, 1, load_);
  const HttpReply small = httpPost(plant_->port(), "/Methods/PublishHistoryData", publishBody(3, 1),
                                   "X-Orva-Buffer: 1400\r\n");
  EXPECT_EQ(parseHistoryReply(small.body).code, kDoesNotFit);
  EXPECT_EQ(publish(3, 1).item().values.size(), 1000U);
}

// A synchronous read of it would hold up everybody for a minute.
TEST_F(AsyncHistoryTest, ASilentArchiveHoldsUpNobody) {
  const std::int64_t begin = steadyMilliseconds();
  EXPECT_EQ(ask(4, 1, silent_).code, 0);
  EXPECT_EQ(publish(4, 1).code, kNotYet);
  EXPECT_EQ(plant_->client().readRaw(load_, R"("numValuesPerNode":10)").item().values.size(), 10U);
  EXPECT_EQ(publish(4, 1).code, kNotYet);
  EXPECT_LT(steadyMilliseconds() - begin, 30'000);
  // Whoever asks again does not wait for the old read.
  EXPECT_EQ(ask(4, 2, load_).code, 0);
  EXPECT_EQ(publish(4, 2).item().values.size(), 1000U);
}

// Last of its suite: it rebuilds the archives.
TEST_F(AsyncHistoryTest, AResultOutlivesTheArchivesItCameFrom) {
  ask(5, 1, load_);
  ask(6, 1, silent_);
  // A synchronous read that waits is given up when the archives are rebuilt.
  auto rebuilt = std::async(std::launch::async, [] { plant_->client().readRaw(silent_, ""); });
  EXPECT_EQ(rebuilt.wait_for(std::chrono::milliseconds(500)), std::future_status::timeout);
  plant_->host().signal(SIGUSR1);
  ASSERT_EQ(rebuilt.wait_for(std::chrono::seconds(20)), std::future_status::ready);
  EXPECT_EQ(publish(5, 1).item().values.size(), 1000U);
  EXPECT_EQ(publish(6, 1).code, kNotYet);
}

}  // namespace
}  // namespace orva::test
