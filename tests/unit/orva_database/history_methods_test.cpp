#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <limits>
#include <string>
#include <thread>
#include <vector>

#include "orva_database/cache.h"
#include "share/archive_manager.h"
#include "support/history_service.h"

namespace orva {
namespace {

using archive::DataArchiveManager;
using test::HistoryService;
using test::kMs0;
using test::kSecond;
using test::kT0;
using test::number;
using test::Reply;
using test::Script;
using test::steps;
using test::When;

std::string idBody(std::int64_t id, const std::string& parameters = "{}", std::int64_t point = 0) {
  return "{\"data\":[{\"archiveItemId\":" + std::to_string(id) +
         ",\"continuationPoint\":" + std::to_string(point) + "}],\"parameters\":" + parameters +
         "}";
}

// "startTime" and "endTime" from second a to second b after kT0.
std::string range(int a, int b, const std::string& more = "") {
  return "{\"startTime\":" + std::to_string(kMs0 + a * 1000LL) +
         ",\"endTime\":" + std::to_string(kMs0 + b * 1000LL) + more + "}";
}

std::vector<std::string> memberNames(const json::Value& object) {
  std::vector<std::string> names;
  for (const auto& member : object.GetObject()) names.emplace_back(member.name.GetString());
  return names;
}

using Names = std::vector<std::string>;

struct HistoryReadRawTest : testing::Test {
  Reply read(const std::string& body) { return service.call("HistoryReadRaw", body); }

  // Samples that the cache holds at seconds 0, 1, 2 ... of the item 7, "Plant/Load".
  std::int64_t cached(int count) {
    const std::int64_t id = service.addItem(7, "Plant/Load");
    service.write(id, steps(kT0, count));
    return id;
  }
  // The same, at the archive alone.
  std::int64_t archived(int count) {
    const std::int64_t id = service.addItem(7, "Plant/Load");
    service.archive().add({7, "Plant/Load"}, 0, steps(kT0, count));
    return id;
  }

  HistoryService service;
};

TEST_F(HistoryReadRawTest, GivesTheSamplesOfARange) {
  const std::int64_t id = cached(10);
  const Reply reply = read(idBody(id, range(2, 4)));
  EXPECT_EQ(reply.status, 0U);
  EXPECT_EQ(reply.text, "{\"data\":[{\"archiveItemId\":" + std::to_string(id) +
                            ",\"areMoreValues\":false,\"values\":[[1715932802000,2.0,0],"
                            "[1715932803000,3.0,0],[1715932804000,4.0,0]]}],\"code\":0}");
  EXPECT_EQ(service.archive().readCount(), 0U);
}

TEST_F(HistoryReadRawTest, FetchesFromTheArchiveWhatTheCacheLacks) {
  const std::int64_t id = archived(5);
  const Reply reply = read(idBody(id, range(1, 3)));
  EXPECT_EQ(reply.item("data", 0)["values"].Size(), 3U);
  EXPECT_EQ(service.archive().readCount(), 1U);
}

TEST_F(HistoryReadRawTest, AnswersEachItemInTheOrderOfTheRequest) {
  const std::int64_t id = cached(3);
  const Reply reply =
      read("{\"data\":[{\"archiveItemId\":5},{\"archiveItemId\":" + std::to_string(id) +
           "},{\"archiveItemId\":\"" + std::to_string(id) + "\"}],\"parameters\":{}}");
  EXPECT_EQ(reply.status, 0U);
  EXPECT_EQ(reply.item("data", 0)["archiveItemId"].GetInt64(), 5);
  EXPECT_EQ(reply.item("data", 1)["archiveItemId"].GetInt64(), id);
  EXPECT_EQ(reply.item("data", 2)["archiveItemId"].GetInt64(), id);
  EXPECT_EQ(reply.item("data", 2)["values"].Size(), 3U);
}

TEST_F(HistoryReadRawTest, WithoutADataArrayIsAnsweredInvalid) {
  for (const char* body : {"{}", "{\"data\":{}}", "{\"data\":null}", "[]", "5", "null"}) {
    service.traces.clear();
    const Reply reply = read(body);
    EXPECT_EQ(reply.status, 0x805A0000U) << body;
    EXPECT_EQ(reply.text, "{\"code\":2153381888}");
    EXPECT_EQ(
        service.traces.count("<-- ReturnError: !req evaluated to true! Returning 0x805A0000\n"), 1);
    EXPECT_EQ(service.traces.lines().back().level, 0x10U);
  }
}

TEST_F(HistoryReadRawTest, WithoutItemsIsAnsweredAtOnce) {
  const long long before = service.clock.now();
  const Reply reply = read("{\"data\":[]}");
  EXPECT_EQ(reply.text, "{\"data\":[],\"code\":0}");
  EXPECT_EQ(service.clock.now(), before);
}

TEST_F(HistoryReadRawTest, AnUnknownItemIsNotFoundAndTheOthersAreServed) {
  const std::int64_t id = cached(2);
  const Reply reply =
      read("{\"data\":[{\"archiveItemId\":999},{\"archiveItemId\":" + std::to_string(id) + "}]}");
  EXPECT_EQ(reply.status, 0U);
  const json::Value& missing = reply.item("data", 0);
  EXPECT_EQ(memberNames(missing),
            (Names{"archiveItemId", "statusCode", "areMoreValues", "values"}));
  EXPECT_EQ(missing["statusCode"].GetInt(), static_cast<std::int32_t>(0x803E0000));
  EXPECT_FALSE(missing["areMoreValues"].GetBool());
  EXPECT_TRUE(missing["values"].Empty());
  EXPECT_EQ(memberNames(reply.item("data", 1)),
            (Names{"archiveItemId", "areMoreValues", "values"}));
  EXPECT_EQ(reply.item("data", 1)["values"].Size(), 2U);
}

TEST_F(HistoryReadRawTest, AnArchiveThatDoesNotHoldTheItemIsGoodWithoutValues) {
  const std::int64_t id = archived(2);
  service.archive().setHolds(false);
  const Reply reply = read(idBody(id));
  EXPECT_EQ(memberNames(reply.item("data", 0)),
            (Names{"archiveItemId", "areMoreValues", "values"}));
  EXPECT_TRUE(reply.item("data", 0)["values"].Empty());
}

TEST_F(HistoryReadRawTest, AnItemThatWasForgottenIsNotFound) {
  const std::int64_t id = service.addItem(7, "Plant/Load");
  DataArchiveManager::instance().clear();  // the id is known to nobody any more
  const Reply reply = read(idBody(id));
  EXPECT_EQ(reply.item("data", 0)["statusCode"].GetInt(), static_cast<std::int32_t>(0x803E0000));
}

TEST_F(HistoryReadRawTest, AFailureOfTheArchiveIsTheStatusOfTheItem) {
  const std::int64_t id = archived(5);
  Script script;
  script.fail = 0x80350000;
  service.archive().setScript(script);
  const Reply reply = read(idBody(id));
  EXPECT_EQ(reply.status, 0U);
  EXPECT_EQ(memberNames(reply.item("data", 0)),
            (Names{"archiveItemId", "statusCode", "areMoreValues", "values"}));
  EXPECT_EQ(reply.item("data", 0)["statusCode"].GetInt(), static_cast<std::int32_t>(0x80350000));
  EXPECT_EQ(reply.item("data", 0)["values"].Size(), 5U);
}

TEST_F(HistoryReadRawTest, APageCutByItsLimitSaysWhereItGoesOn) {
  const std::int64_t id = cached(10);
  const Reply reply = read(idBody(id, range(0, 9, ",\"numValuesPerNode\":3")));
  const json::Value& item = reply.item("data", 0);
  EXPECT_EQ(memberNames(item),
            (Names{"archiveItemId", "areMoreValues", "continuationPoint", "values"}));
  EXPECT_TRUE(item["areMoreValues"].GetBool());
  EXPECT_EQ(item["continuationPoint"].GetInt64(), kT0 + 2 * kSecond + 1);
  EXPECT_EQ(item["values"].Size(), 3U);
}

TEST_F(HistoryReadRawTest, PagesJoinedAreTheOneBigRead) {
  const std::int64_t id = archived(250);
  for (const int limit : {100, 50, 7, 1}) {
    std::vector<double> values;
    std::int64_t point = 0;
    bool more = true;
    for (int page = 0; more && page < 300; ++page) {
      const Reply reply =
          read(idBody(id, range(0, 249, ",\"numValuesPerNode\":" + std::to_string(limit)), point));
      const json::Value& item = reply.item("data", 0);
      for (const json::Value& sample : item["values"].GetArray()) {
        values.push_back(sample[1].GetDouble());
      }
      more = item["areMoreValues"].GetBool();
      EXPECT_EQ(item.HasMember("continuationPoint"), more);
      if (more) point = item["continuationPoint"].GetInt64();
    }
    ASSERT_EQ(values.size(), 250U) << limit;
    for (int i = 0; i < 250; ++i) EXPECT_EQ(values[static_cast<std::size_t>(i)], i);
  }
}

TEST_F(HistoryReadRawTest, AWalkCutExactlyAtItsLimitSaysThatMoreMayCome) {
  const std::int64_t id = cached(4);
  // The limit is met at the newest sample and the range goes on: nobody knows what follows.
  const Reply reply = read(idBody(id, range(1, 100, ",\"numValuesPerNode\":3")));
  const json::Value& item = reply.item("data", 0);
  EXPECT_EQ(item["values"].Size(), 3U);
  EXPECT_TRUE(item["areMoreValues"].GetBool());
  EXPECT_EQ(item["continuationPoint"].GetInt64(), kT0 + 3 * kSecond + 1);
  EXPECT_EQ(service.archive().readCount(), 0U);
}

TEST_F(HistoryReadRawTest, ASilentArchiveIsATimeOutOfItsItemsAlone) {
  const std::int64_t id = archived(3);
  service.addItem(8, "Plant/Other");
  Script silent;
  silent.when = When::never;
  service.archive().setScript(silent);
  const long long before = service.clock.now();
  const Reply reply = read(idBody(id));
  EXPECT_EQ(reply.status, 0U);
  const json::Value& item = reply.item("data", 0);
  EXPECT_EQ(memberNames(item), (Names{"archiveItemId", "statusCode", "areMoreValues", "values"}));
  EXPECT_EQ(item["statusCode"].GetInt(), -2146828288);
  EXPECT_FALSE(item["areMoreValues"].GetBool());
  EXPECT_GE(service.clock.now() - before, 60 * kSecond);
  EXPECT_LE(service.clock.now() - before, 61 * kSecond);
}

TEST_F(HistoryReadRawTest, AnItemCutOffByTheTimeOutKeepsWhatArrivedAndNamesNoContinuation) {
  const std::int64_t id = archived(6);
  Script slow;
  slow.silent = true;
  service.archive().setScript(slow);
  const Reply reply = read(idBody(id, range(0, 5, ",\"numValuesPerNode\":4"), kT0 + 2 * kSecond));
  const json::Value& item = reply.item("data", 0);
  EXPECT_EQ(memberNames(item), (Names{"archiveItemId", "statusCode", "areMoreValues", "values"}));
  EXPECT_EQ(item["statusCode"].GetInt(), -2146828288);
  ASSERT_EQ(item["values"].Size(), 4U);
  EXPECT_EQ(item["values"][0][1].GetDouble(), 2.0);
  EXPECT_EQ(item["values"][3][1].GetDouble(), 5.0);
}

TEST_F(HistoryReadRawTest, FirstAndLastAreTwoValues) {
  const std::int64_t id = archived(9);
  const Reply reply = read(idBody(id, "{\"returnFirstLastValue\":true}"));
  const json::Value& values = reply.item("data", 0)["values"];
  ASSERT_EQ(values.Size(), 2U);
  EXPECT_EQ(values[0][1].GetDouble(), 0.0);
  EXPECT_EQ(values[1][1].GetDouble(), 8.0);
}

TEST_F(HistoryReadRawTest, AReplyThatDoesNotFitIsNotTrimmed) {
  const std::int64_t id = cached(100);
  const Reply reply = service.callBuffer("HistoryReadRaw", idBody(id), 500);
  EXPECT_EQ(reply.status, 0x80080000U);
  EXPECT_EQ(reply.text, "{\"code\":2148007936}");
}

TEST_F(HistoryReadRawTest, AnUnlimitedItemIsLimitedToOneValueBeyondTenThousandElements) {
  const std::int64_t id = cached(3);
  std::string body = "{\"data\":[{\"archiveItemId\":" + std::to_string(id) + "}";
  for (int i = 0; i < 10'000; ++i) body += ",{}";
  const Reply reply = read(body + "]}");
  const json::Value& item = reply.item("data", 0);
  EXPECT_EQ(json::member(reply.body, "data").Size(), 10'001U);
  EXPECT_EQ(item["values"].Size(), 1U);
  EXPECT_TRUE(item["areMoreValues"].GetBool());
  EXPECT_EQ(item["continuationPoint"].GetInt64(), kT0 + 1);
}

TEST_F(HistoryReadRawTest, AHugeLimitIsAMillionSharedByTheElements) {
  const std::int64_t id = service.addItem(7, "Plant/Load");
  std::vector<std::uint64_t> wanted;
  for (const int elements : {1, 2, 3, 7}) {
    std::string body;
    for (int i = 0; i < elements; ++i) {
      body += (i == 0 ? "{\"archiveItemId\":" : ",{\"archiveItemId\":") + std::to_string(id) + "}";
    }
    service.archive().onRead(
        [&](const archive::SharedInterval& interval) { wanted.push_back(interval->wanted()); });
    service.archive().addItem({7, "Plant/Load"});
    read("{\"data\":[" + body + "],\"parameters\":{\"numValuesPerNode\":4294967295}}");
  }
  ASSERT_EQ(wanted.size(), 13U);
  EXPECT_EQ(wanted[0], 1'000'001U);
  EXPECT_EQ(wanted[1], 500'001U);
  EXPECT_EQ(wanted[3], 333'334U);
  EXPECT_EQ(wanted[6], 142'858U);
}

TEST_F(HistoryReadRawTest, OneMethodRunsAtATime) {
  const std::int64_t id = archived(3);
  std::atomic<int> inside{0};
  std::atomic<int> most{0};
  service.archive().onRead([&](const archive::SharedInterval&) {
    most = std::max(most.load(), ++inside);
    std::this_thread::yield();
    --inside;
  });
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 50; ++i) {
        EXPECT_EQ(read(idBody(id, range(0, 1000 + i))).status, 0U);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(most, 1);
}

TEST_F(HistoryReadRawTest, AnyContinuationPointGetsAnOrdinaryAnswer) {
  const std::int64_t id = cached(5);
  for (const std::int64_t point :
       {std::numeric_limits<std::int64_t>::min(), std::int64_t{-1}, std::int64_t{1}, kT0,
        kT0 + 100 * kSecond, std::numeric_limits<std::int64_t>::max()}) {
    for (const char* parameters : {"{}", "{\"returnFirstLastValue\":true}",
                                   "{\"returnBounds\":true}", "{\"numValuesPerNode\":1}"}) {
      const Reply reply = read(idBody(id, parameters, point));
      EXPECT_EQ(reply.status, 0U) << point << parameters;
      EXPECT_TRUE(reply.item("data", 0).HasMember("values"));
    }
  }
}

}  // namespace
}  // namespace orva
