#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>

#include "share/archive_request.h"
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
  // A read whose result is published later.
  struct AsyncRead {
    std::int64_t requestId = 0;
    archive::SharedRequest request;
    std::int64_t since = 0;  // ticks
  };

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
  StatusCode HistoryReadRawAsync(const json::Value& request, ReplyWriter& reply, int budget)
      REQUIRES(methodMutex_) EXCLUDES(asyncMutex_);
  StatusCode PublishHistoryData(const json::Value& request, ReplyWriter& reply, int budget)
      REQUIRES(methodMutex_) EXCLUDES(asyncMutex_);

  // {"reqID":1,"items":[{"path":"Plant/Load","randID":5,"continuationPoint":0}]} ->
  // {"items":[{"randID":5,"values":[[1715932800123,20.5,0]],"areMoreValues":false,
  //            "continuationPoint":133604064001230001}]}
  StatusCode ReadNewRecords(const json::Value& request, ReplyWriter& reply, int budget)
      REQUIRES(methodMutex_);

  Mutex methodMutex_;                                                     // held for a whole method
  Mutex asyncMutex_;                                                      // after methodMutex_
  std::map<std::int64_t, AsyncRead> asyncReads_ GUARDED_BY(asyncMutex_);  // by subscription id
};

}  // namespace orva
