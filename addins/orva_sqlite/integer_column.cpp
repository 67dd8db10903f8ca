#include "orva_sqlite/integer_column.h"

#include <algorithm>
#include <array>
#include <cstring>

namespace orva::sqlite {
namespace {

constexpr std::size_t kBlock = 128;
constexpr unsigned kMaxScale = 12;
constexpr std::uint8_t kZigzagBlock = 0x80;  // in a block's first byte; the rest is the width

constexpr std::array<std::int64_t, kMaxScale + 1> powersOfTen() {
  std::array<std::int64_t, kMaxScale + 1> powers{};
  std::int64_t power = 1;
  for (auto& p : powers) {
    p = power;
    power *= 10;
  }
  return powers;
}
constexpr auto kPower = powersOfTen();

// Sums and differences wrap: every column comes back as it was, whatever its numbers.
std::int64_t difference(std::int64_t a, std::int64_t b) {
  return static_cast<std::int64_t>(static_cast<std::uint64_t>(a) - static_cast<std::uint64_t>(b));
}
std::int64_t sum(std::int64_t a, std::int64_t b) {
  return static_cast<std::int64_t>(static_cast<std::uint64_t>(a) + static_cast<std::uint64_t>(b));
}
std::int64_t product(std::int64_t a, std::int64_t b) {
  return static_cast<std::int64_t>(static_cast<std::uint64_t>(a) * static_cast<std::uint64_t>(b));
}

unsigned bitLength(std::uint64_t v) {
  return v == 0 ? 0 : 64 - static_cast<unsigned>(__builtin_clzll(v));
}

std::size_t packedSize(std::size_t count, unsigned width) { return (count * width + 7) / 8; }

std::uint64_t lowBits(std::uint64_t v, unsigned width) {
  return width >= 64 ? v : v & ((std::uint64_t{1} << width) - 1);
}

// ---- one block

// How a block of numbers is packed.
struct BlockPlan {
  bool zigzag = false;
  unsigned width = 0;
  std::size_t exceptions = 0;
  std::int64_t base = 0;  // subtracted from every number; without zigzag only
  std::size_t size = 0;   // bytes
};

using Histogram = std::array<std::uint8_t, 65>;  // numbers by bit length

// The width at which packed bits and exceptions together are smallest.
void chooseWidth(BlockPlan& plan, const Histogram& lengths, std::size_t count, unsigned longest) {
  plan.width = longest;
  plan.exceptions = 0;
  std::size_t best = packedSize(count, longest);
  std::size_t above = 0;
  std::size_t aboveBytes = 0;
  for (unsigned width = longest; width-- > 0;) {
    const std::size_t more = lengths[width + 1];
    above += more;
    // A position and the part above the width; a byte of it grows every seven widths.
    aboveBytes = above * (2 + (longest - width) / 7);
    const std::size_t size = packedSize(count, width) + aboveBytes;
    if (size < best) {
      best = size;
      plan.width = width;
      plan.exceptions = above;
    }
  }
  plan.size = 2 + best;
}

BlockPlan planBlock(const std::int64_t* values, std::size_t count) {
  const auto [low, high] = std::minmax_element(values, values + count);
  BlockPlan based;
  based.base = *low;
  const unsigned baseLongest = bitLength(static_cast<std::uint64_t>(difference(*high, *low)));
  if (baseLongest == 0) {
    based.size = 2 + varintSize(toZigzag(based.base));
    return based;
  }
  Histogram basedLengths{};
  Histogram zigzagLengths{};
  for (std::size_t i = 0; i < count; ++i) {
    ++basedLengths[bitLength(static_cast<std::uint64_t>(difference(values[i], *low)))];
    ++zigzagLengths[bitLength(toZigzag(values[i]))];
  }
  chooseWidth(based, basedLengths, count, baseLongest);
  based.size += varintSize(toZigzag(based.base));
  BlockPlan zigzag;
  zigzag.zigzag = true;
  chooseWidth(zigzag, zigzagLengths, count,
              std::max(bitLength(toZigzag(*low)), bitLength(toZigzag(*high))));
  return zigzag.size < based.size ? zigzag : based;
}

void packBits(std::uint8_t* out, const std::uint64_t* values, std::size_t count, unsigned width) {
  std::uint64_t word = 0;
  unsigned filled = 0;
  std::uint8_t* at = out;
  for (std::size_t i = 0; i < count; ++i) {
    const std::uint64_t v = lowBits(values[i], width);
    word |= v << filled;
    filled += width;
    if (filled < 64) continue;
    std::memcpy(at, &word, 8);
    at += 8;
    filled -= 64;
    word = filled == 0 ? 0 : v >> (width - filled);
  }
  std::memcpy(at, &word, (filled + 7) / 8);
}

void unpackBits(const std::uint8_t* in, std::uint64_t* values, std::size_t count, unsigned width) {
  // A word is read from any byte on, so the bits of a number may reach into a ninth byte.
  std::array<std::uint8_t, kBlock * 8 + 16> padded;
  const std::size_t size = packedSize(count, width);
  std::memcpy(padded.data(), in, size);
  std::memset(padded.data() + size, 0, 16);
  std::size_t bit = 0;
  for (std::size_t i = 0; i < count; ++i, bit += width) {
    const std::uint8_t* const at = padded.data() + bit / 8;
    const unsigned shift = bit % 8;
    std::uint64_t word = 0;
    std::memcpy(&word, at, 8);
    word >>= shift;
    if (shift + width > 64) word |= static_cast<std::uint64_t>(at[8]) << (64 - shift);
    values[i] = lowBits(word, width);
  }
}

void putBlock(ByteWriter& out, const std::int64_t* values, std::size_t count) {
  const BlockPlan plan = planBlock(values, count);
  out.byte(static_cast<std::uint8_t>(plan.width | (plan.zigzag ? kZigzagBlock : 0)));
  out.byte(static_cast<std::uint8_t>(plan.exceptions));
  if (!plan.zigzag) out.zigzag(plan.base);
  std::array<std::uint64_t, kBlock> raw;
  for (std::size_t i = 0; i < count; ++i) {
    raw[i] = plan.zigzag ? toZigzag(values[i])
                         : static_cast<std::uint64_t>(difference(values[i], plan.base));
  }
  if (plan.width > 0) {
    packBits(out.extend(packedSize(count, plan.width)), raw.data(), count, plan.width);
  }
  for (std::size_t i = 0; i < count && plan.exceptions > 0; ++i) {
    if (bitLength(raw[i]) <= plan.width) continue;
    out.byte(static_cast<std::uint8_t>(i));
    out.varint(raw[i] >> plan.width);
  }
}

void getBlock(ByteReader& in, std::int64_t* values, std::size_t count) {
  const std::uint8_t head = in.byte();
  const bool zigzag = (head & kZigzagBlock) != 0;
  const unsigned width = head & 0x7F;
  const std::size_t exceptions = in.byte();
  const std::int64_t base = zigzag ? 0 : in.zigzag();
  if (width > 64 || exceptions > count) return in.fail();
  std::array<std::uint64_t, kBlock> raw;
  if (width == 0) {
    std::fill_n(raw.begin(), count, 0);
  } else {
    const std::uint8_t* const packed = in.bytes(packedSize(count, width));
    if (packed == nullptr) return;
    unpackBits(packed, raw.data(), count, width);
  }
  for (std::size_t i = 0; i < exceptions; ++i) {
    const std::size_t position = in.byte();
    const std::uint64_t above = in.varint();
    if (position >= count || width >= 64) return in.fail();
    raw[position] |= above << width;
  }
  if (zigzag) {
    for (std::size_t i = 0; i < count; ++i) values[i] = fromZigzag(raw[i]);
  } else {
    for (std::size_t i = 0; i < count; ++i) {
      values[i] = sum(static_cast<std::int64_t>(raw[i]), base);
    }
  }
}

// ---- differences and scale

// Replaces the numbers by the differences to their predecessors; the first one goes away.
void differentiate(std::vector<std::int64_t>& values) {
  for (std::size_t i = 0; i + 1 < values.size(); ++i) {
    values[i] = difference(values[i + 1], values[i]);
  }
  if (!values.empty()) values.pop_back();
}

unsigned commonScale(const std::vector<std::int64_t>& values) {
  unsigned scale = kMaxScale;
  bool found = false;
  for (const std::int64_t v : values) {
    if (v == 0) continue;
    found = true;
    while (scale > 0 && v % kPower[scale] != 0) --scale;
    if (scale == 0) break;
  }
  return found ? scale : 0;
}

void divide(std::vector<std::int64_t>& values, unsigned scale) {
  if (scale == 0) return;
  for (std::int64_t& v : values) v /= kPower[scale];
}

std::size_t plannedSize(const std::vector<std::int64_t>& values) {
  std::size_t size = 0;
  for (std::size_t i = 0; i < values.size(); i += kBlock) {
    size += planBlock(values.data() + i, std::min(kBlock, values.size() - i)).size;
  }
  return size;
}

}  // namespace

void IntegerEncoder::put(ByteWriter& out, const std::int64_t* values, std::size_t count,
                         Orders orders) {
  // The numbers that an order takes away from the front; each differentiation takes one.
  std::array<std::int64_t, 2> heads{};
  current_.assign(values, values + count);
  unsigned bestOrder = 0;
  unsigned bestScale = 0;
  std::size_t bestSize = SIZE_MAX;
  std::size_t headSize = 0;
  for (unsigned order = 0; order <= static_cast<unsigned>(orders); ++order) {
    if (order > 0) {
      if (current_.empty()) break;
      heads[order - 1] = current_.front();
      headSize += varintSize(toZigzag(current_.front()));
      differentiate(current_);
    }
    trial_ = current_;
    const unsigned scale = commonScale(trial_);
    divide(trial_, scale);
    const std::size_t size = headSize + plannedSize(trial_);
    if (size < bestSize) {
      bestSize = size;
      bestOrder = order;
      bestScale = scale;
      best_.swap(trial_);
    }
  }
  out.byte(static_cast<std::uint8_t>(bestOrder | bestScale << 2));
  for (unsigned i = 0; i < bestOrder; ++i) out.zigzag(heads[i]);
  for (std::size_t i = 0; i < best_.size(); i += kBlock) {
    putBlock(out, best_.data() + i, std::min(kBlock, best_.size() - i));
  }
}

void getIntegers(ByteReader& in, std::int64_t* values, std::size_t count) {
  const std::uint8_t head = in.byte();
  const unsigned order = head & 3;
  const unsigned scale = head >> 2;
  if (order > 2 || scale > kMaxScale || order > count) return in.fail();
  std::array<std::int64_t, 2> heads{};
  for (unsigned i = 0; i < order; ++i) heads[i] = in.zigzag();
  for (std::size_t i = order; i < count && !in.failed(); i += kBlock) {
    getBlock(in, values + i, std::min(kBlock, count - i));
  }
  if (in.failed()) return;
  if (scale > 0) {
    for (std::size_t i = order; i < count; ++i) values[i] = product(values[i], kPower[scale]);
  }
  if (order == 1) {
    std::int64_t value = heads[0];
    values[0] = value;
    for (std::size_t i = 1; i < count; ++i) values[i] = value = sum(value, values[i]);
  } else if (order == 2) {
    std::int64_t value = sum(heads[0], heads[1]);
    std::int64_t step = heads[1];
    values[0] = heads[0];
    values[1] = value;
    for (std::size_t i = 2; i < count; ++i) {
      step = sum(step, values[i]);
      values[i] = value = sum(value, step);
    }
  }
}

}  // namespace orva::sqlite
