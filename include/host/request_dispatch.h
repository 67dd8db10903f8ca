#pragma once

#include "host/host_export.h"

// Kinds of request a handler can be registered for.
constexpr int REQUEST_JSON = 1;         // reply into a buffer of the caller's
constexpr int REQUEST_JSON_STREAM = 4;  // reply into a std::ostream, passed as `out`

// Serves one request text of `length` bytes (no terminator). Returns a status code; `*outLength`
// gets the bytes written. Called on any of the host's request threads, several at a time.
using RequestHandler = int (*)(void* context, int ignored, const void* request, int length,
                               void* out, int outCapacity, int* outLength);

extern "C" {
// 0, or a negative status. A handler of a kind is asked for every request that handlers
// registered before it did not support (0x80750000).
ORVA_HOST_API int RegisterRequestProcessor(int kind, RequestHandler handler, void* context,
                                           void* reserved);
// Names the request that the calling thread serves, for the host's own diagnostics; null when it
// is done. The text must stay until then.
ORVA_HOST_API void SetFastCGIText(const char* text);
}
