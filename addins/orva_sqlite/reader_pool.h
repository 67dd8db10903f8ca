#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "orva_sqlite/columns.h"
#include "orva_sqlite/segment_codec.h"
#include "orva_sqlite/segment_table.h"
#include "share/mutex.h"
#include "sqlite_base/database.h"

namespace orva::sqlite {

// A connection that only reads, with what decoding needs. Used by one thread at a time. It never
// copies the write-ahead log into the file: that is the writer's.
struct FileReader {
  FileReader() : segments(db) {}

  Database db;
  SegmentTable segments;
  SegmentDecoder decoder;
  Columns columns;
  std::uint64_t generation = 0;

  ~FileReader() { segments.finalize(); }
};

// Lends readers to the threads that read. Thread-safe; its mutex is a leaf.
class ReaderPool {
 public:
  // `keep` idle readers at most are kept open.
  explicit ReaderPool(std::size_t keep) : keep_(keep) {}

  // From now on readers of this file are lent; those of an earlier one are closed as they come
  // back.
  void open(const std::string& file, int cacheKiB) EXCLUDES(mutex_);
  // From now on none is lent.
  void close() EXCLUDES(mutex_);

  // Null while closed, and when the file cannot be opened (`problem` says why).
  std::unique_ptr<FileReader> take(std::string& problem) EXCLUDES(mutex_);
  // A reader that failed is closed.
  void giveBack(std::unique_ptr<FileReader> reader) EXCLUDES(mutex_);

 private:
  const std::size_t keep_;
  Mutex mutex_;  // leaf
  std::string file_ GUARDED_BY(mutex_);
  int cacheKiB_ GUARDED_BY(mutex_) = 0;
  bool isOpen_ GUARDED_BY(mutex_) = false;
  std::uint64_t generation_ GUARDED_BY(mutex_) = 0;
  std::vector<std::unique_ptr<FileReader>> idle_ GUARDED_BY(mutex_);
};

}  // namespace orva::sqlite
