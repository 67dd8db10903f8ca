#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>
#include <type_traits>

namespace orva::fuzz {

// Ends the input with the promise that was broken.
inline void demand(bool kept, const char* promise) {
  if (!kept) throw std::logic_error(promise);
}

// Takes an input apart, from its front. What is no longer there reads as 0 and as empty text, so
// that every input says something.
class FuzzInput {
 public:
  FuzzInput(const std::uint8_t* data, std::size_t size) : at_(data), end_(data + size) {}

  bool empty() const { return at_ == end_; }
  std::size_t left() const { return static_cast<std::size_t>(end_ - at_); }

  std::uint8_t byte() { return empty() ? std::uint8_t{0} : *at_++; }
  bool flag() { return byte() % 2 != 0; }
  // A byte's choice of 0 ... limit - 1.
  std::size_t below(std::size_t limit) { return byte() % limit; }
  // sizeof(T) bytes, the lowest first.
  template <class T>
  T number() {
    std::make_unsigned_t<T> value = 0;
    for (std::size_t i = 0; i < sizeof(T); ++i) {
      value = static_cast<std::make_unsigned_t<T>>(
          value | static_cast<std::make_unsigned_t<T>>(std::uint64_t{byte()} << (8 * i)));
    }
    return static_cast<T>(value);
  }
  // A byte of length, then so many bytes.
  std::string text() { return bytes(byte()); }
  // Up to the next byte `end`, which is passed over.
  std::string upTo(char end) {
    const std::uint8_t* const stop = std::find(at_, end_, static_cast<std::uint8_t>(end));
    std::string text = bytes(static_cast<std::size_t>(stop - at_));
    byte();
    return text;
  }
  std::string rest() { return bytes(left()); }

 private:
  std::string bytes(std::size_t count) {
    count = std::min(count, left());
    std::string text(reinterpret_cast<const char*>(at_), count);
    at_ += count;
    return text;
  }

  const std::uint8_t* at_;
  const std::uint8_t* const end_;
};

}  // namespace orva::fuzz
