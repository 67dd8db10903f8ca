#pragma once

#include <cstdint>
#include <initializer_list>
#include <utility>
#include <vector>

namespace orva::model {

// A stream of random numbers that is the same for a seed on every machine and with every library.
class Random {
 public:
  explicit Random(std::uint64_t seed) : state_(seed * 0x9E3779B97F4A7C15U + 1) {}

  // Steele, Lea, Flood: "Fast Splittable Pseudorandom Number Generators", 2014.
  std::uint64_t next() {
    std::uint64_t z = (state_ += 0x9E3779B97F4A7C15U);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9U;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBU;
    return z ^ (z >> 31);
  }
  // 0 to n - 1; n must not be 0.
  std::uint64_t below(std::uint64_t n) { return next() % n; }
  // first to last, both possible.
  std::int64_t between(std::int64_t first, std::int64_t last) {
    return first + static_cast<std::int64_t>(below(static_cast<std::uint64_t>(last - first) + 1));
  }
  bool chance(double probability) {
    return static_cast<double>(next() >> 11) < probability * 9007199254740992.0;  // 2^53
  }
  template <class T>
  T pick(std::initializer_list<T> choices) {
    return choices.begin()[below(choices.size())];
  }
  template <class T>
  void shuffle(std::vector<T>& values) {
    for (std::size_t i = values.size(); i > 1; --i) std::swap(values[i - 1], values[below(i)]);
  }

 private:
  std::uint64_t state_;
};

}  // namespace orva::model
