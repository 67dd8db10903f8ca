#include <cstdio>
#include <exception>

#include "orva_host/command_line.h"
#include "orva_host/host_app.h"

int main(int argc, char** argv) {
  try {
    orva::host::CommandLine options;
    if (const auto exitCode = orva::host::readCommandLine(argc, argv, options)) return *exitCode;
    return orva::host::HostApp(options).run();
  } catch (const std::exception& error) {
    std::fprintf(stderr, "orva_host: %s\n", error.what());
    return 1;
  }
}
