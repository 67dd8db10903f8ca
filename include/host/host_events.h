#pragma once

#include <cstddef>
#include <cstdint>

#include "host/host_export.h"

// What happens to the host and its add-ins, told to whoever keeps a record of it.
//
// An optional service: a host need not have it. Its functions are weak for that reason; call the
// inline ones at the end of this file, which do nothing where they are missing.

namespace orva {

// The numbers are stored in archives: they stay as they are.
enum class HostEventKind : std::int32_t {
  kStarted = 1,
  kStopping = 2,
  kConfigurationRead = 3,
  kConfigurationRefused = 4,  // what was read before stays in force
  kArchivesRebuilt = 5,
  kProviderFailure = 6,    // an archive does not work; the first failure, not each attempt
  kProviderRecovered = 7,  // it works again
  kSamplesDropped = 8,     // `count` of them since the source's last such event
  kEventsLost = 9,         // `count` events, by one who records them
};

enum class HostEventSeverity : std::int32_t { kInformation = 0, kWarning = 1, kError = 2 };

// Texts are UTF-8 with a terminator, never null, and valid during a call only. The host cuts
// `source` and `text` to a bounded length.
struct HostEvent {
  std::uint64_t number = 0;  // counts all events since the host started, from 1; set by the host
  std::int64_t time = 0;     // ticks; set by the host
  HostEventKind kind = HostEventKind::kStarted;
  HostEventSeverity severity = HostEventSeverity::kInformation;
  const char* source = "";  // who speaks, for example "orva_host"
  const char* text = "";
  std::int64_t count = 0;  // where the kind says so, else 0
};

// Who is told of events. Called with events by ascending number, one call at a time, on the thread
// that posts one or that attaches the listener, under no lock of the host's. So onEvent() must not
// wait: the poster may be an archive's storage thread. It may post events itself; these come to it
// after it has returned.
class HostEventListener {
 public:
  virtual ~HostEventListener() = default;
  // `missed`: how many events between the last one and this were lost, because the host keeps the
  // latest 256 only.
  virtual void onEvent(const HostEvent& event, std::uint64_t missed) noexcept = 0;
};

}  // namespace orva

// ---- what a host may offer; thread-safe, nothing throws

extern "C" {

// Keeps the event and calls the listeners; a listener that is being called on another thread gets
// it there. So it may run on while others post.
ORVA_HOST_API __attribute__((weak)) void OrvaPostHostEvent(const orva::HostEvent* event) noexcept;

// From now on the listener is told; first of those events among the latest 256 that no listener of
// this name was told of. False when the name has a listener, or memory is lacking.
ORVA_HOST_API __attribute__((weak)) bool OrvaAttachHostEvents(
    const char* name, orva::HostEventListener* listener) noexcept;

// The name has no listener then. Waits for a call that runs, unless it runs on this very thread.
// What comes from now on is kept for the next listener of the name.
ORVA_HOST_API __attribute__((weak)) void OrvaDetachHostEvents(const char* name) noexcept;

}  // extern "C"

namespace orva {

// Under no lock that a listener may need.
inline void postHostEvent(HostEventKind kind, HostEventSeverity severity, const char* source,
                          const char* text, std::int64_t count = 0) noexcept {
  if (OrvaPostHostEvent == nullptr) return;
  HostEvent event;
  event.kind = kind;
  event.severity = severity;
  event.source = source;
  event.text = text;
  event.count = count;
  OrvaPostHostEvent(&event);
}

inline bool hostHasEvents() noexcept {
  return OrvaAttachHostEvents != nullptr && OrvaDetachHostEvents != nullptr;
}

// False also when the host has no events.
inline bool attachHostEvents(const char* name, HostEventListener& listener) noexcept {
  return hostHasEvents() && OrvaAttachHostEvents(name, &listener);
}

inline void detachHostEvents(const char* name) noexcept {
  if (hostHasEvents()) OrvaDetachHostEvents(name);
}

}  // namespace orva
