#include "orva_host/history_query.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace orva::host {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

constexpr std::int64_t kNow = 1'700'000'000'000;

std::string read(const std::string& query, HistoryQuery& out, const std::string& accept = {}) {
  HttpRequest request;
  request.query = query;
  if (!accept.empty()) request.headers["accept"] = accept;
  return readHistoryQuery(request, kNow, out);
}

HistoryQuery good(const std::string& query, const std::string& accept = {}) {
  HistoryQuery out;
  EXPECT_EQ(read(query, out, accept), "") << query;
  return out;
}

std::string errorOf(const std::string& query) {
  HistoryQuery out;
  return read(query, out);
}

TEST(HistoryQueryTest, AnItemAloneIsItsLastHour) {
  const HistoryQuery query = good("item=Plant/Load");
  EXPECT_THAT(query.items, ElementsAre("Plant/Load"));
  EXPECT_EQ(query.fromMs, kNow - 3'600'000);
  EXPECT_EQ(query.toMs, kNow);
  EXPECT_TRUE(query.upToNow);
  EXPECT_EQ(query.points, 1000);
  EXPECT_FALSE(query.csv);
}

TEST(HistoryQueryTest, TimesAreMillisecondsOrDates) {
  const HistoryQuery query = good("item=a&from=1600000000000&to=2023-11-14T22:13:20Z");
  EXPECT_EQ(query.fromMs, 1'600'000'000'000);
  EXPECT_EQ(query.toMs, kNow);
  EXPECT_FALSE(query.upToNow);
  EXPECT_EQ(good("item=a&from=2023-11-14").fromMs, kNow - 80'000'000);
}

TEST(HistoryQueryTest, AnItemThatIsNamedTwiceIsReadOnce) {
  EXPECT_THAT(good("item=b&item=a&item=b").items, ElementsAre("b", "a"));
}

TEST(HistoryQueryTest, TheFormIsSaidOrFollowsTheHeader) {
  EXPECT_TRUE(good("item=a&format=csv").csv);
  EXPECT_TRUE(good("item=a", "text/csv, */*").csv);
  EXPECT_FALSE(good("item=a&format=json", "text/csv").csv);
}

TEST(HistoryQueryTest, WhatIsWrongIsNamed) {
  EXPECT_THAT(errorOf(""), HasSubstr("\"item\" is missing"));
  EXPECT_THAT(errorOf("item="), HasSubstr("\"item\" is empty"));
  EXPECT_THAT(errorOf("item=a&from=yesterday"), HasSubstr("\"from\" must be milliseconds"));
  EXPECT_THAT(errorOf("item=a&to=2023-02-30"), HasSubstr("\"to\" must be milliseconds"));
  EXPECT_THAT(errorOf("item=a&to=0"), HasSubstr("after 1970"));
  EXPECT_THAT(errorOf("item=a&to=9223372036854775807"), HasSubstr("\"to\""));
  EXPECT_THAT(errorOf("item=a&from=5&to=5"), HasSubstr("\"from\" must be before"));
  EXPECT_THAT(errorOf("item=a&points=2"), HasSubstr("from 3 to 100000"));
  EXPECT_THAT(errorOf("item=a&points=many"), HasSubstr("from 3 to 100000"));
  EXPECT_THAT(errorOf("item=a&points=5&points=6"), HasSubstr("twice"));
  EXPECT_THAT(errorOf("item=a&format=xml"), HasSubstr("json or csv"));
  EXPECT_THAT(errorOf("itme=a"), HasSubstr("\"itme\" is not known"));
  EXPECT_THAT(errorOf("item=%"), HasSubstr("hexadecimal"));
}

TEST(HistoryQueryTest, TheRowsOfAllItemsAreLimited) {
  std::string query = "points=100000";
  for (int i = 0; i < 5; ++i) query += "&item=" + std::to_string(i);
  EXPECT_EQ(errorOf(query), "");
  EXPECT_THAT(errorOf(query + "&item=5"), HasSubstr("500000"));
}

}  // namespace
}  // namespace orva::host
