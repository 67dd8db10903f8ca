#include <gtest/gtest.h>

#include <limits>
#include <sstream>

#include "orva_cli/quality_words.h"
#include "orva_cli/row_writer.h"

namespace orva::cli {
namespace {

constexpr std::int64_t kTime = 1'772'352'000'250;  // 2026-03-01T08:00:00.250Z

// What a writer makes of values that stand as JSON.
std::string written(Format format, const std::vector<std::string>& values,
                    const std::string& item = "Plant/Load", StatusCode quality = 0) {
  std::ostringstream out;
  const auto writer = makeRowWriter(format, Zone::kUtc, 12, out);
  writer->begin();
  for (const std::string& value : values) {
    json::Document document;
    document.Parse(value.c_str());
    EXPECT_FALSE(document.HasParseError()) << value;
    writer->row({kTime, item, document, quality});
  }
  writer->end();
  return out.str();
}

const std::string kCsvHead = "time,item,value,quality,status\n";
const std::string kCsvTime = "2026-03-01T08:00:00.250Z,";

TEST(RowWriterTest, ATableHasColumnsAndQualitiesInWords) {
  EXPECT_EQ(written(Format::kTable, {"21.5"}, "Plant/Load", 0x808A0000),
            "time (UTC)                item                 value  quality\n"
            "2026-03-01T08:00:00.250Z  Plant/Load            21.5  bad, not connected\n");
}

TEST(RowWriterTest, ATextOfSeveralLinesStaysOnOneInATable) {
  const std::string table = written(Format::kTable, {R"("two\nlines, \"quoted\"")"});
  EXPECT_NE(table.find(R"(  "two\nlines, \"quoted\""  good)"), std::string::npos) << table;
}

TEST(RowWriterTest, NoValueIsADashInATableAndAnEmptyFieldInCsv) {
  EXPECT_NE(written(Format::kTable, {"null"}).find("             -  good\n"), std::string::npos);
  EXPECT_EQ(written(Format::kCsv, {"null", "\"\""}),
            kCsvHead + kCsvTime + "Plant/Load,,0,good\n" + kCsvTime + "Plant/Load,\"\",0,good\n");
}

TEST(RowWriterTest, CsvQuotesWhatHoldsCommasQuotesAndLineEnds) {
  EXPECT_EQ(csvField("plain text"), "plain text");
  EXPECT_EQ(csvField("a,b"), "\"a,b\"");
  EXPECT_EQ(csvField("say \"x\""), "\"say \"\"x\"\"\"");
  EXPECT_EQ(csvField("two\nlines"), "\"two\nlines\"");
  EXPECT_EQ(csvField("a\rb"), "\"a\rb\"");
  EXPECT_EQ(written(Format::kCsv, {R"("a,\"b\"")"}, "Plant/State, odd", 0x40000000),
            kCsvHead + kCsvTime + "\"Plant/State, odd\",\"a,\"\"b\"\"\",1073741824,uncertain\n");
}

TEST(RowWriterTest, NumbersAreWrittenWithoutLoss) {
  EXPECT_EQ(written(Format::kCsv, {"9223372036854775807", "18446744073709551615", "0.1", "true"}),
            kCsvHead + kCsvTime + "Plant/Load,9223372036854775807,0,good\n" + kCsvTime +
                "Plant/Load,18446744073709551615,0,good\n" + kCsvTime + "Plant/Load,0.1,0,good\n" +
                kCsvTime + "Plant/Load,true,0,good\n");
}

TEST(RowWriterTest, JsonIsAnArrayThatParses) {
  const std::string text =
      written(Format::kJson, {"21.5", R"("a\nb")", "null"}, "P \"q\"", 0x80000000);
  json::Document document;
  document.Parse(text.c_str());
  ASSERT_TRUE(document.IsArray()) << text;
  ASSERT_EQ(document.Size(), 3U);
  EXPECT_EQ(document[0]["time"].GetInt64(), kTime);
  EXPECT_STREQ(document[0]["item"].GetString(), "P \"q\"");
  EXPECT_EQ(document[0]["value"].GetDouble(), 21.5);
  EXPECT_STREQ(document[1]["value"].GetString(), "a\nb");
  EXPECT_TRUE(document[2]["value"].IsNull());
  EXPECT_EQ(document[2]["quality"].GetUint(), 0x80000000U);
  EXPECT_STREQ(document[2]["status"].GetString(), "bad");
  EXPECT_EQ(written(Format::kJson, {}), "[]\n");
}

TEST(RowWriterTest, JsonLinesAreAnObjectALine) {
  const std::string row = R"({"time":1772352000250,"item":"Plant/Load","value":)";
  EXPECT_EQ(written(Format::kJsonLines, {"1", "2"}),
            row + "1,\"quality\":0,\"status\":\"good\"}\n" + row +
                "2,\"quality\":0,\"status\":\"good\"}\n");
}

// JSON has no such numbers, so they are no values in any format.
TEST(RowWriterTest, WhatIsNotANumberIsNoValue) {
  for (const double number :
       {std::numeric_limits<double>::quiet_NaN(), std::numeric_limits<double>::infinity(),
        -std::numeric_limits<double>::infinity()}) {
    const auto text = [number](Format format) {
      std::ostringstream out;
      makeRowWriter(format, Zone::kUtc, 4, out)->row({kTime, "A", json::Value(number), 0});
      return out.str();
    };
    EXPECT_EQ(text(Format::kCsv), kCsvTime + "A,,0,good\n");
    EXPECT_EQ(text(Format::kTable), "2026-03-01T08:00:00.250Z  A                -  good\n");
    EXPECT_NE(text(Format::kJsonLines).find("\"value\":null"), std::string::npos);
  }
}

TEST(QualityWordsTest, KnownCodesHaveWordsAndOthersTheirNumber) {
  EXPECT_EQ(qualityWords(0), "good");
  EXPECT_EQ(qualityWords(0x00A80000), "good, last before a stop");
  EXPECT_EQ(qualityWords(0x808A0400), "bad, not connected");  // the low half holds flags
  EXPECT_EQ(qualityWords(0x40AA0000), "uncertain, 0x40AA0000");
  EXPECT_EQ(qualityWords(0xFFFF0000), "bad, 0xFFFF0000");
  EXPECT_STREQ(severityWord(0x3FFFFFFF), "good");
}

}  // namespace
}  // namespace orva::cli
