#include <gtest/gtest.h>

#include <random>

#include "share/ticks.h"
#include "unit/orva_sqlite/archive_fixture.h"

// The archive against a plain sorted list: random samples, transactions, joins, clean-ups and
// restarts, and after each of them reads of every kind.

namespace orva::sqlite::test {
namespace {

class ArchiveModelTest : public ArchiveTest, public ::testing::WithParamInterface<int> {
 protected:
  struct Source {
    ItemKey key;
    std::int32_t layer;
    std::int64_t time;
    bool isNew = true;  // since the start: its next sample may be older than those in the archive
  };

  void SetUp() override {
    random_.seed(static_cast<std::uint64_t>(GetParam()) * 7919);
    limits_.maxWriteValues = 1 + static_cast<std::uint32_t>(below(400));
    limits_.writeBufferSize = 100'000;
    limits_.writePeriod = 0;
    limits_.maxDelValues = 1 + static_cast<std::uint32_t>(below(300));
    if (GetParam() % 2 == 0)
      limits_.maxTime = static_cast<std::int64_t>(below(5000)) * kTicksPerSecond;
    for (const auto& [id, path] : {std::pair{1, "a"}, {1, ""}, {2, "a"}}) {
      sources_.push_back({{id, path}, 0, second(0)});
      sources_.push_back({{id, path}, 2, second(0)});
    }
    open();
  }

  std::size_t below(std::size_t limit) { return test::below(random_, limit); }

  void append() {
    Source& source = sources_[below(sources_.size())];
    if (source.isNew && below(2) == 0) {
      source.time -= static_cast<std::int64_t>(below(3000)) * kTicksPerSecond;
    }
    source.isNew = false;
    std::vector<PinPtr> samples = randomSamples(random_, 0,
                                                1 + below(below(20) == 0  ? 2500
                                                          : below(3) == 0 ? 60
                                                                          : 3));
    for (const PinPtr& sample : samples) {
      if (below(3) != 0) source.time += static_cast<std::int64_t>(below(3)) * kTicksPerSecond / 2;
      const PinPtr pin = makePin(source.time, sample->value, sample->quality);
      write(source.key, source.layer, pin);
    }
  }

  void restart() {
    open();
    for (Source& source : sources_) source.isNew = true;
  }

  void cleanUp() {
    ASSERT_TRUE(worker().writeAll());
    std::int64_t newest = 0;
    for (const Source& source : sources_) newest = std::max(newest, source.time);
    clock_.setTime(newest + static_cast<std::int64_t>(below(500)) * kTicksPerSecond);
    ASSERT_TRUE(worker().cleanUp());
    if (limits_.maxTime == 0) return;
    const std::int64_t cutoff = clock_.now() - limits_.maxTime;
    for (auto& entry : list_.all()) {
      auto& samples = entry.second;
      auto keep = samples.begin();
      while (keep != samples.end() && (*keep)->time < cutoff) ++keep;
      if (keep == samples.end() && !samples.empty()) --keep;
      samples.erase(samples.begin(), keep);
    }
  }

  void step() {
    switch (below(12)) {
      case 0:
        ASSERT_TRUE(worker().writeAll());
        break;
      case 1:
        ASSERT_TRUE(worker().writeAll());
        ASSERT_TRUE(worker().mergeAll());
        break;
      case 2:
        cleanUp();
        break;
      case 3:
        if (below(4) == 0) restart();
        break;
      case 4:
      case 5:
        for (int i = 0; i < 6; ++i) worker().pass();
        break;
      default:
        append();
    }
  }

  std::int64_t someTime(const std::vector<PinPtr>& samples) {
    if (samples.empty() || below(10) == 0) {
      return second(static_cast<std::int64_t>(below(20000)) - 5000);
    }
    return samples[below(samples.size())]->time + static_cast<std::int64_t>(below(3)) - 1;
  }

  Question someQuestion() {
    const Source& source = sources_[below(sources_.size())];
    const std::vector<PinPtr>& samples = list_.samples(source.key, source.layer);
    Question question{source.key, source.layer};
    question.start = below(5) == 0 ? 0 : someTime(samples);
    question.end = below(5) == 0 ? 0 : someTime(samples);
    if (question.end != 0 && question.start > question.end && below(8) != 0) {
      std::swap(question.start, question.end);
    }
    if (below(6) == 0) question.end = question.start;
    question.kind = below(3) != 0 ? Kind::range : below(2) == 0 ? Kind::oldest : Kind::newest;
    question.left = below(2) == 0;
    question.right = below(2) == 0;
    constexpr std::uint32_t kLimits[] = {0, 1, 2, 7, 100, 1000, 4294967295U};
    question.limit = kLimits[below(7)];
    return question;
  }

  std::mt19937_64 random_;
  std::vector<Source> sources_;
};

TEST_P(ArchiveModelTest, AnswersLikeAPlainSortedList) {
  for (int operation = 0; operation < 250; ++operation) {
    step();
    for (int i = 0; i < 3; ++i) ASSERT_TRUE(answers(someQuestion())) << "operation " << operation;
    ASSERT_FALSE(HasFatalFailure()) << "operation " << operation;
  }
  ASSERT_TRUE(worker().writeAll());
  for (int i = 0; i < 100; ++i) ASSERT_TRUE(answers(someQuestion()));
  for (const auto& entry : list_.all()) {
    EXPECT_TRUE(answers({entry.first.first, entry.first.second}));
  }
  EXPECT_EQ(counters().dropped + counters().refused + counters().damaged, 0U);
}

// The rule on which every look-up rests.
TEST_P(ArchiveModelTest, SegmentsOfAStreamNeverOverlap) {
  for (int operation = 0; operation < 150; ++operation) step();
  ASSERT_TRUE(worker().writeAll());
  EXPECT_EQ(inFile("SELECT count(*) FROM (SELECT first, lag(last) OVER (PARTITION BY handle, layer "
                   "ORDER BY first, seq) AS before FROM segment) WHERE first < before"),
            0);
  EXPECT_EQ(inFile("SELECT count(*) FROM segment WHERE count > 1000 OR first > last"), 0);
}

INSTANTIATE_TEST_SUITE_P(Seeds, ArchiveModelTest, ::testing::Range(1, 13));

}  // namespace
}  // namespace orva::sqlite::test
