#include "orva_host/message_assembly.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>
#include <random>

namespace orva::host {
namespace {

using Taken = MessageAssembly::Taken;

std::string textOf(std::size_t bytes) {
  std::string text(bytes, '\0');
  for (std::size_t i = 0; i < bytes; ++i) text[i] = static_cast<char>(i * 31 >> 3);
  return text;
}

Datagram pieceOf(const OutgoingMessage& message, std::size_t piece) {
  Datagram datagram;
  message.putPiece(static_cast<std::uint16_t>(piece), datagram);
  return datagram;
}

TEST(MessageAssemblyTest, MessageOfAnyLengthComesTogetherInAnyOrder) {
  std::mt19937 random(7);
  for (const std::size_t bytes : {std::size_t{1}, kPieceBytes - 1, kPieceBytes, kPieceBytes + 1,
                                  5 * kPieceBytes, std::size_t{100'000}, kMessageBytes}) {
    const std::string text = textOf(bytes);
    const OutgoingMessage message(text);
    std::vector<std::size_t> order(message.pieces());
    std::iota(order.begin(), order.end(), 0);
    std::shuffle(order.begin(), order.end(), random);
    MessageAssembly assembly(pieceOf(message, 0));
    for (const std::size_t piece : order) {
      EXPECT_FALSE(assembly.complete());
      EXPECT_EQ(assembly.take(pieceOf(message, piece)), Taken::kNew);
      EXPECT_EQ(assembly.take(pieceOf(message, piece)), Taken::kDouble);
    }
    EXPECT_TRUE(assembly.complete());
    std::string got;
    EXPECT_TRUE(assembly.release(got));
    EXPECT_EQ(got, text);
  }
}

TEST(MessageAssemblyTest, HolesAreNamed) {
  const OutgoingMessage message(textOf(20 * kPieceBytes));
  MessageAssembly assembly(pieceOf(message, 0));
  for (std::size_t piece = 0; piece < 20; ++piece) {
    if (piece != 3 && piece != 17) assembly.take(pieceOf(message, piece));
  }
  PieceSet holes;
  holes.set(3);
  holes.set(17);
  EXPECT_EQ(assembly.missing(), holes);
  EXPECT_EQ(firstPieces(assembly.missing(), 1), PieceSet(1U << 3));
  const std::string set = pieceSetBytes(assembly.missing(), assembly.pieces());
  EXPECT_EQ(set, std::string("\x08\x00\x02", 3));
  Datagram ask;
  assembly.putMessage(ask);
  ask.payload = set;
  EXPECT_EQ(pieceSetOf(ask), holes);
  EXPECT_TRUE(message.isMessageOf(ask));
}

TEST(MessageAssemblyTest, PieceOfAnotherMessageIsNotMixedIn) {
  const OutgoingMessage message(textOf(3000));
  const OutgoingMessage longer(textOf(3001));
  const OutgoingMessage other(std::string(3000, 'o'));
  MessageAssembly assembly(pieceOf(message, 0));
  EXPECT_EQ(assembly.take(pieceOf(longer, 0)), Taken::kForeign);
  EXPECT_EQ(assembly.take(pieceOf(other, 0)), Taken::kForeign);
  EXPECT_EQ(assembly.missing().count(), 3U);
  EXPECT_FALSE(message.isMessageOf(pieceOf(longer, 0)));
  EXPECT_FALSE(message.isMessageOf(pieceOf(other, 0)));
}

TEST(MessageAssemblyTest, MessageThatIsNotWhatWasSentIsNotGivenOut) {
  const OutgoingMessage message(textOf(2 * kPieceBytes));
  MessageAssembly assembly(pieceOf(message, 0));
  assembly.take(pieceOf(message, 0));
  Datagram changed = pieceOf(message, 1);
  const std::string forged(kPieceBytes, 'f');
  changed.payload = forged;
  assembly.take(changed);
  std::string got;
  EXPECT_FALSE(assembly.release(got));
}

}  // namespace
}  // namespace orva::host
