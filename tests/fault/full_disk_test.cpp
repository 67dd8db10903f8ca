// A disk that is really full: a file system of one megabyte in memory.

#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <random>

#include "unit/orva_sqlite/archive_fixture.h"

namespace orva::sqlite::test {
namespace {

constexpr std::int64_t kRetry = 5 * kTicksPerSecond;
constexpr std::size_t kBallast = 700'000;

// An archive on the small disk. The mount is seen by this process alone.
class FullDiskTest : public ArchiveTest {
 protected:
  void SetUp() override {
    if (::unshare(CLONE_NEWNS) != 0 ||
        ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        ::mount("tmpfs", folder_.path().c_str(), "tmpfs", 0, "size=1m") != 0) {
      GTEST_SKIP() << "a small disk cannot be made here, it needs root: " << std::strerror(errno);
    }
    mounted_ = true;
    limits_.writeBufferSize = 20'000;
    limits_.maxWriteValues = 1'000;
    connection_.parameters = "checkpointPages=16";
    connection_.reconnectTimeout = kRetry;
  }
  void TearDown() override {
    if (archive_) close();
    if (mounted_) ::umount(folder_.path().c_str());
  }

  // Whole numbers of no pattern: eight bytes each in the file.
  void write(std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) {
      ArchiveTest::write({1, "a"}, 0, makePin(second(next_++), realValue(double(random_() >> 11))));
    }
  }
  void fill() {
    const std::string bytes(kBallast, 'x');
    std::ofstream out(ballast(), std::ios::binary);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    out.flush();
    ASSERT_TRUE(out.good());
  }
  std::string ballast() const { return folder_ / "ballast"; }

  bool mounted_ = false;
  std::int64_t next_ = 0;
  std::mt19937_64 random_{3};
};

TEST_F(FullDiskTest, CostsNothingWhileTheBufferHoldsAndIsOverWhenThereIsRoomAgain) {
  open();
  write(2'000);
  ASSERT_TRUE(worker().writeAll());
  fill();
  for (int round = 0; round < 40 && counters().failures == 0; ++round) {
    write(1'000);
    worker().writeAll();
  }
  EXPECT_GT(counters().failures, 0U);
  EXPECT_GT(trace_.countContaining("database or disk is full"), 0);
  EXPECT_EQ(counters().dropped, 0U);
  // Nothing is missing meanwhile, and nothing is asked of the disk that it cannot do.
  EXPECT_TRUE(answers({{1, "a"}, 0}));
  clock_.advance(2 * kRetry);
  EXPECT_GT(worker().pass(), 0);
  EXPECT_TRUE(answers({{1, "a"}, 0}));
  // The buffer fills; what it does not take is counted and said.
  write(30'000);
  EXPECT_GT(counters().dropped, 0U);
  EXPECT_GT(trace_.countContaining("has its write buffer full"), 0);
  EXPECT_TRUE(answers({{1, "a"}, 0}));
  ASSERT_EQ(::unlink(ballast().c_str()), 0);
  clock_.advance(2 * kRetry);
  while (worker().pass() == 0) {
  }
  EXPECT_EQ(counters().written, counters().accepted);
  EXPECT_EQ(trace_.countContaining("works again"), 1);
  EXPECT_TRUE(answers({{1, "a"}, 0}));
  open();
  EXPECT_TRUE(answers({{1, "a"}, 0}));
}

TEST_F(FullDiskTest, AStoreThatCannotBeBegunIsBegunWhenThereIsRoom) {
  const std::string bytes(1 << 20, 'x');
  {
    std::ofstream out(ballast(), std::ios::binary);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  }
  open();
  write(100);
  EXPECT_FALSE(worker().writeAll());
  EXPECT_GT(trace_.countContaining("full"), 0);
  const Answer answer = ask({{1, "a"}, 0});
  EXPECT_EQ(answer.pushed.size(), 100U);
  ASSERT_EQ(::unlink(ballast().c_str()), 0);
  clock_.advance(2 * kRetry);
  while (worker().pass() == 0) {
  }
  EXPECT_EQ(counters().written, 100U);
  EXPECT_TRUE(answers({{1, "a"}, 0}));
}

}  // namespace
}  // namespace orva::sqlite::test
