// What an archive tells the host of its troubles.

#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "share/ticks.h"
#include "support/host_event_recorder.h"
#include "unit/orva_sqlite/archive_fixture.h"

namespace orva::sqlite::test {
namespace {

using Kinds = std::vector<HostEventKind>;
using orva::test::RecordedEvent;

class ArchiveEventsTest : public ArchiveTest {
 protected:
  std::string source() { return "sqlite: " + (folder_ / "archive.db"); }
  // Samples that do not fit into what the file has.
  void writeLarge(int count) {
    for (int i = 0; i < count; ++i) {
      std::string text;
      for (int n = 0; n < 10'000; ++n) text += static_cast<char>('!' + random_() % 90);
      write({1, "a"}, 0, makePin(second(++large_), textValue(text)));
    }
  }
  // Makes each transaction fail that needs more room.
  void fillDisk() { ASSERT_TRUE(worker().store().db().exec("PRAGMA max_page_count=2")); }
  void emptyDisk() { ASSERT_TRUE(worker().store().db().exec("PRAGMA max_page_count=100000")); }
  std::int64_t toldDrops() { return host_.sumOfCounts(HostEventKind::kSamplesDropped); }

  orva::test::HostEventRecorder host_;
  std::mt19937_64 random_{1};
  int large_ = 0;
};

TEST_F(ArchiveEventsTest, ArchiveThatWorksTellsNothing) {
  open();
  for (int i = 0; i < 100; ++i) write(second(i), i);
  ASSERT_TRUE(worker().writeAll());
  close();
  EXPECT_TRUE(host_.events().empty());
}

TEST_F(ArchiveEventsTest, FirstFailureAndRecoveryAreToldOnce) {
  open();
  fillDisk();
  writeLarge(10);
  for (int attempt = 0; attempt < 200; ++attempt) {
    worker().writeAll();
    clock_.advance(kTicksPerSecond);
  }
  ASSERT_EQ(host_.kinds(), Kinds{HostEventKind::kProviderFailure});
  const RecordedEvent failure = host_.events()[0];
  EXPECT_EQ(failure.source, source());
  EXPECT_EQ(failure.severity, HostEventSeverity::kError);
  EXPECT_NE(failure.text.find("writing samples failed: database or disk is full"),
            std::string::npos)
      << failure.text;

  emptyDisk();
  ASSERT_TRUE(worker().writeAll());
  write(second(2000), 1);
  ASSERT_TRUE(worker().writeAll());
  EXPECT_EQ(host_.kinds(),
            (Kinds{HostEventKind::kProviderFailure, HostEventKind::kProviderRecovered}));
}

TEST_F(ArchiveEventsTest, PlaceThatIsTakenIsAFailureUntilItIsFree) {
  open();
  Archive second(limits_, connection_);
  second.open();
  ASSERT_EQ(host_.kinds(), Kinds{HostEventKind::kProviderFailure});
  EXPECT_NE(host_.events()[0].text.find("another archive is open at this place"),
            std::string::npos);
  close();
  clock_.advance(connection_.reconnectTimeout);
  second.open();
  EXPECT_EQ(host_.kinds(),
            (Kinds{HostEventKind::kProviderFailure, HostEventKind::kProviderRecovered}));
}

TEST_F(ArchiveEventsTest, FileThatIsMovedAsideIsTold) {
  std::ofstream(folder_ / "archive.db") << std::string(10'000, 'x');
  open();
  EXPECT_TRUE(worker().ready());
  ASSERT_EQ(host_.kinds(), Kinds{HostEventKind::kProviderFailure});
  EXPECT_NE(host_.events()[0].text.find("archive.db.unreadable-"), std::string::npos);
}

TEST_F(ArchiveEventsTest, SegmentsSetApartAreCounted) {
  limits_.maxWriteValues = 10;
  open();
  for (int i = 0; i < 30; ++i) write(second(i), i);
  ASSERT_TRUE(worker().writeAll());
  ASSERT_TRUE(worker().store().db().exec("UPDATE segment SET data = x'00' WHERE id <= 2"));
  ask({});
  EXPECT_TRUE(host_.events().empty());  // readers do not tell
  worker().pass();
  ASSERT_EQ(host_.kinds(), Kinds{HostEventKind::kProviderFailure});
  EXPECT_EQ(host_.events()[0].count, 2);
}

TEST_F(ArchiveEventsTest, DroppedSamplesAreToldOnceASecondAndAddUp) {
  limits_.writeBufferSize = 10;
  limits_.maxWriteValues = 1000;
  limits_.writePeriod = kTicksPerHour;
  connection_.reconnectTimeout = kTicksPerHour;
  open();
  fillDisk();
  worker().pass();
  writeLarge(30);
  const std::int64_t before = static_cast<std::int64_t>(counters().dropped);
  EXPECT_GT(before, 0);
  EXPECT_TRUE(host_.events(HostEventKind::kSamplesDropped).empty());  // writers do not tell
  worker().pass();
  EXPECT_EQ(toldDrops(), before);

  writeLarge(15);  // ten find room, since the others wait in the transaction
  // The next event is due before anything else.
  EXPECT_EQ(worker().pass(), kTicksPerSecond);
  clock_.advance(kTicksPerSecond / 2);
  writeLarge(5);
  EXPECT_EQ(worker().pass(), kTicksPerSecond / 2);
  EXPECT_EQ(toldDrops(), before);
  clock_.advance(kTicksPerSecond / 2);
  EXPECT_GT(worker().pass(), kTicksPerSecond);
  EXPECT_EQ(host_.events(HostEventKind::kSamplesDropped).size(), 2U);
  EXPECT_EQ(toldDrops(), static_cast<std::int64_t>(counters().dropped));
}

TEST_F(ArchiveEventsTest, WhatAStopLosesIsToldAsDropped) {
  limits_.writeBufferSize = 10;
  open();
  fillDisk();
  writeLarge(20);
  archive_->shutDown();
  archive_->close();
  EXPECT_EQ(counters().written, 0U);
  EXPECT_EQ(counters().dropped, 20U);
  EXPECT_EQ(toldDrops(), 20);
}

}  // namespace
}  // namespace orva::sqlite::test
