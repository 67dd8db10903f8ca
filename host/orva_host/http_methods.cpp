#include "orva_host/http_methods.h"

#include "orva_host/number_text.h"
#include "orva_host/requests.h"
#include "orva_host/type_names.h"
#include "orva_host/variables.h"
#include "share/json.h"

namespace orva::host {
namespace {

constexpr std::int64_t kMaxBuffer = 16 << 20;
const char kBufferHeader[] = "x-orva-buffer";

StatusCode callIntoBuffer(const std::string& framed, std::int64_t capacity, std::string& reply) {
  reply.assign(static_cast<std::size_t>(capacity), '\0');
  int length = 0;
  const StatusCode code =
      dispatchToBuffer(framed, reply.data(), static_cast<int>(capacity), length);
  reply.resize(static_cast<std::size_t>(length));
  return code;
}

HttpReply callMethod(const HttpRequest& request) {
  const std::string framed = frameRequest(request.path, request.caller, request.body);
  HttpReply reply;
  StatusCode code = status::kGood;
  if (request.headers.count(kBufferHeader) == 0) {
    code = dispatchToStream(framed, reply.body);
  } else {
    std::int64_t capacity = -1;
    if (!readWholeInt64(request.header(kBufferHeader), capacity) || capacity < 0 ||
        capacity > kMaxBuffer) {
      return httpError(400, "X-Orva-Buffer must be a number from 0 to 16777216");
    }
    code = callIntoBuffer(framed, capacity, reply.body);
  }
  if (!reply.body.empty()) return reply;
  if (code == status::kBadNotSupported) return httpError(404, "there is no such method", code);
  return httpError(isBad(code) ? 400 : 200, "the method wrote no reply", code);
}

using JsonWriter = rapidjson::Writer<rapidjson::StringBuffer>;

void writeLayers(const vm::ArchivedLayers& layers, JsonWriter& writer) {
  writer.StartObject();
  for (const auto& [number, archived] : layers) {
    writer.Key(std::to_string(number).c_str());
    writer.StartObject();
    writer.Key("archive");
    writer.Int(archived.first);
    writer.Key("parameter");
    writer.Int64(archived.second);
    writer.EndObject();
  }
  writer.EndObject();
}

HttpReply listItems(const HttpRequest&) {
  rapidjson::StringBuffer text;
  JsonWriter writer(text);
  writer.StartObject();
  writer.Key("items");
  writer.StartArray();
  for (const Variable& variable : allVariables()) {
    writer.StartObject();
    writer.Key("id");
    writer.Int64(variable.item->id);
    writer.Key("path");
    writer.String(variable.item->path);
    writer.Key("type");
    writer.String(typeName(variable.item->type));
    writer.Key("layers");
    writeLayers(*variable.layers, writer);
    writer.EndObject();
  }
  writer.EndArray();
  writer.EndObject();
  HttpReply reply;
  reply.body = std::string(text.GetString(), text.GetSize());
  return reply;
}

}  // namespace

HttpRoute methodsRoute() {
  HttpRoute route;
  route.method = "POST";
  route.path = "/Methods/";
  route.handler = callMethod;
  route.mayBlock = true;
  return route;
}

HttpRoute itemsRoute() {
  HttpRoute route;
  route.method = "GET";
  route.path = "/api/items";
  route.handler = listItems;
  return route;
}

}  // namespace orva::host
