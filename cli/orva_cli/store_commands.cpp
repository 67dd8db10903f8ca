#include "orva_cli/store_commands.h"

#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "orva_cli/failure.h"
#include "orva_cli/store_text.h"
#include "orva_host/time_text.h"
#include "orva_store/progress.h"
#include "orva_store/store_check.h"
#include "orva_store/store_compact.h"
#include "orva_store/store_export.h"
#include "orva_store/store_import.h"
#include "orva_store/store_stat.h"
#include "share/ticks.h"

namespace orva::cli {
namespace {

int checkCommand(const Options& options, std::ostream& out) {
  store::StoreView view(options.store.place);
  store::Progress progress(store::Progress::terminal(), "samples");
  const store::CheckResult result = store::checkStore(view, progress);
  progress.clear();
  out << checkText(result, view.file(), options.zone);
  return result.isFine() ? kExitFine : kExitFailure;
}

int statCommand(const Options& options, std::ostream& out) {
  store::StoreView view(options.store.place);
  const store::StoreFigures figures = store::storeFigures(view);
  switch (options.format) {
    case Format::kCsv:
      out << figuresCsv(figures, options.zone);
      break;
    case Format::kJson:
      out << figuresJson(figures, view.file());
      break;
    default:
      out << figuresText(figures, view.file(), options.zone);
  }
  return kExitFine;
}

// ---- export

std::int64_t ticksOf(std::int64_t ms) {
  return (ms + kUnixEpochMilliseconds) * kTicksPerMillisecond;
}

store::ExportRange exportRange(const Options& options) {
  const std::int64_t now = host::unixMilliseconds();
  store::ExportRange range;
  range.layer = options.store.layer;
  if (options.from) range.from = ticksOf(options.from->at(now));
  // The whole last millisecond: times are shown cut to it.
  if (options.to) range.to = ticksOf(options.to->at(now) + 1) - 1;
  if (range.from > range.to) throw UsageError("--from must not be behind --to");
  return range;
}

// Opens the output when nothing but writing can fail any more: an export that a typing mistake ends
// leaves an earlier one as it is.
void exportTo(const Options& options, const std::function<std::ostream&()>& open,
              const std::string& name) {
  const store::ExportRange range = exportRange(options);
  store::StoreView view(options.store.place);
  const std::vector<store::StoredItem> items = store::chooseItems(view.items(), options.items);
  std::ostream& out = open();
  store::Progress progress(store::Progress::terminal(), "rows");
  const store::ExportResult result =
      store::exportStore(view, items, range, progress, [&out, &name](const std::string& text) {
        out.write(text.data(), static_cast<std::streamsize>(text.size()));
        if (!out) throw Failure("cannot write " + name + "; is the disk full?");
      });
  if (result.damagedSegments == 0) return;
  throw Failure(std::to_string(result.damagedSegments) +
                " damaged segments were left out; `orva store check` lists them");
}

int exportCommand(const Options& options, std::ostream& out) {
  const std::string& file = options.store.output;
  if (file.empty()) {
    exportTo(
        options, [&out]() -> std::ostream& { return out; }, "the output");
    return kExitFine;
  }
  std::ofstream opened;
  const auto open = [&opened, &file]() -> std::ostream& {
    opened.open(file, std::ios::binary | std::ios::trunc);
    if (!opened) throw Failure(file + " cannot be written");
    return opened;
  };
  exportTo(options, open, file);
  opened.close();
  if (!opened) throw Failure("cannot write " + file + "; is the disk full?");
  return kExitFine;
}

// ---- import

store::ImportPlan planOf(const StoreOptions& options) {
  return options.config.empty() ? store::ImportPlan(options.place, options.dryRun)
                                : store::ImportPlan(options.place, options.config, options.dryRun);
}

int importCommand(const StoreOptions& options, std::ostream& out, std::ostream& errors) {
  store::ImportPlan plan = planOf(options);
  store::Importer::Options how;
  how.dryRun = options.dryRun;
  how.filter = options.filter;
  store::Progress progress(store::Progress::terminal(), "rows");
  std::uint64_t told = 0;
  const store::TellRefused tell = [&](const std::string& file, long long line, const char* reason) {
    if (told++ >= options.refusedShown) return;
    progress.clear();
    errors << file << ':' << line << ": " << reason << '\n';
  };
  const std::vector<std::string> standardInput{"-"};
  const store::ImportCounts counts = store::importFiles(
      plan, how, options.files.empty() ? standardInput : options.files, progress, tell);
  progress.clear();
  if (told > options.refusedShown) {
    errors << "and " << told - options.refusedShown << " more refused rows\n";
  }
  out << countsText(counts);
  if (options.dryRun) out << "nothing was changed\n";
  return counts.refused == 0 ? kExitFine : kExitFailure;
}

// ---- compact

std::int64_t bytesTaken(const std::string& file) {
  return store::bytesOfFile(file) + store::bytesOfFile(file + "-wal");
}

int compactCommand(const StoreOptions& options, std::ostream& out) {
  store::StoreWriter writer(options.place, store::StoreWriter::Missing::kFails);
  const std::int64_t before = bytesTaken(writer.file());
  store::Progress progress(store::Progress::terminal(), "segments");
  const store::CompactResult result = store::compactStore(writer, progress);
  progress.clear();
  if (result.indexMended) out << "index     was damaged; made anew from the segments\n";
  out << "segments  " << result.segmentsBefore << " before, " << result.segmentsAfter << " now\n"
      << "size      " << bytesText(before) << " before, " << bytesText(bytesTaken(writer.file()))
      << " now\n";
  return kExitFine;
}

}  // namespace

int storeCommand(const Options& options, std::ostream& out, std::ostream& errors) {
  switch (options.store.action) {
    case StoreAction::kCheck:
      return checkCommand(options, out);
    case StoreAction::kExport:
      return exportCommand(options, out);
    case StoreAction::kImport:
      return importCommand(options.store, out, errors);
    case StoreAction::kCompact:
      return compactCommand(options.store, out);
    default:
      return statCommand(options, out);
  }
}

}  // namespace orva::cli
