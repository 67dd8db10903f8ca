#include "orva_host/history_query.h"

#include <algorithm>
#include <set>

#include "orva_host/history_points.h"
#include "orva_host/number_text.h"
#include "orva_host/query_text.h"
#include "orva_host/time_text.h"
#include "share/ticks.h"

namespace orva::host {
namespace {

constexpr std::int64_t kHourMs = 3'600'000;
constexpr std::int64_t kLatestMs = 253'402'300'799'999;  // 9999-12-31
constexpr std::size_t kMostItems = 100;

// Milliseconds since 1970, or a date and time in UTC.
bool readTimeMs(const std::string& text, std::int64_t& out) {
  std::int64_t ms = 0;
  std::int64_t ticks = 0;
  if (readUtc(text, ticks)) {
    ms = ticks / kTicksPerMillisecond - kUnixEpochMilliseconds;
  } else if (!readWholeInt64(text, ms)) {
    return false;
  }
  if (ms < 1 || ms > kLatestMs) return false;
  out = ms;
  return true;
}

std::string timeError(const std::string& name, const std::string& text) {
  return "\"" + name + "\" must be milliseconds since 1970 or a time in UTC such as " +
         "2026-03-01T08:00:00Z, after 1970, not \"" + text + "\"";
}

// Takes the fields one by one; `error` is empty until one is wrong.
class QueryReader {
 public:
  explicit QueryReader(HistoryQuery& out) : out_(out) {}

  std::string take(const std::string& name, const std::string& value) {
    if (name == "item") return takeItem(value);
    if (!seen_.insert(name).second) return "\"" + name + "\" is there twice";
    if (name == "from") return readTimeMs(value, out_.fromMs) ? "" : timeError(name, value);
    if (name == "to") return readTimeMs(value, out_.toMs) ? "" : timeError(name, value);
    if (name == "points") return takePoints(value);
    if (name == "format") return takeFormat(value);
    return "\"" + name + "\" is not known; there are item, from, to, points and format";
  }

  bool has(const std::string& name) const { return seen_.count(name) != 0; }

 private:
  std::string takeItem(const std::string& path) {
    if (path.empty()) return "\"item\" is empty";
    if (std::find(out_.items.begin(), out_.items.end(), path) == out_.items.end()) {
      out_.items.push_back(path);
    }
    return out_.items.size() <= kMostItems ? "" : "there may be 100 items";
  }
  std::string takePoints(const std::string& text) {
    const bool fine = readWholeInt64(text, out_.points) &&
                      out_.points >= static_cast<std::int64_t>(HistoryPoints::kFewest) &&
                      out_.points <= kMostHistoryPoints;
    return fine ? "" : "\"points\" must be a number from 3 to 100000, not \"" + text + "\"";
  }
  std::string takeFormat(const std::string& text) {
    out_.csv = text == "csv";
    return out_.csv || text == "json" ? "" : "\"format\" must be json or csv, not \"" + text + "\"";
  }

  HistoryQuery& out_;
  std::set<std::string> seen_;
};

std::string checkWhole(const HistoryQuery& query) {
  if (query.items.empty())
    return "\"item\" is missing: the path of a variable, as /api/items lists";
  if (query.fromMs >= query.toMs) return "\"from\" must be before \"to\"";
  if (static_cast<std::int64_t>(query.items.size()) * query.points > kMostHistoryRows) {
    return "items times \"points\" may be 500000";
  }
  return {};
}

}  // namespace

std::string readHistoryQuery(const HttpRequest& request, std::int64_t nowMs, HistoryQuery& out) {
  QueryFields fields;
  if (!readQuery(request.query, fields)) {
    return "in the query a \"%\" is not followed by two hexadecimal digits";
  }
  out = {};
  QueryReader reader(out);
  for (const auto& [name, value] : fields) {
    if (std::string error = reader.take(name, value); !error.empty()) return error;
  }
  out.upToNow = !reader.has("to");
  if (out.upToNow) out.toMs = nowMs;
  if (!reader.has("from")) out.fromMs = std::max<std::int64_t>(out.toMs - kHourMs, 1);
  if (!reader.has("format")) {
    out.csv = request.header("accept").find("text/csv") != std::string::npos;
  }
  return checkWhole(out);
}

}  // namespace orva::host
