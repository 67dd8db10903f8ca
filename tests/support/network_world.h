#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "orva_host/client_exchange.h"
#include "orva_host/server_exchanges.h"

namespace orva::test {

// What a network does to datagrams.
struct NetworkFaults {
  double loss = 0;
  double doubling = 0;
  int leastDelayMs = 1;
  int mostDelayMs = 1;  // above the least one: they overtake each other
};

// A controller that asks, one that answers, and a faulty network between them, in virtual time. The
// same seed gives the same run, ids and proofs included.
class NetworkWorld {
 public:
  explicit NetworkWorld(std::uint32_t seed = 1, host::ExchangeLimits limits = {});

  static NLAddress asker();     // where the asking one asks from: a controller that the other knows
  static NLAddress answerer();  // where the other one answers

  struct Result {
    int code = 0;
    std::string answer;
    std::int64_t tookMs = 0;
    int repeatedPieces = 0;
  };
  // One exchange from end to end, begun with the proof that the last one left.
  Result exchange(const std::string& request, const host::NetworkTiming& timing = {});

  // Hands the answering side a datagram at once, and serves what it made whole when servingMs is 0.
  // What it replies.
  host::OutgoingDatagrams receive(const NLAddress& from, const std::string& bytes);
  // The answering side forgets everything, as one that was started anew.
  void restart();
  host::ServerExchanges& answering() { return *answering_; }
  void forgetProof() { proof_ = 0; }

  NetworkFaults faults;
  std::function<std::string(const std::string& request)> handler;
  StatusCode handlerStatus = 0;
  int servingMs = 0;  // how long the handler takes
  // Sees every datagram that is sent; false loses it.
  std::function<bool(const host::Datagram& datagram)> passes;
  std::map<std::string, int> served;  // request -> how often
  std::map<host::DatagramKind, int> sent;
  std::vector<std::int64_t> askedAtMs;  // when the asking side sent something
  std::int64_t nowMs = 1000;

 private:
  struct Event {
    NLAddress from;
    NLAddress to;
    std::string bytes;
  };
  void send(const NLAddress& from, host::OutgoingDatagrams& out);
  void arrive(const Event& event, host::ClientExchange& asking, host::OutgoingDatagrams& out);
  void serve();
  double chance() { return std::uniform_real_distribution<double>(0, 1)(random_); }

  std::mt19937_64 random_;
  const host::ExchangeLimits limits_;
  std::optional<host::ServerExchanges> answering_;
  std::multimap<std::int64_t, Event> wire_;                    // by arrival
  std::multimap<std::int64_t, host::NetworkRequest> serving_;  // by end
  std::uint64_t proof_ = 0;
};

}  // namespace orva::test
