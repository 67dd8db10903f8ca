#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "orva_cli/host_client.h"
#include "orva_cli/row_writer.h"

namespace orva::cli {

// A variable of the host's configuration.
struct Item {
  std::int64_t id = 0;
  std::string path;
  std::string type;
  std::vector<std::string> layers;  // the numbers of those that keep its history; may be empty
};

struct ItemList {
  std::vector<Item> items;
  std::int64_t hostTimeMs = 0;  // the host's clock at that time
};

ItemList listItems(HostClient& host);

// Those that are named by path, or else by id, in this order; all are archived. Failure says which
// one is not.
std::vector<Item> findItems(const ItemList& list, const std::vector<std::string>& names,
                            const HostClient& host);

// The number by which the history of each is asked for.
std::vector<std::int64_t> archiveItemIds(HostClient& host, const std::vector<Item>& items);

using TakeRow = std::function<void(const Row&)>;

struct HistoryRange {
  std::int64_t fromMs = 0;
  std::int64_t toMs = 0;
};

// All samples of the range, `most` at most, page by page. Gives what is the matter with the item's
// history, good for nothing.
StatusCode readRaw(HostClient& host, const Item& item, std::int64_t archiveItemId,
                   const HistoryRange& range, std::int64_t most, const TakeRow& take);

// The same thinned to about `points` rows, without losing a peak.
StatusCode readThinned(HostClient& host, const Item& item, const HistoryRange& range,
                       std::int64_t points, const TakeRow& take);

// An item that is followed, and the point up to which it was.
struct Followed {
  Item item;
  std::int64_t continuationPoint = 0;
};

// What is new of all of them, moving their points on; true when there is more already.
bool readNew(HostClient& host, std::vector<Followed>& followed, const TakeRow& take);

}  // namespace orva::cli
