#include <gtest/gtest.h>

#include <boost/smart_ptr/weak_ptr.hpp>
#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "orva_database/inbox.h"
#include "share/archive_manager.h"
#include "support/history_service.h"
#include "support/host_process.h"

namespace orva {
namespace {

using archive::DataArchiveManager;
using archive::Request;
using archive::SharedInterval;
using test::HistoryService;
using test::kMs0;
using test::kSecond;
using test::kT0;
using test::Reply;
using test::Script;
using test::steps;
using test::waitUntil;
using test::When;

constexpr const char* kNoSubscription = "{\"code\":2150236160}";
constexpr const char* kNotYet = "{\"code\":2150760448}";
constexpr const char* kNothingToPublish = "{\"code\":2152333312}";
constexpr const char* kOtherRequest = "{\"code\":2156134400}";
constexpr const char* kTimedOut = "{\"code\":2148139008}";

// Members of "parameters": the range from second a to second b after kT0.
std::string range(int a, int b) {
  return "\"startTime\":" + std::to_string(kMs0 + a * 1000LL) +
         ",\"endTime\":" + std::to_string(kMs0 + b * 1000LL);
}

std::string dataOf(std::int64_t id) { return "[{\"archiveItemId\":" + std::to_string(id) + "}]"; }

// From "data" on: what both ways to read have in common.
std::string dataPart(const Reply& reply) {
  const std::size_t data = reply.text.find("\"data\":");
  return data == std::string::npos ? reply.text : reply.text.substr(data);
}

struct AsyncMethodsTest : testing::Test {
  // `parameters` are members, without braces.
  Reply ask(const std::string& ids, const std::string& data, const std::string& parameters = "") {
    const std::string comma = ids.empty() || parameters.empty() ? "" : ",";
    return service.call("HistoryReadRawAsync", "{\"data\":" + data + ",\"parameters\":{" + ids +
                                                   comma + parameters + "}}");
  }
  Reply ask(std::int64_t subscription, std::int64_t request, std::int64_t id,
            const std::string& parameters = "") {
    return ask(idsOf(subscription, request), dataOf(id), parameters);
  }
  Reply publish(const std::string& ids) {
    return service.call("PublishHistoryData", "{\"parameters\":{" + ids + "}}");
  }
  Reply publish(std::int64_t subscription, std::int64_t request) {
    return publish(idsOf(subscription, request));
  }
  Reply readNow(std::int64_t id, const std::string& parameters = "") {
    return service.call("HistoryReadRaw",
                        "{\"data\":" + dataOf(id) + ",\"parameters\":{" + parameters + "}}");
  }
  static std::string idsOf(std::int64_t subscription, std::int64_t request) {
    return "\"subscriptionId\":" + std::to_string(subscription) +
           ",\"requestId\":" + std::to_string(request);
  }

  // Samples at seconds 0, 1, 2 ... of the item 7, "Plant/Load": in the cache, or at the archive
  // alone.
  std::int64_t cached(int count) {
    const std::int64_t id = service.addItem(7, "Plant/Load");
    service.write(id, steps(kT0, count));
    return id;
  }
  std::int64_t archived(int count) {
    const std::int64_t id = service.addItem(7, "Plant/Load");
    service.archive().add({7, "Plant/Load"}, 0, steps(kT0, count));
    return id;
  }
  void archiveAnswers(When when) {
    Script script;
    script.when = when;
    service.archive().setScript(script);
  }

  HistoryService service;
};

TEST_F(AsyncMethodsTest, AskingEchoesTheIdsAndGivesNoData) {
  const Reply reply = ask(3, 1, cached(5));
  EXPECT_EQ(reply.status, 0U);
  EXPECT_EQ(reply.text, "{\"subscriptionId\":3,\"requestId\":1,\"code\":0}");
}

TEST_F(AsyncMethodsTest, WhatTheCacheHoldsIsPublishedAtOnce) {
  const std::int64_t id = cached(10);
  ask(3, 1, id, range(2, 3));
  const Reply reply = publish(3, 1);
  EXPECT_EQ(reply.status, 0U);
  EXPECT_EQ(reply.text, "{\"subscriptionId\":3,\"requestId\":1,\"data\":[{\"archiveItemId\":" +
                            std::to_string(id) +
                            ",\"areMoreValues\":false,\"values\":[[1715932802000,2.0,0],"
                            "[1715932803000,3.0,0]]}],\"code\":0}");
  EXPECT_EQ(service.archive().readCount(), 0U);
}

TEST_F(AsyncMethodsTest, WithoutItemsThereIsNothingToWaitFor) {
  ask("\"subscriptionId\":3,\"requestId\":1", "[]");
  EXPECT_EQ(publish(3, 1).text, "{\"subscriptionId\":3,\"requestId\":1,\"data\":[],\"code\":0}");
}

TEST_F(AsyncMethodsTest, AReadOf300MillisecondsIsWaitingAndThenThere) {
  const std::int64_t id = archived(5);
  archiveAnswers(When::held);
  ask(3, 1, id);
  EXPECT_EQ(publish(3, 1).text, kNotYet);
  // The manager's own time-out comes on its next pass, and says nothing of the data.
  ASSERT_TRUE(
      waitUntil([&] { return service.traces.countContaining("Request::timeout") > 0; }, 30'000));
  EXPECT_EQ(publish(3, 1).text, kNotYet);
  EXPECT_EQ(publish(3, 1).status, 0x80320000U);
  service.clock.advance(3 * kTicksPerSecond / 10);
  ASSERT_TRUE(service.archive().release());
  const Reply reply = publish(3, 1);
  EXPECT_EQ(reply.status, 0U);
  EXPECT_EQ(reply.item("data", 0)["values"].Size(), 5U);
  EXPECT_FALSE(reply.item("data", 0).HasMember("statusCode"));
}

TEST_F(AsyncMethodsTest, AReadTimedOutByTheManagerAfterItCompletedHasItsData) {
  const std::int64_t id = archived(5);
  boost::weak_ptr<Request> request;
  service.archive().onRead(
      [&](const SharedInterval& interval) { request = interval->item()->request; });
  ask(3, 1, id);
  ASSERT_TRUE(waitUntil([&] { return request.lock()->status() == 0x800A0000U; }, 30'000));
  const Reply reply = publish(3, 1);
  EXPECT_EQ(reply.status, 0U);
  EXPECT_EQ(reply.item("data", 0)["values"].Size(), 5U);
}

TEST_F(AsyncMethodsTest, PublishesTheDataOfASynchronousRead) {
  const std::int64_t id = archived(250);
  const std::int64_t live = service.addItem(8, "Plant/Live");
  service.write(live, steps(kT0, 100));
  for (const std::string& data :
       {dataOf(id), dataOf(live), dataOf(12345), std::string("[]"), std::string("[{}]"),
        "[{\"archiveItemId\":" + std::to_string(live) + "},{\"archiveItemId\":5}," +
            "{\"archiveItemId\":\"" + std::to_string(id) +
            "\",\"continuationPoint\":" + std::to_string(kT0 + 5 * kSecond) + "}]"}) {
    for (const std::string& parameters :
         {std::string("\"a\":0"), range(3, 40), range(10, 10), range(9, 3), range(90, 400),
          range(3, 40) + ",\"returnBounds\":true", range(3, 40) + ",\"numValuesPerNode\":7",
          std::string("\"returnFirstLastValue\":true"), std::string("\"numValuesPerNode\":1"),
          range(0, 90) + ",\"resampleInterval\":100000000.0"}) {
      ask("\"subscriptionId\":1", data, parameters);
      const Reply published = publish("\"subscriptionId\":1");
      const Reply read = service.call(
          "HistoryReadRaw", "{\"data\":" + data + ",\"parameters\":{" + parameters + "}}");
      EXPECT_EQ(read.status, 0U);
      EXPECT_EQ(dataPart(published), dataPart(read)) << data << parameters;
    }
  }
}

TEST_F(AsyncMethodsTest, AFailureOfTheArchiveIsTheStatusOfTheItem) {
  const std::int64_t id = archived(5);
  Script failing;
  failing.fail = 0x80350000;
  service.archive().setScript(failing);
  ask(3, 1, id);
  const Reply published = publish(3, 1);
  EXPECT_EQ(published.status, 0U);
  EXPECT_EQ(published.item("data", 0)["statusCode"].GetInt(),
            static_cast<std::int32_t>(0x80350000));
  EXPECT_EQ(dataPart(published), dataPart(readNow(id)));
}

TEST_F(AsyncMethodsTest, AReadIsCompleteWhenItsLastItemIs) {
  const std::int64_t id = archived(5);
  const std::int64_t other = service.addItem(8, "Plant/Other");
  service.archive().add({8, "Plant/Other"}, 0, steps(kT0, 3));
  archiveAnswers(When::held);
  ask("\"subscriptionId\":1", "[{\"archiveItemId\":" + std::to_string(id) +
                                  "},{\"archiveItemId\":" + std::to_string(other) +
                                  "},{\"archiveItemId\":99}]");
  EXPECT_EQ(publish(1, 0).text, kNotYet);
  ASSERT_TRUE(service.archive().release());
  EXPECT_EQ(publish(1, 0).text, kNotYet);
  ASSERT_TRUE(service.archive().release());
  const Reply reply = publish(1, 0);
  EXPECT_EQ(reply.item("data", 0)["values"].Size(), 5U);
  EXPECT_EQ(reply.item("data", 1)["values"].Size(), 3U);
  EXPECT_EQ(reply.item("data", 2)["statusCode"].GetInt(), static_cast<std::int32_t>(0x803E0000));
}

// ---- codes

TEST_F(AsyncMethodsTest, WithoutASubscriptionThereIsNothingToPublish) {
  ask(0, 0, cached(2));
  for (const char* body :
       {"{}", "[]", "5", "{\"parameters\":null}", "{\"parameters\":[]}", "{\"parameters\":{}}",
        "{\"subscriptionId\":0}", "{\"parameters\":{\"requestId\":0}}",
        "{\"parameters\":{\"subscriptionId\":null}}", "{\"parameters\":{\"subscriptionId\":1.5}}",
        "{\"parameters\":{\"subscriptionId\":true}}",
        "{\"parameters\":{\"subscriptionId\":18446744073709551615}}"}) {
    service.traces.clear();
    const Reply reply = service.call("PublishHistoryData", body);
    EXPECT_EQ(reply.status, 0x802A0000U) << body;
    EXPECT_EQ(reply.text, kNoSubscription) << body;
    EXPECT_EQ(service.traces.countContaining("Returning 0x802A0000\n"), 1) << body;
  }
  EXPECT_EQ(publish(0, 0).status, 0U);
}

TEST_F(AsyncMethodsTest, AnUnknownSubscriptionHasNothingToPublish) {
  const std::int64_t id = cached(2);
  EXPECT_EQ(publish(3, 1).text, kNothingToPublish);
  EXPECT_EQ(publish(3, 1).status, 0x804A0000U);
  ask(3, 1, id);
  EXPECT_EQ(publish(4, 1).text, kNothingToPublish);
}

TEST_F(AsyncMethodsTest, AResultIsPublishedOnce) {
  ask(3, 1, cached(2));
  EXPECT_EQ(publish(3, 1).status, 0U);
  EXPECT_EQ(publish(3, 1).text, kNothingToPublish);
  EXPECT_EQ(publish(3, 2).text, kNothingToPublish);
}

TEST_F(AsyncMethodsTest, AnotherRequestIdIsRefusedAndTheReadStays) {
  ask(3, 1, cached(2));
  EXPECT_EQ(publish(3, 2).text, kOtherRequest);
  EXPECT_EQ(publish(3, 0).status, 0x80840000U);
  EXPECT_EQ(publish("\"subscriptionId\":3").text, kOtherRequest);
  EXPECT_EQ(publish(3, 1).status, 0U);
}

TEST_F(AsyncMethodsTest, AskingWithoutADataArrayIsInvalidAndReplacesNothing) {
  ask(3, 1, cached(2));
  for (const char* body :
       {"{}", "[]", "7", "{\"data\":{},\"parameters\":{\"subscriptionId\":3,\"requestId\":2}}"}) {
    service.traces.clear();
    const Reply reply = service.call("HistoryReadRawAsync", body);
    EXPECT_EQ(reply.status, 0x805A0000U) << body;
    EXPECT_EQ(reply.text, "{\"code\":2153381888}");
    EXPECT_EQ(
        service.traces.count("<-- ReturnError: !req evaluated to true! Returning 0x805A0000\n"), 1);
  }
  EXPECT_EQ(publish(3, 1).status, 0U);
}

TEST_F(AsyncMethodsTest, IdsAreNumbersOrText) {
  const std::int64_t id = cached(2);
  const std::string data = dataOf(id);
  struct Form {
    const char* text;
    std::int64_t value;
  };
  for (const Form& form : std::vector<Form>{{"0", 0},
                                            {"-1", -1},
                                            {"2147483648", 2'147'483'648},
                                            {"9223372036854775807", INT64_MAX},
                                            {"-9223372036854775808", INT64_MIN},
                                            {"\"42\"", 42},
                                            {"\" -5x\"", -5},
                                            {"\"9223372036854775807\"", INT64_MAX},
                                            {"\"99999999999999999999999\"", INT64_MAX},
                                            {"\"x\"", 0}}) {
    const std::string ids =
        std::string("\"subscriptionId\":") + form.text + ",\"requestId\":" + form.text;
    const std::string number = std::to_string(form.value);
    const std::string echo = "{\"subscriptionId\":" + number + ",\"requestId\":" + number;
    EXPECT_EQ(ask(ids, data).text, echo + ",\"code\":0}");
    EXPECT_EQ(publish(form.value, form.value).text.substr(0, echo.size()), echo) << form.text;
    ask(form.value, form.value, id);
    EXPECT_EQ(publish(ids).text.substr(0, echo.size()), echo) << form.text;
  }
}

TEST_F(AsyncMethodsTest, IdsThatAreMissingOrNoIntegersCountAsZeroWhenAsking) {
  const std::string data = dataOf(cached(2));
  const std::string echo = "{\"subscriptionId\":0,\"requestId\":0,\"code\":0}";
  EXPECT_EQ(service.call("HistoryReadRawAsync", "{\"data\":" + data + "}").text, echo);
  EXPECT_EQ(publish("\"subscriptionId\":0").status, 0U);
  for (const char* value : {"null", "true", "1.5", "[]", "{}", "18446744073709551615"}) {
    EXPECT_EQ(
        ask(std::string("\"subscriptionId\":") + value + ",\"requestId\":" + value, data).text,
        echo)
        << value;
    EXPECT_EQ(publish(0, 0).status, 0U) << value;
  }
}

// ---- replacing

TEST_F(AsyncMethodsTest, ASecondReadOfASubscriptionTakesTheIdAndTheData) {
  const std::int64_t id = cached(10);
  ask(3, 1, id, range(0, 1));
  ask(3, 2, id, range(5, 7));
  EXPECT_EQ(publish(3, 1).text, kOtherRequest);
  const Reply reply = publish(3, 2);
  EXPECT_EQ(reply.item("data", 0)["values"].Size(), 3U);
  EXPECT_EQ(reply.item("data", 0)["values"][0][1].GetDouble(), 5.0);
  EXPECT_EQ(publish(3, 2).text, kNothingToPublish);
}

TEST_F(AsyncMethodsTest, ASecondReadWithTheSameIdHasItsOwnData) {
  const std::int64_t id = cached(10);
  ask(3, 1, id, range(0, 1));
  ask(3, 1, id, range(5, 7));
  EXPECT_EQ(publish(3, 1).item("data", 0)["values"][0][1].GetDouble(), 5.0);
}

TEST_F(AsyncMethodsTest, AReplacedReadThatCompletesLaterChangesNothing) {
  const std::int64_t id = archived(20);
  archiveAnswers(When::held);
  ask(3, 1, id, range(0, 3));
  ask(3, 2, id, range(10, 11));
  ASSERT_EQ(service.archive().heldCount(), 2U);
  const SharedInterval replaced = service.archive().takeHeld();
  EXPECT_TRUE(replaced->full()) << "its archive should stop";
  test::answer(replaced, steps(kT0, 4));
  EXPECT_EQ(publish(3, 1).text, kOtherRequest);
  EXPECT_EQ(publish(3, 2).text, kNotYet);
  ASSERT_TRUE(service.archive().release());
  const Reply reply = publish(3, 2);
  ASSERT_EQ(reply.item("data", 0)["values"].Size(), 2U);
  EXPECT_EQ(reply.item("data", 0)["values"][0][1].GetDouble(), 10.0);
}

TEST_F(AsyncMethodsTest, TheMemoryOfAReplacedReadComesBackAtOnce) {
  const std::int64_t id = archived(20);
  std::vector<boost::weak_ptr<Request>> requests;
  service.archive().onRead(
      [&](const SharedInterval& interval) { requests.push_back(interval->item()->request); });
  archiveAnswers(When::never);
  ask(3, 1, id, range(0, 3));
  ask(3, 2, id, range(5, 8));
  ASSERT_EQ(requests.size(), 2U);
  // (But for the moment in which the manager's worker looks at it.)
  EXPECT_TRUE(waitUntil([&] { return requests[0].expired(); }, 30'000));
  EXPECT_FALSE(requests[1].expired());
}

// ---- time

TEST_F(AsyncMethodsTest, AReadWithoutAnAnswerIsGivenUpAfterSixtySeconds) {
  const std::int64_t id = archived(5);
  archiveAnswers(When::held);
  ask(3, 1, id);
  service.clock.advance(60 * kSecond - 1);
  EXPECT_EQ(publish(3, 1).text, kNotYet);
  service.clock.advance(1);
  service.traces.clear();
  EXPECT_EQ(publish(3, 1).text, kTimedOut);
  EXPECT_EQ(service.traces.countContaining("returns 0x800A0000"), 1);
  EXPECT_EQ(publish(3, 1).text, kNothingToPublish);
  ASSERT_TRUE(service.archive().release());  // pushed into what is gone
  EXPECT_EQ(publish(3, 1).text, kNothingToPublish);
  archiveAnswers(When::now);
  EXPECT_EQ(readNow(id).item("data", 0)["values"].Size(), 5U);
}

TEST_F(AsyncMethodsTest, AReadThatCompletedInTimeWaitsLongerForItsClient) {
  ask(3, 1, cached(5));
  service.clock.advance(9 * 60 * kSecond);
  EXPECT_EQ(publish(3, 1).item("data", 0)["values"].Size(), 5U);
}

TEST_F(AsyncMethodsTest, AClockThatIsSetChangesNothingOfTheSixtySeconds) {
  const std::int64_t id = archived(5);
  archiveAnswers(When::never);
  ask(3, 1, id);
  service.clock.setTime(service.clock.now() + 3600 * kSecond);
  EXPECT_EQ(publish(3, 1).text, kNotYet);
  service.clock.advance(50 * kSecond);
  service.clock.setTime(service.clock.now() - 7200 * kSecond);
  EXPECT_EQ(publish(3, 1).text, kNotYet);
  service.clock.setFrozen(true);
  service.clock.advance(9 * kSecond);
  EXPECT_EQ(publish(3, 1).text, kNotYet);
  service.clock.advance(kSecond);
  EXPECT_EQ(publish(3, 1).text, kTimedOut);
}

TEST_F(AsyncMethodsTest, ASilentArchiveHoldsUpNobody) {
  const std::int64_t id = archived(5);
  archiveAnswers(When::never);
  const long long before = service.clock.now();
  ask(3, 1, id);
  EXPECT_EQ(publish(3, 1).text, kNotYet);
  EXPECT_EQ(service.clock.now(), before);
}

TEST_F(AsyncMethodsTest, ResultsNobodyFetchesGoAfterTenMinutesWhenAnotherReadComes) {
  const std::int64_t id = cached(5);
  ask(1, 1, id);
  ask(2, 1, id);
  service.clock.advance(600 * kSecond);
  ask(3, 1, id);
  EXPECT_EQ(publish(1, 1).status, 0U);
  service.clock.advance(1);
  ask(4, 1, id);
  EXPECT_EQ(publish(2, 1).text, kNothingToPublish);
  EXPECT_EQ(publish(3, 1).status, 0U);
}

TEST_F(AsyncMethodsTest, Of257ReadsTheOldestIsForgotten) {
  const std::int64_t id = cached(2);
  for (int subscription = 1; subscription <= 257; ++subscription) ask(subscription, 1, id);
  EXPECT_EQ(publish(1, 1).text, kNothingToPublish);
  for (int subscription = 2; subscription <= 257; ++subscription) {
    EXPECT_EQ(publish(subscription, 1).status, 0U) << subscription;
  }
}

// ---- archives that end

TEST_F(AsyncMethodsTest, ACompleteReadOutlivesItsArchives) {
  ask(3, 1, cached(5));
  DataArchiveManager::instance().clear();
  EXPECT_EQ(publish(3, 1).item("data", 0)["values"].Size(), 5U);
}

TEST_F(AsyncMethodsTest, AnArchiveThatEndsCompletesTheReadsThatItHolds) {
  const std::int64_t id = archived(5);
  archiveAnswers(When::held);
  ask(3, 1, id);
  DataArchiveManager::instance().clear();
  const Reply reply = publish(3, 1);
  EXPECT_EQ(reply.status, 0U);
  EXPECT_TRUE(reply.item("data", 0)["values"].Empty());
}

TEST_F(AsyncMethodsTest, AReadThatItsArchiveForgotIsGivenUpAfterSixtySeconds) {
  const std::int64_t id = archived(5);
  archiveAnswers(When::never);
  ask(3, 1, id);
  DataArchiveManager::instance().clear();
  EXPECT_EQ(publish(3, 1).text, kNotYet);
  DataArchiveManager::instance().init();
  EXPECT_EQ(publish(3, 1).text, kNotYet);
  service.clock.advance(60 * kSecond);
  EXPECT_EQ(publish(3, 1).text, kTimedOut);
}

// ---- replies that do not fit

TEST_F(AsyncMethodsTest, AResultThatDoesNotFitStaysForALargerReply) {
  ask(3, 1, cached(100));
  const std::string body = "{\"parameters\":{" + idsOf(3, 1) + "}}";
  const Reply tooSmall = service.callBuffer("PublishHistoryData", body, 500);
  EXPECT_EQ(tooSmall.status, 0x80080000U);
  EXPECT_EQ(tooSmall.text, "{\"code\":2148007936}");
  const Reply whole = service.callBuffer("PublishHistoryData", body, 10'000);
  EXPECT_EQ(whole.status, 0U);
  EXPECT_EQ(whole.item("data", 0)["values"].Size(), 100U);
  EXPECT_EQ(publish(3, 1).text, kNothingToPublish);
}

TEST_F(AsyncMethodsTest, AResultIsReleasedExactlyWhenItsReplyFits) {
  const std::int64_t id = cached(3);
  ask(3, 1, id);
  const std::string body = "{\"parameters\":{" + idsOf(3, 1) + "}}";
  const int length = static_cast<int>(publish(3, 1).text.size());
  ask(3, 1, id);
  for (int capacity = 0; capacity <= length; ++capacity) {
    ASSERT_EQ(service.callBuffer("PublishHistoryData", body, capacity).status, 0x80080000U);
  }
  EXPECT_EQ(service.callBuffer("PublishHistoryData", body, length + 1).status, 0U);
  EXPECT_EQ(publish(3, 1).text, kNothingToPublish);
}

// ---- the cache

// What waits to be cached is bounded for all items together: without a hand-over at each publishing
// the second item's samples would be turned away.
TEST_F(AsyncMethodsTest, PublishingHandsWhatWasFetchedToTheCache) {
  const std::uint32_t usual = cache::Inbox::maxWaiting;
  cache::Inbox::maxWaiting = 30;
  const std::int64_t id = archived(20);
  const std::int64_t other = service.addItem(8, "Plant/Other");
  service.archive().add({8, "Plant/Other"}, 0, steps(kT0, 20));
  for (const std::int64_t item : {id, other}) {
    ask(3, 1, item, range(0, 19));
    publish(3, 1);
  }
  cache::Inbox::maxWaiting = usual;
  EXPECT_EQ(service.archive().readCount(), 2U);
  for (const std::int64_t item : {id, other}) {
    ask(3, 1, item, range(0, 19));
    EXPECT_EQ(publish(3, 1).item("data", 0)["values"].Size(), 20U);
  }
  EXPECT_EQ(service.archive().readCount(), 2U);
}

}  // namespace
}  // namespace orva
