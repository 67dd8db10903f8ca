#include "orva_host/value_text.h"

#include <gtest/gtest.h>

#include <cmath>

#include "orva_host/type_names.h"
#include "share/ticks.h"

namespace orva::host {
namespace {

OpcUa_VariantHlp read(const std::string& text, OpcUa_Byte type, bool quoted = false) {
  OpcUa_VariantHlp value;
  EXPECT_TRUE(readValueWord({text, quoted}, type, value)) << text << " as " << typeName(type);
  return value;
}

// Whether the word is no value of the type, and leaves the target alone.
bool refused(const std::string& text, OpcUa_Byte type) {
  OpcUa_VariantHlp value;
  value.SetInt(7);
  if (readValueWord({text}, type, value)) return false;
  return value.GetType() == OpcUaType_Int32 && value.Get().Value.Int32 == 7;
}

TEST(ValueTextTest, ValuesHaveTheTypeThatIsAskedFor) {
  EXPECT_TRUE(read("true", OpcUaType_Boolean).Get().Value.Boolean);
  EXPECT_EQ(read("-128", OpcUaType_SByte).Get().Value.SByte, -128);
  EXPECT_EQ(read("65535", OpcUaType_UInt16).Get().Value.UInt16, 65535);
  EXPECT_EQ(read("-9223372036854775808", OpcUaType_Int64).Get().Value.Int64, INT64_MIN);
  EXPECT_EQ(read("18446744073709551615", OpcUaType_UInt64).Get().Value.UInt64, UINT64_MAX);
  EXPECT_EQ(read("0.1", OpcUaType_Float).Get().Value.Float, 0.1F);
  EXPECT_EQ(read("-2.5e3", OpcUaType_Double).Get().Value.Double, -2500);
  EXPECT_EQ(read("two words", OpcUaType_String).GetString(), "two words");
  const OpcUa_VariantHlp time = read("1970-01-01T00:00:01Z", OpcUaType_DateTime);
  EXPECT_EQ(OpcUa_DateTime_ToInt64(&time.Get().Value.DateTime), kUnixEpochTicks + kTicksPerSecond);
  EXPECT_EQ(read("abc", OpcUaType_Null).GetType(), OpcUaType_String);
}

TEST(ValueTextTest, NumbersWithNamesAreFloatingPoint) {
  for (const OpcUa_Byte type : {OpcUaType_Float, OpcUaType_Double}) {
    double number = 0;
    ASSERT_TRUE(read("nan", type).GetDouble(number));
    EXPECT_TRUE(std::isnan(number));
    ASSERT_TRUE(read("inf", type).GetDouble(number));
    EXPECT_EQ(number, HUGE_VAL);
    ASSERT_TRUE(read("-inf", type).GetDouble(number));
    EXPECT_EQ(number, -HUGE_VAL);
    EXPECT_EQ(read("nan", type).GetType(), type);
  }
  EXPECT_TRUE(refused("nan", OpcUaType_Int32));
}

TEST(ValueTextTest, NullIsAWordWithoutQuotes) {
  EXPECT_EQ(read("null", OpcUaType_Double).GetType(), OpcUaType_Null);
  EXPECT_EQ(read("null", OpcUaType_String).GetType(), OpcUaType_Null);
  EXPECT_EQ(read("null", OpcUaType_String, /*quoted=*/true).GetString(), "null");
}

TEST(ValueTextTest, WhatIsNoValueOfTheTypeIsRefused) {
  EXPECT_TRUE(refused("yes", OpcUaType_Boolean));
  EXPECT_TRUE(refused("128", OpcUaType_SByte));
  EXPECT_TRUE(refused("-1", OpcUaType_Byte));
  EXPECT_TRUE(refused("2.5", OpcUaType_Int32));
  EXPECT_TRUE(refused("1e3", OpcUaType_Int32));
  EXPECT_TRUE(refused("9223372036854775808", OpcUaType_Int64));
  EXPECT_TRUE(refused("18446744073709551616", OpcUaType_UInt64));
  EXPECT_TRUE(refused("1e39", OpcUaType_Float));
  EXPECT_TRUE(refused("", OpcUaType_Double));
  EXPECT_TRUE(refused("1,5", OpcUaType_Double));
  EXPECT_TRUE(refused("yesterday", OpcUaType_DateTime));
  EXPECT_TRUE(refused("1", OpcUaType_NodeId));
}

TEST(ValueTextTest, WordsReadBackAsTheSameValue) {
  const std::vector<std::pair<OpcUa_Byte, std::vector<std::string>>> words = {
      {OpcUaType_Boolean, {"true", "false"}},
      {OpcUaType_SByte, {"-128", "127"}},
      {OpcUaType_Byte, {"0", "255"}},
      {OpcUaType_Int16, {"-32768"}},
      {OpcUaType_UInt32, {"4294967295"}},
      {OpcUaType_Int64, {"-9223372036854775808", "9223372036854775807"}},
      {OpcUaType_UInt64, {"18446744073709551615"}},
      {OpcUaType_Float, {"0.1", "nan", "inf"}},
      {OpcUaType_Double, {"0.1", "-2.5", "1e+300", "nan", "-inf"}},
      {OpcUaType_DateTime, {"2024-05-17T08:09:10.1234567Z", "1601-01-01T00:00:00.000Z"}}};
  for (const auto& [type, texts] : words) {
    for (const std::string& text : texts) EXPECT_EQ(valueWord(read(text, type)), text);
  }
  EXPECT_EQ(valueWord(read("null", OpcUaType_Double)), "null");
  EXPECT_EQ(valueWord(read("null", OpcUaType_String, true)), "\"null\"");
  EXPECT_EQ(valueWord(read("a \"b\"", OpcUaType_String, true)), R"("a \"b\"")");
  EXPECT_EQ(valueWord(read("{}", OpcUaType_Json, true)), "\"{}\"");
}

TEST(ValueTextTest, TypesWithoutATextOfTheirOwnAreShownAsOneWord) {
  OpcUa_VariantHlp array;
  OpcUa_VariantHlp items[2];
  items[0].SetInt(1);
  items[1].SetInt(2);
  array.SetArray(OpcUaType_Int32, items, 2);
  EXPECT_EQ(valueWord(array), "\"[1, 2]\"");
  OpcUa_VariantHlp bytes;
  bytes.SetBytes(OpcUaType_ByteString, "\x01\xFF", 2);
  EXPECT_EQ(valueWord(bytes), "\"01ff\"");
}

TEST(ValueTextTest, TimesAreDatesOrTicks) {
  std::int64_t ticks = 0;
  EXPECT_TRUE(readTime("-5", ticks));
  EXPECT_EQ(ticks, -5);
  EXPECT_TRUE(readTime("1970-01-01", ticks));
  EXPECT_EQ(ticks, kUnixEpochTicks);
  EXPECT_TRUE(readTime("1970", ticks));
  EXPECT_EQ(ticks, 1970);
  EXPECT_FALSE(readTime("soon", ticks));
  EXPECT_FALSE(readTime("9223372036854775808", ticks));
}

}  // namespace
}  // namespace orva::host
