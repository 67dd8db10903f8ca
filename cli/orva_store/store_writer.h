#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>

#include "orva_sqlite/catalog.h"
#include "orva_sqlite/counters.h"
#include "orva_sqlite/damage_register.h"
#include "orva_sqlite/segment_writer.h"
#include "orva_sqlite/store.h"
#include "sqlite_base/location.h"

namespace orva::store {

// Segments that were found damaged.
struct DamageMet {
  std::uint64_t stretches = 0;
  std::uint64_t setApart = 0;  // of them: their rows are in the table of what is damaged now

  bool any() const { return stretches > 0; }
};

// A store that this program alone has open, to change it: no host can open it meanwhile. Failure is
// thrown for whatever goes wrong; what was not committed is undone then.
class StoreWriter final : private sqlite::Intake {
 public:
  enum class Missing { kFails, kIsMade };
  // A folder with a store, or its file.
  StoreWriter(const std::string& place, Missing missing);
  // One that leaves no trace: what a new store at this place would be.
  static std::unique_ptr<StoreWriter> temporary();
  StoreWriter(const StoreWriter&) = delete;
  StoreWriter& operator=(const StoreWriter&) = delete;

  const std::string& file() const { return location_.file(); }

  // A layer of an item, with what the file has of it. A new item gets its row by makeRow() only.
  sqlite::Stream& stream(const archive::ItemKey& key, std::int32_t layer);
  // Within a transaction: the stream's item has its row from now on.
  void makeRow(sqlite::Stream& stream);

  void begin(bool durable = true);
  void commit();
  void rollback();
  void expectFine(const char* doing);
  // A segment that was passed over, since it is damaged.
  void noteDamaged(const sqlite::Segment& segment) { damagedIds_.insert(segment.id); }
  DamageMet damage();

  sqlite::SegmentWriter& segments() { return writer_; }
  sqlite::Store& store() { return store_; }
  sqlite::Database& db() { return store_.db(); }

 private:
  StoreWriter();  // temporary
  void accept(sqlite::Stream&, const PinPtr&) override {}
  void open(const std::string& file);
  void loadItems();
  // How many segments were set apart since the last call.
  std::size_t takeDamaged();

  sqlite::Location location_;
  sqlite::Counters counters_;
  sqlite::Store store_;
  sqlite::DamageRegister damage_;
  sqlite::SegmentWriter writer_;
  sqlite::Catalog catalog_;
  std::set<std::int64_t> damagedIds_;  // of segments
  std::uint64_t setApart_ = 0;
};

}  // namespace orva::store
