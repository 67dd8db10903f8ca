#pragma once

#include <cstdint>
#include <string>

struct sqlite3;
struct sqlite3_stmt;

namespace orva::sqlite {

// One SQLite connection, used by one thread at a time.
//
// Failures stick: the first one since clearFailure() is kept, and until then no statement does
// anything. So a transaction of many steps asks once, at its end.
class Database {
 public:
  Database() = default;
  ~Database() { close(); }
  Database(const Database&) = delete;
  Database& operator=(const Database&) = delete;

  enum class Mode { kReadWrite, kReadOnly };
  bool open(const std::string& file, Mode mode);
  void close();  // statements must be gone
  bool isOpen() const { return handle_ != nullptr; }

  bool exec(const char* sql);
  // The first column of the first row of `sql`; `otherwise` when there is none.
  std::int64_t number(const char* sql, std::int64_t otherwise = 0);
  bool begin() { return exec("BEGIN IMMEDIATE"); }
  bool commit() { return exec("COMMIT"); }
  void rollback();  // also clears nothing: the failure that led here stays

  bool isInTransaction() const;

  bool failed() const { return code_ != 0; }
  int code() const { return code_; }  // SQLite's extended result code, 0 for none
  const std::string& failure() const { return failure_; }
  void clearFailure();
  // Whether the failure says that the file's content is wrong, rather than that it cannot be
  // reached now. So does a row that is refused for another one that cannot be there.
  bool isUnreadable() const;
  // Whether only space is lacking, or somebody else held the file: the connection is as good as
  // before.
  bool isHarmless() const;

  sqlite3* handle() const { return handle_; }
  void note(int code, const char* doing);
  // What was read contradicts itself: a failure as if SQLite had noticed.
  void noteCorrupt(const char* what);

 private:
  sqlite3* handle_ = nullptr;
  int code_ = 0;
  std::string failure_;
};

// A prepared statement. Prepared at its first use, so that a connection whose schema is not there
// yet can own it.
class Statement {
 public:
  Statement(Database& db, const char* sql) : db_(db), sql_(sql) {}
  ~Statement() { finalize(); }
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;

  bool prepare();
  void finalize();

 private:
  friend class Query;
  Database& db_;
  const char* const sql_;
  sqlite3_stmt* statement_ = nullptr;
};

// One run of a statement: bind the parameters in order, then step. Gives the statement free for the
// next run when it goes.
class Query {
 public:
  explicit Query(Statement& statement);
  ~Query();
  Query(const Query&) = delete;
  Query& operator=(const Query&) = delete;

  Query& bind(std::int64_t v);
  Query& bindText(const std::string& v);
  // The bytes must live until the query goes.
  Query& bindBlob(const void* data, std::size_t size);

  bool row();  // whether there is a further row; false also after a failure
  bool run();  // to the end; false after a failure

  std::int64_t number(int column) const;
  std::string text(int column) const;
  // Valid until the next row().
  const void* blob(int column) const;
  std::size_t size(int column) const;

 private:
  Statement& owner_;
  int bound_ = 0;
};

}  // namespace orva::sqlite
