#include "orva_host/history_route.h"

#include <cstdio>
#include <optional>

#include "orva_host/history_points.h"
#include "orva_host/history_query.h"
#include "orva_host/history_reader.h"
#include "orva_host/time_text.h"
#include "orva_host/variables.h"
#include "share/json.h"
#include "share/ticks.h"

namespace orva::host {
namespace {

// A part of the stretch is damaged in the storage, the rest was given.
constexpr StatusCode kBadPartly = 0x809D0000;

const char* statusWord(StatusCode quality) {
  if (isBad(quality)) return "bad";
  return (quality & 0x40000000U) != 0 ? "uncertain" : "good";
}

std::string hexText(StatusCode code) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%08X", code);
  return text;
}

// The rows of the reply, in one of the two forms.
class HistoryRows {
 public:
  explicit HistoryRows(bool csv)
      : csv_(csv), text_(csv ? "time,item,value,quality,status\n" : "") {}

  void add(const std::string& path, const std::vector<HistoryPoint>& points) {
    const std::string item = csv_ ? csvField(path) : jsonString(path);
    for (const HistoryPoint& point : points) csv_ ? addLine(item, point) : addObject(item, point);
  }

  HttpReply reply() const {
    HttpReply reply;
    reply.contentType = csv_ ? "text/csv; charset=utf-8" : "application/json";
    reply.body = csv_ ? text_ : "[" + text_ + "]";
    return reply;
  }

 private:
  static std::string jsonString(const std::string& text) {
    rapidjson::StringBuffer buffer;
    rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
    writer.String(text);
    return buffer.GetString();
  }
  static std::string csvField(const std::string& text) {
    if (text.find_first_of(",\"\r\n") == std::string::npos) return text;
    std::string quoted = "\"";
    for (const char c : text) quoted += c == '"' ? "\"\"" : std::string(1, c);
    return quoted + "\"";
  }
  // Text without its JSON quotes, nothing for null.
  static std::string csvValue(const HistoryPoint& point) {
    if (point.value == "null") return {};
    if (point.value.empty() || point.value[0] != '"') return csvField(point.value);
    json::Document text;
    text.Parse(point.value.c_str(), point.value.size());
    return csvField(std::string(text.GetString(), text.GetStringLength()));
  }

  void addLine(const std::string& item, const HistoryPoint& point) {
    const std::int64_t ticks = point.timeMs * kTicksPerMillisecond + kUnixEpochTicks;
    text_ += utcText(ticks) + "," + item + "," + csvValue(point) + "," +
             std::to_string(point.quality) + "," + statusWord(point.quality) + "\n";
  }
  void addObject(const std::string& item, const HistoryPoint& point) {
    text_ += text_.empty() ? "" : ",\n";
    text_ += "{\"time\":" + std::to_string(point.timeMs) + ",\"item\":" + item +
             ",\"value\":" + point.value + ",\"quality\":" + std::to_string(point.quality) +
             ",\"status\":\"" + statusWord(point.quality) + "\"}";
  }

  const bool csv_;
  std::string text_;
};

// The layers of each variable, by its path.
std::map<std::string, boost::shared_ptr<const vm::ArchivedLayers>> layersByPath() {
  std::map<std::string, boost::shared_ptr<const vm::ArchivedLayers>> layers;
  for (const Variable& variable : allVariables()) {
    layers.emplace(variable.item->path, variable.layers);
  }
  return layers;
}

// Reads one item; empty, or why the whole reply fails. `partly` becomes true when a part is lost.
std::optional<HttpReply> readItem(const std::string& path, const HistoryQuery& query,
                                  const HistoryRead& read, HistoryRows& rows, bool& partly) {
  HistoryPoints points(query.fromMs, query.toMs, static_cast<std::size_t>(query.points));
  const StatusCode code =
      readHistory(read, [&points](HistoryPoint point) { points.add(std::move(point)); });
  partly = partly || code == kBadPartly;
  if (isBad(code) && code != kBadPartly) {
    const std::string what = "the history of \"" + path + "\" could not be read: " + hexText(code);
    return httpError(code == status::kBadTimeout ? 504 : 502, what, code);
  }
  rows.add(path, points.take());
  return std::nullopt;
}

HttpReply serveHistory(const HttpRequest& request) {
  HistoryQuery query;
  if (const std::string error = readHistoryQuery(request, unixMilliseconds(), query);
      !error.empty()) {
    return httpError(400, error);
  }
  const auto layers = layersByPath();
  const std::vector<std::int64_t> ids = archiveItemIds(query.items, request.caller);
  for (std::size_t i = 0; i < ids.size(); ++i) {
    if (ids[i] != -1 && layers.count(query.items[i]) != 0) continue;
    return httpError(404, "there is no item \"" + query.items[i] + "\"", status::kBadNotFound);
  }
  HistoryRows rows(query.csv);
  bool partly = false;
  // A stretch gives up to three samples, which stand for the two that are kept.
  const std::int64_t stepMs = (query.toMs - query.fromMs) / query.points;
  for (std::size_t i = 0; i < ids.size(); ++i) {
    const std::int64_t ticks = resampleTicksFor(stepMs, *layers.at(query.items[i]));
    const std::int64_t end = query.upToNow ? 0 : query.toMs;
    const HistoryRead read{request.caller, ids[i], query.fromMs, end, ticks};
    if (auto failure = readItem(query.items[i], query, read, rows, partly)) return *failure;
  }
  HttpReply reply = rows.reply();
  if (partly) reply.headers.emplace_back("X-Orva-Status", hexText(kBadPartly));
  return reply;
}

}  // namespace

HttpRoute historyRoute() {
  HttpRoute route;
  route.method = "GET";
  route.path = "/api/history";
  route.handler = serveHistory;
  route.mayBlock = true;
  return route;
}

}  // namespace orva::host
