#pragma once

#include <ostream>

#include "orva_cli/host_client.h"
#include "orva_cli/options.h"

namespace orva::cli {

// Each executes one command: data go to `out`, remarks to `errors`, Failure is thrown.
void listCommand(const Options& options, HostClient& host, std::ostream& out, std::ostream& errors);
void readCommand(const Options& options, HostClient& host, std::ostream& out);
void tailCommand(const Options& options, HostClient& host, std::ostream& out);
void statusCommand(const Options& options, HostClient& host, std::ostream& out);

}  // namespace orva::cli
