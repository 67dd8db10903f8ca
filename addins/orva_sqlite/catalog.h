#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <vector>

#include "orva_sqlite/segment_table.h"
#include "orva_sqlite/write_buffer.h"
#include "share/archive_provider.h"
#include "share/mutex.h"

namespace orva::sqlite {

struct Item;
struct Stream;

// Where samples go that a stream is given.
class Intake {
 public:
  virtual void accept(Stream& stream, const PinPtr& pin) = 0;
  virtual bool crowded() { return false; }

 protected:
  ~Intake() = default;
};

// One item and layer: the writer that the cache holds, and what is known of its history.
struct Stream final : archive::ILayerWriter, BufferedStream {
  Stream(Intake& target, Item& owner, std::int32_t number)
      : intake(target), item(owner), layer(number) {}

  void write(const PinPtr& pin) override { intake.accept(*this, pin); }
  bool crowded() const override { return intake.crowded(); }

  Intake& intake;
  Item& item;
  const std::int32_t layer;

  // ---- for the writer's thread only
  Span stored;                       // of the file, exactly
  std::uint32_t freshRows = 0;       // rows inserted since small ones were last looked for
  std::int64_t freshTo = kEarliest;  // and the latest time at which one of them begins
};

struct Item {
  archive::ItemKey key;
  std::uint32_t handle = 0;  // in this process: what itemHandle() gives
  std::map<std::int32_t, std::unique_ptr<Stream>> layers;  // guarded by the catalog's mutex

  // Its number in the file, 0 before it has one. Set by the writer's thread.
  std::atomic<std::int64_t> row{0};
  bool rowStored = false;  // for the writer's thread only
};

// The items of an archive and their streams. They are never removed, so references to them are good
// as long as the catalog lives. Thread-safe; its mutex is a leaf.
class Catalog {
 public:
  explicit Catalog(Intake& intake) : intake_(intake) {}
  Catalog(const Catalog&) = delete;
  Catalog& operator=(const Catalog&) = delete;

  // 0 when there is none.
  std::uint32_t handleOf(const archive::ItemKey& key) const EXCLUDES(mutex_);
  Item& add(const archive::ItemKey& key) EXCLUDES(mutex_);
  Stream& addStream(Item& item, std::int32_t layer) EXCLUDES(mutex_);

  // The stream of one layer, or every one by ascending layer for -1.
  std::vector<Stream*> streamsOf(std::uint32_t handle, std::int32_t layer) const EXCLUDES(mutex_);
  std::vector<Stream*> streams() const EXCLUDES(mutex_);
  std::vector<Item*> items() const EXCLUDES(mutex_);

 private:
  Intake& intake_;
  mutable Mutex mutex_;  // leaf
  std::map<archive::ItemKey, Item*> byKey_ GUARDED_BY(mutex_);
  std::vector<std::unique_ptr<Item>> byHandle_ GUARDED_BY(mutex_);  // handle - 1
};

inline StreamKey fileKey(const Stream& stream) { return {stream.item.row, stream.layer}; }

}  // namespace orva::sqlite
