// Records of one host pulled by another, both of them programs of their own.

#include <gtest/gtest.h>
#include <signal.h>

#include "orva_host/udp_socket.h"
#include "share/json.h"
#include "support/plant.h"

namespace orva::test {
namespace {

constexpr const char* kLoopback = "127.0.0.1";
constexpr int kItems = 3;
// All of an item's history in one reply: pages of samples with one time may miss some.
constexpr const char* kEverything = R"("numValuesPerNode": 1000000)";

// A value of each of three types, a hundred times a second.
constexpr const char* kWriter = R"(
local real = ArchiveProc.new{Id = 1, Path = "Plant/Item1"}
local switch = ArchiveProc.new{Id = 2, Path = "Plant/Item2"}
local text = ArchiveProc.new{Id = 3, Path = "Plant/Item3"}
local n = 0
function cycle()
  n = n + 1
  real.Value = n / 7
  real()
  switch.Value = n % 2 == 0
  switch()
  text.Value = DataValue{Value = "step " .. n, Status = n % 5 == 0 and 0x40000000 or 0}
  text()
end
)";
// A recording of an hour ago, written at once.
constexpr const char* kRecording = R"(
local real = ArchiveProc.new{Id = 1, Path = "Plant/Item1"}
local done = false
function cycle()
  if done then return end
  done = true
  for n = 1, 30000 do
    real.Value = DataValue{Value = n / 3, SourceTime = 1700000000000 + 7 * n}
    real()
  end
end
)";

std::uint16_t freeUdpPort() {
  host::UdpSocket socket;
  EXPECT_EQ(socket.open(kLoopback, 0), 0);
  return socket.port();
}

std::string pathOf(int item) { return "Plant/Item" + std::to_string(item); }

// Controller 1 has the records, controller 2 pulls them, controller 3 is never there.
class RemoteSourceTest : public ::testing::Test {
 protected:
  RemoteSourceTest() : source_(sourceConfig(kWriter)), puller_(pullerConfig()) {
    source_.folder().write("writer.lua", kWriter);
  }

  PlantConfig common(int index) const {
    PlantConfig config;
    config.variables = "[" + variable(1, pathOf(1), "Double") + "," +
                       variable(2, pathOf(2), "Boolean") + "," + variable(3, pathOf(3), "String") +
                       "]";
    config.network = R"({"index": )" + std::to_string(index) + R"(, "basePort": )" +
                     std::to_string(ports_[index]) + R"(, "controllers": [)";
    const char* separator = "";
    for (int other = 1; other <= 3; ++other) {
      if (other == index) continue;
      config.network += separator + (R"({"index": )" + std::to_string(other)) +
                        R"(, "address": "127.0.0.1", "port": )" + std::to_string(ports_[other]) +
                        "}";
      separator = ", ";
    }
    config.network += "]}";
    return config;
  }
  PlantConfig sourceConfig(const char* program) const {
    PlantConfig config = common(1);
    if (program != nullptr) config.programs = "[" + test::program("w", "writer.lua", 10) + "]";
    return config;
  }
  PlantConfig pullerConfig() const {
    PlantConfig config = common(2);
    config.remoteData = R"({"requestPeriod": 1000000, "items": [)";
    for (int item = 1; item <= kItems; ++item) {
      config.remoteData += (item == 1 ? "" : ",") + remoteItem(1, item);
    }
    config.remoteData += "," + remoteItem(3, 1) + "]}";
    return config;
  }
  static std::string remoteItem(int controller, int item) {
    return R"({"controllerIndex": )" + std::to_string(controller) + R"(, "localId": )" +
           std::to_string(item) + R"(, "localPath": ")" + pathOf(item) + R"(", "remotePath": ")" +
           pathOf(item) + R"("})";
  }

  static Samples history(const Plant& plant, int item) {
    return plant.client().readAll(plant.itemId(pathOf(item)), kEverything);
  }
  // Waits until the puller has so many samples more than it has now.
  bool pullsOn(std::size_t more) {
    const std::size_t before = history(puller_, 1).size();
    return waitUntil([&] { return history(puller_, 1).size() >= before + more; }, 30'000);
  }
  // Lets the source write no more, and compares.
  void expectTheSameHistory() {
    source_.configure(sourceConfig(nullptr));
    ASSERT_EQ(source_.host().stop(), 0) << source_.host().log();
    ASSERT_TRUE(source_.start());
    for (int item = 1; item <= kItems; ++item) {
      const Samples expected = history(source_, item);
      Samples pulled;
      waitUntil([&] { return (pulled = history(puller_, item)).size() >= expected.size(); },
                60'000);
      EXPECT_EQ(pulled, expected) << pathOf(item);
    }
  }

  const std::uint16_t ports_[4] = {0, freeUdpPort(), freeUdpPort(), freeUdpPort()};
  Plant source_;
  Plant puller_;
};

TEST_F(RemoteSourceTest, HistoryArrivesAsItIsThoughAnotherControllerIsDead) {
  ASSERT_TRUE(source_.start());
  ASSERT_TRUE(puller_.start());
  EXPECT_TRUE(pullsOn(100));
  expectTheSameHistory();
  EXPECT_TRUE(puller_.host().waitForLog("Controller 3 does not answer"));
  EXPECT_EQ(puller_.host().stop(), 0) << puller_.host().log();
}

TEST_F(RemoteSourceTest, BreaksOnEitherSideLeaveNoHole) {
  ASSERT_TRUE(source_.start());
  ASSERT_TRUE(puller_.start());
  ASSERT_TRUE(pullsOn(100));
  ASSERT_EQ(source_.host().stop(), 0) << source_.host().log();
  ASSERT_TRUE(source_.start());
  ASSERT_TRUE(pullsOn(100));
  // What was not on its disk yet it pulls again.
  puller_.host().killNow();
  sleepMilliseconds(500);
  ASSERT_TRUE(puller_.start());
  ASSERT_TRUE(pullsOn(100));
  ASSERT_EQ(puller_.host().stop(), 0) << puller_.host().log();
  ASSERT_TRUE(puller_.start());
  ASSERT_TRUE(pullsOn(100));
  expectTheSameHistory();
}

TEST_F(RemoteSourceTest, ReadingTheFilesAgainAndNewArchivesLoseNothing) {
  ASSERT_TRUE(source_.start());
  ASSERT_TRUE(puller_.start());
  ASSERT_TRUE(pullsOn(50));
  for (const int signal : {SIGHUP, SIGUSR1, SIGHUP, SIGUSR1}) {
    puller_.host().signal(signal);
    ASSERT_TRUE(pullsOn(50));
  }
  expectTheSameHistory();
}

TEST_F(RemoteSourceTest, ALongHistoryIsCaughtUpWithWithoutLossInASmallWriteBuffer) {
  source_.folder().write("writer.lua", kRecording);
  PlantConfig config = pullerConfig();
  config.dataArchive = R"({"archives": [{
    "connection": {"providerType": "sqlite", "location": "store"},
    "limits": {"writePeriod": 1000000, "writeBufferSize": 2000},
    "filter": {"allValues": true}}]})";
  puller_.configure(config);
  ASSERT_TRUE(source_.start());
  ASSERT_TRUE(puller_.start());
  ASSERT_TRUE(source_.waitForValue(source_.itemId(pathOf(1)), "10000.0"));
  Samples pulled;
  waitUntil([&] { return (pulled = history(puller_, 1)).size() >= 30'000; }, 60'000);
  EXPECT_EQ(pulled, history(source_, 1));
  EXPECT_EQ(puller_.host().log().find("dropped"), std::string::npos);
}

constexpr const char* kThreeSamples = R"(
local pressure = ArchiveProc.new{Id = 1, Path = "Pump/Pressure"}
local done = false
function cycle()
  if done then return end
  done = true
  for n, value in ipairs{4.25, 4.5, 4.75} do
    pressure.Value = DataValue{Value = value, SourceTime = 1700000000000 + n,
                               Status = n == 3 and 0x40000000 or 0}
    pressure()
  end
end
)";

// The text that stands between "```<info>" and "```" on the page.
std::string fromPage(const std::string& info) {
  const std::string page = readFile(std::string(ORVA_SOURCE_DIR) + "/docs/remote-data.md");
  const std::string begin = "```json " + info + "\n";
  const std::size_t at = page.find(begin);
  if (at == std::string::npos) return {};
  const std::size_t text = at + begin.size();
  return page.substr(text, page.find("```", text) - text);
}

TEST_F(RemoteSourceTest, TheExamplesOfThePageGoAsTheyStandThere) {
  PlantConfig source = sourceConfig(kThreeSamples);
  source.variables = "[" + variable(1, "Pump/Pressure", "Double") + "]";
  source_.configure(source);
  source_.folder().write("writer.lua", kThreeSamples);
  PlantConfig puller = common(2);
  puller.variables = "[" + variable(11, "Station1/Pressure", "Double") + "]";
  puller.remoteData = fromPage("remote-data section");
  ASSERT_FALSE(puller.remoteData.empty());
  puller_.configure(puller);
  ASSERT_TRUE(source_.start());
  ASSERT_TRUE(source_.waitForValue(source_.itemId("Pump/Pressure"), "4.75"));
  ASSERT_TRUE(puller_.start());

  json::Document reply;
  json::Document documented;
  reply.Parse(source_.client().call("ReadNewRecords", fromPage("request ReadNewRecords")).body);
  documented.Parse(fromPage("reply"));
  ASSERT_FALSE(reply.HasParseError());
  ASSERT_FALSE(documented.HasParseError());
  EXPECT_TRUE(reply == documented);

  const std::int64_t id = puller_.itemId("Station1/Pressure");
  EXPECT_TRUE(puller_.waitForValue(id, "4.75"));
  EXPECT_EQ(puller_.client().readAll(id),
            source_.client().readAll(source_.itemId("Pump/Pressure")));
}

}  // namespace
}  // namespace orva::test
