// A host asked by another controller, which is this process.

#include "host/controller_network.h"

#include <gtest/gtest.h>
#include <signal.h>

#include "orva_host/controller_network_state.h"
#include "orva_host/udp_socket.h"
#include "support/plant.h"

namespace orva::test {
namespace {

constexpr const char* kHost = "127.0.0.1";
constexpr const char* kPath = "Plant/Level";
constexpr int kRows = 3000;
constexpr int kRowBytes = 20;  // in a reply, at least
constexpr std::int64_t kFirstMs = 1'700'000'000'000;
constexpr int kAskingPort = 600;  // above the base port

std::uint16_t freePort() {
  host::UdpSocket socket;
  EXPECT_EQ(socket.open(kHost, 0), 0);
  return socket.port();
}

std::string recording() {
  std::string text = "time_ms,item_id,path,type,value,quality\n";
  for (int i = 0; i < kRows; ++i) {
    text += std::to_string(kFirstMs + 1000 * i) + ",1," + kPath + ",int64," + std::to_string(i) +
            ",0\n";
  }
  return text;
}

class ControllerNetworkTest : public ::testing::Test {
 protected:
  ControllerNetworkTest() : hostPort_(freePort()), askingPort_(freePort()), plant_(config()) {
    plant_.folder().write("level.csv", recording());
    host::NetworkCfg own;
    own.enabled = true;
    own.index = 2;
    own.basePort = static_cast<std::uint16_t>(askingPort_ - kAskingPort);
    own.timing.timeoutMs = 30'000;
    host::useNetwork(own);
    socket_ = NLTryOpenUDPSocket(askingPort_, 1);
    NLMakeAddress(kHost, hostPort_, &address_);
  }
  ~ControllerNetworkTest() override {
    NLCloseSocket(socket_);
    host::useNetwork(host::NetworkCfg());
  }

  // That of a host which knows this process as controller 2, or nobody.
  PlantConfig config(bool known = true, int answerBytes = 262'144) const {
    PlantConfig config;
    config.variables = "[" + variable(1, kPath, "Int64") + "," +
                       variable(2, "Plant/Silent", "Double", R"({"0": {"archive": 1}})") + "]";
    config.addins = R"(["liborva_database.so", "liborva_sqlite.so", "liborva_silent.so"])";
    config.dataArchive = R"({"archives": [
      {"connection": {"providerType": "sqlite", "location": "store"},
       "limits": {"writePeriod": 1000000, "writeBufferSize": 100000}, "filter": {"allValues": true}},
      {"connection": {"providerType": "silent"}}]})";
    config.sources = R"([{"type": "csv", "file": "level.csv", "speed": "max"}])";
    config.network = R"({"index": 1, "basePort": )" + std::to_string(hostPort_) +
                     R"(, "answerBytes": )" + std::to_string(answerBytes) +
                     R"(, "controllers": [)" +
                     (known ? R"({"index": 2, "address": "127.0.0.1", "port": )" +
                                  std::to_string(askingPort_ - kAskingPort) + "}"
                            : std::string()) +
                     "]}";
    return config;
  }

  int ask(const std::string& request, std::string& answer, int limitMs = 0) {
    NLWait wait;
    wait.limitMs = limitMs;
    return NLSendReceive(socket_, &address_, request.data(), static_cast<int>(request.size()),
                         &answer, &wait);
  }
  HistoryReply askNewRecords(std::int64_t from) {
    std::string answer;
    EXPECT_EQ(ask(R"(/Methods/ReadNewRecords
controller 2
{"reqID": 1, "items": [{"path": "Plant/Level", "randID": 7, "continuationPoint": )" +
                      std::to_string(from) + "}]}",
                  answer),
              0);
    return parseHistoryReply(answer);
  }
  // Everything from the point 0 on, page by page.
  Samples pullAll(int& pages) {
    Samples all;
    std::int64_t from = 0;
    for (pages = 1;; ++pages) {
      const HistoryReply reply = askNewRecords(from);
      const ItemReply& item = reply.item();
      all.insert(all.end(), item.values.begin(), item.values.end());
      if (!item.areMoreValues || pages > kRows) return all;
      from = item.continuationPoint.value_or(0);
    }
  }
  void waitForRecording() {
    EXPECT_TRUE(plant_.waitForValue(plant_.itemId(kPath), std::to_string(kRows - 1)));
  }
  static void expectRecording(const Samples& samples) {
    ASSERT_EQ(samples.size(), static_cast<std::size_t>(kRows));
    for (int i = 0; i < kRows; ++i) {
      const Sample expected{kFirstMs + 1000 * i, std::to_string(i), 0};
      ASSERT_EQ(samples[static_cast<std::size_t>(i)], expected) << i;
    }
  }

  const std::uint16_t hostPort_;
  const std::uint16_t askingPort_;
  Plant plant_;
  NLSocket* socket_ = nullptr;
  NLAddress address_;
};

TEST_F(ControllerNetworkTest, HistoryIsPulledPageByPage) {
  constexpr int kAnswerBytes = 4096;
  plant_.configure(config(true, kAnswerBytes));
  ASSERT_TRUE(plant_.start());
  waitForRecording();
  int pages = 0;
  expectRecording(pullAll(pages));
  EXPECT_GE(pages, kRows * kRowBytes / kAnswerBytes);
}

TEST_F(ControllerNetworkTest, HistoryIsPulledInOneAnswerOfManyDatagrams) {
  ASSERT_TRUE(plant_.start());
  waitForRecording();
  int pages = 0;
  expectRecording(pullAll(pages));
  EXPECT_EQ(pages, 1);
}

TEST_F(ControllerNetworkTest, RequestsThatNoHandlerTakesHaveAStatus) {
  ASSERT_TRUE(plant_.start());
  std::string answer;
  EXPECT_EQ(static_cast<unsigned>(ask("/Methods/None\n2\n{}", answer)), 0x80750000U);
  EXPECT_EQ(answer, "");
  EXPECT_EQ(static_cast<unsigned>(ask("no line ends", answer)), 0x80B60000U);
  EXPECT_EQ(ask("/Methods/ReadNewRecords\n2\n{]", answer), 0);
  EXPECT_EQ(answer, R"({"code":2159411200})");
}

TEST_F(ControllerNetworkTest, ControllerIsAnsweredAsSoonAsTheRereadFileNamesIt) {
  plant_.configure(config(false));
  ASSERT_TRUE(plant_.start());
  waitForRecording();
  std::string answer;
  EXPECT_EQ(ask("/Methods/None\n2\n{}", answer, 300), kNLTimedOut);
  plant_.configure(config(true));
  plant_.host().signal(SIGHUP);
  ASSERT_TRUE(plant_.host().waitForLog("the configuration was read again"));
  int pages = 0;
  expectRecording(pullAll(pages));
}

TEST_F(ControllerNetworkTest, HostStopsInTimeWhileItServesAControllerThatMustWait) {
  ASSERT_TRUE(plant_.start());
  std::string answer;
  EXPECT_EQ(ask(R"(/Methods/ReadNewRecords
2
{"items": [{"path": "Plant/Silent"}]})",
                answer, 500),
            kNLTimedOut);
  const std::int64_t begun = steadyMilliseconds();
  EXPECT_EQ(plant_.host().stop(), 0) << plant_.host().log();
  EXPECT_LT(steadyMilliseconds() - begun, 5'000);
}

TEST_F(ControllerNetworkTest, HostWhosePortIsTakenDoesNotStart) {
  host::UdpSocket taken;
  ASSERT_EQ(taken.open(kHost, hostPort_), 0);
  const ProgramResult result =
      runHost({"--config", plant_.configFile(), "--addins", ORVA_ADDIN_DIR});
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_EQ(result.err.substr(0, result.err.find('\n')),
            "network: cannot listen on 127.0.0.1 port " + std::to_string(hostPort_) +
                ": Address already in use");
}

}  // namespace
}  // namespace orva::test
