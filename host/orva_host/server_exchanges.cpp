#include "orva_host/server_exchanges.h"

#include <cstring>

namespace orva::host {
namespace {

std::string answerMessage(StatusCode code, const std::string& text) {
  std::string message;
  message.reserve(kStatusBytes + text.size());
  for (std::size_t i = 0; i < kStatusBytes; ++i) {
    message.push_back(static_cast<char>(code >> (8 * i) & 0xFFU));
  }
  return message + text;
}

}  // namespace

bool ServerExchanges::KeyOrder::operator()(const ExchangeKey& a, const ExchangeKey& b) const {
  return a.id != b.id ? a.id < b.id : AddressOrder()(a.from, b.from);
}

ServerExchanges::ServerExchanges(Random random, ExchangeLimits limits)
    : random_(std::move(random)), limits_(limits) {}

void ServerExchanges::setControllers(std::vector<ControllerCfg> controllers) {
  controllers_ = std::move(controllers);
  for (auto at = proofs_.begin(); at != proofs_.end();) {
    at = controllerAt(at->first) == nullptr ? proofs_.erase(at) : std::next(at);
  }
  for (auto at = exchanges_.begin(); at != exchanges_.end();) {
    const ControllerCfg* controller = controllerAt(at->first.from);
    const bool stays = controller != nullptr && controller->index == at->second.controller;
    at = stays ? std::next(at) : drop(at);
  }
}

const ControllerCfg* ServerExchanges::controllerAt(const NLAddress& address) const {
  for (const ControllerCfg& controller : controllers_) {
    if (asksFrom(controller, address)) return &controller;
  }
  return nullptr;
}

std::optional<NetworkRequest> ServerExchanges::receive(const NLAddress& from, const char* bytes,
                                                       std::size_t length, std::int64_t nowMs,
                                                       OutgoingDatagrams& out) {
  nowMs_ = nowMs;
  ++counters_.datagrams;
  counters_.bytes += length;
  const ControllerCfg* controller = controllerAt(from);
  if (controller == nullptr) {
    ++counters_.strange;
    return std::nullopt;
  }
  Datagram datagram;
  if (!decodeDatagram(bytes, length, datagram) || datagram.kind > DatagramKind::kDone) {
    ++counters_.unreadable;
    return std::nullopt;
  }
  if (!isProved(from, datagram.proof, nowMs)) {
    ++counters_.unproved;
    challenge(from, datagram, out);
    return std::nullopt;
  }
  const ExchangeKey key{from, datagram.id};
  if (datagram.kind == DatagramKind::kRequest) {
    return onRequest(key, datagram, controller->index, out);
  }
  if (datagram.kind == DatagramKind::kAskAnswer) {
    onAskAnswer(key, datagram, out);
  } else {
    onDone(key);
  }
  return std::nullopt;
}

bool ServerExchanges::isProved(const NLAddress& from, std::uint64_t proof, std::int64_t nowMs) {
  Proof& known = proofs_[from];
  const std::int64_t age = nowMs - known.drawnMs;
  if (known.current == 0 || age >= limits_.proofMs) {
    known.former = age < 2 * limits_.proofMs ? known.current : 0;
    known.current = random_();
    known.drawnMs = nowMs;
  }
  return proof != 0 && (proof == known.current || proof == known.former);
}

// As long as the shortest datagram, so never longer than the one that it replies to. One per burst
// is enough, and kDone expects none.
void ServerExchanges::challenge(const NLAddress& from, const Datagram& datagram,
                                OutgoingDatagrams& out) {
  const bool waits = datagram.kind == DatagramKind::kRequest
                         ? datagram.replyWanted
                         : datagram.kind == DatagramKind::kAskAnswer;
  if (!waits) return;
  Datagram reply;
  reply.kind = DatagramKind::kChallenge;
  reply.id = datagram.id;
  reply.proof = proofs_[from].current;
  reply.round = datagram.round;
  out.push_back({from, encodeDatagram(reply)});
}

std::optional<NetworkRequest> ServerExchanges::onRequest(const ExchangeKey& key,
                                                         const Datagram& datagram,
                                                         std::int32_t controller,
                                                         OutgoingDatagrams& out) {
  auto at = exchanges_.find(key);
  if (at == exchanges_.end()) {
    at = open(key, datagram, controller);
    if (at == exchanges_.end()) return std::nullopt;
  }
  Exchange& exchange = at->second;
  if (exchange.state == State::kCollecting) return collect(at, datagram, out);
  ++counters_.doubles;
  if (!datagram.replyWanted || !isNewRound(exchange, datagram)) return std::nullopt;
  if (exchange.state == State::kServing) {
    Datagram working;
    working.kind = DatagramKind::kWorking;
    reply(key, working, datagram.round, out);
  } else if (exchange.state == State::kAnswered) {
    // Says what the answer consists of; the other side asks for what it lacks of it.
    sendPieces(key, exchange, PieceSet(1), out);
  }
  return std::nullopt;
}

// Takes a piece of a request.
std::optional<NetworkRequest> ServerExchanges::collect(Exchanges::iterator at,
                                                       const Datagram& datagram,
                                                       OutgoingDatagrams& out) {
  Exchange& exchange = at->second;
  const auto taken = exchange.request->take(datagram);
  if (taken == MessageAssembly::Taken::kForeign) return std::nullopt;
  if (taken == MessageAssembly::Taken::kNew) exchange.touchedMs = nowMs_;
  if (taken == MessageAssembly::Taken::kDouble) ++counters_.doubles;
  if (exchange.request->complete()) {
    NetworkRequest request{at->first, ""};
    if (!exchange.request->release(request.text)) {
      drop(at);
      return std::nullopt;
    }
    exchange.request.reset();
    exchange.state = State::kServing;
    if (datagram.replyWanted) isNewRound(exchange, datagram);  // its reply is the answer
    ++counters_.requests;
    return request;
  }
  if (datagram.replyWanted && isNewRound(exchange, datagram)) {
    const std::string set = pieceSetBytes(exchange.request->missing(), exchange.request->pieces());
    Datagram ask;
    ask.kind = DatagramKind::kAskRequest;
    exchange.request->putMessage(ask);
    ask.payload = set;
    reply(at->first, ask, datagram.round, out);
  }
  return std::nullopt;
}

void ServerExchanges::onAskAnswer(const ExchangeKey& key, const Datagram& datagram,
                                  OutgoingDatagrams& out) {
  const auto at = exchanges_.find(key);
  const bool known = at != exchanges_.end() && at->second.state == State::kAnswered &&
                     at->second.answer.isMessageOf(datagram);
  if (!known) {
    if (at != exchanges_.end() && at->second.state != State::kAnswered) return;  // came late
    Datagram unknown;
    unknown.kind = DatagramKind::kUnknown;
    return reply(key, unknown, datagram.round, out);
  }
  Exchange& exchange = at->second;
  if (!isNewRound(exchange, datagram)) {
    ++counters_.doubles;
    return;
  }
  exchange.touchedMs = nowMs_;
  sendPieces(key, exchange, firstPieces(pieceSetOf(datagram), kBurstPieces), out);
}

// The answer may go; the id stays a while, so that a request that was on its way all the time is
// not served again.
void ServerExchanges::onDone(const ExchangeKey& key) {
  const auto at = exchanges_.find(key);
  if (at == exchanges_.end() || at->second.state != State::kAnswered) return;
  at->second.state = State::kDone;
  at->second.answer = OutgoingMessage();
  setBytes(at->second, 0);
}

void ServerExchanges::answer(const ExchangeKey& key, StatusCode code, std::string text,
                             std::int64_t nowMs, OutgoingDatagrams& out) {
  const auto at = exchanges_.find(key);
  if (at == exchanges_.end() || at->second.state != State::kServing) return;
  if (text.size() > kNLMaxMessage) {
    code = status::kBadEncodingLimits;
    text.clear();
  }
  nowMs_ = nowMs;
  Exchange& exchange = at->second;
  setBytes(exchange, 0);
  while (bytes_ + kStatusBytes + text.size() > limits_.bytes) {
    if (!evictOne(nullptr)) {
      ++counters_.refused;
      drop(at);
      return;
    }
  }
  exchange.answer = OutgoingMessage(answerMessage(code, text));
  exchange.state = State::kAnswered;
  exchange.touchedMs = nowMs;
  setBytes(exchange, exchange.answer.bytes());
  sendPieces(key, exchange, firstPieces(exchange.answer.all(), kBurstPieces), out);
}

void ServerExchanges::expire(std::int64_t nowMs) {
  nowMs_ = nowMs;
  for (auto at = exchanges_.begin(); at != exchanges_.end();) {
    const Exchange& exchange = at->second;
    const std::int64_t limit =
        exchange.state == State::kCollecting ? limits_.collectMs : limits_.answerMs;
    const bool old = exchange.state != State::kServing && nowMs - exchange.touchedMs >= limit;
    at = old ? drop(at) : std::next(at);
  }
}

// Whether a datagram asks for a reply that was not given yet. It may come twice, or late.
bool ServerExchanges::isNewRound(Exchange& exchange, const Datagram& datagram) const {
  const auto ahead = static_cast<std::uint16_t>(datagram.round - exchange.round);
  if (exchange.replied && (ahead == 0 || ahead > UINT16_MAX / 2)) return false;
  exchange.replied = true;
  exchange.round = datagram.round;
  return true;
}

ServerExchanges::Exchanges::iterator ServerExchanges::open(const ExchangeKey& key,
                                                           const Datagram& datagram,
                                                           std::int32_t controller) {
  if (!makeRoom(datagram.messageBytes, controller)) {
    ++counters_.refused;
    return exchanges_.end();
  }
  const auto at = exchanges_.emplace(key, Exchange()).first;
  Exchange& exchange = at->second;
  exchange.controller = controller;
  exchange.touchedMs = nowMs_;
  exchange.request.emplace(datagram);
  ++kept_[controller];
  setBytes(exchange, datagram.messageBytes);
  return at;
}

// Room for one more exchange of the controller, with so many bytes.
bool ServerExchanges::makeRoom(std::size_t bytes, std::int32_t controller) {
  while (kept_[controller] >= limits_.exchangesOfOne) {
    if (!evictOne(&controller)) return false;
  }
  while (exchanges_.size() >= limits_.exchanges || bytes_ + bytes > limits_.bytes) {
    if (!evictOne(nullptr)) return false;
  }
  return true;
}

// The oldest of those that are done, else the oldest; of one controller, or of all. One that is
// being served stays: it would be served again.
bool ServerExchanges::evictOne(const std::int32_t* controller) {
  const auto goesBefore = [](const Exchange& a, const Exchange& b) {
    const bool aDone = a.state == State::kDone;
    const bool bDone = b.state == State::kDone;
    return aDone != bDone ? aDone : a.touchedMs < b.touchedMs;
  };
  auto chosen = exchanges_.end();
  for (auto at = exchanges_.begin(); at != exchanges_.end(); ++at) {
    const Exchange& exchange = at->second;
    if (exchange.state == State::kServing) continue;
    if (controller != nullptr && exchange.controller != *controller) continue;
    if (chosen == exchanges_.end() || goesBefore(exchange, chosen->second)) chosen = at;
  }
  if (chosen == exchanges_.end()) return false;
  if (chosen->second.state != State::kDone) ++counters_.evicted;
  drop(chosen);
  return true;
}

void ServerExchanges::setBytes(Exchange& exchange, std::size_t bytes) {
  bytes_ = bytes_ - exchange.bytes + bytes;
  exchange.bytes = bytes;
}

ServerExchanges::Exchanges::iterator ServerExchanges::drop(Exchanges::iterator at) {
  setBytes(at->second, 0);
  const auto kept = kept_.find(at->second.controller);
  if (--kept->second == 0) kept_.erase(kept);
  return exchanges_.erase(at);
}

void ServerExchanges::sendPieces(const ExchangeKey& key, const Exchange& exchange,
                                 const PieceSet& pieces, OutgoingDatagrams& out) {
  for (std::uint16_t piece = 0; piece < exchange.answer.pieces(); ++piece) {
    if (!pieces[piece]) continue;
    Datagram datagram;
    datagram.kind = DatagramKind::kAnswer;
    exchange.answer.putPiece(piece, datagram);
    reply(key, datagram, exchange.round, out);
    ++counters_.answerPieces;
  }
}

void ServerExchanges::reply(const ExchangeKey& key, Datagram& datagram, std::uint16_t round,
                            OutgoingDatagrams& out) const {
  datagram.id = key.id;
  datagram.round = round;
  out.push_back({key.from, encodeDatagram(datagram)});
}

}  // namespace orva::host
