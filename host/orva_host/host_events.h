#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <string>
#include <thread>

#include "host/host_events.h"
#include "share/condition.h"
#include "share/mutex.h"

namespace orva::host {

// The latest events of the host, and who is told of them; include/host/host_events.h says what is
// promised.
//
// The events stand in a ring. Each name remembers the number of the last event that a listener of
// it was told of, also while it has none, so that nothing comes twice. A listener is called with
// the mutex released and its entry marked: whoever posts meanwhile leaves the event in the
// ring, and the thread that calls goes on until the ring holds nothing new.
class HostEvents {
 public:
  static constexpr std::size_t kKept = 256;
  static constexpr std::size_t kSourceBytes = 128;
  static constexpr std::size_t kTextBytes = 1000;

  HostEvents() = default;
  HostEvents(const HostEvents&) = delete;
  HostEvents& operator=(const HostEvents&) = delete;

  void post(const HostEvent& event) EXCLUDES(mutex_);
  bool attach(const std::string& name, HostEventListener& listener) EXCLUDES(mutex_);
  void detach(const std::string& name) EXCLUDES(mutex_);

  // How many events left the ring before a name was told of them, all names together.
  std::uint64_t missed() const EXCLUDES(mutex_);
  // As if nothing had happened yet. No listener may be attached.
  void forget() EXCLUDES(mutex_);

 private:
  struct Kept {
    HostEvent event;  // without its texts
    std::string source;
    std::string text;
  };
  struct Name {
    HostEventListener* listener = nullptr;
    std::uint64_t told = 0;               // number of the last event
    HostEventListener* called = nullptr;  // what a thread is telling right now
    std::thread::id caller;
  };

  // Tells the listener what it has not been told. Releases the mutex during the calls.
  void tell(const std::string& name, Name& entry) REQUIRES(mutex_);
  // The next event for the entry, and how many before it are gone. Marks it as told.
  Kept take(Name& entry, std::uint64_t& gone) REQUIRES(mutex_);

  mutable Mutex mutex_;
  Condition returned_;  // a call of a listener
  std::array<Kept, kKept> ring_ GUARDED_BY(mutex_);
  std::uint64_t last_ GUARDED_BY(mutex_) = 0;  // number of the newest event
  std::uint64_t missed_ GUARDED_BY(mutex_) = 0;
  // Entries stay, so that references to them hold while the mutex is released; there are as many
  // as archives of events were configured.
  std::map<std::string, Name> names_ GUARDED_BY(mutex_);
};

// The events of this process.
HostEvents& hostEvents();

}  // namespace orva::host
