#pragma once

#include <map>
#include <string>

#include "share/status_codes.h"

namespace orva::cli {

// "good", "uncertain" or "bad".
const char* severityWord(StatusCode quality);

// "bad, not connected". The low half of a code holds flags; what is not known shows its number.
std::string qualityWords(StatusCode quality);

// All that have words of their own. The trend page has the same ones, in web/js/quality.js.
std::map<StatusCode, std::string> namedQualities();

// Why an item's history is not there, or not whole; from the "statusCode" of a reply.
std::string itemWords(StatusCode code);

}  // namespace orva::cli
