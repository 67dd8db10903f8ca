#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace orva::host {

// Reads comma-separated values record by record: fields may be quoted, a quoted one may hold
// commas, line breaks and doubled quotes; lines end with LF or CRLF. Memory stays small: a record
// may have kMaxRecord bytes.
//
// For one thread.
class CsvReader {
 public:
  static constexpr std::size_t kMaxRecord = std::size_t{1} << 20;

  struct Field {
    std::string text;
    bool quoted = false;
  };
  enum class Result {
    record,
    bad,  // a record that cannot be read; the next one can be
    end,
  };

  CsvReader() = default;
  ~CsvReader();
  CsvReader(const CsvReader&) = delete;
  CsvReader& operator=(const CsvReader&) = delete;

  // 0, or an errno. A byte order mark is passed over.
  int open(const std::string& path);
  // Empty lines are passed over. `out` is reused, so that its fields keep their room.
  Result next(std::vector<Field>& out);

  // Of the record read last, from 1.
  long long line() const { return line_; }
  // How much of the file has been taken.
  std::uint64_t bytes() const { return filled_ - (end_ - begin_); }
  // Why the record is bad, or why reading ended early; null when neither is so.
  const char* error() const { return error_; }

 private:
  int getByte();
  bool fill();
  void skipLine();

  std::FILE* file_ = nullptr;
  std::vector<char> buffer_;
  std::size_t begin_ = 0;
  std::size_t end_ = 0;
  std::uint64_t filled_ = 0;  // bytes that were in the buffer until now
  long long nextLine_ = 1;
  long long line_ = 0;
  const char* error_ = nullptr;
};

}  // namespace orva::host
