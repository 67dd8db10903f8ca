#pragma once

#include <string>

#include "orva_host/gate.h"

namespace orva::host {

// Reads a file, a pipe or a terminal line by line, and does not wait for lines any more once a
// gate is open.
//
// For one thread.
class LineInput {
 public:
  static constexpr std::size_t kLongestLine = std::size_t{1} << 20;

  enum class Result {
    line,
    tooLong,  // it is passed over
    end,
    stopped,  // the gate is open
    failed,   // nothing more can be read: error() says why
  };

  LineInput() = default;
  ~LineInput();
  LineInput(const LineInput&) = delete;
  LineInput& operator=(const LineInput&) = delete;

  // "-" and an empty path are the standard input. 0, or an errno.
  int open(const std::string& path);
  // The next line, without its line feed. The last one may lack that.
  Result next(std::string& out, const Gate& stop);

  // What is open, for messages.
  const std::string& name() const { return name_; }
  // Of the line read last, from 1.
  long long number() const { return number_; }
  int error() const { return error_; }

 private:
  bool waitForInput(const Gate& stop);
  // False at the end of the input, and when it cannot be read.
  bool fill();
  // Moves what there is of the line to `out`; whether that is all of it.
  bool takeFromBuffer(std::string& out, bool& tooLong);

  std::string name_;
  int file_ = -1;
  std::string buffer_;
  std::size_t begin_ = 0;
  long long number_ = 0;
  int error_ = 0;
};

}  // namespace orva::host
