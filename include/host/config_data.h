#pragma once

#include <string>

#include "host/host_export.h"
#include "share/json.h"

// The text of a section of the controller configuration, for example "DataArchive"; empty when
// there is none.
ORVA_HOST_API std::string GetConfigDataValue(const char* section);

namespace orva {
// Parses JSON text; the document owns what it needs. 0, or a negative status (0x80070000) and a
// null document. Empty text is an error.
ORVA_HOST_API int parse_json(const std::string& text, json::Document& out);
}  // namespace orva
