#pragma once

#include <memory>
#include <string>

#include "orva_host/command_line.h"

namespace orva::host {

// The program: starts everything in order, does what signals say, and stops everything in reverse.
//
//   start   add-ins loaded, InitAddin, StartAddin, events 0 to 2, controller network, events 3 to
//           7, sources, programs, listener; the older-style client in place of these four where it
//           is asked for
//   SIGHUP  the file is read again: sections, variables and other controllers; events 8, 3, 7. The
//           log's levels and file follow too; programs, sources, add-ins and listener stay as they
//           were started.
//   SIGUSR1 events 9 and 2: the archives are built anew
//   stop    programs, sources, listener, controller network, client, events 8 and 9
//
// Configuration events are delivered by the thread that calls run().
class HostApp {
 public:
  explicit HostApp(CommandLine options);
  ~HostApp();

  // The exit code: 0, or 1 after an error that stderr tells.
  int run();

 private:
  struct Parts;

  bool readConfig();
  bool openScript();
  bool prepare();
  int check();
  bool start();
  bool listen();
  void serve();
  void reread();
  void rebuildArchives();
  void stop();

  const CommandLine options_;
  const std::string configFile_;  // absolute: the working folder changes
  std::unique_ptr<Parts> parts_;
};

}  // namespace orva::host
