#pragma once

#include <functional>
#include <string>
#include <vector>

#include "orva_store/importer.h"
#include "orva_store/progress.h"

namespace orva::store {

// Called for each row that is refused: the file, its line, and the reason.
using TellRefused = std::function<void(const std::string&, long long, const char*)>;

// Imports files one after the other; "-" is stdin. Failure names a file that cannot be read or has
// another first line; what was imported before stays.
ImportCounts importFiles(ImportPlan& plan, const Importer::Options& options,
                         const std::vector<std::string>& files, Progress& progress,
                         const TellRefused& tell);

}  // namespace orva::store
