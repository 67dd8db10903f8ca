#include <algorithm>
#include <cstring>
#include <deque>
#include <filesystem>
#include <fstream>

#include "host/trace.h"
#include "orva_host/archive_blocks.h"
#include "orva_host/csv_reader.h"
#include "orva_host/log_limit.h"
#include "orva_host/plant_row.h"
#include "orva_host/replay_pace.h"
#include "orva_host/source.h"
#include "share/ticks.h"

namespace orva::host {

namespace {

// Far beyond any recording, and well inside what the clock can add.
constexpr double kLongestWaitSeconds = 1e9;
// While an archive has little room.
constexpr std::chrono::milliseconds kCrowdedPause{10};

bool isCompressed(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  char magic[2] = {};
  file.read(magic, sizeof magic);
  return file.gcount() == 2 && magic[0] == '\x1f' && magic[1] == '\x8b';
}

class CsvSource final : public Source {
 public:
  explicit CsvSource(const SourceCfg& cfg)
      : file_(cfg.file),
        name_(std::filesystem::path(cfg.file).filename().string()),
        speed_(cfg.speed) {}

  bool open(std::string& error);
  // The blocks live until the source is stopped, also when the file ends before that.
  void run(Gate& stop) override;

 private:
  struct Row {
    PlantRow data;
    long long line = 0;
  };

  bool readRow(Row& row);
  void replayAtOnce(Gate& stop);
  void replayInTime(Gate& stop);
  void write(Row& row, Gate& stop);
  Gate::Clock::time_point dueAt(std::int64_t arrival);
  void bad(long long line, const char* reason);
  void summarise(const Gate& stop, Gate::Clock::time_point begun);

  const std::string file_;
  const std::string name_;
  const double speed_;
  CsvReader reader_;
  ArchiveBlocks blocks_;
  std::vector<CsvReader::Field> record_;  // reused
  LogLimit badLimit_;
  long long written_ = 0;
  long long bad_ = 0;
  bool begun_ = false;
  std::int64_t firstArrival_ = 0;
  Gate::Clock::time_point started_;
};

bool CsvSource::open(std::string& error) {
  if (const int result = reader_.open(file_); result != 0) {
    error = file_ + ": " + std::strerror(result);
  } else if (isCompressed(file_)) {
    error = file_ + ": the file is compressed, unpack it first";
  } else if (reader_.next(record_) != CsvReader::Result::record || !isPlantHeader(record_)) {
    error = file_ + ": the first line must be " + kPlantHeader;
  } else {
    return blocks_.open(error);
  }
  return false;
}

void CsvSource::run(Gate& stop) {
  const Gate::Clock::time_point begun = Gate::Clock::now();
  if (speed_ > 0) {
    replayInTime(stop);
  } else {
    replayAtOnce(stop);
  }
  if (reader_.error() != nullptr) bad(reader_.line(), reader_.error());
  summarise(stop, begun);
  stop.wait();
}

// The next row that can be read; false at the end.
bool CsvSource::readRow(Row& row) {
  for (;;) {
    const CsvReader::Result result = reader_.next(record_);
    if (result == CsvReader::Result::end) return false;
    row.line = reader_.line();
    const char* reason =
        result == CsvReader::Result::bad ? reader_.error() : parsePlantRow(record_, row.data);
    if (reason == nullptr) return true;
    bad(row.line, reason);
  }
}

void CsvSource::replayAtOnce(Gate& stop) {
  Row row;
  while (!stop.isOpen() && readRow(row)) write(row, stop);
}

void CsvSource::replayInTime(Gate& stop) {
  ReplayPace pace;
  std::deque<Row> ahead;
  bool more = true;
  for (;;) {
    while (more && ahead.size() < ReplayPace::kWindow) {
      Row row;
      more = readRow(row);
      if (!more) break;
      pace.add(row.data.ticks);
      ahead.push_back(std::move(row));
    }
    if (ahead.empty() || stop.waitUntil(dueAt(pace.next()))) return;
    write(ahead.front(), stop);
    ahead.pop_front();
  }
}

Gate::Clock::time_point CsvSource::dueAt(std::int64_t arrival) {
  if (!begun_) {
    begun_ = true;
    firstArrival_ = arrival;
    started_ = Gate::Clock::now();
  }
  const double seconds =
      static_cast<double>(arrival - firstArrival_) / static_cast<double>(kTicksPerSecond) / speed_;
  return started_ + std::chrono::duration_cast<Gate::Clock::duration>(
                        std::chrono::duration<double>(std::min(seconds, kLongestWaitSeconds)));
}

// Waits while the archive has little room, since the recording keeps the row. A row that a stop
// finds waiting is not written.
void CsvSource::write(Row& row, Gate& stop) {
  std::string error;
  ArchiveBlocks::Result result = blocks_.write(row.data, error);
  while (result == ArchiveBlocks::Result::crowded && !stop.waitFor(kCrowdedPause)) {
    result = blocks_.write(row.data, error);
  }
  if (result == ArchiveBlocks::Result::written) ++written_;
  if (result == ArchiveBlocks::Result::failed) bad(row.line, error.c_str());
}

void CsvSource::bad(long long line, const char* reason) {
  ++bad_;
  long long suppressed = 0;
  if (!badLimit_.allow(LogLimit::Clock::now(), suppressed)) return;
  logMsg("source csv: %s:%lld: %s (%lld bad rows so far)\n", name_.c_str(), line, reason, bad_);
}

void CsvSource::summarise(const Gate& stop, Gate::Clock::time_point begun) {
  const std::chrono::duration<double> taken = Gate::Clock::now() - begun;
  logMsg("source csv: %s: %s, %lld rows replayed, %lld bad, %.1f s\n", name_.c_str(),
         stop.isOpen() ? "stopped" : "done", written_, bad_, taken.count());
}

}  // namespace

std::unique_ptr<Source> makeCsvSource(const SourceCfg& cfg, std::string& error) {
  if (!cfg.values.empty()) {
    error = "a recording names its variables itself, \"values\" has no meaning";
    return nullptr;
  }
  auto source = std::make_unique<CsvSource>(cfg);
  if (!source->open(error)) return nullptr;
  return source;
}

}  // namespace orva::host
