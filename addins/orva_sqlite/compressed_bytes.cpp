#include "orva_sqlite/compressed_bytes.h"

#include <zstd.h>

#include <algorithm>
#include <new>

namespace orva::sqlite {
namespace {
constexpr std::uint8_t kPlain = 0;
constexpr std::uint8_t kCompressed = 1;
// Fewer bytes than a frame's own overhead are not tried.
constexpr std::size_t kWorthTrying = 32;
// Fast, as the writer's thread also has transactions to write.
constexpr int kLevel = 1;
}  // namespace

BytesEncoder::~BytesEncoder() { ZSTD_freeCCtx(context_); }

void BytesEncoder::put(ByteWriter& out, const void* data, std::size_t size) {
  out.varint(size);
  if (size >= kWorthTrying && context_ == nullptr) context_ = ZSTD_createCCtx();
  if (size >= kWorthTrying && context_ != nullptr) {
    compressed_.resize(ZSTD_compressBound(size));
    const std::size_t made =
        ZSTD_compressCCtx(context_, compressed_.data(), compressed_.size(), data, size, kLevel);
    if (ZSTD_isError(made) == 0 && made < size) {
      out.byte(kCompressed);
      out.varint(made);
      out.bytes(compressed_.data(), made);
      return;
    }
  }
  out.byte(kPlain);
  out.bytes(data, size);
}

BytesDecoder::~BytesDecoder() { ZSTD_freeDCtx(context_); }

void BytesDecoder::get(ByteReader& in, Bytes& out, std::size_t limit) {
  out.clear();
  const std::size_t size = in.count(limit);
  const std::uint8_t form = in.byte();
  if (form == kPlain) {
    if (const std::uint8_t* const bytes = in.bytes(size)) out.assign(bytes, bytes + size);
    return;
  }
  const std::size_t stored = in.count(in.left());
  const std::uint8_t* const bytes = in.bytes(stored);
  if (form != kCompressed || in.failed()) return in.fail();
  if (context_ == nullptr) context_ = ZSTD_createDCtx();
  if (context_ == nullptr) throw std::bad_alloc();  // which is no damage
  out.resize(size);
  const std::size_t made = ZSTD_decompressDCtx(context_, out.data(), size, bytes, stored);
  if (ZSTD_isError(made) != 0 || made != size) in.fail();
}

}  // namespace orva::sqlite
