#pragma once

#include <sqlite3.h>

#include <string>
#include <utility>

namespace orva::sqlite::test {

// The statements that SQLite runs for connections which were opened while this lives. One of them
// is interrupted, as it begins or goes on behind a row, when a test says so. So a look-up fails
// whose pages are all in memory, and a COMMIT that is in the file.
//
// For tests of one thread; one at a time.
class FailingStatements {
 public:
  FailingStatements() { sqlite3_auto_extension(entry()); }
  ~FailingStatements() {
    disarm();
    sqlite3_cancel_auto_extension(entry());
  }
  FailingStatements(const FailingStatements&) = delete;
  FailingStatements& operator=(const FailingStatements&) = delete;

  // From now on beginnings and rows count, those of statements that begin like this; the n-th one
  // fails.
  void arm(long n, std::string beginning = {}) {
    left_ = n;
    beginning_ = std::move(beginning);
    isDue_ = false;
    failed_ = false;
  }
  void disarm() { arm(0); }
  // Since arm().
  bool hasFailed() const { return failed_; }

 private:
  static void (*entry())() { return reinterpret_cast<void (*)()>(&watch); }
  static int watch(sqlite3* db, char**, const void*) {
    sqlite3_trace_v2(db, SQLITE_TRACE_STMT | SQLITE_TRACE_ROW, &count, nullptr);
    sqlite3_progress_handler(db, 1, &interrupt, nullptr);
    return SQLITE_OK;
  }
  static int count(unsigned, void*, void* statement, void*) {
    const char* const sql = sqlite3_sql(static_cast<sqlite3_stmt*>(statement));
    if (left_ == 0 || sql == nullptr) return 0;
    if (std::string(sql).rfind(beginning_, 0) != 0) return 0;
    if (--left_ == 0) isDue_ = true;
    return 0;
  }
  static int interrupt(void*) {
    if (!isDue_) return 0;
    isDue_ = false;
    failed_ = true;
    return 1;
  }

  inline static long left_ = 0;
  inline static std::string beginning_;
  inline static bool isDue_ = false;
  inline static bool failed_ = false;
};

}  // namespace orva::sqlite::test
