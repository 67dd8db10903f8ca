#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "orva_host/message_assembly.h"
#include "orva_host/network_address.h"
#include "orva_host/network_config.h"
#include "orva_host/outgoing_datagram.h"
#include "share/status_codes.h"

namespace orva::host {

// Names one exchange: who asks, and the id it drew.
struct ExchangeKey {
  NLAddress from;
  std::uint64_t id = 0;
};

// A request that is whole.
struct NetworkRequest {
  ExchangeKey key;
  std::string text;
};

// What is kept of exchanges at most, and how long.
struct ExchangeLimits {
  std::size_t bytes = 16U << 20;  // requests and answers
  std::size_t exchanges = 1024;
  std::size_t exchangesOfOne = 8;   // of one controller
  std::int64_t collectMs = 10'000;  // a request that does not grow
  std::int64_t answerMs = 30'000;   // an answer that nobody asks for
  std::int64_t proofMs =
      600'000;  // until an address gets a new proof; the old one holds on as long
};

struct ExchangeCounters {
  std::uint64_t datagrams = 0;  // that arrived
  std::uint64_t bytes = 0;
  std::uint64_t strange = 0;       // from an address that asks nothing here
  std::uint64_t unreadable = 0;    // no datagrams of this network, or not whole
  std::uint64_t unproved = 0;      // without the proof of their address
  std::uint64_t doubles = 0;       // of what is known already
  std::uint64_t requests = 0;      // handed out to be served
  std::uint64_t refused = 0;       // requests there was no room for
  std::uint64_t evicted = 0;       // exchanges that made room for others
  std::uint64_t answerPieces = 0;  // sent
};

// The answering side of all exchanges: collects the pieces of requests, hands out those that are
// whole, and gives the pieces of answers that are asked for. A request that comes again is not
// served again as long as its exchange is kept.
//
// Nothing is answered to addresses other than those that the configured controllers ask from. And
// an address that has not shown that it receives what is sent to it gets nothing but challenges,
// which are no longer than what came from it; nothing is kept of it but one proof. So the forged
// sender of a datagram is neither flooded nor does it cost memory.
//
// Has neither a socket nor a clock, as ClientExchange. For one thread at a time.
class ServerExchanges {
 public:
  using Random = std::function<std::uint64_t()>;  // never 0
  explicit ServerExchanges(Random random, ExchangeLimits limits = {});

  // Who may ask from now on. Exchanges of others are dropped.
  void setControllers(std::vector<ControllerCfg> controllers);

  // A datagram, and the request that it made whole.
  std::optional<NetworkRequest> receive(const NLAddress& from, const char* bytes,
                                        std::size_t length, std::int64_t nowMs,
                                        OutgoingDatagrams& out);
  // The answer to a request that receive() gave. Nothing when the exchange is no longer kept.
  void answer(const ExchangeKey& key, StatusCode code, std::string text, std::int64_t nowMs,
              OutgoingDatagrams& out);
  // Drops what is too old. Call it once in a while.
  void expire(std::int64_t nowMs);

  const ExchangeCounters& counters() const { return counters_; }
  std::size_t exchangesKept() const { return exchanges_.size(); }
  std::size_t bytesKept() const { return bytes_; }

 private:
  enum class State { kCollecting, kServing, kAnswered, kDone };
  struct Exchange {
    State state = State::kCollecting;
    std::int32_t controller = 0;
    std::int64_t touchedMs = 0;              // when it last got on
    std::uint16_t round = 0;                 // the latest that was replied to
    bool replied = false;                    // `round` means something
    std::size_t bytes = 0;                   // counted for it
    std::optional<MessageAssembly> request;  // kCollecting
    OutgoingMessage answer;                  // kAnswered
  };
  struct KeyOrder {
    bool operator()(const ExchangeKey& a, const ExchangeKey& b) const;
  };
  using Exchanges = std::map<ExchangeKey, Exchange, KeyOrder>;
  struct Proof {
    std::uint64_t current = 0;
    std::uint64_t former = 0;  // 0: none
    std::int64_t drawnMs = 0;
  };

  const ControllerCfg* controllerAt(const NLAddress& address) const;
  bool isProved(const NLAddress& from, std::uint64_t proof, std::int64_t nowMs);
  void challenge(const NLAddress& from, const Datagram& datagram, OutgoingDatagrams& out);
  std::optional<NetworkRequest> onRequest(const ExchangeKey& key, const Datagram& datagram,
                                          std::int32_t controller, OutgoingDatagrams& out);
  std::optional<NetworkRequest> collect(Exchanges::iterator at, const Datagram& datagram,
                                        OutgoingDatagrams& out);
  void onAskAnswer(const ExchangeKey& key, const Datagram& datagram, OutgoingDatagrams& out);
  void onDone(const ExchangeKey& key);
  bool isNewRound(Exchange& exchange, const Datagram& datagram) const;
  Exchanges::iterator open(const ExchangeKey& key, const Datagram& datagram,
                           std::int32_t controller);
  bool makeRoom(std::size_t bytes, std::int32_t controller);
  bool evictOne(const std::int32_t* controller);
  void setBytes(Exchange& exchange, std::size_t bytes);
  Exchanges::iterator drop(Exchanges::iterator at);
  void sendPieces(const ExchangeKey& key, const Exchange& exchange, const PieceSet& pieces,
                  OutgoingDatagrams& out);
  void reply(const ExchangeKey& key, Datagram& datagram, std::uint16_t round,
             OutgoingDatagrams& out) const;

  const Random random_;
  const ExchangeLimits limits_;
  std::vector<ControllerCfg> controllers_;
  std::map<NLAddress, Proof, AddressOrder> proofs_;  // of addresses that controllers ask from
  Exchanges exchanges_;
  std::map<std::int32_t, std::size_t> kept_;  // exchanges of a controller
  std::size_t bytes_ = 0;
  std::int64_t nowMs_ = 0;
  ExchangeCounters counters_;
};

}  // namespace orva::host
