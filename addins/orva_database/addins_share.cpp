#include "share/addins_share.h"

#include <cassert>
#include <cmath>

#include "host/opcua_types.h"
#include "host/trace.h"
#include "orva_database/number_text.h"

namespace orva {
namespace {

constexpr int kScalarRoom = text::kDoubleRoom;
// '[', time, ',', value, ',', quality, ']', and the comma before.
constexpr int kSampleRoom = 5 + 2 * text::kIntegerRoom + kScalarRoom;

char* writeReal(char* out, double value) {
  return std::isfinite(value) ? text::writeDouble(out, value) : text::writeText(out, "null", 4);
}

char* writeTime(char* out, std::int64_t time) {
  return text::writeInteger(out, text::millisecondsOf(time));
}

// The text of a value that has no text of its own, at most kScalarRoom characters; null for every
// other value.
char* writeScalar(char* out, const OpcUa_VariantHlp& value) {
  if (value.IsArray()) return nullptr;
  const auto& raw = value.Get().Value;
  switch (value.GetType()) {
    case OpcUaType_Null:
      return text::writeText(out, "null", 4);
    case OpcUaType_Boolean:
      return raw.Boolean ? text::writeText(out, "true", 4) : text::writeText(out, "false", 5);
    case OpcUaType_SByte:
      return text::writeInteger(out, raw.SByte);
    case OpcUaType_Byte:
      return text::writeInteger(out, raw.Byte);
    case OpcUaType_Int16:
      return text::writeInteger(out, raw.Int16);
    case OpcUaType_UInt16:
      return text::writeInteger(out, raw.UInt16);
    case OpcUaType_Int32:
      return text::writeInteger(out, raw.Int32);
    case OpcUaType_UInt32:
      return text::writeUnsigned(out, raw.UInt32);
    case OpcUaType_Int64:
      return text::writeInteger(out, raw.Int64);
    case OpcUaType_UInt64:
      return text::writeUnsigned(out, raw.UInt64);
    case OpcUaType_Float:
      return writeReal(out, static_cast<double>(raw.Float));
    case OpcUaType_Double:
      return writeReal(out, raw.Double);
    case OpcUaType_DateTime:
      return writeTime(out, OpcUa_DateTime_ToInt64(&raw.DateTime));
    default:
      return nullptr;
  }
}

void writeTextValue(const OpcUa_VariantHlp& value, ReplyWriter& writer) {
  const OpcUa_String* const text = value.Get().Value.String;
  const char* const characters = OpcUa_String_GetRawString(text);
  const std::uint32_t length = characters != nullptr ? OpcUa_String_StrSize(text) : 0;
  if (value.GetType() == OpcUaType_String) {
    writer.String(length != 0 ? characters : "", length);
  } else if (length != 0) {
    writer.RawText(characters, length);
  }
}

// A value that writeScalar() has refused.
void writeOtherValue(const OpcUa_VariantHlp& value, ReplyWriter& writer) {
  const OpcUa_Byte type = value.GetType();
  if (!value.IsArray() && (type == OpcUaType_String || type == OpcUaType_Json)) {
    writeTextValue(value, writer);
  } else {
    OpcUa_Trace_Imp(kTraceError, "<-- Invalid var type %d\n", __FILE__, __LINE__,
                    static_cast<int>(type));
  }
}

void writePin(const Pin& pin, ReplyWriter& writer) {
  char sample[kSampleRoom];
  char* const first = sample + 1;
  char* end = first;
  *end++ = '[';
  end = writeTime(end, pin.time);
  *end++ = ',';
  end = writeScalar(end, pin.value);
  if (end != nullptr) {
    *end++ = ',';
    end = text::writeUnsigned(end, static_cast<std::uint32_t>(pin.quality));
    *end++ = ']';
    writer.Prepared(first, end);
    return;
  }
  writer.StartArray();
  WriteDateValue(pin.time, writer);
  writeOtherValue(pin.value, writer);
  writer.Uint(pin.quality);
  writer.EndArray();
}

}  // namespace

void WritePinValue(const PinPtr& pin, ReplyWriter& writer) {
  assert(pin);
  writePin(*pin, writer);
}

void WritePinValues(const PinList& pins, ReplyWriter& writer) {
  // The samples lie all over the memory: each is fetched while the ones before are written.
  constexpr int kAhead = 4;
  auto ahead = pins.begin();
  for (int i = 0; i < kAhead && ahead != pins.end(); ++i) ++ahead;
  for (const PinPtr& pin : pins) {
    if (ahead != pins.end()) {
      __builtin_prefetch(ahead->get());
      ++ahead;
    }
    WritePinValue(pin, writer);
  }
}

int WriteVarValue(const OpcUa_VariantHlp& value, ReplyWriter& writer) {
  char scalar[1 + kScalarRoom];
  if (char* const end = writeScalar(scalar + 1, value)) {
    writer.Prepared(scalar + 1, end);
  } else {
    writeOtherValue(value, writer);
  }
  return 0;
}

int WriteDateValue(const long long& time, ReplyWriter& writer) {
  writer.Int64(text::millisecondsOf(time));
  return 0;
}

long long GetSafeInt64Value(const json::Value& object, const std::string& name,
                            long long fallback) {
  std::int64_t value = fallback;
  json::readInt64(json::member(object, name.c_str()), value);
  return value;
}

}  // namespace orva
