#pragma once

#include <cmath>
#include <cstdint>
#include <cstring>

#include "share/json.h"
#include "share/ticks.h"

// Numbers as JSON text. Each function writes from `out` on, no terminator, and returns the end.

namespace orva::text {

constexpr int kIntegerRoom = 20;
constexpr int kDoubleRoom = 25;

inline char* writeInteger(char* out, std::int64_t value) {
  return rapidjson::internal::i64toa(value, out);
}
inline char* writeUnsigned(char* out, std::uint64_t value) {
  return rapidjson::internal::u64toa(value, out);
}
inline char* writeUnsigned(char* out, std::uint32_t value) {
  return rapidjson::internal::u32toa(value, out);
}

inline char* writeText(char* out, const char* text, std::size_t length) {
  std::memcpy(out, text, length);
  return out + length;
}

namespace detail {
// Whether `value` (positive, not integral) is the double next to n / power, for an n of at most 15
// digits, and safely so: not close to the middle between two doubles, where the library might
// need more digits. At most 15 digits tell doubles apart, so no other text is as short.
inline bool decimalOf(double value, double power, std::int64_t& n) {
  // Rounds half up, which is enough: the value is positive, and a wrong n is refused below.
  n = static_cast<std::int64_t>(value * power + 0.5);  // NOLINT(bugprone-incorrect-roundings)
  // The error value * power - n, exactly: the upper half of the value has few enough digits for
  // an exact product with the power, and so has the lower one.
  std::uint64_t bits;
  std::memcpy(&bits, &value, sizeof bits);
  if ((bits & 0xFFFFFFFFFFFFFULL) == 0) return false;  // the gap below is narrower
  const std::uint64_t upperBits = bits & ~0x7FFFFFFULL;
  double upper;
  std::memcpy(&upper, &upperBits, sizeof upper);
  const double error = (upper * power - static_cast<double>(n)) + (value - upper) * power;
  // The distance from `value` to the next double, times the power.
  const std::uint64_t nextBits = bits + 1;
  double next;
  std::memcpy(&next, &nextBits, sizeof next);
  return std::fabs(error) <= 0.49 * power * (next - value);
}

// n / 10^digits, which is not integral: without trailing zeros.
inline char* writeDecimal(char* out, std::int64_t n, std::int64_t power, int digits) {
  const std::int64_t whole = n / power;
  auto fraction = static_cast<std::uint32_t>(n % power);
  out = writeInteger(out, whole);
  *out++ = '.';
  while (fraction % 10 == 0) {
    fraction /= 10;
    --digits;
  }
  for (int i = digits - 1; i >= 0; --i) {
    out[i] = static_cast<char>('0' + fraction % 10);
    fraction /= 10;
  }
  return out + digits;
}
}  // namespace detail

// A finite number, with the very text that the library's writer gives it: the shortest that reads
// back as the same number, with ".0" if it is integral. Most values of a plant have few decimals:
// for these a few multiplications replace the library's general conversion.
inline char* writeDouble(char* out, double value) {
  if (value != 0.0) {
    const double size = std::fabs(value);
    char* const start = out;
    if (std::signbit(value)) *out++ = '-';
    if (size < 1e15 && size == static_cast<double>(static_cast<std::int64_t>(size))) {
      out = writeInteger(out, static_cast<std::int64_t>(size));
      return writeText(out, ".0", 2);
    }
    std::int64_t n;
    if (size < 1e6) {
      if (size >= 1e-5 && detail::decimalOf(size, 1e9, n)) {
        if (n % 100'000 == 0) return detail::writeDecimal(out, n / 100'000, 10'000, 4);
        return detail::writeDecimal(out, n, 1'000'000'000, 9);
      }
    } else if (size < 1e11 && detail::decimalOf(size, 1e4, n)) {
      return detail::writeDecimal(out, n, 10'000, 4);
    }
    out = start;
  }
  return rapidjson::internal::dtoa(value, out);
}

// Milliseconds since 1970. See WriteDateValue() for what is odd about it.
inline std::int64_t millisecondsOf(std::int64_t time) {
  if (time == 0) return 0;
  const auto sinceEpoch =
      static_cast<std::int64_t>(static_cast<std::uint64_t>(time) / kTicksPerMillisecond) -
      kUnixEpochMilliseconds;
  return sinceEpoch < 0 ? time / kTicksPerMillisecond : sinceEpoch;
}

}  // namespace orva::text
