#include "orva_sqlite/crc32c.h"

#include <array>
#include <cstring>

namespace orva::sqlite {
namespace {

constexpr std::uint32_t kPolynomial = 0x82F63B78;  // reflected

using Table = std::array<std::array<std::uint32_t, 256>, 8>;

// table[k][b] is the CRC of the byte b followed by k zero bytes: eight bytes take eight look-ups
// that do not wait for each other.
constexpr Table makeTable() {
  Table table{};
  for (std::uint32_t b = 0; b < 256; ++b) {
    std::uint32_t crc = b;
    for (int bit = 0; bit < 8; ++bit) crc = (crc >> 1) ^ ((crc & 1) != 0 ? kPolynomial : 0);
    table[0][b] = crc;
  }
  for (std::size_t k = 1; k < table.size(); ++k) {
    for (std::size_t b = 0; b < 256; ++b) {
      const std::uint32_t before = table[k - 1][b];
      table[k][b] = (before >> 8) ^ table[0][before & 0xFF];
    }
  }
  return table;
}

constexpr Table kTable = makeTable();

}  // namespace

std::uint32_t crc32c(std::uint32_t crc, const void* data, std::size_t size) {
  const auto* at = static_cast<const std::uint8_t*>(data);
  crc = ~crc;
  for (; size >= 8; size -= 8, at += 8) {
    std::uint32_t low = 0;
    std::uint32_t high = 0;
    std::memcpy(&low, at, 4);
    std::memcpy(&high, at + 4, 4);
    low ^= crc;
    crc = kTable[7][low & 0xFF] ^ kTable[6][low >> 8 & 0xFF] ^ kTable[5][low >> 16 & 0xFF] ^
          kTable[4][low >> 24] ^ kTable[3][high & 0xFF] ^ kTable[2][high >> 8 & 0xFF] ^
          kTable[1][high >> 16 & 0xFF] ^ kTable[0][high >> 24];
  }
  for (; size > 0; --size, ++at) crc = (crc >> 8) ^ kTable[0][(crc ^ *at) & 0xFF];
  return ~crc;
}

}  // namespace orva::sqlite
