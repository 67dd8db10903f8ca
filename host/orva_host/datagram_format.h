#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "host/controller_network.h"

namespace orva::host {

// One datagram of the controller network; docs/controller-network.md gives the bytes.

constexpr std::size_t kDatagramBytes = 1400;  // at most
constexpr std::size_t kHeaderBytes = 44;
constexpr std::size_t kPieceBytes = kDatagramBytes - kHeaderBytes;
// An answer is the handler's status, four bytes, and the text.
constexpr std::size_t kStatusBytes = 4;
constexpr std::size_t kMessageBytes = kNLMaxMessage + kStatusBytes;
constexpr std::size_t kMostPieces = (kMessageBytes + kPieceBytes - 1) / kPieceBytes;

enum class DatagramKind : std::uint8_t {
  // From the asking side.
  kRequest = 1,    // a piece of a request
  kAskAnswer = 2,  // pieces of the answer that are wanted, as a bit set
  kDone = 3,       // the answer is here
  // From the answering side.
  kAnswer = 16,      // a piece of an answer
  kChallenge = 17,   // gives the proof that later datagrams must carry
  kAskRequest = 18,  // pieces of the request that are missing, as a bit set
  kWorking = 19,     // the request is here, its answer is not ready
  kUnknown = 20,     // no such exchange: begin again
};

struct Datagram {
  DatagramKind kind = DatagramKind::kRequest;
  bool replyWanted = false;
  std::uint64_t id = 0;     // of the exchange
  std::uint64_t proof = 0;  // that the sender receives what is sent to its address
  // Of the whole message that the piece, or the bit set, belongs to; 0 in all other kinds.
  std::uint32_t messageBytes = 0;
  std::uint32_t messageChecksum = 0;
  std::uint16_t piece = 0;
  std::uint16_t pieces = 0;
  std::uint16_t round = 0;   // counts what the asking side sends; replies repeat it
  std::string_view payload;  // not owned
};

// The pieces that a message of so many bytes has; 0 when there is no such message.
std::uint16_t piecesOf(std::size_t messageBytes);
// How many bytes of the message stand in that piece.
std::size_t bytesOfPiece(std::size_t messageBytes, std::uint16_t piece);

// CRC-32C, which is what datagrams and messages are checked with.
std::uint32_t networkChecksum(std::string_view bytes);

std::string encodeDatagram(const Datagram& datagram);
// False when it is no datagram of this network, or not whole: nothing in it may be used then. The
// payload of `out` lies in `bytes`. Takes anything: this is where what strangers send comes in.
bool decodeDatagram(const char* bytes, std::size_t length, Datagram& out);

}  // namespace orva::host
