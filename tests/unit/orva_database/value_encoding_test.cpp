#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <random>
#include <string>

#include "orva_database/number_text.h"
#include "share/addins_share.h"
#include "share/reply_buffer.h"
#include "share/reply_writer.h"
#include "share/ticks.h"
#include "support/trace_capture.h"

namespace orva {
namespace {

using test::TraceCapture;

constexpr double kInfinity = std::numeric_limits<double>::infinity();
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

// What `write` writes into an array, which must be all there is.
template <class Write>
std::string written(Write&& write) {
  char memory[4096];
  FixedOutBuf buffer(memory, sizeof memory);
  ReplyWriter writer(buffer);
  writer.StartArray();
  write(writer);
  writer.EndArray();
  EXPECT_FALSE(buffer.overflow_);
  const std::string text(memory, static_cast<std::size_t>(buffer.Length()));
  EXPECT_EQ(text.front(), '[');
  EXPECT_EQ(text.back(), ']');
  return text.substr(1, text.size() - 2);
}

std::string timeText(long long time) {
  return written([&](ReplyWriter& writer) { EXPECT_EQ(WriteDateValue(time, writer), 0); });
}

std::string valueText(const OpcUa_VariantHlp& value) {
  return written([&](ReplyWriter& writer) { EXPECT_EQ(WriteVarValue(value, writer), 0); });
}

template <class Set>
OpcUa_VariantHlp variant(Set&& set) {
  OpcUa_VariantHlp value;
  set(value);
  return value;
}

OpcUa_VariantHlp real(double v) {
  return variant([&](OpcUa_VariantHlp& value) { value.SetDouble(v); });
}

OpcUa_VariantHlp text(const std::string& v) {
  return variant([&](OpcUa_VariantHlp& value) { value.SetString(v); });
}

std::string pinText(const PinPtr& pin) {
  return written([&](ReplyWriter& writer) { WritePinValue(pin, writer); });
}

std::string libraryText(double v) {
  rapidjson::StringBuffer buffer;
  rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
  writer.Double(v);
  return buffer.GetString();
}

std::string ownText(double v) {
  char digits[text::kDoubleRoom];
  return std::string(digits, text::writeDouble(digits, v));
}

// ---- times

TEST(TimeEncodingTest, TimeZeroIsZero) { EXPECT_EQ(timeText(0), "0"); }

TEST(TimeEncodingTest, TimesAreMillisecondsSince1970) {
  EXPECT_EQ(timeText(kUnixEpochTicks), "0");
  EXPECT_EQ(timeText(kUnixEpochTicks + 10'000), "1");
  EXPECT_EQ(timeText(133'604'064'000'000'000), "1715932800000");
  EXPECT_EQ(timeText(std::numeric_limits<std::int64_t>::max()), "910692730085477");
}

TEST(TimeEncodingTest, WhatIsLessThanAMillisecondIsCut) {
  EXPECT_EQ(timeText(kUnixEpochTicks + 9'999), "0");
  EXPECT_EQ(timeText(kUnixEpochTicks + 19'999), "1");
}

TEST(TimeEncodingTest, TimesBefore1970AreMillisecondsSince1601) {
  EXPECT_EQ(timeText(kUnixEpochTicks - 1), "11644473599999");
  EXPECT_EQ(timeText(10'000), "1");
  EXPECT_EQ(timeText(9'999), "0");
}

TEST(TimeEncodingTest, TimesBefore1601AreDividedAsUnsignedNumbers) {
  EXPECT_EQ(timeText(-1), "1833029933770955");
  EXPECT_EQ(timeText(std::numeric_limits<std::int64_t>::min()), "910692730085477");
}

// ---- values

TEST(ValueEncodingTest, NullIsNull) { EXPECT_EQ(valueText({}), "null"); }

TEST(ValueEncodingTest, BooleansAreLiterals) {
  EXPECT_EQ(valueText(variant([](auto& v) { v.SetBool(true); })), "true");
  EXPECT_EQ(valueText(variant([](auto& v) { v.SetBool(false); })), "false");
}

TEST(ValueEncodingTest, IntegersOfEveryTypeAreNumbersAtBothEnds) {
  EXPECT_EQ(valueText(variant([](auto& v) { v.SetSByte(-128); })), "-128");
  EXPECT_EQ(valueText(variant([](auto& v) { v.SetSByte(127); })), "127");
  EXPECT_EQ(valueText(variant([](auto& v) { v.SetByte(255); })), "255");
  EXPECT_EQ(valueText(variant([](auto& v) { v.SetInt16(-32768); })), "-32768");
  EXPECT_EQ(valueText(variant([](auto& v) { v.SetUInt16(65535); })), "65535");
  EXPECT_EQ(valueText(variant([](auto& v) { v.SetInt(-2147483647 - 1); })), "-2147483648");
  EXPECT_EQ(valueText(variant([](auto& v) { v.SetUInt(4294967295U); })), "4294967295");
  EXPECT_EQ(valueText(variant([](auto& v) { v.SetInt64(INT64_MIN); })), "-9223372036854775808");
  EXPECT_EQ(valueText(variant([](auto& v) { v.SetInt64(INT64_MAX); })), "9223372036854775807");
  EXPECT_EQ(valueText(variant([](auto& v) { v.SetUInt64(UINT64_MAX); })), "18446744073709551615");
}

TEST(ValueEncodingTest, AFloatIsWidened) {
  EXPECT_EQ(valueText(variant([](auto& v) { v.SetFloat(0.5F); })), "0.5");
  EXPECT_EQ(valueText(variant([](auto& v) { v.SetFloat(0.1F); })), "0.10000000149011612");
}

TEST(ValueEncodingTest, ADoubleIsTheShortestNumberThatReadsBackTheSame) {
  EXPECT_EQ(valueText(real(0.1)), "0.1");
  EXPECT_EQ(valueText(real(1.0)), "1.0");
  EXPECT_EQ(valueText(real(-20.5)), "-20.5");
  EXPECT_EQ(valueText(real(1e300)), "1e300");
  EXPECT_EQ(valueText(real(-0.0)), "-0.0");
  EXPECT_EQ(valueText(real(std::numeric_limits<double>::max())), "1.7976931348623157e308");
}

TEST(ValueEncodingTest, NumbersThatAreNotFiniteAreNull) {
  for (const double v : {kNaN, kInfinity, -kInfinity}) {
    EXPECT_EQ(valueText(real(v)), "null");
    EXPECT_EQ(valueText(variant([&](auto& f) { f.SetFloat(static_cast<float>(v)); })), "null");
  }
}

TEST(ValueEncodingTest, AStringIsQuotedAndEscapedWithItsStoredLength) {
  EXPECT_EQ(valueText(text("pump")), "\"pump\"");
  EXPECT_EQ(valueText(text("a\"b\\c\n\t/\x01")), R"("a\"b\\c\n\t/\u0001")");
  EXPECT_EQ(valueText(text(std::string("a\0b", 3))), R"("a\u0000b")");
  EXPECT_EQ(valueText(text("\xC3\xA4")), "\"\xC3\xA4\"");
}

TEST(ValueEncodingTest, AStringWithoutTextIsAnEmptyString) {
  EXPECT_EQ(valueText(text("")), "\"\"");
  EXPECT_EQ(valueText(variant([](auto& v) { v.SetString(nullptr, 0); })), "\"\"");
}

TEST(ValueEncodingTest, ADateTimeIsWrittenAsATime) {
  EXPECT_EQ(valueText(variant([](auto& v) { v.SetDateTime(kUnixEpochTicks + 10'000); })), "1");
  EXPECT_EQ(valueText(variant([](auto& v) { v.SetDateTime(0); })), "0");
}

TEST(ValueEncodingTest, JsonTextIsWrittenAsItIs) {
  EXPECT_EQ(valueText(variant([](auto& v) { v.SetJson("{\"a\":[1,\"x\"]}"); })),
            "{\"a\":[1,\"x\"]}");
}

TEST(ValueEncodingTest, EmptyJsonTextWritesNothingAndTracesNothing) {
  TraceCapture traces;
  const std::string around = written([](ReplyWriter& writer) {
    writer.Int(1);
    EXPECT_EQ(WriteVarValue(variant([](auto& v) { v.SetJson(""); }), writer), 0);
    writer.Int(2);
  });
  EXPECT_EQ(around, "1,2");
  EXPECT_TRUE(traces.lines().empty());
}

TEST(ValueEncodingTest, OtherTypesWriteNothingAndAreTraced) {
  for (int type = 14; type <= 40; ++type) {
    if (type == OpcUaType_Json) continue;
    OpcUa_Variant raw;
    OpcUa_Variant_Initialize(&raw);
    OpcUa_VariantHlp value;
    // A value whose type alone is foreign.
    const_cast<OpcUa_Variant&>(value.Get()).Datatype = static_cast<OpcUa_Byte>(type);
    TraceCapture traces;
    const std::string around = written([&](ReplyWriter& writer) {
      writer.Int(1);
      EXPECT_EQ(WriteVarValue(value, writer), 0);
      writer.Int(2);
    });
    EXPECT_EQ(around, "1,2");
    ASSERT_EQ(traces.lines().size(), 1U);
    EXPECT_EQ(traces.lines()[0].level, 0x10U);
    EXPECT_EQ(traces.lines()[0].text, "<-- Invalid var type " + std::to_string(type) + "\n");
    const_cast<OpcUa_Variant&>(value.Get()).Datatype = OpcUaType_Null;
  }
}

TEST(ValueEncodingTest, AnArrayWritesNothingAndIsTraced) {
  const OpcUa_VariantHlp items[] = {real(1), real(2)};
  OpcUa_VariantHlp array;
  array.SetArray(OpcUaType_Double, items, 2);
  TraceCapture traces;
  EXPECT_EQ(valueText(array), "");
  EXPECT_EQ(traces.count("<-- Invalid var type 11\n"), 1);
}

// ---- samples

TEST(SampleEncodingTest, ASampleIsTimeValueAndQuality) {
  EXPECT_EQ(pinText(makePin(kUnixEpochTicks + 10'000, real(20.5), 0)), "[1,20.5,0]");
  EXPECT_EQ(pinText(makePin(0, text("on"), 0x80320000)), "[0,\"on\",2150760448]");
}

TEST(SampleEncodingTest, TheLongestSampleIsWrittenWhole) {
  EXPECT_EQ(pinText(makePin(-1, variant([](auto& v) { v.SetInt64(INT64_MIN); }), 0xFFFFFFFF)),
            "[1833029933770955,-9223372036854775808,4294967295]");
  EXPECT_EQ(pinText(makePin(-1, real(-2.2250738585072014e-308), 0xFFFFFFFF)),
            "[1833029933770955,-2.2250738585072014e-308,4294967295]");
}

TEST(SampleEncodingTest, AValueThatWritesNothingLeavesValidJson) {
  TraceCapture traces;
  const PinPtr empty = makePin(0, variant([](auto& v) { v.SetJson(""); }), 5);
  EXPECT_EQ(pinText(empty), "[0,5]");
  const PinPtr guid = makePin(0, variant([](auto& v) { v.SetBytes(OpcUaType_Guid, "x", 1); }), 5);
  EXPECT_EQ(pinText(guid), "[0,5]");
  EXPECT_EQ(traces.count("<-- Invalid var type 14\n"), 1);
}

TEST(SampleEncodingTest, AReplyWithASampleOfMinusInfinityParses) {
  const std::string array = "[" + pinText(makePin(0, real(-kInfinity), 0)) + "]";
  json::Document document;
  document.Parse(array.c_str());
  ASSERT_FALSE(document.HasParseError()) << array;
  EXPECT_TRUE(document[0U][1U].IsNull());
}

TEST(SampleEncodingTest, AListIsWrittenInItsOrder) {
  PinList pins;
  std::string expected;
  for (int count = 0; count < 12; ++count) {
    EXPECT_EQ(written([&](ReplyWriter& writer) { WritePinValues(pins, writer); }), expected);
    pins.push_back(makePin(0, real(count), 0));
    if (count > 0) expected += ',';
    expected += "[0," + std::to_string(count) + ".0,0]";
  }
}

TEST(SampleEncodingDeathTest, ANullSampleIsAProgrammingError) {
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  char memory[64];
  FixedOutBuf buffer(memory, sizeof memory);
  ReplyWriter writer(buffer);
  EXPECT_DEATH(WritePinValue(PinPtr(), writer), "");
}

// ---- numbers

TEST(NumberTextTest, DoublesReadAsTheLibraryWritesThem) {
  std::mt19937_64 random(7);
  auto upTo = [&](std::uint64_t end) { return static_cast<double>(random() % end); };
  int differences = 0;
  auto compare = [&](double v) {
    for (const double signedValue : {v, -v}) {
      const std::string own = ownText(signedValue);
      if (own == libraryText(signedValue)) continue;
      if (++differences <= 10) ADD_FAILURE() << own << " for " << libraryText(signedValue);
    }
  };
  for (int i = 0; i < 150'000; ++i) {
    compare(upTo(100'000) / 10.0);
    compare(upTo(10'000'000) / 100.0);
    compare(upTo(1'000'000'000'000'000) / 10'000.0);
    compare(upTo(1'000'000'000'000'000) / 1e9);
    compare(upTo(1'000'000) * 1e9);
    compare(static_cast<double>(static_cast<float>(upTo(1'000'000) / 37.0)));
    compare(std::ldexp(static_cast<double>(random() >> 11), -static_cast<int>(random() % 1120)));
    const std::uint64_t bits = random();
    double any;
    std::memcpy(&any, &bits, sizeof any);
    if (std::isfinite(any)) compare(any);
  }
  EXPECT_EQ(differences, 0);
}

TEST(NumberTextTest, DoublesAtTheEdgesReadAsTheLibraryWritesThem) {
  for (int exponent = -324; exponent <= 308; ++exponent) {
    const double power = std::strtod(("1e" + std::to_string(exponent)).c_str(), nullptr);
    for (const double factor : {1.0, 1.5, 5.0, 9.999}) {
      for (double v : {power * factor, std::nextafter(power * factor, 0.0),
                       std::nextafter(power * factor, 1e308)}) {
        if (!std::isfinite(v)) continue;
        EXPECT_EQ(ownText(v), libraryText(v));
        EXPECT_EQ(ownText(-v), libraryText(-v));
      }
    }
  }
  for (int exponent = -1074; exponent <= 1023; ++exponent) {
    const double v = std::ldexp(1.0, exponent);
    EXPECT_EQ(ownText(v), libraryText(v));
  }
  for (const double v : {0.0, -0.0, 5e-324, 999999999999999.9, 999999999999999.0, 1e15, 1e15 + 1,
                         9007199254740993.0, 1e21, 1e22, 99999999999.99, 999999.999999999}) {
    EXPECT_EQ(ownText(v), libraryText(v));
  }
}

// ---- integer members of a request

long long safeInt(const std::string& object, long long fallback = -77) {
  json::Document document;
  document.Parse(object.c_str());
  EXPECT_FALSE(document.HasParseError()) << object;
  return GetSafeInt64Value(document, "n", fallback);
}

TEST(SafeIntegerTest, IntegersAndDecimalTextAreRead) {
  EXPECT_EQ(safeInt(R"({"n":5})"), 5);
  EXPECT_EQ(safeInt(R"({"n":-2147483648})"), -2147483648LL);
  EXPECT_EQ(safeInt(R"({"n":9223372036854775807})"), INT64_MAX);
  EXPECT_EQ(safeInt(R"({"n":-9223372036854775808})"), INT64_MIN);
  EXPECT_EQ(safeInt(R"({"n":"123"})"), 123);
}

TEST(SafeIntegerTest, EverythingElseGivesTheFallback) {
  for (const char* object : {"{}", R"({"m":1})", R"({"n":1.5})", R"({"n":1.0})", R"({"n":1e3})",
                             R"({"n":9223372036854775808})", R"({"n":18446744073709551615})",
                             R"({"n":null})", R"({"n":true})", R"({"n":{}})", R"({"n":[1]})"}) {
    EXPECT_EQ(safeInt(object), -77) << object;
  }
}

TEST(SafeIntegerTest, TextIsReadAsFarAsItIsANumber) {
  EXPECT_EQ(safeInt(R"({"n":" -5x"})"), -5);
  EXPECT_EQ(safeInt(R"({"n":"+7"})"), 7);
  EXPECT_EQ(safeInt(R"({"n":"0x10"})"), 0);
  EXPECT_EQ(safeInt(R"({"n":""})"), 0);
  EXPECT_EQ(safeInt(R"({"n":"abc"})"), 0);
  EXPECT_EQ(safeInt(R"({"n":"1.5"})"), 1);
  EXPECT_EQ(safeInt(R"({"n":"1234567890123456789012345"})"), INT64_MAX);
  EXPECT_EQ(safeInt(R"({"n":"-1234567890123456789012345"})"), INT64_MIN);
}

TEST(SafeIntegerTest, AValueThatIsNoObjectIsTracedAndGivesTheFallback) {
  for (const char* value : {"null", "true", "1", "2.5", "\"n\"", "[{\"n\":1}]"}) {
    TraceCapture traces;
    EXPECT_EQ(safeInt(value), -77) << value;
    EXPECT_EQ(traces.count("<--Assert IsObject() failed\n"), 1) << value;
    EXPECT_EQ(traces.lines().size(), 1U);
    EXPECT_EQ(traces.lines()[0].level, 0x20U);
  }
}

}  // namespace
}  // namespace orva
