#pragma once

#include <functional>
#include <string>
#include <vector>

#include "orva_store/importer.h"
#include "orva_store/progress.h"

namespace orva::store {

// Called for each row that is refused: the file, its line, and the reason.
using TellRefused = std::function<void(const std::string&, long long, const char*)>;

// Files to import, "-" is stdin. Failure names one that cannot be read or has another first line,
// before anything is imported.
class ImportInput {
 public:
  explicit ImportInput(const std::vector<std::string>& files);
  ~ImportInput();
  ImportInput(const ImportInput&) = delete;
  ImportInput& operator=(const ImportInput&) = delete;

 private:
  friend class FileImport;
  struct File;
  std::vector<File> files_;
};

// Imports files one after the other. `counts` says what was done also when this ends with a
// Failure: what was imported before that stays.
void importFiles(ImportPlan& plan, const Importer::Options& options, ImportInput& input,
                 Progress& progress, const TellRefused& tell, ImportCounts& counts);

}  // namespace orva::store
