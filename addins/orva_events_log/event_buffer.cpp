#include "orva_events_log/event_buffer.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "host/host_time.h"
#include "share/signal.h"

namespace orva::events_log {
namespace {

Event eventOfLoss(std::uint64_t count, std::int64_t time) {
  Event event;
  event.time = time;
  event.kind = HostEventKind::kEventsLost;
  event.severity = HostEventSeverity::kWarning;
  event.source = "eventslog";
  event.text = std::to_string(count) + " events were lost";
  event.count = static_cast<std::int64_t>(count);
  return event;
}

}  // namespace

EventBuffer::EventBuffer(std::uint32_t capacity, std::uint32_t batchSize, Signal& wake)
    : capacity_(std::max(1U, capacity)),
      batchSize_(std::max(1U, batchSize)),
      wakeAt_(std::min(capacity_, batchSize_)),
      wake_(wake) {}

bool EventBuffer::offer(const HostEvent& event) {
  Event copy{event.time, event.kind, event.severity, event.source, event.text, event.count};
  bool wake = false;
  {
    MutexLock lock(mutex_);
    if (waiting_.size() >= capacity_) {
      noteLoss(1, event.time);
      return false;
    }
    const std::size_t before = waiting_.size();
    writeLoss();
    append(std::move(copy));
    wake = before == 0 || (before < wakeAt_ && waiting_.size() >= wakeAt_);
  }
  if (wake) wake_.notify();
  return true;
}

void EventBuffer::lose(std::uint64_t count) {
  if (count == 0) return;
  const std::int64_t now = getInt64FileTime();
  MutexLock lock(mutex_);
  noteLoss(count, now);
}

void EventBuffer::noteLoss(std::uint64_t count, std::int64_t time) {
  if (isEmpty()) since_ = Signal::elapsed();
  pendingLoss_ += count;
  lost_ += count;
  lossTime_ = time;
}

void EventBuffer::writeLoss() {
  if (pendingLoss_ == 0) return;
  append(eventOfLoss(pendingLoss_, lossTime_));
  pendingLoss_ = 0;
}

void EventBuffer::append(Event event) {
  if (isEmpty()) since_ = Signal::elapsed();
  waiting_.push_back(std::move(event));
}

bool EventBuffer::isEmpty() const { return waiting_.empty() && pendingLoss_ == 0; }

bool EventBuffer::empty() const {
  MutexLock lock(mutex_);
  return isEmpty();
}

bool EventBuffer::batchIsDue(std::int64_t now, std::int64_t period) const {
  MutexLock lock(mutex_);
  if (isEmpty()) return false;
  return waiting_.size() >= wakeAt_ || now - since_ >= period;
}

std::int64_t EventBuffer::waitingSince() const {
  MutexLock lock(mutex_);
  return since_;
}

std::vector<Event> EventBuffer::take() {
  MutexLock lock(mutex_);
  if (waiting_.size() < batchSize_) writeLoss();
  const std::size_t count = std::min(waiting_.size(), batchSize_);
  const auto end = waiting_.begin() + static_cast<std::ptrdiff_t>(count);
  std::vector<Event> batch(std::make_move_iterator(waiting_.begin()), std::make_move_iterator(end));
  waiting_.erase(waiting_.begin(), end);
  return batch;
}

std::int64_t EventBuffer::discard() noexcept {
  MutexLock lock(mutex_);
  auto count = static_cast<std::int64_t>(pendingLoss_);
  for (const Event& event : waiting_) count += event.events();
  waiting_.clear();
  pendingLoss_ = 0;
  return count;
}

std::uint64_t EventBuffer::lost() const {
  MutexLock lock(mutex_);
  return lost_;
}

}  // namespace orva::events_log
