#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "orva_host/plant_row.h"
#include "orva_store/import_plan.h"
#include "orva_store/layer_filler.h"
#include "orva_store/samples.h"

namespace orva::store {

struct ImportCounts {
  std::uint64_t rows = 0;
  std::uint64_t stored = 0;
  std::uint64_t same = 0;      // stood in the store, or in a row before
  std::uint64_t filtered = 0;  // the write filter does not want them
  std::uint64_t refused = 0;
  std::map<std::int32_t, std::uint64_t> layers;  // samples put into the others than 0
  DamageMet damage;                              // that stood in the stores
};

// Puts samples into stores, in bulk. They may come in any order; one that is there already, same in
// time, quality, type and value, is not put there again. The other layers of an item are filled in
// the periods that samples came for.
//
// Each batch is a transaction of its own: whenever this ends, importing all of it again completes
// it.
class Importer {
 public:
  struct Options {
    bool filter = false;  // only what the archive's write filter lets through
    bool dryRun = false;
    std::size_t batchRows = 500'000;
    std::size_t batchText = std::size_t{32} << 20;  // bytes
  };

  Importer(ImportPlan& plan, const Options& options);
  ~Importer();
  Importer(const Importer&) = delete;
  Importer& operator=(const Importer&) = delete;

  // Null, or why the row is refused; the text lives as long as this. Takes the row's value.
  const char* take(host::PlantRow& row);
  // Stores what is still held. Without it, that is lost. After storing has failed it does nothing.
  void finish();

  ImportCounts& counts() { return counts_; }
  // Those of what is in the stores: without what a batch that failed was to put there.
  ImportCounts result() const;

 private:
  struct Item;

  Item& itemOf(const host::PlantRow& row);
  std::unique_ptr<Item> makeItem(const archive::ItemKey& key);
  bool passesFilter(Item& item, const host::PlantRow& row);
  void add(Item& item, host::PlantRow& row);
  std::string_view keepText(std::string_view text);
  void flush(bool isLast);
  void flushItem(Item& item);
  void store(Item& item);
  void begin();
  void commit(bool isLast);

  ImportPlan& plan_;
  const Options options_;
  ImportCounts counts_;
  ImportCounts atCommit_;  // when the last batch was in the stores
  std::unordered_map<std::int64_t, std::vector<std::unique_ptr<Item>>> items_;  // by id
  std::vector<Item*> waiting_;  // those with samples
  std::size_t rowsHeld_ = 0;
  std::size_t textHeld_ = 0;
  std::deque<sqlite::Bytes> texts_;  // of the samples that are held
  LayerFiller filler_;
  Pin pin_;
  bool hasBegun_ = false;
  bool isStoring_ = false;  // and stays so when that fails: the batch is undone
};

}  // namespace orva::store
