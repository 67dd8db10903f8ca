#include "orva_host/command_line.h"

#include <CLI/CLI.hpp>
#include <iostream>

#include "orva_host/archive_commands.h"

namespace orva::host {
namespace {
constexpr int kWrongUsage = 2;
}

std::optional<int> readCommandLine(int count, const char* const* arguments, CommandLine& out) {
  CLI::App app(
      "Runs add-ins of the controller without the controller.\n"
      "SIGHUP rereads the configuration, SIGUSR1 rebuilds the archives, SIGTERM and SIGINT "
      "stop.",
      "orva_host");
  app.set_version_flag("--version", "orva_host " ORVA_VERSION);
  app.add_option("--config", out.config, "the configuration file")->required()->type_name("FILE");
  CLI::Option* check = app.add_flag("--check-config", out.checkConfig,
                                    "check the configuration, load the add-ins and exit");
  app.add_option("--addins", out.addins, "the folder of the add-ins (default: ../lib, ../lib/orva)")
      ->type_name("DIR");
  CLI::Option* port =
      app.add_option("--port", out.port, "listen on this port, 0 for any free one")->type_name("P");
  app.add_option("--seconds", out.seconds, "stop after so many seconds")
      ->check(CLI::NonNegativeNumber)
      ->type_name("N");
  CLI::Option* client =
      app.add_option("--archive-client", out.archiveClient,
                     "execute the commands of SCRIPT (default: stdin) on the older archive "
                     "interface, then exit; sources, programs and listener are not started")
          ->expected(0, 1)
          ->type_name("[SCRIPT]");
  client->excludes(check)->excludes(port);
  app.footer("Commands of the archive client, one a line:\n" + ArchiveCommands::help());
  try {
    app.parse(count, arguments);
  } catch (const CLI::ParseError& error) {
    return app.exit(error, std::cout, std::cerr) == 0 ? 0 : kWrongUsage;
  }
  return std::nullopt;
}

}  // namespace orva::host
