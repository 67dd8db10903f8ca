#pragma once

#include <map>
#include <string>
#include <vector>

namespace orva::cli {

// One series of a host's metrics.
struct Metric {
  std::string name;
  std::map<std::string, std::string> labels;
  double value = 0;
};

// Reads the text format of Prometheus; lines that are not of it are passed over.
std::vector<Metric> readMetrics(const std::string& text);

struct ArchiveStatus {
  std::string name;
  double writtenSamples = 0;
  double bufferedSamples = 0;
  double fileBytes = 0;
  double failures = 0;
  double droppedSamples = 0;
  double damagedSegments = 0;
};

// How a host fares.
struct HostStatus {
  std::string version;
  double uptimeSeconds = 0;
  double residentBytes = 0;
  double items = 0;
  double blocks = 0;
  double capacityBlocks = 0;
  double hits = 0;
  double misses = 0;
  std::map<std::string, double> accepted;  // samples by the filter's rule, those that it used
  std::map<std::string, double> refused;
  double reads = 0;
  double openReads = 0;
  double readTimeouts = 0;
  std::vector<ArchiveStatus> archives;
};

HostStatus hostStatus(const std::vector<Metric>& metrics);

}  // namespace orva::cli
