#include "orva_database/controller_link.h"

#include <gtest/gtest.h>

#include <deque>

#include "orva_host/controller_network_state.h"
#include "orva_host/network_address.h"
#include "orva_host/udp_socket.h"

namespace orva::archive {
namespace {

constexpr const char* kHost = "127.0.0.1";
constexpr int kPorts = 20;

// A controller whose ports from 600 above the base port on are taken, twenty of them.
class ControllerLinkTest : public testing::Test {
 protected:
  ControllerLinkTest() {
    for (int first = 20'000; sockets_.size() < kPorts && first < 60'000; first += 100) {
      take(first);
    }
    host::useNetwork(cfg_);
  }
  ~ControllerLinkTest() override { host::useNetwork(host::NetworkCfg()); }

  void take(int first) {
    sockets_.clear();
    for (int i = 0; i < kPorts; ++i) {
      sockets_.emplace_back();
      if (sockets_.back().open(kHost, static_cast<std::uint16_t>(first + i)) != 0) {
        sockets_.clear();
        return;
      }
    }
    cfg_.enabled = true;
    cfg_.basePort = static_cast<std::uint16_t>(first - 600);
    cfg_.controllers.push_back({3, host::networkAddress("10.0.0.3", 9000)});
  }

  host::NetworkCfg cfg_;
  std::deque<host::UdpSocket> sockets_;
};

TEST_F(ControllerLinkTest, AsksFromTheFirstFreePortFrom600AboveTheBasePortOn) {
  ASSERT_EQ(sockets_.size(), 20U);
  sockets_.pop_front();
  const NetworkLink link;
  EXPECT_TRUE(link.isOpen());
  EXPECT_FALSE(NetworkLink().isOpen());
}

TEST_F(ControllerLinkTest, TriesTwentyPortsAndNoMore) {
  ASSERT_EQ(sockets_.size(), 20U);
  EXPECT_FALSE(NetworkLink().isOpen());
  sockets_.pop_back();
  EXPECT_TRUE(NetworkLink().isOpen());
}

TEST_F(ControllerLinkTest, IsNotOpenWithoutANetwork) {
  sockets_.clear();
  host::useNetwork(host::NetworkCfg());
  EXPECT_FALSE(NetworkLink().isOpen());
}

TEST_F(ControllerLinkTest, GivesTheAddressOfAControllerThatIsConfigured) {
  NetworkLink link;
  NLAddress address;
  EXPECT_EQ(link.addresses(3, address), 1);
  EXPECT_EQ(host::addressText(address), "10.0.0.3:9000");
  EXPECT_EQ(link.addresses(4, address), 0);
  EXPECT_EQ(address.port, 0);
}

}  // namespace
}  // namespace orva::archive
