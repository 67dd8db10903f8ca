#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "orva_host/message_assembly.h"
#include "orva_host/network_config.h"
#include "orva_host/outgoing_datagram.h"

namespace orva::host {

// The asking side of one exchange: sends the request, piece by piece as the other side lacks them,
// and collects the pieces of the answer. What got no reply in time is sent again, with doubling
// intervals, and what is asked for again is what is missing.
//
// Has neither a socket nor a clock: it is told what arrived and what time it is (milliseconds that
// only go forward), and says what to send. For one thread.
class ClientExchange {
 public:
  struct Start {
    NLAddress to;
    std::string request;      // 1 to kNLMaxMessage bytes
    std::uint64_t id = 0;     // random
    std::uint64_t proof = 0;  // what the other side gave last time; 0: nothing yet
    NetworkTiming timing;
    std::int64_t nowMs = 0;
  };
  ClientExchange(Start start, OutgoingDatagrams& out);

  // A datagram of any sender. False when it was none of this exchange.
  bool receive(const NLAddress& from, const char* bytes, std::size_t length, std::int64_t nowMs,
               OutgoingDatagrams& out);
  // Looks at the time; call it when nextMs() has come.
  void tick(std::int64_t nowMs, OutgoingDatagrams& out);
  std::int64_t nextMs() const;

  bool isOver() const { return over_; }
  // When it is over: 0 and the answer's text, or a status (see NLSendReceive).
  int result(std::string& answer) const;
  // What a next exchange with the same controller can begin with.
  std::uint64_t proof() const { return proof_; }
  // How many pieces were asked for, or sent, more than once.
  int repeatedPieces() const { return repeatedPieces_; }

 private:
  void onChallenge(const Datagram& datagram, OutgoingDatagrams& out);
  void onAskRequest(const Datagram& datagram, OutgoingDatagrams& out);
  void onUnknown(OutgoingDatagrams& out);
  void onAnswer(const Datagram& datagram, OutgoingDatagrams& out);
  bool isNewRound(const Datagram& datagram);
  void beginAgain(OutgoingDatagrams& out);
  void heard(bool progress);
  void sendRequest(int most, OutgoingDatagrams& out);
  void askForAnswer(OutgoingDatagrams& out);
  void finish(OutgoingDatagrams& out);
  void end(int code);
  void send(Datagram& datagram, OutgoingDatagrams& out);

  const NLAddress to_;
  const OutgoingMessage request_;
  const std::uint64_t id_;
  const NetworkTiming timing_;
  const std::int64_t endMs_;
  std::int64_t nowMs_;
  std::int64_t dueMs_ = 0;  // when what was sent last counts as lost
  int waitMs_;
  int silent_ = 0;  // sent again so often since the last sign of life
  int restarts_ = 0;
  int repeatedPieces_ = 0;
  int status_ = 0;
  std::uint16_t round_ = 0;
  std::uint16_t heardRound_ = 0;  // the latest one that was replied to
  bool burstEnded_ = false;       // the last of `asked_` came, others are missing
  bool over_ = false;
  std::uint64_t proof_;
  PieceSet toSend_;  // pieces of the request that the other side lacks
  PieceSet sent_;
  PieceSet asked_;  // pieces of the answer that are under way, as far as known
  PieceSet askedBefore_;
  std::optional<MessageAssembly> answer_;
  std::string text_;
};

}  // namespace orva::host
