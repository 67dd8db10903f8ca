#include "orva_database/cache.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "support/archive_fixture.h"

namespace orva::cache {
namespace {

using Key = Cache::Key;

std::int64_t idOf(Cache& cache, const Key& key) {
  std::int64_t id = 0;
  cache.getPin(key, id);
  return id;
}

}  // namespace

TEST(CacheTest, UnknownKeyHasNoId) {
  Cache cache;
  EXPECT_EQ(cache.getCacheId({1, "Plant/Load"}), -1);
  EXPECT_EQ(Cache::ID_NOT_FOUND, -1);
  EXPECT_FALSE(cache.is_exist({1, "Plant/Load"}));
  EXPECT_FALSE(cache[-1]);
  EXPECT_FALSE(cache[1]);
}

TEST(CacheTest, FirstUseMakesAnItem) {
  Cache cache;
  std::int64_t id = 0;
  const auto pin = cache.getPin({1, "Plant/Load"}, id);
  ASSERT_TRUE(pin);
  EXPECT_NE(id, Cache::ID_NOT_FOUND);
  EXPECT_EQ(cache.getCacheId({1, "Plant/Load"}), id);
  EXPECT_TRUE(cache.is_exist({1, "Plant/Load"}));
  EXPECT_EQ(cache[id], pin);
}

TEST(CacheTest, SameKeyIsTheSameItem) {
  Cache cache;
  std::int64_t first = 0;
  std::int64_t second = 0;
  const auto pin = cache.getPin({1, "Plant/Load"}, first);
  EXPECT_EQ(cache.getPin({1, "Plant/Load"}, second), pin);
  EXPECT_EQ(first, second);
}

TEST(CacheTest, IdAndTextTogetherAreTheKey) {
  Cache cache;
  std::set<std::int64_t> ids;
  for (const Key& key : {Key{1, ""}, Key{1, "a"}, Key{2, ""}, Key{2, "a"}, Key{-1, ""},
                         Key{1LL << 32, ""}, Key{1, "a/b"}}) {
    ids.insert(idOf(cache, key));
  }
  EXPECT_EQ(ids.size(), 7U);
}

TEST(CacheTest, LookingUpMakesNothing) {
  Cache cache;
  cache.getCacheId({1, "a"});
  cache.is_exist({1, "a"});
  EXPECT_FALSE(cache.is_exist({1, "a"}));
}

// They are stored in clients' configurations, so a change of the hash would break those.
TEST(CacheTest, IdsFollowFromTheKeyAlone) {
  Cache one;
  Cache other;
  idOf(other, {5, "first"});
  EXPECT_EQ(idOf(one, {1, "Plant/Load"}), idOf(other, {1, "Plant/Load"}));
  EXPECT_EQ(idOf(one, {0, ""}), 2041195052);
  EXPECT_EQ(idOf(one, {1, "Plant/Load"}), 1848513592);
  EXPECT_EQ(idOf(one, {-1, "\xC3\xA9"}), 1334430492);
}

TEST(CacheTest, ClearStopsEveryItemAndForgetsIt) {
  Cache cache;
  std::int64_t first = 0;
  std::int64_t second = 0;
  const auto a = cache.getPin({1, "a"}, first);
  const auto b = cache.getPin({2, "b"}, second);
  cache.clear();
  EXPECT_TRUE(a->stopped());
  EXPECT_TRUE(b->stopped());
  EXPECT_FALSE(cache[first]);
  EXPECT_FALSE(cache.is_exist({1, "a"}));
  EXPECT_EQ(cache.getCacheId({2, "b"}), -1);
}

TEST(CacheTest, ItemAfterAClearIsANewOneWithTheSameId) {
  Cache cache;
  std::int64_t before = 0;
  std::int64_t after = 0;
  const auto old = cache.getPin({1, "a"}, before);
  cache.clear();
  const auto pin = cache.getPin({1, "a"}, after);
  EXPECT_NE(pin, old);
  EXPECT_FALSE(pin->stopped());
  EXPECT_EQ(after, before);
}

TEST(CacheTest, IdsOfAHundredThousandKeysAreUniqueInRangeAndKeptThroughAClear) {
  constexpr int kKeys = 100'000;
  Cache cache;
  std::vector<std::int64_t> ids;
  for (int i = 0; i < kKeys; ++i) ids.push_back(idOf(cache, {i, "Plant/" + std::to_string(i % 7)}));
  EXPECT_EQ(std::set<std::int64_t>(ids.begin(), ids.end()).size(), ids.size());
  EXPECT_GE(*std::min_element(ids.begin(), ids.end()), 1);
  EXPECT_LE(*std::max_element(ids.begin(), ids.end()), 0x7FFFFFFF);
  cache.clear();
  int changed = 0;
  for (int i = kKeys - 1; i >= 0; --i) {
    changed +=
        idOf(cache, {i, "Plant/" + std::to_string(i % 7)}) != ids[static_cast<std::size_t>(i)];
  }
  EXPECT_EQ(changed, 0);
}

// Where two keys share a hash, the one that came first has it for good.
TEST(CacheTest, KeysThatShareAHashGetNeighbouringIdsAndKeepThem) {
  constexpr std::int64_t kShared = 1078639115;
  const Key first(1, "Line/Tank684/Mixer");
  const Key second(1, "Line/Boiler673/Tank");
  Cache cache;
  EXPECT_EQ(idOf(cache, first), kShared);
  EXPECT_EQ(idOf(cache, second), kShared + 1);
  cache.clear();
  EXPECT_EQ(idOf(cache, second), kShared + 1) << "asked first this time";
  EXPECT_EQ(idOf(cache, first), kShared);
  Cache other;
  EXPECT_EQ(idOf(other, second), kShared);
}

TEST(CacheTest, ThreadsThatAskForOneKeyGetOneItem) {
  Cache cache;
  std::vector<boost::shared_ptr<CachedItem>> pins(4);
  std::vector<std::thread> threads;
  for (auto& pin : pins) {
    threads.emplace_back([&cache, &pin] {
      std::int64_t id = 0;
      for (int i = 0; i < 200; ++i) cache.getPin({i, "a"}, id);
      pin = cache.getPin({1, "a"}, id);
    });
  }
  for (std::thread& thread : threads) thread.join();
  for (const auto& pin : pins) EXPECT_EQ(pin, pins[0]);
}

}  // namespace orva::cache
