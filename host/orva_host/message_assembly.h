#pragma once

#include <bitset>
#include <cstdint>
#include <string>

#include "orva_host/datagram_format.h"

namespace orva::host {

// Some of a message's pieces.
using PieceSet = std::bitset<kMostPieces>;

// As the payload of a datagram that asks for pieces, and back. The datagram was decoded, or the
// set has no piece beyond `pieces`.
std::string pieceSetBytes(const PieceSet& set, std::uint16_t pieces);
PieceSet pieceSetOf(const Datagram& datagram);
// The first `most` pieces of a set.
PieceSet firstPieces(const PieceSet& set, int most);

// A message that is sent in pieces.
class OutgoingMessage {
 public:
  OutgoingMessage() = default;
  // 1 to kMessageBytes bytes.
  explicit OutgoingMessage(std::string text);

  std::uint16_t pieces() const { return piecesOf(text_.size()); }
  PieceSet all() const;
  std::size_t bytes() const { return text_.size(); }
  std::uint32_t checksum() const { return checksum_; }
  // Fills in what says which piece of what message it is; the payload lies in this object.
  void putPiece(std::uint16_t piece, Datagram& out) const;
  // Whether it is this message that `datagram` has a piece of, or asks for.
  bool isMessageOf(const Datagram& datagram) const;

 private:
  std::string text_;
  std::uint32_t checksum_ = 0;
};

// A message that comes in pieces, in any order and any number of times. Holds as many bytes as the
// first piece says that the message has: whoever makes one says how many there may be.
class MessageAssembly {
 public:
  // `first` is decoded; its own piece is not taken yet.
  explicit MessageAssembly(const Datagram& first);

  enum class Taken {
    kNew,
    kDouble,   // it was here already
    kForeign,  // of another message
  };
  Taken take(const Datagram& piece);

  bool complete() const { return missing_.none(); }
  const PieceSet& missing() const { return missing_; }
  std::uint16_t pieces() const { return pieces_; }
  std::size_t bytes() const { return text_.size(); }
  std::uint32_t checksum() const { return checksum_; }
  // Fills in what says which message it is.
  void putMessage(Datagram& out) const;
  // Gives the message away. False when what came is not what was sent. Once, when complete.
  bool release(std::string& out);

 private:
  std::string text_;
  std::uint32_t checksum_;
  std::uint16_t pieces_;
  PieceSet missing_;
};

}  // namespace orva::host
