#include <cstdio>
#include <utility>

#include "unit/orva_database/remote_fixture.h"

namespace orva::archive {
namespace {

using RemoteConfigTest = RemoteArchiveSourceTest;

TEST_F(RemoteConfigTest, ThePeriodIsOneSecondUnlessConfigured) {
  EXPECT_EQ(source->requestPeriod(), 10'000'000);
  const std::vector<std::pair<std::string, std::int64_t>> cases = {
      {R"({})", 10'000'000},
      {R"({"requestPeriod":20000000})", 20'000'000},
      {R"({"requestPeriod":"20000000"})", 20'000'000},
      {R"({"requestPeriod":-5})", -5},
      {R"({"requestPeriod":9223372036854775807})", INT64_MAX},
      {R"({"requestPeriod":9223372036854775808})", 10'000'000},
      {R"({"requestPeriod":" -5x"})", -5},
      {R"({"requestPeriod":1.5})", 10'000'000},
      {R"({"requestPeriod":null})", 10'000'000},
      {R"({"requestPeriod":[1]})", 10'000'000},
  };
  for (const auto& [section, period] : cases) {
    EXPECT_EQ(init(section), 0) << section;
    EXPECT_EQ(source->requestPeriod(), period) << section;
  }
}

TEST_F(RemoteConfigTest, ItemsKeepTheirOrderBelowTheirController) {
  EXPECT_EQ(init(R"({"items":[{"controllerIndex":2,"localId":1,"remotePath":"a"},
                              {"localId":2,"remotePath":"b"},
                              {"controllerIndex":2,"localId":3,"remotePath":"c"}]})"),
            0);
  const auto controllers = source->controllers();
  ASSERT_EQ(controllers.size(), 2U);
  ASSERT_EQ(controllers.at(0).size(), 1U);
  EXPECT_EQ(controllers.at(0).front().localId, 2);
  ASSERT_EQ(controllers.at(2).size(), 2U);
  EXPECT_EQ(controllers.at(2).front().remotePath, "a");
  EXPECT_EQ(controllers.at(2).back().remotePath, "c");
}

TEST_F(RemoteConfigTest, FieldsAreReadLeniently) {
  init(R"({"items":[{"controllerIndex":"2","localId":"-12x","remoteId":9007199254740993,
                     "localPath":5,"remotePath":"a\u0000b"},
                    {"controllerIndex":1.5,"localId":1.5,"remoteId":true,"localPath":"p"},
                    7]})");
  const auto controllers = source->controllers();
  ASSERT_EQ(controllers.size(), 1U);
  const std::vector<RemoteSourceInfo> items(controllers.at(0).begin(), controllers.at(0).end());
  ASSERT_EQ(items.size(), 3U);
  EXPECT_EQ(items[0].localId, -12);
  EXPECT_EQ(items[0].remoteId, 9007199254740993);
  EXPECT_EQ(items[0].localPath, "");
  EXPECT_EQ(items[0].remotePath, std::string("a\0b", 3));
  EXPECT_EQ(items[1].localId, 0);
  EXPECT_EQ(items[1].remoteId, 0);
  EXPECT_EQ(items[1].localPath, "p");
  EXPECT_EQ(items[2].remotePath, "");
}

TEST_F(RemoteConfigTest, SectionsOfOtherTypesConfigureNothing) {
  for (const char* section : {"[]", "5", "null", "\"x\"", R"({"items":{}})", R"({"items":5})"}) {
    configureLoad();
    EXPECT_EQ(init(section), 0) << section;
    EXPECT_TRUE(source->controllers().empty()) << section;
  }
}

TEST_F(RemoteConfigTest, InitReplacesTheTables) {
  configureLoad();
  init(sectionText({itemText(3, 8, "Other")}));
  const auto controllers = source->controllers();
  ASSERT_EQ(controllers.size(), 1U);
  EXPECT_EQ(controllers.at(3).front().localId, 8);
}

TEST_F(RemoteConfigTest, ASectionThatCannotBeParsedIsTracedAndLeavesNoItems) {
  for (const std::string& section :
       {std::string("{"), std::string(), std::string(65, '[') + std::string(65, ']')}) {
    configureLoad();
    traces.clear();
    const int result = init(section);
    EXPECT_LT(result, 0);
    char line[200];
    std::snprintf(line, sizeof line,
                  "<--ReturnError: orva::parse_json(GetConfigDataValue(\"RemoteData\"), cfg) "
                  "returns 0x%08X\n",
                  static_cast<unsigned>(result));
    EXPECT_EQ(traces.count(line), 1);
    EXPECT_TRUE(source->controllers().empty());
  }
}

TEST_F(RemoteConfigTest, AControllerWithoutAddressIsNotAsked) {
  localItem(7, "Here/Load");
  init(sectionText({itemText(1, 7, "Load"), itemText(-1, 7, "Load")}));
  pass();
  EXPECT_EQ(network.exchanges, 0);
}

TEST_F(RemoteConfigTest, WithoutASocketNothingIsDone) {
  network.open = false;
  configureLoad();
  pass();
  EXPECT_EQ(network.exchanges, 0);
  EXPECT_EQ(source->Start(), 0);
  EXPECT_EQ(source->Stop(), 0);
}

TEST_F(RemoteConfigTest, DestroySourceEmptiesTheTables) {
  configureLoad();
  source->DestroySource();
  EXPECT_TRUE(source->controllers().empty());
  pass();
  EXPECT_EQ(network.exchanges, 0);
}

TEST_F(RemoteConfigTest, ThereIsOneInstance) {
  EXPECT_EQ(RemoteArchiveSource::Instance(), RemoteArchiveSource::Instance());
}

}  // namespace
}  // namespace orva::archive
