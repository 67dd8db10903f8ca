#pragma once

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <ostream>

namespace orva {

// Where the text of a reply goes: the output stream of a ReplyWriter. The text is UTF-8.
//
// Not thread-safe: one request writes one reply.
class GenericBaseOutBuf {
 public:
  using Ch = char;

  GenericBaseOutBuf() = default;
  GenericBaseOutBuf(const GenericBaseOutBuf&) = delete;
  GenericBaseOutBuf& operator=(const GenericBaseOutBuf&) = delete;

  // Others derive from this class: the first operations keep their order, new ones go to the end.
  virtual ~GenericBaseOutBuf() = default;
  virtual void Put(char c) = 0;
  virtual void Flush() = 0;
  virtual long long Length() = 0;
  // What Put() would do with each of the characters, in one call.
  virtual void Write(const char* text, std::size_t length) = 0;
};

// Writes into memory of the caller's. What does not fit is dropped, and `overflow_` says so.
class FixedOutBuf final : public GenericBaseOutBuf {
 public:
  // `memory` may be null if `size` is not positive.
  FixedOutBuf(char* memory, int size) : cur(memory), begin(memory), capacity(size) {}

  void Put(char c) override {
    if (cur - begin < capacity) {
      *cur++ = c;
    } else {
      overflow_ = true;
    }
  }
  void Flush() override {}
  long long Length() override { return cur - begin; }
  void Write(const char* text, std::size_t length) override {
    if (length == 0) return;
    const std::ptrdiff_t room = std::max<std::ptrdiff_t>(capacity - (cur - begin), 0);
    const std::size_t stored = std::min(length, static_cast<std::size_t>(room));
    if (stored != 0) std::memcpy(cur, text, stored);
    cur += stored;
    if (stored < length) overflow_ = true;
  }

  char* cur;  // next write position
  char* const begin;
  const int capacity;  // bytes
  bool overflow_ = false;
};

// Writes to the stream buffer of the caller's stream, through a stream of its own: the state and
// the format of the caller's are left alone. A null stream takes nothing.
class StreamOutBuf final : public GenericBaseOutBuf {
 public:
  explicit StreamOutBuf(std::ostream* out) : stream_(out != nullptr ? out->rdbuf() : nullptr) {}

  void Put(char c) override { stream_.put(c); }
  void Flush() override { stream_.flush(); }
  // The stream's put position; -1 where there is none.
  long long Length() override { return stream_.tellp(); }
  void Write(const char* text, std::size_t length) override {
    stream_.write(text, static_cast<std::streamsize>(length));
  }

 private:
  std::ostream stream_;
};

}  // namespace orva
