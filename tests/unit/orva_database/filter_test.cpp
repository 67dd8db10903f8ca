#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>

#include "share/write_filter.h"
#include "support/trace_capture.h"

namespace orva::archive::filter_test {
namespace {

const double kNan = std::numeric_limits<double>::quiet_NaN();
const double kInfinity = std::numeric_limits<double>::infinity();

OpcUa_VariantHlp real(double value) {
  OpcUa_VariantHlp variant;
  variant.SetDouble(value);
  return variant;
}

OpcUa_VariantHlp text(const std::string& value) {
  OpcUa_VariantHlp variant;
  variant.SetString(value);
  return variant;
}

OpcUa_VariantHlp boolean(bool value) {
  OpcUa_VariantHlp variant;
  variant.SetBool(value);
  return variant;
}

json::Document parsed(const std::string& source) {
  json::Document document;
  document.Parse(source.c_str());
  EXPECT_FALSE(document.HasParseError()) << source;
  return document;
}

Filter loaded(const std::string& source) {
  const json::Document document = parsed(source);
  return Filter(document);
}

Filter onChange(double deadband = 0) {
  Filter filter;
  filter.writeByChange = true;
  filter.deadband = deadband;
  return filter;
}

// Whether `after` is written `dt` ticks after `before`.
bool writes(const Filter& filter, const OpcUa_VariantHlp& before, const OpcUa_VariantHlp& after,
            std::int64_t dt = 1) {
  return filter(makePin(1000, before), makePin(1000 + dt, after));
}

// ---- configuration

TEST(FilterTest, DefaultsRefuseEverything) {
  const Filter filter;
  EXPECT_EQ(filter.deadband, 0.0);
  EXPECT_FALSE(filter.writeByChange);
  EXPECT_EQ(filter.minWritePeriod, 0);
  EXPECT_EQ(filter.maxWritePeriod, 0);
  EXPECT_FALSE(filter.allValues);
  EXPECT_TRUE(filter.blocksWrite);
  EXPECT_TRUE(loaded("{}").blocksWrite);
}

TEST(FilterTest, ReadsEveryKey) {
  const Filter filter = loaded(
      R"({"maxWritePeriod":5000000000,"minWritePeriod":7,"deadband":0.5,"writeByChange":true,)"
      R"("allValues":true})");
  EXPECT_EQ(filter.maxWritePeriod, 5'000'000'000);
  EXPECT_EQ(filter.minWritePeriod, 7);
  EXPECT_EQ(filter.deadband, 0.5);
  EXPECT_TRUE(filter.writeByChange);
  EXPECT_TRUE(filter.allValues);
}

TEST(FilterTest, ReadsPeriodsFromDecimalText) {
  const Filter filter = loaded(R"({"maxWritePeriod":" -5000000000x","minWritePeriod":"ten"})");
  EXPECT_EQ(filter.maxWritePeriod, -5'000'000'000);
  EXPECT_EQ(filter.minWritePeriod, 0);
}

TEST(FilterTest, ReadsTheDeadbandFromAnyNumberAndNumericText) {
  EXPECT_EQ(loaded(R"({"deadband":3})").deadband, 3.0);
  EXPECT_EQ(loaded(R"({"deadband":18446744073709551615})").deadband, 18446744073709551615.0);
  EXPECT_EQ(loaded(R"({"deadband":"0.25"})").deadband, 0.25);
  EXPECT_EQ(loaded(R"({"deadband":" +1e2"})").deadband, 100.0);
}

TEST(FilterTest, TextThatIsNoNumberLeavesTheDeadband) {
  for (const char* source : {"abc", "", " ", "1x", "1 ", "+", "+-1", "nan", "inf", "1e999"}) {
    Filter filter = onChange(2.0);
    filter.load(parsed(R"({"deadband":")" + std::string(source) + "\"}"));
    EXPECT_EQ(filter.deadband, 2.0) << '"' << source << '"';
  }
}

TEST(FilterTest, MembersThatAreMissingOrOfAWrongTypeLeaveTheirFields) {
  for (const char* source :
       {"{}",
        R"({"maxWritePeriod":1.5,"minWritePeriod":true,"deadband":false,"writeByChange":0,)"
        R"("allValues":"false"})",
        R"({"maxWritePeriod":null,"minWritePeriod":[],"deadband":{},"writeByChange":null,)"
        R"("allValues":[]})",
        R"({"maxWritePeriod":18446744073709551615})",
        R"({"MaxWritePeriod":1,"ALLVALUES":false})"}) {
    Filter filter;
    filter.maxWritePeriod = 11;
    filter.minWritePeriod = 12;
    filter.deadband = 13;
    filter.writeByChange = true;
    filter.allValues = true;
    filter.load(parsed(source));
    EXPECT_EQ(filter.maxWritePeriod, 11) << source;
    EXPECT_EQ(filter.minWritePeriod, 12) << source;
    EXPECT_EQ(filter.deadband, 13) << source;
    EXPECT_TRUE(filter.writeByChange) << source;
    EXPECT_TRUE(filter.allValues) << source;
  }
}

TEST(FilterTest, NoKeySilencesTheBlocks) {
  EXPECT_TRUE(loaded(R"({"blocksWrite":false})").blocksWrite);
}

TEST(FilterTest, ValueThatIsNoObjectIsTracedAndReadsNothing) {
  for (const char* source : {"null", "5", "\"text\"", "[1]", "true"}) {
    test::TraceCapture traces;
    const Filter filter = loaded(source);
    EXPECT_EQ(filter.maxWritePeriod, 0) << source;
    ASSERT_EQ(traces.lines().size(), 1U) << source;
    EXPECT_EQ(traces.lines()[0].text, "<--Assert IsObject() failed\n") << source;
    EXPECT_EQ(traces.lines()[0].level, kTraceWarning) << source;
  }
}

TEST(FilterTest, MissingMembersAreNotTraced) {
  test::TraceCapture traces;
  loaded("{}");
  EXPECT_TRUE(traces.texts().empty());
}

// ---- decision

TEST(FilterTest, FirstSampleIsAlwaysWritten) {
  EXPECT_TRUE(Filter()(nullptr, makePin(5, real(1))));
  EXPECT_TRUE(onChange(1)(nullptr, makePin(-5, OpcUa_VariantHlp())));
}

TEST(FilterTest, WithTheDefaultsNoFurtherSampleIsWritten) {
  EXPECT_FALSE(writes(Filter(), real(1), real(2)));
  EXPECT_FALSE(writes(Filter(), real(1), real(2), INT64_MAX - 1000));
}

TEST(FilterTest, AllValuesWritesUnchangedAndEquallyOldSamples) {
  Filter filter;
  filter.allValues = true;
  EXPECT_TRUE(writes(filter, real(1), real(1)));
  EXPECT_TRUE(writes(filter, real(1), real(1), 0));
}

TEST(FilterTest, AllValuesOverrulesPeriodsAndDeadband) {
  Filter filter = onChange(10);
  filter.allValues = true;
  filter.minWritePeriod = 100;
  EXPECT_TRUE(writes(filter, real(1), real(1)));
}

TEST(FilterTest, EarlierSampleIsRefusedAlsoWithAllValues) {
  test::TraceCapture traces;
  Filter filter;
  filter.allValues = true;
  EXPECT_FALSE(writes(filter, real(1), real(2), -1));
  EXPECT_EQ(traces.lines().size(), 1U);
}

TEST(FilterTest, EarlierSampleIsTracedWithBothTimesInUtcAndItsValue) {
  test::TraceCapture traces;
  const PinPtr last = makePin(133'485'408'000'000'000 + 1'230'000, real(1));  // 2024-01-01
  const PinPtr old = makePin(131'001'407'999'990'000, text("abc"));
  EXPECT_FALSE(Filter()(last, old));
  ASSERT_EQ(traces.lines().size(), 1U);
  EXPECT_EQ(traces.lines()[0].level, kTraceError);
  EXPECT_EQ(traces.lines()[0].text,
            "Pin::operator <<: (old time) lastTime=2024-01-01 00:00:00.123, "
            "time=2016-02-16 23:59:59.999, value=" +
                old->value.ToText() + "\n");
}

TEST(FilterTest, OldTimeTraceKnowsLeapDaysAndTimesBefore1601) {
  const auto traced = [](std::int64_t time) {
    test::TraceCapture traces;
    Filter()(makePin(INT64_MAX, real(1)), makePin(time, real(1)));
    const std::string line = traces.texts().at(0);
    const std::size_t begin = line.find(", time=") + 7;
    return line.substr(begin, line.find(", value=") - begin);
  };
  constexpr std::int64_t kDay = 864'000'000'000;
  EXPECT_EQ(traced(0), "1601-01-01 00:00:00.000");
  EXPECT_EQ(traced(-1), "1600-12-31 23:59:59.999");
  EXPECT_EQ(traced(kDay * 306), "1601-11-03 00:00:00.000");
  EXPECT_EQ(traced(116'444'736'000'000'000), "1970-01-01 00:00:00.000");
  EXPECT_EQ(traced(125'962'560'000'000'000), "2000-02-29 00:00:00.000");
  EXPECT_EQ(traced(125'962'560'000'000'000 + kDay), "2000-03-01 00:00:00.000");
  EXPECT_EQ(traced(157'520'160'000'000'000 - 1), "2100-02-28 23:59:59.999");
  EXPECT_EQ(traced(157'520'160'000'000'000), "2100-03-01 00:00:00.000");
}

TEST(FilterTest, OldTimeTraceCutsLongValues) {
  test::TraceCapture traces;
  Filter()(makePin(10, real(1)), makePin(9, text(std::string(5000, 'x'))));
  const std::string line = traces.texts().at(0);
  const std::string value = line.substr(line.find("value=") + 6);
  EXPECT_EQ(value.size(), 129U);  // 128 characters and the end of the line
  EXPECT_EQ(value.back(), '\n');
}

TEST(FilterTest, SampleOfTheSameTimeIsNotOld) {
  test::TraceCapture traces;
  EXPECT_TRUE(writes(onChange(), real(1), real(2), 0));
  EXPECT_TRUE(traces.texts().empty());
}

TEST(FilterTest, DistancesBeyondTheRangeOfTimeAreLong) {
  test::TraceCapture traces;
  Filter filter;
  filter.maxWritePeriod = INT64_MAX - 1;
  EXPECT_TRUE(filter(makePin(INT64_MIN, real(1)), makePin(INT64_MAX, real(1))));
  EXPECT_TRUE(traces.texts().empty());
  EXPECT_FALSE(filter(makePin(INT64_MAX, real(1)), makePin(INT64_MIN, real(1))));
  EXPECT_EQ(traces.texts().size(), 1U);
}

TEST(FilterTest, MaximumPeriodForcesAWriteOnceItIsExceeded) {
  Filter filter;
  filter.maxWritePeriod = 1000;
  EXPECT_FALSE(writes(filter, real(1), real(2), 1000));
  EXPECT_TRUE(writes(filter, real(1), real(1), 1001));
  Filter change = onChange();
  change.maxWritePeriod = 1000;
  EXPECT_FALSE(writes(change, real(1), real(1), 1000));
  EXPECT_TRUE(writes(change, real(1), real(1), 1001));
}

TEST(FilterTest, MaximumPeriodComesBeforeTheMinimum) {
  Filter filter = onChange();
  filter.maxWritePeriod = 10;
  filter.minWritePeriod = 100;
  EXPECT_TRUE(writes(filter, real(1), real(1), 11));
}

TEST(FilterTest, MinimumPeriodRefusesChangesUntilItHasPassed) {
  Filter filter = onChange();
  filter.minWritePeriod = 100;
  EXPECT_FALSE(writes(filter, real(1), real(2), 99));
  EXPECT_TRUE(writes(filter, real(1), real(2), 100));
}

TEST(FilterTest, MinimumPeriodAloneDoesNotWrite) {
  Filter filter;
  filter.minWritePeriod = 100;
  EXPECT_FALSE(writes(filter, real(1), real(2), 100));
}

TEST(FilterTest, EqualValueIsNoChange) {
  EXPECT_FALSE(writes(onChange(), real(1), real(1)));
  EXPECT_FALSE(writes(onChange(), text("a"), text("a")));
}

TEST(FilterTest, ChangeOfTypeIsAChange) {
  OpcUa_VariantHlp integer;
  integer.SetInt(1);
  EXPECT_TRUE(writes(onChange(), real(1), integer));
}

TEST(FilterTest, WithoutADeadbandEveryChangeIsWritten) {
  EXPECT_TRUE(writes(onChange(), real(1), real(std::nextafter(1.0, 2.0))));
}

TEST(FilterTest, WithoutADeadbandNanOfAnotherTypeIsAChangeToo) {
  OpcUa_VariantHlp single;
  single.SetFloat(std::numeric_limits<float>::quiet_NaN());
  EXPECT_TRUE(writes(onChange(0.0), real(kNan), single));
  EXPECT_FALSE(writes(onChange(0.5), real(kNan), single));
}

TEST(FilterTest, DeadbandSuppressesDifferencesStrictlyBelowIt) {
  EXPECT_FALSE(writes(onChange(0.5), real(10.0), real(10.4)));
  EXPECT_TRUE(writes(onChange(0.5), real(10.0), real(10.5)));
  EXPECT_TRUE(writes(onChange(0.5), real(10.0), real(9.5)));
  EXPECT_FALSE(writes(onChange(0.5), real(10.0), real(9.6)));
}

TEST(FilterTest, DeadbandDoesNotConcernTextAndBooleans) {
  EXPECT_TRUE(writes(onChange(100), text("1"), text("2")));
  EXPECT_TRUE(writes(onChange(100), boolean(false), boolean(true)));
  EXPECT_TRUE(writes(onChange(100), real(1), text("2")));
}

TEST(FilterTest, DeadbandDoesNotConcernValuesThatAreNoNumbers) {
  OpcUa_VariantHlp first;
  first.SetDateTime(1);
  OpcUa_VariantHlp second;
  second.SetDateTime(2);
  EXPECT_TRUE(writes(onChange(100), first, second));
  EXPECT_TRUE(writes(onChange(100), OpcUa_VariantHlp(), real(1)));
  EXPECT_TRUE(writes(onChange(100), real(1), OpcUa_VariantHlp()));
}

TEST(FilterTest, DeadbandComparesNumbersOfDifferentTypes) {
  OpcUa_VariantHlp integer;
  integer.SetInt(11);
  EXPECT_FALSE(writes(onChange(2), real(10), integer));
  EXPECT_TRUE(writes(onChange(1), real(10), integer));
}

TEST(FilterTest, ChangeToNanAndTheOneBackAreWrittenNanAfterNanIsNot) {
  for (const double deadband : {0.0, 0.5}) {
    const Filter filter = onChange(deadband);
    EXPECT_TRUE(writes(filter, real(1), real(kNan))) << deadband;
    EXPECT_FALSE(writes(filter, real(kNan), real(kNan))) << deadband;
    EXPECT_TRUE(writes(filter, real(kNan), real(2))) << deadband;
  }
}

TEST(FilterTest, InfinityIsBeyondEveryDeadband) {
  EXPECT_TRUE(writes(onChange(1e308), real(1), real(kInfinity)));
  EXPECT_TRUE(writes(onChange(1e308), real(kInfinity), real(-kInfinity)));
  EXPECT_FALSE(writes(onChange(1e308), real(kInfinity), real(kInfinity)));
}

TEST(FilterTest, ChangeOfQualityAloneIsNotWritten) {
  EXPECT_FALSE(onChange()(makePin(1, real(1), 0), makePin(2, real(1), 0x80000000)));
}

TEST(FilterTest, SilencedBlocksDoNotChangeTheDecision) {
  Filter filter = onChange();
  filter.blocksWrite = false;
  EXPECT_TRUE(writes(filter, real(1), real(2)));
}

// ---- which rule decides

TEST(FilterTest, ARuleAcceptsOrRefuses) {
  using Rule = Filter::Rule;
  for (const Rule rule :
       {Rule::first, Rule::allValues, Rule::maxPeriod, Rule::change, Rule::outsideDeadband}) {
    EXPECT_TRUE(Filter::accepts(rule)) << static_cast<int>(rule);
  }
  for (const Rule rule :
       {Rule::oldTime, Rule::withinMaxPeriod, Rule::minPeriod, Rule::equal, Rule::insideDeadband}) {
    EXPECT_FALSE(Filter::accepts(rule)) << static_cast<int>(rule);
  }
  EXPECT_EQ(static_cast<std::size_t>(Rule::insideDeadband) + 1, Filter::kRules);
}

TEST(FilterTest, TheRuleThatDecidesIsTold) {
  using Rule = Filter::Rule;
  const test::TraceCapture trace;
  const PinPtr last = makePin(1000, real(5));
  const auto rule = [&last](const Filter& filter, std::int64_t time,
                            const OpcUa_VariantHlp& value) {
    return filter.rule(last, makePin(time, value));
  };
  Filter periods = onChange(1);
  periods.minWritePeriod = 10;
  periods.maxWritePeriod = 100;
  EXPECT_EQ(periods.rule({}, last), Rule::first);
  EXPECT_EQ(rule(loaded(R"({"allValues":true})"), 1000, real(5)), Rule::allValues);
  EXPECT_EQ(rule(loaded(R"({"allValues":true})"), 999, real(6)), Rule::oldTime);
  EXPECT_EQ(rule(periods, 1101, real(5)), Rule::maxPeriod);
  EXPECT_EQ(rule(Filter(), 1100, real(6)), Rule::withinMaxPeriod);
  EXPECT_EQ(rule(periods, 1009, real(9)), Rule::minPeriod);
  EXPECT_EQ(rule(periods, 1010, real(5)), Rule::equal);
  EXPECT_EQ(rule(periods, 1010, text("x")), Rule::change);
  EXPECT_EQ(rule(onChange(), 1001, real(5.1)), Rule::change);
  EXPECT_EQ(rule(periods, 1010, real(6)), Rule::outsideDeadband);
  EXPECT_EQ(rule(periods, 1010, real(5.5)), Rule::insideDeadband);
}

}  // namespace
}  // namespace orva::archive::filter_test
