#include "orva_sqlite/reader_pool.h"

#include <sqlite3.h>

#include <new>
#include <utility>

namespace orva::sqlite {

void ReaderPool::open(const std::string& file, int cacheKiB) {
  std::vector<std::unique_ptr<FileReader>> old;
  MutexLock lock(mutex_);
  old.swap(idle_);
  file_ = file;
  cacheKiB_ = cacheKiB;
  isOpen_ = true;
  ++generation_;
  lock.unlock();
}

void ReaderPool::close() {
  std::vector<std::unique_ptr<FileReader>> old;
  MutexLock lock(mutex_);
  old.swap(idle_);
  isOpen_ = false;
  ++generation_;
  lock.unlock();
}

std::unique_ptr<FileReader> ReaderPool::take(std::string& problem) {
  std::string file;
  int cacheKiB = 0;
  auto reader = std::make_unique<FileReader>();
  {
    MutexLock lock(mutex_);
    if (!isOpen_) {
      problem = "the file is not open";
      return {};
    }
    if (!idle_.empty()) {
      reader = std::move(idle_.back());
      idle_.pop_back();
      return reader;
    }
    file = file_;
    cacheKiB = cacheKiB_;
    reader->generation = generation_;
  }
  const std::string cache = "PRAGMA cache_size=-" + std::to_string(cacheKiB);
  if (reader->db.open(file, Database::Mode::kReadOnly)) {
    sqlite3_db_config(reader->db.handle(), SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
    if (reader->db.exec(cache.c_str())) return reader;
  }
  problem = reader->db.failure();
  return {};
}

void ReaderPool::giveBack(std::unique_ptr<FileReader> reader) {
  // One whose transaction could not be ended would see this moment for ever.
  if (!reader || reader->db.failed() || reader->db.isInTransaction()) return;
  MutexLock lock(mutex_);
  if (isOpen_ && reader->generation == generation_ && idle_.size() < keep_) {
    try {
      idle_.push_back(std::move(reader));
    } catch (const std::bad_alloc&) {
      // It is closed instead: readers are given back where nothing may throw.
    }
  }
}

}  // namespace orva::sqlite
