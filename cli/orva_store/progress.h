#pragma once

#include <chrono>
#include <cstdint>
#include <ostream>
#include <string>

namespace orva::store {

// "45 %, 1234567 rows, 512000 rows/s, 12 s left". `done` of `total` say how far the work is; with a
// total of 0 that is not known.
std::string progressText(std::uint64_t done, std::uint64_t total, std::uint64_t count,
                         const char* unit, double seconds);

// Tells a person at a terminal how long work gets on: one line, written over a few times a second
// and gone at the end.
class Progress {
 public:
  // Null: nobody looks. `unit` is what is counted, such as "rows".
  Progress(std::ostream* out, const char* unit);
  ~Progress() { clear(); }
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  // std::cerr when that is a terminal, else null.
  static std::ostream* terminal();

  void total(std::uint64_t all) { total_ = all; }
  void at(std::uint64_t done, std::uint64_t count) {
    if (out_ != nullptr) show(done, count);
  }
  // Takes the line away, so that something else can be said.
  void clear();

 private:
  using Clock = std::chrono::steady_clock;

  void show(std::uint64_t done, std::uint64_t count);

  std::ostream* const out_;
  const char* const unit_;
  const Clock::time_point begun_;
  Clock::time_point shownAt_;
  std::uint64_t total_ = 0;
  bool isShown_ = false;
};

}  // namespace orva::store
