#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "orva_sqlite/columns.h"
#include "orva_sqlite/segment_table.h"
#include "orva_store/store_writer.h"

namespace orva::store {

// Whether two samples are one and the same: time, quality, type and value. NaN is NaN, whatever its
// bits are, and a text that is none is an empty one.
bool isSameSample(const sqlite::Columns& a, std::size_t i, const sqlite::Columns& b, std::size_t j);

// Marks each sample, in ascending time, that stands further ahead already.
void markRepeated(const sqlite::Columns& samples, std::vector<bool>& marks);

// Keeps those samples that are not marked.
void dropMarked(sqlite::Columns& samples, const std::vector<bool>& marks);

// Reads a stretch of a stream segment by segment. A segment that is damaged is passed over, and the
// store told of it.
class StretchReader {
 public:
  explicit StretchReader(StoreWriter& store) : store_(store) {}

  // Calls take(columns, begin, end) for the samples from `from` to `to`, both included, in order.
  template <class Take>
  void read(const sqlite::StreamKey& key, std::int64_t from, std::int64_t to, Take take);

  // Marks those of `samples`, in ascending time, that the stream holds already.
  void markStored(const sqlite::StreamKey& key, const sqlite::Columns& samples,
                  std::vector<bool>& marks);

 private:
  std::size_t markSegment(const sqlite::Columns& samples, std::size_t at,
                          std::vector<bool>& marks) const;

  bool load(const sqlite::SegmentTable::Cursor& cursor);

  StoreWriter& store_;
  sqlite::Columns loaded_;
};

template <class Take>
void StretchReader::read(const sqlite::StreamKey& key, std::int64_t from, std::int64_t to,
                         Take take) {
  sqlite::SegmentTable& segments = store_.store().segments();
  sqlite::SegmentTable::Cursor cursor = segments.forward(key, segments.beginFor(key, from));
  while (cursor.next() && cursor.segment().first <= to) {
    if (cursor.segment().last < from) continue;
    if (!load(cursor)) continue;
    const auto begin = std::lower_bound(loaded_.times.begin(), loaded_.times.end(), from);
    const auto end = std::upper_bound(begin, loaded_.times.end(), to);
    take(loaded_, static_cast<std::size_t>(begin - loaded_.times.begin()),
         static_cast<std::size_t>(end - loaded_.times.begin()));
  }
}

}  // namespace orva::store
