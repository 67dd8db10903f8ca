#include "orva_host/metrics_route.h"

#include "orva_host/metrics_registry.h"
#include "orva_host/prometheus_text.h"

namespace orva::host {
namespace {

HttpReply serveMetrics(const HttpRequest&) {
  PrometheusText metrics;
  MetricsRegistry::instance().collect(metrics);
  HttpReply reply;
  reply.contentType = PrometheusText::kContentType;
  reply.body = metrics.text();
  return reply;
}

}  // namespace

// Not among the routes that may block: figures matter most while reads hang.
HttpRoute metricsRoute() {
  HttpRoute route;
  route.method = "GET";
  route.path = "/metrics";
  route.handler = serveMetrics;
  return route;
}

}  // namespace orva::host
