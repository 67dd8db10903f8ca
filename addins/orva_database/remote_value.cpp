#include "orva_database/remote_value.h"

#include <limits>

#include "share/ticks.h"

namespace orva::archive {
namespace {

// Larger counts of milliseconds are written for no time.
constexpr std::uint64_t kMostMilliseconds =
    std::numeric_limits<std::uint64_t>::max() / kTicksPerMillisecond - kUnixEpochMilliseconds;

void setJsonText(const json::Value& written, OpcUa_VariantHlp& out) {
  rapidjson::StringBuffer text;
  rapidjson::Writer<rapidjson::StringBuffer> writer(text);
  written.Accept(writer);
  out.SetJson(std::string(text.GetString(), text.GetSize()));
}

// The value in the form that the text has.
bool readPlain(const json::Value& written, OpcUa_VariantHlp& out) {
  if (written.IsNull()) {
    out.SetNull();
  } else if (written.IsBool()) {
    out.SetBool(written.GetBool());
  } else if (written.IsInt64()) {
    out.SetInt64(written.GetInt64());
  } else if (written.IsUint64()) {
    out.SetUInt64(written.GetUint64());
  } else if (written.IsDouble()) {
    out.SetDouble(written.GetDouble());
  } else if (written.IsString()) {
    out.SetString(written.GetString(), written.GetStringLength());
  } else {
    return false;
  }
  return true;
}

}  // namespace

bool readRemoteTime(const json::Value& written, std::int64_t& out) {
  if (!written.IsUint64() || written.GetUint64() > kMostMilliseconds) return false;
  const std::uint64_t milliseconds = written.GetUint64();
  // A time of 0 is written as 0.
  const std::uint64_t ticks =
      milliseconds == 0 ? 0 : (milliseconds + kUnixEpochMilliseconds) * kTicksPerMillisecond;
  out = static_cast<std::int64_t>(ticks);
  return true;
}

bool readRemoteValue(const json::Value& written, OpcUa_Byte type, OpcUa_VariantHlp& out) {
  // Null is written for a null, a NaN and an infinity alike; it stays null.
  if (type == OpcUaType_Json && !written.IsNull()) {
    setJsonText(written, out);
    return true;
  }
  std::int64_t time = 0;
  if (type == OpcUaType_DateTime && readRemoteTime(written, time)) {
    out.SetDateTime(time);
    return true;
  }
  if (!readPlain(written, out)) return false;
  if (type != OpcUaType_Null) static_cast<void>(out.ChangeType(type));
  return true;
}

}  // namespace orva::archive
