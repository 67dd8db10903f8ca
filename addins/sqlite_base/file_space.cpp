#include "sqlite_base/file_space.h"

#include <sqlite3.h>

#include <algorithm>
#include <new>
#include <string>

namespace orva::sqlite {
namespace {

constexpr std::int64_t kPageSize = 4096;

// What the write-ahead log may take of a limited size.
std::int64_t logShare(std::int64_t maxBytes, int checkpointPages) {
  const std::int64_t usual = checkpointPages * kPageSize;
  return maxBytes == 0 ? usual : std::min(usual, maxBytes / 8);
}

}  // namespace

FileSpace::FileSpace(Database& db, const StoreParameters& parameters, std::int64_t maxBytes)
    : db_(db),
      parameters_(parameters),
      maxBytes_(maxBytes),
      logBytes_(logShare(maxBytes, parameters.checkpointPages)) {}

bool FileSpace::configure() {
  // The page size and the vacuum mode work before the first table only, and do no harm later.
  const std::string pragmas =
      "PRAGMA page_size=" + std::to_string(kPageSize) + ";PRAGMA auto_vacuum=INCREMENTAL" +
      ";PRAGMA journal_mode=WAL;PRAGMA synchronous=" + parameters_.synchronous +
      ";PRAGMA cache_size=-" + std::to_string(parameters_.cacheKiB) +
      ";PRAGMA journal_size_limit=" + std::to_string(logBytes_) + ";PRAGMA temp_store=MEMORY";
  logProblem_.clear();
  if (!db_.exec(pragmas.c_str())) return false;
  // In place of SQLite's own automatic checkpoint, whose failure nobody is told of.
  sqlite3_wal_hook(db_.handle(), &FileSpace::afterCommit, this);
  return true;
}

int FileSpace::afterCommit(void* self, sqlite3* handle, const char* name, int logPages) {
  auto& space = *static_cast<FileSpace*>(self);
  if (logPages < std::max<std::int64_t>(16, space.logBytes_ / kPageSize)) return SQLITE_OK;
  const int code =
      sqlite3_wal_checkpoint_v2(handle, name, SQLITE_CHECKPOINT_PASSIVE, nullptr, nullptr);
  if (code == SQLITE_OK) {
    space.logProblem_.clear();
  } else if (code != SQLITE_BUSY && code != SQLITE_LOCKED) {
    space.noteLogProblem(sqlite3_errmsg(handle), code);
  }
  return SQLITE_OK;  // the transaction itself is in the log
}

// Nothing may be thrown through SQLite, which called.
void FileSpace::noteLogProblem(const char* text, int code) {
  try {
    logProblem_ = "copying the log into the file failed: " + std::string(text) + " (" +
                  std::to_string(code) + ")";
  } catch (const std::bad_alloc&) {
    // The next commit copies again, and says so.
  }
}

bool FileSpace::isIntact() {
  Statement check(db_, "PRAGMA quick_check(1)");
  Query query(check);
  return !query.row() || query.text(0) == "ok";
}

std::int64_t FileSpace::used() {
  return (db_.number("PRAGMA page_count") - db_.number("PRAGMA freelist_count")) * kPageSize;
}

std::int64_t FileSpace::taken() { return db_.number("PRAGMA page_count") * kPageSize; }

void FileSpace::shrink() {
  if (maxBytes_ == 0) return;
  const std::int64_t pages = (taken() - target() + kPageSize - 1) / kPageSize;
  if (pages <= 0) return;
  const std::string vacuum = "PRAGMA incremental_vacuum(" + std::to_string(pages) + ")";
  db_.exec(vacuum.c_str());
}

void FileSpace::checkpoint() { db_.exec("PRAGMA wal_checkpoint(TRUNCATE)"); }

}  // namespace orva::sqlite
