#pragma once

#include <ostream>

#include "orva_cli/options.h"

namespace orva::cli {

// Executes one of the commands on a store: data go to `out`, remarks to `errors`, Failure is
// thrown. Gives the exit code.
int storeCommand(const Options& options, std::ostream& out, std::ostream& errors);

}  // namespace orva::cli
