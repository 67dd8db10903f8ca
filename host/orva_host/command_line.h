#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace orva::host {

struct CommandLine {
  std::string config;
  std::string addins;  // folder; empty: the default ones
  bool checkConfig = false;
  std::optional<std::string> archiveClient;  // the script; empty: stdin
  std::optional<std::uint16_t> port;
  std::optional<int> seconds;  // stops by itself after so many
};

// Reads the command line. An exit code when there is nothing to run: 0 after --help and --version
// (on stdout), 2 after wrong usage (explained on stderr).
std::optional<int> readCommandLine(int count, const char* const* arguments, CommandLine& out);

}  // namespace orva::host
