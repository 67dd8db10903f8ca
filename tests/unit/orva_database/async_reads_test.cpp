#include "orva_database/async_reads.h"

#include <gtest/gtest.h>

#include <boost/make_shared.hpp>
#include <boost/smart_ptr/weak_ptr.hpp>

namespace orva {
namespace {

using archive::Request;
using archive::SharedItem;

constexpr std::int64_t kNow = 133'604'064'000'000'000;
constexpr std::int64_t kSecond = kTicksPerSecond;
constexpr std::int64_t kMinute = kTicksPerMinute;

struct AsyncReadsTest : testing::Test {
  // Enters a read of one item; the item.
  SharedItem put(std::int64_t subscriptionId, std::int64_t now, std::int64_t requestId = 1) {
    const auto request = boost::make_shared<Request>();
    const SharedItem item = request->addItem(7);
    reads.put(subscriptionId, requestId, request, now);
    return item;
  }
  bool has(std::int64_t subscriptionId) { return reads.find(subscriptionId) != nullptr; }

  AsyncReads reads;
};

TEST_F(AsyncReadsTest, FindsTheReadOfASubscription) {
  EXPECT_FALSE(has(3));
  put(3, kNow, 8);
  put(4, kNow, 9);
  ASSERT_TRUE(has(3));
  EXPECT_EQ(reads.find(3)->requestId, 8);
  EXPECT_EQ(reads.find(3)->since, kNow);
  EXPECT_EQ(reads.find(4)->requestId, 9);
}

TEST_F(AsyncReadsTest, ALaterReadOfASubscriptionReplacesTheEarlierWhole) {
  const SharedItem earlier = put(3, kNow, 1);
  const SharedItem later = put(3, kNow + 5, 2);
  EXPECT_EQ(reads.size(), 1U);
  EXPECT_EQ(reads.find(3)->requestId, 2);
  EXPECT_EQ(reads.find(3)->since, kNow + 5);
  EXPECT_EQ(reads.find(3)->request->items().front(), later);
  EXPECT_TRUE(earlier->closed());
  EXPECT_FALSE(later->closed());
}

TEST_F(AsyncReadsTest, WhatIsDroppedIsClosedAndFreed) {
  const boost::weak_ptr<archive::Request::Item> item = put(3, kNow);
  const boost::weak_ptr<Request> request = reads.find(3)->request;
  const SharedItem kept = item.lock();
  reads.drop(3);
  EXPECT_FALSE(has(3));
  EXPECT_TRUE(kept->closed());
  EXPECT_TRUE(request.expired());
  reads.drop(3);  // nothing happens
}

TEST_F(AsyncReadsTest, ReadsKeptForMoreThanTenMinutesGoWhenAnotherComes) {
  const SharedItem first = put(1, kNow);
  put(2, kNow + 1);
  put(3, kNow + 10 * kMinute);
  EXPECT_TRUE(has(1));
  put(3, kNow + 10 * kMinute + 1);
  EXPECT_FALSE(has(1));
  EXPECT_TRUE(first->closed());
  EXPECT_TRUE(has(2));
  EXPECT_TRUE(has(3));
}

TEST_F(AsyncReadsTest, OfTooManyTheOldestGoes) {
  for (int i = 0; i < 256; ++i) put(1000 - i, kNow + i);
  EXPECT_EQ(reads.size(), 256U);
  put(1000, kNow + 300);  // the first subscription asks again, and is the youngest then
  put(1, kNow + 301);
  EXPECT_EQ(reads.size(), 256U);
  EXPECT_TRUE(has(1000));
  EXPECT_FALSE(has(999));
  EXPECT_TRUE(has(998));
  EXPECT_TRUE(has(1));
}

TEST_F(AsyncReadsTest, TheOldestIsTheOneEnteredFirstWhateverTheClockSays) {
  put(1, kNow);
  for (int i = 2; i <= 257; ++i) put(i, kNow - 3600 * kSecond);
  EXPECT_FALSE(has(1));
  EXPECT_TRUE(has(2));
  EXPECT_TRUE(has(257));
}

TEST_F(AsyncReadsTest, AReadHasSixtySecondsToComplete) {
  put(1, kNow);
  EXPECT_FALSE(AsyncReads::overdue(*reads.find(1), kNow + 60 * kSecond - 1));
  EXPECT_TRUE(AsyncReads::overdue(*reads.find(1), kNow + 60 * kSecond));
}

TEST_F(AsyncReadsTest, TheSixtySecondsBeginAnewWhenTheClockIsSetBack) {
  const std::int64_t earlier = kNow - 3600 * kSecond;
  put(1, kNow);
  EXPECT_FALSE(AsyncReads::overdue(*reads.find(1), earlier));
  EXPECT_FALSE(AsyncReads::overdue(*reads.find(1), earlier + 60 * kSecond - 1));
  EXPECT_TRUE(AsyncReads::overdue(*reads.find(1), earlier + 60 * kSecond));
}

TEST_F(AsyncReadsTest, TheTenMinutesBeginAnewWhenTheClockIsSetBack) {
  const std::int64_t earlier = kNow - 3600 * kSecond;
  put(1, kNow);
  put(2, earlier);
  put(3, earlier + 10 * kMinute);
  EXPECT_TRUE(has(1));
  put(3, earlier + 10 * kMinute + 1);
  EXPECT_FALSE(has(1));
  EXPECT_FALSE(has(2));
}

}  // namespace
}  // namespace orva
