#pragma once

#include <atomic>
#include <memory>
#include <string>

#include "host/host_events.h"
#include "host/threads.h"
#include "orva_events_log/event_buffer.h"
#include "orva_events_log/event_writer.h"
#include "share/events_archive_manager.h"
#include "share/mutex.h"
#include "share/signal.h"
#include "sqlite_base/trace_limit.h"

namespace orva::events_log {

// An archive that keeps the host's events in one SQLite file: a listener under the file's name, so
// that a log made anew at the same place goes on where the one before ended, and a thread that
// writes. A log whose place another one has does not listen until the place is free.
class EventLog final : public archive::IEventsArchiveProc, private HostEventListener {
 public:
  EventLog(const archive::ArchiveCfg& limits, const archive::ConnectionCfg& connection);
  // On whatever thread; stops what was not stopped.
  ~EventLog() override;
  EventLog(const EventLog&) = delete;
  EventLog& operator=(const EventLog&) = delete;

  void start() override EXCLUDES(mutex_);
  // Listens no more, and writes what is buffered. There is no start after it.
  void stop() override EXCLUDES(mutex_);

  // Notified after each pass of the writer's thread.
  Signal& progress() { return progress_; }

 private:
  static void run(void* self);
  void onEvent(const HostEvent& event, std::uint64_t missed) noexcept override;
  std::int64_t pass() noexcept;
  void listen();

  Signal wake_;
  Signal progress_;
  EventBuffer buffer_;
  EventWriter writer_;
  const std::string name_;  // as a listener
  sqlite::TraceLimit lossTrace_;
  bool listens_ = false;  // for start() first, then for the thread, then for stop()
  std::atomic<bool> ending_{false};
  Mutex mutex_{LockClass::kProvider};  // held while the thread is joined: a second stop() returns
                                       // when all is written
  std::unique_ptr<tthread::thread> thread_ GUARDED_BY(mutex_);
  bool started_ GUARDED_BY(mutex_) = false;
  bool stopped_ GUARDED_BY(mutex_) = false;
};

// What is registered under "eventslog".
class Factory final : public archive::IEventsArchiveProcFactory {
 public:
  boost::shared_ptr<archive::IEventsArchiveProc> create(
      const archive::ArchiveCfg& limits, const archive::ConnectionCfg& connection) override;
};

}  // namespace orva::events_log
