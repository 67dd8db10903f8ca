#pragma once

#include <cstddef>
#include <string>

#include "share/json.h"
#include "share/orva_export.h"
#include "share/reply_buffer.h"

namespace orva {

namespace detail {
// A base of ReplyWriter, since the writer's allocator must be built before the writer. The first
// levels need no memory from the heap.
struct ReplyLevels {
  static constexpr std::size_t kStackBytes = 256;
  static constexpr std::size_t kChunkBytes = 65536;

  alignas(std::max_align_t) char firstLevels[2 * kStackBytes];
  rapidjson::MemoryPoolAllocator<> allocator{firstLevels, sizeof firstLevels, kChunkBytes};
};
using ReplyWriterBase = rapidjson::Writer<GenericBaseOutBuf, rapidjson::UTF8<>, rapidjson::UTF8<>,
                                          rapidjson::MemoryPoolAllocator<>>;
}  // namespace detail

// The JSON writer of every reply. It differs from the library's in two things: a number that is
// not finite becomes null, and a value reaches the buffer in one piece instead of by character.
// The text of every other value is the library's own, to the character.
//
// The library's functions are not virtual, so take a ReplyWriter&, not its base.
class ORVA_API ReplyWriter : private detail::ReplyLevels, public detail::ReplyWriterBase {
 public:
  explicit ReplyWriter(GenericBaseOutBuf& out)
      : detail::ReplyWriterBase(out, &allocator, kStackBytes / sizeof(Level)) {}

  bool Int(int value) { return Int64(value); }
  bool Uint(unsigned value) { return Uint64(value); }
  bool Int64(std::int64_t value);
  bool Uint64(std::uint64_t value);
  bool Double(double value);
  bool String(const char* text, rapidjson::SizeType length, bool copy = false);
  bool String(const char* text);
  bool String(const std::string& text);
  bool Key(const char* name, rapidjson::SizeType length, bool copy = false) {
    return String(name, length, copy);
  }
  bool Key(const char* name) { return String(name); }

  // One value that is JSON text already, as it is.
  bool RawText(const char* text, std::size_t length);
  // The same for text that the caller formatted. `first[-1]` must be the caller's too: the comma
  // goes there.
  bool Prepared(char* first, char* last) {
    if (const char before = separator()) *--first = before;
    os_->Write(first, static_cast<std::size_t>(last - first));
    return EndValue(true);
  }

  // Bytes in the buffer so far.
  long long length() { return os_->Length(); }

 private:
  // Counts the next value in; returns what must be written before it, or 0.
  char separator() {
    if (level_stack_.Empty()) {
      hasRoot_ = true;
      return 0;
    }
    Level* const level = level_stack_.Top<Level>();
    const std::size_t before = level->valueCount++;
    if (before == 0) return 0;
    return level->inArray || before % 2 == 0 ? ',' : ':';
  }
};

}  // namespace orva
