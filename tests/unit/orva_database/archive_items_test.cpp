#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "orva_host/variables.h"
#include "share/archive_manager.h"
#include "support/history_service.h"

namespace orva {
namespace {

using archive::DataArchiveManager;
using test::HistoryService;
using test::Reply;

constexpr std::int32_t kNothingResolved = static_cast<std::int32_t>(0x80420000);

std::string number(std::int64_t value) { return std::to_string(value); }

struct GetArchiveItemsTest : testing::Test {
  Reply list(const std::string& body) { return service.call("GetArchiveItems", body); }
  std::size_t cachedItems() { return DataArchiveManager::instance().cachedItems().size(); }

  HistoryService service;
};

TEST_F(GetArchiveItemsTest, FindsAnItemByItsPath) {
  service.addVariable(7, "Plant/Load");
  const Reply reply = list(R"({"items":[{"path":"Plant/Load"}]})");
  const std::int64_t id = DataArchiveManager::instance().getCacheId({7, "Plant/Load"});
  EXPECT_GT(id, 0);
  EXPECT_EQ(reply.status, 0U);
  EXPECT_EQ(reply.text, "{\"items\":[{\"itemId\":7,\"path\":\"Plant/Load\",\"archiveItemId\":" +
                            number(id) + "}],\"code\":0}");
}

TEST_F(GetArchiveItemsTest, FindsAnItemByItsIdAndTellsItsPath) {
  service.addVariable(7, "Plant/Load");
  for (const char* id : {"7", "\"7\""}) {
    const Reply reply = list(std::string("{\"items\":[{\"itemId\":") + id + "}]}");
    EXPECT_EQ(reply.item("items", 0)["itemId"].GetInt64(), 7);
    EXPECT_STREQ(reply.item("items", 0)["path"].GetString(), "Plant/Load");
    EXPECT_EQ(reply.item("items", 0)["archiveItemId"].GetInt64(),
              DataArchiveManager::instance().getCacheId({7, "Plant/Load"}));
  }
}

TEST_F(GetArchiveItemsTest, AnswersInTheOrderOfTheRequest) {
  service.addVariable(7, "Plant/Load");
  service.addVariable(8, "Plant/T1");
  const Reply reply =
      list(R"({"items":[{"path":"Plant/T1"},{"itemId":9},{"itemId":7,"path":"Plant/Load"}]})");
  EXPECT_EQ(reply.status, 0U);
  ASSERT_EQ(reply.body["items"].Size(), 3U);
  EXPECT_EQ(reply.item("items", 0)["itemId"].GetInt64(), 8);
  EXPECT_EQ(reply.item("items", 1)["itemId"].GetInt64(), 9);
  EXPECT_EQ(reply.item("items", 2)["itemId"].GetInt64(), 7);
  EXPECT_FALSE(reply.item("items", 0).HasMember("statusCode"));
  EXPECT_FALSE(reply.item("items", 2).HasMember("statusCode"));
}

TEST_F(GetArchiveItemsTest, WhatIsNotResolvedHasNoIdButAStatus) {
  service.addVariable(7, "Plant/Load");
  const Reply reply = list(R"({"items":[{"path":"Plant/Load"},{"path":"Nowhere"},{"itemId":5},{},)"
                           R"({"itemId":8,"path":"Plant/Load"},{"itemId":1.5,"path":5},null,7]})");
  EXPECT_EQ(reply.status, 0U);
  EXPECT_EQ(reply.text.substr(reply.text.find("{\"itemId\":-1")),
            R"({"itemId":-1,"path":"Nowhere","archiveItemId":-1,"statusCode":-2143158272},)"
            R"({"itemId":5,"path":"","archiveItemId":-1,"statusCode":-2143158272},)"
            R"({"itemId":-1,"path":"","archiveItemId":-1,"statusCode":-2143158272},)"
            R"({"itemId":8,"path":"Plant/Load","archiveItemId":-1,"statusCode":-2143158272},)"
            R"({"itemId":-1,"path":"","archiveItemId":-1,"statusCode":-2143158272},)"
            R"({"itemId":-1,"path":"","archiveItemId":-1,"statusCode":-2143158272},)"
            R"({"itemId":-1,"path":"","archiveItemId":-1,"statusCode":-2143158272}],"code":0})");
}

TEST_F(GetArchiveItemsTest, AVariableThatIsNotArchivedIsNotResolved) {
  vm::Item item;
  item.id = 3;
  item.path = "Plant/Live";
  host::setVariable(item);
  const Reply reply = list(R"({"items":[{"path":"Plant/Live"}]})");
  EXPECT_EQ(reply.item("items", 0)["itemId"].GetInt64(), 3);
  EXPECT_EQ(reply.item("items", 0)["archiveItemId"].GetInt64(), -1);
  EXPECT_EQ(reply.item("items", 0)["statusCode"].GetInt(), kNothingResolved);
}

TEST_F(GetArchiveItemsTest, AFilledArrayThatResolvesNothingIsAFailure) {
  const Reply reply = list(R"({"items":[{"path":"a"},{"itemId":1}]})");
  EXPECT_EQ(reply.status, 0x80420000U);
  EXPECT_EQ(reply.body["items"].Size(), 2U);
  EXPECT_EQ(reply.body["code"].GetUint(), 0x80420000U);
  EXPECT_EQ(service.traces.countContaining("\"onlyItemList\":true"), 1);
}

TEST_F(GetArchiveItemsTest, AnEmptyArrayIsAnsweredEmpty) {
  EXPECT_EQ(list(R"({"items":[]})").text, R"({"items":[],"code":0})");
}

TEST_F(GetArchiveItemsTest, ItemsOfAnotherTypeThanAnArrayAreAFailure) {
  service.addItem(7, "Plant/Load");
  for (const std::string value : {"null", "{}", "5", "\"Plant/Load\"", "true", "2.5"}) {
    const Reply reply = list("{\"items\":" + value + "}");
    EXPECT_EQ(reply.status, 0x80420000U) << value;
    EXPECT_EQ(reply.text, "{\"code\":2151809024}") << value;
  }
}

TEST_F(GetArchiveItemsTest, WithoutItemsEveryCachedItemIsListedByAscendingId) {
  for (int i = 1; i <= 20; ++i) service.addItem(i, "Plant/" + number(i));
  service.addVariable(100, "Plant/NeverUsed");
  for (const char* body : {"{}", "null", "[]"}) {
    const Reply reply = list(body);
    EXPECT_EQ(reply.status, 0U);
    const json::Value& items = reply.body["items"];
    ASSERT_EQ(items.Size(), 20U);
    std::int64_t previous = 0;
    for (const json::Value& item : items.GetArray()) {
      const std::int64_t id = item["archiveItemId"].GetInt64();
      EXPECT_GT(id, previous);
      previous = id;
      EXPECT_EQ("Plant/" + number(item["itemId"].GetInt64()), item["path"].GetString());
      EXPECT_FALSE(item.HasMember("statusCode"));
    }
  }
}

TEST_F(GetArchiveItemsTest, AnItemKeptWithoutAPathIsFoundAndNotMadeAgain) {
  service.addVariable(7, "Plant/Load");
  const std::int64_t bare = DataArchiveManager::instance().createPinCache({7, ""});
  EXPECT_EQ(cachedItems(), 1U);
  for (const char* element :
       {R"({"path":"Plant/Load"})", R"({"itemId":7})", R"({"itemId":7,"path":"anything"})"}) {
    const Reply reply = list(std::string("{\"items\":[") + element + "]}");
    EXPECT_EQ(reply.item("items", 0)["archiveItemId"].GetInt64(), bare) << element;
  }
  EXPECT_EQ(cachedItems(), 1U);
}

TEST_F(GetArchiveItemsTest, AnItemKeptWithItsPathComesBeforeTheOneWithout) {
  const std::int64_t id = service.addItem(7, "Plant/Load");
  DataArchiveManager::instance().createPinCache({7, ""});
  const Reply reply = list(R"({"items":[{"path":"Plant/Load"}]})");
  EXPECT_EQ(reply.item("items", 0)["archiveItemId"].GetInt64(), id);
}

TEST_F(GetArchiveItemsTest, IdsOfAllSixtyFourBitsAreToldApart) {
  const std::int64_t big = 7 + (std::int64_t{1} << 32);
  service.addVariable(7, "Plant/Small");
  service.addVariable(big, "Plant/Big");
  service.addVariable(-1, "Plant/Minus");
  const Reply reply =
      list("{\"items\":[{\"itemId\":7},{\"itemId\":" + number(big) + "},{\"itemId\":-1}]}");
  EXPECT_STREQ(reply.item("items", 0)["path"].GetString(), "Plant/Small");
  EXPECT_STREQ(reply.item("items", 1)["path"].GetString(), "Plant/Big");
  EXPECT_STREQ(reply.item("items", 2)["path"].GetString(), "Plant/Minus");
  for (unsigned i = 0; i < 3; ++i) {
    EXPECT_GT(reply.item("items", i)["archiveItemId"].GetInt64(), 0) << i;
  }
}

TEST_F(GetArchiveItemsTest, AnIdWithThePathOfAnotherVariableIsNotResolved) {
  service.addVariable(7, "Plant/Load");
  service.addVariable(8, "Plant/T1");
  const Reply reply = list(R"({"items":[{"itemId":8,"path":"Plant/Load"}]})");
  EXPECT_EQ(reply.status, 0x80420000U);
  EXPECT_EQ(reply.item("items", 0)["archiveItemId"].GetInt64(), -1);
  EXPECT_EQ(cachedItems(), 0U);
}

TEST_F(GetArchiveItemsTest, MadeUpPathsMakeNoItems) {
  service.addItem(7, "Plant/Load");
  for (int batch = 0; batch < 100; ++batch) {
    std::string body = "{\"items\":[{\"path\":\"Plant/Load\"}";
    for (int i = 0; i < 500; ++i) {
      const std::string path = "made up " + number(batch * 500 + i);
      body += ",{\"path\":\"" + path + "\"},{\"itemId\":7,\"path\":\"" + path + "\"}";
    }
    EXPECT_EQ(list(body + "]}").status, 0U);
  }
  EXPECT_EQ(cachedItems(), 1U);
}

TEST_F(GetArchiveItemsTest, APathIsEscapedInTheReply) {
  service.addVariable(7, "a\"b\\c\n");
  const Reply reply = list(R"({"items":[{"itemId":7}]})");
  EXPECT_STREQ(reply.item("items", 0)["path"].GetString(), "a\"b\\c\n");
}

}  // namespace
}  // namespace orva
