#include "orva_cli/store_commands.h"

#include <algorithm>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

#include "orva_cli/failure.h"
#include "orva_cli/output_file.h"
#include "orva_cli/store_text.h"
#include "orva_host/time_text.h"
#include "orva_host/trace_log.h"
#include "orva_store/amount_text.h"
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

// Whether writing to a name would write to a file of the store.
bool isOfStore(const std::string& name, const std::string& storeFile) {
  std::error_code error;
  const auto resolve = [&error](const std::string& file) {
    return std::filesystem::weakly_canonical(std::filesystem::absolute(file), error);
  };
  const auto resolved = resolve(name);
  for (const char* suffix : {"", "-wal", "-shm", ".lock"}) {
    const std::string file = storeFile + suffix;
    if (!resolved.empty() && resolved == resolve(file)) return true;
    if (std::filesystem::equivalent(name, file, error)) return true;
  }
  return false;
}

void expectLayer(store::StoreView& view, std::int32_t layer) {
  const std::vector<std::int32_t> layers = view.layers();
  if (layers.empty() || std::find(layers.begin(), layers.end(), layer) != layers.end()) return;
  std::string known;
  for (const std::int32_t each : layers)
    known += (known.empty() ? "" : ", ") + std::to_string(each);
  throw Failure("the store has no layer " + std::to_string(layer) + ", but " + known);
}

// Ends with a Failure when samples of the range are missing.
void expectComplete(const store::ExportResult& result) {
  std::string missing;
  const auto add = [&missing](std::uint64_t count, const char* what) {
    if (count > 0) missing += (missing.empty() ? "" : ", ") + std::to_string(count) + what;
  };
  add(result.damagedSegments, " damaged segments");
  add(result.setApart, " stretches that were set apart");
  add(result.nameless, " segments of items without a name");
  add(result.unfound, " segments that the index does not lead to");
  if (missing.empty() && result.failure.empty()) return;
  if (!result.failure.empty()) missing += (missing.empty() ? "" : ", ") + result.failure;
  throw Failure("not everything was exported: " + missing +
                " were left out; `orva store check` lists them");
}

// Opens the output when nothing but writing can fail any more: an export that a typing mistake ends
// leaves an earlier one as it is.
int exportCommand(const Options& options, std::ostream& out) {
  store::ExportRange range = exportRange(options);
  range.allItems = options.items.empty();
  store::StoreView view(options.store.place);
  const std::vector<store::StoredItem> items = store::chooseItems(view.items(), options.items);
  expectLayer(view, range.layer);
  const std::string& name = options.store.output;
  if (!name.empty() && (isOfStore(name, view.file()) || isOfStore(name + ".new", view.file()))) {
    throw Failure(name + " is a file of the store itself; choose another one");
  }
  OutputFile output(name, out);
  store::Progress progress(store::Progress::terminal(), "rows");
  const store::ExportResult result = store::exportStore(
      view, items, range, progress, [&output](const std::string& text) { output.write(text); });
  output.finish();
  expectComplete(result);
  return kExitFine;
}

// ---- import

std::unique_ptr<store::ImportPlan> planOf(const StoreOptions& options) {
  if (options.config.empty()) {
    return std::make_unique<store::ImportPlan>(options.place, options.dryRun);
  }
  return std::make_unique<store::ImportPlan>(options.place, options.config, options.dryRun);
}

// What the provider's code says of damage is not so when all is undone in the end.
class QuietTrace final : public host::TraceHook {
 public:
  QuietTrace() { host::setTraceHook(this); }
  ~QuietTrace() override { host::setTraceHook(nullptr); }
  QuietTrace(const QuietTrace&) = delete;
  QuietTrace& operator=(const QuietTrace&) = delete;
  void onLine(const host::TraceLine&) override {}
};

// The rows that are refused: some are named, all are counted.
class RefusedRows {
 public:
  RefusedRows(std::uint64_t shown, store::Progress& progress, std::ostream& errors)
      : shown_(shown), progress_(progress), errors_(errors) {}

  void tell(const std::string& file, long long line, const char* reason) {
    if (told_++ >= shown_) return;
    progress_.clear();
    errors_ << file << ':' << line << ": " << reason << '\n';
  }
  void tellRest() {
    if (told_ > shown_) errors_ << "and " << told_ - shown_ << " more refused rows\n";
  }

 private:
  const std::uint64_t shown_;
  store::Progress& progress_;
  std::ostream& errors_;
  std::uint64_t told_ = 0;
};

// A file that is not there, or not what it should be, is met before a store is made.
int importCommand(const StoreOptions& options, std::ostream& out, std::ostream& errors) {
  std::optional<QuietTrace> quiet;
  if (options.dryRun) quiet.emplace();
  const auto plan = planOf(options);
  const std::vector<std::string> standardInput{"-"};
  store::ImportInput input(options.files.empty() ? standardInput : options.files);
  plan->openStores();
  store::Importer::Options how;
  how.dryRun = options.dryRun;
  how.filter = options.filter;
  store::Progress progress(store::Progress::terminal(), "rows");
  RefusedRows refused(options.refusedShown, progress, errors);
  store::ImportCounts counts;
  const auto sayResult = [&] {
    progress.clear();
    refused.tellRest();
    out << countsText(counts);
    if (options.dryRun) out << "nothing was changed\n";
  };
  try {
    store::importFiles(
        *plan, how, input, progress,
        [&refused](const std::string& file, long long line, const char* reason) {
          refused.tell(file, line, reason);
        },
        counts);
  } catch (...) {
    sayResult();
    throw;
  }
  sayResult();
  return counts.refused == 0 && !counts.damage.any() ? kExitFine : kExitFailure;
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
      << "size      " << store::bytesText(before) << " before, "
      << store::bytesText(bytesTaken(writer.file())) << " now\n"
      << damageText(result.damage);
  return result.damage.any() ? kExitFailure : kExitFine;
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
