#include "support/network_world.h"

#include <algorithm>

#include "orva_host/network_address.h"

namespace orva::test {

using host::ClientExchange;
using host::OutgoingDatagrams;

NLAddress NetworkWorld::asker() { return host::networkAddress("10.0.0.1", 9600); }
NLAddress NetworkWorld::answerer() { return host::networkAddress("10.0.0.2", 9000); }

NetworkWorld::NetworkWorld(std::uint32_t seed, host::ExchangeLimits limits)
    : handler([](const std::string& request) { return "answer to " + request; }),
      random_(seed),
      limits_(limits) {
  restart();
}

void NetworkWorld::restart() {
  serving_.clear();
  answering_.emplace([this] { return random_() | 1U; }, limits_);
  answering_->setControllers(
      {{1, host::networkAddress("10.0.0.1", 9000)}, {3, host::networkAddress("10.0.0.3", 9000)}});
}

NetworkWorld::Result NetworkWorld::exchange(const std::string& request,
                                            const host::NetworkTiming& timing) {
  const std::int64_t begunMs = nowMs;
  OutgoingDatagrams out;
  ClientExchange asking({answerer(), request, random_(), proof_, timing, nowMs}, out);
  while (true) {
    if (!out.empty()) askedAtMs.push_back(nowMs - begunMs);
    send(asker(), out);
    if (asking.isOver()) break;
    std::int64_t next = asking.nextMs();
    if (!wire_.empty()) next = std::min(next, wire_.begin()->first);
    if (!serving_.empty()) next = std::min(next, serving_.begin()->first);
    nowMs = std::max(nowMs, next);
    serve();
    answering_->expire(nowMs);
    if (!wire_.empty() && wire_.begin()->first <= nowMs) {
      const Event event = wire_.begin()->second;
      wire_.erase(wire_.begin());
      arrive(event, asking, out);
    }
    asking.tick(nowMs, out);
  }
  proof_ = asking.proof();
  Result result;
  result.code = asking.result(result.answer);
  result.tookMs = nowMs - begunMs;
  result.repeatedPieces = asking.repeatedPieces();
  return result;
}

void NetworkWorld::arrive(const Event& event, ClientExchange& asking, OutgoingDatagrams& out) {
  if (host::sameAddress(event.to, answerer())) {
    OutgoingDatagrams replies = receive(event.from, event.bytes);
    send(answerer(), replies);
  } else {
    asking.receive(event.from, event.bytes.data(), event.bytes.size(), nowMs, out);
  }
}

OutgoingDatagrams NetworkWorld::receive(const NLAddress& from, const std::string& bytes) {
  OutgoingDatagrams out;
  auto request = answering_->receive(from, bytes.data(), bytes.size(), nowMs, out);
  if (request && servingMs > 0) {
    serving_.emplace(nowMs + servingMs, std::move(*request));
  } else if (request) {
    ++served[request->text];
    answering_->answer(request->key, handlerStatus, handler(request->text), nowMs, out);
  }
  return out;
}

// Ends what has been served for long enough.
void NetworkWorld::serve() {
  while (!serving_.empty() && serving_.begin()->first <= nowMs) {
    const host::NetworkRequest request = serving_.begin()->second;
    serving_.erase(serving_.begin());
    ++served[request.text];
    OutgoingDatagrams out;
    answering_->answer(request.key, handlerStatus, handler(request.text), nowMs, out);
    send(answerer(), out);
  }
}

void NetworkWorld::send(const NLAddress& from, OutgoingDatagrams& out) {
  for (const host::OutgoingDatagram& datagram : out) {
    host::Datagram decoded;
    const std::string& bytes = datagram.bytes;
    if (host::decodeDatagram(bytes.data(), bytes.size(), decoded)) ++sent[decoded.kind];
    if (passes && !passes(decoded)) continue;
    const int copies = chance() < faults.doubling ? 2 : 1;
    for (int copy = 0; copy < copies; ++copy) {
      if (chance() < faults.loss) continue;
      std::uniform_int_distribution<int> delay(faults.leastDelayMs, faults.mostDelayMs);
      wire_.emplace(nowMs + delay(random_), Event{from, datagram.to, bytes});
    }
  }
  out.clear();
}

}  // namespace orva::test
