#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "orva_store/store_view.h"

namespace orva::store {

// What a store holds of an item in a layer.
struct StreamFigures {
  std::int64_t id = 0;
  std::string path;
  std::int32_t layer = 0;
  std::int64_t segments = 0;
  std::int64_t samples = 0;
  std::int64_t bytes = 0;  // of the segments
  std::int64_t first = 0;  // ticks; where there are segments
  std::int64_t last = 0;
  std::int64_t damaged = 0;  // stretches that were set apart
};

struct StoreFigures {
  std::int64_t fileBytes = 0;
  std::int64_t freeBytes = 0;          // of the file, that hold nothing
  std::int64_t logBytes = 0;           // of the write-ahead log beside it
  std::int64_t items = 0;              // also those without samples
  std::vector<StreamFigures> streams;  // by id, path and layer
};

StoreFigures storeFigures(StoreView& store);

// Of a file, 0 when there is none.
std::int64_t bytesOfFile(const std::string& file);

}  // namespace orva::store
