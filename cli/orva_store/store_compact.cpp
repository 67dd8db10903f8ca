#include "orva_store/store_compact.h"

#include <algorithm>
#include <tuple>
#include <vector>

#include "orva_cli/failure.h"

namespace orva::store {
namespace {

using sqlite::Segment;
using sqlite::StreamKey;

constexpr std::int64_t kRowsAtOnce = 4096;
// Joined in one go: as much as fits into memory easily.
constexpr double kMostFull = 64;
constexpr std::int64_t kMostBytes = std::int64_t{4} << 20;
// Rewriting is worth while when it spares one row in so many.
constexpr std::size_t kWorthwhile = 8;
constexpr int kVacuumPages = 10'000;

// How much of a full segment a row is.
double fullness(const Segment& row) {
  constexpr double kFullBytes = 65536;
  return std::min(
      1.0, std::max(static_cast<double>(row.count) / static_cast<double>(sqlite::kSegmentSamples),
                    static_cast<double>(row.size) / kFullBytes));
}

class Compaction {
 public:
  Compaction(StoreWriter& store, Progress& progress) : store_(store), progress_(progress) {}

  CompactResult run() {
    mendIndex();
    result_.segmentsBefore = count();
    progress_.total(result_.segmentsBefore);
    for (const auto& [key, itemKey] : streams()) {
      compactStream(store_.stream(itemKey, key.layer), key);
    }
    vacuum();
    result_.segmentsAfter = count();
    result_.damage = store_.damage();
    return result_;
  }

 private:
  // Segments are joined in the order in which the index has them: a damaged one would lose samples.
  void mendIndex() {
    if (isIntact()) return;
    store_.begin();
    store_.db().exec("REINDEX");
    if (store_.db().failed() || !isIntact()) {
      store_.rollback();
      throw cli::Failure(store_.file() +
                         " is damaged, and left as it is; `orva store check` says where, and "
                         "`orva store export` saves what can be read");
    }
    store_.commit();
    result_.indexMended = true;
  }

  bool isIntact() {
    bool isFine = false;
    {
      sqlite::Statement statement(store_.db(), "PRAGMA integrity_check(1)");
      sqlite::Query query(statement);
      isFine = query.row() && query.text(0) == "ok";
    }
    store_.db().clearFailure();  // what cannot be checked may still be mended
    return isFine;
  }

  std::uint64_t count() {
    const auto rows =
        static_cast<std::uint64_t>(store_.db().number("SELECT count(*) FROM segment"));
    store_.expectFine("counting the segments");
    return rows;
  }

  std::vector<std::pair<StreamKey, archive::ItemKey>> streams() {
    std::vector<std::pair<StreamKey, archive::ItemKey>> all;
    {
      sqlite::Statement statement(
          store_.db(),
          "SELECT DISTINCT s.handle, s.layer, i.item_id, i.path FROM segment s "
          "JOIN item i ON i.handle = s.handle");
      sqlite::Query query(statement);
      while (query.row()) {
        all.push_back({{query.number(0), static_cast<std::int32_t>(query.number(1))},
                       {query.number(2), query.text(3)}});
      }
    }
    store_.expectFine("listing the segments");
    return all;
  }

  void compactStream(sqlite::Stream& stream, const StreamKey& key) {
    Segment last;  // of those that were looked at
    last.first = last.seq = sqlite::kEarliest;
    for (;;) {
      const std::vector<Segment> rows = rowsBehind(key, last);
      if (rows.empty()) return;
      last = rows.back();
      store_.begin(false);
      for (auto begin = rows.begin(); begin != rows.end();) {
        const auto end = windowEnd(begin, rows.end());
        join(stream, {begin, end});
        begin = end;
      }
      store_.commit();
      if (rows.size() == static_cast<std::size_t>(kRowsAtOnce)) stepBack(key, last);
      seen_ += rows.size();
      progress_.at(seen_, seen_);
    }
  }

  // What is left over at the end of a look goes with the next one.
  void stepBack(const StreamKey& key, Segment& last) {
    {
      sqlite::Statement statement(
          store_.db(),
          "SELECT first, seq, count, length(data) FROM segment WHERE handle = ?1 AND layer = ?2 "
          "AND (first, seq) <= (?3, ?4) ORDER BY first DESC, seq DESC LIMIT 1");
      sqlite::Query query(statement);
      query.bind(key.handle).bind(key.layer).bind(last.first).bind(last.seq);
      if (query.row()) {
        Segment row;
        row.count = query.number(2);
        row.size = query.number(3);
        if (fullness(row) < 1) {
          last.first = query.number(0);
          last.seq = query.number(1) - 1;
        }
      }
    }
    store_.expectFine("reading the segments");
  }

  std::vector<Segment> rowsBehind(const StreamKey& key, const Segment& last) {
    std::vector<Segment> rows;
    {
      sqlite::Statement statement(
          store_.db(),
          "SELECT id, first, seq, last, count, length(data) FROM segment WHERE handle = ?1 AND "
          "layer = ?2 AND (first, seq) > (?3, ?4) ORDER BY first, seq LIMIT ?5");
      sqlite::Query query(statement);
      query.bind(key.handle).bind(key.layer).bind(last.first).bind(last.seq).bind(kRowsAtOnce);
      while (query.row()) {
        Segment row;
        row.id = query.number(0);
        row.first = query.number(1);
        row.seq = query.number(2);
        row.last = query.number(3);
        row.count = query.number(4);
        row.size = query.number(5);
        expectBehind(rows.empty() ? last : rows.back(), row);
        rows.push_back(row);
      }
    }
    store_.expectFine("reading the segments");
    return rows;
  }

  // What lies before is met again and again.
  void expectBehind(const Segment& before, const Segment& row) const {
    if (std::tie(row.first, row.seq) > std::tie(before.first, before.seq)) return;
    throw cli::Failure(store_.file() +
                       " is damaged: its segments do not stand in the order of time");
  }

  using Row = std::vector<Segment>::const_iterator;

  static Row windowEnd(Row begin, Row end) {
    double full = 0;
    std::int64_t bytes = 0;
    Row at = begin;
    while (at != end && (at == begin || (full < kMostFull && bytes < kMostBytes))) {
      full += fullness(*at);
      bytes += at->size;
      ++at;
    }
    return at;
  }

  void join(sqlite::Stream& stream, std::vector<Segment> rows) {
    const auto isWhole = [](const Segment& row) { return fullness(row) >= 1; };
    while (!rows.empty() && isWhole(rows.back())) rows.pop_back();
    rows.erase(rows.begin(), std::find_if_not(rows.begin(), rows.end(), isWhole));
    double full = 0;
    for (const Segment& row : rows) full += fullness(row);
    const std::size_t needed = static_cast<std::size_t>(full) + 1;
    if (rows.size() <= needed || (rows.size() - needed) * kWorthwhile < rows.size()) return;
    store_.segments().mergeRows(stream, rows);
    store_.expectFine("joining segments");
  }

  void vacuum() {
    const std::string some = "PRAGMA incremental_vacuum(" + std::to_string(kVacuumPages) + ")";
    std::int64_t free = store_.db().number("PRAGMA freelist_count");
    for (std::int64_t before = free + 1; free > 0 && free < before;) {
      store_.db().exec(some.c_str());
      before = free;
      free = store_.db().number("PRAGMA freelist_count");
      store_.expectFine("giving space back");
    }
    store_.store().space().checkpoint();
    store_.expectFine("copying the log into the file");
  }

  StoreWriter& store_;
  Progress& progress_;
  CompactResult result_;
  std::uint64_t seen_ = 0;
};

}  // namespace

CompactResult compactStore(StoreWriter& store, Progress& progress) {
  return Compaction(store, progress).run();
}

}  // namespace orva::store
