#pragma once

#include <cstdint>
#include <string>

#include "sqlite_base/database.h"
#include "sqlite_base/store_parameters.h"

namespace orva::sqlite {

// The pages of an archive's file and the size of its write-ahead log. For the thread that writes
// the file.
class FileSpace {
 public:
  // `maxBytes`, 0 for none, is what file and log may take together; it keeps the log small.
  FileSpace(Database& db, const StoreParameters& parameters, std::int64_t maxBytes);

  // Says of a connection just opened how it is to write. Before the first table of a new file.
  bool configure();
  // Checks every page. False when the content is wrong; a failure is the database's.
  bool isIntact();

  // Bytes of the file that hold something, and bytes it takes on the disk without its log.
  std::int64_t used();
  std::int64_t taken();
  // What the file may take; 0 when it is not limited.
  std::int64_t target() const { return maxBytes_ == 0 ? 0 : maxBytes_ - logBytes_; }

  // Gives pages that hold nothing back until the file is no larger than its target.
  void shrink();
  // Copies the log into the file and empties it.
  void checkpoint();
  // A commit also copies the log into the file, once it has grown to its share. Why the last such
  // copy failed, empty when it did not: what was committed is in the log then, which grows.
  const std::string& logProblem() const { return logProblem_; }

 private:
  static int afterCommit(void* self, sqlite3* handle, const char* name, int logPages);
  void noteLogProblem(const char* text, int code);

  Database& db_;
  const StoreParameters parameters_;
  const std::int64_t maxBytes_;
  const std::int64_t logBytes_;
  std::string logProblem_;
};

}  // namespace orva::sqlite
