#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "orva_sqlite/catalog.h"
#include "orva_sqlite/damage_register.h"
#include "orva_sqlite/store.h"

namespace orva::sqlite {

// Puts samples into segments, joins small segments, takes samples away at the old end; always so
// that the segments of a stream do not overlap (see Segment). Each call works inside a transaction
// of its caller and for the writer's thread only.
class SegmentWriter {
 public:
  SegmentWriter(Store& store, DamageRegister& damage, Counters& counters)
      : store_(store), damage_(damage), counters_(counters) {}

  // Adds samples in the order of their arrival. Usually they are newer than all before; older ones
  // are put into the segments they fall into.
  void append(Stream& stream, Columns& samples);

  // The same for samples that come in bulk: those newer than all before fill the newest segment up.
  void extend(Stream& stream, Columns& samples);
  // Puts samples in ascending time in the place of all those from `from` to `to`, both included.
  void replace(Stream& stream, std::int64_t from, std::int64_t to, const Columns& samples);

  // Whether enough small segments may have come together for mergeSmall() to look.
  static bool mayMerge(const Stream& stream);
  // Joins the small segments at the end of which new ones were added, where enough of them have
  // come together, or all of them. Returns how many samples were rewritten.
  std::size_t mergeSmall(Stream& stream, bool all = false);

  // Puts neighbouring rows, oldest first, into as few as their samples need; how many samples that
  // were.
  std::size_t mergeRows(Stream& stream, const std::vector<Segment>& rows);

  // Deletes the oldest samples of a stream: those before `cutoff`, `budget` at most, never the
  // newest sample. Returns how many.
  std::size_t deleteOldest(const Stream& stream, std::int64_t cutoff, std::size_t budget);
  // Deletes the stream's oldest segment, `budget` samples of it at most, never the newest sample;
  // returns how many, 0 when it was damaged and is set apart. Adds what its row took to `bytes`.
  // Nothing when there is nothing to delete.
  std::optional<std::size_t> deleteFirstSegment(const Stream& stream, std::size_t budget,
                                                std::int64_t& bytes);
  // Of the file, as this transaction sees it.
  Span spanOf(const StreamKey& key);

 private:
  struct Place {
    std::optional<Segment> base;  // the row before, or the first of those that are replaced
    bool replaces = false;        // base is replaced itself
    std::optional<Segment> next;  // the row behind
  };
  void insertPieces(Stream& stream, const Columns& samples, std::size_t from, std::size_t to,
                    const Place& place);
  void appendOlder(Stream& stream, const Columns& samples);
  std::size_t insertInto(Stream& stream, const Columns& samples, std::size_t from,
                         const Segment& row);
  std::size_t insertBetween(Stream& stream, const Columns& samples, std::size_t from,
                            const std::optional<Segment>& before);
  std::optional<Segment> rowAt(const StreamKey& key, std::int64_t time);
  std::vector<Segment> smallRows(const Stream& stream);
  std::vector<Segment> rowsMeeting(const StreamKey& key, std::int64_t from, std::int64_t to);
  std::size_t deleteFrom(const Stream& stream, const Segment& row, std::size_t count);
  // Sets a row apart that does not decode.
  void setApart(const Stream& stream, const Segment& row, Decoded how);

  Store& store_;
  DamageRegister& damage_;
  Counters& counters_;
  Columns loaded_;
  Columns joined_;
};

}  // namespace orva::sqlite
