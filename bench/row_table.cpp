#include "bench/row_table.h"

#include <cstdio>
#include <cstdlib>

namespace orva::bench {

RowTable::RowTable(const std::string& file) {
  check(sqlite3_open(file.c_str(), &db_));
  run("PRAGMA journal_mode=WAL");
  run("PRAGMA synchronous=FULL");
  run("CREATE TABLE IF NOT EXISTS sample(item INTEGER, time INTEGER, value REAL, quality INTEGER,"
      " PRIMARY KEY(item, time)) WITHOUT ROWID");
  insert_ = prepare("INSERT INTO sample(item, time, value, quality) VALUES(?1, ?2, ?3, ?4)");
  select_ = prepare(
      "SELECT time, value, quality FROM sample WHERE item = ?1 AND time BETWEEN ?2 AND ?3 "
      "ORDER BY time");
}

RowTable::~RowTable() {
  sqlite3_finalize(insert_);
  sqlite3_finalize(select_);
  sqlite3_close(db_);
}

void RowTable::check(int code) const {
  if (code == SQLITE_OK || code == SQLITE_DONE || code == SQLITE_ROW) return;
  std::fprintf(stderr, "row table: %s\n", sqlite3_errmsg(db_));
  std::abort();
}

void RowTable::run(const char* sql) { check(sqlite3_exec(db_, sql, nullptr, nullptr, nullptr)); }

sqlite3_stmt* RowTable::prepare(const char* sql) {
  sqlite3_stmt* made = nullptr;
  check(sqlite3_prepare_v2(db_, sql, -1, &made, nullptr));
  return made;
}

void RowTable::begin() { run("BEGIN"); }
void RowTable::commit() { run("COMMIT"); }
void RowTable::checkpoint() { run("PRAGMA wal_checkpoint(TRUNCATE)"); }

void RowTable::insert(std::int64_t item, const Pin& sample) {
  double value = 0;
  sample.value.GetDouble(value);
  sqlite3_bind_int64(insert_, 1, item);
  sqlite3_bind_int64(insert_, 2, sample.time);
  sqlite3_bind_double(insert_, 3, value);
  sqlite3_bind_int64(insert_, 4, sample.quality);
  check(sqlite3_step(insert_));
  sqlite3_reset(insert_);
}

void RowTable::select(std::int64_t item, std::int64_t from, std::int64_t to,
                      std::vector<PinPtr>& out) {
  sqlite3_bind_int64(select_, 1, item);
  sqlite3_bind_int64(select_, 2, from);
  sqlite3_bind_int64(select_, 3, to);
  int code = sqlite3_step(select_);
  for (; code == SQLITE_ROW; code = sqlite3_step(select_)) {
    OpcUa_VariantHlp value;
    value.SetDouble(sqlite3_column_double(select_, 1));
    out.push_back(makePin(sqlite3_column_int64(select_, 0), std::move(value),
                          static_cast<std::uint32_t>(sqlite3_column_int64(select_, 2))));
  }
  check(code);
  sqlite3_reset(select_);
}

}  // namespace orva::bench
