#include <set>

#include "host/trace.h"
#include "orva_database/cache.h"
#include "orva_database/counters.h"
#include "orva_database/history_reply.h"
#include "orva_database/history_request.h"
#include "orva_database/request_processor.h"
#include "share/addins_share.h"
#include "share/archive_manager.h"
#include "share/signal.h"

// The two methods of a client that does not wait for its history: it asks, and comes back for the
// result.

namespace orva {
namespace {

using archive::DataArchiveManager;

constexpr StatusCode kBadNothingToPublish = 0x804A0000;  // subscription unknown, or answered
constexpr StatusCode kBadOtherRequest = 0x80840000;      // the subscription asked something since

// What closes a reply, the terminating NUL included.
constexpr long long kReplyEndBytes = sizeof ",\"code\":0}";

// Lets the cache take in what was fetched, so that the next read finds it.
void drain(const archive::Request& read) {
  std::set<std::int64_t> drained;
  for (const archive::SharedItem& item : read.items()) {
    if (!drained.insert(item->cacheId).second) continue;
    if (const auto pin = DataArchiveManager::instance().getPinCache(item->cacheId)) pin->drain();
  }
}

void writeIds(std::int64_t subscriptionId, std::int64_t requestId, ReplyWriter& reply) {
  reply.Key("subscriptionId");
  reply.Int64(subscriptionId);
  reply.Key("requestId");
  reply.Int64(requestId);
}

void traceUnanswered(std::int64_t subscriptionId, std::int64_t requestId) {
  OpcUa_Trace_Imp(kTraceError,
                  "<--ReturnError: PublishHistoryData : subscriptionId = %lld, requestId = %lld "
                  "has no answer, returns 0x%08X\n",
                  __FILE__, __LINE__, static_cast<long long>(subscriptionId),
                  static_cast<long long>(requestId), status::kBadTimeout);
}

}  // namespace

StatusCode RequestProcessor::HistoryReadRawAsync(const json::Value& request, ReplyWriter& reply,
                                                 int /*budget*/) {
  MutexLock lock(asyncMutex_);
  const json::Value& parameters = json::member(request, "parameters");
  const std::int64_t subscriptionId = GetSafeInt64Value(parameters, "subscriptionId", 0);
  const std::int64_t requestId = GetSafeInt64Value(parameters, "requestId", 0);
  const archive::SharedRequest read = makeHistoryRequest(request);
  if (!read) return status::kBadInvalidArgument;
  asyncReads_.put(subscriptionId, requestId, read, Signal::elapsed());
  try {
    DataArchiveManager::instance().addRequest(read, 0);
  } catch (...) {
    asyncReads_.drop(subscriptionId);  // it would never complete
    throw;
  }
  writeIds(subscriptionId, requestId, reply);
  return status::kGood;
}

StatusCode RequestProcessor::PublishHistoryData(const json::Value& request, ReplyWriter& reply,
                                                int budget) {
  const json::Value& parameters = json::member(request, "parameters");
  std::int64_t subscriptionId = 0;
  if (!parameters.IsObject() ||
      !json::readInt64(json::member(parameters, "subscriptionId"), subscriptionId)) {
    OpcUa_Trace_Imp(kTraceError,
                    "<-- ReturnError: !subscriptionId evaluated to true! Returning 0x%08X\n",
                    __FILE__, __LINE__, status::kBadNoData);
    return status::kBadNoData;
  }
  const std::int64_t requestId = GetSafeInt64Value(parameters, "requestId", 0);

  MutexLock lock(asyncMutex_);
  AsyncRead* const found = asyncReads_.find(subscriptionId);
  if (found == nullptr) return kBadNothingToPublish;
  if (found->requestId != requestId) return kBadOtherRequest;
  const archive::SharedRequest read = found->request;
  // The finalised items decide. The status says "timed out" soon after the call, done or not.
  if (!read->complete()) {
    if (!AsyncReads::overdue(*found, Signal::elapsed())) return status::kBadWaiting;
    traceUnanswered(subscriptionId, requestId);
    counters.readTimeouts.add();
    asyncReads_.drop(subscriptionId);
    drain(*read);  // some items may be complete
    return status::kBadTimeout;
  }
  drain(*read);
  writeIds(subscriptionId, requestId, reply);
  writeHistoryData(*read, reply);
  // A client whose memory was too small for the reply may come again with more.
  if (reply.length() + kReplyEndBytes <= budget) asyncReads_.drop(subscriptionId);
  return status::kGood;
}

}  // namespace orva
