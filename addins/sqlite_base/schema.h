#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "sqlite_base/database.h"
#include "sqlite_base/file_space.h"

namespace orva::sqlite {

// What a kind of file has in it, and how it is known.
struct Schema {
  std::int64_t applicationId;  // PRAGMA application_id
  std::int64_t version;        // PRAGMA user_version; earlier ones are read, too
  const char* create;          // the statements that make a new file
};

// Whether the file of an open connection is of this kind, and in a form that is known; `prepare` is
// as below. False without a failure of the connection: it is another kind of database.
bool hasSchema(Database& db, const Schema& schema, const std::function<bool()>& prepare);

enum class Opened {
  kReady,
  kUnavailable,  // not now: try again later
  kUnreadable,   // nothing of a form that is known
};

// Opens a file for its writer, or begins a new one. `prepare` prepares the statements and looks up
// what has to be known; it may be called twice. `thorough` also has every page checked. After
// kUnavailable, the failure is the database's.
Opened openWithSchema(Database& db, FileSpace& space, const Schema& schema, const std::string& file,
                      bool thorough, const std::function<bool()>& prepare);

}  // namespace orva::sqlite
