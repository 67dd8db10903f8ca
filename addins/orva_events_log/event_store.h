#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "orva_events_log/event_buffer.h"
#include "sqlite_base/database.h"
#include "sqlite_base/file_space.h"
#include "sqlite_base/schema.h"
#include "sqlite_base/store_parameters.h"

namespace orva::events_log {

// The file of one event log as its only writer sees it: schema, rows, transactions.
// docs/events-log.md describes it. Used by one thread at a time.
class EventStore {
 public:
  EventStore(const sqlite::StoreParameters& parameters, std::int64_t maxBytes);
  ~EventStore() { close(); }

  // Opens the file, or begins a new one. `thorough` also has every page checked.
  sqlite::Opened open(const std::string& file, bool thorough);
  void close();
  bool isOpen() const { return db_.isOpen(); }

  // The number that the next event gets. Greater than every one given before.
  std::int64_t nextId() const { return nextId_; }
  // All of them or none, in one transaction, numbered from nextId() on.
  bool append(const std::vector<Event>& events);

  // Each deletes `most` events at most, the oldest first and never the newest event, in one
  // transaction; gives how many, or -1 after a failure.
  std::int64_t deleteBefore(std::int64_t time, std::int64_t most);
  std::int64_t deleteOldest(std::int64_t most);

  std::int64_t count();
  sqlite::FileSpace& space() { return space_; }
  sqlite::Database& db() { return db_; }

 private:
  bool prepare();
  void finalizeAll();
  std::int64_t deleted(bool done);

  sqlite::Database db_;
  sqlite::FileSpace space_;
  sqlite::Statement insert_;
  sqlite::Statement deleteBefore_;
  sqlite::Statement deleteOldest_;
  std::int64_t nextId_ = 1;
};

}  // namespace orva::events_log
