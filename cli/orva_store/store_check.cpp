#include "orva_store/store_check.h"

#include <map>
#include <set>
#include <utility>

#include "orva_sqlite/segment_codec.h"

namespace orva::store {
namespace {

using sqlite::Columns;
using sqlite::Decoded;
using sqlite::Segment;
using sqlite::SegmentTable;
using sqlite::StreamKey;

class Check {
 public:
  Check(StoreView& store, Progress& progress) : store_(store), progress_(progress) {}

  CheckResult run() {
    checkPages();
    readItems();
    progress_.total(static_cast<std::uint64_t>(store_.db().number("SELECT count(*) FROM segment")));
    forgetFailure("counting the segments");
    const std::vector<StreamRows> streams = store_.streams();
    forgetFailure("listing the segments");
    for (const StreamRows& stream : streams) checkStream(stream);
    listSetApart();
    return std::move(result_);
  }

 private:
  void checkPages() {
    sqlite::Statement check(store_.db(), "PRAGMA integrity_check(20)");
    sqlite::Query query(check);
    while (query.row()) {
      if (const std::string text = query.text(0); text != "ok") result_.problems.push_back(text);
    }
    forgetFailure("checking the pages");
    if (store_.db().number("SELECT value FROM meta WHERE key = 'format'") != 1) {
      result_.problems.emplace_back("the table \"meta\" has no format 1");
    }
    forgetFailure("reading the table \"meta\"");
  }

  void readItems() {
    std::set<std::pair<std::int64_t, std::string>> names;
    sqlite::Statement statement(store_.db(), "SELECT handle, item_id, path FROM item");
    sqlite::Query query(statement);
    while (query.row()) {
      StoredItem item{query.number(0), query.number(1), query.text(2)};
      if (!names.emplace(item.id, item.path).second) {
        result_.problems.push_back("item " + std::to_string(item.id) + " \"" + item.path +
                                   "\" stands twice in the table \"item\"");
      }
      items_[item.handle] = std::move(item);
    }
    result_.items = items_.size();
    forgetFailure("reading the table \"item\"");
  }

  void checkStream(const StreamRows& stream) {
    const StreamKey& key = stream.key;
    ++result_.streams;
    if (items_.count(key.handle) == 0) {
      result_.problems.push_back("there are segments of item number " + std::to_string(key.handle) +
                                 ", which is not in the table \"item\"");
    }
    const std::uint64_t before = result_.segments;
    Segment last;
    checkSegments(key, last);
    const std::uint64_t found = result_.segments - before;
    if (store_.db().failed()) {
      last.first = last.last;
      last.count = 0;
      note(key, last, "what follows cannot be read: " + store_.db().failure());
      store_.db().clearFailure();
    } else if (found != stream.segments) {
      result_.problems.push_back("the index is out of order: it leads to " + std::to_string(found) +
                                 " segments of item number " + std::to_string(key.handle) +
                                 ", layer " + std::to_string(key.layer) + ", of which there are " +
                                 std::to_string(stream.segments));
    }
  }

  // As a host finds them; `before` becomes the last one.
  void checkSegments(const StreamKey& key, Segment& before) {
    bool isFirst = true;
    SegmentTable::Cursor cursor = store_.segments().forward(key);
    while (cursor.next()) {
      checkSegment(key, cursor);
      const Segment& segment = cursor.segment();
      if (!isFirst && segment.first < before.last) {
        note(key, segment, "it begins before the segment before it ends");
      }
      before = segment;
      isFirst = false;
      ++result_.segments;
      progress_.at(result_.segments, result_.samples);
    }
  }

  void checkSegment(const StreamKey& key, const SegmentTable::Cursor& cursor) {
    switch (cursor.decode(decoder_, columns_)) {
      case Decoded::kGood:
        result_.samples += columns_.size();
        return;
      case Decoded::kUnknownVersion:
        return note(key, cursor.segment(), "it was written by a later version");
      default:
        return note(key, cursor.segment(), "its checksum or a field is wrong");
    }
  }

  // What a host has met and set apart is lost all the same.
  void listSetApart() {
    sqlite::Statement statement(
        store_.db(), "SELECT handle, layer, first, last, count, reason FROM damaged ORDER BY id");
    sqlite::Query query(statement);
    while (query.row()) {
      Segment segment;
      segment.first = query.number(2);
      segment.last = query.number(3);
      segment.count = query.number(4);
      note({query.number(0), static_cast<std::int32_t>(query.number(1))}, segment,
           "set apart by a host: " + query.text(5));
    }
    forgetFailure("reading the table \"damaged\"");
  }

  void note(const StreamKey& key, const Segment& segment, const std::string& what) {
    const auto item = items_.find(key.handle);
    Damage damage;
    if (item != items_.end()) {
      damage.id = item->second.id;
      damage.path = item->second.path;
    }
    damage.layer = key.layer;
    damage.first = segment.first;
    damage.last = segment.last;
    damage.count = segment.count;
    damage.what = what;
    result_.damaged.push_back(std::move(damage));
  }

  // A part that cannot be read is a problem of its own; the others are looked at all the same.
  void forgetFailure(const char* doing) {
    if (!store_.db().failed()) return;
    result_.problems.push_back(std::string(doing) + " failed: " + store_.db().failure());
    store_.db().clearFailure();
  }

  StoreView& store_;
  Progress& progress_;
  CheckResult result_;
  std::map<std::int64_t, StoredItem> items_;  // by handle
  sqlite::SegmentDecoder decoder_;
  Columns columns_;
};

}  // namespace

CheckResult checkStore(StoreView& store, Progress& progress) {
  return Check(store, progress).run();
}

}  // namespace orva::store
