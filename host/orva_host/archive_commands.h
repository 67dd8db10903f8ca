#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "host/archive_source.h"
#include "orva_host/command_arguments.h"

namespace orva::host {

// What a command had to say.
struct CommandResult {
  std::string out;    // lines
  std::string error;  // empty when it succeeded
};

// The commands of an older-style client: each line is one, executed on an archive source.
//
// For one thread. A read blocks until its answer is there.
class ArchiveCommands {
 public:
  // Gives the source of a number, or null.
  using Sources = std::function<ArchiveSource*(int number)>;

  explicit ArchiveCommands(Sources sources) : sources_(std::move(sources)) {}

  // Makes the source of that number the one that commands go to. False when there is none: then
  // it stays as it was.
  bool use(int number);
  // Call use() first. Nothing is thrown, whatever the source does.
  CommandResult execute(std::string_view line);

  // What commands there are, a line each.
  static std::string help();

 private:
  struct Command;
  static const Command kCommands[];
  static const Command* find(const std::string& name);

  void run(const Command& command, CommandArguments& arguments);
  void chooseSource(CommandArguments& arguments);
  void findItem(CommandArguments& arguments);
  void getItemId(CommandArguments& arguments);
  void write(CommandArguments& arguments);
  void setFilter(CommandArguments& arguments);
  void disableWriteByChange(CommandArguments& arguments);
  void read(CommandArguments& arguments);
  void lastTime(CommandArguments& arguments);
  void showHelp(CommandArguments& arguments);

  // Whether the arguments were fine, and all of them taken.
  bool complete(const CommandArguments& arguments);
  // Whether an operation of the source succeeded.
  bool succeeded(const char* operation, int result);
  void fail(const std::string& what) { result_.error = what; }
  void print(const std::string& line) { result_.out += line + "\n"; }
  void printRecords(const ArchiveRequest& request);

  const Sources sources_;
  ArchiveSource* source_ = nullptr;
  std::int64_t requests_ = 0;
  CommandResult result_;  // of the command that runs
};

}  // namespace orva::host
