#include "orva_sqlite/write_buffer.h"

#include <algorithm>

namespace orva::sqlite {
namespace {
// For how many samples a stream keeps memory after a burst. There may be a hundred thousand
// streams, and each has its burst once.
constexpr std::size_t kKeptCapacity = 32;

template <class T>
void emptyOut(std::vector<T>& list) {
  list.clear();
  if (list.capacity() > kKeptCapacity) list.shrink_to_fit();
}

// More than enough, so that many small steps do not copy each time.
template <class T>
void makeRoom(std::vector<T>& list, std::size_t size) {
  if (list.capacity() < size) list.reserve(std::max(size, 2 * list.capacity()));
}

bool inside(const PinPtr& pin, std::int64_t from, std::int64_t to) {
  return pin->time >= from && pin->time <= to;
}
}  // namespace

void Span::extend(std::int64_t from, std::int64_t to) {
  if (empty()) {
    first = from;
    last = to;
    return;
  }
  first = std::min(first, from);
  last = std::max(last, to);
}

WriteBuffer::WriteBuffer(std::uint32_t capacity, std::uint32_t batchSize, Signal& wake)
    : capacity_(std::max(1U, capacity)),
      batchSize_(std::max(1U, batchSize)),
      wakeAt_(std::min(capacity_, batchSize_)),
      wake_(wake) {}

bool WriteBuffer::offer(BufferedStream& stream, const PinPtr& pin) {
  bool wake = false;
  {
    MutexLock lock(mutex_);
    const std::size_t waitingNow = static_cast<std::size_t>(nextNumber_ - headNumber_);
    if (waitingNow >= capacity_) return false;
    enter(stream, pin);
    if (waitingNow == 0) since_ = Signal::elapsed();
    wake = waitingNow == 0 || waitingNow + 1 == wakeAt_;
  }
  if (wake) wake_.notify();
  return true;
}

// Changes nothing when there is no memory for it.
void WriteBuffer::enter(BufferedStream& stream, const PinPtr& pin) {
  auto& waiting = stream.waiting_;
  const bool isFirst = waiting.empty();
  const bool inOrder = isFirst || pin->time >= waiting.back().pin->time;
  if (isFirst) makeRoom(dirty_, dirty_.size() + 1);
  waiting.push_back({nextNumber_, pin});
  if (isFirst) dirty_.push_back(&stream);
  stream.ascending_ = inOrder && (isFirst || stream.ascending_);
  ++nextNumber_;
}

bool WriteBuffer::crowded() {
  bool wake = false;
  {
    MutexLock lock(mutex_);
    if (nextNumber_ - headNumber_ < capacity_ - capacity_ / 2) return false;
    wake = !awaited_;
    awaited_ = true;
  }
  if (wake) wake_.notify();
  return true;
}

std::size_t WriteBuffer::waiting() const {
  MutexLock lock(mutex_);
  return static_cast<std::size_t>(nextNumber_ - headNumber_);
}

std::int64_t WriteBuffer::waitingSince() const {
  MutexLock lock(mutex_);
  return since_;
}

bool WriteBuffer::batchIsDue(std::int64_t now, std::int64_t period) const {
  MutexLock lock(mutex_);
  if (!batchStreams_.empty()) return true;
  const auto waitingNow = static_cast<std::size_t>(nextNumber_ - headNumber_);
  if (waitingNow == 0) return false;
  return waitingNow >= wakeAt_ || awaited_ || now - since_ >= period;
}

bool WriteBuffer::hasBatch() const {
  MutexLock lock(mutex_);
  return !batchStreams_.empty();
}

void WriteBuffer::takeBatch() {
  MutexLock lock(mutex_);
  const std::uint64_t end = std::min(nextNumber_, headNumber_ + batchSize_);
  for (BufferedStream* const stream : dirty_) takeFrom(*stream, end);
  headNumber_ = end;
  awaited_ = false;
  dirty_.erase(std::remove_if(dirty_.begin(), dirty_.end(),
                              [](const BufferedStream* s) { return s->waiting_.empty(); }),
               dirty_.end());
}

// The samples of one stream that came before number `end`. Takes none when there is no memory for
// it, nor for committed(), which must not fail.
void WriteBuffer::takeFrom(BufferedStream& stream, std::uint64_t end) {
  auto& waiting = stream.waiting_;
  std::size_t& taken = stream.taken_;
  std::size_t last = taken;
  while (last < waiting.size() && waiting[last].number < end) ++last;
  const std::size_t count = last - taken;
  if (count == 0) return;
  stream.inFlight_.reserve(stream.inFlight_.size() + count);
  makeRoom(released_, inFlight_ + count);
  makeRoom(batchStreams_, batchStreams_.size() + 1);
  for (; taken < last; ++taken) stream.inFlight_.push_back(std::move(waiting[taken].pin));
  inFlight_ += count;
  batchStreams_.push_back(&stream);
  if (taken == waiting.size()) {
    emptyOut(waiting);
    taken = 0;
  } else if (taken > waiting.size() / 2) {
    // Seldom enough that a long queue is not moved again and again.
    waiting.erase(waiting.begin(), waiting.begin() + static_cast<std::ptrdiff_t>(taken));
    taken = 0;
  }
}

void WriteBuffer::committing(std::int64_t marker) {
  MutexLock lock(mutex_);
  ++epoch_;
  marker_ = marker;
  for (BufferedStream* const stream : batchStreams_) {
    for (const PinPtr& pin : stream->inFlight_) stream->stored_.extend(pin->time, pin->time);
  }
}

std::size_t WriteBuffer::committed(bool done) {
  MutexLock lock(mutex_);
  ++epoch_;
  if (!done) return 0;  // the marker stays: a commit that failed may be in the file all the same
  marker_ = 0;
  for (BufferedStream* const stream : batchStreams_) {
    for (PinPtr& pin : stream->inFlight_) released_.push_back(std::move(pin));
    emptyOut(stream->inFlight_);
  }
  batchStreams_.clear();
  inFlight_ = 0;
  lock.unlock();
  const std::size_t count = released_.size();
  emptyOut(released_);  // freed outside the lock
  return count;
}

void WriteBuffer::setStored(BufferedStream& stream, Span span) {
  MutexLock lock(mutex_);
  ++epoch_;
  stream.stored_ = span;
}

std::size_t WriteBuffer::discard() {
  MutexLock lock(mutex_);
  std::size_t lost = 0;
  for (BufferedStream* const stream : batchStreams_) {
    lost += stream->inFlight_.size();
    emptyOut(stream->inFlight_);
  }
  // Counted one by one: where memory was lacking, a part of the oldest is in the batch already.
  for (BufferedStream* const stream : dirty_) {
    lost += stream->waiting_.size() - stream->taken_;
    emptyOut(stream->waiting_);
    stream->taken_ = 0;
  }
  batchStreams_.clear();
  inFlight_ = 0;
  dirty_.clear();
  headNumber_ = nextNumber_;
  ++epoch_;
  return lost;
}

void WriteBuffer::snapshot(const BufferedStream& stream, std::int64_t from, std::int64_t to,
                           Snapshot& out) const {
  out.inFlight.clear();
  out.waiting.clear();
  MutexLock lock(mutex_);
  for (const PinPtr& pin : stream.inFlight_) {
    if (inside(pin, from, to)) out.inFlight.push_back(pin);
  }
  auto entry = stream.waiting_.begin() + static_cast<std::ptrdiff_t>(stream.taken_);
  if (stream.ascending_) {
    // A long queue must not be walked through, under the lock, for its last few samples.
    entry = std::partition_point(entry, stream.waiting_.end(),
                                 [from](const auto& e) { return e.pin->time < from; });
  }
  for (; entry != stream.waiting_.end(); ++entry) {
    if (inside(entry->pin, from, to)) {
      out.waiting.push_back(entry->pin);
    } else if (stream.ascending_) {
      break;
    }
  }
  out.stored = stream.stored_;
  out.epoch = epoch_;
  out.marker = marker_;
}

bool WriteBuffer::sameCut(const Snapshot& snapshot) const {
  MutexLock lock(mutex_);
  return snapshot.epoch == epoch_;
}

std::size_t WriteBuffer::kept(const BufferedStream& stream) const {
  MutexLock lock(mutex_);
  return stream.waiting_.capacity() + stream.inFlight_.capacity();
}

Span WriteBuffer::stored(const BufferedStream& stream) const {
  MutexLock lock(mutex_);
  return stream.stored_;
}

}  // namespace orva::sqlite
