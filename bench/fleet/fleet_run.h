#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "bench/fleet/checking_archive.h"
#include "bench/fleet/counted_link.h"
#include "bench/fleet/fleet_options.h"
#include "bench/fleet/fleet_plant.h"
#include "bench/fleet/simulated_controllers.h"
#include "bench/temp_folder.h"
#include "orva_database/remote_archive_source.h"

namespace orva::bench {

// What happened in a stretch of a run.
struct PhaseFigures {
  double seconds = 0;
  std::uint64_t records = 0;
  Traffic traffic;
  LinkFigures link;              // in this stretch; its socket's figures too
  std::int64_t pullerCpuNs = 0;  // of all threads but the simulated controllers'
  double ageMeanMs = 0;
  double ageMostMs = 0;

  double perSecond() const { return seconds > 0 ? static_cast<double>(records) / seconds : 0; }
  double perRecord(double figure) const {
    return records != 0 ? figure / static_cast<double>(records) : 0;
  }
  // Of the puller's thread, in exchanges or at work on what they brought.
  double busySeconds() const {
    return static_cast<double>(link.exchangeNs + link.threadCpuNs - link.exchangeCpuNs) * 1e-9;
  }
  double exchangeSeconds() const { return static_cast<double>(link.exchangeNs) * 1e-9; }
  double pullerCpuSeconds() const { return static_cast<double>(pullerCpuNs) * 1e-9; }
  double cpuSeconds() const { return static_cast<double>(link.threadCpuNs) * 1e-9; }
};

struct FleetFigures {
  std::uint32_t controllers = 0;
  PhaseFigures live;
  PhaseFigures catchUp;       // until every record of the break was handed to the archive
  double durableSeconds = 0;  // from its beginning until all of that was on the disk
  std::uint64_t commits = 0;  // of the whole run
  std::uint64_t diskBytes = 0;
  double peakMegabytes = 0;  // of the process so far, the simulated controllers included
  std::string problem;       // empty: every record arrived once and in order
};

// One run: so many controllers are set up and pulled live, then their records of the break come.
class FleetRun {
 public:
  FleetRun(const FleetOptions& options, std::uint32_t controllers);
  ~FleetRun();
  FleetRun(const FleetRun&) = delete;
  FleetRun& operator=(const FleetRun&) = delete;

  FleetFigures run();

 private:
  struct Mark {
    std::int64_t ns;
    std::uint64_t records;
    Traffic traffic;
    LinkFigures link;
    std::int64_t pullerCpuNs;
  };

  std::string setUp();
  std::string setUpArchive();
  void describeItems() const;
  std::string remoteSection() const;
  bool watch(FleetFigures& figures);
  bool waitForAll(const std::vector<std::uint64_t>& counts);
  bool waitUntilDurable();
  bool isSilent(std::uint32_t controller) const {
    return controller + options_.silent >= plant_.controllers();
  }
  std::vector<std::uint64_t> countsNow() const;
  std::vector<std::uint64_t> firstRecords() const;
  Mark mark() const;
  PhaseFigures since(const Mark& from);
  std::string verify();
  std::string verifyCounts();

  const FleetOptions& options_;
  FleetPlant plant_;
  Arrivals arrivals_;
  TempFolder folder_;
  CheckingFactory factory_;
  SimulatedControllers network_;
  CountedLink* link_ = nullptr;  // the source's
  std::unique_ptr<archive::RemoteArchiveSource> source_;
};

}  // namespace orva::bench
