#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "orva_store/store_writer.h"
#include "share/write_filter.h"

namespace orva::store {

// Where the samples of an item go.
struct ItemPlan {
  struct Layer {
    std::int32_t number = 0;
    std::int64_t interval = 0;  // ticks; 0 keeps every sample
    StoreWriter* store = nullptr;
  };
  StoreWriter* store = nullptr;  // of layer 0; null: it is not kept here, see `reason`
  std::vector<Layer> others;
  archive::Filter filter;  // of the archive of layer 0
  std::string reason;      // why rows of it are refused
};

// Says for each item of an import where its samples go, and has these stores open once openStores()
// was called: until then nothing is made.
class ImportPlan {
 public:
  // Layer 0 of whatever item comes, in the store at `place`.
  ImportPlan(const std::string& place, bool dryRun);
  // The items of a host's configuration: layer 0 of those that have it in the archive at `place`,
  // and their other layers, wherever they are archived.
  ImportPlan(const std::string& place, const std::string& configFile, bool dryRun);

  ~ImportPlan();

  void openStores();
  const ItemPlan& planOf(const archive::ItemKey& key) const;
  const std::vector<std::unique_ptr<StoreWriter>>& stores() const { return stores_; }

 private:
  class Configuration;

  StoreWriter* open(const std::string& place);

  const std::string place_;
  const bool dryRun_;
  std::unique_ptr<Configuration> configuration_;  // null: every item goes to `place_`
  ItemPlan everyItem_;
  std::map<archive::ItemKey, ItemPlan> items_;
  std::vector<std::unique_ptr<StoreWriter>> stores_;
};

}  // namespace orva::store
