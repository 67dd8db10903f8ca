#include "host/request_dispatch.h"

#include <climits>
#include <sstream>
#include <vector>

#include "host/trace.h"
#include "orva_host/requests.h"
#include "orva_host/served_request.h"
#include "share/mutex.h"

namespace orva::host {
namespace {

struct Processor {
  int kind;
  RequestHandler handler;
  void* context;
};

struct Registry {
  Mutex mutex;
  std::vector<Processor> processors GUARDED_BY(mutex);  // in order of registration
  unsigned refusedKinds GUARDED_BY(mutex) = 0;
};

// Never destroyed: threads may still serve requests while the process ends.
Registry& registry() {
  static Registry& made = *new Registry;
  return made;
}

std::vector<Processor> processorsOf(int kind) {
  Registry& all = registry();
  MutexLock lock(all.mutex);
  std::vector<Processor> found;
  for (const Processor& processor : all.processors) {
    if (processor.kind == kind) found.push_back(processor);
  }
  return found;
}

// The text that SetFastCGIText was given.
thread_local const char* servedText = nullptr;

// One line of the framed text.
std::string oneLine(const std::string& text) {
  std::string line = text;
  for (char& c : line) {
    if (c == '\n' || c == '\r' || c == '\0') c = ' ';
  }
  return line;
}

StatusCode traced(StatusCode code, const char* what) {
  OpcUa_Trace_Imp(kTraceError, "request handler: %s, answers 0x%08X\n", __FILE__, __LINE__, what,
                  static_cast<unsigned>(code));
  return code;
}

StatusCode serve(const Processor& processor, const std::string& request, void* out, int capacity,
                 int& outLength) {
  StatusCode code = status::kGood;
  try {
    code = static_cast<StatusCode>(processor.handler(processor.context, 0, request.data(),
                                                     static_cast<int>(request.size()), out,
                                                     capacity, &outLength));
  } catch (...) {
    code = traced(status::kBadOutOfMemory, "let an exception out");
  }
  SetFastCGIText(nullptr);
  return code;
}

}  // namespace

std::string frameRequest(const std::string& path, const std::string& caller,
                         const std::string& body) {
  return oneLine(path) + '\n' + oneLine(caller) + '\n' + body;
}

StatusCode dispatchToStream(const std::string& request, std::string& reply) {
  reply.clear();
  if (request.size() > INT_MAX) return status::kBadRequest;
  for (const Processor& processor : processorsOf(REQUEST_JSON_STREAM)) {
    std::ostringstream out;
    // Handlers get the stream as std::ostream, whatever its own type.
    std::ostream* stream = &out;
    int length = -1;
    const StatusCode code = serve(processor, request, stream, 0, length);
    const bool wrote = out.tellp() > 0;
    if (code == status::kBadNotSupported && !wrote) continue;
    reply = out.str();
    return code;
  }
  return status::kBadNotSupported;
}

StatusCode dispatchToBuffer(const std::string& request, char* out, int capacity, int& length) {
  length = 0;
  if (request.size() > INT_MAX) return status::kBadRequest;
  for (const Processor& processor : processorsOf(REQUEST_JSON)) {
    int written = -1;
    const StatusCode code = serve(processor, request, out, capacity, written);
    if (code == status::kBadNotSupported && written < 0) continue;
    length = written < 0 ? 0 : written;
    return code;
  }
  return status::kBadNotSupported;
}

void refuseRequestProcessors(int kind, bool refuse) {
  Registry& all = registry();
  MutexLock lock(all.mutex);
  const unsigned bit = 1U << (static_cast<unsigned>(kind) & 31U);
  all.refusedKinds = refuse ? all.refusedKinds | bit : all.refusedKinds & ~bit;
}

void forgetRequestProcessors() {
  Registry& all = registry();
  MutexLock lock(all.mutex);
  all.processors.clear();
}

void servedRequestText(char* out, std::size_t capacity) {
  std::size_t length = 0;
  for (const char* c = servedText; c != nullptr && length + 1 < capacity; ++c) {
    if (*c == '\0' || *c == '\n') break;
    out[length++] = *c >= ' ' && *c < 0x7F ? *c : '?';
  }
  if (capacity > 0) out[length] = '\0';
}

}  // namespace orva::host

int RegisterRequestProcessor(int kind, RequestHandler handler, void* context, void*) {
  using namespace orva;
  if (handler == nullptr) return static_cast<int>(status::kBadInvalidArgument);
  if (kind != REQUEST_JSON && kind != REQUEST_JSON_STREAM) {
    return static_cast<int>(status::kBadNotSupported);
  }
  host::Registry& all = host::registry();
  MutexLock lock(all.mutex);
  if ((all.refusedKinds >> kind & 1U) != 0) return static_cast<int>(status::kBadNotSupported);
  all.processors.push_back({kind, handler, context});
  return 0;
}

void SetFastCGIText(const char* text) { orva::host::servedText = text; }
