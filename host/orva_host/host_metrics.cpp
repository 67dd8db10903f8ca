#include "orva_host/host_metrics.h"

#include <unistd.h>

#include <cinttypes>
#include <cstdio>
#include <memory>

namespace orva::host {
namespace {

using metrics::Family;
using metrics::Kind;

constexpr Family kBuildInfo{"orva_host_build_info", Kind::gauge, "1, with the host's version."};
constexpr Family kUptime{"orva_host_uptime_seconds", Kind::gauge,
                         "Time since the host was started."};
constexpr Family kResident{"orva_host_resident_bytes", Kind::gauge,
                           "Memory of the process that is in RAM."};
constexpr Family kRequests{"orva_host_http_requests_total", Kind::counter,
                           "HTTP requests answered, by class of the reply's status."};
constexpr Family kDatagramsIn{"orva_host_network_received_datagrams_total", Kind::counter,
                              "Datagrams of other controllers that arrived."};
constexpr Family kDatagramsOut{"orva_host_network_sent_datagrams_total", Kind::counter,
                               "Datagrams sent to other controllers."};
constexpr Family kBytesIn{"orva_host_network_received_bytes_total", Kind::counter,
                          "Bytes of the datagrams that arrived."};
constexpr Family kBytesOut{"orva_host_network_sent_bytes_total", Kind::counter,
                           "Bytes of the datagrams that were sent."};
constexpr Family kIgnored{"orva_host_network_ignored_datagrams_total", Kind::counter,
                          "Datagrams that were not for this controller, or not whole."};
constexpr Family kRepeated{"orva_host_network_repeated_pieces_total", Kind::counter,
                           "Pieces of messages that had to be sent or asked for again."};
constexpr Family kServed{"orva_host_network_requests_total", Kind::counter,
                         "Requests of other controllers that were served."};
constexpr Family kNoRoom{"orva_host_network_refused_requests_total", Kind::counter,
                         "Requests of other controllers that there was no room for."};

// 0 when the system does not tell.
std::int64_t residentBytes() {
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen("/proc/self/statm", "re"),
                                                             &std::fclose);
  std::int64_t pages = 0;
  if (!file || std::fscanf(file.get(), "%*d %" SCNd64, &pages) != 1) return 0;
  return pages * sysconf(_SC_PAGESIZE);
}

}  // namespace

HostMetrics::HostMetrics(const HttpServer& http, const HostNetwork& network)
    : http_(http),
      network_(network),
      registration_("host", [this](metrics::Sink& sink) { collect(sink); }) {}

void HostMetrics::collect(metrics::Sink& sink) const {
  sink.add(kBuildInfo, {{"version", ORVA_VERSION}}, 1);
  const std::chrono::duration<double> uptime = std::chrono::steady_clock::now() - start_;
  sink.add(kUptime, uptime.count());
  sink.add(kResident, residentBytes());
  const HttpServer::ReplyCounts replies = http_.replyCounts();
  for (std::size_t i = 0; i < replies.size(); ++i) {
    sink.add(kRequests, {{"code", std::to_string(i + 1) + "xx"}}, replies[i]);
  }
  collectNetwork(sink);
}

void HostMetrics::collectNetwork(metrics::Sink& sink) const {
  const NetworkFigures figures = network_.figures();
  sink.add(kDatagramsIn, figures.datagramsIn);
  sink.add(kDatagramsOut, figures.datagramsOut);
  sink.add(kBytesIn, figures.bytesIn);
  sink.add(kBytesOut, figures.bytesOut);
  sink.add(kIgnored, figures.ignored);
  sink.add(kRepeated, figures.repeatedPieces);
  sink.add(kServed, figures.requests);
  sink.add(kNoRoom, figures.refused);
}

}  // namespace orva::host
