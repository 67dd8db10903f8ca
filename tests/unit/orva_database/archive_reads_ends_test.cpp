#include <cstdint>
#include <vector>

#include "orva_host/variables.h"
#include "share/archive_request.h"
#include "support/archive_fixture.h"
#include "support/trace_capture.h"

// Reads of what is not there any more, and parts of answers that nobody waits for.

namespace orva::archive {
namespace {

using test::realPin;
using test::realPins;
using test::requestFor;
using test::timesOf;
using test::TraceCapture;
using Times = std::vector<std::int64_t>;

class ReadsEndTest : public test::ArchiveFixture {};

TEST_F(ReadsEndTest, ReadOfEveryArchiveThatAClearOvertakesSaysThatNothingWasFound) {
  start(2);
  const SharedRequest request = requestFor(makeItem(1, "A"));
  describeItem(2, "B", {{1, {0, 0}}});  // no layer 0: it is asked for by this interval alone
  const std::int64_t other = manager().createPinCache({2, "B"});
  archive(1).add({2, "B"}, 0, realPin(20, 2));
  request->addItem(other)->addInterval(-1, 0, 0);
  archive(0).onRead([](const SharedInterval&) { manager().clear(); });
  TraceCapture traces;
  manager().syncRead(request);
  const SharedItem item = request->items()[1];
  EXPECT_TRUE(item->isFinal());
  EXPECT_EQ(item->failure(), status::kBadNotFound);
  EXPECT_EQ(item->valueCount(), 0U);
}

TEST_F(ReadsEndTest, ItemThatTheHostHasForgottenIsEmptyWhereItLacksTheLayer) {
  start();
  const std::int64_t cacheId = makeItem(1);
  archive().add({1, "Plant/Load"}, 0, realPins(10, 3));
  host::removeVariable(1);
  TraceCapture traces;
  const SharedRequest lacking = requestFor(cacheId);
  lacking->options.layerId = 2;
  manager().syncRead(lacking);
  EXPECT_EQ(lacking->items()[0]->failure(), status::kGood);
  EXPECT_EQ(lacking->items()[0]->valueCount(), 0U);
  EXPECT_EQ(traces.countContaining("not find archive"), 0);
  // What it has is read as before.
  const SharedRequest kept = requestFor(cacheId);
  manager().syncRead(kept);
  EXPECT_EQ(timesOf(kept->items()[0]), (Times{10, 11, 12}));
}

TEST_F(ReadsEndTest, ItemThatTheHostHasForgottenGetsNoLayersFromNewArchives) {
  const std::int64_t lost = makeItem(1, "A");  // while there is no archive
  const std::int64_t kept = makeItem(2, "B");
  host::removeVariable(1);
  start();
  EXPECT_FALSE(pin(lost)->hasLayer(0));
  EXPECT_TRUE(pin(kept)->hasLayer(0));
}

// ---- parts of an interval

class PartEndTest : public ::testing::Test {
 protected:
  const SharedRequest request_ = boost::make_shared<Request>();
  const SharedItem item_ = request_->addItem(7);
  const SharedInterval whole_ = item_->addInterval(-1, 1, 0);
  const std::vector<SharedInterval> parts_ = whole_->split(2);
};

TEST_F(PartEndTest, PartOfAClosedItemTakesNoMore) {
  parts_[0]->push(realPin(1, 1));
  item_->close();
  parts_[1]->push(realPin(2, 2));
  for (const SharedInterval& part : parts_) {
    EXPECT_TRUE(part->full());
    part->finalize();
  }
  EXPECT_TRUE(whole_->isFinal());
  EXPECT_EQ(item_->valueCount(), 0U);
  EXPECT_FALSE(item_->isFinal());
}

TEST_F(PartEndTest, NullValuesOfAPartAreIgnored) {
  const PinPtr pins[] = {realPin(1, 1), PinPtr(), realPin(2, 2)};
  parts_[0]->push(pins, 3);
  for (const SharedInterval& part : parts_) part->finalize();
  EXPECT_EQ(timesOf(item_), (Times{1, 2}));
  EXPECT_EQ(item_->failure(), status::kGood);
}

TEST(IntervalSpaceTest, AnIntervalWhoseItemIsGoneHasNone) {
  SharedInterval interval;
  {
    const SharedRequest request = boost::make_shared<Request>();
    interval = request->addItem(7)->addInterval(0, 1, 0);
    interval->setLimit(5);
    EXPECT_EQ(interval->availableSpace(), 5U);
  }
  EXPECT_EQ(interval->availableSpace(), 0U);
}

}  // namespace
}  // namespace orva::archive
