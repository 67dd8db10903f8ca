#include "host/controller_network.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <map>
#include <random>
#include <thread>

#include "orva_host/controller_network_state.h"
#include "orva_host/datagram_format.h"
#include "orva_host/host_metrics.h"
#include "orva_host/message_assembly.h"
#include "orva_host/metrics_registry.h"
#include "orva_host/network_address.h"
#include "orva_host/network_server.h"
#include "orva_host/prometheus_text.h"
#include "orva_host/steady_time.h"
#include "orva_host/udp_socket.h"
#include "share/mutex.h"
#include "support/exposition_parser.h"

// Real sockets on the loopback. What needs no socket is tested in virtual time
// (network_exchange_test.cpp).

namespace orva::host {
namespace {

constexpr const char* kHost = "127.0.0.1";

struct CloseSocket {
  void operator()(NLSocket* socket) const { NLCloseSocket(socket); }
};
using OpenSocket = std::unique_ptr<NLSocket, CloseSocket>;

std::string patternOf(std::size_t bytes, unsigned step) {
  std::string text(bytes, '\0');
  for (std::size_t i = 0; i < bytes; ++i) text[i] = static_cast<char>(i * step >> 4);
  return text;
}

// A port that was free a moment ago.
std::uint16_t freePort() {
  UdpSocket socket;
  EXPECT_EQ(socket.open(kHost, 0), 0);
  return socket.port();
}

// This controller's network, and an answering controller that knows it.
class ControllerNetworkTest : public testing::Test {
 protected:
  ControllerNetworkTest() {
    askingPort_ = freePort();
    cfg_.enabled = true;
    cfg_.index = 1;
    cfg_.basePort = static_cast<std::uint16_t>(askingPort_ - kAskingPortOffset);
    cfg_.timing = {20'000, 20, 100};
    useNetwork(cfg_);
    socket_.reset(NLTryOpenUDPSocket(askingPort_, kAskingPorts));
  }
  ~ControllerNetworkTest() override {
    release();
    useNetwork(NetworkCfg());
  }

  // Starts the answering controller. Whoever asks from `askers` may, and this one.
  void serve(const std::vector<std::uint16_t>& askers = {}) {
    NetworkCfg cfg;
    cfg.bind = kHost;
    cfg.basePort = 0;
    cfg.controllers.push_back({1, networkAddress(kHost, cfg_.basePort)});
    for (const std::uint16_t port : askers) {
      const auto index = static_cast<std::int32_t>(cfg.controllers.size() + 1);
      cfg.controllers.push_back({index, networkAddress(kHost, port - kAskingPortOffset)});
    }
    server_ = std::make_unique<NetworkServer>(
        [this](const std::string& request, char* out, int capacity, int& length) {
          return handle(request, out, capacity, length);
        });
    ASSERT_EQ(server_->open(cfg), "");
    server_->serve();
    address_ = networkAddress(kHost, server_->port());
  }

  StatusCode handle(const std::string& request, char* out, int capacity, int& length) {
    std::string answer;
    {
      const MutexLock lock(mutex_);
      ++served_[request];
      answer = answer_.empty() ? "answer to " + request : answer_;
    }
    while (holds_ && !released_) std::this_thread::yield();
    if (static_cast<int>(answer.size()) > capacity) return status::kBadEncodingLimits;
    answer.copy(out, answer.size());
    length = static_cast<int>(answer.size());
    return 0;
  }
  void release() { released_ = true; }

  int ask(const NLAddress& to, const std::string& request, std::string& answer,
          NLWait wait = NLWait()) {
    return NLSendReceive(socket_.get(), &to, request.data(), static_cast<int>(request.size()),
                         &answer, &wait);
  }

  std::uint16_t askingPort_ = 0;
  NetworkCfg cfg_;
  OpenSocket socket_;
  NLAddress address_;
  Mutex mutex_;
  std::map<std::string, int> served_ GUARDED_BY(mutex_);
  std::string answer_ GUARDED_BY(mutex_);
  std::atomic<bool> holds_{false};
  std::atomic<bool> released_{false};
  std::unique_ptr<NetworkServer> server_;  // last: its threads use the others
};

TEST_F(ControllerNetworkTest, RequestIsAnswered) {
  ASSERT_NE(socket_, nullptr);
  serve();
  std::string answer;
  EXPECT_EQ(ask(address_, "/Methods/X\n1\n{}", answer), 0);
  EXPECT_EQ(answer, "answer to /Methods/X\n1\n{}");
}

TEST_F(ControllerNetworkTest, LongestMessagesPass) {
  serve();
  const std::string request = patternOf(kNLMaxMessage, 5);
  {
    const MutexLock lock(mutex_);
    answer_ = patternOf(kNLMaxMessage, 11);
  }
  std::string answer;
  EXPECT_EQ(ask(address_, request, answer), 0);
  EXPECT_TRUE(answer == patternOf(kNLMaxMessage, 11));
  const MutexLock lock(mutex_);
  EXPECT_EQ(served_[request], 1);
}

TEST_F(ControllerNetworkTest, WhatCannotBeSentIsSaidToBe) {
  std::string answer = "old";
  const NLAddress to = networkAddress(kHost, 9);
  EXPECT_EQ(NLSendReceive(nullptr, &to, "x", 1, &answer, nullptr), kNLInvalid);
  EXPECT_EQ(answer, "");
  const NLAddress none;
  EXPECT_EQ(ask(none, "x", answer), kNLInvalid);
  EXPECT_EQ(ask(to, "", answer), kNLInvalid);
  EXPECT_EQ(ask(to, std::string(kNLMaxMessage + 1, 'x'), answer), kNLTooLong);
}

TEST_F(ControllerNetworkTest, ControllerWithoutANetworkHasNoSocket) {
  useNetwork(NetworkCfg());
  EXPECT_EQ(NLGetBasePort(), 0);
  EXPECT_EQ(NLTryOpenUDPSocket(freePort(), 1), nullptr);
  NLControllerAddress address;
  EXPECT_EQ(NLGetOtherControllerAddresses(1, &address, 1), 0);
  NLCloseSocket(nullptr);
}

TEST_F(ControllerNetworkTest, SocketTakesTheFirstFreePort) {
  EXPECT_EQ(NLGetBasePort(), cfg_.basePort);
  EXPECT_EQ(NLTryOpenUDPSocket(askingPort_, 1), nullptr);
  const OpenSocket second(NLTryOpenUDPSocket(askingPort_, kAskingPorts));
  EXPECT_NE(second, nullptr);
  EXPECT_EQ(NLTryOpenUDPSocket(askingPort_, 0), nullptr);
  EXPECT_EQ(NLTryOpenUDPSocket(askingPort_, -1), nullptr);
}

TEST_F(ControllerNetworkTest, AddressesOfOtherControllersFollowTheConfiguration) {
  NLControllerAddress address;
  EXPECT_EQ(NLGetOtherControllerAddresses(2, &address, 1), 0);
  cfg_.controllers.push_back({2, networkAddress("10.0.0.2", 9100)});
  useNetwork(cfg_);
  EXPECT_EQ(NLGetOtherControllerAddresses(2, nullptr, 0), 1);
  ASSERT_EQ(NLGetOtherControllerAddresses(2, &address, 1), 1);
  EXPECT_STREQ(address.host, "10.0.0.2");
  EXPECT_EQ(address.port, 9100);
  NLAddress made;
  NLMakeAddress(address.host, address.port, &made);
  EXPECT_TRUE(sameAddress(made, networkAddress("10.0.0.2", 9100)));
  NLMakeAddress("plc2", 9100, &made);
  EXPECT_EQ(made.port, 0);
  NLMakeAddress(nullptr, 9100, &made);
  EXPECT_EQ(made.port, 0);
  NLMakeAddress("10.0.0.2", 65536, &made);
  EXPECT_EQ(made.port, 0);
}

TEST_F(ControllerNetworkTest, DeadControllerCostsItsTimeLimit) {
  const NLAddress nobody = networkAddress(kHost, freePort());
  NLWait wait;
  wait.limitMs = 300;
  std::string answer;
  const std::int64_t begun = steadyMs();
  EXPECT_EQ(ask(nobody, "?", answer, wait), kNLTimedOut);
  const std::int64_t took = steadyMs() - begun;
  EXPECT_GE(took, 300);
  EXPECT_LT(took, 3000);
}

TEST_F(ControllerNetworkTest, StopEndsAnExchangeAtOnce) {
  const NLAddress nobody = networkAddress(kHost, freePort());
  std::atomic<bool> stop{true};
  NLWait wait;
  wait.stop = &stop;
  std::string answer;
  EXPECT_EQ(ask(nobody, "?", answer, wait), kNLCancelled);
  EXPECT_EQ(socketCounters(socket_.get()).datagramsOut, 0U);
  stop = false;
  std::int64_t stoppedMs = 0;
  std::thread stopper([&] {
    while (socketCounters(socket_.get()).datagramsOut == 0) std::this_thread::yield();
    stoppedMs = steadyMs();
    stop = true;
  });
  EXPECT_EQ(ask(nobody, "?", answer, wait), kNLCancelled);
  const std::int64_t endedMs = steadyMs();
  stopper.join();
  EXPECT_LT(endedMs - stoppedMs, 2000);
}

TEST_F(ControllerNetworkTest, ClosingTheSocketEndsItsExchange) {
  const NLAddress nobody = networkAddress(kHost, freePort());
  int code = 0;
  NLSocket* socket = socket_.get();
  std::thread asking([&] {
    std::string answer;
    code = NLSendReceive(socket, &nobody, "?", 1, &answer, nullptr);
  });
  while (socketCounters(socket).datagramsOut == 0) std::this_thread::yield();
  socket_.reset();
  asking.join();
  EXPECT_EQ(code, kNLCancelled);
}

TEST_F(ControllerNetworkTest, ExchangesOfSeveralThreadsFollowEachOther) {
  serve();
  std::atomic<int> right{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([this, i, &right] {
      for (int k = 0; k < 20; ++k) {
        const std::string request = std::to_string(i) + "/" + std::to_string(k);
        std::string answer;
        if (ask(address_, request, answer) == 0 && answer == "answer to " + request) ++right;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(right, 80);
}

TEST_F(ControllerNetworkTest, BusySocketIsWaitedForWithinTheLimit) {
  serve();
  holds_ = true;
  std::string first;
  int firstCode = -1;
  std::thread holder([&] { firstCode = ask(address_, "held", first); });
  while (server_->counters().requests == 0) std::this_thread::yield();
  NLWait wait;
  wait.limitMs = 100;
  std::string answer;
  EXPECT_EQ(ask(address_, "second", answer, wait), kNLTimedOut);
  release();
  holder.join();
  EXPECT_EQ(firstCode, 0);
  EXPECT_EQ(first, "answer to held");
}

TEST_F(ControllerNetworkTest, StoppedServerGivesNoAnswerAndWaitsForNoHandlerForever) {
  serve();
  holds_ = true;
  NLWait wait;
  wait.limitMs = 400;
  std::string answer;
  EXPECT_EQ(ask(address_, "held", answer, wait), kNLTimedOut);
  server_->stop();
  EXPECT_FALSE(server_->joinWithin(10));
  release();
  EXPECT_TRUE(server_->joinWithin(20'000));
}

TEST_F(ControllerNetworkTest, PortInUseIsSaidToBe) {
  serve();
  NetworkCfg cfg;
  cfg.basePort = server_->port();
  NetworkServer second;
  EXPECT_EQ(second.open(cfg), "network: cannot listen on 127.0.0.1 port " +
                                  std::to_string(cfg.basePort) + ": Address already in use");
}

TEST_F(ControllerNetworkTest, MetricsTellWhatWentOverTheSocketsOfBothSides) {
  const HttpServer http;
  HostNetwork network;
  const HostMetrics metrics(http, network);
  const auto value = [](const std::string& name) {
    PrometheusText text;
    MetricsRegistry::instance().collect(text);
    return test::Exposition(text.text()).value("orva_host_network_" + name + "_total");
  };
  std::map<std::string, double> before;
  for (const char* name :
       {"received_datagrams", "sent_datagrams", "received_bytes", "sent_bytes", "requests",
        "refused_requests", "ignored_datagrams", "repeated_pieces"}) {
    before[name] = value(name);
  }
  const auto grown = [&](const std::string& name) { return value(name) - before.at(name); };

  cfg_.basePort = freePort();
  cfg_.controllers = {
      {2, networkAddress(kHost, static_cast<std::uint16_t>(askingPort_ - kAskingPortOffset))}};
  ASSERT_EQ(network.open(cfg_), "");
  network.serve();
  std::string answer;
  EXPECT_EQ(static_cast<StatusCode>(ask(networkAddress(kHost, cfg_.basePort), "/x\n1\n{}", answer)),
            status::kBadNotSupported);
  UdpSocket stranger;
  ASSERT_EQ(stranger.open(kHost, 0), 0);
  stranger.send({{networkAddress(kHost, cfg_.basePort), "anything"}});
  // The request, asked to prove itself and sent again, the answer, the word that it is there; and
  // the stranger's.
  const std::int64_t end = steadyMs() + 20'000;
  const auto allArrived = [&] {
    return grown("received_datagrams") >= 6 && grown("sent_datagrams") >= 5;
  };
  while (!allArrived() && steadyMs() < end) std::this_thread::yield();
  EXPECT_EQ(grown("received_datagrams"), 6);
  EXPECT_EQ(grown("sent_datagrams"), 5);
  EXPECT_EQ(grown("received_bytes"), grown("sent_bytes") + 8);
  EXPECT_EQ(grown("sent_bytes"), 5 * kHeaderBytes + 2 * 7 + kStatusBytes);
  EXPECT_EQ(grown("requests"), 1);
  EXPECT_EQ(grown("refused_requests"), 0);
  EXPECT_EQ(grown("ignored_datagrams"), 1);
  EXPECT_EQ(grown("repeated_pieces"), 0);
}

// Stands between the asking and the answering side, and does to datagrams what networks do.
class Relay {
 public:
  struct Faults {
    double loss = 0;
    double doubling = 0;
    double holding = 0;  // kept back until a later one passes, or for 30 ms
  };
  Relay(Faults faults, unsigned seed) : faults_(faults), random_(seed) {
    EXPECT_EQ(front_.open(kHost, 0), 0);
    EXPECT_EQ(back_.open(kHost, 0), 0);
  }
  ~Relay() {
    ending_ = true;
    if (thread_.joinable()) thread_.join();
  }
  std::uint16_t frontPort() const { return front_.port(); }  // the asking side sends here
  std::uint16_t backPort() const { return back_.port(); }    // the answering side sees this one
  void start(const NLAddress& server) {
    server_ = server;
    thread_ = std::thread([this] { run(); });
  }

 private:
  struct Held {
    std::int64_t sinceMs;
    bool toServer;
    std::string bytes;
  };

  void run() {
    while (!ending_) {
      pass(front_, true);
      pass(back_, false);
      letGo(false);
    }
  }
  void pass(UdpSocket& from, bool toServer) {
    char bytes[2048];
    NLAddress sender;
    const int length = from.receive(bytes, sizeof bytes, 1, sender);
    if (length < 0) return;
    if (toServer) asker_ = sender;
    const std::string datagram(bytes, static_cast<std::size_t>(length));
    for (int copies = happens(faults_.doubling) ? 2 : 1; copies > 0; --copies) {
      if (happens(faults_.loss)) continue;
      if (happens(faults_.holding)) {
        held_.push_back({steadyMs(), toServer, datagram});
      } else {
        forward(toServer, datagram);
        letGo(happens(0.5));
      }
    }
  }
  void letGo(bool all) {
    while (!held_.empty() && (all || steadyMs() - held_.front().sinceMs >= 30)) {
      const Held held = held_.front();
      held_.erase(held_.begin());
      forward(held.toServer, held.bytes);
    }
  }
  void forward(bool toServer, const std::string& bytes) {
    (toServer ? back_ : front_).send({{toServer ? server_ : asker_, bytes}});
  }
  bool happens(double probability) {
    return std::uniform_real_distribution<double>(0, 1)(random_) < probability;
  }

  const Faults faults_;
  std::mt19937 random_;
  UdpSocket front_;
  UdpSocket back_;
  NLAddress server_;
  NLAddress asker_;
  std::vector<Held> held_;
  std::atomic<bool> ending_{false};
  std::thread thread_;
};

TEST_F(ControllerNetworkTest, EveryExchangeThroughABadNetworkEndsWithItsOwnAnswer) {
  Relay relay({0.3, 0.2, 0.3}, 4711);
  serve({relay.backPort()});
  relay.start(address_);
  const NLAddress front = networkAddress(kHost, relay.frontPort());
  for (int i = 0; i < 12; ++i) {
    const std::string request = std::to_string(i) + patternOf(i % 3 * 4000U + 1, 5);
    const std::string expected = patternOf(i % 4 * 12'000U + 1, 11U + i);
    {
      const MutexLock lock(mutex_);
      answer_ = expected;
    }
    std::string answer;
    NLWait wait;
    wait.limitMs = 120'000;
    ASSERT_EQ(ask(front, request, answer, wait), 0) << i;
    ASSERT_TRUE(answer == expected) << i;
    const MutexLock lock(mutex_);
    ASSERT_EQ(served_[request], 1) << i;
  }
  EXPECT_GT(socketCounters(socket_.get()).repeatedPieces, 0U);
}

TEST_F(ControllerNetworkTest, ExchangeFailsClearlyWhenNothingPasses) {
  Relay relay({1, 0, 0}, 1);
  serve({relay.backPort()});
  relay.start(address_);
  NLWait wait;
  wait.limitMs = 200;
  std::string answer;
  EXPECT_EQ(ask(networkAddress(kHost, relay.frontPort()), "?", answer, wait), kNLTimedOut);
  EXPECT_EQ(server_->counters().datagrams, 0U);
}

// Datagrams as nobody well-behaved sends them, from a controller's address and from a stranger's.
class Attacker {
 public:
  Attacker(const NLAddress& server, unsigned seed) : server_(server), random_(seed) {
    EXPECT_EQ(known_.open(kHost, 0), 0);
    EXPECT_EQ(stranger_.open(kHost, 0), 0);
    good_.push_back(requestOf("a request", 0));
    good_.push_back(requestOf(patternOf(200'000, 3), 0));
  }
  std::uint16_t port() const { return known_.port(); }

  // A proof of its own makes its datagrams worse.
  void prove() {
    char bytes[2048];
    NLAddress from;
    known_.send({{server_, requestOf("?", 0)}});
    const int length = known_.receive(bytes, sizeof bytes, 20'000, from);
    Datagram challenge;
    ASSERT_TRUE(length > 0 && decodeDatagram(bytes, static_cast<std::size_t>(length), challenge));
    proof_ = challenge.proof;
    for (std::size_t i = 0; i < 8; ++i) {
      good_.push_back(requestOf(patternOf(30'000 * i + 1, 3), proof_));
    }
  }
  void send() {
    std::string bytes = good_[pick(good_.size())];
    switch (pick(6)) {
      case 0:  // anything
        bytes.resize(pick(1500));
        for (char& c : bytes) c = static_cast<char>(random_());
        break;
      case 1:  // cut
        bytes.resize(pick(bytes.size() + 1));
        break;
      case 2:  // changed
        for (int i = 0; i < 3; ++i) bytes[pick(bytes.size())] = static_cast<char>(random_());
        break;
      case 3:  // the header changed by one who knows the format
        for (int i = 0; i < 2; ++i) bytes[4 + pick(36)] = static_cast<char>(random_());
        seal(bytes);
        break;
      case 4:  // a new exchange, piece or kind
        for (int i = 0; i < 8; ++i) bytes[8 + i] = static_cast<char>(random_());
        if (random_() % 2 == 0) bytes[5] = static_cast<char>(pick(22));
        seal(bytes);
        break;
      default:  // replayed
        break;
    }
    (random_() % 8 == 0 ? stranger_ : known_).send({{server_, bytes}});
  }
  // What was sent back to the stranger.
  int strangersReplies() {
    char bytes[2048];
    NLAddress from;
    int count = 0;
    while (stranger_.receive(bytes, sizeof bytes, 0, from) >= 0) ++count;
    return count;
  }
  void drain() {
    char bytes[2048];
    NLAddress from;
    while (known_.receive(bytes, sizeof bytes, 0, from) >= 0) {
    }
  }

 private:
  std::string requestOf(const std::string& text, std::uint64_t proof) {
    const OutgoingMessage message(text);
    Datagram datagram;
    datagram.replyWanted = true;
    datagram.id = random_();
    datagram.proof = proof;
    datagram.round = 1;
    message.putPiece(0, datagram);
    return encodeDatagram(datagram);
  }
  std::size_t pick(std::size_t count) { return static_cast<std::size_t>(random_() % count); }
  static void seal(std::string& bytes) {
    bytes.replace(40, 4, std::string(4, '\0'));
    const std::uint32_t sum = networkChecksum(bytes);
    for (std::size_t i = 0; i < 4; ++i) bytes[40 + i] = static_cast<char>(sum >> (8 * i) & 0xFFU);
  }

  const NLAddress server_;
  std::mt19937_64 random_;
  UdpSocket known_;
  UdpSocket stranger_;
  std::uint64_t proof_ = 0;
  std::vector<std::string> good_;
};

// ORVA_NETWORK_DATAGRAMS says how many; 200000 without it.
int attackingDatagrams() {
  const char* text = std::getenv("ORVA_NETWORK_DATAGRAMS");
  return text == nullptr ? 200'000 : std::atoi(text);
}

TEST_F(ControllerNetworkTest, ServerOutlivesAnythingAtItsPortAndGoesOnAnswering) {
  serve();
  Attacker attacker(address_, 99);
  server_->setControllers({{1, networkAddress(kHost, cfg_.basePort)},
                           {2, networkAddress(kHost, attacker.port() - kAskingPortOffset)}});
  attacker.prove();
  const ExchangeLimits limits;
  const int count = attackingDatagrams();
  const std::uint64_t before = server_->counters().datagrams;
  for (int i = 0; i < count; ++i) {
    attacker.send();
    if (i % 64 == 0) {
      attacker.drain();
      // Those that the system drops would prove nothing.
      const std::int64_t until = steadyMs() + 100;
      const std::uint64_t sent = before + static_cast<std::uint64_t>(i);
      while (server_->counters().datagrams < sent && steadyMs() < until) std::this_thread::yield();
    }
    if (i % 1000 != 0) continue;
    ASSERT_LE(server_->bytesKept(), limits.exchangesOfOne * kMessageBytes + kMessageBytes);
    std::string answer;
    if (i % 20'000 == 0) {
      ASSERT_EQ(ask(address_, "still there?", answer), 0);
      ASSERT_EQ(answer, "answer to still there?");
    }
  }
  EXPECT_EQ(attacker.strangersReplies(), 0);
  const ExchangeCounters counters = server_->counters();
  EXPECT_GT(counters.datagrams - before, static_cast<std::uint64_t>(count) * 9 / 10);
  EXPECT_GT(counters.strange, 0U);
  EXPECT_GT(counters.unreadable, 0U);
  EXPECT_GT(counters.unproved, 0U);
  EXPECT_GT(counters.doubles, 0U);
  std::string answer;
  EXPECT_EQ(ask(address_, "and now?", answer), 0);
  EXPECT_EQ(answer, "answer to and now?");
}

TEST_F(ControllerNetworkTest, AskingSideTakesNothingButItsAnswerFromAnAttacker) {
  serve();
  holds_ = true;
  std::atomic<bool> ending{false};
  UdpSocket forger;
  ASSERT_EQ(forger.open(kHost, 0), 0);
  const NLAddress asker = networkAddress(kHost, askingPort_);
  std::thread attack([&] {
    std::mt19937_64 random(5);
    const OutgoingMessage message(std::string(kStatusBytes, '\0') + "forged");
    while (!ending) {
      Datagram datagram;
      datagram.kind = DatagramKind::kAnswer;
      datagram.id = random();
      datagram.round = 1;
      message.putPiece(0, datagram);
      forger.send({{asker, encodeDatagram(datagram)}});
    }
  });
  std::string answer;
  std::thread releaser([this] {
    while (socketCounters(socket_.get()).ignored < 2000) std::this_thread::yield();
    release();
  });
  EXPECT_EQ(ask(address_, "?", answer), 0);
  EXPECT_EQ(answer, "answer to ?");
  ending = true;
  attack.join();
  releaser.join();
}

}  // namespace
}  // namespace orva::host
