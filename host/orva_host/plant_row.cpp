#include "orva_host/plant_row.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <limits>
#include <string_view>
#include <system_error>

#include "share/ticks.h"

namespace orva::host {

const char* const kPlantHeader = "time_ms,item_id,path,type,value,quality";

namespace {

enum Column : std::size_t { kTime, kId, kPath, kType, kValue, kQuality, kColumns };

template <class Number>
bool parseNumber(const std::string& text, Number& out) {
  const char* end = text.data() + text.size();
  const auto [stopped, error] = std::from_chars(text.data(), end, out);
  return error == std::errc() && stopped == end;
}

template <class Real>
bool parseReal(const std::string& text, Real& out) {
  using Limits = std::numeric_limits<Real>;
  if (text == "NaN") {
    out = Limits::quiet_NaN();
  } else if (text == "Inf") {
    out = Limits::infinity();
  } else if (text == "-Inf") {
    out = -Limits::infinity();
  } else {
    // Other spellings of these are no numbers.
    return text.find_first_of("nN") == std::string::npos && parseNumber(text, out);
  }
  return true;
}

constexpr int kTickDigits = 4;  // of a millisecond

// ".5": ticks. An empty text is none.
bool parseTickDigits(const char* text, const char* end, std::int64_t& ticks) {
  ticks = 0;
  if (text == end) return true;
  if (*text++ != '.' || text == end || end - text > kTickDigits) return false;
  for (int digit = 0; digit < kTickDigits; ++digit) {
    if (text != end && (*text < '0' || *text > '9')) return false;
    ticks = ticks * 10 + (text != end ? *text++ - '0' : 0);
  }
  return true;
}

bool parseTime(const std::string& text, std::int64_t& ticks) {
  const char* const end = text.data() + text.size();
  std::int64_t since1970Ms = 0;
  std::int64_t rest = 0;
  const auto [stopped, error] = std::from_chars(text.data(), end, since1970Ms);
  if (error != std::errc() || !parseTickDigits(stopped, end, rest)) return false;
  constexpr std::int64_t kLimit =
      std::numeric_limits<std::int64_t>::max() / kTicksPerMillisecond - kUnixEpochMilliseconds;
  if (since1970Ms >= kLimit || since1970Ms < -kUnixEpochMilliseconds) return false;
  ticks = (since1970Ms + kUnixEpochMilliseconds) * kTicksPerMillisecond;
  ticks += text[0] == '-' ? -rest : rest;
  return ticks >= 0;
}

template <class Number, class Parse, class Set>
bool setParsed(const std::string& text, Parse parse, Set set) {
  Number number{};
  if (!parse(text, number)) return false;
  set(number);
  return true;
}

using ParseValue = bool (*)(const std::string&, OpcUa_VariantHlp&);

template <class Integer, void (OpcUa_VariantHlp::*kSet)(Integer)>
bool parseInteger(const std::string& text, OpcUa_VariantHlp& out) {
  return setParsed<Integer>(text, parseNumber<Integer>, [&out](Integer v) { (out.*kSet)(v); });
}

bool parseBool(const std::string& text, OpcUa_VariantHlp& out) {
  out.SetBool(text == "true");
  return text == "true" || text == "false";
}

bool parseDouble(const std::string& text, OpcUa_VariantHlp& out) {
  return setParsed<double>(text, parseReal<double>, [&out](double v) { out.SetDouble(v); });
}

bool parseFloat(const std::string& text, OpcUa_VariantHlp& out) {
  return setParsed<float>(text, parseReal<float>, [&out](float v) { out.SetFloat(v); });
}

bool takeText(const std::string& text, OpcUa_VariantHlp& out) {
  out.SetString(text);
  return true;
}

bool takeJson(const std::string& text, OpcUa_VariantHlp& out) {
  out.SetJson(text);
  return true;
}

bool parseNull(const std::string& text, OpcUa_VariantHlp& out) {
  out.SetNull();
  return text.empty();
}

struct RowType {
  const char* name;
  OpcUa_Byte type;
  ParseValue parse;
};

using Variant = OpcUa_VariantHlp;

// The usual ones first.
constexpr RowType kTypes[] = {
    {"double", OpcUaType_Double, parseDouble},
    {"float", OpcUaType_Float, parseFloat},
    {"bool", OpcUaType_Boolean, parseBool},
    {"string", OpcUaType_String, takeText},
    {"int64", OpcUaType_Int64, parseInteger<std::int64_t, &Variant::SetInt64>},
    {"uint32", OpcUaType_UInt32, parseInteger<std::uint32_t, &Variant::SetUInt>},
    {"int32", OpcUaType_Int32, parseInteger<std::int32_t, &Variant::SetInt>},
    {"uint64", OpcUaType_UInt64, parseInteger<std::uint64_t, &Variant::SetUInt64>},
    {"int16", OpcUaType_Int16, parseInteger<std::int16_t, &Variant::SetInt16>},
    {"uint16", OpcUaType_UInt16, parseInteger<std::uint16_t, &Variant::SetUInt16>},
    {"int8", OpcUaType_SByte, parseInteger<std::int8_t, &Variant::SetSByte>},
    {"uint8", OpcUaType_Byte, parseInteger<std::uint8_t, &Variant::SetByte>},
    {"datetime", OpcUaType_DateTime, parseInteger<std::int64_t, &Variant::SetDateTime>},
    {"json", OpcUaType_Json, takeJson},
    {"null", OpcUaType_Null, parseNull},
};

const char* parseValue(const std::string& type, const std::string& text, OpcUa_VariantHlp& out) {
  for (const RowType& known : kTypes) {
    if (type == known.name)
      return known.parse(text, out) ? nullptr : "the value is none of its type";
  }
  return "the type is none of double, float, int64, uint32, bool, string, int8, uint8, int16, "
         "uint16, int32, uint64, datetime, json, null";
}

// ---- the other way round

template <class Number>
void appendNumber(Number number, std::string& out) {
  char text[64];
  out.append(text, std::to_chars(text, text + sizeof text, number).ptr);
}

template <class Real>
void appendReal(Real number, std::string& out) {
  if (std::isnan(number)) {
    out += "NaN";
  } else if (std::isinf(number)) {
    out += number < 0 ? "-Inf" : "Inf";
  } else {
    appendNumber(number, out);
  }
}

bool isBlank(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

void appendText(std::string_view text, std::string& out) {
  const bool plain = !text.empty() && !isBlank(text.front()) && !isBlank(text.back()) &&
                     text.find_first_of(",\"\n\r") == std::string_view::npos;
  if (plain) {
    out += text;
    return;
  }
  out += '"';
  for (const char c : text) {
    if (c == '"') out += '"';
    out += c;
  }
  out += '"';
}

void appendTime(std::int64_t ticks, std::string& out) {
  // Times that far before 1601 have no use; they must only not wrap around.
  constexpr std::int64_t kLowest = std::numeric_limits<std::int64_t>::min() + kUnixEpochTicks + 1;
  std::int64_t since1970 = std::max(ticks, kLowest) - kUnixEpochTicks;
  if (since1970 < 0) {
    out += '-';
    since1970 = -since1970;
  }
  appendNumber(since1970 / kTicksPerMillisecond, out);
  auto rest = static_cast<int>(since1970 % kTicksPerMillisecond);
  if (rest == 0) return;
  out += '.';
  for (int unit = 1000; rest != 0; rest %= unit, unit /= 10) {
    out += static_cast<char>('0' + rest / unit);
  }
}

void appendValue(const OpcUa_Variant& variant, std::string& out) {
  const auto& v = variant.Value;
  switch (variant.Datatype) {
    case OpcUaType_Double:
      return appendReal(v.Double, out);
    case OpcUaType_Float:
      return appendReal(v.Float, out);
    case OpcUaType_Boolean:
      out += v.Boolean ? "true" : "false";
      return;
    case OpcUaType_String:
    case OpcUaType_Json: {
      const char* const text = OpcUa_String_GetRawString(v.String);
      return appendText(text == nullptr ? std::string_view()
                                        : std::string_view(text, OpcUa_String_StrSize(v.String)),
                        out);
    }
    case OpcUaType_Int64:
      return appendNumber(v.Int64, out);
    case OpcUaType_UInt64:
      return appendNumber(v.UInt64, out);
    case OpcUaType_Int32:
      return appendNumber(v.Int32, out);
    case OpcUaType_UInt32:
      return appendNumber(v.UInt32, out);
    case OpcUaType_Int16:
      return appendNumber(v.Int16, out);
    case OpcUaType_UInt16:
      return appendNumber(v.UInt16, out);
    case OpcUaType_SByte:
      return appendNumber(static_cast<int>(v.SByte), out);
    case OpcUaType_Byte:
      return appendNumber(static_cast<int>(v.Byte), out);
    case OpcUaType_DateTime:
      return appendNumber(OpcUa_DateTime_ToInt64(&v.DateTime), out);
    default:
      return;  // null
  }
}

const char* rowTypeName(OpcUa_Byte type) {
  for (const RowType& known : kTypes) {
    if (type == known.type) return known.name;
  }
  return "null";
}

}  // namespace

bool isPlantHeader(const std::vector<CsvReader::Field>& record) {
  std::string joined;
  for (const CsvReader::Field& field : record) joined += (joined.empty() ? "" : ",") + field.text;
  return joined == kPlantHeader;
}

const char* parsePlantRow(const std::vector<CsvReader::Field>& record, PlantRow& out) {
  if (record.size() != kColumns) return "a row has six columns";
  if (!parseTime(record[kTime].text, out.ticks)) return "time_ms is no time in milliseconds";
  if (!parseNumber(record[kId].text, out.id)) return "item_id is no integer";
  if (!parseNumber(record[kQuality].text, out.quality)) return "quality is no status code";
  out.path = record[kPath].text;
  return parseValue(record[kType].text, record[kValue].text, out.value);
}

std::string plantRowItem(std::int64_t id, const std::string& path) {
  std::string columns = std::to_string(id) + ',';
  appendText(path, columns);
  return columns;
}

void appendPlantRow(const std::string& item, std::int64_t ticks, const OpcUa_VariantHlp& value,
                    OpcUa_StatusCode quality, std::string& out) {
  appendTime(ticks, out);
  out += ',';
  out += item;
  out += ',';
  out += rowTypeName(value.GetType());
  out += ',';
  appendValue(value.Get(), out);
  out += ',';
  appendNumber(quality, out);
  out += '\n';
}

}  // namespace orva::host
