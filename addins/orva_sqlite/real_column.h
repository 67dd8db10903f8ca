#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "orva_sqlite/byte_stream.h"
#include "orva_sqlite/compressed_bytes.h"
#include "orva_sqlite/integer_column.h"

// A column of floating-point numbers, kept bit for bit. Measured values mostly are decimals of a
// few digits: those are stored as integers, and the few numbers between them that are none (NaN,
// infinities, -0.0) beside. Others are stored by their bits, as integers or byte by byte. The bytes
// stand in docs/sqlite-format.md.

namespace orva::sqlite {

// Float is 32 bits wide, Double 64; numbers travel as their bits.
enum class RealWidth { kFloat = 4, kDouble = 8 };

// Keeps its working memory. Not thread-safe.
class RealEncoder {
 public:
  void put(ByteWriter& out, RealWidth width, const std::uint64_t* bits, std::size_t count,
           IntegerEncoder& integers, BytesEncoder& bytes);

 private:
  bool decimals(RealWidth width, const std::uint64_t* bits, std::size_t count,
                IntegerEncoder& integers);
  void integersOfBits(const std::uint64_t* bits, std::size_t count, IntegerEncoder& integers);
  void planes(RealWidth width, const std::uint64_t* bits, std::size_t count, BytesEncoder& bytes);
  void keepSmaller();

  std::vector<std::int64_t> numbers_;
  Bytes scratch_;
  Bytes trial_;
  Bytes best_;
};

// Keeps its working memory. Not thread-safe.
class RealDecoder {
 public:
  // As many as were put. Marks `in` as failed when it holds something else.
  void get(ByteReader& in, RealWidth width, std::uint64_t* bits, std::size_t count,
           BytesDecoder& bytes);

 private:
  void decimals(ByteReader& in, RealWidth width, std::uint64_t* bits, std::size_t count);

  std::vector<std::int64_t> numbers_;
  Bytes planes_;
};

}  // namespace orva::sqlite
