#include "orva_host/query_text.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace orva::host {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;

QueryFields fieldsOf(const std::string& query) {
  QueryFields fields;
  EXPECT_TRUE(readQuery(query, fields)) << query;
  return fields;
}

TEST(QueryTextTest, NamesAndValuesComeInTheirOrder) {
  EXPECT_THAT(fieldsOf("item=a&from=1&item=b"),
              ElementsAre(Pair("item", "a"), Pair("from", "1"), Pair("item", "b")));
}

TEST(QueryTextTest, EscapesAreDecodedOnce) {
  EXPECT_THAT(fieldsOf("item=Plant%2fF%C3%BCll+stand%2521&x%3D=1"),
              ElementsAre(Pair("item", "Plant/Füll stand%21"), Pair("x=", "1")));
}

TEST(QueryTextTest, WhatIsMissingIsEmpty) {
  EXPECT_THAT(fieldsOf(""), IsEmpty());
  EXPECT_THAT(fieldsOf("&&"), IsEmpty());
  EXPECT_THAT(fieldsOf("a&b=&=c&d=e=f"),
              ElementsAre(Pair("a", ""), Pair("b", ""), Pair("", "c"), Pair("d", "e=f")));
}

TEST(QueryTextTest, AnEscapeThatIsNoneIsAnError) {
  QueryFields fields;
  for (const char* query : {"%", "%2", "a=%2", "a=%zz", "a=%2x", "a=1&b=%", "%4"}) {
    EXPECT_FALSE(readQuery(query, fields)) << query;
  }
}

}  // namespace
}  // namespace orva::host
