#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "orva_sqlite/segment_table.h"
#include "sqlite_base/database.h"

namespace orva::store {

// An item as the file knows it.
struct StoredItem {
  std::int64_t handle = 0;  // of the segments
  std::int64_t id = 0;
  std::string path;
};

// How many segments there are of an item and a layer.
struct StreamRows {
  sqlite::StreamKey key;
  std::uint64_t segments = 0;
};

// A store that is only looked at, also while a host writes it. What waits in the host's write
// buffer is not seen. Failure is thrown when it cannot be opened or read.
class StoreView {
 public:
  // A folder with a store, or its file.
  explicit StoreView(const std::string& place);
  ~StoreView();

  const std::string& file() const { return file_; }
  // By id, then by path.
  std::vector<StoredItem> items();
  // Those of the table's own rows, in no way led by the index: where that is damaged, it may lead
  // past some of them, or to the same ones for ever.
  std::vector<StreamRows> streams();
  // In ascending order, also those of which nothing is left but what was set apart. Empty where
  // that cannot be read.
  std::vector<std::int32_t> layers();

  sqlite::Database& db() { return db_; }
  sqlite::SegmentTable& segments() { return segments_; }
  // Throws what the connection met.
  void expectRead();

 private:
  std::string file_;
  sqlite::Database db_;
  sqlite::SegmentTable segments_;
};

// The file of the store at a place; Failure where there is none.
std::string existingStoreFile(const std::string& place);

}  // namespace orva::store
