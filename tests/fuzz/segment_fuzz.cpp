#include <string>
#include <vector>

#include "fuzz/fuzz_input.h"
#include "fuzz/fuzz_targets.h"
#include "orva_sqlite/crc32c.h"
#include "orva_sqlite/segment_codec.h"
#include "unit/orva_sqlite/samples.h"

// The first byte says what the others are. Even: a stored segment, whose checksum is made right, or
// nothing would get past it; from 128 on it stays as it is. Odd: a recipe for samples, which are
// encoded and decoded, and what is to be changed in their segment.

namespace orva::fuzz {
namespace {

using sqlite::Bytes;
using sqlite::Columns;
using sqlite::Decoded;

constexpr std::size_t kChecksumAt = 1;
constexpr std::size_t kHeadSize = 5;
constexpr std::size_t kMostSamples = 1200;

void seal(Bytes& stored) {
  if (stored.size() < kHeadSize) return;
  const std::uint32_t sum = sqlite::crc32c(sqlite::crc32c(0, stored.data(), kChecksumAt),
                                           stored.data() + kHeadSize, stored.size() - kHeadSize);
  for (std::size_t i = 0; i < 4; ++i) {
    stored[kChecksumAt + i] = static_cast<std::uint8_t>(sum >> (8 * i));
  }
}

// Through a copy of just the right size, so that a read beyond it is noticed.
Decoded decode(const Bytes& stored, Columns& out) {
  const Bytes copy(stored.begin(), stored.end());
  sqlite::SegmentDecoder decoder;
  return decoder.decode(copy.data(), copy.size(), out);
}

void demandSame(const Columns& got, const Columns& wanted, std::size_t count) {
  demand(got.size() == count, "a segment holds as many samples as were put");
  for (std::size_t i = 0; i < count; ++i) {
    demand(sqlite::test::sameSample(*got.pin(i), *wanted.pin(i)),
           "each sample comes back as it was");
  }
}

void demandComesBack(const Columns& samples, std::size_t count) {
  sqlite::SegmentEncoder encoder;
  Columns back;
  demand(decode(encoder.encode(samples, 0, count), back) == Decoded::kGood,
         "what was encoded can be decoded");
  demandSame(back, samples, count);
}

// Whatever the bytes are: nothing, or samples that can be used, merged and stored again.
void takeStored(const Bytes& stored) {
  Columns samples;
  samples.times.push_back(1);  // what an earlier call left
  if (decode(stored, samples) != Decoded::kGood) {
    demand(samples.empty() && samples.values.empty() && samples.texts.empty(),
           "damage leaves no samples");
    return;
  }
  const std::size_t count = samples.size();
  demand(count > 0 && count <= sqlite::kMaxSegmentSamples, "a segment has samples, not too many");
  demand(samples.values.size() == count && samples.qualities.size() == count &&
             samples.types.size() == count,
         "columns are equally long");
  for (std::size_t i = 1; i < count; ++i) {
    demand(samples.times[i - 1] <= samples.times[i], "samples are in order of time");
  }
  static_cast<void>(samples.pin(count - 1)->value.ToText());
  const std::size_t end = samples.segmentEnd(0);
  demandComesBack(samples, end);
  Columns merged;
  merged.append(samples, 0, end);
  merged.append(samples, 0, end);
  merged.sortByTime();
  demand(merged.size() == 2 * end, "merging loses nothing");
  static_cast<void>(merged.pin(merged.size() - 1)->value.ToText());
}

// ---- the recipe

OpcUa_VariantHlp realValue(FuzzInput& in) {
  OpcUa_VariantHlp value;
  const std::size_t form = in.below(3);
  if (form == 0) {
    value.SetDouble(static_cast<double>(in.number<std::int16_t>()) / 100);
  } else {
    const auto bits = in.number<std::uint64_t>();
    double real = 0;
    std::memcpy(&real, &bits, sizeof real);
    value.SetDouble(real);
  }
  return value;
}

OpcUa_VariantHlp integerValue(FuzzInput& in, std::size_t type) {
  OpcUa_VariantHlp value;
  const std::int64_t n = in.flag() ? in.number<std::int64_t>() : in.number<std::int8_t>();
  switch (type) {
    case OpcUaType_Boolean:
      value.SetBool(n % 2 != 0);
      break;
    case OpcUaType_SByte:
      value.SetSByte(static_cast<std::int8_t>(n));
      break;
    case OpcUaType_Byte:
      value.SetByte(static_cast<std::uint8_t>(n));
      break;
    case OpcUaType_Int16:
      value.SetInt16(static_cast<std::int16_t>(n));
      break;
    case OpcUaType_UInt16:
      value.SetUInt16(static_cast<std::uint16_t>(n));
      break;
    case OpcUaType_Int32:
      value.SetInt(static_cast<std::int32_t>(n));
      break;
    case OpcUaType_UInt32:
      value.SetUInt(static_cast<std::uint32_t>(n));
      break;
    case OpcUaType_Int64:
      value.SetInt64(n);
      break;
    case OpcUaType_UInt64:
      value.SetUInt64(static_cast<std::uint64_t>(n));
      break;
    default:
      value.SetDateTime(n);
  }
  return value;
}

OpcUa_VariantHlp floatValue(FuzzInput& in) {
  const auto bits = in.number<std::uint32_t>();
  float real = 0;
  std::memcpy(&real, &bits, sizeof real);
  OpcUa_VariantHlp value;
  value.SetFloat(real);
  return value;
}

OpcUa_VariantHlp textValue(FuzzInput& in, std::size_t type) {
  const std::string text = in.text();
  OpcUa_VariantHlp value;
  const bool none = text.empty() && in.flag();
  value.SetBytes(static_cast<OpcUa_BuiltInType>(type), none ? nullptr : text.data(),
                 static_cast<std::uint32_t>(text.size()));
  return value;
}

OpcUa_VariantHlp anyValue(FuzzInput& in) {
  const std::size_t type = in.below(15);
  if (type == OpcUaType_Null) return {};
  if (type == OpcUaType_Float) return floatValue(in);
  if (type == OpcUaType_Double) return realValue(in);
  if (type == OpcUaType_String) return textValue(in, type);
  if (type == 14) return textValue(in, OpcUaType_Json);
  return integerValue(in, type);
}

// Steps of time from one sample to the next.
std::int64_t anyStep(FuzzInput& in) {
  switch (in.below(4)) {
    case 0:
      return 0;
    case 1:
      return 10'000'000;
    case 2:
      return in.number<std::uint16_t>();
    default:
      return in.number<std::int64_t>() & INT64_MAX;
  }
}

std::vector<PinPtr> samplesOf(FuzzInput& in) {
  std::vector<PinPtr> pins;
  std::int64_t time = in.number<std::int64_t>();
  std::size_t groups = in.below(64) + std::size_t{1};
  while (groups-- > 0 && pins.size() < kMostSamples) {
    const std::int64_t step = anyStep(in);
    const OpcUa_VariantHlp value = anyValue(in);
    const OpcUa_StatusCode quality = in.flag() ? in.number<std::uint32_t>() : 0;
    for (std::size_t repeat = in.below(32) + std::size_t{1}; repeat > 0; --repeat) {
      if (__builtin_add_overflow(time, step, &time)) time = INT64_MAX;
      pins.push_back(makePin(time, value, quality));
    }
  }
  return pins;
}

void takeRecipe(FuzzInput& in) {
  const std::vector<PinPtr> pins = samplesOf(in);
  Columns samples;
  for (const PinPtr& pin : pins) {
    demand(sqlite::isStorable(pin->value), "these types are kept");
    samples.add(*pin);
  }
  for (std::size_t i = 0; i < pins.size(); ++i) {
    demand(sqlite::test::sameSample(*samples.pin(i), *pins[i]), "columns keep a sample as it is");
  }
  demandComesBack(samples, samples.size());
  sqlite::SegmentEncoder encoder;
  Bytes stored = encoder.encode(samples, 0, samples.size());
  while (!in.empty()) {
    const std::size_t at = in.number<std::uint16_t>() % stored.size();
    stored[at] = static_cast<std::uint8_t>(stored[at] ^ in.byte());
  }
  seal(stored);
  takeStored(stored);
}

}  // namespace

void segment(const std::uint8_t* data, std::size_t size) {
  FuzzInput in(data, size);
  const std::uint8_t form = in.byte();
  if (form % 2 != 0) return takeRecipe(in);
  const std::string text = in.rest();
  Bytes stored(text.begin(), text.end());
  if (form < 128) seal(stored);
  takeStored(stored);
}

}  // namespace orva::fuzz
