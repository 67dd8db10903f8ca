#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "orva_store/progress.h"
#include "orva_store/store_view.h"

namespace orva::store {

// Samples that are lost, or not where they should be.
struct Damage {
  std::int64_t id = 0;
  std::string path;
  std::int32_t layer = 0;
  std::int64_t first = 0;  // ticks
  std::int64_t last = 0;
  std::int64_t count = 0;  // samples, as the row says
  std::string what;
};

struct CheckResult {
  std::uint64_t items = 0;
  std::uint64_t streams = 0;  // of an item and a layer
  std::uint64_t segments = 0;
  std::uint64_t samples = 0;          // that could be decoded
  std::vector<std::string> problems;  // of the file as a whole
  std::vector<Damage> damaged;

  bool isFine() const { return problems.empty() && damaged.empty(); }
};

// Looks at everything: SQLite's own check of all pages and indexes, the tables, which items there
// are, and every segment decoded. Changes nothing.
CheckResult checkStore(StoreView& store, Progress& progress);

}  // namespace orva::store
