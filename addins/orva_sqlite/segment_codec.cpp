#include "orva_sqlite/segment_codec.h"

#include <algorithm>
#include <bitset>
#include <cstring>

#include "orva_sqlite/crc32c.h"

namespace orva::sqlite {
namespace {

constexpr std::size_t kChecksumAt = 1;
constexpr std::size_t kHeadSize = 5;

using TypeSet = std::bitset<OpcUaType_Json + 1>;

bool isKnownType(std::uint32_t type) {
  return type <= OpcUaType_DateTime || type == OpcUaType_Json;
}

// The checksum is of all bytes but its own.
std::uint32_t checksum(const std::uint8_t* data, std::size_t size) {
  return crc32c(crc32c(0, data, kChecksumAt), data + kHeadSize, size - kHeadSize);
}

TypeSet typesOf(const std::uint32_t* types, std::size_t count) {
  TypeSet set;
  for (std::size_t i = 0; i < count; ++i) set.set(types[i]);
  return set;
}

}  // namespace

const Bytes& SegmentEncoder::encode(const Columns& samples, std::size_t from, std::size_t to) {
  samples_ = &samples;
  from_ = from;
  const std::size_t count = to - from;
  out_.clear();
  ByteWriter out(out_);
  out.byte(kSegmentVersion);
  out.fixed(std::uint32_t{0});
  out.varint(count);
  integers_.put(out, samples.times.data() + from, count, Orders::kToSecond);
  scratch_.assign(samples.qualities.data() + from, samples.qualities.data() + to);
  runs_.put(out, scratch_, integers_);
  scratch_.assign(samples.types.data() + from, samples.types.data() + to);
  runs_.put(out, scratch_, integers_);
  putValues(out, count);
  const std::uint32_t sum = checksum(out_.data(), out_.size());
  std::memcpy(out_.data() + kChecksumAt, &sum, sizeof sum);
  return out_;
}

// One column for each type that occurs, by ascending type.
void SegmentEncoder::putValues(ByteWriter& out, std::size_t count) {
  const std::uint32_t* const types = samples_->types.data() + from_;
  const std::uint64_t* const values = samples_->values.data() + from_;
  const TypeSet set = typesOf(types, count);
  for (std::uint32_t type = 1; type < set.size(); ++type) {
    if (!set.test(type)) continue;
    if (set.count() == 1) {
      putColumn(out, type, values, count);
      continue;
    }
    ofType_.clear();
    for (std::size_t i = 0; i < count; ++i) {
      if (types[i] == type) ofType_.push_back(values[i]);
    }
    putColumn(out, type, ofType_.data(), ofType_.size());
  }
}

void SegmentEncoder::putColumn(ByteWriter& out, std::uint32_t type, const std::uint64_t* values,
                               std::size_t count) {
  switch (type) {
    case OpcUaType_Float:
      return reals_.put(out, RealWidth::kFloat, values, count, integers_, bytes_);
    case OpcUaType_Double:
      return reals_.put(out, RealWidth::kDouble, values, count, integers_, bytes_);
    case OpcUaType_String:
    case OpcUaType_Json:
      return texts_.put(out, samples_->texts, values, count, integers_, bytes_);
    default:
      integersOfType_.resize(count);
      for (std::size_t i = 0; i < count; ++i) {
        integersOfType_[i] = static_cast<std::int64_t>(values[i]);
      }
      integers_.put(out, integersOfType_.data(), count,
                    type == OpcUaType_Boolean ? Orders::kPlain : Orders::kToSecond);
  }
}

Decoded SegmentDecoder::decode(const void* data, std::size_t size, Columns& out) {
  out.clear();
  const auto* const bytes = static_cast<const std::uint8_t*>(data);
  if (size < kHeadSize) return Decoded::kDamaged;
  std::uint32_t sum = 0;
  std::memcpy(&sum, bytes + kChecksumAt, sizeof sum);
  if (sum != checksum(bytes, size)) return Decoded::kDamaged;
  if (bytes[0] != kSegmentVersion) return Decoded::kUnknownVersion;
  ByteReader in(bytes + kHeadSize, size - kHeadSize);
  getSamples(in, out);
  if (!in.failed() && in.left() == 0) return Decoded::kGood;
  out.clear();
  return Decoded::kDamaged;
}

void SegmentDecoder::getSamples(ByteReader& in, Columns& out) {
  const std::size_t count = in.count(kMaxSegmentSamples);
  if (count == 0) return in.fail();
  out.times.resize(count);
  out.qualities.resize(count);
  out.types.resize(count);
  out.values.resize(count);
  getIntegers(in, out.times.data(), count);
  getRuns(in, out.qualities);
  getRuns(in, out.types);
  if (in.failed() || !std::is_sorted(out.times.begin(), out.times.end()) ||
      !std::all_of(out.types.begin(), out.types.end(), isKnownType)) {
    return in.fail();
  }
  const TypeSet set = typesOf(out.types.data(), count);
  if (set.count() == 1) return getColumn(in, out.types.front(), out.values.data(), count, out);
  for (std::uint32_t type = 1; type < set.size() && !in.failed(); ++type) {
    if (!set.test(type)) continue;
    ofType_.resize(static_cast<std::size_t>(std::count(out.types.begin(), out.types.end(), type)));
    getColumn(in, type, ofType_.data(), ofType_.size(), out);
    auto next = ofType_.cbegin();
    for (std::size_t i = 0; i < count; ++i) {
      if (out.types[i] == type) out.values[i] = *next++;
    }
  }
}

void SegmentDecoder::getColumn(ByteReader& in, std::uint32_t type, std::uint64_t* values,
                               std::size_t count, Columns& out) {
  switch (type) {
    case OpcUaType_Null:
      std::fill_n(values, count, 0);
      return;
    case OpcUaType_Float:
      return reals_.get(in, RealWidth::kFloat, values, count, bytes_);
    case OpcUaType_Double:
      return reals_.get(in, RealWidth::kDouble, values, count, bytes_);
    case OpcUaType_String:
    case OpcUaType_Json: {
      auto heap = std::make_shared<Bytes>();
      texts_.get(in, out.texts, *heap, values, count, bytes_);
      out.owned.push_back(std::move(heap));
      return;
    }
    default:
      integersOfType_.resize(count);
      getIntegers(in, integersOfType_.data(), count);
      for (std::size_t i = 0; i < count; ++i) {
        values[i] = static_cast<std::uint64_t>(integersOfType_[i]);
      }
  }
}

}  // namespace orva::sqlite
