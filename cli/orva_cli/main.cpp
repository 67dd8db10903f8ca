#include <csignal>
#include <ctime>
#include <iostream>

#include "orva_cli/commands.h"
#include "orva_cli/failure.h"
#include "orva_cli/store_commands.h"

namespace {

using namespace orva::cli;

// Gives the exit code.
int execute(const Options& options) {
  if (options.command == Command::kStore) return storeCommand(options, std::cout, std::cerr);
  HostClient host(options.host, options.token);
  switch (options.command) {
    case Command::kItems:
      listCommand(options, host, std::cout, std::cerr);
      break;
    case Command::kRead:
      readCommand(options, host, std::cout);
      break;
    case Command::kTail:
      tailCommand(options, host, std::cout);
      break;
    default:
      statusCommand(options, host, std::cout);
  }
  return kExitFine;
}

}  // namespace

int main(int argc, char** argv) {
  // The reader of a pipe that goes away ends this program quietly, whoever started it.
  std::signal(SIGPIPE, SIG_DFL);
  std::ios::sync_with_stdio(false);
  tzset();
  int code = kExitFine;
  try {
    Options options;
    if (const auto done = readOptions(argc, argv, options, std::cout, std::cerr)) return *done;
    code = execute(options);
  } catch (const UsageError& error) {
    std::cerr << "orva: " << error.what() << '\n';
    code = kExitUsage;
  } catch (const std::exception& error) {
    std::cerr << "orva: " << error.what() << '\n';
    code = kExitFailure;
  }
  std::cout.flush();
  if (!std::cout && code == kExitFine) {
    std::cerr << "orva: cannot write the output; is the disk full?\n";
    code = kExitFailure;
  }
  return code;
}
