#include "share/lock_order.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>

#include "share/mutex.h"

namespace orva {
namespace {

// Breaches are noted instead of ending the process.
class LockOrderTest : public ::testing::Test {
 protected:
  LockOrderTest() {
    found().clear();
    lock_order::failure = [](const char* text) { found() += std::string(text) + ";"; };
  }
  ~LockOrderTest() override { lock_order::failure = &lock_order::endProcess; }

  static std::string& found() {
    static std::string text;
    return text;
  }
  static void take(const void* mutex, LockClass lockClass) {
    lock_order::acquiring(mutex, lockClass);
    lock_order::acquired(mutex, lockClass);
  }
  // Whether `wanted` may be taken under `held`.
  static bool allowed(LockClass held, LockClass wanted) {
    const int mutexes[2] = {};
    found().clear();
    take(&mutexes[0], held);
    take(&mutexes[1], wanted);
    lock_order::released(&mutexes[1]);
    lock_order::released(&mutexes[0]);
    return found().empty();
  }
};

TEST_F(LockOrderTest, LocksAreTakenDownwards) {
  EXPECT_TRUE(allowed(LockClass::kArchives, LockClass::kCachedItem));
  EXPECT_TRUE(allowed(LockClass::kCachedItem, LockClass::kLeaf));
  EXPECT_TRUE(allowed(LockClass::kLeaf, LockClass::kTrace));
}

TEST_F(LockOrderTest, AnInversionIsFoundThoughNobodyBlocksAnybody) {
  EXPECT_FALSE(allowed(LockClass::kCachedItem, LockClass::kArchives));
  EXPECT_EQ(found(),
            "\"archives\" is taken while \"cached item\" is held, against the order of locks;");
}

TEST_F(LockOrderTest, ABreachEndsTheProcess) {
  EXPECT_DEATH(
      {
        lock_order::failure = &lock_order::endProcess;
        allowed(LockClass::kCachedItem, LockClass::kArchives);
      },
      "lock order: \"archives\" is taken while \"cached item\" is held");
}

TEST_F(LockOrderTest, UnderALeafNothingIsTakenButForATrace) {
  EXPECT_FALSE(allowed(LockClass::kLeaf, LockClass::kLeaf));
  EXPECT_FALSE(allowed(LockClass::kLeaf, LockClass::kCachedItem));
  EXPECT_FALSE(allowed(LockClass::kLeaf, LockClass::kEventsManager));
}

TEST_F(LockOrderTest, TwoOfOneClassAreNotTakenTogether) {
  EXPECT_FALSE(allowed(LockClass::kCachedItem, LockClass::kCachedItem));
}

TEST_F(LockOrderTest, TheRemoteTablesAreAboveLeavesAlone) {
  EXPECT_TRUE(allowed(LockClass::kRemoteTables, LockClass::kLeaf));
  EXPECT_FALSE(allowed(LockClass::kRemoteTables, LockClass::kArchives));
}

TEST_F(LockOrderTest, AnAddinCallsWhatItLikesUnderItsSection) {
  EXPECT_TRUE(allowed(LockClass::kSection, LockClass::kConfiguration));
  EXPECT_TRUE(allowed(LockClass::kSection, LockClass::kLeaf));
  EXPECT_FALSE(allowed(LockClass::kLeaf, LockClass::kSection));
}

// Each of the threads alone does nothing wrong.
TEST_F(LockOrderTest, ACircleOfLocksWithoutAnOrderIsFound) {
  std::thread([] { EXPECT_TRUE(allowed(LockClass::kTestFirst, LockClass::kTestSecond)); }).join();
  std::thread([] { EXPECT_FALSE(allowed(LockClass::kTestSecond, LockClass::kTestFirst)); }).join();
  EXPECT_EQ(found(),
            "\"first of test\" is taken while \"second of test\" is held, which closes a circle;");
}

TEST_F(LockOrderTest, AMutexIsNotTakenTwice) {
  const int mutex = 0;
  take(&mutex, LockClass::kQueue);
  lock_order::acquiring(&mutex, LockClass::kQueue);
  lock_order::released(&mutex);
  EXPECT_EQ(found(), "\"queue\" is taken while \"queue\" is held, and is the same;");
}

TEST_F(LockOrderTest, AWaitTakesItsMutexUnderAllOthers) {
  const int mutexes[2] = {};
  take(&mutexes[0], LockClass::kProvider);
  take(&mutexes[1], LockClass::kLeaf);
  lock_order::awaiting(&mutexes[1], LockClass::kLeaf);
  EXPECT_EQ(found(), "");
  lock_order::awaiting(&mutexes[0], LockClass::kProvider);
  EXPECT_EQ(found(), "\"provider\" is taken while \"leaf\" is held, against the order of locks;");
  lock_order::released(&mutexes[1]);
  lock_order::released(&mutexes[0]);
}

// A function of its own: the compiler's analysis does not see that the caller holds the first.
void takeBoth(RecursiveMutex& first, Mutex& second) {
  RecursiveMutexLock outer(first);
  MutexLock inner(second);
}

TEST_F(LockOrderTest, MutexesTellTheCheckInBuildsThatHaveIt) {
  Mutex item(LockClass::kCachedItem);
  RecursiveMutex archives(LockClass::kArchives);
  {
    RecursiveMutexLock outer(archives);
    takeBoth(archives, item);
  }
  EXPECT_EQ(found(), "");
  // Others of the same classes.
  Mutex otherItem(LockClass::kCachedItem);
  RecursiveMutex otherArchives(LockClass::kArchives);
  {
    MutexLock outer(otherItem);
    RecursiveMutexLock inner(otherArchives);
  }
#if defined(ORVA_LOCK_ORDER)
  EXPECT_NE(found(), "");
#else
  EXPECT_EQ(found(), "");
  EXPECT_EQ(sizeof(Mutex), sizeof(std::mutex));
  EXPECT_EQ(sizeof(RecursiveMutex), sizeof(std::recursive_mutex));
#endif
  // Nothing is left of what was held.
  found().clear();
  MutexLock lock(item);
  EXPECT_EQ(found(), "");
}

}  // namespace
}  // namespace orva
