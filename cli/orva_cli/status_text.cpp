#include "orva_cli/status_text.h"

#include <algorithm>
#include <cstdio>
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

std::string printed(const char* format, double number) {
  char text[64];
  std::snprintf(text, sizeof text, format, number);
  return text;
}

std::string count(double number) { return printed("%.0f", number); }

std::string bytes(double number) {
  if (number < 1e6) return printed("%.0f kB", number / 1e3);
  return number < 1e9 ? printed("%.1f MB", number / 1e6) : printed("%.2f GB", number / 1e9);
}

std::string duration(double seconds) {
  if (seconds < 120) return printed("%.0f s", seconds);
  if (seconds < 7200) return printed("%.0f min", seconds / 60);
  return seconds < 172'800 ? printed("%.1f h", seconds / 3600)
                           : printed("%.1f days", seconds / 86'400);
}

class StatusWriter {
 public:
  explicit StatusWriter(const std::vector<Metric>& metrics) : metrics_(metrics) {}

  std::string text(const std::string& url) {
    host(url);
    cache();
    filter("accepted", "orva_samples_accepted_total");
    filter("refused", "orva_samples_refused_total");
    reads();
    for (const std::string& name : archives()) archive(name);
    return out_.str();
  }

 private:
  double sum(const std::string& name, const std::string& archive = {}) const {
    double total = 0;
    for (const Metric& metric : metrics_) {
      const auto label = metric.labels.find("archive");
      const bool isMine =
          archive.empty() || (label != metric.labels.end() && label->second == archive);
      if (metric.name == name && isMine) total += metric.value;
    }
    return total;
  }
  std::set<std::string> archives() const {
    std::set<std::string> names;
    for (const Metric& metric : metrics_) {
      const auto label = metric.labels.find("archive");
      if (label != metric.labels.end()) names.insert(label->second);
    }
    return names;
  }

  void host(const std::string& url) {
    out_ << "host      " << url;
    for (const Metric& metric : metrics_) {
      const auto version = metric.labels.find("version");
      if (metric.name == "orva_host_build_info" && version != metric.labels.end()) {
        out_ << ", version " << version->second;
      }
    }
    out_ << ", up for " << duration(sum("orva_host_uptime_seconds")) << ", "
         << bytes(sum("orva_host_resident_bytes")) << " of memory\n";
  }
  void cache() {
    const double hits = sum("orva_cache_hits_total");
    const double all = hits + sum("orva_cache_misses_total");
    out_ << "cache     " << count(sum("orva_cache_items")) << " items, "
         << count(sum("orva_cache_blocks")) << " of " << count(sum("orva_cache_capacity_blocks"))
         << " blocks";
    if (all > 0)
      out_ << ", " << printed("%.1f", 100 * hits / all) << " % of what is read comes from it";
    out_ << '\n';
  }
  // "refused   3 new values: 2 equal, 1 old time"
  void filter(const char* what, const std::string& name) {
    std::string rules;
    for (const Metric& metric : metrics_) {
      const auto rule = metric.labels.find("rule");
      if (metric.name != name || metric.value <= 0 || rule == metric.labels.end()) continue;
      std::string words = rule->second;
      std::replace(words.begin(), words.end(), '_', ' ');
      rules += (rules.empty() ? ": " : ", ") + count(metric.value) + " " + words;
    }
    char label[16];
    std::snprintf(label, sizeof label, "%-10s", what);
    out_ << label << count(sum(name)) << " new values" << rules << '\n';
  }
  void reads() {
    out_ << "reads     " << count(sum("orva_reads_total")) << " served, "
         << count(sum("orva_open_requests")) << " waiting, "
         << count(sum("orva_read_timeouts_total")) << " given up\n";
  }
  void archive(const std::string& name) {
    const double dropped = sum("orva_sqlite_dropped_samples_total", name);
    const double failures = sum("orva_sqlite_failures_total", name);
    const double damaged = sum("orva_sqlite_damaged_segments_total", name);
    out_ << "archive   " << name << ": " << count(sum("orva_sqlite_written_samples_total", name))
         << " values written, " << count(sum("orva_sqlite_buffered_samples", name)) << " waiting, "
         << bytes(sum("orva_sqlite_file_bytes", name)) << '\n';
    if (failures > 0) warn(count(failures) + " writes failed: the host's log says why");
    if (dropped > 0) warn(count(dropped) + " values lost: raise \"writeBufferSize\", see the log");
    if (damaged > 0) warn(count(damaged) + " damaged stretches: replace the disk");
  }
  void warn(const std::string& text) { out_ << "  !       " << text << '\n'; }

  const std::vector<Metric>& metrics_;
  std::ostringstream out_;
};

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

std::string statusText(const std::vector<Metric>& metrics, const std::string& url) {
  return StatusWriter(metrics).text(url);
}

}  // namespace orva::cli
