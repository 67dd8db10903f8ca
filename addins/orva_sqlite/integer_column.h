#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "orva_sqlite/byte_stream.h"

// A column of signed 64-bit integers. What is stored are the numbers, their differences or the
// differences of those (the "order", 0 to 2), divided by a power of ten they share, in blocks of
// 128 that are packed to as many bits as most of a block needs; the few that need more follow as
// exceptions. The bytes stand in docs/sqlite-format.md.

namespace orva::sqlite {

// Which orders are tried; the smallest result is kept.
enum class Orders { kPlain = 0, kToFirst = 1, kToSecond = 2 };

// Encodes columns; keeps its working memory, so use one for many. Not thread-safe.
class IntegerEncoder {
 public:
  void put(ByteWriter& out, const std::int64_t* values, std::size_t count, Orders orders);

 private:
  std::vector<std::int64_t> current_;
  std::vector<std::int64_t> trial_;
  std::vector<std::int64_t> best_;
};

// Decodes `count` numbers, as many as were put. Marks `in` as failed when it holds something else;
// `values` is filled anyway.
void getIntegers(ByteReader& in, std::int64_t* values, std::size_t count);

}  // namespace orva::sqlite
