#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>

#include "orva_database/async_reads.h"
#include "share/mutex.h"
#include "share/request_processor.h"

namespace orva {

// The JSON methods of the history service.
//
// Thread-safe. One method runs at a time: a read that waits for a silent archive holds up the
// others, for 60 s at most.
class RequestProcessor : public CRequestProcessor<RequestProcessor> {
 public:
  RequestProcessor() : CRequestProcessor("ArchiveManager") {}

  // Registers both handlers with the host, the stream handler first: after its failure the other
  // is left alone. 0, or the host's negative status.
  int Init();

  struct Methods {
    enum Number {
      kGetArchiveItems,
      kHistoryReadRaw,
      kHistoryReadRawAsync,
      kPublishHistoryData,
      kReadNewRecords,
    };
    static const std::map<std::string, int, std::less<>>& Name();
  };

  // Runs the method of that path, or GetArchiveItems if there is none: it is the default method.
  // Writes members of the open object of `reply`.
  StatusCode CallMethod(const std::string& path, const std::string& callerInfo,
                        const json::Document& request, ReplyWriter& reply, int budget)
      EXCLUDES(methodMutex_);

 private:
  StatusCode call(int number, const json::Value& request, ReplyWriter& reply, int budget)
      REQUIRES(methodMutex_);

  // {"items":[{"itemId":7},{"path":"Plant/Load"}]} ->
  // {"items":[{"itemId":7,"path":"Plant/T1","archiveItemId":71},
  //           {"itemId":-1,"path":"Plant/Load","archiveItemId":-1,"statusCode":-2143158272}]}
  // Without "items": every item in the cache.
  StatusCode GetArchiveItems(const json::Value& request, ReplyWriter& reply) REQUIRES(methodMutex_);

  // {"data":[{"archiveItemId":71}],"parameters":{"startTime":1715932800000}} ->
  // {"data":[{"archiveItemId":71,"areMoreValues":false,"values":[[1715932800123,20.5,0]]}]}
  StatusCode HistoryReadRaw(const json::Value& request, ReplyWriter& reply, int budget)
      REQUIRES(methodMutex_);

  // {"data":[{"archiveItemId":71}],"parameters":{"subscriptionId":3,"requestId":1}} ->
  // {"subscriptionId":3,"requestId":1}
  StatusCode HistoryReadRawAsync(const json::Value& request, ReplyWriter& reply, int budget)
      REQUIRES(methodMutex_) EXCLUDES(asyncMutex_);

  // {"parameters":{"subscriptionId":3,"requestId":1}} ->
  // {"subscriptionId":3,"requestId":1,"data":[...]}, or a code alone:
  //   0x802A0000 no "parameters", or no "subscriptionId" in it
  //   0x804A0000 the subscription is not known, or was answered
  //   0x80840000 the subscription has asked something else since
  //   0x80320000 not complete yet
  //   0x800A0000 not complete after 60 s: given up
  StatusCode PublishHistoryData(const json::Value& request, ReplyWriter& reply, int budget)
      REQUIRES(methodMutex_) EXCLUDES(asyncMutex_);

  // {"reqID":1,"items":[{"path":"Plant/Load","randID":5,"continuationPoint":0}]} ->
  // {"items":[{"randID":5,"values":[[1715932800123,20.5,0]],"areMoreValues":false,
  //            "continuationPoint":133604064001230001}]}
  StatusCode ReadNewRecords(const json::Value& request, ReplyWriter& reply, int budget)
      REQUIRES(methodMutex_);

  Mutex methodMutex_{LockClass::kMethod};     // held for a whole method
  Mutex asyncMutex_{LockClass::kAsyncReads};  // after methodMutex_; held while archives are asked
  AsyncReads asyncReads_ GUARDED_BY(asyncMutex_);
};

}  // namespace orva
