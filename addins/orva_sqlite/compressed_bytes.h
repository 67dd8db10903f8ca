#pragma once

#include <cstddef>
#include <cstdint>

#include "orva_sqlite/byte_stream.h"

struct ZSTD_CCtx_s;
struct ZSTD_DCtx_s;

// A run of bytes, compressed with zstd where that makes it smaller: a varint with its length, a
// byte that says how it stands there (0 as it is, 1 compressed), and the bytes; compressed ones
// after a varint with their own length.

namespace orva::sqlite {

// Keeps its working memory. Not thread-safe.
class BytesEncoder {
 public:
  BytesEncoder() = default;
  ~BytesEncoder();
  BytesEncoder(const BytesEncoder&) = delete;
  BytesEncoder& operator=(const BytesEncoder&) = delete;

  void put(ByteWriter& out, const void* data, std::size_t size);

 private:
  ZSTD_CCtx_s* context_ = nullptr;  // made at the first use
  Bytes compressed_;
};

class BytesDecoder {
 public:
  BytesDecoder() = default;
  ~BytesDecoder();
  BytesDecoder(const BytesDecoder&) = delete;
  BytesDecoder& operator=(const BytesDecoder&) = delete;

  // Marks `in` as failed for anything else, and for more than `limit` bytes.
  void get(ByteReader& in, Bytes& out, std::size_t limit);

 private:
  ZSTD_DCtx_s* context_ = nullptr;
};

}  // namespace orva::sqlite
