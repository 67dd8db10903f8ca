#include "orva_host/value_text.h"

#include <limits>

#include "orva_host/number_text.h"
#include "orva_host/time_text.h"

namespace orva::host {
namespace {

bool isReal(OpcUa_Byte type) { return type == OpcUaType_Float || type == OpcUaType_Double; }
bool isInteger(OpcUa_Byte type) { return type >= OpcUaType_SByte && type <= OpcUaType_UInt64; }

// The numbers that have names.
bool readNamedNumber(const std::string& text, double& out) {
  using Limits = std::numeric_limits<double>;
  if (text == "nan") {
    out = Limits::quiet_NaN();
  } else if (text == "inf") {
    out = Limits::infinity();
  } else if (text == "-inf") {
    out = -Limits::infinity();
  } else {
    return false;
  }
  return true;
}

bool readConverted(const std::string& text, OpcUa_Byte type, OpcUa_VariantHlp& out) {
  OpcUa_VariantHlp value;
  double named = 0;
  if (isReal(type) && readNamedNumber(text, named)) {
    value.SetDouble(named);
  } else if (isInteger(type) && text.find_first_of(".eE") != std::string::npos) {
    return false;  // the conversion would cut the fraction
  } else {
    value.SetString(text);
  }
  if (value.ChangeType(type) != 0) return false;
  out = std::move(value);
  return true;
}

}  // namespace

bool readTime(std::string_view text, std::int64_t& ticks) {
  return readWholeInt64(text, ticks) || readUtc(text, ticks);
}

bool readValueWord(const CommandWord& word, OpcUa_Byte type, OpcUa_VariantHlp& out) {
  if (!word.quoted && word.text == "null") {
    out.SetNull();
    return true;
  }
  std::int64_t ticks = 0;
  std::uint64_t number = 0;
  switch (type) {
    case OpcUaType_Null:
    case OpcUaType_String:
      out.SetString(word.text);
      return true;
    case OpcUaType_Json:
      out.SetJson(word.text);
      return true;
    case OpcUaType_DateTime:
      if (!readTime(word.text, ticks)) return false;
      out.SetDateTime(ticks);
      return true;
    case OpcUaType_UInt64:  // half of them is beyond what the conversion takes
      if (!readWholeUInt64(word.text, number)) return false;
      out.SetUInt64(number);
      return true;
    default:
      return readConverted(word.text, type, out);
  }
}

std::string valueWord(const OpcUa_VariantHlp& value) {
  const OpcUa_Byte type = value.GetType();
  if (value.IsArray() || type == OpcUaType_String || type == OpcUaType_Json) {
    return quotedWord(value.ToText());
  }
  if (type == OpcUaType_DateTime) {
    return exactUtcText(OpcUa_DateTime_ToInt64(&value.Get().Value.DateTime));
  }
  if (type > OpcUaType_DateTime) return quotedWord(value.ToText());
  return value.ToText();
}

}  // namespace orva::host
