#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <string>

#include "model/model_options.h"
#include "model/silence.h"
#include "model/world.h"

// Whatever the cache holds, has evicted or is fetching: a read answers what a plain sorted list of
// everything accepted would answer.

namespace orva::model {

namespace {

// What is wrong in the world of this seed; empty when nothing is.
std::string runWorld(std::uint64_t seed, std::uint64_t operations, bool log, Counts& counts) {
  World world(seed, log);
  std::string wrong;
  try {
    world.run(operations);
  } catch (const Difference& difference) {
    wrong = "seed " + std::to_string(seed) + " operation " + std::to_string(world.operation()) +
            ": " + difference.what() +
            "\nagain: orva_model_tests --gtest_filter=ModelTest.* --seed " + std::to_string(seed) +
            " --seeds 1 --ops " + std::to_string(std::min(world.operation() + 1, operations)) +
            " --log";
  }
  counts.add(world.counts());
  return wrong;
}

double share(std::uint64_t part, std::uint64_t whole) {
  return whole == 0 ? 0 : static_cast<double>(part) / static_cast<double>(whole);
}

// A run that is too short meets the rarer cases by luck only.
constexpr std::uint64_t kMeaningful = 100'000;

void expectEverythingMet(const Counts& counts, std::uint64_t traced) {
  EXPECT_GE(share(counts.metEither, counts.rangeReads), 1.0 / 3)
      << "reads that met evicted or half-fetched stretches";
  for (const std::uint64_t count : {counts.appended,
                                    counts.restarts,
                                    counts.abandonedReads,
                                    counts.exact,
                                    counts.grown,
                                    counts.resampled,
                                    counts.resampledExact,
                                    counts.notCompared,
                                    counts.fromCacheAlone,
                                    counts.asked,
                                    counts.joinedPages,
                                    counts.cut,
                                    counts.lastFromCache,
                                    counts.randomPoints,
                                    counts.boundsReads,
                                    counts.firstLastReads,
                                    counts.metEvicted,
                                    counts.metHalfFetched,
                                    counts.answers.split,
                                    counts.answers.late,
                                    counts.answers.failed,
                                    counts.answers.afterEnd,
                                    counts.answers.outOfOrder,
                                    counts.answers.abandoned,
                                    traced}) {
    EXPECT_GT(count, 0U);
  }
}

}  // namespace

TEST(ModelTest, EveryReadAnswersWhatAPlainSortedListWouldAnswer) {
  const ModelOptions& options = modelOptions();
  Silence silence;
  Counts counts;
  const auto began = std::chrono::steady_clock::now();
  int failures = 0;
  std::uint64_t worlds = 0;
  for (std::uint64_t left = options.operations; left > 0 && worlds < options.seeds; ++worlds) {
    const std::uint64_t operations = std::min(left, World::kOperations);
    left -= operations;
    const std::string wrong = runWorld(options.seed + worlds, operations, options.log, counts);
    if (wrong.empty()) continue;
    ADD_FAILURE() << wrong;
    if (++failures == 5) break;
  }
  const std::chrono::duration<double> took = std::chrono::steady_clock::now() - began;
  std::printf("%llu worlds from seed %llu in %.1f s\n%s", static_cast<unsigned long long>(worlds),
              static_cast<unsigned long long>(options.seed), took.count(), counts.table().c_str());
  if (failures == 0 && counts.operations >= kMeaningful) {
    expectEverythingMet(counts, silence.lines());
  }
}

TEST(ModelTest, TheSameSeedGivesTheSameWorld) {
  Silence silence;
  Counts first;
  Counts second;
  EXPECT_EQ(runWorld(7, World::kOperations, false, first), "");
  EXPECT_EQ(runWorld(7, World::kOperations, false, second), "");
  EXPECT_EQ(first.table(), second.table());
}

}  // namespace orva::model
