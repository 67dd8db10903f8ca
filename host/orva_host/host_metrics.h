#pragma once

#include <chrono>

#include "host/metrics.h"
#include "orva_host/host_network.h"
#include "orva_host/http_server.h"

namespace orva::host {

// The host's own metrics, served while this lives: memory, uptime, HTTP replies, version, and the
// controller network.
class HostMetrics {
 public:
  HostMetrics(const HttpServer& http, const HostNetwork& network);
  HostMetrics(const HostMetrics&) = delete;
  HostMetrics& operator=(const HostMetrics&) = delete;

 private:
  void collect(metrics::Sink& sink) const;
  void collectNetwork(metrics::Sink& sink) const;

  const HttpServer& http_;
  const HostNetwork& network_;
  const std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
  const metrics::Registration registration_;  // last: the collector looks at what stands above
};

}  // namespace orva::host
