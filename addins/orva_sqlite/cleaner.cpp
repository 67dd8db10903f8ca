#include "orva_sqlite/cleaner.h"

#include <algorithm>
#include <queue>

namespace orva::sqlite {
namespace {

struct Later {
  bool operator()(const Stream* a, const Stream* b) const {
    return a->stored.first > b->stored.first;
  }
};

}  // namespace

Cleaner::Cleaner(const archive::ArchiveCfg& limits, Store& store, SegmentWriter& writer,
                 Catalog& catalog, WriteBuffer& buffer, DamageRegister& damage, Counters& counters)
    : maxPerStep_(std::max(1U, limits.maxDelValues)),
      maxTime_(limits.maxTime),
      store_(store),
      writer_(writer),
      catalog_(catalog),
      buffer_(buffer),
      damage_(damage),
      counters_(counters) {}

void Cleaner::start(std::int64_t now) {
  streams_ = catalog_.streams();
  next_ = 0;
  phase_ = maxTime_ > 0 ? Phase::kAge : Phase::kSize;
  cutoff_ = maxTime_ <= 0 || now < kEarliest + maxTime_ ? kEarliest : now - maxTime_;
}

bool Cleaner::step() {
  touched_.clear();
  if (phase_ == Phase::kSize &&
      (store_.space().target() == 0 || store_.space().used() <= store_.space().target())) {
    phase_ = Phase::kIdle;
    store_.space().shrink();
    if (store_.space().target() != 0) store_.space().checkpoint();
    return !store_.db().failed();
  }
  if (!store_.begin(false)) return finishStep(0);
  return finishStep(phase_ == Phase::kAge ? deleteOld() : deleteForSize());
}

std::size_t Cleaner::deleteOld() {
  std::size_t deleted = 0;
  for (; next_ < streams_.size() && deleted < maxPerStep_; ++next_) {
    Stream& stream = *streams_[next_];
    if (stream.stored.empty() || stream.stored.first >= cutoff_) continue;
    deleted += writer_.deleteOldest(stream, cutoff_, maxPerStep_ - deleted);
    touched_.push_back(&stream);
    if (deleted == maxPerStep_) break;  // there may be more of this one
  }
  if (next_ == streams_.size()) {
    store_.removeDamagedBefore(cutoff_);
    phase_ = Phase::kSize;
  }
  return deleted;
}

std::size_t Cleaner::deleteForSize() {
  const std::size_t deleted = deleteFromOldest(store_.space().used() - store_.space().target());
  if (deleted == 0) {
    // Nothing but newest samples is left; what was set apart may go too.
    store_.removeDamagedBefore(kLatest);
    phase_ = Phase::kIdle;
  }
  return deleted;
}

// Segments of whatever stream begins earliest, until about `excess` bytes are gone.
std::size_t Cleaner::deleteFromOldest(std::int64_t excess) {
  std::priority_queue<Stream*, std::vector<Stream*>, Later> queue;
  for (Stream* const stream : streams_) {
    if (!stream->stored.empty()) queue.push(stream);
  }
  std::int64_t freed = 0;
  std::size_t deleted = 0;
  while (!queue.empty() && freed < excess && deleted < maxPerStep_ && !store_.db().failed()) {
    Stream* const stream = queue.top();
    queue.pop();
    const auto gone = writer_.deleteFirstSegment(*stream, maxPerStep_ - deleted, freed);
    if (!gone) continue;
    deleted += *gone;
    touched_.push_back(stream);
    stream->stored = writer_.spanOf(fileKey(*stream));
    if (!stream->stored.empty()) queue.push(stream);
  }
  return deleted;
}

bool Cleaner::finishStep(std::size_t deleted) {
  // Also after a failure: what the file holds is asked of the file.
  const bool done = !store_.db().failed() && store_.commit();
  if (!done) {
    phase_ = Phase::kIdle;
    // What the step thought to have deleted is there still.
    for (Stream* const stream : touched_) stream->stored = buffer_.stored(*stream);
    return false;
  }
  counters_.deleted += deleted;
  if (phase_ == Phase::kSize && maxTime_ > 0) damage_.forgetBefore(cutoff_);
  for (Stream* const stream : touched_) {
    const Span span = writer_.spanOf(fileKey(*stream));
    // A span that is too large costs a look, one that is too small hides samples.
    stream->stored = store_.db().failed() ? buffer_.stored(*stream) : span;
    buffer_.setStored(*stream, stream->stored);
  }
  return !store_.db().failed();
}

}  // namespace orva::sqlite
