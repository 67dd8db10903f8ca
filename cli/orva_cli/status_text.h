#pragma once

#include <string>

#include "orva_cli/host_status.h"

namespace orva::cli {

// In lines for people: what is kept, what is lost and what to do about it.
std::string statusText(const HostStatus& status, const std::string& url);

// As a JSON object, for programs.
std::string statusJson(const HostStatus& status, const std::string& url);

}  // namespace orva::cli
