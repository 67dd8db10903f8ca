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
  bool allItems = false;  // none was named
};

struct ExportResult {
  std::uint64_t rows = 0;
  // Whose samples are missing:
  std::uint64_t damagedSegments = 0;
  std::uint64_t setApart = 0;  // stretches
  std::uint64_t nameless = 0;  // segments of an item that the file does not know
  std::uint64_t unfound = 0;   // segments that the index does not lead to, or leads to twice
  std::string failure;         // the first one of reading the file
};

using WriteText = std::function<void(const std::string&)>;

// Those of the items that are named by path, or else by id; all for no names. Failure says which
// one is not there.
std::vector<StoredItem> chooseItems(const std::vector<StoredItem>& items,
                                    const std::vector<std::string>& names);

// Writes the header and a row for each sample: item by item, in ascending time. What cannot be read
// is left out and counted; of all items, the segments that are found are compared with the table.
ExportResult exportStore(StoreView& store, const std::vector<StoredItem>& items,
                         const ExportRange& range, Progress& progress, const WriteText& write);

}  // namespace orva::store
