#include "support/history_client.h"

#include <ostream>

#include "share/json.h"

namespace orva::test {

namespace {

std::string jsonText(const json::Value& value) {
  rapidjson::StringBuffer text;
  rapidjson::Writer<rapidjson::StringBuffer> writer(text);
  value.Accept(writer);
  return {text.GetString(), text.GetSize()};
}

std::string quoted(const std::string& text) {
  return jsonText(json::Value(rapidjson::StringRef(text.data(), text.size())));
}

Sample sampleOf(const json::Value& triple) {
  Sample sample;
  if (!triple.IsArray() || triple.Size() != 3) {
    sample.value = "not a sample: " + jsonText(triple);
    return sample;
  }
  json::readInt64(triple[0], sample.timeMs);
  sample.value = jsonText(triple[1]);
  if (triple[2].IsUint()) sample.quality = triple[2].GetUint();
  return sample;
}

ItemReply itemOf(const json::Value& object) {
  ItemReply item;
  std::int64_t number = 0;
  json::readInt64(json::member(object, "archiveItemId"), item.archiveItemId);
  if (json::readInt64(json::member(object, "statusCode"), number)) {
    item.statusCode = static_cast<std::uint32_t>(number);
  }
  item.areMoreValues = json::member(object, "areMoreValues").IsTrue();
  if (json::readInt64(json::member(object, "continuationPoint"), number)) {
    item.continuationPoint = number;
  }
  const json::Value& values = json::member(object, "values");
  if (values.IsArray()) {
    for (const json::Value& triple : values.GetArray()) item.values.push_back(sampleOf(triple));
  }
  return item;
}

}  // namespace

std::ostream& operator<<(std::ostream& out, const Sample& sample) {
  return out << "[" << sample.timeMs << ", " << sample.value << ", " << sample.quality << "]";
}

const ItemReply& HistoryReply::item() const {
  static const ItemReply none;
  return items.size() == 1 ? items.front() : none;
}

HistoryReply parseHistoryReply(const std::string& text) {
  HistoryReply reply;
  reply.text = text;
  json::Document document;
  document.Parse<rapidjson::kParseFullPrecisionFlag>(text.data(), text.size());
  if (document.HasParseError() || !document.IsObject()) return reply;
  json::readInt64(json::member(document, "code"), reply.code);
  for (const char* name : {"data", "items"}) {
    const json::Value& list = json::member(document, name);
    if (!list.IsArray()) continue;
    for (const json::Value& element : list.GetArray()) reply.items.push_back(itemOf(element));
  }
  return reply;
}

HttpReply HistoryClient::call(const std::string& method, const std::string& body) const {
  return httpPost(port_, "/Methods/" + method, body);
}

std::int64_t HistoryClient::archiveItemId(const std::string& path) const {
  const auto reply = parseHistoryReply(
      call("GetArchiveItems", R"({"items":[{"path":)" + quoted(path) + "}]}").body);
  return reply.items.size() == 1 ? reply.item().archiveItemId : -1;
}

HistoryReply HistoryClient::readRaw(std::int64_t archiveItemId, const std::string& parameters,
                                    std::int64_t continuationPoint) const {
  const std::string body = R"({"data":[{"archiveItemId":)" + std::to_string(archiveItemId) +
                           R"(,"continuationPoint":)" + std::to_string(continuationPoint) +
                           R"(}],"parameters":{)" + parameters + "}}";
  return parseHistoryReply(call("HistoryReadRaw", body).body);
}

HistoryReply HistoryClient::readNewRecords(const std::string& path,
                                           std::int64_t continuationPoint) const {
  const std::string body = R"({"reqID":1,"items":[{"path":)" + quoted(path) +
                           R"(,"randID":7,"continuationPoint":)" +
                           std::to_string(continuationPoint) + "}]}";
  return parseHistoryReply(call("ReadNewRecords", body).body);
}

Samples HistoryClient::readAll(std::int64_t archiveItemId, const std::string& parameters) const {
  Samples all;
  std::int64_t point = 0;
  while (true) {
    const HistoryReply reply = readRaw(archiveItemId, parameters, point);
    const ItemReply& item = reply.item();
    all.insert(all.end(), item.values.begin(), item.values.end());
    if (!item.areMoreValues || !item.continuationPoint || *item.continuationPoint == point) {
      return all;
    }
    point = *item.continuationPoint;
  }
}

}  // namespace orva::test
