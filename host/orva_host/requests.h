#pragma once

#include <string>

#include "share/status_codes.h"

namespace orva::host {

// Hands requests to the handlers that add-ins registered (host/request_dispatch.h), in the order
// of registration, until one supports it. Thread-safe: requests run on the caller's thread.

// The text handlers get: "<path>\n<caller>\n<body>". Line ends inside path and caller become
// blanks, so neither can pass for the next part.
std::string frameRequest(const std::string& path, const std::string& caller,
                         const std::string& body);

// The handler's status, with its reply; 0x80750000 with an empty one when no handler supports the
// request.
StatusCode dispatchToStream(const std::string& request, std::string& reply);
// The same through the handlers that write into a buffer; `length` gets the bytes of the reply.
StatusCode dispatchToBuffer(const std::string& request, char* out, int capacity, int& length);

// Makes registrations of a kind fail from now on (with 0x80750000), as in a host that does not
// serve it.
void refuseRequestProcessors(int kind, bool refuse);
void forgetRequestProcessors();

}  // namespace orva::host
