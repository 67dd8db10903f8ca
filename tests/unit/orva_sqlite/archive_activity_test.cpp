#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>

#include "orva_host/metrics_registry.h"
#include "orva_host/prometheus_text.h"
#include "support/exposition_parser.h"
#include "unit/orva_sqlite/archive_fixture.h"

namespace orva::sqlite::test {
namespace {

using orva::test::Exposition;

Exposition scrape() {
  host::PrometheusText text;
  host::MetricsRegistry::instance().collect(text);
  const Exposition parsed(text.text());
  EXPECT_EQ(parsed.error(), "");
  return parsed;
}

class ArchiveActivityTest : public ArchiveTest {
 protected:
  // The number behind `field` in the part of the line that begins with `operation`, such as "R(".
  static double figure(const std::string& line, const std::string& operation,
                       const std::string& field) {
    const std::size_t part = line.find(operation);
    const std::size_t at = line.find(field, part);
    EXPECT_NE(at, std::string::npos) << line;
    return at == std::string::npos ? -1 : std::stod(line.substr(at + field.size()));
  }
  // The line that the archive logs now.
  std::string line() {
    trace_.clear();
    archive_->stats().log();
    EXPECT_EQ(trace_.texts().size(), 1U);
    return trace_.texts().back();
  }
  double metric(const std::string& name) const {
    return scrape().value(name, {{"archive", connection_.location}});
  }
};

TEST_F(ArchiveActivityTest, TheLineNamesTheLocation) {
  open();
  EXPECT_EQ(line().find("Stat: " + connection_.location + "\r\n"), 0U);
}

TEST_F(ArchiveActivityTest, WrittenSamplesAndTheirTimeStandInTheLine) {
  open();
  for (int i = 0; i < 1000; ++i) write(second(i), i);
  ASSERT_TRUE(worker().writeAll());
  const std::string told = line();
  EXPECT_EQ(figure(told, "W(", "Ct:"), 1000);
  EXPECT_GT(figure(told, "W(", "Tm:"), 0);
  EXPECT_EQ(figure(told, "R(", "Ct:"), 0);
  EXPECT_EQ(figure(told, "D(", "Ct:"), 0);
  EXPECT_EQ(figure(line(), "W(", "Ct:"), 0);
}

TEST_F(ArchiveActivityTest, SamplesGivenToReadsStandInTheLine) {
  open();
  for (int i = 0; i < 1000; ++i) write(second(i), i);
  ASSERT_TRUE(worker().writeAll());
  Question question;
  question.start = second(100);
  question.end = second(599);
  EXPECT_EQ(ask(question).pushed.size(), 500U);
  question.left = question.right = true;
  EXPECT_EQ(ask(question).pushed.size(), 502U);
  question.kind = Kind::newest;
  EXPECT_EQ(ask(question).pushed.size(), 1U);
  const std::string told = line();
  EXPECT_EQ(figure(told, "R(", "Ct:"), 500 + 502 + 1);
  EXPECT_GT(figure(told, "R(", "Tm:"), 0);
  EXPECT_EQ(static_cast<double>(counters().pushed), 500 + 502 + 1);
}

TEST_F(ArchiveActivityTest, SamplesOfSeveralLayersInOneAnswerStandInTheLine) {
  open();
  for (int i = 0; i < 10; ++i) {
    write({1, "a"}, 0, makePin(second(i), realValue(i)));
    write({1, "a"}, 1, makePin(second(i), realValue(-i)));
  }
  Question question;
  question.layer = -1;
  question.start = second(2);
  question.end = second(5);
  question.left = question.right = true;
  EXPECT_EQ(ask(question).pushed.size(), 10U);
  EXPECT_EQ(figure(line(), "R(", "Ct:"), 10);
}

TEST_F(ArchiveActivityTest, DeletedSamplesStandInTheLine) {
  limits_.maxTime = 100 * kTicksPerSecond;
  open();
  for (int i = 0; i < 500; ++i) write(second(i), i);
  ASSERT_TRUE(worker().writeAll());
  clock_.setTime(second(400));
  ASSERT_TRUE(worker().cleanUp());
  const std::string told = line();
  EXPECT_EQ(figure(told, "D(", "Ct:"), 300);
  EXPECT_GT(figure(told, "D(", "Tm:"), 0);
  EXPECT_EQ(static_cast<double>(counters().deleted), 300);
}

TEST_F(ArchiveActivityTest, TheWaitDataAreTheSamplesInTheWriteBuffer) {
  open();
  EXPECT_EQ(figure(line(), "W(", "Wt:"), 0);
  for (int i = 0; i < 7; ++i) write(second(i), i);
  worker().pass();
  EXPECT_EQ(figure(line(), "W(", "Wt:"), 7);
  EXPECT_EQ(figure(line(), "W(", "Wt:"), 7);
  clock_.advance(limits_.writePeriod);
  while (worker().pass() == 0) continue;
  EXPECT_EQ(figure(line(), "W(", "Wt:"), 0);
}

TEST_F(ArchiveActivityTest, AddingSamplesDoesNotWaitForTheLine) {
  // Holds up whoever writes the line.
  class StuckLog final : public host::TraceHook {
   public:
    void onLine(const host::TraceLine&) override {
      entered = true;
      while (!leave) std::this_thread::yield();
    }
    std::atomic<bool> entered{false};
    std::atomic<bool> leave{false};
  };
  open();
  StuckLog log;
  host::setTraceHook(&log);
  std::thread logger([this] { archive_->stats().log(); });
  while (!log.entered) std::this_thread::yield();
  write(second(1), 1);
  EXPECT_EQ(counters().accepted, 1U);
  log.leave = true;
  logger.join();
  host::setTraceHook(&trace_);
}

TEST_F(ArchiveActivityTest, EveryCounterIsAMetricOfTheArchive) {
  open();
  for (int i = 0; i < 100; ++i) write(second(i), i);
  ASSERT_TRUE(worker().writeAll());
  write(second(100), 100);
  ask({});
  EXPECT_EQ(metric("orva_sqlite_accepted_samples_total"), 101);
  EXPECT_EQ(metric("orva_sqlite_written_samples_total"), 100);
  EXPECT_EQ(metric("orva_sqlite_buffered_samples"), 1);
  EXPECT_EQ(metric("orva_sqlite_commits_total"), 1);
  EXPECT_EQ(metric("orva_sqlite_reads_total"), 1);
  EXPECT_EQ(metric("orva_sqlite_file_reads_total"), 1);
  EXPECT_EQ(metric("orva_sqlite_read_samples_total"), 101);
  EXPECT_GT(metric("orva_sqlite_written_bytes_total"), 0);
  EXPECT_GT(metric("orva_sqlite_write_seconds_total"), 0);
  EXPECT_GT(metric("orva_sqlite_file_bytes"), 0);
  EXPECT_GT(metric("orva_sqlite_log_bytes"), 0);
  std::size_t counted = 0;
  const Exposition text = scrape();
  for (const auto& [name, family] : text.families()) {
    if (name.find("orva_sqlite_") == 0 && family.type == "counter") ++counted;
  }
  EXPECT_EQ(counted, sizeof(Counters) / sizeof(std::atomic<std::uint64_t>));
}

TEST_F(ArchiveActivityTest, ItsMetricsEndWithTheArchive) {
  open();
  EXPECT_EQ(metric("orva_sqlite_reads_total"), 0);
  archive_.reset();
  EXPECT_EQ(scrape().families().count("orva_sqlite_reads_total"), 0U);
}

TEST_F(ArchiveActivityTest, ArchivesAreToldApartByTheirLocations) {
  open();
  archive::ConnectionCfg other = connection_;
  other.location = folder_ / "other \"archive\"";
  const Archive second(limits_, other);
  write(orva::sqlite::test::second(1), 1);
  EXPECT_EQ(metric("orva_sqlite_accepted_samples_total"), 1);
  EXPECT_EQ(scrape().value("orva_sqlite_accepted_samples_total", {{"archive", other.location}}), 0);
}

}  // namespace
}  // namespace orva::sqlite::test
