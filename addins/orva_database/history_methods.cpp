#include "orva_database/history_reply.h"
#include "orva_database/history_request.h"
#include "orva_database/request_processor.h"
#include "share/archive_manager.h"

// HistoryReadRaw: a client that names cache ids reads history and waits for it.

namespace orva {

StatusCode RequestProcessor::HistoryReadRaw(const json::Value& request, ReplyWriter& reply,
                                            int /*budget*/) {
  const archive::SharedRequest read = makeHistoryRequest(request);
  if (!read) return status::kBadInvalidArgument;
  archive::DataArchiveManager::instance().syncRead(read);
  // Not trimmed to the budget: a client that asks for a range gets all of it or is told.
  writeHistoryData(*read, reply);
  return status::kGood;
}

}  // namespace orva
