// What the host does on SIGHUP, SIGUSR1 and SIGTERM while a program writes.

#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>

#include "support/plant.h"

namespace orva::test {
namespace {

constexpr const char* kCounterPath = "Plant/Counter";
constexpr std::uint32_t kShutdownEvent = 0x00A80000;

// The block is made once and never again.
constexpr const char* kCounterProgram = R"(
local counter = ArchiveProc.new{Id = 1, Path = "Plant/Counter"}
local n = 0
function cycle()
  n = n + 1
  counter.Value = n
  counter()
end
)";

class SignalsTest : public ::testing::Test {
 protected:
  SignalsTest() : plant_(config()) {
    plant_.folder().write("counter.lua", kCounterProgram);
    if (plant_.start()) id_ = plant_.itemId(kCounterPath);
  }

  static PlantConfig config() {
    PlantConfig config;
    config.variables = "[" + variable(1, kCounterPath, "Double") + "]";
    config.programs = "[" + program("counter", "counter.lua", 2) + "]";
    return config;
  }

  Samples history() const { return plant_.client().readAll(plant_.itemId(kCounterPath)); }
  // The whole history has grown by so many samples.
  bool growsBy(std::size_t count) const {
    const std::size_t before = history().size();
    return waitUntil([&] { return history().size() >= before + count; }, 10'000);
  }
  static void expectCountedUp(const Samples& samples) {
    for (std::size_t i = 0; i < samples.size(); ++i) {
      ASSERT_EQ(samples[i].value, std::to_string(i + 1) + ".0");
    }
  }

  static void expectAscending(const Samples& samples) {
    for (std::size_t i = 1; i < samples.size(); ++i) {
      ASSERT_LT(std::stod(samples[i - 1].value), std::stod(samples[i].value));
      ASSERT_LE(samples[i - 1].timeMs, samples[i].timeMs);
    }
  }

  Plant plant_;
  std::int64_t id_ = -1;
};

TEST_F(SignalsTest, StoppingEndsWithinFiveSecondsWithExitCodeZeroAndLosesNothing) {
  ASSERT_TRUE(growsBy(200));
  const Samples accepted = history();
  const std::int64_t begin = steadyMilliseconds();
  EXPECT_EQ(plant_.host().stop(), 0) << plant_.host().log();
  EXPECT_LT(steadyMilliseconds() - begin, 5'000);

  PlantConfig silent = config();
  silent.programs.clear();
  plant_.configure(silent);
  ASSERT_TRUE(plant_.start());
  Samples stored = history();
  ASSERT_GT(stored.size(), accepted.size());
  // The block's last words repeat the last value.
  EXPECT_EQ(stored.back().quality, kShutdownEvent);
  EXPECT_EQ(stored.back().value, stored[stored.size() - 2].value);
  stored.pop_back();
  expectCountedUp(stored);
  EXPECT_TRUE(std::equal(accepted.begin(), accepted.end(), stored.begin()));
}

TEST_F(SignalsTest, InterruptStopsLikeTerminate) {
  ASSERT_TRUE(growsBy(1));
  plant_.host().signal(SIGINT);
  EXPECT_TRUE(waitUntil([&] { return !plant_.host().running(); }, 5'000));
  EXPECT_EQ(plant_.host().stop(), 0);
}

TEST_F(SignalsTest, ABlockGoesOnArchivingWhenTheArchivesAreRebuilt) {
  ASSERT_TRUE(growsBy(50));
  for (int round = 0; round < 3; ++round) {
    const Samples before = history();
    plant_.host().signal(SIGUSR1);
    ASSERT_TRUE(growsBy(50)) << plant_.host().log();
    const Samples after = history();
    // What the block writes while there is no archive is not archived; all else is.
    EXPECT_TRUE(std::equal(before.begin(), before.end(), after.begin()));
    expectAscending(after);
  }
}

TEST_F(SignalsTest, ChangedArchivesAreUsedAfterTheyAreRebuilt) {
  ASSERT_TRUE(growsBy(50));
  PlantConfig moved = config();
  moved.dataArchive.replace(moved.dataArchive.find("store"), 5, "elsewhere");
  plant_.configure(moved);
  plant_.host().signal(SIGHUP);
  ASSERT_TRUE(growsBy(50));  // still in the old ones
  const std::size_t before = history().size();
  plant_.host().signal(SIGUSR1);
  ASSERT_TRUE(waitUntil([&] { return history().size() < before; }, 10'000));
  ASSERT_TRUE(growsBy(50));
  EXPECT_GT(std::stod(history().front().value), static_cast<double>(before));
}

TEST_F(SignalsTest, AVariableOfTheRereadFileIsKnown) {
  EXPECT_EQ(plant_.client().archiveItemId("Plant/Added"), -1);
  PlantConfig changed = config();
  changed.variables.insert(1, variable(2, "Plant/Added", "Double") + ",");
  plant_.configure(changed);
  plant_.host().signal(SIGHUP);
  EXPECT_NE(plant_.itemId("Plant/Added"), -1);
  EXPECT_TRUE(growsBy(50));
}

TEST_F(SignalsTest, AFileThatIsWrongWhenReadAgainChangesNothing) {
  plant_.folder().write("plant.json", "{\"http\": 5}");
  plant_.host().signal(SIGHUP);
  EXPECT_TRUE(plant_.host().waitForLog("http: must be an object")) << plant_.host().log();
  EXPECT_TRUE(growsBy(50));
  EXPECT_EQ(plant_.client().archiveItemId(kCounterPath), id_);
}

}  // namespace
}  // namespace orva::test
