#include "orva_cli/completion.h"

#include <functional>
#include <sstream>

#include "orva_cli/command_tree.h"

namespace orva::cli {
namespace {

using Words = std::vector<std::string>;

std::string joined(const Words& words, const char* separator = " ") {
  std::string text;
  for (const std::string& word : words) text += (text.empty() ? "" : separator) + word;
  return text;
}

// As one word of every one of the shells.
std::string quoted(const std::string& text) {
  std::string word = "'";
  for (const char c : text) word += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return word + "'";
}

using Visit = std::function<void(const CommandEntry&)>;

void eachCommand(const CommandEntry& command, const Visit& visit) {
  visit(command);
  for (const CommandEntry& each : command.commands) eachCommand(each, visit);
}

// The paths of all commands but the program itself, as patterns of a `case`.
Words subcommandPaths(const CommandEntry& root) {
  Words paths;
  eachCommand(root, [&](const CommandEntry& each) {
    if (&each != &root) paths.push_back(quoted(each.path));
  });
  return paths;
}

Words namesOf(const std::vector<OptionEntry>& options) {
  Words names;
  for (const OptionEntry& option : options) {
    names.insert(names.end(), option.names.begin(), option.names.end());
  }
  return names;
}

const char* kindOf(Operand operand) {
  switch (operand) {
    case Operand::kItem:
      return "item";
    case Operand::kFile:
      return "file";
    case Operand::kChoice:
      return "choice";
    default:
      return "text";
  }
}

// What bash and zsh have in common: functions that say what may stand in the line.
class ShellTable {
 public:
  explicit ShellTable(const CommandEntry& root) : root_(root) {}

  std::string text() {
    expectations();
    items();
    return out_.str();
  }

 private:
  // Options of the program stand behind every command as well.
  std::vector<OptionEntry> optionsOf(const CommandEntry& command) const {
    std::vector<OptionEntry> options = command.options;
    if (&command == &root_) return options;
    for (const OptionEntry& option : root_.options) {
      const bool hasValue = option.operand != Operand::kNone;
      if (hasValue) options.push_back(option);
    }
    return options;
  }

  void expectations() {
    out_ << "# Sets what may stand behind the command $1 with $3 operands and the word $2.\n"
            "_orva_expect() {\n"
            "  kind= choices= commands= options=\n"
            "  case $1 in\n";
    eachCommand(root_, [this](const CommandEntry& command) { expectation(command); });
    out_ << "  esac\n}\n\n";
  }

  void expectation(const CommandEntry& command) {
    const std::vector<OptionEntry> options = optionsOf(command);
    out_ << "    " << quoted(command.path) << ")\n      case $2 in\n";
    for (const OptionEntry& option : options) {
      if (option.operand == Operand::kNone) continue;
      out_ << "        " << joined(option.names, " | ") << ") kind=" << kindOf(option.operand)
           << " choices=" << quoted(joined(option.choices)) << " ;;\n";
    }
    out_ << "        *)\n";
    Words commands;
    for (const CommandEntry& each : command.commands) commands.push_back(each.name);
    out_ << "          commands=" << quoted(joined(commands)) << '\n'
         << "          options=" << quoted(joined(namesOf(options))) << '\n';
    operands(command.positionals);
    out_ << "          ;;\n      esac\n      ;;\n";
  }

  void operands(const std::vector<PositionalEntry>& positionals) {
    if (positionals.empty()) return;
    out_ << "          case $3 in\n";
    for (std::size_t i = 0; i < positionals.size(); ++i) {
      const PositionalEntry& each = positionals[i];
      out_ << "            " << (each.isRepeated ? "*" : std::to_string(i))
           << ") kind=" << kindOf(each.operand) << " choices=" << quoted(joined(each.choices))
           << " ;;\n";
    }
    out_ << "          esac\n";
  }

  // The options of the program that the environment can give say which host is asked.
  void items() {
    out_ << "# The paths of the items of the host that the line $1 names.\n"
            "_orva_items() {\n"
            "  (\n";
    for (const OptionEntry& option : root_.options) {
      if (option.environment.empty()) continue;
      out_ << "    value=${1##* " << option.names.back() << "[ =]}\n"
           << "    [ \"$value\" = \"$1\" ] || export " << option.environment
           << "=\"${value%% *}\"\n";
    }
    out_ << "    timeout \"${ORVA_COMPLETION_SECONDS:-2}\" orva items --paths 2>/dev/null\n"
            "  )\n"
            "}\n\n";
  }

  const CommandEntry& root_;
  std::ostringstream out_;
};

// Finds the command that a line is in, and how many operands it has: what is no option, and no
// option's value. `word` and `before` are the shell's expressions for word i and the one before.
std::string commandLoop(const CommandEntry& root, const char* loop, const char* word,
                        const char* before) {
  return std::string("  for ((") + loop + ")); do\n    case \"$command " + word + "\" in\n      " +
         joined(subcommandPaths(root), " | ") + ")\n        command+=\" " + word + "\"\n" +
         "        operands=0\n        ;;\n      *\" -\"*) ;;\n      *)\n" +
         "        _orva_expect \"$command\" \"" + before + "\" 0\n" +
         "        if [[ -n $options ]]; then operands=$((operands + 1)); fi\n        ;;\n" +
         "    esac\n  done\n";
}

std::string bashScript(const CommandEntry& root) {
  return "# Completion of orva for bash; printed by \"orva completion bash\".\n\n" +
         ShellTable(root).text() +
         "_orva() {\n"
         "  local word=${COMP_WORDS[COMP_CWORD]} command=orva operands=0 i path\n"
         "  local kind choices commands options\n"
         "  COMPREPLY=()\n" +
         commandLoop(root, "i = 1; i < COMP_CWORD; ++i", "${COMP_WORDS[i]}", "${COMP_WORDS[i-1]}") +
         R"sh(  _orva_expect "$command" "${COMP_WORDS[COMP_CWORD - 1]}" $operands
  if [[ $word == -* && -n $options ]]; then
    mapfile -t COMPREPLY < <(compgen -W "$options" -- "$word")
  elif [[ -n $commands || $kind == choice ]]; then
    mapfile -t COMPREPLY < <(compgen -W "$commands $choices" -- "$word")
  elif [[ $kind == file ]]; then
    compopt -o filenames 2>/dev/null
    mapfile -t COMPREPLY < <(compgen -f -- "$word")
  elif [[ $kind == item ]]; then
    local start=${word//[\\\"\']/}
    while IFS= read -r path; do
      [[ $path == "$start"* ]] || continue
      [[ $word == [\"\']* ]] || printf -v path %q "$path"
      COMPREPLY+=("$path")
    done < <(_orva_items "$COMP_LINE")
  fi
}

complete -F _orva orva
)sh";
}

std::string zshScript(const CommandEntry& root) {
  return "#compdef orva\n"
         "# Completion of orva for zsh; printed by \"orva completion zsh\".\n\n" +
         ShellTable(root).text() +
         "_orva() {\n"
         "  local word=$words[CURRENT] command=orva operands=0 i\n"
         "  local kind choices commands options\n" +
         commandLoop(root, "i = 2; i < CURRENT; ++i", "$words[i]", "$words[i-1]") +
         R"sh(  _orva_expect "$command" "$words[CURRENT-1]" $operands
  if [[ $word == -* && -n $options ]]; then
    compadd -- ${=options}
  elif [[ -n $commands || $kind == choice ]]; then
    compadd -- ${=commands} ${=choices}
  elif [[ $kind == file ]]; then
    _files
  elif [[ $kind == item ]]; then
    compadd -- ${(f)"$(_orva_items "$words")"}
  fi
}

# As a function of the completion system this file is the function; sourced, it registers it.
if [[ $funcstack[1] == _orva ]]; then
  _orva "$@"
elif [[ -n ${functions[compdef]-} ]]; then
  compdef _orva orva
fi
)sh";
}

class FishScript {
 public:
  explicit FishScript(const CommandEntry& root) : root_(root) {}

  std::string text() {
    frame();
    eachCommand(root_, [this](const CommandEntry& command) { rules(command); });
    return out_.str();
  }

 private:
  void frame() {
    out_ << "# Completion of orva for fish; printed by \"orva completion fish\".\n\n"
            "# Whether the line is in this command.\n"
            "function __orva_at\n"
            "    set -l command orva\n"
            "    for word in (commandline -opc)[2..-1]\n"
            "        switch \"$command $word\"\n"
            "            case "
         << joined(subcommandPaths(root_))
         << "\n                set command \"$command $word\"\n"
            "        end\n"
            "    end\n"
            "    test \"$command\" = \"$argv\"\n"
            "end\n\n"
            "# The paths of the items of the host that the line names.\n"
            "function __orva_items\n"
            "    set -l before\n"
            "    for word in (commandline -opc)\n"
            "        switch \"$before $word\"\n";
    for (const OptionEntry& option : root_.options) {
      if (option.environment.empty()) continue;
      out_ << "            case '" << option.names.back() << " *'\n"
           << "                set -fx " << option.environment << " $word\n";
    }
    out_ << "        end\n"
            "        set before $word\n"
            "    end\n"
            "    set -q ORVA_COMPLETION_SECONDS; or set -l ORVA_COMPLETION_SECONDS 2\n"
            "    timeout $ORVA_COMPLETION_SECONDS orva items --paths 2>/dev/null\n"
            "end\n\n"
            "complete -c orva -f\n";
  }

  void rules(const CommandEntry& command) {
    for (const CommandEntry& each : command.commands) {
      rule(command) << " -a " << each.name << describe(each.description);
    }
    for (const OptionEntry& option : command.options) {
      const bool isOfAll = &command == &root_ && option.operand != Operand::kNone;
      isOfAll ? out_ << "complete -c orva" : rule(command);
      for (const std::string& name : option.names) {
        out_ << (name[1] == '-' ? " -l " : " -s ") << name.substr(name[1] == '-' ? 2 : 1);
      }
      operand(option.operand, option.choices, " -x");
      out_ << describe(option.description);
    }
    for (const PositionalEntry& each : command.positionals) {
      if (each.operand == Operand::kText) continue;
      rule(command);
      operand(each.operand, each.choices, "");
      out_ << '\n';
    }
  }

  std::ostream& rule(const CommandEntry& command) {
    return out_ << "complete -c orva -n " << quoted("__orva_at " + command.path);
  }
  static std::string describe(const std::string& description) {
    return " -d " + quoted(description) + "\n";
  }
  void operand(Operand operand, const Words& choices, const char* wanted) {
    if (operand == Operand::kFile) {
      out_ << (*wanted == '\0' ? " -F" : " -r -F");
    } else if (operand != Operand::kNone) {
      out_ << wanted;
    }
    if (operand == Operand::kItem) out_ << " -a '(__orva_items)'";
    if (operand == Operand::kChoice) out_ << " -a " << quoted(joined(choices));
  }

  const CommandEntry& root_;
  std::ostringstream out_;
};

}  // namespace

std::string completionScript(const CLI::App& app, const std::string& shell) {
  const CommandEntry root = commandTree(app);
  if (shell == "fish") return FishScript(root).text();
  return shell == "zsh" ? zshScript(root) : bashScript(root);
}

}  // namespace orva::cli
