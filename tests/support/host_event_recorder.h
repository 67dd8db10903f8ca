#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "orva_host/host_events.h"
#include "share/mutex.h"

namespace orva::test {

struct RecordedEvent {
  std::uint64_t number;
  std::int64_t time;
  HostEventKind kind;
  HostEventSeverity severity;
  std::string source;
  std::string text;
  std::int64_t count;
};

// Forgets all events of the host there were, and records those that come while it lives. One at a
// time. Thread-safe.
class HostEventRecorder final : public HostEventListener {
 public:
  HostEventRecorder() {
    host::hostEvents().forget();
    attachHostEvents(kName, *this);
  }
  ~HostEventRecorder() override {
    detachHostEvents(kName);
    host::hostEvents().forget();
  }
  HostEventRecorder(const HostEventRecorder&) = delete;
  HostEventRecorder& operator=(const HostEventRecorder&) = delete;

  void onEvent(const HostEvent& event, std::uint64_t) noexcept override {
    MutexLock lock(mutex_);
    events_.push_back({event.number, event.time, event.kind, event.severity, event.source,
                       event.text, event.count});
  }

  std::vector<RecordedEvent> events() const {
    MutexLock lock(mutex_);
    return events_;
  }
  std::vector<RecordedEvent> events(HostEventKind kind) const {
    std::vector<RecordedEvent> found;
    for (const RecordedEvent& event : events()) {
      if (event.kind == kind) found.push_back(event);
    }
    return found;
  }
  // The kinds in the order in which they came.
  std::vector<HostEventKind> kinds() const {
    std::vector<HostEventKind> found;
    for (const RecordedEvent& event : events()) found.push_back(event.kind);
    return found;
  }
  std::int64_t sumOfCounts(HostEventKind kind) const {
    std::int64_t sum = 0;
    for (const RecordedEvent& event : events(kind)) sum += event.count;
    return sum;
  }

 private:
  static constexpr const char* kName = "recorder of a test";

  mutable Mutex mutex_;  // leaf
  std::vector<RecordedEvent> events_ GUARDED_BY(mutex_);
};

}  // namespace orva::test
