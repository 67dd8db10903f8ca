#include <cinttypes>
#include <cstdio>
#include <string>

#include "host/opcua_variant.h"
#include "orva_host/number_text.h"
#include "orva_host/time_text.h"

namespace {

std::string hexText(const OpcUa_String* bytes) {
  static const char kDigits[] = "0123456789abcdef";
  const char* raw = OpcUa_String_GetRawString(bytes);
  std::string text;
  for (std::uint32_t i = 0; i < OpcUa_String_StrSize(bytes); ++i) {
    const auto byte = static_cast<unsigned char>(raw[i]);
    text += kDigits[byte >> 4];
    text += kDigits[byte & 15];
  }
  return text;
}

std::string arrayText(const OpcUa_VariantArray* array) {
  std::string text = "[";
  for (std::int32_t i = 0; array != nullptr && i < array->Length; ++i) {
    if (i != 0) text += ", ";
    text += OpcUa_VariantHlp(array->Items[i]).ToText();
  }
  return text + "]";
}

std::string characters(const OpcUa_String* text) {
  if (text == nullptr) return {};
  return std::string(OpcUa_String_GetRawString(text), OpcUa_String_StrSize(text));
}

}  // namespace

std::string OpcUa_VariantHlp::ToText() const {
  const auto& v = value_.Value;
  if (value_.ArrayType != 0) return arrayText(v.Array);
  switch (value_.Datatype) {
    case OpcUaType_Null:
      return "null";
    case OpcUaType_Boolean:
      return v.Boolean ? "true" : "false";
    case OpcUaType_SByte:
    case OpcUaType_Byte:
    case OpcUaType_Int16:
    case OpcUaType_UInt16:
    case OpcUaType_Int32:
    case OpcUaType_UInt32:
    case OpcUaType_Int64: {
      std::int64_t number = 0;
      GetInt64(number);
      return std::to_string(number);
    }
    case OpcUaType_UInt64:
      return std::to_string(v.UInt64);
    case OpcUaType_Float:
      return orva::host::textOf(v.Float);
    case OpcUaType_Double:
      return orva::host::textOf(v.Double);
    case OpcUaType_DateTime:
      return orva::host::utcText(OpcUa_DateTime_ToInt64(&v.DateTime));
    case OpcUaType_String:
    case OpcUaType_XmlElement:
    case OpcUaType_Json:
      return characters(v.String);
    case OpcUaType_DataValue:
      return v.DataValue == nullptr ? "null" : OpcUa_VariantHlp(v.DataValue->Value).ToText();
    default:
      return hexText(v.String);
  }
}
