#include "orva_host/datagram_format.h"

#include <gtest/gtest.h>

#include <random>
#include <string>

namespace orva::host {
namespace {

const DatagramKind kPieceKinds[] = {DatagramKind::kRequest, DatagramKind::kAnswer};
const DatagramKind kSetKinds[] = {DatagramKind::kAskAnswer, DatagramKind::kAskRequest};
const DatagramKind kControlKinds[] = {DatagramKind::kDone, DatagramKind::kChallenge,
                                      DatagramKind::kWorking, DatagramKind::kUnknown};

bool decodes(const std::string& bytes) {
  Datagram out;
  return decodeDatagram(bytes.data(), bytes.size(), out);
}

std::string hex(const std::string& bytes) {
  std::string text;
  char pair[3];
  for (const char c : bytes) {
    std::snprintf(pair, sizeof pair, "%02x", static_cast<unsigned>(static_cast<unsigned char>(c)));
    text += pair;
  }
  return text;
}

// With its checksum made right again, as by somebody who knows the format.
std::string sealed(std::string bytes) {
  bytes.replace(40, 4, std::string(4, '\0'));
  const std::uint32_t sum = networkChecksum(bytes);
  for (std::size_t i = 0; i < 4; ++i) bytes[40 + i] = static_cast<char>(sum >> (8 * i) & 0xFFU);
  return bytes;
}

std::string withByte(std::string bytes, std::size_t at, int value) {
  bytes[at] = static_cast<char>(value);
  return sealed(bytes);
}

// The second piece of a message of 3000 bytes.
Datagram piece(DatagramKind kind, const std::string& payload) {
  Datagram datagram;
  datagram.kind = kind;
  datagram.id = 0x0102030405060708;
  datagram.proof = 0xF1F2F3F4F5F6F7F8;
  datagram.messageBytes = 3000;
  datagram.messageChecksum = 0xA1A2A3A4;
  datagram.piece = 1;
  datagram.pieces = 3;
  datagram.round = 0xB1B2;
  datagram.payload = payload;
  return datagram;
}

std::string pieceBytes() {
  return encodeDatagram(piece(DatagramKind::kRequest, std::string(kPieceBytes, 'x')));
}

Datagram setOf(DatagramKind kind, std::uint32_t messageBytes, std::string_view set) {
  Datagram datagram;
  datagram.kind = kind;
  datagram.messageBytes = messageBytes;
  datagram.pieces = piecesOf(messageBytes);
  datagram.payload = set;
  return datagram;
}

TEST(DatagramFormatTest, ChecksumIsTheOneOfCastagnoli) {
  EXPECT_EQ(networkChecksum("123456789"), 0xE3069283U);
  EXPECT_EQ(networkChecksum(""), 0U);
}

TEST(DatagramFormatTest, BytesAreThoseOfTheDocument) {
  Datagram datagram;
  datagram.kind = DatagramKind::kRequest;
  datagram.replyWanted = true;
  datagram.id = 0x0102030405060708;
  datagram.proof = 0x1112131415161718;
  datagram.messageBytes = 3;
  datagram.messageChecksum = 0x21222324;
  datagram.pieces = 1;
  datagram.round = 0x3132;
  datagram.payload = "abc";
  const std::string bytes = encodeDatagram(datagram);
  EXPECT_EQ(hex(bytes.substr(0, 40)),
            "4f52564e01010100"
            "08070605040302011817161514131211"
            "0300000024232221"
            "0000010003003231");
  EXPECT_EQ(bytes.substr(44), "abc");
  EXPECT_EQ(sealed(bytes), bytes);
}

TEST(DatagramFormatTest, PiecesOfEveryKindComeBackAsTheyWere) {
  const std::string payload(kPieceBytes, 'p');
  for (const DatagramKind kind : kPieceKinds) {
    Datagram sent = piece(kind, payload);
    sent.replyWanted = kind == DatagramKind::kRequest;
    const std::string bytes = encodeDatagram(sent);
    EXPECT_EQ(bytes.size(), kDatagramBytes);
    Datagram got;
    ASSERT_TRUE(decodeDatagram(bytes.data(), bytes.size(), got));
    EXPECT_EQ(got.kind, sent.kind);
    EXPECT_EQ(got.replyWanted, sent.replyWanted);
    EXPECT_EQ(got.id, sent.id);
    EXPECT_EQ(got.proof, sent.proof);
    EXPECT_EQ(got.messageBytes, sent.messageBytes);
    EXPECT_EQ(got.messageChecksum, sent.messageChecksum);
    EXPECT_EQ(got.piece, sent.piece);
    EXPECT_EQ(got.pieces, sent.pieces);
    EXPECT_EQ(got.round, sent.round);
    EXPECT_EQ(got.payload, payload);
  }
}

TEST(DatagramFormatTest, ControlDatagramsConsistOfTheHeaderAlone) {
  for (const DatagramKind kind : kControlKinds) {
    Datagram sent;
    sent.kind = kind;
    sent.proof = 7;
    const std::string bytes = encodeDatagram(sent);
    EXPECT_EQ(bytes.size(), kHeaderBytes);
    Datagram got;
    ASSERT_TRUE(decodeDatagram(bytes.data(), bytes.size(), got));
    EXPECT_EQ(got.kind, kind);
    EXPECT_EQ(got.proof, 7U);
    for (const std::size_t field : {24U, 28U, 32U, 34U}) {
      EXPECT_FALSE(decodes(withByte(bytes, field, 1))) << field;
    }
  }
}

TEST(DatagramFormatTest, DatagramCutAtAnyByteIsRefused) {
  const std::string bytes = pieceBytes();
  for (std::size_t length = 0; length < bytes.size(); ++length) {
    ASSERT_FALSE(decodes(bytes.substr(0, length))) << length;
  }
  ASSERT_TRUE(decodes(bytes));
  EXPECT_FALSE(decodes(bytes + 'x'));
}

TEST(DatagramFormatTest, DatagramCutAtAnyByteIsRefusedWithARightChecksumToo) {
  const std::string bytes = pieceBytes();
  for (std::size_t length = kHeaderBytes; length < bytes.size(); ++length) {
    ASSERT_FALSE(decodes(sealed(bytes.substr(0, length)))) << length;
  }
}

TEST(DatagramFormatTest, AnyFlippedBitIsNoticed) {
  std::string bytes = pieceBytes();
  for (std::size_t bit = 0; bit < bytes.size() * 8; ++bit) {
    bytes[bit / 8] = static_cast<char>(bytes[bit / 8] ^ (1 << bit % 8));
    ASSERT_FALSE(decodes(bytes)) << bit;
    bytes[bit / 8] = static_cast<char>(bytes[bit / 8] ^ (1 << bit % 8));
  }
}

TEST(DatagramFormatTest, FieldsThatMeanNothingAreRefused) {
  const std::string bytes = pieceBytes();
  for (std::size_t i = 0; i < 4; ++i) EXPECT_FALSE(decodes(withByte(bytes, i, 'X'))) << i;
  EXPECT_FALSE(decodes(withByte(bytes, 4, 0)));
  EXPECT_FALSE(decodes(withByte(bytes, 4, 2)));
  EXPECT_FALSE(decodes(withByte(bytes, 6, 2)));
  EXPECT_FALSE(decodes(withByte(bytes, 7, 1)));
  EXPECT_FALSE(decodes(withByte(bytes, 36, 0)));  // bytes of the payload
  for (const int kind : {0, 4, 15, 21, 255}) {
    EXPECT_FALSE(decodes(withByte(bytes, 5, kind))) << kind;
  }
}

TEST(DatagramFormatTest, PieceMustBeOneOfItsMessageAndWhole) {
  const std::string bytes = pieceBytes();
  EXPECT_FALSE(decodes(withByte(bytes, 32, 3)));  // piece 3 of 3
  EXPECT_FALSE(decodes(withByte(bytes, 32, 2)));  // the last one is shorter
  EXPECT_TRUE(decodes(withByte(bytes, 32, 0)));   // as long as the second
  EXPECT_FALSE(decodes(withByte(bytes, 33, 0xFF)));
  EXPECT_FALSE(decodes(withByte(bytes, 34, 2)));  // more pieces than said
  EXPECT_FALSE(decodes(withByte(bytes, 34, 4)));
  EXPECT_FALSE(decodes(withByte(bytes, 34, 0)));
  EXPECT_FALSE(decodes(withByte(bytes, 27, 0x7F)));  // a message beyond the limit
  std::string empty = encodeDatagram(Datagram());
  EXPECT_FALSE(decodes(empty));  // a message of no bytes
}

TEST(DatagramFormatTest, LongestMessageHasItsPiecesAndALongerOneHasNone) {
  EXPECT_EQ(piecesOf(0), 0);
  EXPECT_EQ(piecesOf(1), 1);
  EXPECT_EQ(piecesOf(kPieceBytes), 1);
  EXPECT_EQ(piecesOf(kPieceBytes + 1), 2);
  EXPECT_EQ(piecesOf(kMessageBytes), kMostPieces);
  EXPECT_EQ(piecesOf(kMessageBytes + 1), 0);
  EXPECT_EQ(bytesOfPiece(kPieceBytes + 1, 0), kPieceBytes);
  EXPECT_EQ(bytesOfPiece(kPieceBytes + 1, 1), 1U);
  EXPECT_EQ(bytesOfPiece(kPieceBytes + 1, 2), 0U);
}

TEST(DatagramFormatTest, SetOfPiecesNamesSomeAndNoneBeyondTheLast) {
  using namespace std::string_literals;
  constexpr std::uint32_t elevenPieces = 11 * kPieceBytes;
  for (const DatagramKind kind : kSetKinds) {
    const auto sound = [kind](std::string_view set) {
      return decodes(encodeDatagram(setOf(kind, elevenPieces, set)));
    };
    EXPECT_TRUE(sound("\x01\x00"s));
    EXPECT_TRUE(sound("\x00\x04"s));
    EXPECT_TRUE(sound("\xFF\x07"s));
    EXPECT_FALSE(sound("\x00\x00"s));
    EXPECT_FALSE(sound("\x01\x08"s));
    EXPECT_FALSE(sound("\x01"s));
    EXPECT_FALSE(sound("\x01\x00\x00"s));
    EXPECT_FALSE(sound(""));
    EXPECT_TRUE(decodes(encodeDatagram(setOf(kind, 8 * kPieceBytes, "\xFF"))));
    EXPECT_FALSE(decodes(encodeDatagram(setOf(kind, 0, "\x01"))));
    EXPECT_FALSE(decodes(encodeDatagram(setOf(kind, kMessageBytes + 1, "\x01"))));
  }
}

TEST(DatagramFormatTest, WhatDecodesKeepsItsPromisesWhateverWasChanged) {
  std::mt19937 random(20240501);
  const std::string good = pieceBytes();
  int decoded = 0;
  for (int i = 0; i < 20'000; ++i) {
    std::string bytes = good.substr(0, kHeaderBytes + random() % 1400);
    const int changes = static_cast<int>(random() % 4);
    for (int change = 0; change < changes; ++change) {
      bytes[random() % kHeaderBytes] = static_cast<char>(random());
    }
    bytes = sealed(bytes);
    Datagram out;
    if (!decodeDatagram(bytes.data(), bytes.size(), out)) continue;
    ++decoded;
    ASSERT_LE(out.messageBytes, kMessageBytes);
    ASSERT_LE(out.pieces, kMostPieces);
    ASSERT_EQ(out.payload.data(), bytes.data() + kHeaderBytes);
    ASSERT_EQ(out.payload.size(), bytes.size() - kHeaderBytes);
    if (out.kind == DatagramKind::kRequest || out.kind == DatagramKind::kAnswer) {
      ASSERT_LT(out.piece, out.pieces);
      ASSERT_LE(out.piece * kPieceBytes + out.payload.size(), out.messageBytes);
    }
  }
  EXPECT_GT(decoded, 10);
}

}  // namespace
}  // namespace orva::host
