#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "orva_cli/option_texts.h"

namespace orva::cli {

enum class StoreAction { kCheck, kStat, kExport, kImport, kCompact };

// What was typed behind `orva store`, but for items, times and formats.
struct StoreOptions {
  StoreAction action = StoreAction::kStat;
  std::string place;
  std::int32_t layer = 0;          // of `export`
  std::string output;              // of `export`; empty: stdout
  std::vector<std::string> files;  // of `import`; none: stdin
  std::string config;              // of `import`: a host's configuration file
  bool dryRun = false;
  bool filter = false;
  std::uint64_t refusedShown = 20;
};

// Adds the command `store` and those below it. `chosen` is called when one was typed.
void addStore(CLI::App& app, StoreOptions& out, std::vector<std::string>& items, TimeTexts& texts,
              const std::function<void()>& chosen);

}  // namespace orva::cli
