#include "orva_host/history_reader.h"

#include <algorithm>

#include "orva_host/requests.h"
#include "share/json.h"
#include "share/ticks.h"

namespace orva::host {
namespace {

constexpr std::int64_t kRawUpTo = 1'000'000;  // ticks; smaller steps are not thinned
constexpr unsigned kPage = 10'000;

using JsonWriter = rapidjson::Writer<rapidjson::StringBuffer>;

// The document of a method's reply; its "code" is bad when there was none.
StatusCode call(const char* method, const std::string& caller, const std::string& body,
                json::Document& out) {
  std::string reply;
  const StatusCode code =
      dispatchToStream(frameRequest(std::string("/Methods/") + method, caller, body), reply);
  if (isBad(code) && reply.empty()) return code;
  out.Parse<rapidjson::kParseIterativeFlag>(reply.c_str(), reply.size());
  if (out.HasParseError() || !out.IsObject()) return status::kBadDecodingError;
  const json::Value& said = json::member(out, "code");
  return said.IsUint() ? said.GetUint() : status::kBadDecodingError;
}

std::string pageRequest(const HistoryRead& read, std::int64_t continuationPoint) {
  rapidjson::StringBuffer text;
  JsonWriter writer(text);
  writer.StartObject();
  writer.Key("data");
  writer.StartArray();
  writer.StartObject();
  writer.Key("archiveItemId");
  writer.Int64(read.archiveItemId);
  writer.Key("continuationPoint");
  writer.Int64(continuationPoint);
  writer.EndObject();
  writer.EndArray();
  writer.Key("parameters");
  writer.StartObject();
  writer.Key("startTime");
  writer.Int64(read.fromMs);
  writer.Key("endTime");
  writer.Int64(read.toMs);
  writer.Key("numValuesPerNode");
  writer.Uint(kPage);
  writer.Key("resampleInterval");  // a number with a fraction, or it does not count
  writer.Double(static_cast<double>(read.resampleTicks));
  writer.EndObject();
  writer.EndObject();
  return {text.GetString(), text.GetSize()};
}

std::string jsonText(const json::Value& value) {
  rapidjson::StringBuffer text;
  JsonWriter writer(text);
  value.Accept(writer);
  return {text.GetString(), text.GetSize()};
}

bool readPoint(const json::Value& sample, HistoryPoint& out) {
  if (!sample.IsArray() || sample.Size() != 3 || !sample[0].IsInt64() || !sample[2].IsUint()) {
    return false;
  }
  out.timeMs = sample[0].GetInt64();
  out.value = jsonText(sample[1]);
  if (sample[1].IsNumber()) out.number = sample[1].GetDouble();
  if (sample[1].IsBool()) out.number = sample[1].GetBool() ? 1 : 0;
  out.quality = sample[2].GetUint();
  return true;
}

// The item's own code.
StatusCode takeSamples(const json::Value& item, const std::function<void(HistoryPoint)>& take) {
  const json::Value& values = json::member(item, "values");
  if (!values.IsArray()) return status::kBadDecodingError;
  for (const json::Value& sample : values.GetArray()) {
    HistoryPoint point;
    if (readPoint(sample, point)) take(std::move(point));
  }
  const json::Value& code = json::member(item, "statusCode");
  return code.IsInt() ? static_cast<StatusCode>(code.GetInt()) : status::kGood;
}

}  // namespace

std::int64_t resampleTicksFor(std::int64_t stepMs, const vm::ArchivedLayers& layers) {
  std::int64_t ticks = stepMs * kTicksPerMillisecond;
  if (ticks >= kTicksPerHour && layers.count(2) == 0) ticks = kTicksPerHour - 1;
  if (ticks >= kTicksPerMinute && ticks < kTicksPerHour && layers.count(1) == 0) {
    ticks = kTicksPerMinute - 1;
  }
  return ticks > kRawUpTo ? ticks : 0;
}

std::vector<std::int64_t> archiveItemIds(const std::vector<std::string>& paths,
                                         const std::string& caller) {
  rapidjson::StringBuffer text;
  JsonWriter writer(text);
  writer.StartObject();
  writer.Key("items");
  writer.StartArray();
  for (const std::string& path : paths) {
    writer.StartObject();
    writer.Key("path");
    writer.String(path);
    writer.EndObject();
  }
  writer.EndArray();
  writer.EndObject();

  std::vector<std::int64_t> ids(paths.size(), -1);
  json::Document reply;
  static_cast<void>(call("GetArchiveItems", caller, text.GetString(), reply));
  const json::Value& items = reply.IsObject() ? json::member(reply, "items") : json::nullValue();
  if (!items.IsArray()) return ids;
  for (rapidjson::SizeType i = 0; i < items.Size() && i < ids.size(); ++i) {
    json::readInt64(json::member(items[i], "archiveItemId"), ids[i]);
  }
  return ids;
}

StatusCode readHistory(const HistoryRead& read, const std::function<void(HistoryPoint)>& take) {
  std::int64_t continuationPoint = 0;
  for (;;) {
    json::Document reply;
    const StatusCode code =
        call("HistoryReadRaw", read.caller, pageRequest(read, continuationPoint), reply);
    if (isBad(code)) return code;
    const json::Value& data = json::member(reply, "data");
    if (!data.IsArray() || data.Size() != 1) return status::kBadDecodingError;
    const StatusCode itemCode = takeSamples(data[0], take);
    if (isBad(itemCode)) return itemCode;
    std::int64_t next = 0;
    const json::Value& more = json::member(data[0], "areMoreValues");
    if (!more.IsTrue()) return status::kGood;
    // A point that does not move on would be asked for ever.
    if (!json::readInt64(json::member(data[0], "continuationPoint"), next) ||
        next <= continuationPoint) {
      return status::kGood;
    }
    continuationPoint = next;
  }
}

}  // namespace orva::host
