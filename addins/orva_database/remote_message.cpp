#include "orva_database/remote_message.h"

#include "share/addins_share.h"

namespace orva::archive {
namespace {

constexpr const char* kCaller = "RemoteArchiveSource";

RemoteAnswer::Kind refuseAnswer(const char* condition) {
  OpcUa_Trace_Imp(kTraceError, "<-- ReturnError: %s evaluated to true! Returning 0x%08X\n",
                  __FILE__, __LINE__, condition, status::kBadRequest);
  return RemoteAnswer::Kind::refused;
}

}  // namespace

std::string remoteRequest(const std::string& methodPath, std::int64_t reqId,
                          const std::vector<RemoteQuestion>& questions) {
  rapidjson::StringBuffer body;
  rapidjson::Writer<rapidjson::StringBuffer> writer(body);
  writer.StartObject();
  writer.Key("reqID");
  writer.Int64(reqId);
  writer.Key("items");
  writer.StartArray();
  for (const RemoteQuestion& question : questions) {
    writer.StartObject();
    writer.Key("path");
    writer.String(question.path);
    writer.Key("randID");
    writer.Int64(question.randId);
    writer.Key("continuationPoint");
    writer.Int64(question.continuationPoint);
    writer.EndObject();
  }
  writer.EndArray();
  writer.EndObject();
  return methodPath + '\n' + kCaller + '\n' + std::string(body.GetString(), body.GetSize());
}

RemoteAnswer::Kind RemoteAnswer::read(const std::vector<RemoteQuestion>& questions) {
  // Full precision: the shortest text of a number must give that very number again.
  constexpr unsigned kFlags = rapidjson::kParseIterativeFlag | rapidjson::kParseFullPrecisionFlag;
  if (json::nestsTooDeep(text_.data(), text_.size()) ||
      document_.ParseInsitu<kFlags>(text_.data()).HasParseError()) {
    logMsg("Error parsing response for GetRemouteArchiveData");
    return Kind::unparsable;
  }
  if (!document_.IsObject()) return refuseAnswer("!items.IsArray()");
  const json::Value& code = json::member(document_, "code");
  if (code.IsUint() && code.GetUint() == status::kBadEncodingLimits) return Kind::tooLong;
  if (!json::member(document_, "items").IsArray()) return refuseAnswer("!items.IsArray()");
  if (code.IsUint() && isBad(code.GetUint())) return refuseAnswer("isBad(code)");
  return answers(questions) ? Kind::good : refuseAnswer("randID != asked");
}

bool RemoteAnswer::answers(const std::vector<RemoteQuestion>& questions) const {
  const json::Value& items = json::member(document_, "items");
  if (items.Size() != questions.size()) return false;
  for (rapidjson::SizeType i = 0; i < items.Size(); ++i) {
    if (!items[i].IsObject()) return false;
    const json::Value& randId = json::member(items[i], "randID");
    if (!randId.IsInt64() || randId.GetInt64() != questions[i].randId) return false;
  }
  return true;
}

RemoteItemReply RemoteAnswer::item(std::size_t index, const RemoteQuestion& question) const {
  const json::Value& item =
      json::member(document_, "items")[static_cast<rapidjson::SizeType>(index)];
  RemoteItemReply reply;
  reply.status = static_cast<StatusCode>(GetSafeInt64Value(item, "statusCode", 0));
  const json::Value& values = json::member(item, "values");
  if (values.IsArray()) reply.values = &values;
  const json::Value& more = json::member(item, "areMoreValues");
  reply.areMoreValues = more.IsBool() && more.GetBool();
  reply.continuationPoint =
      GetSafeInt64Value(item, "continuationPoint", question.continuationPoint);
  return reply;
}

}  // namespace orva::archive
