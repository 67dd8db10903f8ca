#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "orva_host/history_points.h"
#include "orva_host/variables.h"

namespace orva::host {

// A read of one item's history.
struct HistoryRead {
  std::string caller;  // for the handlers
  std::int64_t archiveItemId = 0;
  std::int64_t fromMs = 0;
  std::int64_t toMs = 0;           // 0: open
  std::int64_t resampleTicks = 0;  // 0: raw
};

// The ticks to ask for so that a stretch of `stepMs` is thinned to a few samples: coarser than one
// minute, or one hour, only if the item has the layer that such a read looks into.
std::int64_t resampleTicksFor(std::int64_t stepMs, const vm::ArchivedLayers& layers);

// The id for history of each path, -1 where there is none; in the order of the paths.
std::vector<std::int64_t> archiveItemIds(const std::vector<std::string>& paths,
                                         const std::string& caller);

// Reads as any client does, through HistoryReadRaw, page by page.
//
// Gives every sample of the range to `take`, in ascending time. Good, or the code of what failed:
// of the call, or of the item; what came before that was taken.
StatusCode readHistory(const HistoryRead& read, const std::function<void(HistoryPoint)>& take);

}  // namespace orva::host
