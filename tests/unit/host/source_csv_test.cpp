#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <functional>
#include <limits>
#include <string>
#include <thread>
#include <vector>

#include "orva_database/write_data_fb.h"
#include "orva_host/config_sections.h"
#include "orva_host/csv_reader.h"
#include "orva_host/plant_row.h"
#include "orva_host/replay_pace.h"
#include "orva_host/source_runner.h"
#include "orva_host/variables.h"
#include "share/archive_manager.h"
#include "share/ticks.h"
#include "support/scripted_provider.h"
#include "support/temp_folder.h"
#include "support/trace_capture.h"

namespace orva::host {
namespace {

using Record = std::vector<CsvReader::Field>;

// ---- records

class CsvReaderTest : public ::testing::Test {
 protected:
  // The records of a text, fields joined with '|', a bad one as "line:reason".
  std::vector<std::string> recordsOf(const std::string& text) {
    CsvReader reader;
    EXPECT_EQ(reader.open(folder_.write("file.csv", text)), 0);
    std::vector<std::string> all;
    Record record;
    for (;;) {
      const CsvReader::Result result = reader.next(record);
      if (result == CsvReader::Result::end) return all;
      std::string joined;
      if (result == CsvReader::Result::bad) {
        joined = std::to_string(reader.line()) + ":" + reader.error();
      } else {
        for (const CsvReader::Field& field : record) joined += "|" + field.text;
      }
      all.push_back(joined);
    }
  }
  using Texts = std::vector<std::string>;

  test::TempFolder folder_;
};

TEST_F(CsvReaderTest, FieldsAreSeparatedByCommasAndRecordsByLines) {
  EXPECT_EQ(recordsOf("a,b,c\n1,,3\n,,\n"), (Texts{"|a|b|c", "|1||3", "|||"}));
  EXPECT_EQ(recordsOf("a,b\r\nc,\r\n\r\n\nd"), (Texts{"|a|b", "|c|", "|d"}));
  EXPECT_EQ(recordsOf(""), Texts{});
  EXPECT_EQ(recordsOf("\xEF\xBB\xBFx,y\n"), Texts{"|x|y"});
}

TEST_F(CsvReaderTest, QuotedFieldsMayHoldAnything) {
  EXPECT_EQ(recordsOf("\"a,b\",\"two\nlines\",\"say \"\"no\"\"\",\"\",\"  x  \"\r\nnext\n"),
            (Texts{"|a,b|two\nlines|say \"no\"||  x  ", "|next"}));
  EXPECT_EQ(recordsOf("in\"side,x\ry\n"), Texts{"|in\"side|x\ry"});
}

TEST_F(CsvReaderTest, ABadRecordIsToldWithItsLineAndTheNextIsRead) {
  EXPECT_EQ(recordsOf("a\n\"two\nlines\"x,1\nb\n"),
            (Texts{"|a", "2:text after a closing quote", "|b"}));
  EXPECT_EQ(recordsOf("a\n\"no end\nb\n"), (Texts{"|a", "2:a quoted field does not end"}));
}

TEST_F(CsvReaderTest, ARecordWithoutEndDoesNotTakeAllMemory) {
  const std::string huge(CsvReader::kMaxRecord + 10, 'x');
  EXPECT_EQ(recordsOf(huge + "\nb\n"), (Texts{"1:the row is too long", "|b"}));
  EXPECT_EQ(recordsOf("\"" + huge + "\nb\n"), (Texts{"1:a quoted field does not end", "|b"}));
}

TEST_F(CsvReaderTest, TheRowBehindOneThatIsJustTooLongIsRead) {
  for (const std::size_t size : {CsvReader::kMaxRecord - 1, CsvReader::kMaxRecord,
                                 CsvReader::kMaxRecord + 1, CsvReader::kMaxRecord + 2}) {
    const Texts records = recordsOf(std::string(size, 'x') + "\nb\n");
    ASSERT_EQ(records.size(), 2U) << size;
    EXPECT_EQ(records[1], "|b") << size;
  }
}

TEST_F(CsvReaderTest, FieldsLongerThanTheBufferAreWhole) {
  const std::string text(200'000, 'y');
  EXPECT_EQ(recordsOf(text + ",\"" + text + "\"\n"), Texts{"|" + text + "|" + text});
}

TEST_F(CsvReaderTest, WhatCannotBeOpenedHasAReason) {
  CsvReader missing;
  EXPECT_EQ(missing.open(folder_.path("missing.csv")), ENOENT);
  CsvReader folder;
  EXPECT_EQ(folder.open(folder_.path()), EISDIR);
}

// ---- rows

Record recordOf(const std::vector<std::string>& texts) {
  Record record;
  for (const std::string& text : texts) record.push_back({text, false});
  return record;
}

const char* parse(const std::string& type, const std::string& value, PlantRow& row) {
  return parsePlantRow(recordOf({"1000", "7", "Plant/Load", type, value, "0"}), row);
}

TEST(PlantRowTest, ARowBecomesASample) {
  PlantRow row;
  ASSERT_EQ(parsePlantRow(recordOf({"1711843200085", "9007199254740993", "Plant/Kühlung/EQ 1",
                                    "int64", "-9007199254740995", "2156527616"}),
                          row),
            nullptr);
  EXPECT_EQ(row.ticks, kUnixEpochTicks + 1711843200085 * kTicksPerMillisecond);
  EXPECT_EQ(row.id, 9007199254740993);
  EXPECT_EQ(row.path, "Plant/Kühlung/EQ 1");
  EXPECT_EQ(row.value.GetType(), OpcUaType_Int64);
  std::int64_t value = 0;
  EXPECT_TRUE(row.value.GetInt64(value));
  EXPECT_EQ(value, -9007199254740995);
  EXPECT_EQ(row.quality, 2156527616U);
}

TEST(PlantRowTest, ValuesTakeTheTypeOfTheirColumn) {
  PlantRow row;
  double value = 0;
  ASSERT_EQ(parse("double", "-1.5e3", row), nullptr);
  EXPECT_EQ(row.value.GetType(), OpcUaType_Double);
  EXPECT_TRUE(row.value.GetDouble(value));
  EXPECT_EQ(value, -1500);
  ASSERT_EQ(parse("float", "Inf", row), nullptr);
  EXPECT_EQ(row.value.GetType(), OpcUaType_Float);
  EXPECT_TRUE(row.value.GetDouble(value));
  EXPECT_EQ(value, std::numeric_limits<double>::infinity());
  ASSERT_EQ(parse("double", "-Inf", row), nullptr);
  EXPECT_TRUE(row.value.GetDouble(value));
  EXPECT_EQ(value, -std::numeric_limits<double>::infinity());
  ASSERT_EQ(parse("double", "NaN", row), nullptr);
  EXPECT_TRUE(row.value.GetDouble(value));
  EXPECT_TRUE(std::isnan(value));
  ASSERT_EQ(parse("uint32", "4294967295", row), nullptr);
  EXPECT_EQ(row.value.GetType(), OpcUaType_UInt32);
  ASSERT_EQ(parse("bool", "true", row), nullptr);
  EXPECT_EQ(row.value.GetType(), OpcUaType_Boolean);
  for (const char* text : {"", "NaN", "true", "  padded  ", "two\nlines"}) {
    ASSERT_EQ(parse("string", text, row), nullptr);
    EXPECT_EQ(row.value.GetType(), OpcUaType_String);
    EXPECT_EQ(row.value.GetString(), text);
  }
}

TEST(PlantRowTest, ValuesThatAreNoneOfTheirTypeAreBad) {
  const struct {
    const char* type;
    const char* value;
  } kCases[] = {{"double", ""},      {"double", "x"},
                {"double", "1.5x"},  {"double", " 1"},
                {"double", "nan"},   {"double", "inf"},
                {"double", "1e999"}, {"float", "1e39"},
                {"int64", "1.5"},    {"int64", "9223372036854775808"},
                {"uint32", "-1"},    {"uint32", "4294967296"},
                {"bool", "1"},       {"bool", "True"},
                {"", "1"},           {"real", "1"}};
  PlantRow row;
  for (const auto& oneCase : kCases) {
    EXPECT_NE(parse(oneCase.type, oneCase.value, row), nullptr)
        << oneCase.type << " " << oneCase.value;
  }
}

// The line that a sample of this type and value becomes.
std::string written(const std::string& time, const std::string& type, const std::string& value) {
  PlantRow row;
  const char* reason =
      parsePlantRow(recordOf({time, "7", "Plant/Load", type, value, "1073741824"}), row);
  if (reason != nullptr) return reason;
  std::string line;
  appendPlantRow(plantRowItem(row.id, row.path), row.ticks, row.value, row.quality, line);
  return line;
}

TEST(PlantRowTest, ASampleBecomesOneFormOfItsRow) {
  const struct {
    const char* time;
    const char* type;
    const char* value;
    const char* line;  // what stands in it for the time; for type and value
    const char* end;
  } kCases[] = {
      {"1711843200085", "double", "20.5000", "1711843200085", "double,20.5"},
      {"1.5", "double", "1e300", "1.5", "double,1e+300"},
      {"0.0001", "double", "-0", "0.0001", "double,-0"},
      {"-0.5", "float", "0.1", "-0.5", "float,0.1"},
      {"-1.0340", "float", "-Inf", "-1.034", "float,-Inf"},
      {"007", "double", "NaN", "7", "double,NaN"},
      {"-11644473600000", "int64", "-9223372036854775808", "-11644473600000",
       "int64,-9223372036854775808"},
      {"1", "uint64", "18446744073709551615", "1", "uint64,18446744073709551615"},
      {"1", "int32", "-2147483648", "1", "int32,-2147483648"},
      {"1", "uint32", "4294967295", "1", "uint32,4294967295"},
      {"1", "int16", "-32768", "1", "int16,-32768"},
      {"1", "uint16", "65535", "1", "uint16,65535"},
      {"1", "int8", "-128", "1", "int8,-128"},
      {"1", "uint8", "255", "1", "uint8,255"},
      {"1", "datetime", "133000000000000001", "1", "datetime,133000000000000001"},
      {"1", "bool", "true", "1", "bool,true"},
      {"1", "null", "", "1", "null,"},
      {"1", "json", "{\"a\":1}", "1", "json,\"{\"\"a\"\":1}\""},
      {"1", "string", "two\nlines", "1", "string,\"two\nlines\""},
      {"1", "string", "", "1", "string,\"\""},
      {"1", "string", " padded", "1", "string,\" padded\""},
      {"1", "string", "semi;colon", "1", "string,semi;colon"},
  };
  for (const auto& each : kCases) {
    const std::string line = std::string(each.line) + ",7,Plant/Load," + each.end + ",1073741824\n";
    EXPECT_EQ(written(each.time, each.type, each.value), line);
  }
  EXPECT_EQ(plantRowItem(-3, "a, b"), "-3,\"a, b\"");
}

TEST(PlantRowTest, EachOtherColumnIsCheckedToo) {
  const std::vector<std::string> good = {"1000", "7", "p", "bool", "true", "0"};
  PlantRow row;
  ASSERT_EQ(parsePlantRow(recordOf(good), row), nullptr);
  const struct {
    std::size_t column;
    const char* text;
    const char* reason;
  } kCases[] = {{0, "", "time_ms is no time in milliseconds"},
                {0, "1.", "time_ms is no time in milliseconds"},
                {0, "1.00001", "time_ms is no time in milliseconds"},
                {0, "1.5e3", "time_ms is no time in milliseconds"},
                {0, "9223372036854775807", "time_ms is no time in milliseconds"},
                {0, "-11644473600001", "time_ms is no time in milliseconds"},
                {1, "x", "item_id is no integer"},
                {1, "9223372036854775808", "item_id is no integer"},
                {5, "", "quality is no status code"},
                {5, "-1", "quality is no status code"},
                {5, "4294967296", "quality is no status code"}};
  for (const auto& oneCase : kCases) {
    std::vector<std::string> texts = good;
    texts[oneCase.column] = oneCase.text;
    EXPECT_STREQ(parsePlantRow(recordOf(texts), row), oneCase.reason) << oneCase.text;
  }
  EXPECT_STREQ(parsePlantRow(recordOf({"1000"}), row), "a row has six columns");
  EXPECT_STREQ(parsePlantRow(recordOf({"1", "7", "p", "bool", "true", "0", ""}), row),
               "a row has six columns");
}

// ---- pace

std::vector<std::int64_t> arrivals(const std::vector<std::int64_t>& times) {
  ReplayPace pace;
  std::vector<std::int64_t> all;
  std::size_t added = 0;
  for (std::size_t i = 0; i < times.size(); ++i) {
    while (added < times.size() && added < i + ReplayPace::kWindow) pace.add(times[added++]);
    all.push_back(pace.next());
  }
  return all;
}

TEST(ReplayPaceTest, RowsInOrderArriveAtTheirTimes) {
  std::vector<std::int64_t> times;
  for (std::int64_t i = 0; i < 200; ++i) times.push_back(i * 10);
  EXPECT_EQ(arrivals(times), times);
  EXPECT_EQ(arrivals({5}), (std::vector<std::int64_t>{5}));
}

TEST(ReplayPaceTest, LateRowsHoldUpNobodyAndEarlyOnesAreNotWaitedFor) {
  std::vector<std::int64_t> times;
  for (std::int64_t i = 0; i < 300; ++i) {
    times.push_back(i % 5 == 1 ? i + 3'600'000 : i % 5 == 2 ? i - 90 : i);
  }
  const std::vector<std::int64_t> all = arrivals(times);
  for (std::size_t i = 0; i + 100 < all.size(); ++i) {
    EXPECT_LE(all[i], static_cast<std::int64_t>(i + ReplayPace::kWindow)) << i;
    EXPECT_GE(all[i], i > 0 ? all[i - 1] : 0) << i;
    EXPECT_GE(all[i], i % 5 == 0 ? static_cast<std::int64_t>(i) : 0) << i;
  }
}

TEST(ReplayPaceTest, AGapOfTheRecordingIsAGapOfTheReplay) {
  std::vector<std::int64_t> times;
  for (std::int64_t i = 0; i < 200; ++i) times.push_back(i < 100 ? i : i + 1'000'000);
  EXPECT_EQ(arrivals(times), times);
}

// ---- the source

class CsvSourceTest : public ::testing::Test {
 protected:
  CsvSourceTest() {
    const vm::ArchivedLayers raw{{0, {0, 0}}};
    replaceInstallation({{{1, "P/A", OpcUaType_Double}, raw},
                         {{2, "P/B", OpcUaType_String}, raw},
                         {{3, "P/Loose", OpcUaType_Double}, {}}},
                        {{0, true, 0}});
    manager().clear();
    manager().regFactory("csvtest", &factory_);
    setConfigSection("DataArchive", R"({"archives":[{"connection":{"providerType":"csvtest"},
        "limits":{},"filter":{"allValues":true}}]})");
    EXPECT_EQ(manager().init(), 0);
    RegisterExternalSTLib("ArchiveProc", archive::luaopen_WriteDataFB);
  }
  ~CsvSourceTest() override {
    runner_.stop();
    manager().clear();
    manager().regFactory("csvtest", nullptr);
    clearInstallation();
    setConfigSection("DataArchive", "");
  }

  static archive::DataArchiveManager& manager() { return archive::DataArchiveManager::instance(); }
  static std::string withHeader(const std::string& rows) {
    return std::string(kPlantHeader) + "\n" + rows;
  }
  SourceCfg recording(const std::string& text, double speed = 0) {
    SourceCfg cfg;
    cfg.type = "csv";
    cfg.file = folder_.write("day.csv", text);
    cfg.speed = speed;
    return cfg;
  }
  bool eventually(const std::function<bool()>& condition) {
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!condition()) {
      if (std::chrono::steady_clock::now() > until) return false;
      std::this_thread::yield();
    }
    return true;
  }
  // Replays a text to its end.
  void replay(const std::string& text, double speed = 0) {
    ASSERT_TRUE(runner_.start({recording(text, speed)}));
    ASSERT_TRUE(eventually([this] { return trace_.countContaining("day.csv: done") == 1; }));
  }
  std::vector<PinPtr> written(std::int64_t id, const std::string& path) {
    return factory_.last().written({id, path}, 0);
  }

  test::TraceCapture trace_;
  test::TempFolder folder_;
  test::ScriptedFactory factory_;
  SourceRunner runner_;
};

TEST_F(CsvSourceTest, EachRowIsASampleOfItsItemWithItsTimeAndQuality) {
  replay(
      withHeader("1000,1,P/A,double,1.5,0\n"
                 "1500,2,P/B,string,\"two\nlines, and \"\"more\"\"\",2156527616\n"
                 "2000,1,P/A,double,NaN,1073741824\n"));
  const std::vector<PinPtr> numbers = written(1, "P/A");
  ASSERT_EQ(numbers.size(), 2U);
  EXPECT_EQ(numbers[0]->time, kUnixEpochTicks + kTicksPerSecond);
  EXPECT_EQ(numbers[0]->value.GetType(), OpcUaType_Double);
  EXPECT_EQ(numbers[1]->quality, 1073741824U);
  const std::vector<PinPtr> texts = written(2, "P/B");
  ASSERT_EQ(texts.size(), 1U);
  EXPECT_EQ(texts[0]->value.GetString(), "two\nlines, and \"more\"");
  EXPECT_EQ(texts[0]->quality, 2156527616U);
  EXPECT_EQ(trace_.countContaining("day.csv: done, 3 rows replayed, 0 bad, "), 1);
}

TEST_F(CsvSourceTest, AnExactIntegerStaysExact) {
  replay(withHeader("1000,1,P/A,int64,9007199254740993,0\n1001,1,P/A,uint32,4294967295,0\n"));
  const std::vector<PinPtr> samples = written(1, "P/A");
  ASSERT_EQ(samples.size(), 2U);
  std::int64_t value = 0;
  EXPECT_EQ(samples[0]->value.GetType(), OpcUaType_Int64);
  EXPECT_TRUE(samples[0]->value.GetInt64(value));
  EXPECT_EQ(value, 9007199254740993);
  EXPECT_EQ(samples[1]->value.GetType(), OpcUaType_UInt32);
}

TEST_F(CsvSourceTest, BadRowsAreCountedAndLoggedWithLineAndReason) {
  replay(
      withHeader("1000,1,P/A,double,\"1\n.5\",0\n"
                 "1000,1,P/A,double,2,0\n"
                 "1000,9,P/X,double,2,0\n"
                 "1000,3,P/Loose,double,2,0\n"
                 "short\n"
                 "1001,1,P/A,double,3,0\n"));
  EXPECT_EQ(written(1, "P/A").size(), 2U);
  EXPECT_EQ(
      trace_.count("source csv: day.csv:2: the value is none of its type (1 bad rows so far)\n"),
      1);
  EXPECT_EQ(trace_.countContaining("bad rows so far"), 1);
  EXPECT_EQ(trace_.countContaining("day.csv: done, 2 rows replayed, 4 bad, "), 1);
}

TEST_F(CsvSourceTest, EachKindOfBadRowHasItsReason) {
  const struct {
    const char* row;
    const char* reason;
  } kCases[] = {{"1000,9,P/X,double,2,0\n", "day.csv:2: there is no such variable"},
                {"1000,3,P/Loose,double,2,0\n", "day.csv:2: the variable is not archived"},
                {"1,2\n", "day.csv:2: a row has six columns"},
                {"\n\n\"x\"y,2\n", "day.csv:4: text after a closing quote"}};
  for (const auto& oneCase : kCases) {
    trace_.clear();
    replay(withHeader(oneCase.row));
    EXPECT_EQ(trace_.countContaining(oneCase.reason), 1) << oneCase.row;
  }
}

TEST_F(CsvSourceTest, TheFileMustBeThereAndBeARecording) {
  SourceCfg missing;
  missing.type = "csv";
  missing.file = folder_.path("missing.csv");
  EXPECT_FALSE(runner_.start({missing}));
  EXPECT_EQ(trace_.countContaining("missing.csv: No such file or directory\n"), 1);
  for (const char* text : {"", "a,b,c\n", "time_ms,item_id\n", "1000,1,P/A,double,1,0\n"}) {
    trace_.clear();
    EXPECT_FALSE(runner_.start({recording(text)})) << text;
    EXPECT_EQ(trace_.countContaining("the first line must be time_ms,item_id,path,type,value,"), 1);
  }
  EXPECT_FALSE(runner_.start({recording("\x1f\x8b\x08")}));
  EXPECT_EQ(trace_.countContaining("the file is compressed, unpack it first"), 1);
  SourceCfg named = recording(withHeader(""));
  named.values["P/A"] = 1;
  EXPECT_FALSE(runner_.start({named}));
  EXPECT_EQ(trace_.countContaining("\"values\" has no meaning"), 1);
}

TEST_F(CsvSourceTest, WithoutTheFunctionBlockTheSourceDoesNotStart) {
  RegisterExternalSTLib("ArchiveProc", [](lua_State*) { return 0; });
  EXPECT_FALSE(runner_.start({recording(withHeader(""))}));
  EXPECT_EQ(trace_.countContaining("no function block ArchiveProc"), 1);
}

TEST_F(CsvSourceTest, RowsOfTheRecordingKeepTheirDistanceInTime) {
  // An hour of the recording in 0.2 s.
  const auto begun = std::chrono::steady_clock::now();
  replay(withHeader("1000,1,P/A,double,1,0\n3601000,1,P/A,double,2,0\n"), 18'000);
  EXPECT_GE(std::chrono::steady_clock::now() - begun, std::chrono::milliseconds(200));
  EXPECT_EQ(written(1, "P/A").size(), 2U);
}

// An archive whose buffer is half full with ten samples; what it holds leaves as the test says.
class CsvSourceRoomTest : public CsvSourceTest {
 protected:
  static constexpr int kHalf = 10;

  CsvSourceRoomTest() {
    factory_.last().onWrite([this](const archive::ItemKey&, std::int32_t, const PinPtr&) {
      if (++waiting_ > most_) most_ = waiting_.load();
    });
    factory_.last().onCrowded([this] { return waiting_ >= kHalf; });
  }
  ~CsvSourceRoomTest() override {
    waiting_ = 0;
    runner_.stop();
    factory_.last().onWrite(nullptr);
    factory_.last().onCrowded(nullptr);
  }

  static std::string rows(int count) {
    std::string text;
    for (int i = 0; i < count; ++i) text += std::to_string(1000 + i) + ",1,P/A,double,1,0\n";
    return withHeader(text);
  }
  // Replays at a speed while the archive stores what waits, again and again.
  void expectNothingLost(double speed) {
    constexpr int kRows = 1000;
    ASSERT_TRUE(runner_.start({recording(rows(kRows), speed)}));
    ASSERT_TRUE(eventually([this] {
      if (waiting_ >= kHalf) waiting_ = 0;
      return trace_.countContaining("day.csv: done, 1000 rows replayed, 0 bad, ") == 1;
    }));
    const std::vector<PinPtr> samples = written(1, "P/A");
    ASSERT_EQ(samples.size(), std::size_t{kRows});
    for (std::size_t i = 1; i < samples.size(); ++i) {
      EXPECT_EQ(samples[i]->time - samples[i - 1]->time, kTicksPerMillisecond) << i;
    }
    EXPECT_EQ(most_, kHalf);
  }

  std::atomic<int> waiting_{0};
  std::atomic<int> most_{0};
};

TEST_F(CsvSourceRoomTest, AtFullSpeedItWaitsForRoomAndLosesNothing) { expectNothingLost(0); }

TEST_F(CsvSourceRoomTest, FasterThanTheArchiveItWaitsForRoomAndLosesNothing) {
  expectNothingLost(1e6);
}

TEST_F(CsvSourceRoomTest, AStopEndsTheWaitForRoomAndTheWaitingRowIsNotWritten) {
  ASSERT_TRUE(runner_.start({recording(rows(1000))}));
  ASSERT_TRUE(eventually([this] { return waiting_ == kHalf; }));
  runner_.stop();
  EXPECT_EQ(trace_.countContaining("day.csv: stopped, 10 rows replayed, 0 bad, "), 1);
  // And the block's last value.
  EXPECT_EQ(written(1, "P/A").size(), std::size_t{kHalf} + 1);
}

TEST_F(CsvSourceTest, StoppingEndsAWaitAtOnceAndTheBlocksWithIt) {
  ASSERT_TRUE(runner_.start(
      {recording(withHeader("1000,1,P/A,double,1,0\n9000000000,1,P/A,double,2,0\n"), 1e-9)}));
  ASSERT_TRUE(eventually([this] { return written(1, "P/A").size() == 1; }));
  const auto begun = std::chrono::steady_clock::now();
  runner_.stop();
  EXPECT_LT(std::chrono::steady_clock::now() - begun, std::chrono::seconds(10));
  EXPECT_EQ(trace_.countContaining("day.csv: stopped, 1 rows replayed, 0 bad, "), 1);
  const std::vector<PinPtr> samples = written(1, "P/A");
  ASSERT_EQ(samples.size(), 2U);
  EXPECT_EQ(samples[1]->quality, 0x00A80000U);
}

}  // namespace
}  // namespace orva::host
