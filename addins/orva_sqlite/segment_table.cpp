#include "orva_sqlite/segment_table.h"

namespace orva::sqlite {
namespace {

void readRow(const Query& query, Segment& out) {
  out.id = query.number(0);
  out.first = query.number(1);
  out.seq = query.number(2);
  out.last = query.number(3);
  out.count = query.number(4);
}

Decoded decodeRow(const Query& query, const Segment& segment, SegmentDecoder& decoder,
                  Columns& out) {
  const Decoded result = decoder.decode(query.blob(5), query.size(5), out);
  if (result != Decoded::kGood) return result;
  if (out.times.front() == segment.first && out.times.back() == segment.last &&
      static_cast<std::int64_t>(out.size()) == segment.count) {
    return Decoded::kGood;
  }
  out.clear();
  return Decoded::kDamaged;
}

}  // namespace

SegmentTable::SegmentTable(Database& db)
    : db_(db),
      forward_(db,
               "SELECT id, first, seq, last, count, data FROM segment "
               "WHERE handle = ?1 AND layer = ?2 AND first >= ?3 "
               "ORDER BY first, seq"),
      backward_(db,
                "SELECT id, first, seq, last, count, data FROM segment "
                "WHERE handle = ?1 AND layer = ?2 AND first <= ?3 "
                "ORDER BY first DESC, seq DESC"),
      after_(db,
             "SELECT id, first, seq, last, count FROM segment "
             "WHERE handle = ?1 AND layer = ?2 AND (first, seq) > (?3, ?4) "
             "ORDER BY first, seq LIMIT 1"),
      exists_(db, "SELECT 1 FROM segment WHERE id = ?1"),
      holds_(db,
             "SELECT 1 FROM segment WHERE id = ?1 AND ifnull(CAST(last AS INTEGER), 0) = ?2 "
             "AND ifnull(CAST(count AS INTEGER), 0) = ?3"),
      inPlace_(db,
               "SELECT 1 FROM segment WHERE id = ?1 AND +handle = ?2 AND +layer = ?3 "
               "AND +first = ?4 AND +seq = ?5"),
      byId_(db,
            "SELECT id, first, seq, last, count, data, handle, layer FROM segment WHERE id = ?1"),
      nextStream_(db,
                  "SELECT handle, layer FROM segment WHERE (handle, layer) > (?1, ?2) "
                  "ORDER BY handle, layer LIMIT 1") {}

bool SegmentTable::prepare() {
  return forward_.prepare() && backward_.prepare() && after_.prepare() && exists_.prepare() &&
         holds_.prepare() && inPlace_.prepare() && byId_.prepare() && nextStream_.prepare();
}

void SegmentTable::finalize() {
  forward_.finalize();
  backward_.finalize();
  after_.finalize();
  exists_.finalize();
  holds_.finalize();
  inPlace_.finalize();
  byId_.finalize();
  nextStream_.finalize();
}

bool SegmentTable::Cursor::next() {
  if (!query_.row()) return false;
  readRow(query_, segment_);
  segment_.size = static_cast<std::int64_t>(query_.size(5));
  return true;
}

Decoded SegmentTable::Cursor::decode(SegmentDecoder& decoder, Columns& out) const {
  return decodeRow(query_, segment_, decoder, out);
}

SegmentTable::Cursor::Cursor(Statement& statement, const StreamKey& key, std::int64_t from)
    : query_(statement) {
  query_.bind(key.handle).bind(key.layer).bind(from);
}

SegmentTable::Cursor SegmentTable::forward(const StreamKey& key, std::int64_t from) {
  return Cursor(forward_, key, from);
}

SegmentTable::Cursor SegmentTable::backward(const StreamKey& key, std::int64_t from) {
  return Cursor(backward_, key, from);
}

std::optional<Segment> SegmentTable::after(const StreamKey& key, const Segment& segment) {
  Query query(after_);
  query.bind(key.handle).bind(key.layer).bind(segment.first).bind(segment.seq);
  if (!query.row()) return {};
  Segment found;
  readRow(query, found);
  return found;
}

Segment SegmentTable::bounded(const StreamKey& key, Segment segment) {
  if (!segment.isTwisted()) return segment;
  if (const auto next = after(key, segment)) segment.bound = next->first;
  return segment;
}

std::int64_t SegmentTable::beginFor(const StreamKey& key, std::int64_t start) {
  if (start == kEarliest) return start;
  Cursor before = backward(key, start - 1);
  return before.next() && before.segment().reaches(start) ? before.segment().first : start;
}

bool SegmentTable::exists(std::int64_t id) {
  Query query(exists_);
  return query.bind(id).row();
}

bool SegmentTable::holds(const Segment& segment) {
  Query query(holds_);
  return query.bind(segment.id).bind(segment.last).bind(segment.count).row();
}

bool SegmentTable::isInPlace(const StreamKey& key, const Segment& segment) {
  Query query(inPlace_);
  query.bind(segment.id).bind(key.handle).bind(key.layer).bind(segment.first).bind(segment.seq);
  return query.row();
}

bool SegmentTable::isGood(std::int64_t id, SegmentDecoder& decoder, Columns& out) {
  Query query(byId_);
  if (!query.bind(id).row()) return false;
  Segment row;
  readRow(query, row);
  return decodeRow(query, row, decoder, out) == Decoded::kGood;
}

Decoded SegmentTable::load(const StreamKey& key, const Segment& segment, SegmentDecoder& decoder,
                           Columns& out) {
  out.clear();
  Query query(byId_);
  if (!query.bind(segment.id).row()) {
    db_.noteCorrupt("the index leads to a segment that is not there");
    return Decoded::kDamaged;
  }
  Segment row;
  readRow(query, row);
  const Decoded how = decodeRow(query, row, decoder, out);
  const bool inPlace = row.first == segment.first && row.seq == segment.seq &&
                       query.number(6) == key.handle && query.number(7) == key.layer;
  if (how == Decoded::kGood && !inPlace) {
    db_.noteCorrupt("the index has a segment in another place than it belongs to");
    return Decoded::kDamaged;
  }
  return how;
}

std::optional<StreamKey> SegmentTable::nextStream(const StreamKey& key) {
  Query query(nextStream_);
  if (!query.bind(key.handle).bind(key.layer).row()) return {};
  return StreamKey{query.number(0), static_cast<std::int32_t>(query.number(1))};
}

}  // namespace orva::sqlite
