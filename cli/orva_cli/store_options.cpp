#include "orva_cli/store_options.h"

#include <CLI/CLI.hpp>

namespace orva::cli {
namespace {

constexpr const char* kStoreExamples =
    "Examples:\n"
    "  orva store check data/fast                          is anything damaged?\n"
    "  orva store stat data/fast                           what is in it, and how large it is\n"
    "  orva store export data/fast > all.csv               every sample, as CSV\n"
    "  orva store export data/fast Plant/Tank/Level --from -1d --output level.csv\n"
    "  orva store import data/fast day.csv                 what is there already stays as it is\n"
    "  orva store import data/fast --config plant.json day.csv   minutes and hours as well\n"
    "  zcat day.csv.gz | orva store import data/fast --dry-run   only says what would be done\n"
    "  orva store compact data/fast                        joins small segments, frees space\n"
    "\n"
    "DIR is a folder with an archive.db, or the file itself: the \"location\" of an archive.\n"
    "Exit codes: 0 done, 1 failed or damaged, 2 wrong usage.";

CLI::App* addAction(CLI::App& store, StoreOptions& out, StoreAction action, const char* name,
                    const char* what) {
  CLI::App* command = store.add_subcommand(name, what);
  command->add_option("DIR", out.place, "the folder of the store")->required();
  command->callback([&out, action] { out.action = action; });
  return command;
}

void addExport(CLI::App& store, StoreOptions& out, std::vector<std::string>& items,
               TimeTexts& texts) {
  CLI::App* command = addAction(store, out, StoreAction::kExport, "export",
                                "writes samples as CSV; reads only, also while a host runs");
  command->add_option("ITEM", items, "paths or ids; without any, all items");
  command->add_option("--from", texts.from, "the first time (default: the oldest)")
      ->type_name("TIME");
  command->add_option("--to", texts.to, "the last time (default: the newest)")->type_name("TIME");
  command->add_option("--layer", out.layer, "0 values as they came (default), 1 by the minute, ...")
      ->type_name("N");
  command->add_option("--output", out.output, "a file instead of stdout")->type_name("FILE");
  command->add_flag("--utc", texts.utc, "read times in UTC, not in the zone of this machine");
  command->footer(
      "Columns: time_ms,item_id,path,type,value,quality, as `orva store import` reads them; item "
      "by\n"
      "item, each in ascending time.\n"
      "Example: orva store export data/fast Plant/Tank/Level --from 2026-03-01 --to 2026-03-02");
}

void addImport(CLI::App& store, StoreOptions& out) {
  CLI::App* command = addAction(store, out, StoreAction::kImport, "import",
                                "stores samples from CSV; not while a host runs");
  command->add_option("FILE", out.files, "CSV files; none or \"-\" is stdin");
  command
      ->add_option("--config", out.config,
                   "a host's configuration: only its items, and their other layers as well")
      ->type_name("FILE");
  CLI::Option* config = command->get_option("--config");
  command
      ->add_flag("--filter", out.filter,
                 "only what the write filter of the archive lets through, as a host does")
      ->needs(config);
  command->add_flag("--dry-run", out.dryRun, "changes nothing, only counts");
  command->add_option("--show", out.refusedShown, "name so many refused rows (default: 20)")
      ->type_name("N");
  command->footer(
      "The first line is time_ms,item_id,path,type,value,quality. Rows may come in any order; "
      "what\n"
      "the store has already is not stored again. Exit code 1 when a row was refused.\n"
      "Example: orva store import data/fast --config plant.json day.csv");
}

}  // namespace

void addStore(CLI::App& app, StoreOptions& out, std::vector<std::string>& items, TimeTexts& texts,
              const std::function<void()>& chosen) {
  CLI::App* store = app.add_subcommand("store", "works on the files of an archive, without a host");
  store->require_subcommand(0, 1);  // checked below: an unknown one is said to be that
  store->fallthrough();
  store->footer(kStoreExamples);
  store->callback([store, chosen] {
    if (store->get_subcommands().empty()) {
      throw CLI::RequiredError("One of check, stat, export, import and compact");
    }
    chosen();
  });
  CLI::App* check = addAction(*store, out, StoreAction::kCheck, "check",
                              "looks for damage; reads only, also while a host runs");
  check->add_flag("--utc", texts.utc, "show times in UTC, not in the zone of this machine");
  CLI::App* stat = addAction(*store, out, StoreAction::kStat, "stat",
                             "lists items, layers, samples and sizes; reads only");
  addFormats(*stat, texts, "as a JSON object");
  addExport(*store, out, items, texts);
  addImport(*store, out);
  addAction(*store, out, StoreAction::kCompact, "compact",
            "joins small segments and frees space; not while a host runs");
}

}  // namespace orva::cli
