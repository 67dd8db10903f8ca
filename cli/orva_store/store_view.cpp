#include "orva_store/store_view.h"

#include <algorithm>
#include <filesystem>
#include <tuple>

#include "orva_cli/failure.h"
#include "orva_sqlite/store.h"
#include "sqlite_base/location.h"

namespace orva::store {

using cli::Failure;

std::string existingStoreFile(const std::string& place) {
  const sqlite::Location location(place, "archive.db");
  std::error_code error;
  if (!std::filesystem::exists(location.file(), error)) {
    throw Failure("there is no store at " + place + ": " + location.file() + " does not exist");
  }
  return location.file();
}

StoreView::StoreView(const std::string& place) : file_(existingStoreFile(place)), segments_(db_) {
  db_.open(file_, sqlite::Database::Mode::kReadOnly);
  if (!db_.failed() &&
      sqlite::hasSchema(db_, sqlite::kArchiveSchema, [this] { return segments_.prepare(); })) {
    if (db_.exec("BEGIN")) return;  // one state of the file, whatever a host writes meanwhile
  }
  if (!db_.failed() || db_.isUnreadable()) {
    const std::string why = db_.failed() ? db_.failure() : "it has other tables";
    throw Failure(file_ + " is no store that this program can read: " + why);
  }
  expectRead();
}

StoreView::~StoreView() { segments_.finalize(); }

void StoreView::expectRead() {
  if (db_.failed()) throw Failure(file_ + " cannot be read: " + db_.failure());
}

std::vector<StoredItem> StoreView::items() {
  std::vector<StoredItem> all;
  {
    sqlite::Statement statement(db_, "SELECT handle, item_id, path FROM item");
    sqlite::Query query(statement);
    while (query.row()) all.push_back({query.number(0), query.number(1), query.text(2)});
  }
  expectRead();
  std::sort(all.begin(), all.end(), [](const StoredItem& a, const StoredItem& b) {
    return std::tie(a.id, a.path, a.handle) < std::tie(b.id, b.path, b.handle);
  });
  return all;
}

std::vector<std::int32_t> StoreView::layers() {
  std::vector<std::int32_t> all;
  {
    sqlite::Statement statement(
        db_, "SELECT layer FROM segment UNION SELECT layer FROM damaged ORDER BY 1");
    sqlite::Query query(statement);
    while (query.row()) all.push_back(static_cast<std::int32_t>(query.number(0)));
  }
  if (db_.failed()) all.clear();
  db_.clearFailure();
  return all;
}

std::vector<StreamRows> StoreView::streams() {
  std::vector<StreamRows> all;
  sqlite::Statement statement(db_,
                              "SELECT handle, layer, count(*) FROM segment NOT INDEXED "
                              "GROUP BY handle, layer ORDER BY handle, layer");
  sqlite::Query query(statement);
  while (query.row()) {
    all.push_back({{query.number(0), static_cast<std::int32_t>(query.number(1))},
                   static_cast<std::uint64_t>(query.number(2))});
  }
  return all;
}

}  // namespace orva::store
