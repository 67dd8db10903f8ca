#pragma once

#include <map>
#include <set>
#include <string>
#include <vector>

#include "host/metrics.h"

namespace orva::host {

// Metrics in the text format that Prometheus reads, version 0.0.4: the samples of a family together
// below its HELP and TYPE, families in the order in which they came.
//
//   # HELP orva_cache_hits_total Stretches of history that were read from memory.
//   # TYPE orva_cache_hits_total counter
//   orva_cache_hits_total 17
//
// What would break the format is left out and traced: names that are none, a kind that differs from
// that of the family's first sample, a second sample with the same labels. The first help counts.
class PrometheusText final : public metrics::Sink {
 public:
  static constexpr const char* kContentType = "text/plain; version=0.0.4; charset=utf-8";

  std::string text() const;

 private:
  struct FamilyText {
    std::string name;
    metrics::Kind kind;
    std::string help;
    std::string lines;
    std::set<std::string> labelSets;  // of the lines, whatever the order of their labels
  };

  void take(const metrics::Family& family, const metrics::Labels& labels,
            metrics::Value value) override;
  FamilyText& familyText(const metrics::Family& family);

  std::vector<FamilyText> families_;
  std::map<std::string, std::size_t> places_;  // by name, in families_
};

}  // namespace orva::host
