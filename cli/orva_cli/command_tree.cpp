#include "orva_cli/command_tree.h"

#include <CLI/CLI.hpp>
#include <algorithm>

namespace orva::cli {
namespace {

// CLI11 gives the words that are allowed in the type: "SHELL:{bash,fish,zsh}".
std::vector<std::string> choicesOf(const std::string& type) {
  const std::size_t begin = type.find('{');
  const std::size_t end = type.find('}');
  if (begin == std::string::npos || end == std::string::npos) return {};
  return CLI::detail::split(type.substr(begin + 1, end - begin - 1), ',');
}

bool namesAFile(const std::string& type) {
  const char* const kTypes[] = {"FILE", "FOLDER", "DIR", "PATH", "STORE"};
  return std::any_of(std::begin(kTypes), std::end(kTypes),
                     [&type](const char* each) { return type.find(each) != std::string::npos; });
}

Operand operandOf(const std::string& placeholder, const std::string& type) {
  if (!choicesOf(type).empty()) return Operand::kChoice;
  if (placeholder == "ITEM") return Operand::kItem;
  return namesAFile(placeholder) || namesAFile(type) ? Operand::kFile : Operand::kText;
}

// "SHELL" of "SHELL:{bash,fish,zsh}".
std::string placeholderOf(const std::string& type) { return type.substr(0, type.find(':')); }

OptionEntry optionEntry(const CLI::Option& option) {
  OptionEntry entry;
  for (const std::string& name : option.get_snames()) entry.names.push_back("-" + name);
  for (const std::string& name : option.get_lnames()) entry.names.push_back("--" + name);
  entry.description = option.get_description();
  entry.environment = option.get_envname();
  if (option.get_items_expected_max() == 0) return entry;
  const std::string type = option.get_type_name();
  entry.placeholder = placeholderOf(type);
  entry.operand = operandOf(entry.placeholder, type);
  entry.choices = choicesOf(type);
  return entry;
}

PositionalEntry positionalEntry(const CLI::Option& option) {
  PositionalEntry entry;
  const std::string type = option.get_type_name();
  entry.placeholder = option.get_name(true);
  entry.description = option.get_description();
  entry.operand = operandOf(entry.placeholder, type);
  entry.choices = choicesOf(type);
  entry.isRequired = option.get_required();
  entry.isRepeated = option.get_items_expected_max() > 1;
  return entry;
}

CommandEntry commandEntry(const CLI::App& app, const std::string& parent) {
  CommandEntry entry;
  entry.name = app.get_name();
  entry.path = parent + (parent.empty() ? "" : " ") + entry.name;
  entry.description = app.get_description();
  // What CLI11 hands down is said once.
  const CLI::App* above = app.get_parent();
  if (above == nullptr || above->get_footer() != app.get_footer()) entry.footer = app.get_footer();
  for (const CLI::Option* option : app.get_options()) {
    if (option->get_group().empty()) continue;
    if (option->get_positional()) {
      entry.positionals.push_back(positionalEntry(*option));
    } else {
      entry.options.push_back(optionEntry(*option));
    }
  }
  for (const CLI::App* command : app.get_subcommands([](const CLI::App*) { return true; })) {
    if (!command->get_group().empty()) {
      entry.commands.push_back(commandEntry(*command, entry.path));
    }
  }
  return entry;
}

}  // namespace

CommandEntry commandTree(const CLI::App& app) { return commandEntry(app, ""); }

}  // namespace orva::cli
