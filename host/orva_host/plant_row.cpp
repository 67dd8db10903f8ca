#include "orva_host/plant_row.h"

#include <charconv>
#include <limits>
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

bool parseTime(const std::string& text, std::int64_t& ticks) {
  std::int64_t since1970Ms = 0;
  if (!parseNumber(text, since1970Ms)) return false;
  constexpr std::int64_t kLimit =
      std::numeric_limits<std::int64_t>::max() / kTicksPerMillisecond - kUnixEpochMilliseconds;
  if (since1970Ms > kLimit || since1970Ms < -kUnixEpochMilliseconds) return false;
  ticks = (since1970Ms + kUnixEpochMilliseconds) * kTicksPerMillisecond;
  return true;
}

template <class Number, class Parse, class Set>
bool setParsed(const std::string& text, Parse parse, Set set) {
  Number number{};
  if (!parse(text, number)) return false;
  set(number);
  return true;
}

const char* parseValue(const std::string& type, const std::string& text, OpcUa_VariantHlp& out) {
  bool good = false;
  if (type == "double") {
    good = setParsed<double>(text, parseReal<double>, [&out](double v) { out.SetDouble(v); });
  } else if (type == "float") {
    good = setParsed<float>(text, parseReal<float>, [&out](float v) { out.SetFloat(v); });
  } else if (type == "int64") {
    good = setParsed<std::int64_t>(text, parseNumber<std::int64_t>,
                                   [&out](std::int64_t v) { out.SetInt64(v); });
  } else if (type == "uint32") {
    good = setParsed<std::uint32_t>(text, parseNumber<std::uint32_t>,
                                    [&out](std::uint32_t v) { out.SetUInt(v); });
  } else if (type == "bool") {
    good = text == "true" || text == "false";
    out.SetBool(text == "true");
  } else if (type == "string") {
    good = true;
    out.SetString(text);
  } else {
    return "the type is none of double, float, int64, uint32, bool, string";
  }
  return good ? nullptr : "the value is none of its type";
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

}  // namespace orva::host
