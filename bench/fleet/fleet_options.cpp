#include "bench/fleet/fleet_options.h"

#include <CLI/CLI.hpp>
#include <iostream>
#include <map>

namespace orva::bench {
namespace {
constexpr int kWrongUsage = 2;
}

std::optional<int> readFleetOptions(int count, const char* const* arguments, FleetOptions& out) {
  CLI::App app(
      "One controller pulls the records of many simulated ones over real sockets: live, and after "
      "a break.\nExits with 1 unless every record arrived once and in order.",
      "orva_fleet");
  double lossPercent = 0;
  std::string archive = "sqlite";
  const std::map<std::string, Spoil> spoils = {
      {"missing", Spoil::kMissing}, {"twice", Spoil::kTwice}, {"changed", Spoil::kChanged}};
  app.add_option("--controllers", out.controllers, "how many, a run for each: 1,10,50")
      ->delimiter(',')
      ->check(CLI::Range(1U, kMostControllers))
      ->type_name("N,...");
  app.add_option("--items", out.items, "of each controller, with a record a second")
      ->check(CLI::Range(1U, kMostItems))
      ->type_name("N");
  app.add_option("--seconds", out.liveSeconds, "how long the flow is watched before the break")
      ->check(CLI::Range(1U, 86'400U))
      ->type_name("N");
  app.add_option("--break", out.breakSeconds, "how many seconds of records the break holds back")
      ->check(CLI::Range(0U, 864'000U))
      ->type_name("N");
  app.add_option("--outage", out.outageSeconds,
                 "how long no controller can be reached before the records of the break are there")
      ->check(CLI::Range(0U, 86'400U))
      ->type_name("N");
  app.add_option("--loss", lossPercent, "lost datagrams in each direction, in percent")
      ->check(CLI::Range(0.0, 90.0))
      ->type_name("P");
  app.add_option("--delay", out.delayMs, "added to each round trip, in milliseconds")
      ->check(CLI::Range(0U, 10'000U))
      ->type_name("N");
  app.add_option("--silent", out.silent, "so many of the controllers never answer")
      ->check(CLI::Range(0U, kMostControllers))
      ->type_name("N");
  app.add_option("--spoil", out.spoil,
                 "one record is missing, twice or changed in the replies: the run has to fail")
      ->transform(CLI::CheckedTransformer(spoils))
      ->type_name("missing|twice|changed");
  app.add_option("--archive", archive, "sqlite, or memory: counts and keeps nothing")
      ->check(CLI::IsMember({"sqlite", "memory"}));
  app.add_option("--write-buffer", out.writeBuffer, "the archive's \"writeBufferSize\"")
      ->type_name("N");
  app.add_option("--write-period", out.writePeriodMs, "its \"writePeriod\", in milliseconds")
      ->type_name("N");
  app.add_option("--json", out.json, "also write the figures to this file")->type_name("FILE");
  try {
    app.parse(count, arguments);
  } catch (const CLI::ParseError& error) {
    return app.exit(error, std::cout, std::cerr) == 0 ? 0 : kWrongUsage;
  }
  out.loss = lossPercent / 100;
  out.inMemory = archive == "memory";
  return std::nullopt;
}

}  // namespace orva::bench
