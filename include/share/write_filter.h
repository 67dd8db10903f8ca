#pragma once

#include <cstddef>
#include <cstdint>

#include "host/pin.h"
#include "share/json.h"
#include "share/orva_export.h"

namespace orva::archive {

// Decides for each new sample of an item whether it is archived, given the sample archived last.
// Periods are in ticks (100 ns), the dead band is absolute.
//
// With the defaults every sample after the first is refused: an archive that wants more says so.
// Immutable while in use; no lock of its own.
class ORVA_API Filter {
 public:
  Filter() = default;
  explicit Filter(const json::Value& value) { load(value); }

  // Reads "maxWritePeriod", "minWritePeriod", "deadband", "writeByChange", "allValues", in this
  // order. A missing member or one of a wrong type leaves its field.
  void load(const json::Value& value);

  // Whether `cur` is to be written; `prev` is the sample written last, null before the first.
  bool operator()(const PinPtr& prev, const PinPtr& cur) const { return accepts(rule(prev, cur)); }

  // What decides about a sample. Those that accept stand first.
  enum class Rule {
    first,            // there was none before
    allValues,        // every value is wanted
    maxPeriod,        // more than maxWritePeriod has passed
    change,           // another value, and no dead band that counts
    outsideDeadband,  // it leaves the dead band
    oldTime,          // earlier than the sample before
    withinMaxPeriod,  // changes are not wanted, and maxWritePeriod has not passed
    minPeriod,        // less than minWritePeriod has passed
    equal,            // the same value
    insideDeadband,   // it stays inside the dead band
  };
  static constexpr std::size_t kRules = 10;
  static constexpr bool accepts(Rule rule) { return rule <= Rule::outsideDeadband; }
  // The one that decides about `cur`. Traces a sample that is too old.
  Rule rule(const PinPtr& prev, const PinPtr& cur) const;

  double deadband = 0.0;
  bool writeByChange = false;
  std::int64_t minWritePeriod = 0;  // 0: no minimum
  std::int64_t maxWritePeriod = 0;  // 0: no maximum
  bool allValues = false;
  // Whether function blocks write at all. No configuration key reads it and the decision does not
  // look at it; the older archive interface clears it to silence an item's blocks.
  bool blocksWrite = true;
};

}  // namespace orva::archive
