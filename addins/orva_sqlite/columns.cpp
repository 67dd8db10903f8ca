#include "orva_sqlite/columns.h"

#include <algorithm>
#include <cstring>
#include <numeric>

namespace orva::sqlite {
namespace {

bool isText(std::uint32_t type) { return type == OpcUaType_String || type == OpcUaType_Json; }

std::uint64_t extended(std::int64_t v) { return static_cast<std::uint64_t>(v); }

// The bits of a scalar that is no text.
std::uint64_t scalarBits(const OpcUa_Variant& variant) {
  const auto& v = variant.Value;
  switch (variant.Datatype) {
    case OpcUaType_Boolean:
      return v.Boolean ? 1 : 0;
    case OpcUaType_SByte:
      return extended(v.SByte);
    case OpcUaType_Byte:
      return v.Byte;
    case OpcUaType_Int16:
      return extended(v.Int16);
    case OpcUaType_UInt16:
      return v.UInt16;
    case OpcUaType_Int32:
      return extended(v.Int32);
    case OpcUaType_UInt32:
      return v.UInt32;
    case OpcUaType_Float: {
      std::uint32_t bits = 0;
      std::memcpy(&bits, &v.Float, sizeof bits);
      return bits;
    }
    case OpcUaType_DateTime:
      return extended(OpcUa_DateTime_ToInt64(&v.DateTime));
    case OpcUaType_Null:
      return 0;
    default:
      return v.UInt64;
  }
}

void setFloatBits(OpcUa_VariantHlp& value, std::uint64_t bits) {
  const auto low = static_cast<std::uint32_t>(bits);
  float real = 0;
  std::memcpy(&real, &low, sizeof real);
  value.SetFloat(real);
}

void setDoubleBits(OpcUa_VariantHlp& value, std::uint64_t bits) {
  double real = 0;
  std::memcpy(&real, &bits, sizeof real);
  value.SetDouble(real);
}

void setScalar(OpcUa_VariantHlp& value, std::uint32_t type, std::uint64_t bits) {
  switch (type) {
    case OpcUaType_Boolean:
      return value.SetBool(bits != 0);
    case OpcUaType_SByte:
      return value.SetSByte(static_cast<std::int8_t>(bits));
    case OpcUaType_Byte:
      return value.SetByte(static_cast<std::uint8_t>(bits));
    case OpcUaType_Int16:
      return value.SetInt16(static_cast<std::int16_t>(bits));
    case OpcUaType_UInt16:
      return value.SetUInt16(static_cast<std::uint16_t>(bits));
    case OpcUaType_Int32:
      return value.SetInt(static_cast<std::int32_t>(bits));
    case OpcUaType_UInt32:
      return value.SetUInt(static_cast<std::uint32_t>(bits));
    case OpcUaType_Int64:
      return value.SetInt64(static_cast<std::int64_t>(bits));
    case OpcUaType_UInt64:
      return value.SetUInt64(bits);
    case OpcUaType_Float:
      return setFloatBits(value, bits);
    case OpcUaType_Double:
      return setDoubleBits(value, bits);
    case OpcUaType_DateTime:
      return value.SetDateTime(static_cast<std::int64_t>(bits));
    default:
      return;  // null
  }
}

template <class T>
void permute(std::vector<T>& column, const std::vector<std::uint32_t>& order) {
  std::vector<T> moved(column.size());
  for (std::size_t i = 0; i < order.size(); ++i) moved[i] = column[order[i]];
  column.swap(moved);
}

template <class T>
void appendRange(std::vector<T>& to, const std::vector<T>& from, std::size_t first,
                 std::size_t last) {
  to.insert(to.end(), from.begin() + static_cast<std::ptrdiff_t>(first),
            from.begin() + static_cast<std::ptrdiff_t>(last));
}

}  // namespace

bool isStorable(const OpcUa_VariantHlp& value) {
  if (value.IsArray()) return false;
  const OpcUa_Byte type = value.GetType();
  if (isText(type)) return OpcUa_String_StrSize(value.Get().Value.String) <= kMaxText;
  return type <= OpcUaType_DateTime;
}

void Columns::clear() {
  times.clear();
  qualities.clear();
  types.clear();
  values.clear();
  texts.clear();
  owned.clear();
}

void Columns::add(const Pin& pin) {
  const OpcUa_Variant& variant = pin.value.Get();
  times.push_back(pin.time);
  qualities.push_back(pin.quality);
  types.push_back(variant.Datatype);
  if (!isText(variant.Datatype)) {
    values.push_back(scalarBits(variant));
  } else if (const char* const text = OpcUa_String_GetRawString(variant.Value.String)) {
    texts.emplace_back(text, OpcUa_String_StrSize(variant.Value.String));
    values.push_back(texts.size());
  } else {
    values.push_back(0);
  }
}

void Columns::append(const Columns& other, std::size_t from, std::size_t to) {
  const std::size_t first = size();
  appendRange(times, other.times, from, to);
  appendRange(qualities, other.qualities, from, to);
  appendRange(types, other.types, from, to);
  appendRange(values, other.values, from, to);
  if (other.texts.empty()) return;
  const std::size_t before = texts.size();
  texts.insert(texts.end(), other.texts.begin(), other.texts.end());
  owned.insert(owned.end(), other.owned.begin(), other.owned.end());
  for (std::size_t i = first; i < size() && before > 0; ++i) {
    if (isText(types[i]) && values[i] != 0) values[i] += before;
  }
}

void Columns::sortByTime() {
  if (std::is_sorted(times.begin(), times.end())) return;
  std::vector<std::uint32_t> order(size());
  std::iota(order.begin(), order.end(), 0U);
  std::stable_sort(order.begin(), order.end(),
                   [this](std::uint32_t a, std::uint32_t b) { return times[a] < times[b]; });
  permute(times, order);
  permute(qualities, order);
  permute(types, order);
  permute(values, order);
}

std::size_t Columns::segmentEnd(std::size_t from) const {
  const std::size_t end = std::min(size(), from + kSegmentSamples);
  if (texts.empty()) return end;
  std::size_t text = 0;
  for (std::size_t i = from; i < end; ++i) {
    if (isText(types[i]) && values[i] != 0)
      text += texts[static_cast<std::size_t>(values[i] - 1)].size();
    if (text > kSegmentText && i > from) return i;
  }
  return end;
}

PinPtr Columns::pin(std::size_t index) const {
  PinPtr made = makePin();
  made->time = times[index];
  made->quality = qualities[index];
  const std::uint32_t type = types[index];
  const std::uint64_t bits = values[index];
  if (type == OpcUaType_Double) {
    setDoubleBits(made->value, bits);
  } else if (!isText(type)) {
    setScalar(made->value, type, bits);
  } else if (bits == 0) {
    made->value.SetBytes(static_cast<OpcUa_BuiltInType>(type), nullptr, 0);
  } else {
    const std::string_view text = texts[static_cast<std::size_t>(bits - 1)];
    // A null pointer would make a text that is none.
    made->value.SetBytes(static_cast<OpcUa_BuiltInType>(type), text.empty() ? "" : text.data(),
                         static_cast<std::uint32_t>(text.size()));
  }
  return made;
}

}  // namespace orva::sqlite
