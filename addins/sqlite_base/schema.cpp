#include "sqlite_base/schema.h"

namespace orva::sqlite {
namespace {

bool createSchema(Database& db, const Schema& schema) {
  const std::string head = "PRAGMA application_id=" + std::to_string(schema.applicationId) +
                           ";PRAGMA user_version=" + std::to_string(schema.version);
  return db.begin() && db.exec(schema.create) && db.exec(head.c_str()) && db.commit();
}

}  // namespace

bool hasSchema(Database& db, const Schema& schema, const std::function<bool()>& prepare) {
  const std::int64_t version = db.number("PRAGMA user_version");
  if (db.number("PRAGMA application_id") != schema.applicationId || version < 1 ||
      version > schema.version) {
    return false;
  }
  if (db.failed() || prepare()) return !db.failed();
  // A table or column is missing: SQLite's plain error, which says nothing of the file's state.
  if ((db.code() & 0xFF) == 1) db.clearFailure();
  return false;
}

Opened openWithSchema(Database& db, FileSpace& space, const Schema& schema, const std::string& file,
                      bool thorough, const std::function<bool()>& prepare) {
  if (!db.open(file, Database::Mode::kReadWrite)) return Opened::kUnavailable;
  const bool isNew = db.number("SELECT count(*) FROM sqlite_master") == 0;
  if (!db.failed()) {
    const bool fits = isNew ? space.configure() && createSchema(db, schema)
                            : hasSchema(db, schema, prepare) && space.configure();
    if (!fits && !db.failed()) return Opened::kUnreadable;
    if (fits && thorough && !space.isIntact()) return Opened::kUnreadable;
    if (fits && prepare()) return Opened::kReady;
  }
  return db.isUnreadable() ? Opened::kUnreadable : Opened::kUnavailable;
}

}  // namespace orva::sqlite
