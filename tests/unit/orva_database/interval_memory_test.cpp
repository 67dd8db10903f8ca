#include <gtest/gtest.h>

#include <boost/smart_ptr/make_shared.hpp>
#include <vector>

#include "share/archive_request.h"
#include "share/ticks.h"
#include "support/archive_fixture.h"
#include "support/failing_allocations.h"

// Ends of intervals for which there is no memory: whoever waits must be told.

namespace orva::archive {
namespace {

using test::realPin;
using test::timesOf;
using test::withAllocations;
using Times = std::vector<std::int64_t>;

constexpr long kEnough = 200;

// What became of an item.
struct Outcome {
  bool complete;
  StatusCode failure;
  Times times;
};

Outcome outcomeOf(const SharedRequest& request) {
  const SharedItem item = request->items()[0];
  EXPECT_TRUE(item->isFinal());
  return {request->complete(), item->failure(), timesOf(item)};
}

// Runs end(allocations) with one allocation more each time, until all of them succeed. How often
// they did not; then the answer must be complete and bad.
template <class End>
int failuresOf(const End& end, const Times& right) {
  int refused = 0;
  for (long allocations = 0; allocations < kEnough; ++allocations) {
    const Outcome outcome = end(allocations);
    EXPECT_TRUE(outcome.complete) << "with " << allocations << " allocations";
    if (outcome.failure == status::kGood) {
      EXPECT_EQ(outcome.times, right) << "with " << allocations << " allocations";
      return refused;
    }
    EXPECT_EQ(outcome.failure, status::kBadOutOfMemory);
    ++refused;
  }
  ADD_FAILURE() << "never enough";
  return refused;
}

TEST(IntervalMemoryTest, ResampledRangeThatRunsOutAtItsEndIsFinalAndBad) {
  const auto end = [](long allocations) {
    const SharedRequest request = boost::make_shared<Request>();
    const SharedItem item = request->addItem(7);
    item->resampleInterval = kTicksPerSecond;
    const SharedInterval interval = item->addInterval(0, 1, 0);
    for (const std::int64_t time : {1, 2, 3, 4, 5}) {
      interval->push(realPin(time, static_cast<double>((time * 7) % 5)));
    }
    withAllocations(allocations, [&] { interval->finalize(); });
    return outcomeOf(request);
  };
  EXPECT_GT(failuresOf(end, {1, 2, 5}), 0);
}

SharedRequest splitRequest(std::vector<SharedInterval>& parts) {
  const SharedRequest request = boost::make_shared<Request>();
  const SharedInterval whole = request->addItem(7)->addInterval(-1, 1, 0);
  parts = whole->split(2);
  parts[0]->push(realPin(1, 1));
  parts[0]->push(realPin(3, 3));
  parts[1]->push(realPin(2, 2));
  return request;
}

TEST(IntervalMemoryTest, AnswersOfSeveralArchivesThatCannotBeMergedEndTheReadAndAreBad) {
  const auto end = [](long allocations) {
    std::vector<SharedInterval> parts;
    const SharedRequest request = splitRequest(parts);
    parts[0]->finalize();
    withAllocations(allocations, [&] { parts[1]->finalize(); });
    return outcomeOf(request);
  };
  EXPECT_GT(failuresOf(end, {1, 2, 3}), 2);
}

TEST(IntervalMemoryTest, SoDoesAnArchiveThatDropsItsPart) {
  std::vector<SharedInterval> parts;
  const SharedRequest request = splitRequest(parts);
  parts[0]->finalize();
  withAllocations(0, [&] { parts[1].reset(); });
  const Outcome outcome = outcomeOf(request);
  EXPECT_TRUE(outcome.complete);
  EXPECT_EQ(outcome.failure, status::kBadOutOfMemory);
}

}  // namespace
}  // namespace orva::archive
