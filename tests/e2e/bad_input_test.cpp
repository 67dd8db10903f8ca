// What clients get who send what they should not. The host stays up, whatever comes.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <future>
#include <memory>
#include <string>
#include <vector>

#include "share/json.h"
#include "support/plant.h"

namespace orva::test {
namespace {

using ::testing::HasSubstr;

constexpr const char* kPath = "Plant/Load";
constexpr const char* kHalfRequest = "POST /Methods/GetArchiveItems HTTP/1.1\r\nHost: x\r\n";

// Writes one sample, at 2023-11-14T22:13:20Z.
constexpr const char* kOneSample = R"(
local load = ArchiveProc.new{Id = 1, Path = "Plant/Load"}
function cycle()
  if load.Value then return end
  load.Value = DataValue{Value = 5, SourceTime = 1700000000000}
  load()
end
)";

// All tests use one host, with time limits short enough to wait for.
class BadInputTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    PlantConfig config;
    config.variables = "[" + variable(1, kPath, "Double") + "]";
    config.programs = "[" + program("writer", "writer.lua", 10) + "]";
    config.http = R"({"port": 0, "limits": {"headerTimeMs": 500, "bodyTimeMs": 500}})";
    plant_ = std::make_unique<Plant>(config);
    plant_->folder().write("writer.lua", kOneSample);
    if (!plant_->start()) return;
    id_ = plant_->itemId(kPath);
    EXPECT_TRUE(plant_->waitForValue(id_, "5.0"));
  }
  static void TearDownTestSuite() {
    EXPECT_EQ(plant_->host().stop(), 0) << plant_->host().log();
    plant_.reset();
  }
  // Whatever a test did, the host serves the next client.
  void TearDown() override {
    const HistoryReply reply = plant_->client().readRaw(id_, "");
    EXPECT_EQ(reply.code, 0) << reply.text << plant_->host().log();
    EXPECT_EQ(reply.item().values, (Samples{{1'700'000'000'000, "5.0", 0}}));
  }

  static std::uint16_t port() { return plant_->port(); }
  static HttpReply call(const std::string& method, const std::string& body) {
    return plant_->client().call(method, body);
  }
  // The "code" of the reply.
  static std::int64_t codeOf(const std::string& method, const std::string& body) {
    return parseHistoryReply(call(method, body).body).code;
  }

  static std::unique_ptr<Plant> plant_;
  static std::int64_t id_;
};

std::unique_ptr<Plant> BadInputTest::plant_;
std::int64_t BadInputTest::id_ = -1;

constexpr std::int64_t kBadRequest = 0x80B60000;
constexpr std::int64_t kBadInvalidArgument = 0x805A0000;

TEST_F(BadInputTest, AMethodThatDoesNotExistIsNotFound) {
  for (const char* method : {"NoSuchMethod", "historyreadraw", "HistoryReadRaw/", ""}) {
    const HttpReply reply = call(method, "{}");
    EXPECT_EQ(reply.status, 404) << method;
  }
  EXPECT_EQ(httpPost(port(), "/nothing", "{}").status, 404);
  EXPECT_EQ(httpPost(port(), "/Methods", "{}").status, 404);
}

TEST_F(BadInputTest, OnlyPostIsAMethod) {
  for (const char* verb : {"GET", "PUT", "DELETE"}) {
    HttpConnection connection(port());
    connection.send(std::string(verb) + " /Methods/HistoryReadRaw HTTP/1.1\r\nHost: x\r\n\r\n");
    EXPECT_EQ(connection.receive().status, 405) << verb;
  }
  EXPECT_EQ(httpPost(port(), "/", "{}").status, 405);
}

TEST_F(BadInputTest, WhatIsNoHttpIsRefused) {
  for (const char* bytes : {"hello\r\n\r\n", "POST / HTTP/9.9\r\n\r\n", "\r\n\r\n\r\n",
                            "POST /Methods/HistoryReadRaw HTTP/1.1\r\nContent-Length: x\r\n\r\n"}) {
    HttpConnection connection(port());
    connection.send(bytes);
    const int status = connection.receive(5'000).status;
    EXPECT_TRUE(status == 400 || connection.closedByPeer(5'000)) << bytes << " " << status;
  }
}

TEST_F(BadInputTest, ABodyCutAnywhereIsABadRequest) {
  const std::string whole = R"({"data":[{"archiveItemId":")" + std::to_string(id_) +
                            R"("}],"parameters":{"startTime":5,"returnBounds":true}})";
  EXPECT_EQ(codeOf("HistoryReadRaw", whole), 0);
  for (std::size_t length = 0; length < whole.size(); ++length) {
    EXPECT_EQ(codeOf("HistoryReadRaw", whole.substr(0, length)), kBadRequest) << length;
  }
}

TEST_F(BadInputTest, NestingEndsAtSixtyFourLevels) {
  const auto nested = [](std::size_t levels) {
    return std::string(levels - 1, '[') + "{}" + std::string(levels - 1, ']');
  };
  EXPECT_EQ(codeOf("HistoryReadRaw", nested(64)), kBadInvalidArgument);
  EXPECT_EQ(codeOf("HistoryReadRaw", nested(65)), kBadRequest);
  EXPECT_EQ(codeOf("HistoryReadRaw", std::string(1'000'000, '[')), kBadRequest);
  EXPECT_EQ(codeOf("HistoryReadRaw", "{\"data\":" + std::string(1'000'000, '{')), kBadRequest);
}

// Each member of each method's body, missing and of every type.
TEST_F(BadInputTest, MembersThatAreMissingOrOfAnotherTypeGetAnAnswer) {
  const std::vector<std::string> kWrong = {"null",
                                           "true",
                                           "0",
                                           "-1",
                                           "1.5",
                                           "1e300",
                                           "9223372036854775807",
                                           "18446744073709551615",
                                           "\"\"",
                                           "\"x\"",
                                           "\"99999999999999999999999\"",
                                           "[]",
                                           "[1]",
                                           "{}"};
  const std::string id = std::to_string(id_);
  // The place to fill stands as @.
  const std::pair<const char*, std::string> kBodies[] = {
      {"GetArchiveItems", "{\"items\":@}"},
      {"GetArchiveItems", "{\"items\":[@]}"},
      {"GetArchiveItems", R"({"items":[{"path":@}]})"},
      {"GetArchiveItems", R"({"items":[{"itemId":@}]})"},
      {"HistoryReadRaw", "@"},
      {"HistoryReadRaw", R"({"data":@})"},
      {"HistoryReadRaw", R"({"data":[@]})"},
      {"HistoryReadRaw", R"({"data":[{"archiveItemId":@}]})"},
      {"HistoryReadRaw", R"({"data":[{"archiveItemId":)" + id + R"(,"continuationPoint":@}]})"},
      {"HistoryReadRaw", R"({"data":[{"archiveItemId":)" + id + R"(}],"parameters":@})"},
      {"ReadNewRecords", "@"},
      {"ReadNewRecords", R"({"reqID":@,"items":[{"path":"Plant/Load"}]})"},
      {"ReadNewRecords", R"({"items":@})"},
      {"ReadNewRecords", R"({"items":[@]})"},
      {"ReadNewRecords", R"({"items":[{"path":@}]})"},
      {"ReadNewRecords", R"({"items":[{"path":"Plant/Load","randID":@}]})"},
      {"ReadNewRecords", R"({"items":[{"path":"Plant/Load","continuationPoint":@}]})"},
      {"HistoryReadRawAsync", "@"},
      {"HistoryReadRawAsync", R"({"data":[],"parameters":@})"},
      {"HistoryReadRawAsync", R"({"data":[],"parameters":{"subscriptionId":@,"requestId":1}})"},
      {"HistoryReadRawAsync", R"({"data":[],"parameters":{"subscriptionId":1,"requestId":@}})"},
      {"PublishHistoryData", "@"},
      {"PublishHistoryData", R"({"parameters":@})"},
      {"PublishHistoryData", R"({"parameters":{"subscriptionId":@,"requestId":1}})"},
      {"PublishHistoryData", R"({"parameters":{"subscriptionId":1,"requestId":@}})"},
  };
  for (const auto& [method, pattern] : kBodies) {
    for (const std::string& value : kWrong) {
      std::string body = pattern;
      body.replace(body.find('@'), 1, value);
      const HttpReply reply = call(method, body);
      EXPECT_EQ(reply.status, 200) << method << body;
      EXPECT_GE(parseHistoryReply(reply.body).code, 0) << method << body << reply.body;
    }
  }
  for (const char* name : {"numValuesPerNode", "returnFirstLastValue", "startTime", "endTime",
                           "resampleInterval", "returnBounds"}) {
    for (const std::string& value : kWrong) {
      const HistoryReply reply =
          plant_->client().readRaw(id_, "\"" + std::string(name) + "\":" + value);
      EXPECT_EQ(reply.code, 0) << name << value << reply.text;
    }
  }
}

TEST_F(BadInputTest, MissingListsHaveTheirCodes) {
  EXPECT_EQ(codeOf("HistoryReadRaw", "{}"), kBadInvalidArgument);
  EXPECT_EQ(codeOf("HistoryReadRaw", R"({"data":5})"), kBadInvalidArgument);
  EXPECT_EQ(codeOf("ReadNewRecords", "{}"), kBadRequest);
  EXPECT_EQ(codeOf("GetArchiveItems", R"({"items":5})"), 0x80420000);
}

TEST_F(BadInputTest, ABodyBeyondTheLimitIsTooLarge) {
  const std::string body = "{\"data\":[]," + std::string(1 << 20, ' ') + "\"parameters\":{}}";
  EXPECT_EQ(call("HistoryReadRaw", body).status, 413);
  const std::string fits = "{\"data\":[]," + std::string((1 << 20) - 40, ' ') + "\"x\":{}}";
  EXPECT_EQ(call("HistoryReadRaw", fits).status, 200);
}

TEST_F(BadInputTest, ABodyOf64MebibytesIsTooLarge) {
  EXPECT_EQ(call("HistoryReadRaw", std::string(std::size_t{64} << 20, ' ')).status, 413);
}

TEST_F(BadInputTest, AHeaderBeyondTheLimitIsTooLarge) {
  EXPECT_EQ(httpPost(port(), "/Methods/GetArchiveItems", "{}",
                     "X-Padding: " + std::string(100'000, 'x') + "\r\n")
                .status,
            431);
}

TEST_F(BadInputTest, AClientThatDoesNotFinishItsHeaderIsTimedOut) {
  HttpConnection connection(port());
  connection.send(kHalfRequest);
  // A byte now and then does not help.
  const std::int64_t begin = steadyMilliseconds();
  bool open = true;
  while (open && steadyMilliseconds() < begin + 5'000) {
    open = connection.send("X") && !connection.closedByPeer(100);
  }
  EXPECT_FALSE(open);
}

TEST_F(BadInputTest, AClientThatDoesNotFinishItsBodyIsTold) {
  HttpConnection connection(port());
  connection.send(std::string(kHalfRequest) + "Content-Length: 100\r\n\r\n{");
  EXPECT_EQ(connection.receive(5'000).status, 408);
  EXPECT_TRUE(connection.closedByPeer(5'000));
}

TEST_F(BadInputTest, AClientThatClosesInTheMiddleHarmsNobody) {
  for (int i = 0; i < 100; ++i) {
    HttpConnection connection(port());
    connection.send(std::string(kHalfRequest) + "Content-Length: 100\r\n\r\n{");
  }
}

TEST_F(BadInputTest, ConnectionsBeyondTheLimitAreTurnedAwayAndTheOthersServed) {
  constexpr int kLimit = 64;
  std::vector<std::unique_ptr<HttpConnection>> open;
  for (int i = 0; i < kLimit; ++i) {
    open.push_back(std::make_unique<HttpConnection>(port()));
    ASSERT_TRUE(open.back()->send(postRequest("/Methods/GetArchiveItems", "{}")));
    ASSERT_EQ(open.back()->receive().status, 200) << i;
  }
  for (int i = 0; i < 10; ++i) {
    HttpConnection tooMany(port());
    static_cast<void>(tooMany.send(postRequest("/Methods/GetArchiveItems", "{}")));
    EXPECT_EQ(tooMany.receive().status, 429);
  }
  ASSERT_TRUE(open.front()->send(postRequest("/Methods/GetArchiveItems", "{}")));
  EXPECT_EQ(open.front()->receive().status, 200);
  open.clear();
  EXPECT_TRUE(waitUntil([&] { return call("GetArchiveItems", "{}").status == 200; }, 5'000));
}

TEST_F(BadInputTest, SeveralRequestsOnOneConnectionAreAnsweredInOrder) {
  HttpConnection connection(port());
  std::string requests;
  for (int i = 0; i < 10; ++i) requests += postRequest("/Methods/GetArchiveItems", "{}");
  connection.send(requests + postRequest("/Methods/NoSuchMethod", "{}"));
  for (int i = 0; i < 10; ++i) EXPECT_EQ(connection.receive().status, 200) << i;
  EXPECT_EQ(connection.receive().status, 404);
}

TEST(TokenTest, AHostWithATokenServesOnlyWhoShowsIt) {
  PlantConfig config;
  config.variables = "[" + variable(1, kPath, "Double") + "]";
  config.http = R"({"port": 0, "token": "s3cret"})";
  Plant plant(config);
  ASSERT_TRUE(plant.start());
  const auto statusWith = [&](const std::string& header) {
    return httpPost(plant.port(), "/Methods/GetArchiveItems", "{}", header).status;
  };
  EXPECT_EQ(statusWith(""), 401);
  EXPECT_EQ(statusWith("Authorization: Bearer wrong\r\n"), 401);
  EXPECT_EQ(statusWith("Authorization: Bearer s3cre\r\n"), 401);
  EXPECT_EQ(statusWith("Authorization: Bearer s3crets\r\n"), 401);
  EXPECT_EQ(statusWith("Authorization: Basic s3cret\r\n"), 401);
  EXPECT_EQ(statusWith("Authorization: Bearer s3cret\r\n"), 200);
}

}  // namespace
}  // namespace orva::test
