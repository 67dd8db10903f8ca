#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "orva_cli/row_writer.h"
#include "orva_cli/store_options.h"
#include "orva_cli/time_phrase.h"

namespace orva::cli {

enum class Command { kItems, kRead, kTail, kStatus, kStore };

constexpr int kExitFine = 0;
constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;

// What was typed.
struct Options {
  Command command = Command::kStatus;
  std::string host = "http://127.0.0.1:8580";
  std::string token;
  std::vector<std::string> words;  // of `items`: parts of the paths looked for
  std::vector<std::string> items;  // of `read`, `tail`, `store export`: paths or ids
  bool pathsOnly = false;          // of `items`
  Format format = Format::kTable;
  Zone zone = Zone::kLocal;
  std::optional<TimePhrase> from;
  std::optional<TimePhrase> to;
  std::int64_t points = 0;  // 0: every sample
  std::int64_t limit = INT64_MAX;
  double intervalSeconds = 1;
  StoreOptions store;
};

// Reads the command line. A number is the exit code: help was printed, or what is wrong.
std::optional<int> readOptions(int count, const char* const* arguments, Options& out,
                               std::ostream& shown, std::ostream& errors);

}  // namespace orva::cli
