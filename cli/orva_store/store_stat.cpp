#include "orva_store/store_stat.h"

#include <algorithm>
#include <filesystem>
#include <map>
#include <tuple>

namespace orva::store {
namespace {

using Streams = std::map<std::pair<std::int64_t, std::int32_t>, StreamFigures>;

void readSegments(StoreView& store, Streams& streams) {
  sqlite::Statement statement(store.db(),
                              "SELECT handle, layer, count(*), sum(count), sum(length(data)), "
                              "min(first), max(last) FROM segment GROUP BY handle, layer");
  sqlite::Query query(statement);
  while (query.row()) {
    StreamFigures& stream = streams[{query.number(0), static_cast<std::int32_t>(query.number(1))}];
    stream.segments = query.number(2);
    stream.samples = query.number(3);
    stream.bytes = query.number(4);
    stream.first = query.number(5);
    stream.last = query.number(6);
  }
}

void readDamaged(StoreView& store, Streams& streams) {
  sqlite::Statement statement(store.db(),
                              "SELECT handle, layer, count(*) FROM damaged GROUP BY handle, layer");
  sqlite::Query query(statement);
  while (query.row()) {
    streams[{query.number(0), static_cast<std::int32_t>(query.number(1))}].damaged =
        query.number(2);
  }
}

}  // namespace

std::int64_t bytesOfFile(const std::string& file) {
  std::error_code error;
  const auto size = std::filesystem::file_size(file, error);
  return error ? 0 : static_cast<std::int64_t>(size);
}

StoreFigures storeFigures(StoreView& store) {
  StoreFigures figures;
  std::map<std::int64_t, StoredItem> items;
  for (StoredItem& item : store.items()) items[item.handle] = std::move(item);
  figures.items = static_cast<std::int64_t>(items.size());
  Streams streams;
  readSegments(store, streams);
  readDamaged(store, streams);
  const std::int64_t pageBytes = store.db().number("PRAGMA page_size");
  figures.freeBytes = store.db().number("PRAGMA freelist_count") * pageBytes;
  store.expectRead();
  figures.fileBytes = bytesOfFile(store.file());
  figures.logBytes = bytesOfFile(store.file() + "-wal");
  for (auto& [key, stream] : streams) {
    stream.id = items[key.first].id;
    stream.path = items[key.first].path;
    stream.layer = key.second;
    figures.streams.push_back(stream);
  }
  std::sort(figures.streams.begin(), figures.streams.end(),
            [](const StreamFigures& a, const StreamFigures& b) {
              return std::tie(a.id, a.path, a.layer) < std::tie(b.id, b.path, b.layer);
            });
  return figures;
}

}  // namespace orva::store
