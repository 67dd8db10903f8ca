#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <new>

#include "orva_events_log/event_writer.h"
#include "support/failing_allocations.h"
#include "support/manual_clock.h"
#include "support/temp_folder.h"

// The writer of an events log without memory. What it traces goes to the host's log, since a hook
// would need memory itself.

namespace orva::events_log::test {
namespace {

class EventLogMemoryTest : public ::testing::Test {
 protected:
  // A writer in a new place, and so many events for it.
  void begin(int events) {
    folder_ = std::make_unique<orva::test::TempFolder>();
    connection_.location = folder_->path("log");
    connection_.parameters = "synchronous=OFF";
    open();
    HostEvent event;
    event.text = "a text that is longer than a short string";
    for (int i = 0; i < events; ++i) buffer_->offer(event);
  }
  void open() {
    buffer_ = std::make_unique<EventBuffer>(limits_.writeBufferSize, limits_.maxWriteValues, wake_);
    writer_ = std::make_unique<EventWriter>(limits_, connection_, *buffer_);
    writer_->pass();
  }
  std::int64_t inFile() { return writer_->store().count(); }

  orva::test::ManualClock clock_;
  archive::ArchiveCfg limits_;
  archive::ConnectionCfg connection_{archive::kEventsArchive};
  Signal wake_;
  std::unique_ptr<orva::test::TempFolder> folder_;
  std::unique_ptr<EventBuffer> buffer_;
  std::unique_ptr<EventWriter> writer_;
};

TEST_F(EventLogMemoryTest, AStopWritesOrTellsOfEachEventAndGivesThePlaceFree) {
  constexpr int kEvents = 20;
  limits_.maxWriteValues = 8;
  bool lostSome = false;
  bool lostNone = false;
  for (int count = 0; count < 100; count += 3) {
    begin(kEvents);
    std::int64_t lost = 0;
    orva::test::withAllocations(count, [&] { lost = writer_->finish(); });
    (lost == 0 ? lostNone : lostSome) = true;
    EXPECT_TRUE(buffer_->empty());
    const std::unique_ptr<EventBuffer> buffer = std::move(buffer_);
    const std::unique_ptr<EventWriter> ended = std::move(writer_);
    open();
    ASSERT_TRUE(writer_->ready()) << "with " << count << " allocations";
    EXPECT_EQ(inFile() + lost, kEvents) << "with " << count << " allocations";
    writer_->finish();
  }
  EXPECT_TRUE(lostSome);
  EXPECT_TRUE(lostNone);
}

// What a throw leaves of a transaction does not stay in the way.
TEST_F(EventLogMemoryTest, APassThatThrowsIsMadeUpForByTheNext) {
  int thrown = 0;
  for (int count = 0; count < 100; count += 3) {
    begin(5);
    clock_.advance(limits_.writePeriod);
    try {
      orva::test::withAllocations(count, [&] { writer_->pass(); });
    } catch (const std::bad_alloc&) {
      ++thrown;
      writer_->interrupted();
    }
    clock_.advance(connection_.reconnectTimeout);
    while (writer_->pass() == 0) {
    }
    EXPECT_EQ(inFile(), 5) << "with " << count << " allocations";
    writer_->finish();
  }
  EXPECT_GT(thrown, 0);
}

}  // namespace
}  // namespace orva::events_log::test
