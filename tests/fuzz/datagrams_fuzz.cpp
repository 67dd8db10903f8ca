#include <algorithm>
#include <optional>
#include <string>
#include <vector>

#include "fuzz/fuzz_input.h"
#include "fuzz/fuzz_targets.h"
#include "orva_host/client_exchange.h"
#include "orva_host/network_address.h"
#include "orva_host/server_exchanges.h"

// The bytes are datagrams one after the other, each behind two bytes of length (the lower one
// first). Their checksums are made right, or hardly any would get past it; not so where the highest
// bit of the length is set.

namespace orva::fuzz {
namespace {

using host::Datagram;
using host::DatagramKind;

constexpr std::size_t kChecksumAt = 40;
constexpr std::size_t kNoSeal = 0x8000;
// What the seeds know: the proof that the answering side gives, the id of the open exchange.
constexpr std::uint64_t kProof = 7;
constexpr std::uint64_t kOpenId = 5;

void seal(std::string& bytes) {
  if (bytes.size() < host::kHeaderBytes) return;
  std::fill_n(bytes.begin() + kChecksumAt, 4, '\0');
  const std::uint32_t sum = host::networkChecksum(bytes);
  for (std::size_t i = 0; i < 4; ++i) {
    bytes[kChecksumAt + i] = static_cast<char>(sum >> (8 * i) & 0xFFU);
  }
}

std::vector<std::string> datagramsIn(const std::uint8_t* data, std::size_t size) {
  std::vector<std::string> all;
  std::size_t at = 0;
  while (size - at >= 2) {
    const std::size_t head = data[at] | static_cast<std::size_t>(data[at + 1]) << 8;
    at += 2;
    const std::size_t length = std::min(head & ~kNoSeal, size - at);
    std::string bytes(reinterpret_cast<const char*>(data) + at, length);
    at += length;
    if ((head & kNoSeal) == 0) seal(bytes);
    all.push_back(std::move(bytes));
  }
  return all;
}

bool isPiece(const Datagram& datagram) {
  return datagram.kind == DatagramKind::kRequest || datagram.kind == DatagramKind::kAnswer;
}

// What decodeDatagram() lets through is sound, and says all that the bytes said.
void checkDecoded(const Datagram& datagram, const std::string& bytes) {
  demand(host::encodeDatagram(datagram) == bytes, "a datagram comes back as it was");
  demand(datagram.payload.size() == bytes.size() - host::kHeaderBytes, "the payload is the rest");
  demand(datagram.messageBytes <= host::kMessageBytes, "no message is longer than allowed");
  demand(datagram.pieces == host::piecesOf(datagram.messageBytes), "a message has its pieces");
  if (isPiece(datagram)) {
    demand(datagram.piece < datagram.pieces, "a piece is one of its message");
    demand(datagram.piece * host::kPieceBytes + datagram.payload.size() <= datagram.messageBytes,
           "a piece ends in its message");
  } else if (datagram.pieces != 0) {
    demand(host::pieceSetBytes(host::pieceSetOf(datagram), datagram.pieces) == datagram.payload,
           "a set of pieces comes back as it was");
  }
}

// Puts pieces together as they come, as one side of an exchange does.
class Assembling {
 public:
  void take(const Datagram& datagram) {
    if (!message_) message_.emplace(datagram);
    const std::size_t missing = message_->missing().count();
    const auto taken = message_->take(datagram);
    const bool isNew = taken == host::MessageAssembly::Taken::kNew;
    demand(message_->missing().count() == missing - (isNew ? 1 : 0), "a new piece fills one hole");
    if (!message_->complete()) return;
    const std::size_t size = message_->bytes();
    const std::uint32_t checksum = message_->checksum();
    std::string text;
    if (message_->release(text)) {
      demand(text.size() == size && host::networkChecksum(text) == checksum,
             "a message is what was sent");
    }
    message_.reset();
  }

 private:
  std::optional<host::MessageAssembly> message_;
};

// A controller that answers, one that asks, and whatever arrives at both.
class Network {
 public:
  Network() {
    exchanges_.setControllers({{1, host::networkAddress("10.0.0.1", 9000)}});
    out_.clear();
  }

  void arrive(const std::string& bytes) {
    nowMs_ += 10;
    atAnsweringSide(bytes);
    asking_.receive(kAnswerer_, bytes.data(), bytes.size(), nowMs_, out_);
    asking_.tick(nowMs_, out_);
    for (const host::OutgoingDatagram& datagram : out_) {
      demand(host::sameAddress(datagram.to, kAnswerer_), "the other controller alone is asked");
      demand(datagram.bytes.size() <= host::kDatagramBytes, "no datagram is longer than allowed");
    }
    out_.clear();
  }

 private:
  void atAnsweringSide(const std::string& bytes) {
    const std::uint64_t unproved = exchanges_.counters().unproved;
    host::OutgoingDatagrams replies;
    const auto request = exchanges_.receive(kAsker_, bytes.data(), bytes.size(), nowMs_, replies);
    std::size_t sent = 0;
    for (const host::OutgoingDatagram& reply : replies) {
      demand(host::sameAddress(reply.to, kAsker_), "a reply goes to who asked");
      sent += reply.bytes.size();
    }
    if (exchanges_.counters().unproved != unproved) {
      demand(!request && sent <= bytes.size(), "an unproved address gets no more than it sent");
    }
    if (request) {
      const std::string answer(request->text.size() * 3 % (host::kMessageBytes + 10), 'a');
      exchanges_.answer(request->key, 0, answer, nowMs_, replies);
    }
    const host::ExchangeLimits limits;
    demand(exchanges_.exchangesKept() <= limits.exchangesOfOne, "open exchanges are bounded");
    demand(exchanges_.bytesKept() <= limits.exchangesOfOne * host::kMessageBytes,
           "the memory of one controller is bounded");
  }

  const NLAddress kAsker_ = host::networkAddress("10.0.0.1", 9600);
  const NLAddress kAnswerer_ = host::networkAddress("10.0.0.2", 9000);
  std::int64_t nowMs_ = 0;
  host::OutgoingDatagrams out_;
  host::ServerExchanges exchanges_{[] { return kProof; }};
  host::ClientExchange asking_{
      {kAnswerer_, std::string(3000, 'q'), kOpenId, kProof, host::NetworkTiming(), 0}, out_};
};

}  // namespace

void datagrams(const std::uint8_t* data, std::size_t size) {
  Network network;
  Assembling assembling;
  for (const std::string& bytes : datagramsIn(data, size)) {
    Datagram datagram;
    if (host::decodeDatagram(bytes.data(), bytes.size(), datagram)) {
      checkDecoded(datagram, bytes);
      if (isPiece(datagram)) assembling.take(datagram);
    }
    network.arrive(bytes);
  }
}

}  // namespace orva::fuzz
