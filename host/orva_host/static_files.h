#pragma once

#include <string>
#include <vector>

#include "orva_host/http_router.h"

namespace orva::host {

// The pages that people see in a browser: one route for each file of a folder, with "/" for
// index.html and "/<name>" for <name>.html.
//
// The files are read once and stay as they were: a page is never mixed from two versions while the
// folder is replaced under a running host. A request names a route, not a file, so no path leads
// out of the folder. They are served without a token: they hold no data, the page asks for it.

// Where the pages are when the configuration does not say so: ../share/orva/web beside the program.
std::string defaultWebFolder();

// In a folder without pages there is just "/", which says what is missing.
std::vector<HttpRoute> pageRoutes(const std::string& folder);

}  // namespace orva::host
