#include <atomic>
#include <chrono>
#include <random>
#include <thread>

#include "unit/orva_database/remote_fixture.h"

namespace orva::archive {
namespace {

class RemoteWorkerTest : public RemoteArchiveSourceTest {
 protected:
  RemoteWorkerTest() {
    clock.setAutoAdvance(false);
    configureLoad();
  }

  template <class Condition>
  static bool within10s(const Condition& reached) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!reached()) {
      if (std::chrono::steady_clock::now() > end) return false;
      std::this_thread::yield();
    }
    return true;
  }
  std::chrono::milliseconds timeToStop() {
    const auto begun = std::chrono::steady_clock::now();
    EXPECT_EQ(source->Stop(), 0);
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() -
                                                                 begun);
  }
};

TEST_F(RemoteWorkerTest, StopWithoutStartDoesNothing) {
  EXPECT_EQ(source->Stop(), 0);
  EXPECT_EQ(source->Stop(), 0);
  EXPECT_EQ(network.exchanges, 0);
}

TEST_F(RemoteWorkerTest, MakesAPassEveryHundredMilliseconds) {
  EXPECT_EQ(source->Start(), 0);
  ASSERT_TRUE(within10s([&] { return network.exchanges == 1 && clock.waiting() == 1; }));
  for (int i = 2; i < 5; ++i) {
    const long long begun = clock.waitsBegun();
    clock.advance(kSecond);
    ASSERT_TRUE(within10s([&] { return network.exchanges == i && clock.waitsBegun() > begun; }));
  }
  EXPECT_EQ(source->Stop(), 0);
  EXPECT_EQ(network.exchanges, 4);
}

TEST_F(RemoteWorkerTest, MakesNoPauseWhileThereIsMore) {
  peer().page = 5;
  peer().add("Load", kStart, 500);
  source->Start();
  EXPECT_TRUE(within10s([&] { return network.exchanges == 100 && clock.waiting() == 1; }));
  source->Stop();
  EXPECT_EQ(source->counts(1).stored, 500U);
}

TEST_F(RemoteWorkerTest, LooksForRoomInTheLocalArchiveTenTimesAsOften) {
  peer().add("Load", kStart, 60);
  test::CrowdedWriter writer;
  pin(manager().createPinCache(kLoad))->addLayer(writer, 0);
  source->Start();
  for (std::size_t i = 1; i < 6; ++i) {
    ASSERT_TRUE(within10s([&] { return clock.waiting() == 1; }));
    EXPECT_EQ(writer.times.size(), 10 * i);
    writer.makeRoom();
    const long long begun = clock.waitsBegun();
    clock.advance(10 * kMs);
    ASSERT_TRUE(within10s([&] { return clock.waitsBegun() > begun; }));
  }
  source->Stop();
  EXPECT_EQ(writer.times.size(), 60U);
  manager().clear();
}

TEST_F(RemoteWorkerTest, StopEndsAnExchangeWithADeadPeerAtOnce) {
  peer().isSilent = true;
  source->Start();
  ASSERT_TRUE(within10s([&] { return network.inExchange == 1; }));
  EXPECT_LT(timeToStop(), std::chrono::milliseconds(5'000));
  EXPECT_EQ(network.inExchange, 0);
}

TEST_F(RemoteWorkerTest, StopDoesNotWaitForASilentLocalArchive) {
  manager().createPinCache(kLoad);
  archive().add(kLoad, 0, test::realPin(kStart, 5));
  archive().scriptNext({test::When::held});
  source->Start();
  ASSERT_TRUE(archive().waitForHeld(1));
  EXPECT_LT(timeToStop(), std::chrono::milliseconds(5'000));
  EXPECT_EQ(archive().heldCount(), 1U);
  archive().releaseAll();
}

TEST_F(RemoteWorkerTest, InitDoesNotWaitForAnExchange) {
  peer().isSilent = true;
  source->Start();
  ASSERT_TRUE(within10s([&] { return network.inExchange == 1; }));
  EXPECT_EQ(source->Init(), 0);
  EXPECT_EQ(network.inExchange, 1);
  source->Stop();
}

TEST_F(RemoteWorkerTest, StartTwiceLeavesOneWorkerAndStopEndsBoth) {
  peer().isSilent = true;
  source->Start();
  ASSERT_TRUE(within10s([&] { return network.inExchange == 1; }));
  source->Start();
  source->Start();
  EXPECT_EQ(network.inExchange, 1);
  EXPECT_LT(timeToStop(), std::chrono::milliseconds(5'000));
  EXPECT_EQ(network.inExchange, 0);
  peer().isSilent = false;
  peer().add("Load", kStart, 3);
  source->Start();
  EXPECT_TRUE(within10s([&] { return source->counts(1).stored == 3; }));
  source->Stop();
}

TEST_F(RemoteWorkerTest, AnyOrderInATightLoopNeverHangs) {
  peer().isSilent = true;
  std::mt19937 random(11);
  for (int i = 0; i < 300; ++i) {
    switch (random() % 4) {
      case 0:
        EXPECT_EQ(source->Init(), 0);
        break;
      case 1:
        EXPECT_EQ(source->Start(), 0);
        break;
      case 2:
        EXPECT_LT(timeToStop(), std::chrono::milliseconds(5'000));
        break;
      default:
        std::this_thread::yield();
    }
  }
  EXPECT_LT(timeToStop(), std::chrono::milliseconds(5'000));
}

TEST_F(RemoteWorkerTest, StopWhileInitComesFromElsewhereDoesNotHang) {
  std::atomic<bool> done{false};
  std::thread configurer([&] {
    while (!done) source->Init();
  });
  for (int i = 0; i < 100; ++i) {
    source->Start();
    source->Stop();
  }
  done = true;
  configurer.join();
}

TEST_F(RemoteWorkerTest, ItsEndIsWaitedForWhenTheSourceGoes) {
  peer().isSilent = true;
  source->Start();
  source->Start();
  ASSERT_TRUE(within10s([&] { return network.inExchange == 1; }));
  source.reset();
  EXPECT_EQ(network.inExchange, 0);
}

}  // namespace
}  // namespace orva::archive
