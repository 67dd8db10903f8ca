// What the program orva prints about itself: completion scripts, run by their shells, and its
// manual page. Both are compared with what --help says.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <regex>
#include <set>
#include <sstream>

#include "support/plant.h"

namespace orva::test {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::IsSupersetOf;
using ::testing::UnorderedElementsAre;

using Words = std::vector<std::string>;

Words linesOf(const std::string& text) {
  std::istringstream stream(text);
  Words lines;
  for (std::string line; std::getline(stream, line);) {
    if (!line.empty()) lines.push_back(line);
  }
  return lines;
}

Words wordsOf(const std::string& line) {
  std::istringstream stream(line);
  Words words;
  for (std::string word; stream >> word;) words.push_back(word);
  return words;
}

// What --help lists: names of commands, and options with their dashes.
struct Help {
  Words commands;
  std::set<std::string> options;
};

class ShellCompletionTest : public ::testing::Test {
 protected:
  ShellCompletionTest() {
    const std::string program =
        folder_.write("orva", "#!/bin/sh\nexec " ORVA_LAUNCHER " " ORVA_CLI_PROGRAM " \"$@\"\n");
    EXPECT_EQ(chmod(program.c_str(), 0755), 0);
  }

  // Runs a script with the program in its path.
  ProgramResult run(const Words& shell, const std::string& script) const {
    Words command = {"env", "PATH=" + folder_.path("") + ":/usr/bin:/bin", "ORVA_HOST=" + url_,
                     "ORVA_COMPLETION_SECONDS=60"};
    command.insert(command.end(), shell.begin(), shell.end());
    command.push_back(script);
    return runProgram(command, 60'000);
  }
  bool has(const std::string& shell) const {
    return run({"/bin/sh", "-c"}, "command -v " + shell).exitCode == 0;
  }

  Help help(const std::string& path) const {
    Help help;
    const std::regex option("^  (-\\w)?,?(--[a-z-]+)?.*");
    bool inCommands = false;
    for (const std::string& line : linesOf(run({"/bin/sh", "-c"}, path + " --help").out)) {
      std::smatch found;
      if (line[0] != ' ') inCommands = line == "Subcommands:";
      if (inCommands && line.compare(0, 2, "  ") == 0 && line[2] != ' ') {
        help.commands.push_back(wordsOf(line)[0]);
      } else if (std::regex_match(line, found, option) && line[2] == '-') {
        if (found[1].matched) help.options.insert(found[1]);
        if (found[2].matched) help.options.insert(found[2]);
      }
    }
    return help;
  }
  // The paths of the program and all its commands.
  Words allCommands(const std::string& path = "orva") const {
    Words paths = {path};
    for (const std::string& name : help(path).commands) {
      const Words below = allCommands(path + " " + name);
      paths.insert(paths.end(), below.begin(), below.end());
    }
    return paths;
  }

  // Runs what is below in a shell that has the line to complete in $LINE.
  Words offered(const Words& shell, const std::string& line, const std::string& script) const {
    return linesOf(run(shell, "LINE='" + line + "'\n" + script).out);
  }
  // What bash offers in the place of the line's last word.
  Words bash(const std::string& line) const {
    return offered({"bash", "--norc", "-c"}, line, R"sh(eval "$(orva completion bash)"
      read -ra COMP_WORDS <<<"$LINE"
      [[ $LINE == *' ' ]] && COMP_WORDS+=('')
      COMP_LINE=$LINE COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
      _orva
      printf '%s\n' "${COMPREPLY[@]}")sh");
  }
  // The completion system's own functions print what they are given.
  Words zsh(const std::string& line) const {
    return offered({"zsh", "-f", "-c"}, line, R"sh(eval "$(orva completion zsh)"
      compadd() { shift; print -rl -- "$@" }
      _files() { print files }
      words=(${=LINE})
      [[ $LINE == *' ' ]] && words+=('')
      CURRENT=$#words
      _orva)sh");
  }
  Words fish(const std::string& line) const {
    return linesOf(run({"fish", "--no-config", "-c"},
                       "orva completion fish | source\n"
                       "complete -C'" +
                           line + "' | string replace -r '\\t.*' ''")
                       .out);
  }

  TempFolder folder_;
  std::string url_ = "http://127.0.0.1:1";
};

TEST_F(ShellCompletionTest, BashOffersTheCommandsAndOptionsThatHelpLists) {
  const std::set<std::string> own = help("orva").options;
  const Words commands = allCommands();
  EXPECT_GE(commands.size(), 6U);
  for (const std::string& path : commands) {
    SCOPED_TRACE(path);
    const Help listed = help(path);
    EXPECT_FALSE(listed.options.empty());
    if (!listed.commands.empty()) {
      EXPECT_EQ(bash(path + " "), listed.commands);
    }
    const Words offered = bash(path + " -");
    EXPECT_THAT(offered, IsSupersetOf(listed.options));
    for (const std::string& option : offered) {
      EXPECT_TRUE(listed.options.count(option) + own.count(option) > 0) << option;
    }
  }
}

TEST_F(ShellCompletionTest, BashKnowsWhatStandsBehindAnOption) {
  EXPECT_THAT(bash("orva re"), ElementsAre("read"));
  EXPECT_THAT(bash("orva --token x re"), ElementsAre("read"));
  EXPECT_THAT(bash("orva read --from "), IsEmpty());
  EXPECT_THAT(bash("orva read --utc --fr"), ElementsAre("--from"));
  // Words beside operands: the folder of a store, then items.
  folder_.write("archive.db", "");
  EXPECT_THAT(bash("orva store check " + folder_.path("arch")),
              ElementsAre(folder_.path("archive.db")));
  EXPECT_THAT(bash("orva store export " + folder_.path("arch")),
              ElementsAre(folder_.path("archive.db")));
  EXPECT_THAT(bash("orva store export --layer 1 " + folder_.path("arch")),
              ElementsAre(folder_.path("archive.db")));
  EXPECT_THAT(bash("orva store export x " + folder_.path("arch")), IsEmpty());
  EXPECT_THAT(bash("orva completion "), UnorderedElementsAre("bash", "zsh", "fish"));
  EXPECT_THAT(bash("orva completion z"), ElementsAre("zsh"));
}

TEST_F(ShellCompletionTest, ZshOffersTheSameAsBash) {
  if (!has("zsh")) GTEST_SKIP() << "there is no zsh";
  for (const std::string& path : allCommands()) {
    SCOPED_TRACE(path);
    EXPECT_EQ(zsh(path + " -"), bash(path + " -"));
  }
  EXPECT_EQ(zsh("orva "), bash("orva "));
  EXPECT_EQ(zsh("orva completion "), bash("orva completion "));
}

TEST_F(ShellCompletionTest, FishOffersTheCommandsAndOptionsThatHelpLists) {
  if (!has("fish")) GTEST_SKIP() << "there is no fish";
  for (const std::string& path : allCommands()) {
    SCOPED_TRACE(path);
    const Help listed = help(path);
    if (!listed.commands.empty()) {
      EXPECT_THAT(fish(path + " "), ::testing::UnorderedElementsAreArray(listed.commands));
    }
    Words options = fish(path + " --");
    for (const std::string& option : listed.options) {
      if (option.size() > 2) {
        EXPECT_THAT(options, ::testing::Contains(option));
      }
    }
  }
  EXPECT_THAT(fish("orva completion "), UnorderedElementsAre("bash", "fish", "zsh"));
}

TEST_F(ShellCompletionTest, ItemsAreTheHostsOwn) {
  PlantConfig config;
  config.variables = "[" + variable(1, "Plant/Load", "Double") + "," +
                     variable(2, "Plant/State, odd", "String") + "," +
                     variable(3, "Other/Load", "Double") + "]";
  Plant plant(config);
  ASSERT_TRUE(plant.start());
  const std::string host = "http://127.0.0.1:" + std::to_string(plant.port());
  EXPECT_THAT(bash("orva read Pl"), IsEmpty()) << "a host that is not there has no items";
  EXPECT_THAT(bash("orva --host " + host + " read Plant/L"), ElementsAre("Plant/Load"));
  url_ = host;
  EXPECT_THAT(bash("orva read Pl"), ElementsAre("Plant/Load", "Plant/State\\,\\ odd"));
  EXPECT_THAT(bash("orva tail Plant/Load O"), ElementsAre("Other/Load"));
  const auto all = UnorderedElementsAre("Plant/Load", "Plant/State, odd", "Other/Load");
  if (has("zsh")) {
    EXPECT_THAT(zsh("orva read "), all);
  }
  if (has("fish")) {
    EXPECT_THAT(fish("orva tail "), all);
  }
}

TEST_F(ShellCompletionTest, TheManualPageHasWhatHelpLists) {
  std::string page = run({"/bin/sh", "-c"}, "orva man").out;
  EXPECT_EQ(page.compare(0, 10, ".TH ORVA 1"), 0) << page;
  page.erase(std::remove(page.begin(), page.end(), '\\'), page.end());
  for (const std::string& path : allCommands()) {
    const Help listed = help(path);
    if (path != "orva") {
      EXPECT_THAT(page, HasSubstr("\n.SS \"" + path));
    }
    for (const std::string& option : listed.options) {
      EXPECT_THAT(page, HasSubstr("fB" + option + "fR")) << path;
    }
  }
  EXPECT_THAT(page, HasSubstr("ORVA_TOKEN"));
}

TEST_F(ShellCompletionTest, TroffTakesTheManualPageWithoutAWarning) {
  if (!has("groff")) GTEST_SKIP() << "there is no groff";
  const ProgramResult result = run({"/bin/sh", "-c"}, "orva man | groff -man -Tascii -ww");
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.err, "");
  EXPECT_THAT(result.out, HasSubstr("--points"));
}

}  // namespace
}  // namespace orva::test
