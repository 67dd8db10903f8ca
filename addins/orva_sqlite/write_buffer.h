#pragma once

#include <cstdint>
#include <vector>

#include "host/pin.h"
#include "orva_sqlite/counters.h"
#include "share/mutex.h"
#include "share/signal.h"

namespace orva::sqlite {

// The times of a stream's oldest and newest sample in the file. Empty when first > last.
struct Span {
  std::int64_t first = 1;
  std::int64_t last = 0;

  bool empty() const { return first > last; }
  bool meets(std::int64_t from, std::int64_t to) const {
    return !empty() && from <= last && to >= first;
  }
  void extend(std::int64_t from, std::int64_t to);
};

// What one item and layer has in the write buffer. Every field is guarded by the buffer's mutex.
class BufferedStream {
 public:
  BufferedStream() = default;
  BufferedStream(const BufferedStream&) = delete;
  BufferedStream& operator=(const BufferedStream&) = delete;

 private:
  friend class WriteBuffer;
  struct Entry {
    std::uint64_t number;  // counts the samples of all streams in the order of their arrival
    PinPtr pin;
  };
  std::vector<Entry> waiting_;    // in its first `taken_` places nothing is left
  std::size_t taken_ = 0;         // 0 when nothing waits
  bool ascending_ = true;         // whether the waiting samples are in ascending time
  std::vector<PinPtr> inFlight_;  // in the transaction that is being made, or is to be tried again
  // Never smaller than what a read may find in the file.
  Span stored_;
};

// The samples between write() and the file.
//
// They wait in the order of their arrival; the writer's thread takes the oldest of them into one
// batch at a time, which stays readable here until its transaction is through. So the file always
// holds a prefix of what was accepted, and a reader can put both together: snapshot() says which
// samples are not in the file, and sameCut() whether that still held when the reader's own
// transaction began.
//
// Thread-safe. Its mutex is a leaf: nothing is called while it is held.
class WriteBuffer {
 public:
  // Of the samples waiting for a batch there are `capacity` at most. `wake` is notified when the
  // first one arrives, and when `batchSize` wait.
  WriteBuffer(std::uint32_t capacity, std::uint32_t batchSize, Signal& wake);

  // ---- writers
  // False when the buffer is full: the sample is not taken.
  bool offer(BufferedStream& stream, const PinPtr& pin) EXCLUDES(mutex_);
  // Whether half of the capacity is used, or more. Who asks waits then, so the batch is due.
  bool crowded() EXCLUDES(mutex_);

  // ---- the writer's thread
  std::size_t waiting() const EXCLUDES(mutex_);
  // When the oldest waiting sample came, or earlier; ticks.
  std::int64_t waitingSince() const EXCLUDES(mutex_);
  bool batchIsDue(std::int64_t now, std::int64_t period) const EXCLUDES(mutex_);
  bool hasBatch() const EXCLUDES(mutex_);
  // Makes the oldest samples, `batchSize` at most, the batch. There must be none.
  void takeBatch() EXCLUDES(mutex_);
  // The batch's samples of a stream. They change in the functions below only.
  const std::vector<PinPtr>& batchOf(const BufferedStream& stream) const NO_THREAD_SAFETY_ANALYSIS {
    return stream.inFlight_;
  }
  // The streams of the batch, in the order in which their first samples came.
  const std::vector<BufferedStream*>& batchStreams() const NO_THREAD_SAFETY_ANALYSIS {
    return batchStreams_;
  }
  // The transaction with the batch is about to be committed: from now on a reader may find it in
  // the file, and can tell by the row `marker` whether it does.
  void committing(std::int64_t marker) EXCLUDES(mutex_);
  // It was, or was not and the batch stays. The number of samples written.
  std::size_t committed(bool done) EXCLUDES(mutex_);
  void setStored(BufferedStream& stream, Span span) EXCLUDES(mutex_);
  // Drops everything; returns how many samples were lost.
  std::size_t discard() EXCLUDES(mutex_);

  // ---- readers
  struct Snapshot {
    std::vector<PinPtr> inFlight;  // of the stretch asked for, in order of arrival
    std::vector<PinPtr> waiting;
    Span stored;
    std::uint64_t epoch = 0;
    std::int64_t marker = 0;  // not 0: the batch is in the file if this row is
  };
  // Samples of the stream from `from` to `to`, both included.
  void snapshot(const BufferedStream& stream, std::int64_t from, std::int64_t to,
                Snapshot& out) const EXCLUDES(mutex_);
  bool sameCut(const Snapshot& snapshot) const EXCLUDES(mutex_);
  Span stored(const BufferedStream& stream) const EXCLUDES(mutex_);

  // For how many samples the stream has places, used or not; for tests.
  std::size_t kept(const BufferedStream& stream) const EXCLUDES(mutex_);

 private:
  void enter(BufferedStream& stream, const PinPtr& pin) REQUIRES(mutex_);
  void takeFrom(BufferedStream& stream, std::uint64_t end) REQUIRES(mutex_);

  const std::size_t capacity_;
  const std::size_t batchSize_;
  const std::size_t wakeAt_;
  Signal& wake_;
  mutable Mutex mutex_;                                    // leaf
  std::vector<BufferedStream*> dirty_ GUARDED_BY(mutex_);  // those with waiting samples
  std::vector<BufferedStream*> batchStreams_ GUARDED_BY(mutex_);
  std::size_t inFlight_ GUARDED_BY(mutex_) = 0;  // samples of the batch
  std::vector<PinPtr> released_;                 // the writer's thread's; has room for the batch
  std::uint64_t nextNumber_ GUARDED_BY(mutex_) = 0;
  std::uint64_t headNumber_ GUARDED_BY(mutex_) = 0;  // of the oldest waiting sample
  std::int64_t since_ GUARDED_BY(mutex_) = 0;
  bool awaited_ GUARDED_BY(mutex_) = false;  // somebody waits for the next batch to be taken
  // Changes whenever what the file may hold changes.
  std::uint64_t epoch_ GUARDED_BY(mutex_) = 0;
  std::int64_t marker_ GUARDED_BY(mutex_) = 0;
};

}  // namespace orva::sqlite
