#include <algorithm>
#include <boost/make_shared.hpp>

#include "host/trace.h"
#include "orva_database/history_reply.h"
#include "orva_database/request_processor.h"
#include "share/archive_manager.h"

// The methods that read history for a client that names cache ids.

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

archive::SharedRequest makeRequest(const json::Value& body) {
  archive::SharedRequest req = archive::Request::make(body);
  if (req) {
    boundLimits(*req);
  } else {
    OpcUa_Trace_Imp(kTraceError, "<-- ReturnError: !req evaluated to true! Returning 0x%08X\n",
                    __FILE__, __LINE__, status::kBadInvalidArgument);
  }
  return req;
}

}  // namespace

StatusCode RequestProcessor::HistoryReadRaw(const json::Value& request, ReplyWriter& reply,
                                            int /*budget*/) {
  const archive::SharedRequest read = makeRequest(request);
  if (!read) return status::kBadInvalidArgument;
  archive::DataArchiveManager::instance().syncRead(read);
  // Not trimmed to the budget: a client that asks for a range gets all of it or is told.
  writeHistoryData(*read, reply);
  return status::kGood;
}

StatusCode RequestProcessor::HistoryReadRawAsync(const json::Value& /*request*/,
                                                 ReplyWriter& /*reply*/, int /*budget*/) {
  return status::kBadNotSupported;
}

StatusCode RequestProcessor::PublishHistoryData(const json::Value& /*request*/,
                                                ReplyWriter& /*reply*/, int /*budget*/) {
  return status::kBadNotSupported;
}

}  // namespace orva
