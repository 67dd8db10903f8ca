#include <csignal>
#include <ctime>
#include <iostream>

#include "orva_cli/commands.h"
#include "orva_cli/failure.h"

namespace {

using namespace orva::cli;

void execute(const Options& options) {
  HostClient host(options.host, options.token);
  switch (options.command) {
    case Command::kItems:
      return listCommand(options, host, std::cout, std::cerr);
    case Command::kRead:
      return readCommand(options, host, std::cout);
    case Command::kTail:
      return tailCommand(options, host, std::cout);
    case Command::kStatus:
      return statusCommand(host, std::cout);
  }
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
    execute(options);
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
