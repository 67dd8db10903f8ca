#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

// Bytes of the segment form, written and read one field after the other. Multi-byte fields are
// little-endian; "varint" is 7 bits a byte, least significant first, the top bit set on all but the
// last byte.

namespace orva::sqlite {

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__,
              "fields are copied as they stand in memory");

using Bytes = std::vector<std::uint8_t>;

// Signed numbers near 0 as small unsigned ones: 0, -1, 1, -2 ... are 0, 1, 2, 3 ...
constexpr std::uint64_t toZigzag(std::int64_t v) {
  return (static_cast<std::uint64_t>(v) << 1) ^ static_cast<std::uint64_t>(v >> 63);
}
constexpr std::int64_t fromZigzag(std::uint64_t v) {
  return static_cast<std::int64_t>((v >> 1) ^ (~(v & 1) + 1));
}

inline std::size_t varintSize(std::uint64_t v) {
  std::size_t size = 1;
  for (; v >= 0x80; v >>= 7) ++size;
  return size;
}

// Appends to bytes that somebody else owns.
class ByteWriter {
 public:
  explicit ByteWriter(Bytes& out) : out_(out) {}

  void byte(std::uint8_t v) { out_.push_back(v); }
  void varint(std::uint64_t v) {
    for (; v >= 0x80; v >>= 7) out_.push_back(static_cast<std::uint8_t>(v | 0x80));
    out_.push_back(static_cast<std::uint8_t>(v));
  }
  void zigzag(std::int64_t v) { varint(toZigzag(v)); }
  void bytes(const void* data, std::size_t size) {
    const auto* first = static_cast<const std::uint8_t*>(data);
    out_.insert(out_.end(), first, first + size);
  }
  template <class T>
  void fixed(T v) {
    bytes(&v, sizeof v);
  }
  // `size` bytes more, to be filled by the caller at once.
  std::uint8_t* extend(std::size_t size) {
    out_.resize(out_.size() + size);
    return out_.data() + (out_.size() - size);
  }

 private:
  Bytes& out_;
};

// Reads what it was given and no byte beyond: a read past the end gives 0 and marks the whole
// stream as failed, so that callers need to ask once in a while only.
class ByteReader {
 public:
  ByteReader(const void* data, std::size_t size)
      : at_(static_cast<const std::uint8_t*>(data)), end_(at_ + size) {}

  bool failed() const { return failed_; }
  void fail() {
    failed_ = true;
    at_ = end_;
  }
  std::size_t left() const { return static_cast<std::size_t>(end_ - at_); }

  std::uint8_t byte() {
    if (at_ == end_) {
      fail();
      return 0;
    }
    return *at_++;
  }
  std::uint64_t varint() {
    std::uint64_t v = 0;
    for (unsigned shift = 0; shift < 70; shift += 7) {
      const std::uint8_t b = byte();
      if (shift == 63 && b > 1) break;
      v |= static_cast<std::uint64_t>(b & 0x7F) << shift;
      if ((b & 0x80) == 0) return v;
    }
    fail();
    return 0;
  }
  std::int64_t zigzag() { return fromZigzag(varint()); }
  // A count of things of which there may be `limit` at most.
  std::size_t count(std::size_t limit) {
    const std::uint64_t v = varint();
    if (v > limit) {
      fail();
      return 0;
    }
    return static_cast<std::size_t>(v);
  }
  // The next `size` bytes, null when there are not as many.
  const std::uint8_t* bytes(std::size_t size) {
    if (size > left()) {
      fail();
      return nullptr;
    }
    const std::uint8_t* const first = at_;
    at_ += size;
    return first;
  }
  template <class T>
  T fixed() {
    T v{};
    if (const std::uint8_t* const from = bytes(sizeof v)) std::memcpy(&v, from, sizeof v);
    return v;
  }

 private:
  const std::uint8_t* at_;
  const std::uint8_t* const end_;
  bool failed_ = false;
};

}  // namespace orva::sqlite
