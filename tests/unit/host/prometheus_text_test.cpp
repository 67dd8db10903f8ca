#include "orva_host/prometheus_text.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <string>

#include "support/exposition_parser.h"
#include "support/trace_capture.h"

namespace orva::prometheus_text_test {
namespace {

using host::PrometheusText;
using metrics::Family;
using metrics::Kind;
using metrics::Sink;
using test::Exposition;

constexpr Family kReads{"orva_reads_total", Kind::counter, "Reads."};
constexpr Family kSize{"orva_size_bytes", Kind::gauge, "Size."};

class PrometheusTextTest : public ::testing::Test {
 protected:
  Sink& sink() { return text_; }
  std::string text() const { return text_.text(); }
  // The text of the one value of kSize.
  static std::string written(const metrics::Value& value) {
    PrometheusText text;
    static_cast<Sink&>(text).add(kSize, value);
    const Exposition parsed(text.text());
    EXPECT_EQ(parsed.error(), "");
    return parsed.families().at("orva_size_bytes").samples.at(0).valueText;
  }
  // What a reader makes of this label value.
  static std::string readBack(const std::string& label) {
    PrometheusText text;
    static_cast<Sink&>(text).add(kSize, {{"archive", label}}, 1);
    const Exposition parsed(text.text());
    EXPECT_EQ(parsed.error(), "") << text.text();
    return parsed.families().at("orva_size_bytes").samples.at(0).labels.at("archive");
  }

  test::TraceCapture trace_;
  PrometheusText text_;
};

TEST_F(PrometheusTextTest, NothingGivesAnEmptyText) { EXPECT_EQ(text(), ""); }

TEST_F(PrometheusTextTest, AFamilyHasHelpAndTypeAboveItsSamples) {
  sink().add(kReads, {{"kind", "raw"}}, 1);
  sink().add(kReads, {{"kind", "new"}, {"code", "0"}}, 2);
  EXPECT_EQ(text(),
            "# HELP orva_reads_total Reads.\n"
            "# TYPE orva_reads_total counter\n"
            "orva_reads_total{kind=\"raw\"} 1\n"
            "orva_reads_total{kind=\"new\",code=\"0\"} 2\n");
}

TEST_F(PrometheusTextTest, SamplesOfAFamilyStandTogetherWhateverTheOrderTheyCameIn) {
  sink().add(kReads, {{"archive", "a"}}, 1);
  sink().add(kSize, {{"archive", "a"}}, 10);
  sink().add(kReads, {{"archive", "b"}}, 2);
  sink().add(kSize, {{"archive", "b"}}, 20);
  EXPECT_EQ(text(),
            "# HELP orva_reads_total Reads.\n"
            "# TYPE orva_reads_total counter\n"
            "orva_reads_total{archive=\"a\"} 1\n"
            "orva_reads_total{archive=\"b\"} 2\n"
            "# HELP orva_size_bytes Size.\n"
            "# TYPE orva_size_bytes gauge\n"
            "orva_size_bytes{archive=\"a\"} 10\n"
            "orva_size_bytes{archive=\"b\"} 20\n");
}

TEST_F(PrometheusTextTest, WholeNumbersAreExact) {
  EXPECT_EQ(written(std::numeric_limits<std::uint64_t>::max()), "18446744073709551615");
  EXPECT_EQ(written(std::numeric_limits<std::int64_t>::min()), "-9223372036854775808");
  EXPECT_EQ(written(std::uint64_t{9007199254740993}), "9007199254740993");
  EXPECT_EQ(written(0U), "0");
  EXPECT_EQ(written(std::int8_t{-1}), "-1");
}

TEST_F(PrometheusTextTest, FractionsReadBackAsTheSameNumber) {
  for (const double number : {0.1, -2.5, 1e300, 5e-324, 1.0 / 3, 123456789.125}) {
    EXPECT_EQ(std::strtod(written(number).c_str(), nullptr), number);
  }
}

TEST_F(PrometheusTextTest, WhatIsNotFiniteHasItsOwnSpelling) {
  EXPECT_EQ(written(std::numeric_limits<double>::quiet_NaN()), "NaN");
  EXPECT_EQ(written(-std::numeric_limits<double>::quiet_NaN()), "NaN");
  EXPECT_EQ(written(std::numeric_limits<double>::infinity()), "+Inf");
  EXPECT_EQ(written(-std::numeric_limits<double>::infinity()), "-Inf");
}

TEST_F(PrometheusTextTest, LabelsAreEscaped) {
  sink().add(kSize, {{"archive", "C:\\data\n\"fast\""}}, 1);
  EXPECT_NE(text().find("{archive=\"C:\\\\data\\n\\\"fast\\\"\"} 1\n"), std::string::npos);
  for (const std::string label : {"", "\\", "\\n", "\n", "\"", "a,b=\"c\"}", "{", "#", " x "}) {
    EXPECT_EQ(readBack(label), label);
  }
}

TEST_F(PrometheusTextTest, HelpIsEscapedButForItsQuotes) {
  sink().add({"orva_x", Kind::gauge, "a \"b\"\\c\nd"}, 1);
  EXPECT_EQ(text().substr(0, text().find("# TYPE")), "# HELP orva_x a \"b\"\\\\c\\nd\n");
  EXPECT_EQ(Exposition(text()).families().at("orva_x").help, "a \"b\"\\c\nd");
}

TEST_F(PrometheusTextTest, BytesThatAreNoUtf8AreReplaced) {
  EXPECT_EQ(readBack("\xC3\xA4 \xE2\x82\xAC \xF0\x9F\x8F\xAD"),
            "\xC3\xA4 \xE2\x82\xAC \xF0\x9F\x8F\xAD");
  const std::string replaced = "\xEF\xBF\xBD";
  EXPECT_EQ(readBack("a\xE4z"), "a" + replaced + "z");                  // Latin-1
  EXPECT_EQ(readBack("\xC3"), replaced);                                // cut
  EXPECT_EQ(readBack("\xC0\x80"), replaced + replaced);                 // longer than needed
  EXPECT_EQ(readBack("\xED\xA0\x80"), replaced + replaced + replaced);  // half a pair
  EXPECT_EQ(readBack("\xC3\""), replaced + "\"");                       // the quote stays one
}

TEST_F(PrometheusTextTest, OfTwoSamplesWithTheSameLabelsTheFirstCountsAndThisIsTraced) {
  sink().add(kReads, {{"a", "1"}, {"b", "2"}}, 1);
  sink().add(kReads, {{"b", "2"}, {"a", "1"}}, 2);
  sink().add(kReads, {{"a", "2"}, {"b", "1"}}, 3);
  sink().add(kSize, 4);
  sink().add(kSize, 5);
  const Exposition parsed(text());
  EXPECT_EQ(parsed.error(), "");
  EXPECT_EQ(parsed.value("orva_reads_total", {{"a", "1"}, {"b", "2"}}), 1);
  EXPECT_EQ(parsed.sum("orva_reads_total"), 4);
  EXPECT_EQ(parsed.sum("orva_size_bytes"), 4);
  EXPECT_EQ(trace_.count("a sample of the metric \"orva_reads_total\" is left out: there is one "
                         "with these labels\n"),
            1);
  EXPECT_EQ(trace_.texts().size(), 2U);
}

TEST_F(PrometheusTextTest, LabelValuesCannotImitateOtherLabels) {
  sink().add(kSize, {{"a", "1\",b=\"2"}}, 1);
  sink().add(kSize, {{"a", "1"}, {"b", "2"}}, 2);
  EXPECT_EQ(Exposition(text()).families().at("orva_size_bytes").samples.size(), 2U);
}

TEST_F(PrometheusTextTest, AFamilyKeepsTheKindAndHelpOfItsFirstSample) {
  sink().add(kReads, {{"a", "1"}}, 1);
  sink().add({"orva_reads_total", Kind::counter, "Other."}, {{"a", "2"}}, 2);
  sink().add({"orva_reads_total", Kind::gauge, "Reads."}, {{"a", "3"}}, 3);
  const Exposition parsed(text());
  EXPECT_EQ(parsed.error(), "");
  EXPECT_EQ(parsed.families().at("orva_reads_total").help, "Reads.");
  EXPECT_EQ(parsed.sum("orva_reads_total"), 3);
  EXPECT_EQ(trace_.countContaining("it is of another kind than the first"), 1);
}

TEST_F(PrometheusTextTest, NamesThatAreNoneAreLeftOutAndTraced) {
  const char* const names[] = {nullptr, "", "1a", "a-b", "a b", "a\n", "\xC3\xA4"};
  for (const char* name : names) sink().add({name, Kind::gauge, ""}, 1);
  EXPECT_EQ(trace_.countContaining("this is no name"), 7);
  for (const char* name : names) sink().add(kSize, {{name, "x"}}, 1);
  sink().add(kSize, {{"__reserved", "x"}}, 1);
  sink().add(kSize, {{"with:colon", "x"}}, 1);
  sink().add(kSize, {{"twice", "x"}, {"twice", "y"}}, 1);
  EXPECT_EQ(trace_.countContaining("its labels have no proper names"), 10);
  EXPECT_EQ(text(), "");
}

TEST_F(PrometheusTextTest, AHelpMayBeMissing) {
  sink().add({"orva_x", Kind::gauge, nullptr}, 1);
  EXPECT_EQ(text(), "# HELP orva_x \n# TYPE orva_x gauge\norva_x 1\n");
}

// ---- the tests' own reader refuses what breaks the format

TEST(ExpositionTest, ReadsWhatTheFormatAllows) {
  const Exposition text(
      "# HELP a_total First \\\\ and \\n.\n# TYPE a_total counter\n"
      "a_total{x=\"1\",y=\"\\\"\\\\\\n\"} 3\na_total 4.5e+2\n"
      "# HELP b \n# TYPE b gauge\nb -Inf\n");
  EXPECT_EQ(text.error(), "");
  EXPECT_EQ(text.value("a_total"), 450);
  EXPECT_EQ(text.value("a_total", {{"y", "\"\\\n"}, {"x", "1"}}), 3);
  EXPECT_TRUE(std::isnan(text.value("a_total", {{"x", "1"}})));
  EXPECT_EQ(text.families().at("a_total").help, "First \\ and \n.");
}

TEST(ExpositionTest, RefusesWhatTheFormatForbids) {
  const std::string head = "# HELP a x\n# TYPE a gauge\n";
  const std::string good = head + "a 1\n";
  ASSERT_EQ(Exposition(good).error(), "");
  const std::string bad[] = {
      head,                                    // no samples
      head + "a 1",                            // no end of line
      good + "\n",                             // empty line
      good + "a 2\n",                          // twice
      good + head + "a{x=\"1\"} 1\n",          // in two pieces
      good + "# TYPE a gauge\n",               // TYPE after samples
      "# TYPE a gauge\na 1\n",                 // no HELP
      "# HELP a x\na 1\n",                     // no TYPE
      "# HELP a x\n# TYPE a number\na 1\n",    // no such type
      "a 1\n",                                 // neither
      good + "b 1\n",                          // away from its family
      head + "a\n",                            // no value
      head + "a  1\n",                         // two blanks
      head + "a one\n",                        // no number
      head + "a inf\n",                        // spelled otherwise
      head + "a 1 \n",                         // blank at the end
      head + "a 0x10\n",                       // not decimal
      head + "a{x=1} 1\n",                     // no quotes
      head + "a{x=\"1\"y=\"2\"} 1\n",          // no comma
      head + "a{x=\"1\",x=\"2\"} 1\n",         // label twice
      head + "a{x=\"\\t\"} 1\n",               // no such escape
      head + "a{x=\"1} 1\n",                   // no closing quote
      head + "a{__x=\"1\"} 1\n",               // reserved
      head + "a{1x=\"1\"} 1\n",                // no label name
      "# HELP a \\x\n# TYPE a gauge\na 1\n",   // no such escape
      "# HELP a x\n# TYPE a counter\na -1\n",  // no counter
      "# HELP a x\n# TYPE a counter\na NaN\n",
  };
  for (const std::string& text : bad) EXPECT_NE(Exposition(text).error(), "") << text;
}

}  // namespace
}  // namespace orva::prometheus_text_test
