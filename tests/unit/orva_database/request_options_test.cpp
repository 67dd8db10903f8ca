#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "share/archive_request.h"
#include "share/ticks.h"
#include "support/trace_capture.h"

namespace orva::archive {
namespace {

using test::TraceCapture;
using Options = Request::Options;

json::Document documentOf(const std::string& text) {
  json::Document document;
  document.Parse(text.c_str());
  EXPECT_FALSE(document.HasParseError()) << text;
  return document;
}

Options options(const std::string& parameters, Options from = {}) {
  from.fromJson(documentOf(parameters));
  return from;
}

std::string jsonOf(const Options& options) {
  rapidjson::StringBuffer text;
  rapidjson::Writer<rapidjson::StringBuffer> writer(text);
  options.toJson(writer);
  return text.GetString();
}

SharedRequest made(const std::string& body) { return Request::make(documentOf(body)); }

std::vector<std::int64_t> idsOf(const SharedRequest& request) {
  std::vector<std::int64_t> ids;
  for (const SharedItem& item : request->items()) ids.push_back(item->cacheId);
  return ids;
}

// One JSON value of each type, none of which is a number or text.
const char* const kOddValues[] = {"null", "true", "false", "{}", "[]", "[1]", "{\"a\":1}"};

// Catches the traces of all tests: most bodies here are wrong in some way.
struct RequestOptionsTest : testing::Test {
  TraceCapture traces;
};
struct RequestMakeTest : RequestOptionsTest {};

// ---- options

TEST_F(RequestOptionsTest, StartAllFalseAndZero) {
  const Options fresh;
  EXPECT_FALSE(fresh.returnBounds);
  EXPECT_FALSE(fresh.returnFirstLastValue);
  EXPECT_FALSE(fresh.onlyItemList);
  EXPECT_FALSE(fresh.fourthFlag);
  EXPECT_EQ(fresh.layerId, 0);
  EXPECT_EQ(fresh.startTime, 0);
  EXPECT_EQ(fresh.endTime, 0);
  EXPECT_EQ(fresh.resampleInterval, 0);
}

TEST_F(RequestOptionsTest, TimesAreMillisecondsSince1970) {
  const Options read = options(R"({"startTime":1000,"endTime":-1})");
  EXPECT_EQ(read.startTime, 116'444'736'010'000'000);
  EXPECT_EQ(read.endTime, 116'444'735'999'990'000);
}

TEST_F(RequestOptionsTest, TimesMayBeDecimalText) {
  const Options read = options(R"({"startTime":"1000","endTime":" -5x"})");
  EXPECT_EQ(read.startTime, 116'444'736'010'000'000);
  EXPECT_EQ(read.endTime, 116'444'735'999'950'000);
}

TEST_F(RequestOptionsTest, TimeZeroIsOpenAndNotTheYear1970) {
  const Options read = options(R"({"startTime":0,"endTime":"0"})");
  EXPECT_EQ(read.startTime, 0);
  EXPECT_EQ(read.endTime, 0);
}

TEST_F(RequestOptionsTest, AMissingOrForeignTimeIsOpen) {
  Options before;
  before.startTime = 5;
  before.endTime = 6;
  EXPECT_EQ(options("{}", before).startTime, 0);
  EXPECT_EQ(options("{}", before).endTime, 0);
  for (const std::string value :
       {"1.5", "1e3", "9223372036854775808", "null", "true", "{}", "[7]"}) {
    const Options read = options("{\"startTime\":" + value + ",\"endTime\":" + value + "}", before);
    EXPECT_EQ(read.startTime, 0) << value;
    EXPECT_EQ(read.endTime, 0) << value;
  }
}

TEST_F(RequestOptionsTest, AStartOfTickZeroIsOpen) {
  EXPECT_EQ(options(R"({"startTime":-11644473600000})").startTime, 0);
}

TEST_F(RequestOptionsTest, TimesBeyond64BitsSaturate) {
  EXPECT_EQ(options(R"({"startTime":9223372036854775807})").startTime, INT64_MAX);
  EXPECT_EQ(options(R"({"startTime":-9223372036854775808})").startTime, INT64_MIN);
  EXPECT_EQ(options(R"({"endTime":"99999999999999999999999"})").endTime, INT64_MAX);
  EXPECT_EQ(options(R"({"endTime":-933981677285477})").endTime, INT64_MIN + 5808);
  EXPECT_EQ(options(R"({"endTime":-933981677285478})").endTime, INT64_MIN);
  EXPECT_EQ(options(R"({"endTime":910692730085477})").endTime, INT64_MAX - 5807);
  EXPECT_EQ(options(R"({"endTime":910692730085478})").endTime, INT64_MAX);
}

TEST_F(RequestOptionsTest, OnlyTheLiteralTrueSetsAFlag) {
  EXPECT_TRUE(options(R"({"returnFirstLastValue":true})").returnFirstLastValue);
  EXPECT_TRUE(options(R"({"returnBounds":true})").returnBounds);
  Options before;
  before.returnFirstLastValue = true;
  before.returnBounds = true;
  for (const std::string value : {"false", "1", "1.0", "\"true\"", "null", "[true]", "{}"}) {
    const Options read =
        options("{\"returnFirstLastValue\":" + value + ",\"returnBounds\":" + value + "}", before);
    EXPECT_FALSE(read.returnFirstLastValue) << value;
    EXPECT_FALSE(read.returnBounds) << value;
  }
}

TEST_F(RequestOptionsTest, AFirstLastRequestReadsNoRange) {
  Options before;
  before.startTime = 11;
  before.endTime = 12;
  before.layerId = 2;
  before.returnBounds = true;
  before.fourthFlag = true;
  before.resampleInterval = 13;
  const Options read = options(
      R"({"returnFirstLastValue":true,"startTime":1000,"endTime":2000,"returnBounds":false,)"
      R"("resampleInterval":600000000.0})",
      before);
  EXPECT_TRUE(read.returnFirstLastValue);
  EXPECT_EQ(read.startTime, 11);
  EXPECT_EQ(read.endTime, 12);
  EXPECT_EQ(read.layerId, 2);
  EXPECT_TRUE(read.returnBounds);
  EXPECT_TRUE(read.fourthFlag);
  EXPECT_EQ(read.resampleInterval, 0);
}

TEST_F(RequestOptionsTest, AFullRangeClearsTheFourthFlagAndLeavesTheItemListFlag) {
  Options before;
  before.fourthFlag = true;
  before.onlyItemList = true;
  const Options read = options(R"({"onlyItemList":false})", before);
  EXPECT_FALSE(read.fourthFlag);
  EXPECT_TRUE(read.onlyItemList);
  EXPECT_FALSE(options(R"({"onlyItemList":true})").onlyItemList);
}

TEST_F(RequestOptionsTest, TheResampleIntervalChoosesTheLayer) {
  struct Case {
    const char* text;
    std::int64_t interval;
    std::int32_t layer;
  };
  for (const Case& c : {
           Case{"0.0", 0, 0},
           Case{"599999999.0", 599'999'999, 0},
           Case{"599999999.9", 599'999'999, 0},
           Case{"600000000.0", 600'000'000, 1},
           Case{"6e8", 600'000'000, 1},
           Case{"35999999999.0", 35'999'999'999, 1},
           Case{"36000000000.0", 36'000'000'000, 2},
           Case{"1e300", INT64_MAX, 2},
           Case{"1e19", INT64_MAX, 2},
       }) {
    const Options read = options(std::string("{\"resampleInterval\":") + c.text + "}");
    EXPECT_EQ(read.resampleInterval, c.interval) << c.text;
    EXPECT_EQ(read.layerId, c.layer) << c.text;
  }
}

TEST_F(RequestOptionsTest, AnIntervalWithoutFractionOrExponentIsRaw) {
  Options before;
  before.resampleInterval = 5;
  before.layerId = 2;
  for (const std::string value :
       {"600000000", "36000000000", "-1", "\"600000000.0\"", "null", "true", "[6e8]", "{}"}) {
    const Options read = options("{\"resampleInterval\":" + value + "}", before);
    EXPECT_EQ(read.resampleInterval, 0) << value;
    EXPECT_EQ(read.layerId, 0) << value;
  }
}

TEST_F(RequestOptionsTest, ANegativeIntervalIsRaw) {
  for (const char* value : {"-0.5", "-600000000.0", "-1e300"}) {
    const Options read = options(std::string("{\"resampleInterval\":") + value + "}");
    EXPECT_EQ(read.resampleInterval, 0) << value;
    EXPECT_EQ(read.layerId, 0) << value;
  }
}

TEST_F(RequestOptionsTest, LayersFollowTheirThresholds) {
  EXPECT_EQ(Options::layerFor(INT64_MIN), 0);
  EXPECT_EQ(Options::layerFor(599'999'999), 0);
  EXPECT_EQ(Options::layerFor(600'000'000), 1);
  EXPECT_EQ(Options::layerFor(35'999'999'999), 1);
  EXPECT_EQ(Options::layerFor(36'000'000'000), 2);
  EXPECT_EQ(Options::layerFor(INT64_MAX), 2);
}

TEST_F(RequestOptionsTest, ParametersThatAreNoObjectGiveTheDefaultsAndATraceForEachMember) {
  for (const char* value : {"null", "true", "1", "2.5", "\"x\"", "[]"}) {
    traces.clear();
    const Options read = options(value);
    EXPECT_EQ(jsonOf(read), jsonOf(Options())) << value;
    EXPECT_EQ(traces.count("<--Assert IsObject() failed\n"), 5) << value;
  }
}

TEST_F(RequestOptionsTest, AreWrittenForLogsWithTimesInTicks) {
  EXPECT_EQ(
      jsonOf(Options()),
      R"({"bounds":false,"firstLast":false,"onlyItemList":false,"layerId":0,"start":0,"end":0})");
  Options full;
  full.returnBounds = true;
  full.layerId = 2;
  full.startTime = 116'444'736'010'000'000;
  full.endTime = -5;
  full.resampleInterval = 7;
  full.fourthFlag = true;
  EXPECT_EQ(jsonOf(full), R"({"bounds":true,"firstLast":false,"onlyItemList":false,"layerId":2,)"
                          R"("start":116444736010000000,"end":-5})");
  Options flags;
  flags.returnFirstLastValue = true;
  EXPECT_NE(jsonOf(flags).find("\"firstLast\":true,\"onlyItemList\":false"), std::string::npos);
  flags = Options();
  flags.onlyItemList = true;
  EXPECT_NE(jsonOf(flags).find("\"firstLast\":false,\"onlyItemList\":true"), std::string::npos);
}

// ---- whole requests

TEST_F(RequestMakeTest, TakesAnItemForEachElementInOrder) {
  const SharedRequest request =
      made(R"({"data":[{"archiveItemId":5},{"archiveItemId":"-7"},{"archiveItemId":5},)"
           R"({"archiveItemId":9223372036854775807}]})");
  ASSERT_TRUE(request);
  EXPECT_EQ(idsOf(request), (std::vector<std::int64_t>{5, -7, 5, INT64_MAX}));
  EXPECT_EQ(request->status(), 0x80320000U);
  EXPECT_EQ(request->tag(), 0);
  for (const SharedItem& item : request->items()) EXPECT_EQ(item->request.lock(), request);
}

TEST_F(RequestMakeTest, AMissingOrForeignIdIsZero) {
  const SharedRequest request =
      made(R"({"data":[{},{"archiveItemId":1.5},{"archiveItemId":null},{"archiveItemId":true},)"
           R"({"archiveItemId":{}},{"archiveItemId":[3]},{"archiveItemId":9223372036854775808}]})");
  EXPECT_EQ(idsOf(request), std::vector<std::int64_t>(7, 0));
}

TEST_F(RequestMakeTest, AContinuationPointIsTakenAsItIsUnlessItIsZero) {
  const SharedRequest request =
      made(R"({"data":[{"continuationPoint":133604064000000001},{"continuationPoint":"123"},)"
           R"({"continuationPoint":-5},{"continuationPoint":0},{},{"continuationPoint":1.5},)"
           R"({"continuationPoint":"x"}]})");
  const auto& items = request->items();
  EXPECT_EQ(items[0]->continuationPoint().value(), 133'604'064'000'000'001);
  EXPECT_EQ(items[1]->continuationPoint().value(), 123);
  EXPECT_EQ(items[2]->continuationPoint().value(), -5);
  for (std::size_t i = 3; i < items.size(); ++i) EXPECT_FALSE(items[i]->continuationPoint()) << i;
}

TEST_F(RequestMakeTest, TheLimitIsSharedOutUnlessItIsGiven) {
  const auto limit = [](const std::string& parameters, std::size_t elements) {
    std::string data;
    for (std::size_t i = 0; i < elements; ++i) data += i == 0 ? "{}" : ",{}";
    const SharedRequest request =
        made("{\"data\":[" + data + "],\"parameters\":" + parameters + "}");
    for (const SharedItem& item : request->items()) {
      EXPECT_EQ(item->numValuesPerNode, request->items()[0]->numValuesPerNode);
    }
    return request->items()[0]->numValuesPerNode;
  };
  EXPECT_EQ(limit("{}", 1), 10'000U);
  EXPECT_EQ(limit("{}", 3), 3'333U);
  EXPECT_EQ(limit("{}", 10'000), 1U);
  EXPECT_EQ(limit("{}", 10'001), 0U);
  EXPECT_EQ(limit(R"({"numValuesPerNode":7})", 3), 7U);
  EXPECT_EQ(limit(R"({"numValuesPerNode":4294967295})", 3), 4'294'967'295U);
  for (const std::string value :
       {"0", "-1", "4294967296", "7.0", "\"7\"", "null", "true", "[7]", "{}"}) {
    EXPECT_EQ(limit("{\"numValuesPerNode\":" + value + "}", 3), 3'333U) << value;
  }
}

TEST_F(RequestMakeTest, TheResampleIntervalGoesToEachItem) {
  const SharedRequest request =
      made(R"({"data":[{},{}],"parameters":{"resampleInterval":600000000.0}})");
  EXPECT_EQ(request->options.resampleInterval, 600'000'000);
  EXPECT_EQ(request->options.layerId, 1);
  for (const SharedItem& item : request->items()) EXPECT_EQ(item->resampleInterval, 600'000'000);
}

TEST_F(RequestMakeTest, TheOptionsAreThoseOfTheParameters) {
  const SharedRequest request =
      made(R"({"parameters":{"startTime":1000,"endTime":2000,"returnBounds":true},"data":[{}]})");
  EXPECT_EQ(request->options.startTime, 116'444'736'010'000'000);
  EXPECT_EQ(request->options.endTime, 116'444'736'020'000'000);
  EXPECT_TRUE(request->options.returnBounds);
}

TEST_F(RequestMakeTest, NoParametersAreParametersWithNothingInThem) {
  for (const char* body : {R"({"data":[{}]})", R"({"data":[{}],"parameters":null})",
                           R"({"data":[{}],"parameters":[]})", R"({"data":[{}],"parameters":"x"})",
                           R"({"data":[{}],"parameters":1})"}) {
    const SharedRequest request = made(body);
    ASSERT_TRUE(request) << body;
    EXPECT_EQ(jsonOf(request->options), jsonOf(Options()));
    EXPECT_EQ(request->items()[0]->numValuesPerNode, 10'000U);
  }
}

TEST_F(RequestMakeTest, AnEmptyDataArrayIsARequestWithoutItems) {
  for (const char* body :
       {R"({"data":[]})", R"({"data":[],"parameters":{"numValuesPerNode":0}})"}) {
    const SharedRequest request = made(body);
    ASSERT_TRUE(request);
    EXPECT_TRUE(request->items().empty());
  }
}

TEST_F(RequestMakeTest, WithoutADataArrayThereIsNoRequestButOneTraceLine) {
  for (const std::string value : {"null", "true", "false", "1", "2.5", "\"x\"", "{}"}) {
    traces.clear();
    EXPECT_FALSE(made("{\"data\":" + value + "}")) << value;
    ASSERT_EQ(traces.lines().size(), 1U) << value;
    EXPECT_EQ(traces.lines()[0].level, 0x20U);
    EXPECT_EQ(traces.lines()[0].text,
              "<-- ReturnError: !items.IsArray() evaluated to true! Returning 0x80B60000\n");
  }
  traces.clear();
  EXPECT_FALSE(made("{}"));
  EXPECT_EQ(traces.lines().size(), 1U);
}

TEST_F(RequestMakeTest, ABodyThatIsNoObjectIsNoRequest) {
  for (const char* body : {"null", "true", "1", "2.5", "\"x\"", "[]", "[{\"data\":[]}]"}) {
    traces.clear();
    EXPECT_FALSE(made(body)) << body;
    EXPECT_EQ(traces.count("<--Assert IsObject() failed\n"), 1) << body;
    EXPECT_EQ(
        traces.count("<-- ReturnError: !items.IsArray() evaluated to true! Returning 0x80B60000\n"),
        1)
        << body;
  }
}

TEST_F(RequestMakeTest, AnElementThatIsNoObjectIsItemZeroAndTraced) {
  for (const std::string value : {"null", "true", "5", "2.5", "\"5\"", "[5]"}) {
    traces.clear();
    const SharedRequest request = made("{\"data\":[" + value + "],\"parameters\":{}}");
    ASSERT_TRUE(request) << value;
    EXPECT_EQ(idsOf(request), std::vector<std::int64_t>{0});
    EXPECT_FALSE(request->items()[0]->continuationPoint());
    EXPECT_EQ(traces.count("<--Assert IsObject() failed\n"), 2) << value;
  }
}

TEST_F(RequestMakeTest, OddValuesInTheRightPlacesAreIgnored) {
  for (const std::string value : kOddValues) {
    const SharedRequest request =
        made("{\"data\":[{\"archiveItemId\":" + value + ",\"continuationPoint\":" + value +
             "}],\"parameters\":{\"numValuesPerNode\":" + value + ",\"startTime\":" + value +
             ",\"endTime\":" + value + ",\"resampleInterval\":" + value + "}}");
    ASSERT_TRUE(request) << value;
    EXPECT_EQ(idsOf(request), std::vector<std::int64_t>{0});
    EXPECT_EQ(jsonOf(request->options), jsonOf(Options()));
  }
}

}  // namespace
}  // namespace orva::archive
