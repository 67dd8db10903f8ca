#include <algorithm>
#include <set>
#include <string>
#include <vector>

#include "fuzz/fuzz_input.h"
#include "fuzz/fuzz_targets.h"
#include "orva_host/csv_reader.h"
#include "orva_host/history_query.h"
#include "orva_host/history_route.h"
#include "orva_host/requests.h"
#include "share/json.h"
#include "share/ticks.h"
#include "support/history_service.h"
#include "support/manual_clock.h"
#include "support/temp_folder.h"

// The bytes are the query of a URL, up to a line's end, and after it the header "Accept". It is
// asked for at a host with two variables, each of which has 400 samples.

namespace orva::fuzz {
namespace {

using host::HistoryQuery;

constexpr int kSamples = 400;
constexpr std::int64_t kNow = test::kT0 + kSamples / 2 * kTicksPerSecond;
constexpr std::int64_t kNowMs = kNow / kTicksPerMillisecond - kUnixEpochMilliseconds;

void demandSound(const HistoryQuery& query) {
  const std::set<std::string> different(query.items.begin(), query.items.end());
  demand(!query.items.empty() && query.items.size() <= 100, "there are items, not too many");
  demand(different.size() == query.items.size() && different.count("") == 0, "each item once");
  demand(query.fromMs > 0 && query.fromMs < query.toMs, "the range is one");
  demand(query.points >= 3 && query.points <= host::kMostHistoryPoints, "points stay in bounds");
  demand(query.points * static_cast<std::int64_t>(query.items.size()) <= host::kMostHistoryRows,
         "rows stay in bounds");
}

std::size_t rowsOfJson(const std::string& body, const HistoryQuery& query) {
  json::Document rows;
  rows.Parse(body.c_str(), body.size());
  demand(!rows.HasParseError() && rows.IsArray(), "the rows are a JSON array");
  std::string item;
  std::int64_t time = 0;
  for (const json::Value& row : rows.GetArray()) {
    const json::Value& at = json::member(row, "time");
    demand(at.IsInt64() && at.GetInt64() >= query.fromMs, "a row is in the range");
    demand(query.upToNow || at.GetInt64() <= query.toMs, "a row is in the range");
    const std::string of = json::member(row, "item").GetString();
    demand(of != item || at.GetInt64() >= time, "rows of an item are in order of time");
    item = of;
    time = at.GetInt64();
  }
  return rows.Size();
}

std::size_t rowsOfCsv(const std::string& body) {
  static const test::TempFolder folder;
  host::CsvReader reader;
  demand(reader.open(folder.write("rows.csv", body)) == 0, "a file can be opened");
  std::vector<host::CsvReader::Field> record;
  std::size_t rows = 0;
  host::CsvReader::Result result = host::CsvReader::Result::end;
  while ((result = reader.next(record)) != host::CsvReader::Result::end) {
    demand(result == host::CsvReader::Result::record && record.size() == 5,
           "rows have five columns");
    ++rows;
  }
  demand(rows > 0, "the columns have names");
  return rows - 1;
}

void ask(const host::HttpRequest& request) {
  host::forgetRequestProcessors();
  test::HistoryService service;
  service.clock.setTime(kNow);
  HistoryQuery query;
  demand(host::readHistoryQuery(request, kNowMs, query).empty(), "a query reads the same twice");
  for (const std::int64_t id : {1, 2}) {
    const std::string path = id == 1 ? "a" : "P/\"b\",\n2";
    service.write(service.addItem(id, path), test::steps(test::kT0, kSamples));
  }
  demand(service.processor().Init() == 0, "handlers are taken");
  const host::HttpReply reply = host::historyRoute().handler(request);
  host::forgetRequestProcessors();
  demand(reply.status == 200 || reply.status == 404, "a sound query is answered");
  if (reply.status != 200) return;
  const std::size_t rows = query.csv ? rowsOfCsv(reply.body) : rowsOfJson(reply.body, query);
  demand(rows <= query.items.size() *
                     std::min<std::size_t>(kSamples, static_cast<std::size_t>(query.points)),
         "an item has its points at most");
}

}  // namespace

void historyQuery(const std::uint8_t* data, std::size_t size) {
  FuzzInput in(data, size);
  host::HttpRequest request;
  request.method = "GET";
  request.path = "/api/history";
  request.query = in.upTo('\n');
  request.headers["accept"] = in.rest();
  HistoryQuery query;
  if (!host::readHistoryQuery(request, kNowMs, query).empty()) {
    // What is "now" decides whether a range is one.
    test::ManualClock clock(kNow);
    demand(host::historyRoute().handler(request).status == 400, "a bad query is refused");
    return;
  }
  demandSound(query);
  ask(request);
}

}  // namespace orva::fuzz
