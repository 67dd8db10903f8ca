#include "orva_sqlite/segment_writer.h"

#include <algorithm>

namespace orva::sqlite {
namespace {

// Small segments are joined once they make up one of the next class: 8, 64, then 1000 samples. So a
// sample that came alone is rewritten three times, and a stream has few small rows.
constexpr std::int64_t kClasses[] = {8, 64, static_cast<std::int64_t>(kSegmentSamples)};
constexpr std::uint32_t kLookEvery = 8;  // new rows
constexpr std::size_t kMaxRows = 64;     // looked at in one go
// A row of so many bytes is left alone whatever its number of samples.
constexpr std::int64_t kBigRow = 65536;

bool isFull(const Segment& row) {
  return row.count >= static_cast<std::int64_t>(kSegmentSamples) || row.size >= kBigRow;
}

std::size_t firstNotBefore(const Columns& samples, std::size_t from, std::int64_t time) {
  const auto begin = samples.times.begin();
  return static_cast<std::size_t>(
      std::lower_bound(begin + static_cast<std::ptrdiff_t>(from), samples.times.end(), time) -
      begin);
}

}  // namespace

// Gives each piece the `seq` that keeps rows of one first time in the order of arrival: pieces that
// begin where the row before begins come after it, those that begin where the row behind begins
// come before that one. A replaced row's own numbers are enough for the pieces that begin with it,
// since no row holds fewer samples than a piece that is followed by another.
void SegmentWriter::insertPieces(Stream& stream, const Columns& samples, std::size_t from,
                                 std::size_t to, const Place& place) {
  std::vector<std::size_t> ends;
  for (std::size_t at = from; at < to; at = ends.back()) {
    ends.push_back(std::min(to, samples.segmentEnd(at)));
  }
  std::int64_t before = 0;
  std::int64_t seq = -1;
  if (place.base) {
    before = place.base->first;
    seq = place.base->seq - (place.replaces ? 1 : 0);
  }
  std::size_t begin = from;
  for (std::size_t i = 0; i < ends.size(); begin = ends[i++]) {
    const std::int64_t first = samples.times[begin];
    const bool likeBase = place.base && first == place.base->first;
    if (place.next && first == place.next->first && !likeBase) {
      seq = place.next->seq - static_cast<std::int64_t>(ends.size() - i);
    } else {
      const bool continues = (i > 0 || place.base) && first == before;
      seq = continues ? seq + 1 : 0;
    }
    before = first;
    const Segment row = store_.insert(fileKey(stream), samples, begin, ends[i], seq);
    ++stream.freshRows;
    stream.freshTo = std::max(stream.freshTo, row.first);
  }
}

void SegmentWriter::append(Stream& stream, Columns& samples) {
  samples.sortByTime();
  const Span& stored = stream.stored;
  if (!stored.empty() && samples.times.front() < stored.last) return appendOlder(stream, samples);
  Place place;
  if (!stored.empty() && samples.times.front() == stored.last) {
    place.base = rowAt(fileKey(stream), stored.last);
  }
  insertPieces(stream, samples, 0, samples.size(), place);
}

void SegmentWriter::extend(Stream& stream, Columns& samples) {
  samples.sortByTime();
  const StreamKey key = fileKey(stream);
  const std::optional<Segment> newest = rowAt(key, kLatest);
  if (!newest || isFull(*newest) || samples.times.front() < newest->last) {
    return append(stream, samples);
  }
  if (store_.segments().load(key, *newest, store_.decoder(), joined_) != Decoded::kGood) {
    return append(stream, samples);
  }
  joined_.append(samples, 0, samples.size());
  Place place;
  place.base = newest;
  place.replaces = true;
  store_.remove(newest->id);
  insertPieces(stream, joined_, 0, joined_.size(), place);
}

std::vector<Segment> SegmentWriter::rowsMeeting(const StreamKey& key, std::int64_t from,
                                                std::int64_t to) {
  std::vector<Segment> rows;
  SegmentTable::Cursor cursor =
      store_.segments().forward(key, store_.segments().beginFor(key, from));
  while (cursor.next() && cursor.segment().first <= to) {
    if (cursor.segment().reaches(from)) rows.push_back(cursor.segment());
  }
  return rows;
}

void SegmentWriter::replace(Stream& stream, std::int64_t from, std::int64_t to,
                            const Columns& samples) {
  const StreamKey key = fileKey(stream);
  const std::vector<Segment> rows = rowsMeeting(key, from, to);
  Columns before;  // in the end all of it
  Columns after;
  Place place;
  for (const Segment& row : rows) {
    const Decoded how = store_.segments().load(key, row, store_.decoder(), loaded_);
    if (store_.db().failed()) return;
    if (how != Decoded::kGood) {
      setApart(stream, row, how);
      continue;
    }
    const std::size_t begin = firstNotBefore(loaded_, 0, from);
    const std::size_t end = to == kLatest ? loaded_.size() : firstNotBefore(loaded_, begin, to + 1);
    before.append(loaded_, 0, begin);
    after.append(loaded_, end, loaded_.size());
    if (!place.base) place.base = row;
    store_.remove(row.id);
  }
  before.append(samples, 0, samples.size());
  before.append(after, 0, after.size());
  if (before.empty()) return;
  if (!place.base) return extend(stream, before);
  place.replaces = true;
  place.next = store_.segments().after(key, rows.back());
  insertPieces(stream, before, 0, before.size(), place);
}

// The row behind which, or into which, a sample of this time goes.
std::optional<Segment> SegmentWriter::rowAt(const StreamKey& key, std::int64_t time) {
  SegmentTable::Cursor cursor = store_.segments().backward(key, time);
  if (!cursor.next()) return {};
  return cursor.segment();
}

void SegmentWriter::appendOlder(Stream& stream, const Columns& samples) {
  const StreamKey key = fileKey(stream);
  for (std::size_t at = 0; at < samples.size() && !store_.db().failed();) {
    const std::optional<Segment> row = rowAt(key, samples.times[at]);
    const bool inside = row && (row->isTwisted() || row->last > samples.times[at]);
    at = inside ? insertInto(stream, samples, at, *row) : insertBetween(stream, samples, at, row);
  }
}

// The samples from `from` on that fall into `row`; returns where those end.
std::size_t SegmentWriter::insertInto(Stream& stream, const Columns& samples, std::size_t from,
                                      const Segment& row) {
  const StreamKey key = fileKey(stream);
  const Decoded how = store_.segments().load(key, row, store_.decoder(), joined_);
  if (store_.db().failed()) return samples.size();
  if (how != Decoded::kGood) {
    setApart(stream, row, how);
    return from;
  }
  const std::size_t to = firstNotBefore(samples, from, row.last);
  joined_.append(samples, from, to);
  joined_.sortByTime();
  Place place;
  place.base = row;
  place.replaces = true;
  place.next = store_.segments().after(key, row);
  store_.remove(row.id);
  insertPieces(stream, joined_, 0, joined_.size(), place);
  return to;
}

// The samples from `from` on that lie before the next row; returns where those end.
std::size_t SegmentWriter::insertBetween(Stream& stream, const Columns& samples, std::size_t from,
                                         const std::optional<Segment>& before) {
  const StreamKey key = fileKey(stream);
  Place place;
  place.base = before;
  if (before) {
    place.next = store_.segments().after(key, *before);
  } else {
    SegmentTable::Cursor cursor = store_.segments().forward(key);
    if (cursor.next()) place.next = cursor.segment();
  }
  const std::size_t to =
      place.next ? firstNotBefore(samples, from, place.next->first) : samples.size();
  if (to <= from) {
    // The next row begins before the one before it: this would never end.
    store_.db().noteCorrupt("putting a sample between two segments: the index is out of order");
    return samples.size();
  }
  insertPieces(stream, samples, from, to, place);
  return to;
}

bool SegmentWriter::mayMerge(const Stream& stream) { return stream.freshRows >= kLookEvery; }

// The small rows that end with the newest one added, oldest first.
std::vector<Segment> SegmentWriter::smallRows(const Stream& stream) {
  std::vector<Segment> rows;
  SegmentTable::Cursor cursor = store_.segments().backward(fileKey(stream), stream.freshTo);
  while (rows.size() < kMaxRows && cursor.next() && !isFull(cursor.segment())) {
    rows.push_back(cursor.segment());
  }
  std::reverse(rows.begin(), rows.end());
  return rows;
}

std::size_t SegmentWriter::mergeSmall(Stream& stream, bool all) {
  const std::vector<Segment> rows = smallRows(stream);
  // The largest class for which there are samples enough; a full look has to come to something.
  std::size_t begin = rows.size();
  std::int64_t sum = 0;
  std::size_t best = rows.size();
  for (const std::int64_t size : kClasses) {
    while (begin > 0 && rows[begin - 1].count < size) sum += rows[--begin].count;
    if (sum >= size) best = begin;
  }
  if (all || rows.size() == kMaxRows) best = 0;
  stream.freshRows = 0;
  stream.freshTo = kEarliest;
  if (rows.size() - best < 2) return 0;
  return mergeRows(stream, {rows.begin() + static_cast<std::ptrdiff_t>(best), rows.end()});
}

std::size_t SegmentWriter::mergeRows(Stream& stream, const std::vector<Segment>& rows) {
  const StreamKey key = fileKey(stream);
  joined_.clear();
  for (const Segment& row : rows) {
    const Decoded how = store_.segments().load(key, row, store_.decoder(), loaded_);
    if (store_.db().failed()) return 0;
    if (how != Decoded::kGood) {
      setApart(stream, row, how);
      stream.freshRows = kLookEvery;
      stream.freshTo = rows.back().first;
      return 0;
    }
    joined_.append(loaded_, 0, loaded_.size());
  }
  joined_.sortByTime();  // rows that overlap come of damage; after this they do not
  Place place;
  place.base = rows.front();
  place.replaces = true;
  place.next = store_.segments().after(key, rows.back());
  for (const Segment& row : rows) store_.remove(row.id);
  insertPieces(stream, joined_, 0, joined_.size(), place);
  stream.freshRows = 0;
  stream.freshTo = kEarliest;
  counters_.merged += rows.size();
  return joined_.size();
}

std::size_t SegmentWriter::deleteOldest(const Stream& stream, std::int64_t cutoff,
                                        std::size_t budget) {
  const StreamKey key = fileKey(stream);
  std::vector<Segment> rows;  // those that may lose samples
  std::size_t samples = 0;
  std::optional<Segment> newest;
  {
    SegmentTable::Cursor cursor = store_.segments().forward(key);
    while (samples < budget && cursor.next() && cursor.segment().first < cutoff) {
      rows.push_back(cursor.segment());
      samples += static_cast<std::size_t>(cursor.segment().count);
    }
    SegmentTable::Cursor last = store_.segments().backward(key);
    if (last.next()) newest = last.segment();
  }
  std::size_t deleted = 0;
  for (const Segment& row : rows) {
    std::size_t old = static_cast<std::size_t>(row.count);
    const bool isNewest = newest && newest->id == row.id;
    if (row.reaches(cutoff) || isNewest) {
      const Decoded how = store_.segments().load(key, row, store_.decoder(), loaded_);
      if (store_.db().failed()) return 0;
      if (how != Decoded::kGood) {
        setApart(stream, row, how);
        continue;
      }
      old = std::min(firstNotBefore(loaded_, 0, cutoff), loaded_.size() - (isNewest ? 1 : 0));
    }
    deleted += deleteFrom(stream, row, std::min(old, budget - deleted));
  }
  return deleted;
}

std::optional<std::size_t> SegmentWriter::deleteFirstSegment(const Stream& stream,
                                                             std::size_t budget,
                                                             std::int64_t& bytes) {
  const StreamKey key = fileKey(stream);
  std::optional<Segment> row;
  bool isNewest = false;
  {
    SegmentTable::Cursor cursor = store_.segments().forward(key);
    if (!cursor.next()) return {};
    row = cursor.segment();
    isNewest = !cursor.next();
  }
  if (isNewest && row->count == 1) return {};
  const std::size_t old = static_cast<std::size_t>(row->count) - (isNewest ? 1 : 0);
  const std::size_t deleted = deleteFrom(stream, *row, std::min(old, budget));
  if (deleted == 0) return 0;  // a damaged row's count may be anything
  bytes += row->size * static_cast<std::int64_t>(deleted) / row->count;
  return deleted;
}

// Takes the oldest `count` samples out of a row.
std::size_t SegmentWriter::deleteFrom(const Stream& stream, const Segment& row, std::size_t count) {
  if (row.count <= 0) {
    setApart(stream, row, Decoded::kDamaged);
    return 0;
  }
  if (count == 0) return 0;
  const StreamKey key = fileKey(stream);
  if (count == static_cast<std::size_t>(row.count)) {
    // What goes undecoded must at least be what was looked for.
    if (!store_.segments().isInPlace(key, row)) {
      store_.db().noteCorrupt("the index has a segment in another place than it belongs to");
      return 0;
    }
    store_.remove(row.id);
    return count;
  }
  const Decoded how = store_.segments().load(key, row, store_.decoder(), loaded_);
  if (store_.db().failed()) return 0;
  if (how != Decoded::kGood) {
    setApart(stream, row, how);
    return 0;
  }
  const std::optional<Segment> next = store_.segments().after(key, row);
  store_.remove(row.id);
  const std::int64_t first = loaded_.times[count];
  const bool likeNext = next && next->first == first;
  store_.insert(key, loaded_, count, loaded_.size(), likeNext ? next->seq - 1 : row.seq);
  return count;
}

Span SegmentWriter::spanOf(const StreamKey& key) {
  Span span;
  SegmentTable::Cursor first = store_.segments().forward(key);
  SegmentTable::Cursor last = store_.segments().backward(key);
  if (first.next() && last.next()) span.extend(first.segment().first, last.segment().end());
  return span;
}

void SegmentWriter::setApart(const Stream& stream, const Segment& row, Decoded how) {
  const Segment bounded = store_.segments().bounded(fileKey(stream), row);
  damage_.report(stream, bounded, how);
  // Otherwise whoever met it would meet it again at once.
  if (!store_.setApart(bounded, "cannot be decoded")) {
    store_.db().noteCorrupt("a damaged segment cannot be set apart");
  }
}

}  // namespace orva::sqlite
