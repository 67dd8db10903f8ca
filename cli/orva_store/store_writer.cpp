#include "orva_store/store_writer.h"

#include <filesystem>

#include "orva_cli/failure.h"
#include "orva_store/store_view.h"

namespace orva::store {

using cli::Failure;

StoreWriter::StoreWriter()
    : location_("", "archive.db"),
      store_(sqlite::StoreParameters(), 0, counters_),
      damage_(counters_),
      writer_(store_, damage_, counters_),
      catalog_(*this) {}

StoreWriter::StoreWriter(const std::string& place, Missing missing)
    : location_(place, "archive.db"),
      store_(sqlite::StoreParameters(), 0, counters_),
      damage_(counters_),
      writer_(store_, damage_, counters_),
      catalog_(*this) {
  if (missing == Missing::kFails) existingStoreFile(place);
  std::string problem;
  switch (location_.claim(problem)) {
    case sqlite::Location::Claim::kTaken:
      throw Failure("a host, or another command, has the store at " + place +
                    " open; stop it first (" + problem + ")");
    case sqlite::Location::Claim::kUnreachable:
      throw Failure("the store at " + place + " cannot be opened: " + problem);
    default:
      open(location_.file());
  }
}

std::unique_ptr<StoreWriter> StoreWriter::temporary() {
  std::unique_ptr<StoreWriter> made(new StoreWriter);
  made->open("");  // SQLite's name for a file that goes with its connection
  return made;
}

void StoreWriter::open(const std::string& file) {
  switch (store_.open(file, sqlite::Look::kUsual)) {
    case sqlite::Opened::kReady:
      return loadItems();
    case sqlite::Opened::kUnreadable:
      throw Failure(file + " is no store that this program can read: " +
                    (store_.db().failed() ? store_.db().failure() : "it has other tables"));
    default:
      throw Failure(file + " cannot be opened: " + store_.db().failure());
  }
}

void StoreWriter::loadItems() {
  store_.forEachItem([this](std::int64_t row, const archive::ItemKey& key) {
    sqlite::Item& item = catalog_.add(key);
    item.row = row;
    item.rowStored = true;
  });
  expectFine("reading the items");
}

sqlite::Stream& StoreWriter::stream(const archive::ItemKey& key, std::int32_t layer) {
  sqlite::Item& item = catalog_.add(key);
  const bool isKnown = item.layers.count(layer) != 0;
  sqlite::Stream& stream = catalog_.addStream(item, layer);
  if (isKnown || !item.rowStored) return stream;
  stream.stored = writer_.spanOf(fileKey(stream));
  expectFine("reading what there is of an item");
  return stream;
}

void StoreWriter::makeRow(sqlite::Stream& stream) {
  if (stream.item.rowStored) return;
  stream.item.row = store_.nextItemHandle();
  store_.insertItem(stream.item.row, stream.item.key);
  stream.item.rowStored = true;
}

void StoreWriter::begin(bool durable) {
  store_.begin(durable);
  expectFine("beginning a transaction");
}

void StoreWriter::commit() {
  expectFine("writing");
  store_.commit();
  expectFine("writing");
  setApart_ += takeDamaged();
}

void StoreWriter::rollback() {
  store_.rollback();
  takeDamaged();
}

std::size_t StoreWriter::takeDamaged() {
  const auto found = damage_.reported();
  damage_.settled(found.size());
  for (const sqlite::DamageRegister::Found& each : found) noteDamaged(each.segment);
  return found.size();
}

DamageMet StoreWriter::damage() {
  takeDamaged();  // of a transaction that was undone
  return {damagedIds_.size(), setApart_};
}

void StoreWriter::expectFine(const char* doing) {
  if (!store_.db().failed()) return;
  std::string problem = store_.db().failure();
  if (store_.db().isUnreadable()) {
    problem += "; `orva store check` looks for damage, and `orva store compact` mends the index";
  }
  store_.rollback();
  throw Failure((file().empty() ? "a temporary file" : file()) + ": " + doing +
                " failed: " + problem);
}

}  // namespace orva::store
