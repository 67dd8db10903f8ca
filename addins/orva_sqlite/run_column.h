#pragma once

#include <cstdint>
#include <vector>

#include "orva_sqlite/byte_stream.h"
#include "orva_sqlite/integer_column.h"

// A column of numbers of which few differ and which seldom change (qualities, types), as runs of
// equal ones. The bytes stand in docs/sqlite-format.md.

namespace orva::sqlite {

// Keeps its working memory. Not thread-safe.
class RunEncoder {
 public:
  void put(ByteWriter& out, const std::vector<std::uint32_t>& values, IntegerEncoder& integers);

 private:
  std::vector<std::uint32_t> different_;
  std::vector<std::int64_t> indexes_;
  std::vector<std::int64_t> lengths_;
};

// Fills `values`, which has the size of the column; marks `in` as failed when it holds something
// else.
void getRuns(ByteReader& in, std::vector<std::uint32_t>& values);

}  // namespace orva::sqlite
