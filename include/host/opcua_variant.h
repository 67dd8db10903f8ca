#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <utility>

#include "host/opcua_types.h"

// Owns one OpcUa_Variant: sets, gets, compares, copies, converts. 16 bytes; a copy of a scalar
// costs two words, everything else is copied deeply.
//
// Not thread-safe; concurrent reads of an unchanged value are fine.
class ORVA_HOST_API OpcUa_VariantHlp {
 public:
  OpcUa_VariantHlp() { OpcUa_Variant_Zero(); }
  // A deep copy.
  explicit OpcUa_VariantHlp(const OpcUa_Variant& source) : value_(source) {
    if (isHeap()) CopyHeap(source);
  }
  OpcUa_VariantHlp(const OpcUa_VariantHlp& other) : value_(other.value_) {
    if (isHeap()) CopyHeap(other.value_);
  }
  OpcUa_VariantHlp(OpcUa_VariantHlp&& other) noexcept : value_(other.value_) {
    other.OpcUa_Variant_Zero();
  }
  OpcUa_VariantHlp& operator=(OpcUa_VariantHlp other) noexcept {
    std::swap(value_, other.value_);
    return *this;
  }
  ~OpcUa_VariantHlp() {
    if (isHeap()) OpcUa_Variant_Clear(&value_);
  }

  OpcUa_Byte GetType() const { return value_.Datatype; }
  bool IsArray() const { return value_.ArrayType != 0; }
  const OpcUa_Variant& Get() const { return value_; }

  void SetNull() { *this = OpcUa_VariantHlp(); }
  void SetBool(bool v) { Reset(OpcUaType_Boolean).Value.Boolean = v; }
  void SetSByte(std::int8_t v) { Reset(OpcUaType_SByte).Value.SByte = v; }
  void SetByte(std::uint8_t v) { Reset(OpcUaType_Byte).Value.Byte = v; }
  void SetInt16(std::int16_t v) { Reset(OpcUaType_Int16).Value.Int16 = v; }
  void SetUInt16(std::uint16_t v) { Reset(OpcUaType_UInt16).Value.UInt16 = v; }
  void SetInt(std::int32_t v) { Reset(OpcUaType_Int32).Value.Int32 = v; }
  void SetUInt(std::uint32_t v) { Reset(OpcUaType_UInt32).Value.UInt32 = v; }
  void SetInt64(std::int64_t v) { Reset(OpcUaType_Int64).Value.Int64 = v; }
  void SetUInt64(std::uint64_t v) { Reset(OpcUaType_UInt64).Value.UInt64 = v; }
  void SetFloat(float v) { Reset(OpcUaType_Float).Value.Float = v; }
  void SetDouble(double v) { Reset(OpcUaType_Double).Value.Double = v; }
  void SetDateTime(std::int64_t ticks);
  // A String with a stored length; NULs inside are kept. Null `text` makes a String without text.
  void SetString(const char* text, std::uint32_t length);
  void SetString(const std::string& text) {
    SetString(text.data(), static_cast<std::uint32_t>(text.size()));
  }
  // Type 26: JSON text, handed out as it is.
  void SetJson(const std::string& text);
  // Any type that is kept as raw bytes (14 to 22, 24, 25).
  void SetBytes(OpcUa_BuiltInType type, const void* bytes, std::uint32_t length);
  // Type 23. Takes the inner value over.
  void SetDataValue(OpcUa_VariantHlp inner, OpcUa_StatusCode status, std::int64_t sourceTicks,
                    std::int64_t serverTicks = 0);
  // An array of `count` elements of one type, copied.
  void SetArray(OpcUa_BuiltInType type, const OpcUa_VariantHlp* items, std::int32_t count);

  // Whether the value can be read as a floating-point number, and that number. Boolean and the
  // numeric types can; so can a String that is a whole decimal number. DateTime cannot.
  bool GetDouble(double& out) const;
  // Integer types, Boolean, and finite Float and Double truncated toward zero.
  bool GetInt64(std::int64_t& out) const;
  bool GetBool(bool& out) const;
  // The text of a String or type 26; an empty one for every other type.
  std::string GetString() const;
  // Null unless the type is 23.
  const OpcUa_DataValue* GetDataValue() const;
  // Moves the inner value out of a DataValue; null for every other type.
  OpcUa_VariantHlp TakeInnerValue();

  // The value as a count of ticks: number x scale, truncated toward zero, saturating at the ends
  // of signed 64 bits; a DateTime is its ticks, a numeric text its number. 0 when the value is
  // not a number (NaN too). Returns 0, or 1 when it is not a number.
  static int GetTime(const OpcUa_VariantHlp& value, std::int64_t scale, std::int64_t& out);

  // Same type and same value. Two NaN of one type are equal, 0.0 and -0.0 too.
  bool IsEqual(const OpcUa_VariantHlp& other) const;
  // Converts in place. 0, or 0x80740000 (type mismatch) with the value left as it was. Null stays
  // null.
  OpcUa_StatusCode ChangeType(OpcUa_Byte type);
  // A readable rendering, for traces and lists.
  std::string ToText() const;

  // Deep copy from source to an initialised or cleared target.
  static void CopyVariants(const OpcUa_Variant& source, OpcUa_Variant& target);

 private:
  void OpcUa_Variant_Zero() { std::memset(&value_, 0, sizeof value_); }
  bool isHeap() const {
    return value_.ArrayType != 0 ||
           (value_.Datatype >= OpcUaType_String && value_.Datatype != OpcUaType_DateTime);
  }
  void CopyHeap(const OpcUa_Variant& source);
  // Releases what there was; a zero scalar of `type` remains.
  OpcUa_Variant& Reset(OpcUa_BuiltInType type) {
    if (isHeap()) OpcUa_Variant_Clear(&value_);
    OpcUa_Variant_Zero();
    value_.Datatype = type;
    return value_;
  }

  OpcUa_Variant value_;
};
