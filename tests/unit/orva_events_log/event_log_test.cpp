#include "orva_events_log/event_log.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <boost/smart_ptr/shared_ptr.hpp>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "share/ticks.h"
#include "sqlite_base/database.h"
#include "support/host_event_recorder.h"
#include "support/manual_clock.h"
#include "support/temp_folder.h"
#include "support/trace_capture.h"

namespace orva::events_log::test {
namespace {

namespace fs = std::filesystem;
using orva::test::ManualClock;
using Texts = std::vector<std::string>;
using Kinds = std::vector<HostEventKind>;

// A row of a log's file.
struct Row {
  std::int64_t id;
  std::int64_t time;
  HostEventKind kind;
  std::int64_t severity;
  std::string source;
  std::string text;
  std::int64_t count;
};

std::vector<Row> rowsOf(const std::string& file) {
  std::vector<Row> rows;
  sqlite::Database db;
  EXPECT_TRUE(db.open(file, sqlite::Database::Mode::kReadOnly)) << db.failure();
  {
    sqlite::Statement statement(
        db, "SELECT id, time, kind, severity, source, text, count FROM event ORDER BY id");
    sqlite::Query query(statement);
    while (query.row()) {
      rows.push_back({query.number(0), query.number(1),
                      HostEventKind{static_cast<int>(query.number(2))}, query.number(3),
                      query.text(4), query.text(5), query.number(6)});
    }
  }
  EXPECT_FALSE(db.failed()) << db.failure();
  return rows;
}

Texts textsOf(const std::string& file) {
  Texts texts;
  for (const Row& row : rowsOf(file)) texts.push_back(row.text);
  return texts;
}

void post(const std::string& text, HostEventKind kind = HostEventKind::kConfigurationRead) {
  postHostEvent(kind, HostEventSeverity::kInformation, "test", text.c_str());
}

class EventLogTest : public ::testing::Test {
 protected:
  EventLogTest() {
    connection_.location = folder_.path("log");
    // Nothing here loses power, and waiting for the disk is most of the time otherwise.
    connection_.parameters = "synchronous=OFF";
  }

  // ---- a writer without a thread
  void open() {
    buffer_ = std::make_unique<EventBuffer>(limits_.writeBufferSize, limits_.maxWriteValues, wake_);
    writer_ = std::make_unique<EventWriter>(limits_, connection_, *buffer_);
    writer_->pass();
  }
  void offer(const std::string& text, std::int64_t time = ManualClock::kStart) {
    HostEvent event;
    event.time = time;
    event.text = text.c_str();
    buffer_->offer(event);
  }
  // Passes until nothing is to be done at once.
  std::int64_t passes() {
    std::int64_t ticks = 0;
    while ((ticks = writer_->pass()) == 0) {
    }
    return ticks;
  }
  void writeAll() {
    clock_.advance(limits_.writePeriod);
    passes();
  }
  std::string file() const { return folder_.path("log/events.db"); }

  // ---- a whole log
  boost::shared_ptr<EventLog> make() {
    return boost::static_pointer_cast<EventLog>(Factory().create(limits_, connection_));
  }
  boost::shared_ptr<EventLog> start() {
    auto log = make();
    log->start();
    return log;
  }

  orva::test::TempFolder folder_;
  ManualClock clock_;
  orva::test::TraceCapture trace_;
  orva::test::HostEventRecorder host_;
  archive::ArchiveCfg limits_;
  archive::ConnectionCfg connection_{archive::kEventsArchive};
  Signal wake_;
  std::unique_ptr<EventBuffer> buffer_;
  std::unique_ptr<EventWriter> writer_;
};

// ---- the log and the host

TEST_F(EventLogTest, EventsBeforeTheStartAndAfterItAreRows) {
  post("before", HostEventKind::kStarted);
  auto log = start();
  postHostEvent(HostEventKind::kSamplesDropped, HostEventSeverity::kWarning, "sqlite: x", "gone",
                7);
  log.reset();
  const std::vector<Row> rows = rowsOf(file());
  ASSERT_EQ(rows.size(), 2U);
  EXPECT_EQ(rows[0].id, 1);
  EXPECT_EQ(rows[0].time, ManualClock::kStart);
  EXPECT_EQ(rows[0].kind, HostEventKind::kStarted);
  EXPECT_EQ(rows[0].text, "before");
  EXPECT_EQ(rows[1].id, 2);
  EXPECT_EQ(rows[1].kind, HostEventKind::kSamplesDropped);
  EXPECT_EQ(rows[1].severity, 1);
  EXPECT_EQ(rows[1].source, "sqlite: x");
  EXPECT_EQ(rows[1].count, 7);
}

TEST_F(EventLogTest, LogMadeAnewAtItsPlaceGoesOnWithoutDoubles) {
  post("a");
  auto log = start();
  post("b");
  log.reset();
  post("c");
  connection_.location = folder_.path("log/../log/events.db");  // the same place
  log = start();
  post("d");
  log.reset();
  EXPECT_EQ(textsOf(file()), (Texts{"a", "b", "c", "d"}));
}

TEST_F(EventLogTest, ThreadWritesWhenTheWritePeriodHasPassed) {
  auto log = start();
  post("a");
  for (int i = 0; i < 100'000 && textsOf(file()).empty(); ++i) {
    if (clock_.waiting() > 0) clock_.advance(limits_.writePeriod);
  }
  EXPECT_EQ(textsOf(file()), Texts{"a"});
  log.reset();
}

TEST_F(EventLogTest, StopWritesWhatIsBufferedAndListensNoMore) {
  limits_.writePeriod = kTicksPerHour;
  auto log = start();
  post("a");
  log->stop();
  EXPECT_EQ(textsOf(file()), Texts{"a"});
  post("b");
  log->stop();
  log.reset();
  EXPECT_EQ(textsOf(file()), Texts{"a"});
}

TEST_F(EventLogTest, LogThatIsNeverStartedLeavesNoFile) {
  make().reset();
  make()->stop();
  EXPECT_FALSE(fs::exists(folder_.path("log")));
}

TEST_F(EventLogTest, SecondLogAtOnePlaceIsRefusedUntilTheFirstHasGone) {
  auto first = start();
  auto second = start();
  EXPECT_EQ(trace_.countContaining("another log is open at this place"), 1);
  post("a");
  first.reset();
  EXPECT_EQ(textsOf(file()).back(), "a");
  Signal& progress = second->progress();
  for (int i = 0; i < 1000 && trace_.countContaining("works again") == 0; ++i) {
    const std::uint64_t seen = progress.count();
    clock_.advance(connection_.reconnectTimeout);
    progress.waitReal(seen, 10 * kTicksPerMillisecond);
  }
  post("b");
  second.reset();
  Texts texts = textsOf(file());
  texts.erase(std::remove_if(texts.begin(), texts.end(),
                             [](const std::string& text) { return text.size() > 1; }),
              texts.end());
  EXPECT_EQ(texts, (Texts{"a", "b"}));
}

TEST_F(EventLogTest, WhatDoesNotFitIntoTheBufferIsSaidInItsPlace) {
  limits_.writeBufferSize = 3;
  limits_.writePeriod = kTicksPerHour;
  limits_.maxWriteValues = 100;
  connection_.reconnectTimeout = kTicksPerHour;
  std::ofstream(folder_.path("log")) << "in the way";
  connection_.location = folder_.path("log/under");
  auto log = start();  // told of its own failure first
  for (const char* const text : {"a", "b", "lost", "lost"}) post(text);
  EXPECT_EQ(trace_.countContaining("event lost, 1 so far"), 1);
  EXPECT_EQ(trace_.countContaining("event lost"), 1);
  fs::remove(folder_.path("log"));
  log.reset();
  const Texts texts = textsOf(folder_.path("log/under/events.db"));
  ASSERT_GE(texts.size(), 4U);
  EXPECT_NE(texts[0].find("cannot be made"), std::string::npos);
  EXPECT_EQ((Texts{texts[1], texts[2], texts[3]}), (Texts{"a", "b", "2 events were lost"}));
}

TEST_F(EventLogTest, WhatAnEndCannotWriteIsCountedAndTold) {
  std::ofstream(folder_.path("log")) << "in the way";
  connection_.location = folder_.path("log/under");
  auto log = start();
  post("a");
  log.reset();
  EXPECT_EQ(host_.events().back().kind, HostEventKind::kEventsLost);
  EXPECT_EQ(host_.events().back().count, 2);  // its own failure, and a
}

// ---- the file

TEST_F(EventLogTest, FileSaysItsVersionAndShowsTimesAsText) {
  open();
  offer("a", ManualClock::kStart + 12'345'678);
  writeAll();
  sqlite::Database& db = writer_->store().db();
  EXPECT_EQ(db.number("PRAGMA user_version"), 1);
  EXPECT_EQ(db.number("PRAGMA application_id"), 0x4F727645);
  EXPECT_EQ(db.number("SELECT count(*) FROM pragma_journal_mode WHERE journal_mode = 'wal'"), 1);
  EXPECT_EQ(db.number("SELECT count(*) FROM event_text WHERE utc = '2024-01-01T00:00:01.234Z' AND "
                      "kind = 'started' AND severity = 'information' AND text = 'a'"),
            1);
}

TEST_F(EventLogTest, EveryKindAndSeverityHasAName) {
  open();
  for (int kind = 1; kind <= 9; ++kind) {
    HostEvent event;
    event.kind = HostEventKind{kind};
    event.severity = HostEventSeverity{kind % 3};
    buffer_->offer(event);
  }
  writeAll();
  sqlite::Database& db = writer_->store().db();
  EXPECT_EQ(db.number("SELECT count(DISTINCT kind) FROM event_text WHERE typeof(kind) = 'text'"),
            9);
  EXPECT_EQ(
      db.number("SELECT count(DISTINCT severity) FROM event_text WHERE typeof(severity) = 'text'"),
      3);
}

TEST_F(EventLogTest, NameWithAnExtensionIsAFileAndMissingFoldersAreMade) {
  connection_.location = folder_.path("deep/er/journal.db");
  start().reset();
  EXPECT_TRUE(fs::is_regular_file(folder_.path("deep/er/journal.db")));
}

TEST_F(EventLogTest, FileThatIsNoLogIsMovedAside) {
  fs::create_directories(folder_.path("log"));
  std::ofstream(file()) << std::string(10'000, 'x');
  open();
  EXPECT_TRUE(writer_->ready());
  EXPECT_EQ(trace_.countContaining("it was moved to"), 1);
  EXPECT_EQ(host_.kinds(), Kinds{HostEventKind::kProviderFailure});
  offer("a");
  writeAll();
  EXPECT_EQ(textsOf(file()), Texts{"a"});
}

TEST_F(EventLogTest, FileOfALaterVersionIsMovedAside) {
  start().reset();
  {
    sqlite::Database db;
    ASSERT_TRUE(db.open(file(), sqlite::Database::Mode::kReadWrite));
    ASSERT_TRUE(db.exec("PRAGMA user_version=2"));
  }
  open();
  EXPECT_TRUE(writer_->ready());
  EXPECT_EQ(trace_.countContaining("it was moved to"), 1);
}

TEST_F(EventLogTest, PlaceThatCannotBeMadeIsTriedAgain) {
  std::ofstream(folder_.path("log")) << "in the way";
  open();
  connection_.location = folder_.path("log/under");
  open();
  EXPECT_FALSE(writer_->ready());
  offer("a");
  fs::remove(folder_.path("log"));
  EXPECT_EQ(writer_->pass(), connection_.reconnectTimeout);
  EXPECT_FALSE(writer_->ready());
  clock_.advance(connection_.reconnectTimeout);
  passes();
  EXPECT_TRUE(writer_->ready());
  writeAll();
  EXPECT_EQ(textsOf(folder_.path("log/under/events.db")), Texts{"a"});
}

TEST_F(EventLogTest, FullDiskKeepsTheEventsUntilThereIsRoom) {
  open();
  ASSERT_TRUE(writer_->store().db().exec("PRAGMA max_page_count=8"));
  const std::string large(20'000, 'x');
  for (int i = 0; i < 5; ++i) offer(large + std::to_string(i));
  writeAll();
  clock_.advance(connection_.reconnectTimeout);
  writeAll();
  EXPECT_EQ(trace_.countContaining("disk is full"), 1);
  EXPECT_EQ(host_.kinds(), Kinds{HostEventKind::kProviderFailure});
  EXPECT_TRUE(textsOf(file()).empty());
  ASSERT_TRUE(writer_->store().db().exec("PRAGMA max_page_count=100000"));
  clock_.advance(connection_.reconnectTimeout);
  writeAll();
  EXPECT_EQ(textsOf(file()).size(), 5U);
  EXPECT_EQ(host_.kinds(),
            (Kinds{HostEventKind::kProviderFailure, HostEventKind::kProviderRecovered}));
}

TEST_F(EventLogTest, NumbersGoOnAfterARestart) {
  open();
  offer("a");
  writeAll();
  writer_->finish();
  open();
  offer("b");
  writeAll();
  const std::vector<Row> rows = rowsOf(file());
  ASSERT_EQ(rows.size(), 2U);
  EXPECT_EQ(rows[1].id, 2);
}

// ---- age and size

TEST_F(EventLogTest, OldEventsGoInStepsAndTheNewestStays) {
  limits_.maxTime = kTicksPerHour;
  limits_.cleanupPeriod = kTicksPerMinute;
  limits_.maxDelValues = 10;
  open();
  for (int i = 0; i < 35; ++i) offer(std::to_string(i), clock_.now());
  writeAll();
  EXPECT_EQ(textsOf(file()).size(), 35U);
  clock_.advance(kTicksPerMinute);
  passes();
  EXPECT_EQ(textsOf(file()).size(), 35U);
  clock_.advance(2 * kTicksPerHour);
  passes();
  EXPECT_EQ(textsOf(file()), Texts{"34"});
}

TEST_F(EventLogTest, CleaningUpHappensNeverForAPeriodOfZero) {
  limits_.maxTime = kTicksPerSecond;
  open();
  offer("a");
  offer("b");
  writeAll();
  clock_.advance(24 * kTicksPerHour);
  passes();
  EXPECT_EQ(textsOf(file()).size(), 2U);
}

TEST_F(EventLogTest, MaxSizeBoundsTheFileAndKeepsTheNewestEvents) {
  limits_.maxSize = 1;
  limits_.cleanupPeriod = kTicksPerMinute;
  open();
  const std::string large(1000, 'x');
  for (int round = 0; round < 3; ++round) {
    for (int i = 0; i < 2000; ++i) offer(large + std::to_string(round * 2000 + i));
    writeAll();
    clock_.advance(kTicksPerMinute);
    passes();
    std::uintmax_t size = 0;
    for (const auto& entry : fs::directory_iterator(folder_.path("log"))) {
      if (entry.path().extension() != ".db-shm") size += entry.file_size();
    }
    EXPECT_LE(size, 1'000'000U);
  }
  const Texts texts = textsOf(file());
  EXPECT_GT(texts.size(), 400U);
  EXPECT_EQ(texts.back(), large + "5999");
}

}  // namespace
}  // namespace orva::events_log::test
