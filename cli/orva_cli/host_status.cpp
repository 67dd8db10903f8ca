#include "orva_cli/host_status.h"

#include <cstdlib>
#include <set>
#include <sstream>

namespace orva::cli {
namespace {

// `{a="x",b="y"}` from `at` on; `at` moves behind it. False when it is of another form.
bool takeLabels(const std::string& line, std::size_t& at,
                std::map<std::string, std::string>& labels) {
  ++at;
  while (at < line.size() && line[at] != '}') {
    const std::size_t equals = line.find("=\"", at);
    if (equals == std::string::npos) return false;
    std::string& value = labels[line.substr(at, equals - at)];
    at = equals + 2;
    for (; at < line.size() && line[at] != '"'; ++at) {
      if (line[at] != '\\') {
        value += line[at];
      } else if (++at < line.size()) {
        value += line[at] == 'n' ? '\n' : line[at];
      }
    }
    ++at;
    if (at < line.size() && line[at] == ',') ++at;
  }
  return at < line.size() && line[at++] == '}';
}

bool readMetric(const std::string& line, Metric& out) {
  std::size_t at = line.find_first_of("{ ");
  if (line.empty() || line[0] == '#' || at == std::string::npos) return false;
  out.name = line.substr(0, at);
  if (line[at] == '{' && !takeLabels(line, at, out.labels)) return false;
  char* end = nullptr;
  out.value = std::strtod(line.c_str() + at, &end);
  return end != line.c_str() + at;
}

// The label's text; empty: the series has none of that name.
std::string labelOf(const Metric& metric, const char* name) {
  const auto label = metric.labels.find(name);
  return label == metric.labels.end() ? std::string() : label->second;
}

class Figures {
 public:
  explicit Figures(const std::vector<Metric>& metrics) : metrics_(metrics) {}

  // Of all series of the name, or those of one archive.
  double sum(const std::string& name, const std::string& archive = {}) const {
    double total = 0;
    for (const Metric& metric : metrics_) {
      const bool isMine = archive.empty() || labelOf(metric, "archive") == archive;
      if (metric.name == name && isMine) total += metric.value;
    }
    return total;
  }

  std::map<std::string, double> byRule(const std::string& name) const {
    std::map<std::string, double> counts;
    for (const Metric& metric : metrics_) {
      const std::string rule = labelOf(metric, "rule");
      if (metric.name == name && metric.value > 0 && !rule.empty()) counts[rule] += metric.value;
    }
    return counts;
  }

  std::set<std::string> archives() const {
    std::set<std::string> names;
    for (const Metric& metric : metrics_) names.insert(labelOf(metric, "archive"));
    names.erase("");
    return names;
  }

  std::string version() const {
    for (const Metric& metric : metrics_) {
      if (metric.name == "orva_host_build_info") return labelOf(metric, "version");
    }
    return {};
  }

 private:
  const std::vector<Metric>& metrics_;
};

ArchiveStatus archiveStatus(const Figures& figures, const std::string& name) {
  ArchiveStatus archive;
  archive.name = name;
  archive.writtenSamples = figures.sum("orva_sqlite_written_samples_total", name);
  archive.bufferedSamples = figures.sum("orva_sqlite_buffered_samples", name);
  archive.fileBytes = figures.sum("orva_sqlite_file_bytes", name);
  archive.failures = figures.sum("orva_sqlite_failures_total", name);
  archive.droppedSamples = figures.sum("orva_sqlite_dropped_samples_total", name);
  archive.damagedSegments = figures.sum("orva_sqlite_damaged_segments_total", name);
  return archive;
}

}  // namespace

std::vector<Metric> readMetrics(const std::string& text) {
  std::vector<Metric> metrics;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    Metric metric;
    if (readMetric(line, metric)) metrics.push_back(std::move(metric));
  }
  return metrics;
}

HostStatus hostStatus(const std::vector<Metric>& metrics) {
  const Figures figures(metrics);
  HostStatus status;
  status.version = figures.version();
  status.uptimeSeconds = figures.sum("orva_host_uptime_seconds");
  status.residentBytes = figures.sum("orva_host_resident_bytes");
  status.items = figures.sum("orva_cache_items");
  status.blocks = figures.sum("orva_cache_blocks");
  status.capacityBlocks = figures.sum("orva_cache_capacity_blocks");
  status.hits = figures.sum("orva_cache_hits_total");
  status.misses = figures.sum("orva_cache_misses_total");
  status.accepted = figures.byRule("orva_samples_accepted_total");
  status.refused = figures.byRule("orva_samples_refused_total");
  status.reads = figures.sum("orva_reads_total");
  status.openReads = figures.sum("orva_open_requests");
  status.readTimeouts = figures.sum("orva_read_timeouts_total");
  for (const std::string& name : figures.archives()) {
    status.archives.push_back(archiveStatus(figures, name));
  }
  return status;
}

}  // namespace orva::cli
