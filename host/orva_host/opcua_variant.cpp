#include "host/opcua_variant.h"

#include <cmath>
#include <cstdio>
#include <limits>
#include <memory>
#include <new>
#include <string_view>
#include <vector>

#include "orva_host/number_text.h"
#include "share/status_codes.h"
#include "share/ticks.h"

struct OpcUa_String {
  std::uint32_t length;

  char* text() { return reinterpret_cast<char*>(this + 1); }
  const char* text() const { return reinterpret_cast<const char*>(this + 1); }
};

namespace {

constexpr OpcUa_StatusCode kBadTypeMismatch = 0x80740000;

bool isHeapType(const OpcUa_Variant& value) {
  return value.ArrayType != 0 ||
         (value.Datatype >= OpcUaType_String && value.Datatype != OpcUaType_DateTime);
}

OpcUa_String* newString(const void* bytes, std::uint32_t length) {
  const std::uint64_t size = sizeof(OpcUa_String) + std::uint64_t{length} + 1;
  if (size > PTRDIFF_MAX) throw std::bad_alloc();
  auto* made = static_cast<OpcUa_String*>(::operator new(static_cast<std::size_t>(size)));
  made->length = length;
  if (length != 0) std::memcpy(made->text(), bytes, length);
  made->text()[length] = '\0';
  return made;
}

void freeArray(OpcUa_VariantArray* array) {
  if (array == nullptr) return;
  for (std::int32_t i = 0; i < array->Length; ++i) OpcUa_Variant_Clear(&array->Items[i]);
  delete[] array->Items;
  delete array;
}

struct ArrayDeleter {
  void operator()(OpcUa_VariantArray* array) const { freeArray(array); }
};
using ArrayOwner = std::unique_ptr<OpcUa_VariantArray, ArrayDeleter>;

// `count` null elements.
ArrayOwner newArray(std::int32_t count) {
  ArrayOwner array(new OpcUa_VariantArray{0, nullptr});
  array->Items = new OpcUa_Variant[static_cast<std::size_t>(count)]();
  array->Length = count;
  return array;
}

OpcUa_VariantArray* copyArray(const OpcUa_VariantArray* source) {
  if (source == nullptr) return nullptr;
  ArrayOwner copy = newArray(source->Length);
  for (std::int32_t i = 0; i < source->Length; ++i) {
    OpcUa_VariantHlp::CopyVariants(source->Items[i], copy->Items[i]);
  }
  return copy.release();
}

OpcUa_DataValue* copyDataValue(const OpcUa_DataValue* source) {
  if (source == nullptr) return nullptr;
  auto copy = std::make_unique<OpcUa_DataValue>(*source);
  std::memset(&copy->Value, 0, sizeof copy->Value);
  OpcUa_VariantHlp::CopyVariants(source->Value, copy->Value);
  return copy.release();
}

bool equalVariants(const OpcUa_Variant& a, const OpcUa_Variant& b);

bool equalStrings(const OpcUa_String* a, const OpcUa_String* b) {
  if (a == nullptr || b == nullptr) return a == b;
  return a->length == b->length && std::memcmp(a->text(), b->text(), a->length) == 0;
}

bool equalArrays(const OpcUa_VariantArray* a, const OpcUa_VariantArray* b) {
  if (a == nullptr || b == nullptr) return a == b;
  if (a->Length != b->Length) return false;
  for (std::int32_t i = 0; i < a->Length; ++i) {
    if (!equalVariants(a->Items[i], b->Items[i])) return false;
  }
  return true;
}

bool equalDataValues(const OpcUa_DataValue* a, const OpcUa_DataValue* b) {
  if (a == nullptr || b == nullptr) return a == b;
  return a->StatusCode == b->StatusCode &&
         OpcUa_DateTime_ToInt64(&a->SourceTimestamp) ==
             OpcUa_DateTime_ToInt64(&b->SourceTimestamp) &&
         OpcUa_DateTime_ToInt64(&a->ServerTimestamp) ==
             OpcUa_DateTime_ToInt64(&b->ServerTimestamp) &&
         equalVariants(a->Value, b->Value);
}

template <class T>
bool equalFloats(T a, T b) {
  return a == b || (std::isnan(a) && std::isnan(b));
}

bool equalVariants(const OpcUa_Variant& a, const OpcUa_Variant& b) {
  if (a.Datatype != b.Datatype || a.ArrayType != b.ArrayType) return false;
  if (a.ArrayType != 0) return equalArrays(a.Value.Array, b.Value.Array);
  switch (a.Datatype) {
    case OpcUaType_Null:
      return true;
    case OpcUaType_Float:
      return equalFloats(a.Value.Float, b.Value.Float);
    case OpcUaType_Double:
      return equalFloats(a.Value.Double, b.Value.Double);
    case OpcUaType_DataValue:
      return equalDataValues(a.Value.DataValue, b.Value.DataValue);
    default:
      return isHeapType(a) ? equalStrings(a.Value.String, b.Value.String)
                           : a.Value.UInt64 == b.Value.UInt64;
  }
}

// A number with nothing lost: an integer exactly, or a floating-point one.
struct Number {
  enum class Kind { kNone, kSigned, kUnsigned, kFloating };
  Kind kind = Kind::kNone;
  std::int64_t asSigned = 0;
  std::uint64_t asUnsigned = 0;  // kUnsigned: only what does not fit asSigned
  double asFloating = 0;

  static Number of(std::int64_t v) { return {Kind::kSigned, v, 0, 0}; }
  static Number ofUnsigned(std::uint64_t v) {
    if (v <= INT64_MAX) return of(static_cast<std::int64_t>(v));
    return {Kind::kUnsigned, 0, v, 0};
  }
  static Number of(double v) { return {Kind::kFloating, 0, 0, v}; }

  double toDouble() const {
    if (kind == Kind::kSigned) return static_cast<double>(asSigned);
    if (kind == Kind::kUnsigned) return static_cast<double>(asUnsigned);
    return asFloating;
  }
};

Number numberOfText(const OpcUa_String* text) {
  if (text == nullptr) return {};
  const std::string_view view(text->text(), text->length);
  if (std::int64_t whole = 0; orva::host::readWholeInt64(view, whole)) return Number::of(whole);
  if (double real = 0; orva::host::readWholeDouble(view, real)) return Number::of(real);
  return {};
}

Number numberOf(const OpcUa_Variant& value) {
  if (value.ArrayType != 0) return {};
  const auto& v = value.Value;
  switch (value.Datatype) {
    case OpcUaType_Boolean:
      return Number::of(std::int64_t{v.Boolean});
    case OpcUaType_SByte:
      return Number::of(std::int64_t{v.SByte});
    case OpcUaType_Byte:
      return Number::of(std::int64_t{v.Byte});
    case OpcUaType_Int16:
      return Number::of(std::int64_t{v.Int16});
    case OpcUaType_UInt16:
      return Number::of(std::int64_t{v.UInt16});
    case OpcUaType_Int32:
      return Number::of(std::int64_t{v.Int32});
    case OpcUaType_UInt32:
      return Number::of(std::int64_t{v.UInt32});
    case OpcUaType_Int64:
      return Number::of(v.Int64);
    case OpcUaType_UInt64:
      return Number::ofUnsigned(v.UInt64);
    case OpcUaType_Float:
      return Number::of(double{v.Float});
    case OpcUaType_Double:
      return Number::of(v.Double);
    case OpcUaType_String:
      return numberOfText(v.String);
    default:
      return {};
  }
}

constexpr double kTwoTo63 = 9223372036854775808.0;

// Truncates toward zero. False for what does not fit.
bool toInt64(const Number& number, std::int64_t& out) {
  if (number.kind == Number::Kind::kSigned) {
    out = number.asSigned;
    return true;
  }
  if (number.kind != Number::Kind::kFloating) return false;
  if (!(number.asFloating >= -kTwoTo63 && number.asFloating < kTwoTo63)) return false;
  out = static_cast<std::int64_t>(number.asFloating);
  return true;
}

bool toUInt64(const Number& number, std::uint64_t& out) {
  if (number.kind == Number::Kind::kUnsigned) {
    out = number.asUnsigned;
    return true;
  }
  if (number.kind == Number::Kind::kFloating && number.asFloating >= kTwoTo63) {
    if (number.asFloating >= 2 * kTwoTo63) return false;
    out = static_cast<std::uint64_t>(number.asFloating);
    return true;
  }
  std::int64_t whole = 0;
  if (!toInt64(number, whole) || whole < 0) return false;
  out = static_cast<std::uint64_t>(whole);
  return true;
}

std::int64_t saturatedProduct(std::int64_t a, std::int64_t b) {
  std::int64_t product = 0;
  if (!__builtin_mul_overflow(a, b, &product)) return product;
  return (a < 0) == (b < 0) ? INT64_MAX : INT64_MIN;
}

std::int64_t saturated(double number) {
  if (number >= kTwoTo63) return INT64_MAX;
  if (number < -kTwoTo63) return INT64_MIN;
  return static_cast<std::int64_t>(number);
}

template <class T>
bool fits(std::int64_t number) {
  return number >= std::int64_t{std::numeric_limits<T>::min()} &&
         number <= std::int64_t{std::numeric_limits<T>::max()};
}

// Sets `out` with `set` if the number fits the setter's type.
template <class T>
bool setInteger(const Number& number, OpcUa_VariantHlp& out, void (OpcUa_VariantHlp::*set)(T)) {
  std::int64_t whole = 0;
  if (!toInt64(number, whole) || !fits<T>(whole)) return false;
  (out.*set)(static_cast<T>(whole));
  return true;
}

bool setBoolean(const Number& number, OpcUa_VariantHlp& out) {
  const double real = number.toDouble();
  if (std::isnan(real)) return false;
  out.SetBool(real != 0);
  return true;
}

bool setFloat(double real, OpcUa_VariantHlp& out) {
  // Beyond this a finite number would become an infinite one.
  constexpr double kLimit = std::numeric_limits<float>::max();
  if (std::isfinite(real) && std::fabs(real) > kLimit) return false;
  out.SetFloat(static_cast<float>(real));
  return true;
}

bool setNumber(const Number& number, OpcUa_Byte type, OpcUa_VariantHlp& out) {
  if (number.kind == Number::Kind::kNone) return false;
  using Hlp = OpcUa_VariantHlp;
  switch (type) {
    case OpcUaType_Boolean:
      return setBoolean(number, out);
    case OpcUaType_SByte:
      return setInteger(number, out, &Hlp::SetSByte);
    case OpcUaType_Byte:
      return setInteger(number, out, &Hlp::SetByte);
    case OpcUaType_Int16:
      return setInteger(number, out, &Hlp::SetInt16);
    case OpcUaType_UInt16:
      return setInteger(number, out, &Hlp::SetUInt16);
    case OpcUaType_Int32:
      return setInteger(number, out, &Hlp::SetInt);
    case OpcUaType_UInt32:
      return setInteger(number, out, &Hlp::SetUInt);
    case OpcUaType_Int64:
      return setInteger(number, out, &Hlp::SetInt64);
    case OpcUaType_DateTime:
      return setInteger(number, out, &Hlp::SetDateTime);
    case OpcUaType_UInt64: {
      std::uint64_t whole = 0;
      if (!toUInt64(number, whole)) return false;
      out.SetUInt64(whole);
      return true;
    }
    case OpcUaType_Float:
      return setFloat(number.toDouble(), out);
    case OpcUaType_Double:
      out.SetDouble(number.toDouble());
      return true;
    default:
      return false;
  }
}

bool isByteText(OpcUa_Byte type) {
  return type == OpcUaType_String || type == OpcUaType_ByteString || type == OpcUaType_XmlElement;
}

// Anything that reads well as text, into a String.
bool setText(const OpcUa_VariantHlp& value, OpcUa_VariantHlp& out) {
  const OpcUa_Byte type = value.GetType();
  if (isByteText(type) || type == OpcUaType_Json) {
    const OpcUa_String* text = value.Get().Value.String;
    out.SetString(OpcUa_String_GetRawString(text), OpcUa_String_StrSize(text));
    return true;
  }
  if (type > OpcUaType_DateTime) return false;
  out.SetString(value.ToText());
  return true;
}

bool setBytes(const OpcUa_VariantHlp& value, OpcUa_Byte type, OpcUa_VariantHlp& out) {
  if (!isByteText(value.GetType())) return false;
  const OpcUa_String* text = value.Get().Value.String;
  out.SetBytes(static_cast<OpcUa_BuiltInType>(type), OpcUa_String_GetRawString(text),
               OpcUa_String_StrSize(text));
  return true;
}

bool convertScalar(const OpcUa_VariantHlp& value, OpcUa_Byte type, OpcUa_VariantHlp& out) {
  if (type == OpcUaType_String) return setText(value, out);
  if (isByteText(type)) return setBytes(value, type, out);
  if (value.GetType() == OpcUaType_DateTime) {
    return setNumber(Number::of(OpcUa_DateTime_ToInt64(&value.Get().Value.DateTime)), type, out);
  }
  if (type == OpcUaType_Boolean && value.GetType() == OpcUaType_String) {
    const std::string text = value.GetString();
    if (text == "true" || text == "false") {
      out.SetBool(text == "true");
      return true;
    }
  }
  return setNumber(numberOf(value.Get()), type, out);
}

bool convertArray(const OpcUa_VariantArray* source, OpcUa_Byte type, OpcUa_VariantHlp& out) {
  std::vector<OpcUa_VariantHlp> items;
  const std::int32_t length = source == nullptr ? 0 : source->Length;
  for (std::int32_t i = 0; i < length; ++i) {
    items.emplace_back(source->Items[i]);
    if (items.back().ChangeType(type) != 0) return false;
  }
  out.SetArray(static_cast<OpcUa_BuiltInType>(type), items.data(), length);
  return true;
}

}  // namespace

void OpcUa_Variant_Initialize(OpcUa_Variant* value) {
  if (value != nullptr) std::memset(value, 0, sizeof *value);
}

void OpcUa_Variant_Clear(OpcUa_Variant* value) {
  if (value == nullptr) return;
  if (value->ArrayType != 0) {
    freeArray(value->Value.Array);
  } else if (value->Datatype == OpcUaType_DataValue) {
    if (value->Value.DataValue != nullptr) OpcUa_Variant_Clear(&value->Value.DataValue->Value);
    delete value->Value.DataValue;
  } else if (isHeapType(*value)) {
    ::operator delete(value->Value.String);
  }
  OpcUa_Variant_Initialize(value);
}

const char* OpcUa_String_GetRawString(const OpcUa_String* text) {
  return text == nullptr ? nullptr : text->text();
}

std::uint32_t OpcUa_String_StrSize(const OpcUa_String* text) {
  return text == nullptr ? 0 : text->length;
}

void OpcUa_DateTime_FromInt64(std::int64_t ticks, OpcUa_DateTime* out) {
  if (out == nullptr) return;
  const auto bits = static_cast<std::uint64_t>(ticks);
  out->dwLowDateTime = static_cast<std::uint32_t>(bits);
  out->dwHighDateTime = static_cast<std::uint32_t>(bits >> 32);
}

std::int64_t OpcUa_DateTime_ToInt64(const OpcUa_DateTime* value) {
  if (value == nullptr) return 0;
  return static_cast<std::int64_t>(std::uint64_t{value->dwHighDateTime} << 32 |
                                   value->dwLowDateTime);
}

void OpcUa_VariantHlp::CopyHeap(const OpcUa_Variant& source) { CopyVariants(source, value_); }

void OpcUa_VariantHlp::CopyVariants(const OpcUa_Variant& source, OpcUa_Variant& target) {
  OpcUa_Variant copy = source;
  if (source.ArrayType != 0) {
    copy.Value.Array = copyArray(source.Value.Array);
  } else if (source.Datatype == OpcUaType_DataValue) {
    copy.Value.DataValue = copyDataValue(source.Value.DataValue);
  } else if (isHeapType(source) && source.Value.String != nullptr) {
    copy.Value.String = newString(source.Value.String->text(), source.Value.String->length);
  }
  target = copy;
}

void OpcUa_VariantHlp::SetDateTime(std::int64_t ticks) {
  OpcUa_DateTime_FromInt64(ticks, &Reset(OpcUaType_DateTime).Value.DateTime);
}

void OpcUa_VariantHlp::SetString(const char* text, std::uint32_t length) {
  SetBytes(OpcUaType_String, text, length);
}

void OpcUa_VariantHlp::SetJson(const std::string& text) {
  SetBytes(OpcUaType_Json, text.data(), static_cast<std::uint32_t>(text.size()));
}

void OpcUa_VariantHlp::SetBytes(OpcUa_BuiltInType type, const void* bytes, std::uint32_t length) {
  // Made first: the bytes may be those that Reset() releases.
  OpcUa_String* made = bytes == nullptr ? nullptr : newString(bytes, length);
  Reset(type).Value.String = made;
}

void OpcUa_VariantHlp::SetDataValue(OpcUa_VariantHlp inner, OpcUa_StatusCode status,
                                    std::int64_t sourceTicks, std::int64_t serverTicks) {
  auto made = std::make_unique<OpcUa_DataValue>();
  made->StatusCode = status;
  OpcUa_DateTime_FromInt64(sourceTicks, &made->SourceTimestamp);
  OpcUa_DateTime_FromInt64(serverTicks, &made->ServerTimestamp);
  made->Value = inner.value_;
  inner.OpcUa_Variant_Zero();
  Reset(OpcUaType_DataValue).Value.DataValue = made.release();
}

void OpcUa_VariantHlp::SetArray(OpcUa_BuiltInType type, const OpcUa_VariantHlp* items,
                                std::int32_t count) {
  ArrayOwner array = newArray(count < 0 ? 0 : count);
  for (std::int32_t i = 0; i < array->Length; ++i) CopyVariants(items[i].value_, array->Items[i]);
  Reset(type).ArrayType = 1;
  value_.Value.Array = array.release();
}

bool OpcUa_VariantHlp::GetDouble(double& out) const {
  if (value_.Datatype == OpcUaType_Double && value_.ArrayType == 0) {
    out = value_.Value.Double;
    return true;
  }
  const Number number = numberOf(value_);
  if (number.kind == Number::Kind::kNone) return false;
  out = number.toDouble();
  return true;
}

bool OpcUa_VariantHlp::GetInt64(std::int64_t& out) const {
  return value_.Datatype != OpcUaType_String && toInt64(numberOf(value_), out);
}

bool OpcUa_VariantHlp::GetBool(bool& out) const {
  double number = 0;
  if (value_.Datatype == OpcUaType_String || !GetDouble(number) || std::isnan(number)) return false;
  out = number != 0;
  return true;
}

std::string OpcUa_VariantHlp::GetString() const {
  const bool hasText = value_.Datatype == OpcUaType_String || value_.Datatype == OpcUaType_Json;
  if (value_.ArrayType != 0 || !hasText || value_.Value.String == nullptr) return {};
  return std::string(value_.Value.String->text(), value_.Value.String->length);
}

const OpcUa_DataValue* OpcUa_VariantHlp::GetDataValue() const {
  if (value_.ArrayType != 0 || value_.Datatype != OpcUaType_DataValue) return nullptr;
  return value_.Value.DataValue;
}

OpcUa_VariantHlp OpcUa_VariantHlp::TakeInnerValue() {
  OpcUa_VariantHlp inner;
  if (GetDataValue() != nullptr) std::swap(inner.value_, value_.Value.DataValue->Value);
  return inner;
}

int OpcUa_VariantHlp::GetTime(const OpcUa_VariantHlp& value, std::int64_t scale,
                              std::int64_t& out) {
  out = 0;
  if (value.GetType() == OpcUaType_DateTime && !value.IsArray()) {
    out = OpcUa_DateTime_ToInt64(&value.value_.Value.DateTime);
    return 0;
  }
  const Number number = numberOf(value.value_);
  switch (number.kind) {
    case Number::Kind::kSigned:
      out = saturatedProduct(number.asSigned, scale);
      return 0;
    case Number::Kind::kUnsigned:
      // At least 2^63: any factor but 0 saturates.
      out = scale == 0 ? 0 : scale > 0 ? INT64_MAX : INT64_MIN;
      return 0;
    case Number::Kind::kFloating:
      if (std::isnan(number.asFloating) || (std::isinf(number.asFloating) && scale == 0)) return 1;
      out = saturated(number.asFloating * static_cast<double>(scale));
      return 0;
    case Number::Kind::kNone:
      break;
  }
  return 1;
}

bool OpcUa_VariantHlp::IsEqual(const OpcUa_VariantHlp& other) const {
  return equalVariants(value_, other.value_);
}

OpcUa_StatusCode OpcUa_VariantHlp::ChangeType(OpcUa_Byte type) {
  if (value_.Datatype == type || value_.Datatype == OpcUaType_Null) return 0;
  if (type == OpcUaType_Variant) return 0;
  OpcUa_VariantHlp converted;
  const bool done = IsArray() ? convertArray(value_.Value.Array, type, converted)
                              : convertScalar(*this, type, converted);
  if (!done) return kBadTypeMismatch;
  *this = std::move(converted);
  return 0;
}
