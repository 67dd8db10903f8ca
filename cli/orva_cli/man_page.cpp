#include "orva_cli/man_page.h"

#include <sstream>

#include "orva_cli/command_tree.h"

namespace orva::cli {
namespace {

// Text that troff takes as it is: no dash becomes a hyphen, no line a request.
std::string escaped(const std::string& text) {
  std::string out;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const bool beginsLine = i == 0 || text[i - 1] == '\n';
    if (beginsLine && (text[i] == '.' || text[i] == '\'')) out += "\\&";
    if (text[i] == '\\') {
      out += "\\e";
    } else if (text[i] == '-') {
      out += "\\-";
    } else {
      out += text[i];
    }
  }
  return out;
}

std::string positionalText(const PositionalEntry& positional) {
  std::string text = positional.placeholder + (positional.isRepeated ? " ..." : "");
  return positional.isRequired ? text : "[" + text + "]";
}

class ManPage {
 public:
  explicit ManPage(const CommandEntry& root) : root_(root) {}

  std::string text() {
    out_ << ".TH ORVA 1 \"\" \"orva " ORVA_VERSION "\" \"User Commands\"\n"
         << ".SH NAME\norva \\- read the history of a running host, and work on its stores\n"
         << ".SH SYNOPSIS\n.B orva\n[\\fIOPTION\\fR ...] \\fICOMMAND\\fR [\\fIARGUMENT\\fR ...]\n"
         << ".SH DESCRIPTION\n"
         << escaped(root_.description) << '\n'
         << ".SH OPTIONS\nThose with a value may also stand behind a command.\n";
    for (const OptionEntry& option : root_.options) entry(option);
    out_ << ".SH COMMANDS\n";
    for (const CommandEntry& command : root_.commands) describe(command);
    environment();
    section("NOTES", root_.footer);
    return out_.str();
  }

 private:
  void describe(const CommandEntry& command) {
    out_ << ".SS \"" << escaped(command.path);
    if (!command.commands.empty()) out_ << " COMMAND";
    if (!command.options.empty()) out_ << " [OPTION ...]";
    for (const PositionalEntry& each : command.positionals) {
      out_ << ' ' << escaped(positionalText(each));
    }
    out_ << "\"\n" << escaped(command.description) << ".\n";
    for (const PositionalEntry& each : command.positionals) entry(each);
    for (const OptionEntry& each : command.options) {
      if (each.names.back() != "--help") entry(each);
    }
    if (!command.footer.empty()) out_ << ".PP\n.nf\n" << escaped(command.footer) << "\n.fi\n";
    for (const CommandEntry& each : command.commands) describe(each);
  }

  void entry(const OptionEntry& option) {
    out_ << ".TP\n";
    const char* separator = "";
    for (const std::string& name : option.names) {
      out_ << separator << "\\fB" << escaped(name) << "\\fR";
      separator = ", ";
    }
    if (!option.placeholder.empty()) out_ << " \\fI" << escaped(option.placeholder) << "\\fR";
    out_ << '\n' << escaped(option.description) << '\n';
  }

  void entry(const PositionalEntry& positional) {
    out_ << ".TP\n\\fI" << escaped(positional.placeholder) << "\\fR\n"
         << escaped(positional.description);
    for (const std::string& choice : positional.choices) {
      out_ << (&choice == &positional.choices.front() ? ": " : ", ") << escaped(choice);
    }
    out_ << '\n';
  }

  void environment() {
    out_ << ".SH ENVIRONMENT\n";
    for (const OptionEntry& option : root_.options) {
      if (option.environment.empty()) continue;
      out_ << ".TP\n.B " << option.environment << "\nstands for \\fB"
           << escaped(option.names.back()) << "\\fR\n";
    }
    out_ << ".TP\n.B TZ\nthe zone of times that do not say theirs\n";
  }

  void section(const char* title, const std::string& lines) {
    out_ << ".SH " << title << "\n.nf\n" << escaped(lines) << "\n.fi\n";
  }

  const CommandEntry& root_;
  std::ostringstream out_;
};

}  // namespace

std::string manPage(const CLI::App& app) {
  const CommandEntry root = commandTree(app);
  return ManPage(root).text();
}

}  // namespace orva::cli
