#include "orva_host/client_exchange.h"

#include <algorithm>
#include <utility>

#include "orva_host/network_address.h"
#include "share/status_codes.h"

namespace orva::host {
namespace {

// So often may the other side say that it does not know the exchange, or want another proof.
constexpr int kMostRestarts = 8;
// Once the last piece of a burst is here, the others come within this time or were lost.
constexpr int kOvertakenMs = 10;

std::uint32_t statusAt(const std::string& answer) {
  std::uint32_t code = 0;
  for (std::size_t i = 0; i < kStatusBytes; ++i) {
    code |= static_cast<std::uint32_t>(static_cast<unsigned char>(answer[i])) << (8 * i);
  }
  return code;
}

}  // namespace

ClientExchange::ClientExchange(Start start, OutgoingDatagrams& out)
    : to_(start.to),
      request_(std::move(start.request)),
      id_(start.id),
      timing_(start.timing),
      endMs_(start.nowMs + start.timing.timeoutMs),
      nowMs_(start.nowMs),
      waitMs_(start.timing.retryMs),
      proof_(start.proof) {
  toSend_ = request_.all();
  sendRequest(kBurstPieces, out);
}

bool ClientExchange::receive(const NLAddress& from, const char* bytes, std::size_t length,
                             std::int64_t nowMs, OutgoingDatagrams& out) {
  Datagram datagram;
  if (over_ || !sameAddress(from, to_) || !decodeDatagram(bytes, length, datagram) ||
      datagram.id != id_) {
    return false;
  }
  nowMs_ = nowMs;
  switch (datagram.kind) {
    case DatagramKind::kChallenge:
      onChallenge(datagram, out);
      return true;
    case DatagramKind::kAskRequest:
      onAskRequest(datagram, out);
      return true;
    case DatagramKind::kWorking:
      if (!answer_ && isNewRound(datagram)) heard(false);
      return true;
    case DatagramKind::kUnknown:
      if (isNewRound(datagram)) onUnknown(out);
      return true;
    case DatagramKind::kAnswer:
      onAnswer(datagram, out);
      return true;
    default:
      return false;
  }
}

void ClientExchange::tick(std::int64_t nowMs, OutgoingDatagrams& out) {
  nowMs_ = nowMs;
  if (over_ || nowMs < nextMs()) return;
  const bool isSilent = !std::exchange(burstEnded_, false);
  if (nowMs >= endMs_ || (isSilent && ++silent_ > timing_.retries)) return end(kNLTimedOut);
  if (isSilent) waitMs_ = std::min(waitMs_ * 2, kMostRetryMs);
  if (answer_) {
    askForAnswer(out);
  } else {
    sendRequest(1, out);
  }
}

std::int64_t ClientExchange::nextMs() const { return std::min(dueMs_, endMs_); }

int ClientExchange::result(std::string& answer) const {
  answer = text_;
  return status_;
}

// The other side is there. Without progress it is asked less and less often.
void ClientExchange::heard(bool progress) {
  silent_ = 0;
  waitMs_ = progress ? timing_.retryMs : std::min(waitMs_ * 2, kMostRetryMs);
  dueMs_ = nowMs_ + waitMs_;
}

// Each of our datagrams that asks for a reply has a number of its own. What replies to one that
// was replied to already came twice, or late: to act on it would double what is sent.
bool ClientExchange::isNewRound(const Datagram& datagram) {
  const auto ahead = static_cast<std::uint16_t>(datagram.round - heardRound_);
  const auto open = static_cast<std::uint16_t>(round_ - heardRound_);
  if (ahead == 0 || ahead > open) return false;
  heardRound_ = datagram.round;
  return true;
}

void ClientExchange::onChallenge(const Datagram& datagram, OutgoingDatagrams& out) {
  if (!isNewRound(datagram) || datagram.proof == 0 || datagram.proof == proof_) return;
  proof_ = datagram.proof;
  beginAgain(out);
}

// The answer was given up there, or it is another one than the one whose pieces are here.
void ClientExchange::onUnknown(OutgoingDatagrams& out) { beginAgain(out); }

void ClientExchange::beginAgain(OutgoingDatagrams& out) {
  if (++restarts_ > kMostRestarts) return end(kNLTimedOut);
  heard(true);
  answer_.reset();
  asked_.reset();
  askedBefore_.reset();
  burstEnded_ = false;
  toSend_ = request_.all();
  sendRequest(kBurstPieces, out);
}

void ClientExchange::onAskRequest(const Datagram& datagram, OutgoingDatagrams& out) {
  if (answer_ || !request_.isMessageOf(datagram) || !isNewRound(datagram)) return;
  heard(true);
  toSend_ = pieceSetOf(datagram);
  sendRequest(kBurstPieces, out);
}

// Up to `most` pieces that the other side lacks; the last of them asks what it lacks then. Without
// a proof one piece is enough to be given it, and none would be kept.
void ClientExchange::sendRequest(int most, OutgoingDatagrams& out) {
  const PieceSet burst = firstPieces(toSend_, proof_ == 0 ? 1 : most);
  repeatedPieces_ += static_cast<int>((burst & sent_).count());
  if (proof_ != 0) sent_ |= burst;
  std::size_t left = burst.count();
  ++round_;
  for (std::uint16_t piece = 0; left > 0; ++piece) {
    if (!burst[piece]) continue;
    --left;
    Datagram datagram;
    datagram.kind = DatagramKind::kRequest;
    datagram.replyWanted = left == 0;
    request_.putPiece(piece, datagram);
    send(datagram, out);
  }
}

void ClientExchange::askForAnswer(OutgoingDatagrams& out) {
  burstEnded_ = false;
  asked_ = firstPieces(answer_->missing(), kBurstPieces);
  repeatedPieces_ += static_cast<int>((asked_ & askedBefore_).count());
  askedBefore_ |= asked_;
  ++round_;
  const std::string set = pieceSetBytes(asked_, answer_->pieces());
  Datagram datagram;
  datagram.kind = DatagramKind::kAskAnswer;
  answer_->putMessage(datagram);
  datagram.payload = set;
  send(datagram, out);
}

void ClientExchange::onAnswer(const Datagram& datagram, OutgoingDatagrams& out) {
  if (datagram.messageBytes < kStatusBytes) return;
  if (!answer_) {
    answer_.emplace(datagram);
    // The first ones come unasked.
    asked_ = firstPieces(answer_->missing(), kBurstPieces);
    askedBefore_ = asked_;
  }
  if (answer_->take(datagram) != MessageAssembly::Taken::kNew) return;
  heard(true);
  if (answer_->complete()) {
    finish(out);
  } else if ((asked_ & answer_->missing()).none()) {
    askForAnswer(out);
  } else if (burstEnded_ || (asked_ >> (datagram.piece + 1U)).none()) {
    burstEnded_ = true;
    dueMs_ = std::min(dueMs_, nowMs_ + kOvertakenMs);
  }
}

void ClientExchange::finish(OutgoingDatagrams& out) {
  if (!answer_->release(text_)) {
    text_.clear();
    return beginAgain(out);
  }
  ++round_;
  Datagram datagram;
  datagram.kind = DatagramKind::kDone;
  send(datagram, out);
  const std::uint32_t code = statusAt(text_);
  text_.erase(0, kStatusBytes);
  // What a handler wrote tells more than its status, which stands in there as well.
  if (!text_.empty()) return end(0);
  end(static_cast<int>(code == status::kGood ? status::kBadNoData : code));
}

void ClientExchange::end(int code) {
  over_ = true;
  status_ = code;
  answer_.reset();
}

void ClientExchange::send(Datagram& datagram, OutgoingDatagrams& out) {
  datagram.id = id_;
  datagram.proof = proof_;
  datagram.round = round_;
  dueMs_ = nowMs_ + waitMs_;
  out.push_back({to_, encodeDatagram(datagram)});
}

}  // namespace orva::host
