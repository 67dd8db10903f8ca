#pragma once

#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace orva::cli {

// What stands for the value of an option, or behind a command.
enum class Operand { kNone, kText, kItem, kFile, kChoice };

struct OptionEntry {
  std::vector<std::string> names;  // "--from", with their dashes
  std::string placeholder;         // "TIME"; empty: a flag
  std::string description;
  std::string environment;  // the variable that stands for it; may be empty
  Operand operand = Operand::kNone;
  std::vector<std::string> choices;
};

struct PositionalEntry {
  std::string placeholder;
  std::string description;
  Operand operand = Operand::kText;
  std::vector<std::string> choices;
  bool isRequired = false;
  bool isRepeated = false;
};

// A command as it is documented and completed: "orva read" with all that may stand behind it.
struct CommandEntry {
  std::string path;
  std::string name;
  std::string description;
  std::string footer;
  std::vector<OptionEntry> options;
  std::vector<PositionalEntry> positionals;
  std::vector<CommandEntry> commands;
};

// Everything that `app` takes, but for what is hidden.
CommandEntry commandTree(const CLI::App& app);

}  // namespace orva::cli
