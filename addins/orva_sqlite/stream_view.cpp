#include "orva_sqlite/stream_view.h"

#include <algorithm>

namespace orva::sqlite {
namespace {

constexpr std::size_t kChunk = 500;  // samples handed over at once

bool earlier(const PinPtr& a, const PinPtr& b) { return a->time < b->time; }

}  // namespace

// The samples that are not in the file and the file's content must be of one moment. So the buffer
// is looked at before and after the reader's transaction began; the file may have got a batch in
// between only if the buffer says so, and then both are looked at again.
StreamView::StreamView(const Stream& stream, std::int64_t from, std::int64_t to,
                       const WriteBuffer& buffer, ReaderPool& pool, DamageRegister& damage)
    : stream_(stream), pool_(pool), damage_(damage) {
  WriteBuffer::Snapshot snapshot;
  for (;;) {
    buffer.snapshot(stream, from, to, snapshot);
    if (!snapshot.stored.meets(from, to) || !openFile()) break;
    key_ = fileKey(stream);
    // Any look-up makes the transaction begin.
    const bool inFile = reader_->segments.exists(snapshot.marker) && snapshot.marker != 0;
    if (reader_->db.failed()) {
      checkFailure();
      break;
    }
    if (buffer.sameCut(snapshot)) {
      if (inFile) snapshot.inFlight.clear();
      break;
    }
    closeFile();  // the file may be another one by now
  }
  tail_ = std::move(snapshot.inFlight);
  tail_.insert(tail_.end(), snapshot.waiting.begin(), snapshot.waiting.end());
  std::stable_sort(tail_.begin(), tail_.end(), earlier);
}

StreamView::~StreamView() { closeFile(); }

bool StreamView::openFile() {
  if (!reader_) reader_ = pool_.take(problem_);
  if (reader_ && reader_->db.exec("BEGIN")) return true;
  if (reader_) problem_ = reader_->db.failure();
  unavailable_ = true;
  closeFile();
  return false;
}

void StreamView::closeFile() {
  if (!reader_) return;
  reader_->db.rollback();
  pool_.giveBack(std::move(reader_));
}

void StreamView::checkFailure() {
  if (!reader_ || !reader_->db.failed()) return;
  unavailable_ = true;
  if (reader_->db.isUnreadable()) damage_.doubt();
  problem_ = reader_->db.failure();
  closeFile();
}

// False for a damaged segment, which is then left out.
bool StreamView::decode(const SegmentTable::Cursor& cursor) {
  const Decoded how = cursor.decode(reader_->decoder, reader_->columns);
  if (how == Decoded::kGood) return true;
  damage_.report(stream_, reader_->segments.bounded(key_, cursor.segment()), how);
  metDamage_ = true;
  return false;
}

void StreamView::checkDamage(std::int64_t from, std::int64_t to) {
  if (from <= to && damage_.meets(stream_, from, to)) metDamage_ = true;
}

PinPtr StreamView::newest(std::int64_t from, std::int64_t to) {
  const auto above = std::upper_bound(tail_.begin(), tail_.end(), to,
                                      [](std::int64_t t, const PinPtr& p) { return t < p->time; });
  PinPtr best;
  if (above != tail_.begin() && (*std::prev(above))->time >= from) best = *std::prev(above);
  if (reader_) {
    SegmentTable::Cursor cursor = reader_->segments.backward(key_, to);
    while (cursor.next()) {
      const std::int64_t reach =
          cursor.segment().isTwisted() ? to : std::min(cursor.segment().last, to);
      // A buffered sample arrived later than one of the file that has the same time.
      if (reach < from || (best && best->time >= reach)) break;
      if (!decode(cursor)) continue;
      const auto& times = reader_->columns.times;
      const auto at = std::upper_bound(times.begin(), times.end(), to) - times.begin() - 1;
      const PinPtr found = reader_->columns.pin(static_cast<std::size_t>(at));
      if (found->time >= from && (!best || found->time > best->time)) best = found;
      break;
    }
  }
  checkFailure();
  checkDamage(best ? best->time : from, to);
  return best;
}

PinPtr StreamView::oldest(std::int64_t from, std::int64_t to) {
  const auto at = std::lower_bound(tail_.begin(), tail_.end(), from,
                                   [](const PinPtr& p, std::int64_t t) { return p->time < t; });
  PinPtr best;
  if (at != tail_.end() && (*at)->time <= to) best = *at;
  if (reader_) {
    SegmentTable::Cursor cursor =
        reader_->segments.forward(key_, reader_->segments.beginFor(key_, from));
    while (cursor.next()) {
      const std::int64_t reach = std::max(cursor.segment().first, from);
      if (reach > to || (best && best->time < reach)) break;
      if (!cursor.segment().reaches(from) || !decode(cursor)) continue;
      const auto& times = reader_->columns.times;
      const auto index = std::lower_bound(times.begin(), times.end(), from) - times.begin();
      const PinPtr found = reader_->columns.pin(static_cast<std::size_t>(index));
      if (found->time <= to && (!best || found->time <= best->time)) best = found;
      break;
    }
  }
  checkFailure();
  checkDamage(from, best ? best->time : to);
  return best;
}

bool StreamView::flush(SampleSink& sink) {
  const bool more = chunk_.empty() || sink.take(chunk_.data(), chunk_.size());
  chunk_.clear();
  return more;
}

bool StreamView::emit(const PinPtr& pin, SampleSink& sink) {
  chunk_.push_back(pin);
  return chunk_.size() < std::min<std::uint64_t>(kChunk, sink.room()) || flush(sink);
}

bool StreamView::range(std::int64_t from, std::int64_t to, SampleSink& sink) {
  tailAt_ = static_cast<std::size_t>(
      std::lower_bound(tail_.begin(), tail_.end(), from,
                       [](const PinPtr& p, std::int64_t t) { return p->time < t; }) -
      tail_.begin());
  bool more = true;
  std::int64_t reached = to;
  if (reader_) {
    SegmentTable::Cursor cursor =
        reader_->segments.forward(key_, reader_->segments.beginFor(key_, from));
    while (more && cursor.next() && cursor.segment().first <= to) {
      if (!cursor.segment().reaches(from) || !decode(cursor)) continue;
      more = rangeOfSegment(from, to, sink);
      reached = cursor.segment().last;
    }
  }
  checkFailure();
  while (more && tailAt_ < tail_.size() && tail_[tailAt_]->time <= to) {
    reached = tail_[tailAt_]->time;
    more = emit(tail_[tailAt_++], sink);
  }
  if (more) more = flush(sink);
  checkDamage(from, more ? to : std::min(reached, to));
  return more;
}

// The samples of the decoded segment, and those of the tail that lie before or between them.
bool StreamView::rangeOfSegment(std::int64_t from, std::int64_t to, SampleSink& sink) {
  const Columns& columns = reader_->columns;
  const auto& times = columns.times;
  auto at =
      static_cast<std::size_t>(std::lower_bound(times.begin(), times.end(), from) - times.begin());
  const auto end =
      static_cast<std::size_t>(std::upper_bound(times.begin(), times.end(), to) - times.begin());
  for (; at < end; ++at) {
    while (tailAt_ < tail_.size() && tail_[tailAt_]->time < times[at]) {
      if (!emit(tail_[tailAt_++], sink)) return false;
    }
    if (!emit(columns.pin(at), sink)) return false;
  }
  return true;
}

}  // namespace orva::sqlite
