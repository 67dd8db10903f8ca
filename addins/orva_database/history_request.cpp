#include "orva_database/history_request.h"

#include <algorithm>
#include <cstdint>

#include "host/trace.h"
#include "share/status_codes.h"

namespace orva {
namespace {

constexpr std::uint32_t kMostValues = 1'000'000;  // of all items of a request together

// What a client asks for may be unlimited; a reply is not. A page that is cut says so.
void boundLimits(const archive::Request& request) {
  const auto elements = static_cast<std::uint32_t>(request.items().size());
  if (elements == 0) return;
  const std::uint32_t most = std::max(kMostValues / elements, 1U);
  for (const auto& item : request.items()) {
    item->numValuesPerNode = std::min(std::max(item->numValuesPerNode, 1U), most);
  }
}

}  // namespace

archive::SharedRequest makeHistoryRequest(const json::Value& body) {
  archive::SharedRequest req = archive::Request::make(body);
  if (req) {
    boundLimits(*req);
  } else {
    OpcUa_Trace_Imp(kTraceError, "<-- ReturnError: !req evaluated to true! Returning 0x%08X\n",
                    __FILE__, __LINE__, status::kBadInvalidArgument);
  }
  return req;
}

}  // namespace orva
