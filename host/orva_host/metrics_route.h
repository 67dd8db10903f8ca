#pragma once

#include "orva_host/http_router.h"

namespace orva::host {

// GET /metrics: what all collectors give, as Prometheus reads it. See docs/metrics.md.
HttpRoute metricsRoute();

}  // namespace orva::host
