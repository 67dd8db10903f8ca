#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "orva_sqlite/byte_stream.h"
#include "orva_sqlite/compressed_bytes.h"
#include "orva_sqlite/integer_column.h"

// A column of texts: each different text once, and per sample the number of its text, where 0 is a
// text that is none (a null pointer, which differs from an empty one). The bytes stand in
// docs/sqlite-format.md.

namespace orva::sqlite {

// All texts of a column together are at most so long when it is read; a writer stays far below.
constexpr std::size_t kMaxTextHeap = std::size_t{32} << 20;

// Keeps its working memory. Not thread-safe.
class TextEncoder {
 public:
  // numbers[i] is 0 or 1 + the index of a text in `texts`; texts that nobody uses are left out.
  void put(ByteWriter& out, const std::vector<std::string_view>& texts,
           const std::uint64_t* numbers, std::size_t count, IntegerEncoder& integers,
           BytesEncoder& bytes);

 private:
  std::int64_t numberOf(std::string_view text);

  std::unordered_map<std::string_view, std::int64_t> known_;
  std::vector<std::int64_t> lengths_;
  std::vector<std::int64_t> indexes_;
  Bytes heap_;
};

// Keeps its working memory. Not thread-safe.
class TextDecoder {
 public:
  // Fills `numbers` as above and appends to `texts`, which then refer to `heap`. Marks `in` as
  // failed when it holds something else.
  void get(ByteReader& in, std::vector<std::string_view>& texts, Bytes& heap,
           std::uint64_t* numbers, std::size_t count, BytesDecoder& bytes);

 private:
  std::vector<std::int64_t> lengths_;
  std::vector<std::int64_t> indexes_;
};

}  // namespace orva::sqlite
