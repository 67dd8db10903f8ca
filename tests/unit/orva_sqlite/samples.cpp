#include "unit/orva_sqlite/samples.h"

#include <cmath>
#include <cstring>
#include <limits>

#include "share/ticks.h"

namespace orva::sqlite::test {
namespace {

OpcUa_VariantHlp realBits(std::uint64_t bits) {
  double v = 0;
  std::memcpy(&v, &bits, sizeof v);
  return realValue(v);
}

OpcUa_VariantHlp floatBits(std::uint32_t bits) {
  float v = 0;
  std::memcpy(&v, &bits, sizeof v);
  OpcUa_VariantHlp value;
  value.SetFloat(v);
  return value;
}

template <class T>
OpcUa_VariantHlp integerValue(void (OpcUa_VariantHlp::*set)(T), T v) {
  OpcUa_VariantHlp value;
  (value.*set)(v);
  return value;
}

template <class T>
void addLimits(std::vector<OpcUa_VariantHlp>& out, void (OpcUa_VariantHlp::*set)(T)) {
  for (const T v : {std::numeric_limits<T>::min(), T{0}, T{1}, std::numeric_limits<T>::max()}) {
    out.push_back(integerValue(set, v));
  }
}

OpcUa_VariantHlp jsonValue(const std::string& text) {
  OpcUa_VariantHlp value;
  value.SetJson(text);
  return value;
}

OpcUa_VariantHlp noText(OpcUa_BuiltInType type) {
  OpcUa_VariantHlp value;
  value.SetBytes(type, nullptr, 0);
  return value;
}

// One series of a kind that archives see.
class Series {
 public:
  Series(std::mt19937_64& random, unsigned kind) : random_(random), kind_(kind) {}

  OpcUa_VariantHlp next() {
    const auto r = random_();
    switch (kind_) {
      case 0:
        walk_ += static_cast<std::int64_t>(r % 41) - 20;
        return realValue(static_cast<double>(walk_) / 100);
      case 1:
        return realBits(r);
      case 2:
        return realValue(std::sin(static_cast<double>(++walk_) / 100));
      case 3:
        return floatBits(static_cast<std::uint32_t>(r));
      case 4:
        return integerValue(&OpcUa_VariantHlp::SetInt64,
                            walk_ += static_cast<std::int64_t>(r % 1000));
      case 5:
        return integerValue(&OpcUa_VariantHlp::SetUInt64, static_cast<std::uint64_t>(r));
      case 6:
        return integerValue(&OpcUa_VariantHlp::SetBool, r % 7 == 0);
      case 7:
        return textValue(r % 3 == 0 ? std::string(below(random_, 60), static_cast<char>(r >> 8))
                                    : "state");
      case 8: {
        const auto all = extremeValues();
        return all[below(random_, all.size())];
      }
      default:
        return integerValue(&OpcUa_VariantHlp::SetInt, static_cast<std::int32_t>(r % 5));
    }
  }

 private:
  std::mt19937_64& random_;
  const unsigned kind_;
  std::int64_t walk_ = 0;
};

std::uint64_t scalarBits(const OpcUa_Variant& variant) {
  switch (variant.Datatype) {
    case OpcUaType_Null:
      return 0;
    case OpcUaType_Boolean:
      return variant.Value.Boolean ? 1 : 0;
    case OpcUaType_SByte:
    case OpcUaType_Byte:
      return variant.Value.Byte;
    case OpcUaType_Int16:
    case OpcUaType_UInt16:
      return variant.Value.UInt16;
    case OpcUaType_Int32:
    case OpcUaType_UInt32:
    case OpcUaType_Float:
      return variant.Value.UInt32;
    default:
      return variant.Value.UInt64;
  }
}

bool sameText(const OpcUa_String* a, const OpcUa_String* b) {
  if (a == nullptr || b == nullptr) return a == b;
  const std::uint32_t size = OpcUa_String_StrSize(a);
  return size == OpcUa_String_StrSize(b) &&
         std::memcmp(OpcUa_String_GetRawString(a), OpcUa_String_GetRawString(b), size) == 0;
}

}  // namespace

std::size_t below(std::mt19937_64& random, std::size_t limit) {
  return limit == 0 ? 0 : static_cast<std::size_t>(random() % limit);
}

OpcUa_VariantHlp realValue(double v) {
  OpcUa_VariantHlp value;
  value.SetDouble(v);
  return value;
}

OpcUa_VariantHlp textValue(const std::string& v) {
  OpcUa_VariantHlp value;
  value.SetString(v);
  return value;
}

std::vector<OpcUa_VariantHlp> extremeValues() {
  using Hlp = OpcUa_VariantHlp;
  std::vector<OpcUa_VariantHlp> all(1);
  all.push_back(integerValue(&Hlp::SetBool, false));
  all.push_back(integerValue(&Hlp::SetBool, true));
  addLimits(all, &Hlp::SetSByte);
  addLimits(all, &Hlp::SetByte);
  addLimits(all, &Hlp::SetInt16);
  addLimits(all, &Hlp::SetUInt16);
  addLimits(all, &Hlp::SetInt);
  addLimits(all, &Hlp::SetUInt);
  addLimits(all, &Hlp::SetInt64);
  addLimits(all, &Hlp::SetUInt64);
  addLimits(all, &Hlp::SetDateTime);
  for (const std::uint32_t bits :
       {0U, 0x80000000U, 0x7F800000U, 0xFF800000U, 0x7FC00001U, 0xFFC12345U, 0x7F800001U, 1U,
        0x7F7FFFFFU, 0x00800000U, 0x41A40000U}) {
    all.push_back(floatBits(bits));
  }
  for (const std::uint64_t bits :
       {0ULL, 1ULL << 63, 0x7FF0000000000000ULL, 0xFFF0000000000000ULL, 0x7FF8000000000001ULL,
        0xFFF8DEADBEEF0001ULL, 0x7FF0000000000001ULL, 1ULL, 0x7FEFFFFFFFFFFFFFULL,
        0x0010000000000000ULL, 0x3FF3333333333333ULL, 0x4340000000000000ULL}) {
    all.push_back(realBits(bits));
  }
  const std::string withNuls("a\0b\0", 4);
  for (const std::string& text : {std::string(), std::string("x"), withNuls,
                                  std::string("\xC3\xA4\xFF"), std::string(5000, 'z')}) {
    all.push_back(textValue(text));
    all.push_back(jsonValue(text));
  }
  all.push_back(noText(OpcUaType_String));
  all.push_back(noText(OpcUaType_Json));
  return all;
}

std::vector<PinPtr> randomSamples(std::mt19937_64& random, std::int64_t start, std::size_t count) {
  std::vector<PinPtr> pins;
  std::int64_t time = start;
  Series series(random, static_cast<unsigned>(random() % 10));
  Series other(random, static_cast<unsigned>(random() % 10));
  const unsigned mixture = static_cast<unsigned>(random() % 4);
  const std::uint64_t stepKind = random() % 4;
  std::uint32_t quality = 0;
  for (std::size_t i = 0; i < count; ++i) {
    if (stepKind == 1) time += kTicksPerSecond;
    if (stepKind == 2) time += static_cast<std::int64_t>(random() % 3);
    if (stepKind == 3) time += static_cast<std::int64_t>(random() % (100 * kTicksPerSecond));
    if (random() % 50 == 0) time += static_cast<std::int64_t>(random() % 1'000'000'000'000);
    if (random() % 30 == 0) quality = static_cast<std::uint32_t>(random());
    if (random() % 40 == 0) quality = 0;
    const bool second = mixture == 3 ? i % 2 == 0 : mixture == 2 && random() % 20 == 0;
    pins.push_back(makePin(time, second ? other.next() : series.next(), quality));
  }
  return pins;
}

bool sameSample(const Pin& a, const Pin& b) {
  const OpcUa_Variant& left = a.value.Get();
  const OpcUa_Variant& right = b.value.Get();
  if (a.time != b.time || OpcUa_StatusCode{a.quality} != OpcUa_StatusCode{b.quality}) return false;
  if (left.Datatype != right.Datatype || left.ArrayType != 0 || right.ArrayType != 0) return false;
  if (left.Datatype == OpcUaType_String || left.Datatype == OpcUaType_Json) {
    return sameText(left.Value.String, right.Value.String);
  }
  return scalarBits(left) == scalarBits(right);
}

std::string describe(const Pin& pin) {
  return "(" + std::to_string(pin.time) + ", " + pin.value.ToText() + ", type " +
         std::to_string(pin.value.GetType()) + ", quality " +
         std::to_string(OpcUa_StatusCode{pin.quality}) + ")";
}

}  // namespace orva::sqlite::test
