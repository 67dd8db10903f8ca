#include "orva_events_log/event_log.h"

#include <boost/smart_ptr/make_shared.hpp>
#include <exception>
#include <filesystem>
#include <system_error>

#include "host/trace.h"
#include "share/ticks.h"

namespace orva::events_log {
namespace {

// The same for every spelling of a place, whether it exists or not.
std::string listenerName(const std::string& file) {
  namespace fs = std::filesystem;
  std::error_code error;
  const fs::path absolute = fs::absolute(file, error);
  if (error) return "eventslog: " + file;
  const fs::path canonical = fs::weakly_canonical(absolute, error);
  return "eventslog: " + (error ? absolute.lexically_normal() : canonical).string();
}

}  // namespace

EventLog::EventLog(const archive::ArchiveCfg& limits, const archive::ConnectionCfg& connection)
    : buffer_(limits.writeBufferSize, limits.maxWriteValues, wake_),
      writer_(limits, connection, buffer_),
      name_(listenerName(writer_.file())) {}

EventLog::~EventLog() { stop(); }

void EventLog::start() {
  MutexLock lock(mutex_);
  if (started_ || stopped_) return;
  started_ = true;
  if (!hostHasEvents()) {
    OpcUa_Trace_Imp(kTraceWarning, "eventslog: archive \"%s\": the host has no events\n", __FILE__,
                    __LINE__, writer_.file().c_str());
  }
  pass();  // so that the file is there when start() returns
  thread_ = std::make_unique<tthread::thread>(&EventLog::run, this);
}

void EventLog::stop() {
  ending_ = true;
  wake_.notify();
  MutexLock lock(mutex_);
  if (stopped_) return;
  stopped_ = true;
  if (thread_) thread_->join();
  thread_.reset();
  if (listens_) detachHostEvents(name_.c_str());
  listens_ = false;
  if (started_) writer_.finish();
}

void EventLog::run(void* self) {
  EventLog& log = *static_cast<EventLog*>(self);
  while (!log.ending_) {
    const std::uint64_t seen = log.wake_.count();
    const std::int64_t ticks = log.pass();
    log.progress_.notify();
    if (ticks > 0 && !log.ending_) log.wake_.wait(seen, ticks);
  }
}

std::int64_t EventLog::pass() noexcept {
  try {
    const std::int64_t ticks = writer_.pass();
    listen();
    return ticks;
  } catch (const std::exception& error) {
    OpcUa_Trace_Imp(kTraceError, "<--ReturnError: eventslog pass throws: %s\n", __FILE__, __LINE__,
                    error.what());
    writer_.interrupted();
    return kTicksPerSecond;
  }
}

// Also while the place cannot be reached: the buffer holds more than the host keeps.
void EventLog::listen() {
  if (listens_ || writer_.refused()) return;
  listens_ = attachHostEvents(name_.c_str(), *this);
}

void EventLog::onEvent(const HostEvent& event, std::uint64_t missed) noexcept {
  bool kept = false;
  try {
    buffer_.lose(missed);
    kept = buffer_.offer(event);
  } catch (const std::exception&) {
    buffer_.lose(1);
  }
  if (kept || !lossTrace_.pass()) return;
  OpcUa_Trace_Imp(kTraceError, "eventslog: archive \"%s\": event lost, %llu so far\n", __FILE__,
                  __LINE__, writer_.file().c_str(),
                  static_cast<unsigned long long>(buffer_.lost()));
}

boost::shared_ptr<archive::IEventsArchiveProc> Factory::create(
    const archive::ArchiveCfg& limits, const archive::ConnectionCfg& connection) {
  return boost::make_shared<EventLog>(limits, connection);
}

}  // namespace orva::events_log
