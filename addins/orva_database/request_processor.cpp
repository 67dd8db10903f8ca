#include "orva_database/request_processor.h"

#include "host/request_dispatch.h"
#include "host/trace.h"

namespace orva {

int RequestProcessor::Init() {
  int result =
      RegisterRequestProcessor(REQUEST_JSON_STREAM, ProcessJSONRequestStream, this, nullptr);
  if (result < 0) {
    OpcUa_Trace_Imp(kTraceError,
                    "<--ReturnError: RegisterRequestProcessor(REQUEST_JSON_STREAM, "
                    "ProcessJSONRequestStream, this, NULL) returns 0x%08X\n",
                    __FILE__, __LINE__, static_cast<unsigned>(result));
    return result;
  }
  result = RegisterRequestProcessor(REQUEST_JSON, ProcessJSONRequest, this, nullptr);
  if (result < 0) {
    OpcUa_Trace_Imp(kTraceError,
                    "<--ReturnError: RegisterRequestProcessor(REQUEST_JSON, ProcessJSONRequest, "
                    "this, NULL) returns 0x%08X\n",
                    __FILE__, __LINE__, static_cast<unsigned>(result));
    return result;
  }
  return 0;
}

const std::map<std::string, int, std::less<>>& RequestProcessor::Methods::Name() {
  static const std::map<std::string, int, std::less<>> methods = {
      {"/Methods/GetArchiveItems", kGetArchiveItems},
      {"/Methods/HistoryReadRaw", kHistoryReadRaw},
      {"/Methods/HistoryReadRawAsync", kHistoryReadRawAsync},
      {"/Methods/PublishHistoryData", kPublishHistoryData},
      {"/Methods/ReadNewRecords", kReadNewRecords},
  };
  return methods;
}

StatusCode RequestProcessor::CallMethod(const std::string& path, const std::string& /*callerInfo*/,
                                        const json::Document& request, ReplyWriter& reply,
                                        int budget) {
  MutexLock lock(methodMutex_);
  const auto& methods = Methods::Name();
  const auto found = methods.find(path);
  const int number = found != methods.end() ? found->second : Methods::kGetArchiveItems;
  return call(number, request, reply, budget);
}

StatusCode RequestProcessor::call(int number, const json::Value& request, ReplyWriter& reply,
                                  int budget) {
  switch (number) {
    case Methods::kHistoryReadRaw:
      return HistoryReadRaw(request, reply, budget);
    case Methods::kHistoryReadRawAsync:
      return HistoryReadRawAsync(request, reply, budget);
    case Methods::kPublishHistoryData:
      return PublishHistoryData(request, reply, budget);
    case Methods::kReadNewRecords:
      return ReadNewRecords(request, reply, budget);
    default:  // kGetArchiveItems
      return GetArchiveItems(request, reply);
  }
}

}  // namespace orva
