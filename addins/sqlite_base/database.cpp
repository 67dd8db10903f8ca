#include "sqlite_base/database.h"

#include <sqlite3.h>

namespace orva::sqlite {

bool Database::open(const std::string& file, Mode mode) {
  close();
  clearFailure();
  const int flags =
      SQLITE_OPEN_NOMUTEX |
      (mode == Mode::kReadOnly ? SQLITE_OPEN_READONLY : SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE);
  const int code = sqlite3_open_v2(file.c_str(), &handle_, flags, nullptr);
  if (code != SQLITE_OK) {
    note(handle_ != nullptr ? sqlite3_extended_errcode(handle_) : code, "opening");
    sqlite3_close(handle_);
    handle_ = nullptr;
    return false;
  }
  sqlite3_extended_result_codes(handle_, 1);
  // Another process may look at the file with a tool; nobody else writes it.
  sqlite3_busy_timeout(handle_, 1000);
  return true;
}

void Database::close() {
  if (handle_ == nullptr) return;
  sqlite3_close_v2(handle_);
  handle_ = nullptr;
}

bool Database::exec(const char* sql) {
  if (failed()) return false;
  const int code = sqlite3_exec(handle_, sql, nullptr, nullptr, nullptr);
  if (code != SQLITE_OK) note(code, sql);
  return code == SQLITE_OK;
}

std::int64_t Database::number(const char* sql, std::int64_t otherwise) {
  Statement statement(*this, sql);
  Query query(statement);
  return query.row() ? query.number(0) : otherwise;
}

void Database::rollback() {
  if (isInTransaction()) sqlite3_exec(handle_, "ROLLBACK", nullptr, nullptr, nullptr);
}

bool Database::isInTransaction() const {
  return handle_ != nullptr && sqlite3_get_autocommit(handle_) == 0;
}

void Database::clearFailure() {
  code_ = 0;
  failure_.clear();
}

bool Database::isUnreadable() const {
  const int primary = code_ & 0xFF;
  return primary == SQLITE_CORRUPT || primary == SQLITE_NOTADB || primary == SQLITE_FORMAT ||
         primary == SQLITE_CONSTRAINT;
}

bool Database::isHarmless() const {
  const int primary = code_ & 0xFF;
  return primary == SQLITE_FULL || primary == SQLITE_BUSY || primary == SQLITE_LOCKED;
}

void Database::note(int code, const char* doing) {
  if (failed()) return;
  code_ = code;
  const char* const message = handle_ != nullptr ? sqlite3_errmsg(handle_) : sqlite3_errstr(code);
  failure_ = std::string(message) + " (" + std::to_string(code) + ") at: " + doing;
}

void Database::noteCorrupt(const char* what) {
  if (failed()) return;
  failure_ = what;
  code_ = SQLITE_CORRUPT;
}

bool Statement::prepare() {
  if (statement_ != nullptr) return true;
  if (db_.failed() || !db_.isOpen()) return false;
  const int code =
      sqlite3_prepare_v3(db_.handle(), sql_, -1, SQLITE_PREPARE_PERSISTENT, &statement_, nullptr);
  if (code != SQLITE_OK) db_.note(code, sql_);
  return code == SQLITE_OK;
}

void Statement::finalize() {
  sqlite3_finalize(statement_);
  statement_ = nullptr;
}

Query::Query(Statement& statement) : owner_(statement) { owner_.prepare(); }

Query::~Query() {
  if (owner_.statement_ == nullptr) return;
  sqlite3_reset(owner_.statement_);
  sqlite3_clear_bindings(owner_.statement_);
}

Query& Query::bind(std::int64_t v) {
  if (owner_.statement_ != nullptr) sqlite3_bind_int64(owner_.statement_, ++bound_, v);
  return *this;
}

Query& Query::bindText(const std::string& v) {
  if (owner_.statement_ == nullptr) return *this;
  sqlite3_bind_text64(owner_.statement_, ++bound_, v.data(), v.size(), SQLITE_TRANSIENT,
                      SQLITE_UTF8);
  return *this;
}

Query& Query::bindBlob(const void* data, std::size_t size) {
  if (owner_.statement_ == nullptr) return *this;
  sqlite3_bind_blob64(owner_.statement_, ++bound_, data, size, SQLITE_STATIC);
  return *this;
}

bool Query::row() {
  if (owner_.statement_ == nullptr || owner_.db_.failed()) return false;
  const int code = sqlite3_step(owner_.statement_);
  if (code != SQLITE_ROW && code != SQLITE_DONE) owner_.db_.note(code, owner_.sql_);
  return code == SQLITE_ROW;
}

bool Query::run() {
  while (row()) {
  }
  return !owner_.db_.failed();
}

std::int64_t Query::number(int column) const {
  return sqlite3_column_int64(owner_.statement_, column);
}

std::string Query::text(int column) const {
  const auto* const bytes =
      reinterpret_cast<const char*>(sqlite3_column_text(owner_.statement_, column));
  return bytes == nullptr ? std::string() : std::string(bytes, size(column));
}

const void* Query::blob(int column) const { return sqlite3_column_blob(owner_.statement_, column); }

std::size_t Query::size(int column) const {
  return static_cast<std::size_t>(sqlite3_column_bytes(owner_.statement_, column));
}

}  // namespace orva::sqlite
