#include "bench/fleet/fleet_run.h"

#include <sys/resource.h>

#include <chrono>
#include <functional>
#include <thread>

#include "bench/fleet/clocks.h"
#include "bench/fleet/history_check.h"
#include "orva_host/config_sections.h"
#include "orva_host/variables.h"
#include "share/archive_manager.h"
#include "share/ticks.h"

namespace orva::bench {
namespace {

constexpr char kProvider[] = "fleet";
constexpr auto kLookAgain = std::chrono::milliseconds(2);
// A run in which nothing arrives for so long is given up.
constexpr std::int64_t kStalledNs = 120'000'000'000;
// After the last record: two rounds, in which records that come twice would come.
constexpr auto kAfterwards = std::chrono::milliseconds(2500);

double milliseconds(double ticks) { return ticks / kTicksPerMillisecond; }

// Looks until it is so; false when `progress` stands still meanwhile.
bool waitUntil(const std::function<bool()>& isSo, const std::function<std::uint64_t()>& progress) {
  std::uint64_t seen = progress();
  std::int64_t movedAt = steadyNs();
  while (!isSo()) {
    std::this_thread::sleep_for(kLookAgain);
    const std::int64_t now = steadyNs();
    if (const std::uint64_t moved = progress(); moved != seen) {
      seen = moved;
      movedAt = now;
    } else if (now - movedAt > kStalledNs) {
      return false;
    }
  }
  return true;
}

}  // namespace

FleetRun::FleetRun(const FleetOptions& options, std::uint32_t controllers)
    : options_(options),
      plant_(controllers, options.items, options.breakSeconds),
      arrivals_(plant_),
      factory_(plant_, arrivals_, options.inMemory),
      network_(plant_, {options.loss, options.delayMs, options.silent, options.spoil}) {}

FleetRun::~FleetRun() {
  source_.reset();
  auto& manager = archive::DataArchiveManager::instance();
  manager.clear();
  manager.regFactory(kProvider, nullptr);
}

// ---- setting up

std::string FleetRun::setUp() {
  if (std::string problem = network_.open(); !problem.empty()) return problem;
  const host::NetworkCfg network = network_.pullerNetwork();
  host::useNetwork(network);
  describeItems();
  if (std::string problem = setUpArchive(); !problem.empty()) return problem;
  auto link = std::make_unique<CountedLink>(network.basePort);
  link_ = link.get();
  if (!link_->isOpen()) return "no socket to ask from";
  host::setConfigSection("RemoteData", remoteSection());
  source_ = std::make_unique<archive::RemoteArchiveSource>(std::move(link));
  if (source_->Init() != 0) return "the remote source takes no configuration";
  network_.start();
  source_->Start();
  return "";
}

std::string FleetRun::setUpArchive() {
  std::string limits;
  if (options_.writeBuffer != 0) {
    const std::string size = std::to_string(options_.writeBuffer);
    limits += R"("writeBufferSize":)" + size;
  }
  if (options_.writePeriodMs != 0) {
    const auto ticks = options_.writePeriodMs * kTicksPerMillisecond;
    limits += (limits.empty() ? "" : ",") + (R"("writePeriod":)" + std::to_string(ticks));
  }
  host::setConfigSection("DataArchive",
                         R"({"archives":[{"connection":{"providerType":"fleet","location":")" +
                             folder_.file("archive") + R"("},"limits":{)" + limits +
                             R"(},"filter":{"allValues":true}}]})");
  auto& manager = archive::DataArchiveManager::instance();
  manager.regFactory(kProvider, &factory_);
  if (manager.init() != 0 || !factory_.archive()) return "there is no archive";
  return "";
}

void FleetRun::describeItems() const {
  std::vector<std::pair<vm::Item, vm::ArchivedLayers>> variables;
  for (std::uint32_t i = 0; i < plant_.allItems(); ++i) {
    vm::Item item;
    std::tie(item.id, item.path) = plant_.localKey(i);
    item.type = OpcUaType_Double;
    variables.push_back({item, {{0, {0, 0}}}});
  }
  vm::Layer layer;
  layer.cache = true;
  host::replaceInstallation(variables, {layer});
}

std::string FleetRun::remoteSection() const {
  std::string text = R"({"items":[)";
  for (std::uint32_t i = 0; i < plant_.allItems(); ++i) {
    const auto [id, path] = plant_.localKey(i);
    const std::uint32_t item = i % plant_.items();
    text += (i == 0 ? "" : ",") +
            (R"({"controllerIndex":)" + std::to_string(plant_.controllerOf(i) + 1)) +
            R"(,"localId":)" + std::to_string(id) + R"(,"localPath":")" + path +
            R"(","remoteId":)" + std::to_string(item + 1) + R"(,"remotePath":")" +
            FleetPlant::remotePath(item) + R"("})";
  }
  return text + "]}";
}

// ---- the run

FleetFigures FleetRun::run() {
  FleetFigures figures;
  figures.controllers = plant_.controllers();
  figures.problem = setUp();
  if (!figures.problem.empty()) return figures;
  const bool complete = watch(figures);
  source_->Stop();
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  figures.peakMegabytes = static_cast<double>(usage.ru_maxrss) * 1024 * 1e-6;
  figures.problem = arrivals_.problem();
  if (figures.problem.empty() && !complete) {
    figures.problem = "nothing arrives any more, and records are missing";
  }
  if (figures.problem.empty()) figures.problem = verify();
  return figures;
}

bool FleetRun::watch(FleetFigures& figures) {
  // Everything is found, every proof exchanged, and nothing waits from the time before that.
  if (!waitForAll(firstRecords()) || !waitForAll(countsNow())) return false;
  arrivals_.takeAges();
  Mark begin = mark();
  std::this_thread::sleep_for(std::chrono::seconds(options_.liveSeconds));
  figures.live = since(begin);

  network_.setReachable(false);
  std::this_thread::sleep_for(std::chrono::seconds(options_.outageSeconds));
  plant_.endBreak();
  network_.setReachable(true);
  begin = mark();
  if (!waitForAll(countsNow())) return false;
  figures.catchUp = since(begin);
  if (!waitUntilDurable()) return false;
  figures.durableSeconds = static_cast<double>(steadyNs() - begin.ns) * 1e-9;

  plant_.freeze();
  if (!waitForAll(countsNow())) return false;
  std::this_thread::sleep_for(kAfterwards);
  if (const sqlite::Counters* counters = factory_.archive()->counters()) {
    figures.commits = counters->commits;
    figures.diskBytes = folder_.bytes();
  }
  return true;
}

// Until each item of a controller has so many records.
bool FleetRun::waitForAll(const std::vector<std::uint64_t>& counts) {
  std::uint32_t number = 0;
  const auto all = [&] {
    while (number < plant_.allItems() &&
           arrivals_.of(number) >= counts[plant_.controllerOf(number)]) {
      ++number;
    }
    return number == plant_.allItems() || arrivals_.wrong() != 0;
  };
  return waitUntil(all, [this] { return arrivals_.total(); }) && arrivals_.wrong() == 0;
}

bool FleetRun::waitUntilDurable() {
  const sqlite::Counters* const counters = factory_.archive()->counters();
  if (counters == nullptr) return true;
  const std::uint64_t accepted = counters->accepted;
  return waitUntil([&] { return counters->written >= accepted; },
                   [&] { return counters->written.load(); });
}

std::vector<std::uint64_t> FleetRun::countsNow() const {
  std::vector<std::uint64_t> counts;
  for (std::uint32_t i = 0; i < plant_.controllers(); ++i) {
    counts.push_back(isSilent(i) ? 0 : plant_.available(i));
  }
  return counts;
}

std::vector<std::uint64_t> FleetRun::firstRecords() const {
  std::vector<std::uint64_t> counts;
  for (std::uint32_t i = 0; i < plant_.controllers(); ++i) counts.push_back(isSilent(i) ? 0 : 1);
  return counts;
}

FleetRun::Mark FleetRun::mark() const {
  return {steadyNs(), arrivals_.total(), network_.traffic(), link_->figures(),
          processCpuNs() - network_.cpuNs()};
}

PhaseFigures FleetRun::since(const Mark& from) {
  const Mark to = mark();
  const Arrivals::Ages ages = arrivals_.takeAges();
  PhaseFigures phase;
  phase.seconds = static_cast<double>(to.ns - from.ns) * 1e-9;
  phase.records = to.records - from.records;
  phase.traffic.datagrams = to.traffic.datagrams - from.traffic.datagrams;
  phase.traffic.bytes = to.traffic.bytes - from.traffic.bytes;
  phase.pullerCpuNs = to.pullerCpuNs - from.pullerCpuNs;
  phase.link.exchanges = to.link.exchanges - from.link.exchanges;
  phase.link.failed = to.link.failed - from.link.failed;
  phase.link.exchangeNs = to.link.exchangeNs - from.link.exchangeNs;
  phase.link.exchangeCpuNs = to.link.exchangeCpuNs - from.link.exchangeCpuNs;
  phase.link.threadCpuNs = to.link.threadCpuNs - from.link.threadCpuNs;
  phase.link.socket.repeatedPieces =
      to.link.socket.repeatedPieces - from.link.socket.repeatedPieces;
  if (ages.records != 0) {
    phase.ageMeanMs =
        milliseconds(static_cast<double>(ages.sum) / static_cast<double>(ages.records));
  }
  phase.ageMostMs = milliseconds(static_cast<double>(ages.most));
  return phase;
}

// ---- whether all is right

std::string FleetRun::verify() {
  if (std::string problem = verifyCounts(); !problem.empty()) return problem;
  if (options_.inMemory) return "";
  for (std::uint32_t i = 0; i < plant_.allItems(); ++i) {
    std::string problem = historyProblem(plant_, i, arrivals_.of(i));
    if (!problem.empty()) return problem;
  }
  return replyProblem(plant_);
}

std::string FleetRun::verifyCounts() {
  for (std::uint32_t i = 0; i < plant_.allItems(); ++i) {
    const std::uint32_t controller = plant_.controllerOf(i);
    const std::uint64_t wanted = isSilent(controller) ? 0 : plant_.available(controller);
    if (arrivals_.of(i) == wanted) continue;
    return "item " + plant_.localKey(i).second + " has " + std::to_string(arrivals_.of(i)) +
           " records instead of " + std::to_string(wanted);
  }
  for (std::uint32_t i = 1; i <= plant_.controllers(); ++i) {
    const archive::RemoteCounts counts = source_->counts(static_cast<std::int32_t>(i));
    if (counts.refused + counts.skipped == 0) continue;
    return "controller " + std::to_string(i) + ": " + std::to_string(counts.refused) +
           " records were refused and " + std::to_string(counts.skipped) + " skipped";
  }
  const sqlite::Counters* const counters = factory_.archive()->counters();
  if (counters == nullptr || counters->dropped + counters->refused == 0) return "";
  return "the archive dropped " + std::to_string(counters->dropped) + " records";
}

}  // namespace orva::bench
