#include "orva_host/datagram_format.h"

#include <boost/crc.hpp>

namespace orva::host {
namespace {

constexpr char kMagic[4] = {'O', 'R', 'V', 'N'};
constexpr std::uint8_t kVersion = 1;
constexpr std::uint8_t kReplyWanted = 1;

// Where the fields of the header stand. Numbers are little-endian.
namespace at {
constexpr std::size_t kVersion = 4;
constexpr std::size_t kKind = 5;
constexpr std::size_t kFlags = 6;
constexpr std::size_t kReserved = 7;
constexpr std::size_t kId = 8;
constexpr std::size_t kProof = 16;
constexpr std::size_t kMessageBytes = 24;
constexpr std::size_t kMessageChecksum = 28;
constexpr std::size_t kPiece = 32;
constexpr std::size_t kPieces = 34;
constexpr std::size_t kPayloadBytes = 36;
constexpr std::size_t kRound = 38;
constexpr std::size_t kChecksum = 40;
}  // namespace at

template <class T>
void putNumber(char* out, T value) {
  for (std::size_t i = 0; i < sizeof value; ++i) {
    out[i] = static_cast<char>(static_cast<std::uint64_t>(value) >> (8 * i) & 0xFFU);
  }
}

template <class T>
T numberAt(const char* bytes) {
  std::uint64_t value = 0;
  for (std::size_t i = 0; i < sizeof(T); ++i) {
    value |= static_cast<std::uint64_t>(static_cast<unsigned char>(bytes[i])) << (8 * i);
  }
  return static_cast<T>(value);
}

using Crc32C = boost::crc_optimal<32, 0x1EDC6F41, 0xFFFFFFFF, 0xFFFFFFFF, true, true>;

// Of a whole datagram, its own field taken as zero.
std::uint32_t datagramChecksum(std::string_view bytes) {
  constexpr char kZeros[kHeaderBytes - at::kChecksum] = {};
  Crc32C sum;
  sum.process_bytes(bytes.data(), at::kChecksum);
  sum.process_bytes(kZeros, sizeof kZeros);
  sum.process_bytes(bytes.data() + kHeaderBytes, bytes.size() - kHeaderBytes);
  return sum.checksum();
}

bool readHeader(const char* bytes, std::size_t length, Datagram& out) {
  if (length < kHeaderBytes || length > kDatagramBytes) return false;
  const std::string_view all(bytes, length);
  if (all.substr(0, sizeof kMagic) != std::string_view(kMagic, sizeof kMagic)) return false;
  const auto flags = numberAt<std::uint8_t>(bytes + at::kFlags);
  if (numberAt<std::uint8_t>(bytes + at::kVersion) != kVersion ||
      numberAt<std::uint8_t>(bytes + at::kReserved) != 0 || (flags & ~kReplyWanted) != 0 ||
      numberAt<std::uint16_t>(bytes + at::kPayloadBytes) != length - kHeaderBytes ||
      numberAt<std::uint32_t>(bytes + at::kChecksum) != datagramChecksum(all)) {
    return false;
  }
  out.kind = static_cast<DatagramKind>(numberAt<std::uint8_t>(bytes + at::kKind));
  out.replyWanted = flags != 0;
  out.id = numberAt<std::uint64_t>(bytes + at::kId);
  out.proof = numberAt<std::uint64_t>(bytes + at::kProof);
  out.messageBytes = numberAt<std::uint32_t>(bytes + at::kMessageBytes);
  out.messageChecksum = numberAt<std::uint32_t>(bytes + at::kMessageChecksum);
  out.piece = numberAt<std::uint16_t>(bytes + at::kPiece);
  out.pieces = numberAt<std::uint16_t>(bytes + at::kPieces);
  out.round = numberAt<std::uint16_t>(bytes + at::kRound);
  out.payload = all.substr(kHeaderBytes);
  return true;
}

bool isSoundPiece(const Datagram& datagram) {
  return datagram.pieces != 0 && datagram.pieces == piecesOf(datagram.messageBytes) &&
         datagram.piece < datagram.pieces &&
         datagram.payload.size() == bytesOfPiece(datagram.messageBytes, datagram.piece);
}

// At least one piece, and none beyond the last.
bool isSoundBitSet(const Datagram& datagram) {
  if (datagram.pieces == 0 || datagram.pieces != piecesOf(datagram.messageBytes)) return false;
  if (datagram.piece != 0 || datagram.payload.size() != (datagram.pieces + 7U) / 8U) return false;
  bool any = false;
  for (const char c : datagram.payload) any = any || c != 0;
  const auto last = static_cast<unsigned char>(datagram.payload.back());
  const unsigned used = datagram.pieces % 8U;
  return any && (used == 0 || last >> used == 0);
}

bool isSoundControl(const Datagram& datagram) {
  return datagram.messageBytes == 0 && datagram.messageChecksum == 0 && datagram.piece == 0 &&
         datagram.pieces == 0 && datagram.payload.empty();
}

}  // namespace

std::uint16_t piecesOf(std::size_t messageBytes) {
  if (messageBytes > kMessageBytes) return 0;
  return static_cast<std::uint16_t>((messageBytes + kPieceBytes - 1) / kPieceBytes);
}

std::size_t bytesOfPiece(std::size_t messageBytes, std::uint16_t piece) {
  const std::size_t before = piece * kPieceBytes;
  if (messageBytes <= before) return 0;
  return messageBytes - before < kPieceBytes ? messageBytes - before : kPieceBytes;
}

std::uint32_t networkChecksum(std::string_view bytes) {
  Crc32C sum;
  sum.process_bytes(bytes.data(), bytes.size());
  return sum.checksum();
}

std::string encodeDatagram(const Datagram& datagram) {
  std::string bytes(kHeaderBytes, '\0');
  bytes.replace(0, sizeof kMagic, kMagic, sizeof kMagic);
  char* const header = bytes.data();
  putNumber(header + at::kVersion, kVersion);
  putNumber(header + at::kKind, static_cast<std::uint8_t>(datagram.kind));
  putNumber(header + at::kFlags,
            datagram.replyWanted ? kReplyWanted : static_cast<std::uint8_t>(0));
  putNumber(header + at::kId, datagram.id);
  putNumber(header + at::kProof, datagram.proof);
  putNumber(header + at::kMessageBytes, datagram.messageBytes);
  putNumber(header + at::kMessageChecksum, datagram.messageChecksum);
  putNumber(header + at::kPiece, datagram.piece);
  putNumber(header + at::kPieces, datagram.pieces);
  putNumber(header + at::kPayloadBytes, static_cast<std::uint16_t>(datagram.payload.size()));
  putNumber(header + at::kRound, datagram.round);
  bytes.append(datagram.payload);
  putNumber(bytes.data() + at::kChecksum, datagramChecksum(bytes));
  return bytes;
}

bool decodeDatagram(const char* bytes, std::size_t length, Datagram& out) {
  if (!readHeader(bytes, length, out)) return false;
  switch (out.kind) {
    case DatagramKind::kRequest:
    case DatagramKind::kAnswer:
      return isSoundPiece(out);
    case DatagramKind::kAskAnswer:
    case DatagramKind::kAskRequest:
      return isSoundBitSet(out);
    case DatagramKind::kDone:
    case DatagramKind::kChallenge:
    case DatagramKind::kWorking:
    case DatagramKind::kUnknown:
      return isSoundControl(out);
  }
  return false;
}

}  // namespace orva::host
