#pragma once

#include <cstddef>
#include <cstdint>

#include "orva_sqlite/byte_stream.h"
#include "orva_sqlite/columns.h"
#include "orva_sqlite/compressed_bytes.h"
#include "orva_sqlite/integer_column.h"
#include "orva_sqlite/real_column.h"
#include "orva_sqlite/run_column.h"
#include "orva_sqlite/text_column.h"

// A segment: the samples of one item and layer over a stretch of time, as the bytes that are stored
// in one row. The form stands byte by byte in docs/sqlite-format.md; it begins with a version and a
// checksum, and later versions of this code read all earlier ones.

namespace orva::sqlite {

constexpr std::uint8_t kSegmentVersion = 1;
// A reader takes no more samples than this from one segment; a writer cuts far below.
constexpr std::size_t kMaxSegmentSamples = 65536;

// Keeps its working memory: use one for many segments. Not thread-safe.
class SegmentEncoder {
 public:
  // The samples [from, to) of `samples`, at least one, in ascending time. The result is valid until
  // the next call.
  const Bytes& encode(const Columns& samples, std::size_t from, std::size_t to);

 private:
  void putValues(ByteWriter& out, std::size_t count);
  void putColumn(ByteWriter& out, std::uint32_t type, const std::uint64_t* values,
                 std::size_t count);

  Bytes out_;
  const Columns* samples_ = nullptr;  // during encode()
  std::size_t from_ = 0;
  std::vector<std::uint32_t> scratch_;
  std::vector<std::uint64_t> ofType_;
  std::vector<std::int64_t> integersOfType_;
  IntegerEncoder integers_;
  BytesEncoder bytes_;
  RunEncoder runs_;
  RealEncoder reals_;
  TextEncoder texts_;
};

enum class Decoded {
  kGood,
  kDamaged,         // a checksum or a field is wrong
  kUnknownVersion,  // written by a later version
};

// Keeps its working memory: use one for many segments. Not thread-safe.
class SegmentDecoder {
 public:
  // Replaces what `out` holds. Reads no byte beyond `size`, whatever the bytes are; when the result
  // is not kGood, `out` is empty.
  Decoded decode(const void* data, std::size_t size, Columns& out);

 private:
  void getSamples(ByteReader& in, Columns& out);
  void getColumn(ByteReader& in, std::uint32_t type, std::uint64_t* values, std::size_t count,
                 Columns& out);

  std::vector<std::uint64_t> ofType_;
  std::vector<std::int64_t> integersOfType_;
  BytesDecoder bytes_;
  RealDecoder reals_;
  TextDecoder texts_;
};

}  // namespace orva::sqlite
