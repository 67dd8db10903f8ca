#include "host/trace.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <regex>
#include <thread>

#include "host/request_dispatch.h"
#include "orva_host/trace_log.h"
#include "support/manual_clock.h"
#include "support/trace_capture.h"

namespace orva::host {
namespace {

// Sends the log into a file of its own for the life of a test.
class TraceFileTest : public testing::Test {
 protected:
  TraceFileTest() { EXPECT_EQ(setTraceFile(path_), 0); }
  ~TraceFileTest() override {
    setTraceFile("");
    setTraceLevels(kTraceError | kTraceWarning);
    std::remove(path_.c_str());
  }

  std::vector<std::string> written() const {
    std::ifstream file(path_);
    std::vector<std::string> lines;
    for (std::string line; std::getline(file, line);) lines.push_back(line);
    return lines;
  }

  const std::string path_ = testing::TempDir() + "trace_test." + std::to_string(getpid()) + "." +
                            testing::UnitTest::GetInstance()->current_test_info()->name();
};

TEST_F(TraceFileTest, LineCarriesTimeLevelAndPlace) {
  test::ManualClock clock;
  clock.advance(1'234'567);
  OpcUa_Trace_Imp(kTraceError, "status 0x%08X\n", "/a/b/layer.cpp", 42, 0x803E0000U);
  OpcUa_Trace_Imp(kTraceWarning, "odd", "layer.cpp", 7);
  EXPECT_GE(logMsg("%s has %d\n", "it", 5), 0);
  ASSERT_EQ(written().size(), 3U);
  EXPECT_EQ(written()[0], "2024-01-01T00:00:00.123Z ERROR layer.cpp:42: status 0x803E0000");
  EXPECT_EQ(written()[1], "2024-01-01T00:00:00.123Z WARNING layer.cpp:7: odd");
  EXPECT_EQ(written()[2], "2024-01-01T00:00:00.123Z INFO: it has 5");
}

TEST_F(TraceFileTest, LevelsOutsideTheMaskAreNotShown) {
  setTraceLevels(kTraceWarning);
  OpcUa_Trace_Imp(kTraceError, "error", "f", 1);
  OpcUa_Trace_Imp(kTraceWarning, "warning", "f", 1);
  OpcUa_Trace_Imp(0x40, "detail", "f", 1);
  setTraceLevels(0);
  OpcUa_Trace_Imp(kTraceWarning, "silenced", "f", 1);
  logMsg("log lines always are");
  ASSERT_EQ(written().size(), 2U);
  EXPECT_NE(written()[0].find("warning"), std::string::npos);
  EXPECT_NE(written()[1].find("log lines always are"), std::string::npos);
}

TEST_F(TraceFileTest, TextIsOneLineWhateverItHolds) {
  logMsg("a\nb\tc\x1b[0md\n\n");
  ASSERT_EQ(written().size(), 1U);
  EXPECT_NE(written()[0].find(": a b c [0md"), std::string::npos);
}

TEST_F(TraceFileTest, LongTextIsCut) {
  logMsg("%s", std::string(1'000'000, 'x').c_str());
  ASSERT_EQ(written().size(), 1U);
  EXPECT_GT(written()[0].size(), 4000U);
  EXPECT_LT(written()[0].size(), 5000U);
}

TEST_F(TraceFileTest, LinesOfManyThreadsStayWhole) {
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([t] {
      for (int i = 0; i < 500; ++i) {
        OpcUa_Trace_Imp(kTraceError, "thread %d says %s", "f.cpp", 1, t,
                        std::string(200, static_cast<char>('a' + t)).c_str());
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  const std::regex whole(".*Z ERROR f.cpp:1: thread [0-3] says (a{200}|b{200}|c{200}|d{200})");
  const auto lines = written();
  EXPECT_EQ(lines.size(), 2000U);
  for (const std::string& line : lines) EXPECT_TRUE(std::regex_match(line, whole)) << line;
}

TEST_F(TraceFileTest, ServedRequestIsNamed) {
  const char request[] = "/Methods/HistoryReadRaw\ncaller\n{}";
  SetFastCGIText(request);
  logMsg("slow");
  std::thread([] { logMsg("other thread"); }).join();
  SetFastCGIText(nullptr);
  logMsg("done");
  ASSERT_EQ(written().size(), 3U);
  EXPECT_NE(written()[0].find("INFO /Methods/HistoryReadRaw: slow"), std::string::npos);
  EXPECT_NE(written()[1].find("INFO: other thread"), std::string::npos);
  EXPECT_NE(written()[2].find("INFO: done"), std::string::npos);
}

TEST_F(TraceFileTest, FileThatCannotBeOpenedLeavesTheLogWhereItWas) {
  EXPECT_EQ(setTraceFile("/nonexistent/folder/log"), ENOENT);
  logMsg("still here");
  EXPECT_EQ(written().size(), 1U);
}

TEST_F(TraceFileTest, LogMsgTellsThatNothingWasWritten) {
  ASSERT_EQ(setTraceFile("/dev/full"), 0);
  EXPECT_LT(logMsg("lost"), 0);
}

TEST(TraceCaptureTest, LinesOfAllLevelsAreCaughtAsFormatted) {
  test::TraceCapture capture;
  OpcUa_Trace_Imp(0x1000, "<--Assert %s failed\n", "/x/y.h", 12, "IsObject()");
  logMsg("plain %d", 1);
  ASSERT_EQ(capture.lines().size(), 2U);
  EXPECT_EQ(capture.lines()[0].level, 0x1000U);
  EXPECT_EQ(capture.lines()[0].file, "/x/y.h");
  EXPECT_EQ(capture.lines()[0].line, 12);
  EXPECT_EQ(capture.count("<--Assert IsObject() failed\n"), 1);
  EXPECT_EQ(capture.count("<--Assert IsObject() failed"), 0);
  EXPECT_EQ(capture.countContaining("plain"), 1);
  EXPECT_EQ(capture.lines()[1].level, 0U);
  capture.clear();
  EXPECT_TRUE(capture.texts().empty());
}

}  // namespace
}  // namespace orva::host
