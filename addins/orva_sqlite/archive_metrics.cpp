#include "orva_sqlite/archive_metrics.h"

#include <filesystem>
#include <system_error>

#include "share/ticks.h"

namespace orva::sqlite {
namespace {

using metrics::Family;
using metrics::Kind;

struct CounterFamily {
  Family family;
  std::atomic<std::uint64_t> Counters::*counter;
};

constexpr CounterFamily kCounts[] = {
    {{"orva_sqlite_reads_total", Kind::counter, "Intervals answered."}, &Counters::reads},
    {{"orva_sqlite_file_reads_total", Kind::counter, "Intervals for which the file was read."},
     &Counters::diskReads},
    {{"orva_sqlite_read_samples_total", Kind::counter, "Samples given to reads."},
     &Counters::pushed},
    {{"orva_sqlite_accepted_samples_total", Kind::counter, "Samples put into the write buffer."},
     &Counters::accepted},
    {{"orva_sqlite_written_samples_total", Kind::counter, "Samples committed to the file."},
     &Counters::written},
    {{"orva_sqlite_dropped_samples_total", Kind::counter,
      "Samples not taken or not written: buffer full, or file not to be had."},
     &Counters::dropped},
    {{"orva_sqlite_refused_samples_total", Kind::counter, "Samples of a type that is not kept."},
     &Counters::refused},
    {{"orva_sqlite_deleted_samples_total", Kind::counter, "Samples deleted for age or size."},
     &Counters::deleted},
    {{"orva_sqlite_damaged_segments_total", Kind::counter, "Damaged segments that were found."},
     &Counters::damaged},
    {{"orva_sqlite_merged_segments_total", Kind::counter,
      "Small segments joined into larger ones."},
     &Counters::merged},
    {{"orva_sqlite_written_bytes_total", Kind::counter,
      "Bytes of the segments written, those of joining included."},
     &Counters::bytes},
    {{"orva_sqlite_commits_total", Kind::counter, "Transactions with new samples."},
     &Counters::commits},
    {{"orva_sqlite_failures_total", Kind::counter, "Transactions that failed."},
     &Counters::failures},
};

constexpr CounterFamily kTimes[] = {
    {{"orva_sqlite_read_seconds_total", Kind::counter, "Time spent answering intervals."},
     &Counters::readTicks},
    {{"orva_sqlite_write_seconds_total", Kind::counter,
      "Time spent in transactions with new samples."},
     &Counters::writeTicks},
    {{"orva_sqlite_delete_seconds_total", Kind::counter, "Time spent enforcing age and size."},
     &Counters::deleteTicks},
};

constexpr Family kBuffered{"orva_sqlite_buffered_samples", Kind::gauge,
                           "Samples that wait in the write buffer."};
constexpr Family kFileBytes{"orva_sqlite_file_bytes", Kind::gauge,
                            "Size of the archive's file, without its log."};
constexpr Family kLogBytes{"orva_sqlite_log_bytes", Kind::gauge,
                           "Size of the file's write-ahead log."};

// 0 for a file that is not there.
std::uint64_t sizeOf(const std::string& file) {
  std::error_code error;
  const auto size = std::filesystem::file_size(file, error);
  return error ? 0 : static_cast<std::uint64_t>(size);
}

}  // namespace

ArchiveMetrics::ArchiveMetrics(const std::string& location, const std::string& file,
                               const Counters& counters, const WriteBuffer& buffer)
    : labels_{{"archive", location}},
      file_(file),
      counters_(counters),
      buffer_(buffer),
      registration_("orva_sqlite", [this](metrics::Sink& sink) { collect(sink); }) {}

void ArchiveMetrics::collect(metrics::Sink& sink) const {
  for (const CounterFamily& count : kCounts) {
    sink.add(count.family, labels_, (counters_.*count.counter).load());
  }
  for (const CounterFamily& time : kTimes) {
    const auto ticks = static_cast<double>((counters_.*time.counter).load());
    sink.add(time.family, labels_, ticks / static_cast<double>(kTicksPerSecond));
  }
  sink.add(kBuffered, labels_, buffer_.waiting());
  sink.add(kFileBytes, labels_, sizeOf(file_));
  sink.add(kLogBytes, labels_, sizeOf(file_ + "-wal"));
}

}  // namespace orva::sqlite
