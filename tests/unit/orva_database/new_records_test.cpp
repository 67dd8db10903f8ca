#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "share/archive_manager.h"
#include "support/history_service.h"

namespace orva {
namespace {

using archive::DataArchiveManager;
using test::HistoryService;
using test::kSecond;
using test::kT0;
using test::number;
using test::Reply;
using test::Script;
using test::steps;
using test::When;
using test::word;

const archive::ItemKey kLoad{7, "Plant/Load"};

std::string element(const std::string& path, std::int64_t randId, std::int64_t point) {
  return "{\"path\":\"" + path + "\",\"randID\":" + std::to_string(randId) +
         ",\"continuationPoint\":" + std::to_string(point) + "}";
}

std::string bodyOf(const std::string& elements) {
  return "{\"reqID\":1,\"items\":[" + elements + "]}";
}

struct ReadNewRecordsTest : testing::Test {
  Reply read(const std::string& elements) {
    return service.call("ReadNewRecords", bodyOf(elements));
  }
  Reply readLoad(std::int64_t point) { return read(element("Plant/Load", 5, point)); }

  // Samples at the archive alone.
  void archived(const std::vector<PinPtr>& pins) {
    service.addItem(kLoad.first, kLoad.second);
    service.archive().add(kLoad, 0, pins);
  }

  // Reads page by page until there is no more, and returns all values with the number of pages.
  std::pair<std::vector<double>, int> readAll(int capacity = 0) {
    std::vector<double> values;
    std::int64_t point = 0;
    int pages = 0;
    for (bool more = true; more && pages < 20'000; ++pages) {
      const std::string body = bodyOf(element("Plant/Load", 5, point));
      const Reply reply = capacity == 0 ? service.call("ReadNewRecords", body)
                                        : service.callBuffer("ReadNewRecords", body, capacity);
      EXPECT_EQ(reply.status, 0U) << reply.text;
      const json::Value& item = reply.item("items", 0);
      if (!item.IsObject()) break;
      for (const json::Value& sample : item["values"].GetArray()) {
        values.push_back(sample[1].GetDouble());
      }
      more = item["areMoreValues"].GetBool();
      point = item["continuationPoint"].GetInt64();
    }
    return {values, pages};
  }

  HistoryService service;
};

std::vector<double> upTo(int count) {
  std::vector<double> values;
  for (int i = 0; i < count; ++i) values.push_back(i);
  return values;
}

TEST_F(ReadNewRecordsTest, GivesWhatCameSinceThePoint) {
  archived(steps(kT0, 4));
  const Reply reply = readLoad(kT0 + 2 * kSecond);
  EXPECT_EQ(reply.status, 0U);
  EXPECT_EQ(reply.text,
            "{\"items\":[{\"randID\":5,\"values\":[[1715932802000,2.0,0],[1715932803000,3.0,0]],"
            "\"areMoreValues\":false,\"continuationPoint\":" +
                std::to_string(kT0 + 3 * kSecond + 1) + "}],\"code\":0}");
}

TEST_F(ReadNewRecordsTest, APointOfZeroOrNoneIsTheBeginning) {
  archived(steps(kT0, 4));
  EXPECT_EQ(readLoad(0).item("items", 0)["values"].Size(), 4U);
  for (const std::string point : {"", ",\"continuationPoint\":1.5", ",\"continuationPoint\":null",
                                  ",\"continuationPoint\":\"0\""}) {
    const Reply reply = read("{\"path\":\"Plant/Load\"" + point + "}");
    EXPECT_EQ(reply.item("items", 0)["values"].Size(), 4U) << point;
    EXPECT_EQ(reply.item("items", 0)["randID"].GetInt64(), 0);
  }
}

TEST_F(ReadNewRecordsTest, NumbersMayBeDecimalText) {
  archived(steps(kT0, 4));
  const Reply reply =
      read("{\"path\":\"Plant/Load\",\"randID\":\"-9223372036854775808\"," +
           ("\"continuationPoint\":\"" + std::to_string(kT0 + 3 * kSecond)) + "\"}");
  EXPECT_EQ(reply.item("items", 0)["randID"].GetInt64(), std::numeric_limits<std::int64_t>::min());
  EXPECT_EQ(reply.item("items", 0)["values"].Size(), 1U);
}

TEST_F(ReadNewRecordsTest, NothingNewKeepsThePoint) {
  archived(steps(kT0, 4));
  const std::int64_t point = kT0 + 50 * kSecond;
  const Reply reply = readLoad(point);
  const json::Value& item = reply.item("items", 0);
  EXPECT_TRUE(item["values"].Empty());
  EXPECT_FALSE(item["areMoreValues"].GetBool());
  EXPECT_EQ(item["continuationPoint"].GetInt64(), point);
}

TEST_F(ReadNewRecordsTest, WithoutAnArrayOfItemsIsABadRequest) {
  for (const char* body : {"{}", "{\"items\":null}", "{\"items\":{}}", "{\"items\":5}", "[]", "7",
                           "{\"items\":\"x\"}", "{\"items\":true}"}) {
    service.traces.clear();
    const Reply reply = service.call("ReadNewRecords", body);
    EXPECT_EQ(reply.status, 0x80B60000U) << body;
    EXPECT_EQ(reply.text, "{\"code\":2159411200}") << body;
    EXPECT_EQ(service.traces.count(
                  "<-- ReturnError: !items.IsArray() evaluated to true! Returning 0x80B60000\n"),
              1);
    EXPECT_EQ(service.traces.lines().back().level, 0x10U);
  }
}

TEST_F(ReadNewRecordsTest, NoElementsAreAnsweredAtOnce) {
  const long long before = service.clock.now();
  EXPECT_EQ(service.call("ReadNewRecords", "{\"items\":[]}").text, "{\"items\":[],\"code\":0}");
  EXPECT_EQ(service.clock.now(), before);
}

TEST_F(ReadNewRecordsTest, TheRequestIdIsNotEchoed) {
  archived(steps(kT0, 1));
  for (const char* id : {"5", "\"77\"", "1.5", "null", "{}"}) {
    const Reply reply =
        service.call("ReadNewRecords", std::string("{\"reqID\":") + id + ",\"items\":[]}");
    EXPECT_EQ(reply.text, "{\"items\":[],\"code\":0}") << id;
  }
}

TEST_F(ReadNewRecordsTest, AnElementThatDoesNotResolveKeepsItsPlaceAndItsPoint) {
  archived(steps(kT0, 2));
  const Reply reply = read(element("Nowhere", 1, 77) + "," + element("Plant/Load", 2, 0) +
                           ",{\"randID\":3},{\"path\":5},null," + element("", 6, 0));
  EXPECT_EQ(reply.status, 0U);
  ASSERT_EQ(reply.body["items"].Size(), 6U);
  EXPECT_EQ(reply.text.find("{\"items\":[{\"randID\":1,\"statusCode\":-2143420416,\"values\":[],"
                            "\"areMoreValues\":false,\"continuationPoint\":77},{\"randID\":2,"),
            0U)
      << reply.text;
  for (const unsigned i : {0U, 2U, 3U, 4U, 5U}) {
    const json::Value& item = reply.item("items", i);
    EXPECT_EQ(item["statusCode"].GetInt(), static_cast<std::int32_t>(0x803E0000)) << i;
    EXPECT_TRUE(item["values"].Empty());
  }
  EXPECT_FALSE(reply.item("items", 1).HasMember("statusCode"));
  EXPECT_EQ(reply.item("items", 1)["values"].Size(), 2U);
}

TEST_F(ReadNewRecordsTest, AVariableNotUsedBeforeIsTakenIntoTheCache) {
  service.addVariable(7, "Plant/Load");
  service.archive().add(kLoad, 0, steps(kT0, 3));
  EXPECT_EQ(readLoad(0).item("items", 0)["values"].Size(), 3U);
  EXPECT_NE(DataArchiveManager::instance().getCacheId(kLoad), -1);
}

TEST_F(ReadNewRecordsTest, MadeUpPathsMakeNoItems) {
  std::string elements = element("a", 1, 0);
  for (int i = 0; i < 500; ++i) elements += "," + element("made up " + std::to_string(i), 1, 0);
  read(elements);
  EXPECT_TRUE(DataArchiveManager::instance().cachedItems().empty());
}

TEST_F(ReadNewRecordsTest, AsksForRawValuesFromThePointOnWithoutBounds) {
  archived(steps(kT0, 3));
  readLoad(kT0 + kSecond);
  ASSERT_EQ(service.archive().readCount(), 1U);
  const test::ReadRecord record = service.archive().reads()[0];
  EXPECT_EQ(record.layer, 0);
  EXPECT_EQ(record.start, kT0 + kSecond);
  EXPECT_EQ(record.end, 0);
  EXPECT_EQ(record.wanted, 10'001U);
  EXPECT_FALSE(record.bounds.left);
  EXPECT_FALSE(record.bounds.right);
}

TEST_F(ReadNewRecordsTest, TenThousandValuesAreSharedByTheElements) {
  archived(steps(kT0, 3));
  std::string three = element("Plant/Load", 1, 0);
  three += "," + element("Nowhere", 1, 0) + "," + element("Nowhere", 1, 0);
  read(three);
  EXPECT_EQ(service.archive().reads().back().wanted, 3'334U);

  std::string many = element("Plant/Load", 1, 0);
  for (int i = 0; i < 10'000; ++i) many += ",{}";
  const Reply reply = read(many);
  EXPECT_EQ(service.archive().reads().back().wanted, 2U);
  EXPECT_EQ(reply.item("items", 0)["values"].Size(), 1U);
  EXPECT_TRUE(reply.item("items", 0)["areMoreValues"].GetBool());
}

TEST_F(ReadNewRecordsTest, AFailedItemGivesNoValuesAndThePointItWasGiven) {
  archived(steps(kT0, 3));
  Script failing;
  failing.fail = 0x80350000;
  service.archive().setScript(failing);
  for (const std::int64_t point : {std::int64_t{0}, kT0 + kSecond}) {
    const Reply reply = readLoad(point);
    const json::Value& item = reply.item("items", 0);
    EXPECT_EQ(item["statusCode"].GetInt(), static_cast<std::int32_t>(0x80350000));
    EXPECT_TRUE(item["values"].Empty());
    EXPECT_FALSE(item["areMoreValues"].GetBool());
    EXPECT_EQ(item["continuationPoint"].GetInt64(), point);
  }
}

TEST_F(ReadNewRecordsTest, AnItemCutOffByTheTimeOutGivesNoValuesAndThePointItWasGiven) {
  archived(steps(kT0, 3));
  Script silent;
  silent.silent = true;  // pushes, but never says that it is done
  service.archive().setScript(silent);
  const Reply reply = readLoad(kT0);
  const json::Value& item = reply.item("items", 0);
  EXPECT_EQ(item["statusCode"].GetInt(), -2146828288);
  EXPECT_TRUE(item["values"].Empty());
  EXPECT_EQ(item["continuationPoint"].GetInt64(), kT0);
}

TEST_F(ReadNewRecordsTest, ACutPageGivesItsLastTimeBackAndContinuesThere) {
  archived(steps(kT0, 10'005));
  const Reply reply = readLoad(0);
  const json::Value& item = reply.item("items", 0);
  EXPECT_EQ(item["values"].Size(), 9'999U);
  EXPECT_TRUE(item["areMoreValues"].GetBool());
  EXPECT_EQ(item["continuationPoint"].GetInt64(), kT0 + 9'999 * kSecond);
  EXPECT_EQ(readAll().first, upTo(10'005));
}

TEST_F(ReadNewRecordsTest, EqualTimesThatALimitCutsThroughAreNotLost) {
  std::vector<PinPtr> pins = steps(kT0, 9'998);
  for (int i = 0; i < 5; ++i) pins.push_back(number(kT0 + 20'000 * kSecond, 9'998 + i));
  archived(pins);
  const Reply reply = readLoad(0);
  EXPECT_EQ(reply.item("items", 0)["values"].Size(), 9'998U);
  EXPECT_EQ(reply.item("items", 0)["continuationPoint"].GetInt64(), kT0 + 20'000 * kSecond);
  EXPECT_EQ(readAll().first, upTo(10'003));
}

TEST_F(ReadNewRecordsTest, APageOfOneTimeAloneIsKeptAndGoesOnBehindIt) {
  std::vector<PinPtr> pins;
  for (int i = 0; i < 10'005; ++i) pins.push_back(number(kT0, i));
  pins.push_back(number(kT0 + 1, 10'005));
  archived(pins);
  const Reply reply = readLoad(0);
  const json::Value& item = reply.item("items", 0);
  EXPECT_EQ(item["values"].Size(), 10'000U);
  EXPECT_TRUE(item["areMoreValues"].GetBool());
  EXPECT_EQ(item["continuationPoint"].GetInt64(), kT0 + 1);
}

TEST_F(ReadNewRecordsTest, AWholePageContinuesBehindItsNewestValue) {
  archived(steps(kT0, 10'000));
  const Reply reply = readLoad(0);
  const json::Value& item = reply.item("items", 0);
  EXPECT_EQ(item["values"].Size(), 10'000U);
  EXPECT_FALSE(item["areMoreValues"].GetBool());
  EXPECT_EQ(item["continuationPoint"].GetInt64(), kT0 + 9'999 * kSecond + 1);
}

TEST_F(ReadNewRecordsTest, TheLastTickThereIsIsNotPassed) {
  constexpr std::int64_t kEnd = std::numeric_limits<std::int64_t>::max();
  archived({number(kEnd, 1)});
  EXPECT_EQ(readLoad(0).item("items", 0)["continuationPoint"].GetInt64(), kEnd);
}

// ---- the budget

TEST_F(ReadNewRecordsTest, TenThousandSamplesArriveThroughASmallBufferPageByPage) {
  archived(steps(kT0, 10'000));
  const auto [values, pages] = readAll(1'400);
  EXPECT_EQ(values, upTo(10'000));
  EXPECT_GT(pages, 100);
  EXPECT_LT(pages, 1'000);
}

TEST_F(ReadNewRecordsTest, AnItemThatMeetsTheBudgetGoesOnBehindItsLastWrittenValue) {
  archived(steps(kT0, 100));
  const Reply reply =
      service.callBuffer("ReadNewRecords", bodyOf(element("Plant/Load", 5, 0)), 600);
  const json::Value& item = reply.item("items", 0);
  const unsigned count = item["values"].Size();
  ASSERT_GT(count, 0U);
  ASSERT_LT(count, 100U);
  EXPECT_TRUE(item["areMoreValues"].GetBool());
  EXPECT_EQ(item["continuationPoint"].GetInt64(), kT0 + (count - 1) * kSecond + 1);
}

TEST_F(ReadNewRecordsTest, EveryBudgetEitherHoldsTheReplyOrIsToldToBeTooSmall) {
  archived({number(kT0, 1), word(kT0 + 1, std::string(30, '\x01')), number(kT0 + 2, -1e-300)});
  int served = 0;
  for (int capacity = 1; capacity < 900; ++capacity) {
    const Reply reply =
        service.callBuffer("ReadNewRecords", bodyOf(element("Plant/Load", 5, 0)), capacity);
    if (reply.status == 0) {
      EXPECT_TRUE(reply.body.IsObject()) << capacity;
      ++served;
    } else {
      EXPECT_EQ(reply.status, 0x80080000U) << capacity;
      EXPECT_LT(capacity, 128) << "the rest of an item always has its room";
    }
  }
  EXPECT_GT(served, 700);
}

TEST_F(ReadNewRecordsTest, ATextTakesSixBytesACharacterOfTheBudget) {
  archived({number(kT0, 1), word(kT0 + 1, std::string(100, 'x'))});
  // Opening 33, first sample 21, then 600 + 64 for the text and 128 to close the item.
  const auto samples = [&](int capacity) {
    return service.callBuffer("ReadNewRecords", bodyOf(element("Plant/Load", 5, 0)), capacity)
        .item("items", 0)["values"]
        .Size();
  };
  const std::string opening = "{\"items\":[{\"randID\":5,\"values\":[[1715932800000,1.0,0]";
  const int enough = static_cast<int>(opening.size()) + 600 + 64 + 128;
  EXPECT_EQ(samples(enough), 2U);
  EXPECT_EQ(samples(enough - 1), 1U);
}

TEST_F(ReadNewRecordsTest, WithoutRoomForASampleThePointStaysTheOneItWasGiven) {
  archived({word(kT0, std::string(1'000, 'x'))});
  const Reply reply =
      service.callBuffer("ReadNewRecords", bodyOf(element("Plant/Load", 5, 77)), 500);
  const json::Value& item = reply.item("items", 0);
  EXPECT_TRUE(item["values"].Empty());
  EXPECT_TRUE(item["areMoreValues"].GetBool());
  EXPECT_EQ(item["continuationPoint"].GetInt64(), 77);
}

TEST_F(ReadNewRecordsTest, LaterItemsKeepTheRoomToBeClosed) {
  archived(steps(kT0, 1'000));
  std::string elements = element("Plant/Load", 0, 0);
  for (int i = 1; i < 20; ++i) elements += "," + element("Plant/Load", i, 0);
  const Reply reply = service.callBuffer("ReadNewRecords", bodyOf(elements), 4'000);
  EXPECT_EQ(reply.status, 0U);
  ASSERT_EQ(json::member(reply.body, "items").Size(), 20U);
  for (unsigned i = 0; i < 20; ++i) {
    EXPECT_EQ(reply.item("items", i)["randID"].GetInt64(), i);
    EXPECT_TRUE(reply.item("items", i)["areMoreValues"].GetBool());
  }
}

TEST_F(ReadNewRecordsTest, ABudgetCutsThroughTheFirstTimeWhichMightNeverFit) {
  std::vector<PinPtr> pins;
  for (int i = 0; i < 100; ++i) pins.push_back(number(kT0, i));
  archived(pins);
  const Reply reply =
      service.callBuffer("ReadNewRecords", bodyOf(element("Plant/Load", 5, 0)), 600);
  const json::Value& item = reply.item("items", 0);
  EXPECT_GT(item["values"].Size(), 10U);
  EXPECT_TRUE(item["areMoreValues"].GetBool());
  EXPECT_EQ(item["continuationPoint"].GetInt64(), kT0 + 1);
}

TEST_F(ReadNewRecordsTest, ABudgetDoesNotCutThroughEqualTimes) {
  std::vector<PinPtr> pins;
  for (int i = 0; i < 300; ++i) pins.push_back(number(kT0 + (i / 3) * kSecond, i));
  archived(pins);
  for (const int capacity : {450, 500, 550, 600, 650}) {
    const auto [values, pages] = readAll(capacity);
    EXPECT_EQ(values, upTo(300)) << capacity;
    EXPECT_GT(pages, 10);
  }
}

}  // namespace
}  // namespace orva
