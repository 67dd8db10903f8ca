#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <string>

#include "fault/fault_vfs.h"
#include "orva_events_log/event_writer.h"
#include "share/ticks.h"
#include "support/host_event_recorder.h"
#include "support/manual_clock.h"
#include "support/temp_folder.h"
#include "support/trace_capture.h"

// The writer of an events log on a file system that fails.

namespace orva::events_log::test {
namespace {

namespace fs = std::filesystem;
using orva::test::ManualClock;
using sqlite::test::FaultVfs;
using Operation = FaultVfs::Operation;
using Fault = FaultVfs::Fault;

class EventLogFailuresTest : public ::testing::Test {
 protected:
  EventLogFailuresTest() {
    connection_.location = folder_.path("log");
    connection_.parameters = "synchronous=OFF";
  }

  void open() {
    writer_ = std::make_unique<EventWriter>(limits_, connection_, buffer_);
    writer_->pass();
  }
  void close() {
    writer_->finish();
    writer_.reset();
  }
  void write(const std::string& text) {
    HostEvent event;
    event.text = text.c_str();
    buffer_.offer(event);
    clock_.advance(limits_.writePeriod);
    while (writer_->pass() == 0) {
    }
  }
  void waitAndPass() {
    clock_.advance(connection_.reconnectTimeout);
    while (writer_->pass() == 0) {
    }
  }
  std::int64_t inFile() { return writer_->store().count(); }
  std::size_t files() const {
    std::size_t count = 0;
    for (const auto& entry : fs::directory_iterator(folder_.path("log"))) {
      const std::string name = entry.path().filename().string();
      if (name.rfind("events.db.unreadable", 0) == 0) ++count;
    }
    return count;
  }

  FaultVfs disk_;
  orva::test::TempFolder folder_;
  ManualClock clock_;
  orva::test::TraceCapture trace_;
  orva::test::HostEventRecorder host_;
  archive::ArchiveCfg limits_;
  archive::ConnectionCfg connection_{archive::kEventsArchive};
  Signal wake_;
  EventBuffer buffer_{limits_.writeBufferSize, limits_.maxWriteValues, wake_};
  std::unique_ptr<EventWriter> writer_;
};

TEST_F(EventLogFailuresTest, AFileIsNotMovedAsideForOneReadThatWentWrong) {
  open();
  write("a");
  write("b");
  close();
  disk_.arm({});
  open();
  const std::uint64_t reads = disk_.count(Operation::kRead);
  close();
  ASSERT_GT(reads, 3U);
  for (const Fault fault : {Fault::kFail, Fault::kShort, Fault::kTorn}) {
    for (std::uint64_t nth = 1; nth <= reads; ++nth) {
      disk_.arm({Operation::kRead, fault, nth, false});
      open();
      EXPECT_EQ(disk_.struck(), 1U);
      if (!writer_->ready()) waitAndPass();
      ASSERT_TRUE(writer_->ready());
      EXPECT_EQ(inFile(), 2) << "fault " << static_cast<int>(fault) << " of read " << nth;
      EXPECT_EQ(files(), 0U) << "fault " << static_cast<int>(fault) << " of read " << nth;
      close();
    }
  }
  EXPECT_EQ(trace_.countContaining("it was moved to"), 0);
}

TEST_F(EventLogFailuresTest, ALogOfSQLitesThatCannotBeCopiedIsAProblemUntilItCan) {
  connection_.parameters = "synchronous=NORMAL;checkpointPages=16";
  open();
  write("a");
  disk_.arm({Operation::kSync, Fault::kFail, 1, true});
  for (int i = 0; i < 100 && disk_.struck() == 0; ++i) write(std::string(2000, 'x'));
  ASSERT_GT(disk_.struck(), 0U);
  EXPECT_EQ(trace_.countContaining("copying the log into the file failed: "), 1);
  EXPECT_EQ(host_.events(HostEventKind::kProviderFailure).size(), 1U);
  EXPECT_EQ(trace_.countContaining("works again"), 0);
  const std::int64_t written = inFile();
  disk_.disarm();
  write("b");
  EXPECT_EQ(trace_.countContaining("works again"), 1);
  EXPECT_EQ(inFile(), written + 1);
}

}  // namespace
}  // namespace orva::events_log::test
