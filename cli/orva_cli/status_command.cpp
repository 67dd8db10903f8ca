#include <algorithm>

#include "orva_cli/commands.h"
#include "orva_cli/failure.h"
#include "orva_cli/status_text.h"

namespace orva::cli {

void statusCommand(const Options& options, HostClient& host, std::ostream& out) {
  const std::vector<Metric> metrics = readMetrics(host.get("/metrics").body);
  const auto isHost = [](const Metric& metric) { return metric.name == "orva_host_build_info"; };
  if (std::none_of(metrics.begin(), metrics.end(), isHost)) {
    throw Failure("what answers at " + host.url() + " is no host of this kind: it has no metrics");
  }
  const auto print = options.format == Format::kJson ? statusJson : statusText;
  out << print(hostStatus(metrics), host.url());
}

}  // namespace orva::cli
