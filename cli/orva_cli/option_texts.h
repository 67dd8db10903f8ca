#pragma once

#include <string>

namespace CLI {
class App;
}

namespace orva::cli {

// Times and formats as they were typed: what a time means depends on --utc, wherever that stands in
// the line.
struct TimeTexts {
  std::string from;
  std::string to;
  bool utc = false;
  bool csv = false;
  bool json = false;
};

// --csv, --json (with this help) and --utc.
void addFormats(CLI::App& command, TimeTexts& texts, const std::string& json);

}  // namespace orva::cli
