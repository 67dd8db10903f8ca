#include "orva_cli/options.h"

#include <CLI/CLI.hpp>

#include "orva_cli/completion.h"
#include "orva_cli/man_page.h"

namespace orva::cli {
namespace {

constexpr const char* kExamples =
    "Examples:\n"
    "  orva items tank                       the items with \"tank\" in their path\n"
    "  orva read Plant/Tank/Level            the last hour\n"
    "  orva read 12 --from -1d --points 500  a day, thinned without losing a peak\n"
    "  orva read Plant/Tank/Level --from 2026-03-01T08:00 --to 2026-03-01T09:00 --csv > tank.csv\n"
    "  orva tail Plant/Tank/Level --json | jq .value\n"
    "  orva --host http://station:8580 status\n"
    "  orva store check data/fast            is anything in this store damaged?\n"
    "\n"
    "Exit codes: 0 done, 1 failed, 2 wrong usage.";

constexpr const char* kTimes =
    "Times: now, -90s, -30m, -1h, -1d12h, -2w, 2026-03-01, 2026-03-01T08:00, with seconds where\n"
    "wanted, and with Z or +01:00 for another zone than that of this machine (or UTC by --utc).";

// Texts about the program itself that were asked for.
struct OwnTexts {
  std::string completionShell;
  bool manPage = false;
};

std::optional<TimePhrase> timeOf(const std::string& option, const std::string& text, Zone zone) {
  if (text.empty()) return std::nullopt;
  const std::optional<TimePhrase> time = TimePhrase::read(text, zone);
  if (!time) {
    throw CLI::ValidationError(option,
                               "\"" + text + "\" is no time, such as -1h, now or 2026-03-01T08:00");
  }
  return time;
}

void addItems(CLI::App& app, Options& out, TimeTexts& texts) {
  CLI::App* items = app.add_subcommand("items", "lists the host's variables");
  items->add_option("TEXT", out.words, "only those with all these texts in their path");
  CLI::Option* json = items->add_flag("--json", texts.json, "as JSON");
  items->add_flag("--paths", out.pathsOnly, "their paths alone, one a line")->excludes(json);
  items->callback([&out] { out.command = Command::kItems; });
}

void addRead(CLI::App& app, Options& out, TimeTexts& texts) {
  CLI::App* read = app.add_subcommand("read", "prints the history of items");
  read->add_option("ITEM", out.items, "paths or ids")->required();
  read->add_option("--from", texts.from, "the first time (default: an hour before the last)")
      ->type_name("TIME");
  read->add_option("--to", texts.to, "the last time (default: now)")->type_name("TIME");
  CLI::Option* points =
      read->add_option("--points", out.points,
                       "about so many rows of each item, with every smallest and largest value")
          ->check(CLI::Range(3, 100'000))
          ->type_name("N");
  read->add_option("--limit", out.limit, "so many rows of each item at most, the oldest")
      ->check(CLI::Range(std::int64_t{1}, INT64_MAX))
      ->type_name("N")
      ->excludes(points);
  addFormats(*read, texts, "a JSON array");
  read->callback([&out] { out.command = Command::kRead; });
}

void addTail(CLI::App& app, Options& out, TimeTexts& texts) {
  CLI::App* tail = app.add_subcommand("tail", "prints new values as they come, until Ctrl-C");
  tail->add_option("ITEM", out.items, "paths or ids")->required();
  tail->add_option("--from", texts.from, "begin with values from then on (default: now)")
      ->type_name("TIME");
  tail->add_option("--limit", out.limit, "end after so many values")
      ->check(CLI::Range(std::int64_t{1}, INT64_MAX))
      ->type_name("N");
  tail->add_option("--interval", out.intervalSeconds, "seconds between looks (default: 1)")
      ->check(CLI::Range(0.01, 3600.0))
      ->type_name("S");
  addFormats(*tail, texts, "a JSON object a line");
  tail->callback([&out] { out.command = Command::kTail; });
}

void addStatus(CLI::App& app, Options& out, TimeTexts& texts) {
  CLI::App* status = app.add_subcommand("status", "says in words how the host fares");
  status->add_flag("--json", texts.json, "as a JSON object");
  status->callback([&out] { out.command = Command::kStatus; });
}

void addOwnTexts(CLI::App& app, OwnTexts& own) {
  CLI::App* completion =
      app.add_subcommand("completion", "prints a script that teaches a shell to complete lines");
  completion->add_option("SHELL", own.completionShell, "which shell")
      ->required()
      ->check(CLI::IsMember({"bash", "zsh", "fish"}));
  app.add_subcommand("man", "prints the manual page")->group("")->callback([&own] {
    own.manPage = true;
  });
}

// True when something was shown.
bool show(const CLI::App& app, const OwnTexts& own, std::ostream& shown) {
  if (own.manPage) shown << manPage(app);
  if (!own.completionShell.empty()) shown << completionScript(app, own.completionShell);
  return own.manPage || !own.completionShell.empty();
}

void take(const TimeTexts& texts, Options& out) {
  out.zone = texts.utc ? Zone::kUtc : Zone::kLocal;
  out.from = timeOf("--from", texts.from, out.zone);
  out.to = timeOf("--to", texts.to, out.zone);
  if (texts.csv) out.format = Format::kCsv;
  if (texts.json) out.format = out.command == Command::kTail ? Format::kJsonLines : Format::kJson;
}

}  // namespace

void addFormats(CLI::App& command, TimeTexts& texts, const std::string& json) {
  CLI::Option* csv = command.add_flag("--csv", texts.csv, "comma separated values");
  command.add_flag("--json", texts.json, json)->excludes(csv);
  command.add_flag("--utc", texts.utc,
                   "show and read times in UTC, not in the zone of this machine");
  command.footer(kTimes);
}

std::optional<int> readOptions(int count, const char* const* arguments, Options& out,
                               std::ostream& shown, std::ostream& errors) {
  CLI::App app("Reads the history that a running host keeps, and works on its stores.", "orva");
  app.set_version_flag("--version", "orva " ORVA_VERSION);
  app.add_option("--host", out.host, "the host's address (default: http://127.0.0.1:8580)")
      ->envname("ORVA_HOST")
      ->type_name("URL");
  app.add_option("--token", out.token, "the token that the host asks for")
      ->envname("ORVA_TOKEN")
      ->type_name("TOKEN");
  app.require_subcommand(0, 1);  // checked below: an unknown one is said to be that
  app.fallthrough();
  app.footer(kExamples);
  TimeTexts texts;
  addItems(app, out, texts);
  addRead(app, out, texts);
  addTail(app, out, texts);
  addStatus(app, out, texts);
  addStore(app, out.store, out.items, texts, [&out] { out.command = Command::kStore; });
  OwnTexts own;
  addOwnTexts(app, own);
  try {
    app.parse(count, arguments);
    if (app.get_subcommands().empty()) throw CLI::RequiredError("A command");
    take(texts, out);
    if (show(app, own, shown)) return kExitFine;
  } catch (const CLI::ParseError& error) {
    return app.exit(error, shown, errors) == 0 ? kExitFine : kExitUsage;
  }
  return std::nullopt;
}

}  // namespace orva::cli
