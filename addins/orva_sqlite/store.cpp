#include "orva_sqlite/store.h"

#include <algorithm>

#include "host/host_time.h"

namespace orva::sqlite {

const Schema kArchiveSchema = {
    0x4F727661,  // "Orva"
    1,
    "CREATE TABLE item(handle INTEGER PRIMARY KEY, item_id INTEGER NOT NULL, path TEXT NOT NULL);"
    "CREATE TABLE segment(id INTEGER PRIMARY KEY, handle INTEGER NOT NULL,"
    " layer INTEGER NOT NULL, first INTEGER NOT NULL, seq INTEGER NOT NULL,"
    " last INTEGER NOT NULL, count INTEGER NOT NULL, data BLOB NOT NULL);"
    "CREATE UNIQUE INDEX segment_by_time ON segment(handle, layer, first, seq);"
    "CREATE TABLE damaged(id INTEGER PRIMARY KEY, handle INTEGER NOT NULL,"
    " layer INTEGER NOT NULL, first INTEGER NOT NULL, last INTEGER NOT NULL,"
    " count INTEGER NOT NULL, data BLOB, found INTEGER NOT NULL, reason TEXT NOT NULL);"
    "CREATE TABLE meta(key TEXT PRIMARY KEY, value) WITHOUT ROWID;"
    "INSERT INTO meta VALUES('format', 1);"};

Store::Store(const StoreParameters& parameters, std::int64_t maxBytes, Counters& counters)
    : parameters_(parameters),
      space_(db_, parameters, maxBytes),
      counters_(counters),
      segments_(db_),
      insertItem_(db_, "INSERT INTO item(handle, item_id, path) VALUES(?1, ?2, ?3)"),
      insertSegment_(db_,
                     "INSERT INTO segment(id, handle, layer, first, seq, last, count, data) "
                     "VALUES(?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8)"),
      removeSegment_(db_, "DELETE FROM segment WHERE id = ?1"),
      setApart_(db_,
                "INSERT INTO damaged(handle, layer, first, last, count, data, found, reason) "
                "SELECT ifnull(handle, 0), ifnull(layer, 0), ?2, ?3, ?4, data, ?5, ?6 "
                "FROM segment WHERE id = ?1"),
      removeDamaged_(db_, "DELETE FROM damaged WHERE last < ?1") {}

Opened Store::open(const std::string& file, Look look) {
  close();
  indexIsNew_ = false;
  bool looked = look == Look::kUsual;
  return openWithSchema(db_, space_, kArchiveSchema, file, look == Look::kWhole, [&] {
    looked = looked || mendIndex();
    return looked && prepare();
  });
}

bool Store::mendIndex() {
  indexIsNew_ = db_.exec("REINDEX segment_by_time");
  if (indexIsNew_) return true;
  if (!db_.isHarmless()) return false;
  db_.clearFailure();
  return true;
}

void Store::close() {
  finalizeAll();
  db_.rollback();
  db_.close();
}

bool Store::prepare() {
  if (!segments_.prepare() || !insertItem_.prepare() || !insertSegment_.prepare() ||
      !removeSegment_.prepare() || !setApart_.prepare() || !removeDamaged_.prepare()) {
    return false;
  }
  // Nobody gets the number of an item that has lost its name, nor what is stored under it.
  nextItem_ = db_.number(
                  "SELECT max(ifnull((SELECT max(handle) FROM item), 0), "
                  "ifnull((SELECT max(handle) FROM segment), 0))") +
              1;
  nextSegment_ = db_.number("SELECT max(id) FROM segment") + 1;
  return !db_.failed();
}

void Store::finalizeAll() {
  segments_.finalize();
  insertItem_.finalize();
  insertSegment_.finalize();
  removeSegment_.finalize();
  setApart_.finalize();
  removeDamaged_.finalize();
}

bool Store::forEachItem(const std::function<void(std::int64_t, const archive::ItemKey&)>& visit) {
  Statement statement(db_, "SELECT handle, item_id, path FROM item ORDER BY handle");
  Query query(statement);
  while (query.row()) {
    visit(query.number(0), {query.number(1), query.text(2)});
  }
  return !db_.failed();
}

bool Store::forEachDamaged(const std::function<void(const StreamKey&, const Segment&)>& visit) {
  Statement statement(db_, "SELECT handle, layer, first, last, count FROM damaged");
  Query query(statement);
  while (query.row()) {
    Segment segment;
    segment.first = query.number(2);
    segment.last = query.number(3);
    segment.count = query.number(4);
    visit({query.number(0), static_cast<std::int32_t>(query.number(1))}, segment);
  }
  return !db_.failed();
}

bool Store::begin(bool durable) {
  const bool relaxed = !durable && parameters_.synchronous != "OFF";
  const std::string mode =
      "PRAGMA synchronous=" + (relaxed ? std::string("NORMAL") : parameters_.synchronous);
  return db_.exec(mode.c_str()) && db_.begin();
}

bool Store::commit() {
  if (db_.commit()) return true;
  rollback();
  return false;
}

void Store::rollback() { db_.rollback(); }

void Store::insertItem(std::int64_t handle, const archive::ItemKey& key) {
  Query(insertItem_).bind(handle).bind(key.first).bindText(key.second).run();
  nextItem_ = std::max(nextItem_, handle + 1);
}

Segment Store::insert(const StreamKey& key, const Columns& samples, std::size_t from,
                      std::size_t to, std::int64_t seq) {
  Segment segment;
  const auto begin = samples.times.begin();
  if (!std::is_sorted(begin + static_cast<std::ptrdiff_t>(from),
                      begin + static_cast<std::ptrdiff_t>(to))) {
    db_.noteCorrupt("samples of a segment are out of order");  // nobody could decode it
    return segment;
  }
  const Bytes& data = encoder_.encode(samples, from, to);
  segment.id = nextSegment_++;
  segment.first = samples.times[from];
  segment.seq = seq;
  segment.last = samples.times[to - 1];
  segment.count = static_cast<std::int64_t>(to - from);
  segment.size = static_cast<std::int64_t>(data.size());
  Query query(insertSegment_);
  query.bind(segment.id).bind(key.handle).bind(key.layer).bind(segment.first).bind(seq);
  query.bind(segment.last).bind(segment.count).bindBlob(data.data(), data.size()).run();
  counters_.bytes += data.size();
  return segment;
}

void Store::remove(std::int64_t id) { Query(removeSegment_).bind(id).run(); }

bool Store::setApart(const Segment& segment, const std::string& reason) {
  if (!segments_.holds(segment)) return false;
  Query query(setApart_);
  query.bind(segment.id).bind(segment.first).bind(segment.end()).bind(segment.count);
  query.bind(getInt64FileTime()).bindText(reason).run();
  remove(segment.id);
  return !db_.failed();
}

void Store::removeDamagedBefore(std::int64_t time) { Query(removeDamaged_).bind(time).run(); }

}  // namespace orva::sqlite
