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

// How the host fares, in lines for people: what is kept, what is lost and what to do about it.
std::string statusText(const std::vector<Metric>& metrics, const std::string& url);

}  // namespace orva::cli
