#pragma once

#include <algorithm>
#include <cstdint>
#include <limits>
#include <optional>

#include "orva_sqlite/columns.h"
#include "orva_sqlite/segment_codec.h"
#include "sqlite_base/database.h"

namespace orva::sqlite {

constexpr std::int64_t kEarliest = std::numeric_limits<std::int64_t>::min();
constexpr std::int64_t kLatest = std::numeric_limits<std::int64_t>::max();

// What a segment is found by. `handle` is the item's number in the file.
struct StreamKey {
  std::int64_t handle = 0;
  std::int32_t layer = 0;
};

// A row of the table of segments, without its bytes.
//
// The segments of one stream never overlap: in the order of (first, seq) each begins at or after
// the time at which the one before ends, and of equal times the earlier segment arrived earlier. So
// a stretch of time is one run of rows, and the newest sample before a time is in one row.
struct Segment {
  std::int64_t id = 0;
  std::int64_t first = 0;
  std::int64_t seq = 0;
  std::int64_t last = 0;
  std::int64_t count = 0;
  std::int64_t size = 0;           // bytes
  std::int64_t bound = kEarliest;  // of a twisted one: where the next one begins, if it was asked

  // Whether it ends before it begins: damage, whose samples may be anywhere from `first` on.
  bool isTwisted() const { return last < first; }
  // Whether samples at `time` or later may be in it.
  bool reaches(std::int64_t time) const { return isTwisted() || last >= time; }
  std::int64_t end() const { return isTwisted() ? std::max(first, bound) : last; }
};

// The look-ups in the table of segments, for the writing and the reading connections alike.
class SegmentTable {
 public:
  explicit SegmentTable(Database& db);

  // Prepares every look-up: false when the table is not as this code expects it.
  bool prepare();
  void finalize();

  // Rows of a stream one after the other; one run per direction at a time.
  class Cursor {
   public:
    bool next();  // false at the end or after a failure of the connection
    const Segment& segment() const { return segment_; }
    // The samples of the current row; checked against what the row says of them.
    Decoded decode(SegmentDecoder& decoder, Columns& out) const;

   private:
    friend class SegmentTable;
    Cursor(Statement& statement, const StreamKey& key, std::int64_t from);
    Query query_;
    Segment segment_;
  };

  // Rows that begin at `from` or later, oldest first.
  Cursor forward(const StreamKey& key, std::int64_t from = kEarliest);
  // Rows that begin at `from` or before, newest first.
  Cursor backward(const StreamKey& key, std::int64_t from = kLatest);
  // The row right after `segment`.
  std::optional<Segment> after(const StreamKey& key, const Segment& segment);
  // The same segment, with its bound.
  Segment bounded(const StreamKey& key, Segment segment);
  // Where to begin with forward() for the samples from `start` on: a row that begins before may
  // reach into the stretch.
  std::int64_t beginFor(const StreamKey& key, std::int64_t start);
  bool exists(std::int64_t id);
  // Whether this very row is there: the file may be another one than that it was read from. The
  // time of its first sample is not asked for, since that may come from a damaged index; and damage
  // may have made the others no integers.
  bool holds(const Segment& segment);
  // Whether the row says itself that it belongs where the index has it.
  bool isInPlace(const StreamKey& key, const Segment& segment);
  // Whether a row, however it was found, has samples that can be decoded.
  bool isGood(std::int64_t id, SegmentDecoder& decoder, Columns& out);
  // The samples of a row that was found by the index. A good row in another place than the index
  // says, or none, is a failure of the connection: then the index is wrong, and not the row.
  Decoded load(const StreamKey& key, const Segment& segment, SegmentDecoder& decoder, Columns& out);

  // The first stream whose key is greater than `key`.
  std::optional<StreamKey> nextStream(const StreamKey& key);

 private:
  Database& db_;
  Statement forward_;
  Statement backward_;
  Statement after_;
  Statement exists_;
  Statement holds_;
  Statement inPlace_;
  Statement byId_;
  Statement nextStream_;
};

}  // namespace orva::sqlite
