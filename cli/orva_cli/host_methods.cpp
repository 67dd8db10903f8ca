#include "orva_cli/host_methods.h"

#include <algorithm>

#include "orva_cli/failure.h"
#include "orva_cli/quality_words.h"

namespace orva::cli {
namespace {

constexpr std::int64_t kPage = 10'000;

using TextWriter = rapidjson::Writer<rapidjson::StringBuffer>;

json::Document parsed(const HostReply& reply, const HostClient& host) {
  json::Document document;
  document.Parse<rapidjson::kParseIterativeFlag>(reply.body.c_str(), reply.body.size());
  if (document.HasParseError()) {
    throw Failure("what answers at " + host.url() + " is no host of this kind: it sends no JSON");
  }
  return document;
}

// The array `name` of a reply.
const json::Value& arrayOf(const json::Value& reply, const char* name, const HostClient& host) {
  const json::Value& array = reply.IsObject() ? json::member(reply, name) : json::nullValue();
  if (array.IsArray()) return array;
  throw Failure("what answers at " + host.url() + " is no host of this kind: there is no \"" +
                name + "\" in its reply");
}

json::Document call(HostClient& host, const char* method, const rapidjson::StringBuffer& body) {
  json::Document reply = parsed(
      host.post(std::string("/Methods/") + method, {body.GetString(), body.GetSize()}), host);
  const json::Value& code = reply.IsObject() ? json::member(reply, "code") : json::nullValue();
  const StatusCode status = code.IsUint() ? code.GetUint() : status::kBadDecodingError;
  if (isBad(status) && status != status::kBadNothingResolved) {
    throw Failure("the host at " + host.url() + " fails at " + method + ": " + itemWords(status));
  }
  return reply;
}

std::string textOf(const json::Value& value) {
  return value.IsString() ? std::string(value.GetString(), value.GetStringLength()) : std::string();
}

StatusCode statusOf(const json::Value& item) {
  const json::Value& code = json::member(item, "statusCode");
  return code.IsInt() ? static_cast<StatusCode>(code.GetInt()) : status::kGood;
}

// Gives how many there were.
std::int64_t takeSamples(const json::Value& samples, const Item& item, const TakeRow& take) {
  std::int64_t count = 0;
  for (const json::Value& sample : samples.GetArray()) {
    if (!sample.IsArray() || sample.Size() != 3 || !sample[0].IsInt64() || !sample[2].IsUint()) {
      continue;
    }
    take({sample[0].GetInt64(), item.path, sample[1], sample[2].GetUint()});
    ++count;
  }
  return count;
}

void pageRequest(TextWriter& writer, std::int64_t archiveItemId, std::int64_t continuationPoint,
                 const HistoryRange& range, std::int64_t most) {
  writer.StartObject();
  writer.Key("data");
  writer.StartArray();
  writer.StartObject();
  writer.Key("archiveItemId");
  writer.Int64(archiveItemId);
  writer.Key("continuationPoint");
  writer.Int64(continuationPoint);
  writer.EndObject();
  writer.EndArray();
  writer.Key("parameters");
  writer.StartObject();
  writer.Key("startTime");
  writer.Int64(range.fromMs);
  writer.Key("endTime");
  writer.Int64(range.toMs);
  writer.Key("numValuesPerNode");
  writer.Int64(std::min(most, kPage));
  writer.EndObject();
  writer.EndObject();
}

std::string inUrl(const std::string& text) {
  const char* const digits = "0123456789ABCDEF";
  std::string out;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    const bool isPlain = (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') ||
                         (c >= 'a' && c <= 'z') || c == '/' || c == '-' || c == '_' || c == '.';
    if (isPlain) {
      out += c;
    } else {
      out += '%';
      out += digits[byte >> 4];
      out += digits[byte & 15];
    }
  }
  return out;
}

}  // namespace

ItemList listItems(HostClient& host) {
  const HostReply reply = host.get("/api/items");
  const json::Document document = parsed(reply, host);
  ItemList list;
  list.hostTimeMs = reply.timeMs;
  for (const json::Value& each : arrayOf(document, "items", host).GetArray()) {
    Item item;
    json::readInt64(json::member(each, "id"), item.id);
    item.path = textOf(json::member(each, "path"));
    item.type = textOf(json::member(each, "type"));
    const json::Value& layers = json::member(each, "layers");
    if (layers.IsObject()) {
      for (const auto& layer : layers.GetObject()) item.layers.push_back(textOf(layer.name));
    }
    list.items.push_back(std::move(item));
  }
  return list;
}

std::vector<Item> findItems(const ItemList& list, const std::vector<std::string>& names,
                            const HostClient& host) {
  std::vector<Item> found;
  for (const std::string& name : names) {
    const auto isPath = [&name](const Item& item) { return item.path == name; };
    const auto isId = [&name](const Item& item) { return std::to_string(item.id) == name; };
    auto at = std::find_if(list.items.begin(), list.items.end(), isPath);
    if (at == list.items.end()) at = std::find_if(list.items.begin(), list.items.end(), isId);
    if (at == list.items.end()) {
      throw Failure("the host at " + host.url() + " has no item \"" + name +
                    "\"; \"orva items\" lists them");
    }
    if (at->layers.empty()) {
      throw Failure("the host at " + host.url() + " does not archive \"" + at->path + "\"");
    }
    found.push_back(*at);
  }
  return found;
}

std::vector<std::int64_t> archiveItemIds(HostClient& host, const std::vector<Item>& items) {
  rapidjson::StringBuffer body;
  TextWriter writer(body);
  writer.StartObject();
  writer.Key("items");
  writer.StartArray();
  for (const Item& item : items) {
    writer.StartObject();
    writer.Key("path");
    writer.String(item.path);
    writer.EndObject();
  }
  writer.EndArray();
  writer.EndObject();
  const json::Document reply = call(host, "GetArchiveItems", body);
  const json::Value& given = arrayOf(reply, "items", host);
  std::vector<std::int64_t> ids(items.size(), -1);
  for (std::size_t i = 0; i < ids.size(); ++i) {
    const auto at = static_cast<rapidjson::SizeType>(i);
    if (at < given.Size()) json::readInt64(json::member(given[at], "archiveItemId"), ids[i]);
    if (ids[i] == -1) {
      throw Failure("the host at " + host.url() + " has no history of \"" + items[i].path +
                    "\"; its log may say why");
    }
  }
  return ids;
}

StatusCode readRaw(HostClient& host, const Item& item, std::int64_t archiveItemId,
                   const HistoryRange& range, std::int64_t most, const TakeRow& take) {
  StatusCode worst = status::kGood;
  std::int64_t point = 0;
  while (most > 0) {
    rapidjson::StringBuffer body;
    TextWriter writer(body);
    pageRequest(writer, archiveItemId, point, range, most);
    const json::Document reply = call(host, "HistoryReadRaw", body);
    const json::Value& data = arrayOf(reply, "data", host);
    if (data.Size() != 1) throw Failure("the host at " + host.url() + " gives no history");
    most -= takeSamples(arrayOf(data[0], "values", host), item, take);
    if (isBad(statusOf(data[0]))) worst = statusOf(data[0]);
    std::int64_t next = 0;
    if (!json::member(data[0], "areMoreValues").IsTrue()) break;
    json::readInt64(json::member(data[0], "continuationPoint"), next);
    // A point that does not move on would be asked for ever.
    if (next <= point) throw Failure("the host at " + host.url() + " repeats a page");
    point = next;
  }
  return worst;
}

StatusCode readThinned(HostClient& host, const Item& item, const HistoryRange& range,
                       std::int64_t points, const TakeRow& take) {
  const HostReply reply =
      host.get("/api/history?format=json&item=" + inUrl(item.path) +
               "&from=" + std::to_string(range.fromMs) + "&to=" + std::to_string(range.toMs) +
               "&points=" + std::to_string(points));
  const json::Document rows = parsed(reply, host);
  if (!rows.IsArray()) throw Failure("the host at " + host.url() + " gives no history");
  for (const json::Value& row : rows.GetArray()) {
    std::int64_t timeMs = 0;
    json::readInt64(json::member(row, "time"), timeMs);
    const json::Value& quality = json::member(row, "quality");
    take({timeMs, item.path, json::member(row, "value"),
          quality.IsUint() ? quality.GetUint() : status::kBadDecodingError});
  }
  return reply.itemStatus;
}

bool readNew(HostClient& host, std::vector<Followed>& followed, const TakeRow& take) {
  rapidjson::StringBuffer body;
  TextWriter writer(body);
  writer.StartObject();
  writer.Key("items");
  writer.StartArray();
  for (const Followed& each : followed) {
    writer.StartObject();
    writer.Key("path");
    writer.String(each.item.path);
    writer.Key("continuationPoint");
    writer.Int64(each.continuationPoint);
    writer.EndObject();
  }
  writer.EndArray();
  writer.EndObject();
  const json::Document reply = call(host, "ReadNewRecords", body);
  const json::Value& given = arrayOf(reply, "items", host);
  bool areMore = false;
  for (rapidjson::SizeType i = 0; i < given.Size() && i < followed.size(); ++i) {
    if (isBad(statusOf(given[i]))) {
      throw Failure("\"" + followed[i].item.path + "\" of the host at " + host.url() +
                    " cannot be followed: " + itemWords(statusOf(given[i])));
    }
    takeSamples(arrayOf(given[i], "values", host), followed[i].item, take);
    json::readInt64(json::member(given[i], "continuationPoint"), followed[i].continuationPoint);
    areMore = areMore || json::member(given[i], "areMoreValues").IsTrue();
  }
  return areMore;
}

}  // namespace orva::cli
