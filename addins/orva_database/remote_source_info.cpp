#include "orva_database/remote_source_info.h"

#include "host/trace.h"
#include "orva_database/remote_value.h"
#include "share/status_codes.h"

namespace orva::archive {
namespace {

std::string textOf(const json::Value& item, const char* name) {
  const json::Value& text = json::member(item, name);
  return text.IsString() ? std::string(text.GetString(), text.GetStringLength()) : std::string();
}

bool refuseSample() {
  OpcUa_Trace_Imp(kTraceError, "<--ReturnError: %s (0x%08X)\n", __FILE__, __LINE__,
                  "Invalid var type", status::kBadTypeMismatch);
  return false;
}

}  // namespace

void RemoteSourceInfo::init(const json::Value& item) {
  json::readInt64(json::member(item, "localId"), localId);
  json::readInt64(json::member(item, "remoteId"), remoteId);
  localPath = textOf(item, "localPath");
  remotePath = textOf(item, "remotePath");
}

bool RemoteSourceInfo::addValue(const json::Value& sample) {
  if (!sample.IsArray() || sample.Size() != 3) return refuseSample();
  std::int64_t time = 0;
  OpcUa_VariantHlp value;
  if (!readRemoteTime(sample[0], time) || !readRemoteValue(sample[1], localType, value) ||
      !sample[2].IsUint()) {
    return refuseSample();
  }
  values.push_back(makePin(time, std::move(value), sample[2].GetUint()));
  return true;
}

}  // namespace orva::archive
