#pragma once

#include <map>
#include <string>
#include <vector>

namespace orva::test {

struct MetricSample {
  std::map<std::string, std::string> labels;  // unescaped
  std::string valueText;
  double value = 0;
};

struct MetricFamily {
  std::string type;  // "counter", "gauge", ...
  std::string help;  // unescaped
  std::vector<MetricSample> samples;
};

// A text in the Prometheus exposition format, version 0.0.4, held to every rule of it and to those
// that scrapers recommend: HELP and TYPE once for each family and before its samples, families in
// one piece, no two samples with the same labels, nothing unescaped, no counter that is negative.
class Exposition {
 public:
  explicit Exposition(const std::string& text);

  // Empty, or the first breach with its line.
  const std::string& error() const { return error_; }
  const std::map<std::string, MetricFamily>& families() const { return families_; }
  // The value of the sample with exactly these labels; NaN when there is none.
  double value(const std::string& family,
               const std::map<std::string, std::string>& labels = {}) const;
  // The sum of a family's samples, 0 when there are none.
  double sum(const std::string& family) const;

 private:
  std::map<std::string, MetricFamily> families_;
  std::string error_;
};

}  // namespace orva::test
