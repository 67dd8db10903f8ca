#include "orva_store/store_export.h"

#include <algorithm>
#include <map>

#include "orva_cli/failure.h"
#include "orva_host/number_text.h"
#include "orva_host/plant_row.h"
#include "orva_sqlite/segment_codec.h"

namespace orva::store {
namespace {

constexpr std::size_t kWriteAt = std::size_t{256} << 10;  // bytes

class Export {
 public:
  Export(StoreView& store, const ExportRange& range, Progress& progress, const WriteText& write)
      : store_(store), range_(range), progress_(progress), write_(write) {}

  ExportResult run(const std::vector<StoredItem>& items) {
    text_ = std::string(host::kPlantHeader) + '\n';
    progress_.total(samplesOf(items));
    for (const StoredItem& item : items) exportItem(item);
    write_(text_);
    countSetApart();
    if (range_.allItems) compareWithTable();
    return result_;
  }

 private:
  std::uint64_t samplesOf(const std::vector<StoredItem>& items) {
    sqlite::Statement statement(store_.db(),
                                "SELECT sum(count) FROM segment WHERE handle = ?1 AND layer = ?2 "
                                "AND last >= ?3 AND first <= ?4");
    std::uint64_t all = 0;
    for (const StoredItem& item : items) {
      sqlite::Query query(statement);
      query.bind(item.handle).bind(range_.layer).bind(range_.from).bind(range_.to);
      if (query.row()) all += static_cast<std::uint64_t>(query.number(0));
    }
    forgetFailure();
    return all;
  }

  void exportItem(const StoredItem& item) {
    const sqlite::StreamKey key{item.handle, range_.layer};
    const std::string columns = host::plantRowItem(item.id, item.path);
    std::uint64_t& found = found_[item.handle];
    sqlite::SegmentTable& segments = store_.segments();
    sqlite::SegmentTable::Cursor cursor =
        segments.forward(key, segments.beginFor(key, range_.from));
    while (cursor.next() && cursor.segment().first <= range_.to) {
      if (cursor.segment().last < range_.from) continue;
      ++found;
      if (cursor.decode(decoder_, samples_) == sqlite::Decoded::kGood) {
        appendRows(columns);
      } else {
        ++result_.damagedSegments;
      }
    }
    forgetFailure();
  }

  // Other items can be read all the same.
  void forgetFailure() {
    if (!store_.db().failed()) return;
    if (result_.failure.empty()) {
      result_.failure = "what cannot be read (" + store_.db().failure() + ")";
    }
    store_.db().clearFailure();
  }

  // Calls take(handle, count) for what meets the range, of all items.
  template <class Take>
  void countRows(const char* sql, Take take) {
    {
      sqlite::Statement statement(store_.db(), sql);
      sqlite::Query query(statement);
      query.bind(range_.layer).bind(range_.from).bind(range_.to);
      while (query.row()) take(query.number(0), static_cast<std::uint64_t>(query.number(1)));
    }
    forgetFailure();
  }

  void countSetApart() {
    countRows(
        "SELECT handle, count(*) FROM damaged WHERE layer = ?1 AND last >= ?2 AND first <= ?3 "
        "GROUP BY handle",
        [this](std::int64_t handle, std::uint64_t count) {
          if (range_.allItems || found_.count(handle) != 0) result_.setApart += count;
        });
  }

  // In no way led by the index.
  void compareWithTable() {
    countRows(
        "SELECT handle, count(*) FROM segment NOT INDEXED WHERE layer = ?1 AND last >= ?2 "
        "AND first <= ?3 GROUP BY handle",
        [this](std::int64_t handle, std::uint64_t count) {
          const auto item = found_.find(handle);
          if (item == found_.end()) {
            result_.nameless += count;
            return;
          }
          result_.unfound += std::max(count, item->second) - std::min(count, item->second);
          item->second = 0;
        });
    // Those of which the table has nothing.
    for (const auto& [handle, found] : found_) result_.unfound += found;
  }

  void appendRows(const std::string& columns) {
    const auto& times = samples_.times;
    const auto begin = std::lower_bound(times.begin(), times.end(), range_.from);
    const auto end = std::upper_bound(begin, times.end(), range_.to);
    for (auto time = begin; time != end; ++time) {
      const PinPtr pin = samples_.pin(static_cast<std::size_t>(time - times.begin()));
      host::appendPlantRow(columns, pin->time, pin->value, pin->quality, text_);
    }
    result_.rows += static_cast<std::uint64_t>(end - begin);
    if (text_.size() < kWriteAt) return;
    write_(text_);
    text_.clear();
    progress_.at(result_.rows, result_.rows);
  }

  StoreView& store_;
  const ExportRange range_;
  Progress& progress_;
  const WriteText& write_;
  ExportResult result_;
  sqlite::SegmentDecoder decoder_;
  sqlite::Columns samples_;
  std::string text_;                             // not yet written
  std::map<std::int64_t, std::uint64_t> found_;  // segments, by the item's handle
};

template <class Matches>
bool chooseWhere(const std::vector<StoredItem>& items, std::vector<bool>& isChosen,
                 Matches matches) {
  bool any = false;
  for (std::size_t i = 0; i < items.size(); ++i) {
    if (!matches(items[i])) continue;
    isChosen[i] = true;
    any = true;
  }
  return any;
}

}  // namespace

std::vector<StoredItem> chooseItems(const std::vector<StoredItem>& items,
                                    const std::vector<std::string>& names) {
  if (names.empty()) return items;
  std::vector<bool> isChosen(items.size(), false);
  for (const std::string& name : names) {
    if (chooseWhere(items, isChosen, [&name](const StoredItem& i) { return i.path == name; })) {
      continue;
    }
    std::int64_t id = 0;
    if (!host::readWholeInt64(name, id) ||
        !chooseWhere(items, isChosen, [id](const StoredItem& i) { return i.id == id; })) {
      throw cli::Failure("the store has no item \"" + name + "\"; `orva store stat` lists them");
    }
  }
  std::vector<StoredItem> chosen;
  for (std::size_t i = 0; i < items.size(); ++i) {
    if (isChosen[i]) chosen.push_back(items[i]);
  }
  return chosen;
}

ExportResult exportStore(StoreView& store, const std::vector<StoredItem>& items,
                         const ExportRange& range, Progress& progress, const WriteText& write) {
  return Export(store, range, progress, write).run(items);
}

}  // namespace orva::store
