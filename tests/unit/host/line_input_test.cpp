#include "orva_host/line_input.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>
#include <thread>

#include "support/temp_folder.h"

namespace orva::host {
namespace {

using Result = LineInput::Result;

class LineInputTest : public testing::Test {
 protected:
  void open(const std::string& text) { ASSERT_EQ(input_.open(folder_.write("script", text)), 0); }
  // The next line with its number; or how it ended.
  std::string next() {
    std::string line;
    switch (input_.next(line, stop_)) {
      case Result::line:
        return std::to_string(input_.number()) + ":" + line;
      case Result::tooLong:
        return std::to_string(input_.number()) + " too long";
      case Result::end:
        return "end";
      case Result::stopped:
        return "stopped";
      default:
        return "failed";
    }
  }

  const test::TempFolder folder_;
  LineInput input_;
  Gate stop_;
};

TEST_F(LineInputTest, LinesAreNumberedFromOne) {
  open("first\n\n third \r\n");
  EXPECT_EQ(next(), "1:first");
  EXPECT_EQ(next(), "2:");
  EXPECT_EQ(next(), "3: third \r");
  EXPECT_EQ(next(), "end");
  EXPECT_EQ(next(), "end");
}

TEST_F(LineInputTest, TheLastLineNeedsNoLineFeed) {
  open("first\nlast");
  EXPECT_EQ(next(), "1:first");
  EXPECT_EQ(next(), "2:last");
  EXPECT_EQ(next(), "end");
}

TEST_F(LineInputTest, AnEmptyFileHasNoLines) {
  open("");
  EXPECT_EQ(next(), "end");
}

TEST_F(LineInputTest, LinesMayBeLongerThanWhatIsReadAtOnce) {
  const std::string longest(LineInput::kLongestLine, 'x');
  open(longest + "\n" + longest + "y\nshort\n" + longest + "y");
  EXPECT_EQ(next(), "1:" + longest);
  EXPECT_EQ(next(), "2 too long");
  EXPECT_EQ(next(), "3:short");
  EXPECT_EQ(next(), "4 too long");
  EXPECT_EQ(next(), "end");
}

TEST_F(LineInputTest, WhatCannotBeOpenedOrReadIsTold) {
  LineInput missing;
  EXPECT_EQ(missing.open(folder_.path("missing")), ENOENT);
  ASSERT_EQ(input_.open(folder_.path()), 0) << "a folder";
  EXPECT_EQ(next(), "failed");
  EXPECT_EQ(input_.error(), EISDIR);
}

TEST_F(LineInputTest, AnOpenGateEndsTheWaitForALine) {
  const std::string pipe = folder_.path("pipe");
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  std::fstream writer(pipe);  // both ends, so that opening waits for nobody
  ASSERT_EQ(input_.open(pipe), 0);
  writer << "first\nsec" << std::flush;
  EXPECT_EQ(next(), "1:first");
  std::thread opening([this] { stop_.open(); });
  EXPECT_EQ(next(), "stopped");
  opening.join();
  EXPECT_EQ(next(), "stopped");
}

TEST_F(LineInputTest, ALineMayComeInPieces) {
  const std::string pipe = folder_.path("pipe");
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  std::fstream writer(pipe);
  ASSERT_EQ(input_.open(pipe), 0);
  writer << "fi" << std::flush;
  std::thread writing([&writer] { writer << "rst\nsecond\n" << std::flush; });
  EXPECT_EQ(next(), "1:first");
  EXPECT_EQ(next(), "2:second");
  writing.join();
}

TEST_F(LineInputTest, AnEmptyPathAndADashAreTheStandardInput) {
  EXPECT_EQ(input_.open(""), 0);
  EXPECT_EQ(input_.name(), "stdin");
  LineInput dash;
  EXPECT_EQ(dash.open("-"), 0);
  EXPECT_EQ(dash.name(), "stdin");
}

}  // namespace
}  // namespace orva::host
