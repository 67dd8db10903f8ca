#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "orva_store/progress.h"
#include "orva_store/store_view.h"

namespace orva::store {

struct ExportRange {
  std::int32_t layer = 0;
  std::int64_t from = sqlite::kEarliest;  // ticks, both included
  std::int64_t to = sqlite::kLatest;
};

struct ExportResult {
  std::uint64_t rows = 0;
  std::uint64_t damagedSegments = 0;  // whose samples are missing
};

using WriteText = std::function<void(const std::string&)>;

// Those of the items that are named by path, or else by id; all for no names. Failure says which
// one is not there.
std::vector<StoredItem> chooseItems(const std::vector<StoredItem>& items,
                                    const std::vector<std::string>& names);

// Writes the header and a row for each sample: item by item, in ascending time.
ExportResult exportStore(StoreView& store, const std::vector<StoredItem>& items,
                         const ExportRange& range, Progress& progress, const WriteText& write);

}  // namespace orva::store
