#include "orva_events_log/event_store.h"

namespace orva::events_log {
namespace {

// Ticks of 100 ns since 1601 become milliseconds since 1970 for SQLite's own function, which takes
// seconds.
constexpr sqlite::Schema kSchema = {
    0x4F727645,  // "OrvE"
    1,
    "CREATE TABLE event(id INTEGER PRIMARY KEY, time INTEGER NOT NULL, kind INTEGER NOT NULL,"
    " severity INTEGER NOT NULL, source TEXT NOT NULL, text TEXT NOT NULL,"
    " count INTEGER NOT NULL);"
    "CREATE INDEX event_by_time ON event(time);"
    "CREATE VIEW event_text AS SELECT id,"
    " strftime('%Y-%m-%dT%H:%M:%fZ', (time / 10000 - 11644473600000) / 1000.0, 'unixepoch')"
    " AS utc,"
    " CASE kind WHEN 1 THEN 'started' WHEN 2 THEN 'stopping'"
    " WHEN 3 THEN 'configuration read' WHEN 4 THEN 'configuration refused'"
    " WHEN 5 THEN 'archives rebuilt' WHEN 6 THEN 'provider failure'"
    " WHEN 7 THEN 'provider recovered' WHEN 8 THEN 'samples dropped'"
    " WHEN 9 THEN 'events lost' ELSE kind END AS kind,"
    " CASE severity WHEN 0 THEN 'information' WHEN 1 THEN 'warning' WHEN 2 THEN 'error'"
    " ELSE severity END AS severity,"
    " source, text, count FROM event;"};

}  // namespace

EventStore::EventStore(const sqlite::StoreParameters& parameters, std::int64_t maxBytes)
    : space_(db_, parameters, maxBytes),
      insert_(db_,
              "INSERT INTO event(id, time, kind, severity, source, text, count) "
              "VALUES(?1, ?2, ?3, ?4, ?5, ?6, ?7)"),
      deleteBefore_(db_,
                    "DELETE FROM event WHERE id IN (SELECT id FROM event WHERE time < ?1 AND "
                    "id < (SELECT max(id) FROM event) ORDER BY time LIMIT ?2)"),
      deleteOldest_(db_,
                    "DELETE FROM event WHERE id IN (SELECT id FROM event WHERE "
                    "id < (SELECT max(id) FROM event) ORDER BY id LIMIT ?1)") {}

sqlite::Opened EventStore::open(const std::string& file, bool thorough) {
  close();
  return sqlite::openWithSchema(db_, space_, kSchema, file, thorough, [this] { return prepare(); });
}

void EventStore::close() {
  finalizeAll();
  db_.rollback();
  db_.close();
}

bool EventStore::prepare() {
  if (!insert_.prepare() || !deleteBefore_.prepare() || !deleteOldest_.prepare()) return false;
  nextId_ = db_.number("SELECT max(id) FROM event") + 1;
  return !db_.failed();
}

void EventStore::finalizeAll() {
  insert_.finalize();
  deleteBefore_.finalize();
  deleteOldest_.finalize();
}

bool EventStore::append(const std::vector<Event>& events) {
  if (!db_.begin()) return false;
  std::int64_t id = nextId_;
  for (const Event& event : events) {
    sqlite::Query query(insert_);
    query.bind(id++).bind(event.time).bind(static_cast<std::int64_t>(event.kind));
    query.bind(static_cast<std::int64_t>(event.severity)).bindText(event.source);
    if (!query.bindText(event.text).bind(event.count).run()) return false;
  }
  if (!db_.commit()) return false;
  nextId_ = id;
  return true;
}

std::int64_t EventStore::deleteBefore(std::int64_t time, std::int64_t most) {
  if (!db_.begin()) return -1;
  const bool done = sqlite::Query(deleteBefore_).bind(time).bind(most).run();
  return deleted(done);
}

std::int64_t EventStore::deleteOldest(std::int64_t most) {
  if (!db_.begin()) return -1;
  const bool done = sqlite::Query(deleteOldest_).bind(most).run();
  return deleted(done);
}

std::int64_t EventStore::deleted(bool done) {
  const std::int64_t rows = db_.number("SELECT changes()");
  return done && db_.commit() ? rows : -1;
}

std::int64_t EventStore::count() { return db_.number("SELECT count(*) FROM event"); }

}  // namespace orva::events_log
