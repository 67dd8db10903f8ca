#pragma once

#include "orva_host/http_router.h"

namespace orva::host {

// POST /Methods/<Name>: the body goes to the add-ins' request handlers, framed as
// "/Methods/<Name>\n<caller's address>\n<body>", and their reply comes back.
//
//   POST /Methods/HistoryReadRaw   {"data":[]}     ->  200 {"data":[],"code":0}
//   POST /Methods/None             {}              ->  404 {"code":2155151360,"error":"..."}
//
// The HTTP status is 200 when a handler wrote a reply, whatever its "code" says.
//
// With a header "X-Orva-Buffer: N" (0 to 16777216) the request goes to the handlers that write into
// a buffer, of N bytes: for clients that want no more than that, they get a code instead.
HttpRoute methodsRoute();

// GET /api/items: the variables of the configuration by ascending id.
//
//   {"items":[{"id":1,"path":"Plant/Load","type":"Double",
//              "layers":{"0":{"archive":0,"parameter":0}}}]}
HttpRoute itemsRoute();

}  // namespace orva::host
