#include "orva_host/network_config.h"

#include <gtest/gtest.h>

#include "orva_host/config_file.h"
#include "orva_host/network_address.h"

namespace orva::host {
namespace {

bool readNetworkText(const std::string& network, NetworkCfg& out,
                     std::vector<std::string>& errors) {
  HostConfig config;
  const bool fine =
      readConfigText("{\"network\": " + network + "}", "/x/host.json", config, errors);
  out = config.network;
  return fine;
}

TEST(NetworkConfigTest, SectionIsReadWithItsDefaults) {
  NetworkCfg cfg;
  std::vector<std::string> errors;
  ASSERT_TRUE(readNetworkText(R"({"index": 1, "basePort": 9000})", cfg, errors));
  EXPECT_TRUE(cfg.enabled);
  EXPECT_EQ(cfg.index, 1);
  EXPECT_EQ(cfg.bind, "127.0.0.1");
  EXPECT_EQ(cfg.basePort, 9000);
  EXPECT_TRUE(cfg.controllers.empty());
  EXPECT_EQ(cfg.timing.timeoutMs, 10'000);
  EXPECT_EQ(cfg.timing.retryMs, 100);
  EXPECT_EQ(cfg.timing.retries, 6);
  EXPECT_EQ(cfg.answerBytes, 262'144);
}

TEST(NetworkConfigTest, EveryFieldIsRead) {
  NetworkCfg cfg;
  std::vector<std::string> errors;
  ASSERT_TRUE(readNetworkText(
      R"({"index": 0, "bind": "::1", "basePort": 65535, "timeoutMs": 10, "retryMs": 1, "retries": 0,
          "answerBytes": 1024, "controllers": [{"index": 7, "address": "fd00::2", "port": 9000},
                                               {"index": 8, "address": "fd00::2", "port": 9100}]})",
      cfg, errors));
  EXPECT_EQ(cfg.bind, "::1");
  EXPECT_EQ(cfg.basePort, 65535);
  EXPECT_EQ(cfg.timing.timeoutMs, 10);
  EXPECT_EQ(cfg.timing.retryMs, 1);
  EXPECT_EQ(cfg.timing.retries, 0);
  EXPECT_EQ(cfg.answerBytes, 1024);
  ASSERT_EQ(cfg.controllers.size(), 2U);
  EXPECT_EQ(cfg.controllers[1].index, 8);
  EXPECT_EQ(addressText(cfg.controllers[1].address), "[fd00::2]:9100");
}

TEST(NetworkConfigTest, FileWithoutTheSectionHasNoNetwork) {
  HostConfig config;
  std::vector<std::string> errors;
  ASSERT_TRUE(readConfigText("{}", "/x/host.json", config, errors));
  EXPECT_FALSE(config.network.enabled);
}

struct NetworkFault {
  const char* section;
  const char* error;
};

class NetworkConfigFaultTest : public testing::TestWithParam<NetworkFault> {};

TEST_P(NetworkConfigFaultTest, FaultNamesItsField) {
  NetworkCfg cfg;
  std::vector<std::string> errors;
  EXPECT_FALSE(readNetworkText(GetParam().section, cfg, errors));
  ASSERT_EQ(errors.size(), 1U) << testing::PrintToString(errors);
  EXPECT_EQ(errors[0], std::string("/x/host.json: network") + GetParam().error);
}

INSTANTIATE_TEST_SUITE_P(
    Faults, NetworkConfigFaultTest,
    testing::Values(NetworkFault{"5", ": must be an object"},
                    NetworkFault{R"({"basePort": 1})", ".index: is missing"},
                    NetworkFault{R"({"index": 1})", ".basePort: is missing"},
                    NetworkFault{R"({"index": -1, "basePort": 1})",
                                 ".index: must be an integer from 0 to 2147483647"},
                    NetworkFault{R"({"index": 1, "basePort": 0})",
                                 ".basePort: must be an integer from 1 to 65535"},
                    NetworkFault{R"({"index": 1, "basePort": "9000"})",
                                 ".basePort: must be an integer from 1 to 65535"},
                    NetworkFault{R"({"index": 1, "basePort": 1, "bind": "localhost"})",
                                 ".bind: \"localhost\" is not a numeric IP address"},
                    NetworkFault{R"({"index": 1, "basePort": 1, "timeoutMs": 9})",
                                 ".timeoutMs: must be an integer from 10 to 600000"},
                    NetworkFault{R"({"index": 1, "basePort": 1, "retryMs": 801})",
                                 ".retryMs: must be an integer from 1 to 800"},
                    NetworkFault{R"({"index": 1, "basePort": 1, "retries": 1.5})",
                                 ".retries: must be an integer from 0 to 1000"},
                    NetworkFault{R"({"index": 1, "basePort": 1, "answerBytes": 262145})",
                                 ".answerBytes: must be an integer from 1024 to 262144"},
                    NetworkFault{R"({"index": 1, "basePort": 1, "port": 5})",
                                 ".port: is not a known field"},
                    NetworkFault{R"({"index": 1, "basePort": 1, "controllers": {}})",
                                 ".controllers: must be an array"},
                    NetworkFault{R"({"index": 1, "basePort": 1, "controllers": [3]})",
                                 ".controllers[0]: must be an object"}));

struct ControllerFault {
  const char* controllers;
  const char* error;
};

class ControllerFaultTest : public testing::TestWithParam<ControllerFault> {};

TEST_P(ControllerFaultTest, FaultOfAControllerNamesItsField) {
  NetworkCfg cfg;
  std::vector<std::string> errors;
  EXPECT_FALSE(readNetworkText(std::string(R"({"index": 1, "basePort": 9000, "controllers": [)") +
                                   GetParam().controllers + "]}",
                               cfg, errors));
  ASSERT_EQ(errors.size(), 1U) << testing::PrintToString(errors);
  EXPECT_EQ(errors[0], std::string("/x/host.json: network.controllers") + GetParam().error);
}

INSTANTIATE_TEST_SUITE_P(
    Faults, ControllerFaultTest,
    testing::Values(
        ControllerFault{R"({"address": "127.0.0.1", "port": 1})", "[0].index: is missing"},
        ControllerFault{R"({"index": 2, "port": 1})", "[0].address: is missing"},
        ControllerFault{R"({"index": 2, "address": "127.0.0.1"})", "[0].port: is missing"},
        ControllerFault{R"({"index": 2, "address": "127.0.0.1", "port": 65536})",
                        "[0].port: must be an integer from 1 to 65535"},
        ControllerFault{R"({"index": 2, "address": "plc2", "port": 1})",
                        "[0].address: \"plc2\" is not a numeric IP address"},
        ControllerFault{R"({"index": 2, "address": "::1", "port": 1})",
                        "[0].address: must be of the address family of network.bind"},
        ControllerFault{R"({"index": 1, "address": "127.0.0.1", "port": 1})",
                        "[0].index: is this controller's own"},
        ControllerFault{R"({"index": 2, "address": "127.0.0.1", "port": 9000})",
                        "[0].port: another controller has this address and port already"},
        ControllerFault{R"({"index": 2, "address": "127.0.0.1", "port": 1},
                           {"index": 2, "address": "127.0.0.1", "port": 2})",
                        "[1].index: another controller has it already"},
        ControllerFault{R"({"index": 2, "address": "127.0.0.1", "port": 1},
                           {"index": 3, "address": "127.0.0.1", "port": 1})",
                        "[1].port: another controller has this address and port already"},
        ControllerFault{R"({"index": 2, "address": "127.0.0.1", "port": 1, "name": "x"})",
                        "[0].name: is not a known field"}));

TEST(NetworkConfigTest, ControllerAsksFromTwentyPortsAboveItsBasePort) {
  const auto asks = [](int basePort, int port, const char* host = "10.0.0.2") {
    return asksFrom({2, networkAddress("10.0.0.2", basePort)}, networkAddress(host, port));
  };
  EXPECT_FALSE(asks(9000, 9000));
  EXPECT_FALSE(asks(9000, 9599));
  EXPECT_TRUE(asks(9000, 9600));
  EXPECT_TRUE(asks(9000, 9619));
  EXPECT_FALSE(asks(9000, 9620));
  EXPECT_FALSE(asks(9000, 9600, "10.0.0.3"));
  EXPECT_TRUE(asks(65'000, 64));  // 65600, taken modulo 65536
  EXPECT_FALSE(asks(65'000, 63));
}

}  // namespace
}  // namespace orva::host
