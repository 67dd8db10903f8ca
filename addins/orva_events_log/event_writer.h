#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include "orva_events_log/event_buffer.h"
#include "orva_events_log/event_store.h"
#include "share/archive_configs.h"
#include "sqlite_base/age_clock.h"
#include "sqlite_base/location.h"
#include "sqlite_base/problem_log.h"

namespace orva::events_log {

// Everything that changes a log's file: opens it, writes what is buffered, enforces age and size.
// All of it happens in pass(), on one thread at a time; what failed is tried again after the
// connection's reconnect time-out.
class EventWriter {
 public:
  EventWriter(const archive::ArchiveCfg& limits, const archive::ConnectionCfg& connection,
              EventBuffer& buffer);

  // Does what is due. Returns in how many ticks something else will be, 0 for at once.
  std::int64_t pass();
  // After pass() has thrown: the file is closed, so that the next pass begins anew.
  void interrupted() noexcept;
  // Writes what is buffered, as well as it can, and closes the file. Says in the log and in the
  // host's events how many events that did not hold for, and returns it.
  std::int64_t finish() noexcept;

  // Whether another log has the place. Readable from any thread.
  bool refused() const { return refused_; }
  bool ready() const { return store_.isOpen(); }
  const std::string& file() const { return location_.file(); }
  EventStore& store() { return store_; }  // for tests, on the writer's thread

 private:
  bool open();
  bool openFile();
  bool moveAside();
  bool writeBatch();
  bool writeRest();
  void countRest() noexcept;
  void tellRest();
  bool cleanUp();
  void startCleanUp(std::int64_t elapsed);
  bool failed(const char* doing);
  void succeeded();
  std::int64_t ticksToNext(std::int64_t now) const;

  const archive::ArchiveCfg limits_;
  const std::int64_t retryTicks_;
  sqlite::Location location_;
  EventBuffer& buffer_;
  sqlite::ProblemLog problems_;
  EventStore store_;
  std::vector<Event> batch_;    // taken from the buffer, not known to be in the file
  std::int64_t unwritten_ = 0;  // events that were there when it ended
  std::int64_t batchId_ = 0;    // number of its first event when it was tried last, 0 untried
  // Times are those of Signal::elapsed().
  std::int64_t failedAt_ = 0;   // when something failed, 0 when nothing has to be tried again
  std::int64_t cleanedAt_ = 0;  // when the last clean-up began
  sqlite::AgeClock ageClock_;
  std::int64_t cleanBefore_ = 0;  // what is older goes
  enum class Cleaning { kNot, kAge, kSize } cleaning_ = Cleaning::kNot;
  bool doubtful_ = false;  // the file was unreadable in use: check it whole before going on
  std::atomic<bool> refused_{false};
};

}  // namespace orva::events_log
