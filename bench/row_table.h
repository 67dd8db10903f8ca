#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <string>
#include <vector>

#include "host/pin.h"

namespace orva::bench {

// What the archives are measured against: a table with a row for each sample, as one writes it
// without much thought but with care for speed and safety. Stops the process when SQLite fails.
class RowTable {
 public:
  explicit RowTable(const std::string& file);
  ~RowTable();
  RowTable(const RowTable&) = delete;
  RowTable& operator=(const RowTable&) = delete;

  // Each transaction is on the disk when commit() returns.
  void begin();
  void insert(std::int64_t item, const Pin& sample);
  void commit();
  void checkpoint();

  // Appends the samples of an item in a stretch of time, each a shared sample of its own.
  void select(std::int64_t item, std::int64_t from, std::int64_t to, std::vector<PinPtr>& out);

 private:
  void check(int code) const;
  void run(const char* sql);
  sqlite3_stmt* prepare(const char* sql);

  sqlite3* db_ = nullptr;
  sqlite3_stmt* insert_ = nullptr;
  sqlite3_stmt* select_ = nullptr;
};

}  // namespace orva::bench
