#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "orva_host/http_router.h"

namespace orva::host {

// What GET /api/history is asked for.
struct HistoryQuery {
  std::vector<std::string> items;  // paths, each once
  std::int64_t fromMs = 0;         // since 1970
  std::int64_t toMs = 0;
  bool upToNow = false;        // "to" was not given
  std::int64_t points = 1000;  // per item
  bool csv = false;
};

constexpr std::int64_t kMostHistoryPoints = 100'000;  // per item
constexpr std::int64_t kMostHistoryRows = 500'000;    // of all items together

// Reads the query of the URL; empty, or what is wrong with it. Without "to" the range ends at
// `nowMs`, without "from" it is an hour long.
std::string readHistoryQuery(const HttpRequest& request, std::int64_t nowMs, HistoryQuery& out);

}  // namespace orva::host
