#include "orva_host/message_assembly.h"

namespace orva::host {

std::string pieceSetBytes(const PieceSet& set, std::uint16_t pieces) {
  std::string bytes((pieces + 7U) / 8U, '\0');
  for (std::size_t i = 0; i < pieces; ++i) {
    if (set[i]) bytes[i / 8] = static_cast<char>(bytes[i / 8] | 1 << i % 8);
  }
  return bytes;
}

PieceSet pieceSetOf(const Datagram& datagram) {
  PieceSet set;
  for (std::size_t i = 0; i < datagram.pieces; ++i) {
    set[i] = (static_cast<unsigned char>(datagram.payload[i / 8]) >> i % 8 & 1U) != 0;
  }
  return set;
}

PieceSet firstPieces(const PieceSet& set, int most) {
  PieceSet first;
  for (std::size_t i = 0; i < set.size() && most > 0; ++i) {
    if (!set[i]) continue;
    first.set(i);
    --most;
  }
  return first;
}

OutgoingMessage::OutgoingMessage(std::string text)
    : text_(std::move(text)), checksum_(networkChecksum(text_)) {}

PieceSet OutgoingMessage::all() const {
  PieceSet set;
  for (std::size_t i = 0; i < pieces(); ++i) set.set(i);
  return set;
}

void OutgoingMessage::putPiece(std::uint16_t piece, Datagram& out) const {
  out.messageBytes = static_cast<std::uint32_t>(text_.size());
  out.messageChecksum = checksum_;
  out.piece = piece;
  out.pieces = pieces();
  out.payload =
      std::string_view(text_).substr(piece * kPieceBytes, bytesOfPiece(text_.size(), piece));
}

bool OutgoingMessage::isMessageOf(const Datagram& datagram) const {
  return datagram.messageBytes == text_.size() && datagram.messageChecksum == checksum_;
}

MessageAssembly::MessageAssembly(const Datagram& first)
    : text_(first.messageBytes, '\0'), checksum_(first.messageChecksum), pieces_(first.pieces) {
  for (std::size_t i = 0; i < pieces_; ++i) missing_.set(i);
}

MessageAssembly::Taken MessageAssembly::take(const Datagram& piece) {
  if (piece.messageBytes != text_.size() || piece.messageChecksum != checksum_) {
    return Taken::kForeign;
  }
  if (!missing_[piece.piece]) return Taken::kDouble;
  text_.replace(piece.piece * kPieceBytes, piece.payload.size(), piece.payload);
  missing_.reset(piece.piece);
  return Taken::kNew;
}

void MessageAssembly::putMessage(Datagram& out) const {
  out.messageBytes = static_cast<std::uint32_t>(text_.size());
  out.messageChecksum = checksum_;
  out.pieces = pieces_;
}

bool MessageAssembly::release(std::string& out) {
  out = std::move(text_);
  return networkChecksum(out) == checksum_;
}

}  // namespace orva::host
