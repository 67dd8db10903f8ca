#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include "host/host_events.h"
#include "share/mutex.h"
#include "share/signal.h"

namespace orva::events_log {

// An event with texts of its own.
struct Event {
  std::int64_t time = 0;
  HostEventKind kind = HostEventKind::kStarted;
  HostEventSeverity severity = HostEventSeverity::kInformation;
  std::string source;
  std::string text;
  std::int64_t count = 0;

  // How many events it stands for.
  std::int64_t events() const { return kind == HostEventKind::kEventsLost ? count : 1; }
};

// The events between the host and the file, in the order in which they came. What does not fit is
// counted, and in its place stands one event of kind kEventsLost, which comes on top of the
// capacity.
//
// Thread-safe. Its mutex is a leaf: nothing is called while it is held.
class EventBuffer {
 public:
  // `wake` is notified when the first event arrives, and when `batchSize` wait.
  EventBuffer(std::uint32_t capacity, std::uint32_t batchSize, Signal& wake);

  // False when the buffer is full and the event is lost.
  bool offer(const HostEvent& event) EXCLUDES(mutex_);
  // So many events were lost before they came here.
  void lose(std::uint64_t count) EXCLUDES(mutex_);

  bool batchIsDue(std::int64_t now, std::int64_t period) const EXCLUDES(mutex_);
  bool empty() const EXCLUDES(mutex_);
  // When the oldest waiting event came, or earlier; ticks.
  std::int64_t waitingSince() const EXCLUDES(mutex_);
  // Takes the oldest events out, a batch at most.
  std::vector<Event> take() EXCLUDES(mutex_);
  // Lets go of them all, and says how many events they stood for.
  std::int64_t discard() noexcept EXCLUDES(mutex_);

  // Events that were not taken, those lost before included.
  std::uint64_t lost() const EXCLUDES(mutex_);

 private:
  bool isEmpty() const REQUIRES(mutex_);
  void append(Event event) REQUIRES(mutex_);
  void noteLoss(std::uint64_t count, std::int64_t time) REQUIRES(mutex_);
  // Puts an event in the place of those lost since the last one that was taken.
  void writeLoss() REQUIRES(mutex_);

  const std::size_t capacity_;
  const std::size_t batchSize_;
  const std::size_t wakeAt_;
  Signal& wake_;
  mutable Mutex mutex_;  // leaf
  std::deque<Event> waiting_ GUARDED_BY(mutex_);
  std::int64_t since_ GUARDED_BY(mutex_) = 0;
  std::uint64_t pendingLoss_ GUARDED_BY(mutex_) = 0;  // after the last one waiting
  std::int64_t lossTime_ GUARDED_BY(mutex_) = 0;      // of the newest loss
  std::uint64_t lost_ GUARDED_BY(mutex_) = 0;
};

}  // namespace orva::events_log
