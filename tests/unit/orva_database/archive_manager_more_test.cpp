#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <stdexcept>
#include <thread>

#include "orva_database/pin.h"
#include "share/archive_manager.h"
#include "share/ticks.h"
#include "support/archive_fixture.h"
#include "support/trace_capture.h"

namespace orva::archive::archive_manager_more_test {
namespace {

using test::realPin;
using test::requestFor;
using test::TraceCapture;

class ArchiveManagerMoreTest : public test::ArchiveFixture {};

TEST_F(ArchiveManagerMoreTest, LookingUpAnItemThatNoArchiveServesKeepsItsLastSample) {
  start();
  describeItem(1, "Plant/Load", {{0, {4, 0}}});
  TraceCapture traces;
  const std::int64_t cacheId = manager().createPinCache({1, "Plant/Load"});
  *pin(cacheId) << realPin(100, 1);
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(manager().createPinCache({1, "Plant/Load"}), cacheId);
    ASSERT_TRUE(pin(cacheId)->last());
    EXPECT_EQ(pin(cacheId)->last()->time, 100);
  }
}

TEST_F(ArchiveManagerMoreTest, LayersThatAreServedForgetTheLastSampleOnce) {
  describeItem(1, "Plant/Load", {{0, {0, 0}}, {1, {4, 0}}, {2, {0, 0}}});
  TraceCapture traces;
  const std::int64_t cacheId = manager().createPinCache({1, "Plant/Load"});
  *pin(cacheId) << realPin(100, 1);
  start();
  EXPECT_FALSE(pin(cacheId)->last());
  EXPECT_EQ(pin(cacheId)->layerCount(), 2U);
  *pin(cacheId) << realPin(50, 1);
  manager().createPinCache({1, "Plant/Load"});  // layer 1 is still not served
  ASSERT_TRUE(pin(cacheId)->last());
  EXPECT_EQ(pin(cacheId)->last()->time, 50);
}

TEST_F(ArchiveManagerMoreTest, ArchiveThatThrowsForOneItemStillServesTheOthers) {
  describeItem(1, "Plant/Load", {{0, {0, 0}}});
  describeItem(2, "Plant/Level", {{0, {0, 0}}});
  TraceCapture traces;
  const std::int64_t first = manager().createPinCache({1, "Plant/Load"});
  const std::int64_t second = manager().createPinCache({2, "Plant/Level"});
  factory.onCreate = [](test::ScriptedProvider& provider) {
    provider.onLayerWriter([](const ItemKey& key) {
      if (key.first == 1) throw std::runtime_error("no table");
    });
  };
  EXPECT_EQ(start(), 0);
  EXPECT_EQ(pin(first)->layerCount(), 0U);
  EXPECT_EQ(pin(second)->layerCount(), 1U);
  EXPECT_EQ(traces.countContaining("no table"), 1);
}

// Told of a time-out by the very clear() that ends the archives, a client starts them anew and
// reads: that read belongs to the new archives.
TEST_F(ArchiveManagerMoreTest, ReadBegunWhileClearTellsTheWaitersIsNotReleasedByIt) {
  clock.setAutoAdvance(false);
  start();
  archive().setScript({test::When::never});
  const SharedRequest waiting = requestFor(makeItem(1));
  SharedRequest fresh;
  std::thread reader;
  waiting->setTimeoutListener([&](const SharedRequest&) {
    start();
    archive(1).setScript({test::When::held});
    fresh = requestFor(makeItem(1));
    reader = std::thread([&fresh] { manager().syncRead(fresh); });
    ASSERT_TRUE(archive(1).waitForHeld(1));
  });
  manager().addRequest(waiting, 60000);
  TraceCapture traces;
  manager().clear();
  ASSERT_TRUE(reader.joinable());
  while (fresh->status() == status::kBadWaiting && clock.waitsBegun() == 0) {
    std::this_thread::yield();
  }
  clock.advance(100 * kTicksPerMillisecond);
  // It looks round, and either goes on waiting or has given up.
  while (fresh->status() == status::kBadWaiting && clock.waitsBegun() == 1) {
    std::this_thread::yield();
  }
  archive(1).releaseAll();
  reader.join();
  EXPECT_EQ(fresh->status(), status::kGood);
}

// Asked of the archives that end, but not in the queue yet when it is emptied.
TEST_F(ArchiveManagerMoreTest, RequestQueuedAfterClearTookItsArchivesIsReleased) {
  start();
  archive().setScript({test::When::never});
  archive().onRead([](const SharedInterval&) { manager().clear(); });
  const SharedRequest request = requestFor(makeItem(1));
  int told = 0;
  request->setTimeoutListener([&told](const SharedRequest&) { ++told; });
  TraceCapture traces;
  manager().addRequest(request, 60000);
  EXPECT_EQ(request->status(), status::kBadTimeout);
  EXPECT_EQ(told, 1);
}

TEST_F(ArchiveManagerMoreTest, RequestQueuedWhileTheArchivesEndIsReleased) {
  start();
  archive().setScript({test::When::never});
  const SharedRequest request = requestFor(makeItem(1));
  int told = 0;
  request->setTimeoutListener([&told](const SharedRequest&) { ++told; });
  std::atomic<bool> asked{false};
  std::atomic<bool> ending{false};
  archive().onRead([&](const SharedInterval&) {
    asked = true;
    while (!ending) std::this_thread::yield();
  });
  TraceCapture traces;
  std::thread reader([&request] { manager().addRequest(request, 60000); });
  archive().onStop([&] {
    ending = true;
    reader.join();
  });
  while (!asked) std::this_thread::yield();
  manager().clear();
  EXPECT_EQ(request->status(), status::kBadTimeout);
  EXPECT_EQ(told, 1);
}

// The 60 s begin anew where the clock was set back to, and end after them, not with them.
TEST_F(ArchiveManagerMoreTest, LimitOfAReadBeginsAnewWhenTheClockIsSetBack) {
  constexpr long long kWait = 100 * kTicksPerMillisecond;
  clock.setAutoAdvance(false);
  start();
  archive().setScript({test::When::never});
  const SharedRequest request = requestFor(makeItem(1));
  TraceCapture traces;
  std::thread reader([&request] { manager().syncRead(request); });
  // Whether the reader begins its n-th wait rather than to give up.
  const auto waitsAgain = [&](long long n) {
    while (request->status() == status::kBadWaiting && clock.waitsBegun() < n) {
      std::this_thread::yield();
    }
    return request->status() == status::kBadWaiting;
  };
  EXPECT_TRUE(waitsAgain(1));
  const long long back = test::ManualClock::kStart - kTicksPerHour;
  clock.setTime(back - kWait);
  clock.advance(kWait);
  EXPECT_TRUE(waitsAgain(2));
  clock.setTime(back + 60 * kTicksPerSecond - kWait);
  clock.advance(kWait);
  EXPECT_TRUE(waitsAgain(3));
  clock.advance(kWait);
  EXPECT_FALSE(waitsAgain(4));
  manager().clear();  // lets go of a reader that did not give up
  clock.advance(kWait);
  reader.join();
  EXPECT_EQ(request->status(), status::kBadTimeout);
}

}  // namespace
}  // namespace orva::archive::archive_manager_more_test
