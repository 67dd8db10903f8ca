#pragma once

#include "orva_host/http_router.h"

namespace orva::host {

// GET /api/history?item=Plant/Load&from=1700000000000&to=2023-11-15T00:00:00Z&points=500: the
// history of some variables as one flat list, for dashboards and spreadsheets. See docs/grafana.md.
//
//   [{"time":1700000000000,"item":"Plant/Load","value":20.5,"quality":0,"status":"good"}, ...]
//
// With format=csv, or "Accept: text/csv", the same as comma-separated values.
HttpRoute historyRoute();

}  // namespace orva::host
