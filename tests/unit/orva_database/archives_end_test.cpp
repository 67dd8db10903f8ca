#include <gtest/gtest.h>

#include "share/status_codes.h"
#include "share/ticks.h"
#include "support/archive_fixture.h"
#include "support/trace_capture.h"

// Reads that meet the end of the archives that they were asked of.

namespace orva::archive {
namespace {

using test::Script;
using test::When;

class ArchivesEndTest : public test::ArchiveFixture {
 protected:
  ArchivesEndTest() {
    start();
    id = makeItem(7);
    archive().add({7, "Plant/Load"}, 0, test::realPins(10, 5));
  }

  SharedItem ask() {
    request = test::requestFor(id);
    manager().addRequest(request, 0);
    return request->items().front();
  }

  test::TraceCapture traces;
  std::int64_t id = 0;
  SharedRequest request;
};

TEST_F(ArchivesEndTest, AnAnswerOfNothingFromAnArchiveThatEndsIsNotTakenForNoData) {
  archive().setScript({When::held});
  const SharedItem item = ask();
  ASSERT_FALSE(item->isFinal());
  manager().clear();
  ASSERT_TRUE(item->isFinal());
  EXPECT_EQ(item->valueCount(), 0U);
  EXPECT_EQ(item->failure(), status::kBadDataUnavailable);
}

// The archive stops between being chosen and being asked.
TEST_F(ArchivesEndTest, ASynchronousReadSaysSoToo) {
  archive().onRead([this](const SharedInterval& interval) {
    if (interval->cacheId() != id) return;
    manager().clear();
  });
  request = test::requestFor(id);
  manager().syncRead(request);
  const SharedItem& item = request->items().front();
  ASSERT_TRUE(item->isFinal());
  EXPECT_EQ(item->failure(), status::kBadDataUnavailable);
}

TEST_F(ArchivesEndTest, ReadsOfTheArchivesThatFollowAreAnsweredAsEver) {
  manager().clear();
  start();
  factory.last().add({7, "Plant/Load"}, 0, test::realPins(10, 5));
  id = makeItem(7);
  const SharedItem item = ask();
  ASSERT_TRUE(item->isFinal());
  EXPECT_EQ(item->failure(), status::kGood);
  EXPECT_EQ(item->valueCount(), 5U);
}

}  // namespace
}  // namespace orva::archive
