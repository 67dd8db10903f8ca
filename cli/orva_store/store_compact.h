#pragma once

#include <cstdint>

#include "orva_store/progress.h"
#include "orva_store/store_writer.h"

namespace orva::store {

struct CompactResult {
  bool indexMended = false;  // it was damaged, and was made anew from the segments
  std::uint64_t segmentsBefore = 0;
  std::uint64_t segmentsAfter = 0;
  DamageMet damage;  // that stood in the way
};

// Mends the index where that is all that is damaged, and refuses a store with other damage of its
// pages. Joins small segments all through the store, then gives the pages that hold nothing back to
// the file system. A transaction at a time: whenever it ends, nothing is lost.
CompactResult compactStore(StoreWriter& store, Progress& progress);

}  // namespace orva::store
