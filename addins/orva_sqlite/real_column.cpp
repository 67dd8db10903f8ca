#include "orva_sqlite/real_column.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>

namespace orva::sqlite {
namespace {

enum Form : std::uint8_t { kDecimals = 0, kBits = 1, kPlanes = 2 };

constexpr unsigned kMaxDigits = 9;
constexpr unsigned kNoDecimal = kMaxDigits + 1;
constexpr std::array<double, kMaxDigits + 1> kPowerOfTen = {1.0, 1e1, 1e2, 1e3, 1e4,
                                                            1e5, 1e6, 1e7, 1e8, 1e9};
// Every whole number below is a double, so the division that decodes rounds once.
constexpr double kWholeLimit = 9007199254740992.0;  // 2^53

template <class To, class From>
To bitsAs(From from) {
  static_assert(sizeof(To) == sizeof(From));
  To to;
  std::memcpy(&to, &from, sizeof to);
  return to;
}

double realOf(RealWidth width, std::uint64_t bits) {
  if (width == RealWidth::kDouble) return bitsAs<double>(bits);
  return double{bitsAs<float>(static_cast<std::uint32_t>(bits))};
}

// The bits of number / 10^digits: the one way back from a decimal, used to check and to decode.
template <RealWidth width>
std::uint64_t decimalBits(std::int64_t number, unsigned digits) {
  const double real = static_cast<double>(number) / kPowerOfTen[digits];
  if constexpr (width == RealWidth::kDouble) return bitsAs<std::uint64_t>(real);
  return bitsAs<std::uint32_t>(static_cast<float>(real));
}

// Whether `bits` is a decimal with so many digits behind the point, and its number.
template <RealWidth width>
bool asDecimal(std::uint64_t bits, unsigned digits, std::int64_t& number) {
  const double scaled = realOf(width, bits) * kPowerOfTen[digits];
  if (!(std::fabs(scaled) < kWholeLimit)) return false;
  number = static_cast<std::int64_t>(scaled + (scaled < 0 ? -0.5 : 0.5));
  return decimalBits<width>(number, digits) == bits;
}

template <RealWidth width>
unsigned digitsOf(std::uint64_t bits) {
  std::int64_t number = 0;
  for (unsigned digits = 0; digits <= kMaxDigits; ++digits) {
    if (asDecimal<width>(bits, digits, number)) return digits;
  }
  return kNoDecimal;
}

// The digits with which the column is probably smallest: each digit costs 3.3 bits a number, a
// number that does not fit an exception of about ten bytes. kNoDecimal when there would be too many
// of those.
template <RealWidth width>
unsigned chooseDigits(const std::uint64_t* bits, std::size_t count) {
  std::array<std::size_t, kNoDecimal + 1> needing{};
  unsigned current = 0;
  for (std::size_t i = 0; i < count; ++i) {
    std::int64_t number = 0;
    if (asDecimal<width>(bits[i], current, number)) {
      ++needing[current];
      continue;
    }
    const unsigned digits = digitsOf<width>(bits[i]);
    ++needing[digits];
    if (digits > current && digits < kNoDecimal && needing[digits] * 8 > i) current = digits;
    if (needing[kNoDecimal] > count / 4) return kNoDecimal;
  }
  unsigned best = kNoDecimal;
  std::size_t bestBits = SIZE_MAX;
  std::size_t beyond = needing[kNoDecimal];
  for (unsigned digits = kMaxDigits + 1; digits-- > 0;) {
    const std::size_t cost = count * digits * 10 / 3 + beyond * 80;
    if (cost <= bestBits) {
      bestBits = cost;
      best = digits;
    }
    beyond += needing[digits];
  }
  return best;
}

// Returns how many numbers are exceptions.
template <RealWidth width>
std::size_t putDecimals(ByteWriter& out, const std::uint64_t* bits, std::size_t count,
                        unsigned digits, std::vector<std::int64_t>& numbers,
                        IntegerEncoder& integers) {
  numbers.resize(count);
  std::vector<std::size_t> exceptions;
  std::int64_t before = 0;
  for (std::size_t i = 0; i < count; ++i) {
    if (!asDecimal<width>(bits[i], digits, numbers[i])) {
      numbers[i] = before;
      exceptions.push_back(i);
    }
    before = numbers[i];
  }
  out.byte(kDecimals);
  out.byte(static_cast<std::uint8_t>(digits));
  integers.put(out, numbers.data(), count, Orders::kToFirst);
  out.varint(exceptions.size());
  for (const std::size_t i : exceptions) {
    out.varint(i);
    out.bytes(&bits[i], static_cast<std::size_t>(width));
  }
  return exceptions.size();
}

template <RealWidth width>
void decimalsToBits(const std::vector<std::int64_t>& numbers, unsigned digits,
                    std::uint64_t* bits) {
  for (std::size_t i = 0; i < numbers.size(); ++i) bits[i] = decimalBits<width>(numbers[i], digits);
}

}  // namespace

// Into best_. False when nothing was put there, or another form may be smaller.
bool RealEncoder::decimals(RealWidth width, const std::uint64_t* bits, std::size_t count,
                           IntegerEncoder& integers) {
  const bool wide = width == RealWidth::kDouble;
  const unsigned digits = wide ? chooseDigits<RealWidth::kDouble>(bits, count)
                               : chooseDigits<RealWidth::kFloat>(bits, count);
  if (digits == kNoDecimal) return false;
  ByteWriter out(best_);
  const std::size_t exceptions =
      wide ? putDecimals<RealWidth::kDouble>(out, bits, count, digits, numbers_, integers)
           : putDecimals<RealWidth::kFloat>(out, bits, count, digits, numbers_, integers);
  // Enough digits make every Float a decimal; only a few make it a small one.
  return exceptions <= count / 16 && (wide || digits <= 4);
}

void RealEncoder::integersOfBits(const std::uint64_t* bits, std::size_t count,
                                 IntegerEncoder& integers) {
  std::uint64_t all = 0;
  for (std::size_t i = 0; i < count; ++i) all |= bits[i];
  const unsigned shift = all == 0 ? 0 : static_cast<unsigned>(__builtin_ctzll(all));
  numbers_.resize(count);
  for (std::size_t i = 0; i < count; ++i) numbers_[i] = static_cast<std::int64_t>(bits[i] >> shift);
  trial_.clear();
  ByteWriter out(trial_);
  out.byte(kBits);
  out.byte(static_cast<std::uint8_t>(shift));
  integers.put(out, numbers_.data(), count, Orders::kToFirst);
}

void RealEncoder::planes(RealWidth width, const std::uint64_t* bits, std::size_t count,
                         BytesEncoder& bytes) {
  const std::size_t size = static_cast<std::size_t>(width);
  scratch_.resize(size * count);
  for (std::size_t plane = 0; plane < size; ++plane) {
    for (std::size_t i = 0; i < count; ++i) {
      scratch_[plane * count + i] = static_cast<std::uint8_t>(bits[i] >> (8 * plane));
    }
  }
  trial_.clear();
  ByteWriter out(trial_);
  out.byte(kPlanes);
  bytes.put(out, scratch_.data(), scratch_.size());
}

void RealEncoder::keepSmaller() {
  if (best_.empty() || trial_.size() < best_.size()) best_.swap(trial_);
}

void RealEncoder::put(ByteWriter& out, RealWidth width, const std::uint64_t* bits,
                      std::size_t count, IntegerEncoder& integers, BytesEncoder& bytes) {
  best_.clear();
  if (!decimals(width, bits, count, integers)) {
    integersOfBits(bits, count, integers);
    keepSmaller();
    planes(width, bits, count, bytes);
    keepSmaller();
  }
  out.bytes(best_.data(), best_.size());
}

void RealDecoder::decimals(ByteReader& in, RealWidth width, std::uint64_t* bits,
                           std::size_t count) {
  const unsigned digits = in.byte();
  if (digits > kMaxDigits) return in.fail();
  numbers_.resize(count);
  getIntegers(in, numbers_.data(), count);
  if (in.failed()) return;
  if (width == RealWidth::kDouble) {
    decimalsToBits<RealWidth::kDouble>(numbers_, digits, bits);
  } else {
    decimalsToBits<RealWidth::kFloat>(numbers_, digits, bits);
  }
  const std::size_t exceptions = in.count(count);
  for (std::size_t i = 0; i < exceptions; ++i) {
    const std::uint64_t position = in.varint();
    const std::uint8_t* const raw = in.bytes(static_cast<std::size_t>(width));
    if (raw == nullptr || position >= count) return in.fail();
    bits[position] = 0;
    std::memcpy(&bits[position], raw, static_cast<std::size_t>(width));
  }
}

void RealDecoder::get(ByteReader& in, RealWidth width, std::uint64_t* bits, std::size_t count,
                      BytesDecoder& bytes) {
  const std::uint8_t form = in.byte();
  if (form == kDecimals) {
    decimals(in, width, bits, count);
  } else if (form == kBits) {
    const unsigned shift = in.byte();
    if (shift > 63) return in.fail();
    numbers_.resize(count);
    getIntegers(in, numbers_.data(), count);
    if (in.failed()) return;
    for (std::size_t i = 0; i < count; ++i) {
      bits[i] = static_cast<std::uint64_t>(numbers_[i]) << shift;
    }
  } else if (form == kPlanes) {
    const std::size_t size = static_cast<std::size_t>(width);
    bytes.get(in, planes_, size * count);
    if (in.failed() || planes_.size() != size * count) return in.fail();
    for (std::size_t i = 0; i < count; ++i) {
      std::uint64_t v = 0;
      for (std::size_t plane = 0; plane < size; ++plane) {
        v |= static_cast<std::uint64_t>(planes_[plane * count + i]) << (8 * plane);
      }
      bits[i] = v;
    }
  } else {
    in.fail();
  }
}

}  // namespace orva::sqlite
