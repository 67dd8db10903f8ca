#include "host/opcua_variant.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <vector>

#include "share/ticks.h"

namespace {

using Hlp = OpcUa_VariantHlp;
constexpr OpcUa_StatusCode kTypeMismatch = 0x80740000;
constexpr double kInfinity = std::numeric_limits<double>::infinity();
const double kNan = std::nan("");

template <class T>
Hlp made(void (Hlp::*set)(T), T v) {
  Hlp value;
  (value.*set)(v);
  return value;
}

Hlp text(const std::string& characters) {
  Hlp value;
  value.SetString(characters);
  return value;
}

Hlp real(double v) { return made(&Hlp::SetDouble, v); }
Hlp whole(std::int64_t v) { return made(&Hlp::SetInt64, v); }

// One value of every built-in type, 0 to 26, and an array.
std::vector<Hlp> oneOfEachType() {
  std::vector<Hlp> all(10);
  all[1].SetBool(true);
  all[2].SetSByte(-5);
  all[3].SetByte(250);
  all[4].SetInt16(-30000);
  all[5].SetUInt16(60000);
  all[6].SetInt(-2'000'000'000);
  all[7].SetUInt(4'000'000'000U);
  all[8].SetInt64(INT64_MIN);
  all[9].SetUInt64(UINT64_MAX);
  all.push_back(made(&Hlp::SetFloat, -0.0F));
  all.push_back(real(-0.1));
  all.push_back(text(std::string("a\0b", 3)));
  all.push_back(made(&Hlp::SetDateTime, std::int64_t{-7}));
  for (int type = OpcUaType_Guid; type <= OpcUaType_ExtensionObject; ++type) {
    all.emplace_back().SetBytes(static_cast<OpcUa_BuiltInType>(type), "\x01\x00\xFF", 3);
  }
  all.emplace_back().SetDataValue(text("inner"), 0x80000000U, 5, 6);
  all.emplace_back().SetBytes(OpcUaType_Variant, "v", 1);
  all.emplace_back().SetBytes(OpcUaType_DiagnosticInfo, "d", 1);
  all.emplace_back().SetJson("{\"a\":1}");
  const Hlp elements[] = {text("x"), text("y")};
  all.emplace_back().SetArray(OpcUaType_String, elements, 2);
  return all;
}

TEST(OpcUaVariantTest, IsSixteenBytesAndNullAtFirst) {
  EXPECT_EQ(sizeof(Hlp), 16U);
  EXPECT_EQ(Hlp().GetType(), OpcUaType_Null);
}

TEST(OpcUaVariantTest, EveryTypeIsCopiedMovedAndComparedWhole) {
  const auto all = oneOfEachType();
  ASSERT_EQ(all.size(), 28U);
  for (std::size_t i = 0; i < all.size(); ++i) {
    EXPECT_EQ(all[i].GetType(), i < 27 ? i : std::size_t{OpcUaType_String});
    const Hlp copy = all[i];
    EXPECT_TRUE(copy.IsEqual(all[i])) << i;
    Hlp source = copy;
    const Hlp moved = std::move(source);
    EXPECT_TRUE(moved.IsEqual(copy)) << i;
    OpcUa_Variant raw;
    OpcUa_Variant_Initialize(&raw);
    Hlp::CopyVariants(copy.Get(), raw);
    EXPECT_TRUE(Hlp(raw).IsEqual(copy)) << i;
    OpcUa_Variant_Clear(&raw);
    EXPECT_EQ(raw.Datatype, OpcUaType_Null);
    for (std::size_t j = 0; j < all.size(); ++j) EXPECT_EQ(all[i].IsEqual(all[j]), i == j);
  }
}

TEST(OpcUaVariantTest, CopiesOfFloatingPointKeepEveryBit) {
  std::uint64_t bits = 0xFFF4000000000001ULL;  // a NaN with a payload
  double payload = 0;
  std::memcpy(&payload, &bits, sizeof bits);
  const Hlp original = real(payload);
  const Hlp copy = original;
  EXPECT_EQ(copy.Get().Value.UInt64, bits);
  EXPECT_TRUE(std::signbit(Hlp(real(-0.0)).Get().Value.Double));
}

TEST(OpcUaVariantTest, ShortScalarsLeaveNoForeignBits) {
  Hlp value = whole(-1);
  value.SetBool(true);
  EXPECT_EQ(value.Get().Value.UInt64, 1U);
  value.SetUInt64(UINT64_MAX);
  value.SetInt16(-1);
  EXPECT_EQ(value.Get().Value.UInt64, 0xFFFFU);
}

TEST(OpcUaVariantTest, NanEqualsNanAndBothZerosAreEqual) {
  EXPECT_TRUE(real(kNan).IsEqual(real(-kNan)));
  EXPECT_TRUE(real(0.0).IsEqual(real(-0.0)));
  EXPECT_TRUE(made(&Hlp::SetFloat, std::nanf("")).IsEqual(made(&Hlp::SetFloat, std::nanf("1"))));
  EXPECT_FALSE(real(kNan).IsEqual(made(&Hlp::SetFloat, std::nanf(""))));
  EXPECT_FALSE(real(1).IsEqual(whole(1)));
  EXPECT_FALSE(real(1).IsEqual(real(kNan)));
}

TEST(OpcUaVariantTest, StringKeepsItsLengthAndItsNuls) {
  const Hlp value = text(std::string("a\0b", 3));
  const OpcUa_String* stored = value.Get().Value.String;
  EXPECT_EQ(OpcUa_String_StrSize(stored), 3U);
  EXPECT_EQ(std::memcmp(OpcUa_String_GetRawString(stored), "a\0b\0", 4), 0);
  EXPECT_EQ(value.GetString(), std::string("a\0b", 3));
}

TEST(OpcUaVariantTest, StringWithoutTextHasNoCharacters) {
  Hlp value;
  value.SetString(nullptr, 5);
  EXPECT_EQ(value.GetType(), OpcUaType_String);
  EXPECT_EQ(OpcUa_String_GetRawString(value.Get().Value.String), nullptr);
  EXPECT_EQ(OpcUa_String_StrSize(value.Get().Value.String), 0U);
  EXPECT_EQ(value.GetString(), "");
  EXPECT_FALSE(value.IsEqual(text("")));
  const Hlp copy = value;
  EXPECT_TRUE(copy.IsEqual(value));
  EXPECT_STREQ(OpcUa_String_GetRawString(text("").Get().Value.String), "");
}

TEST(OpcUaVariantTest, ValueMayBeSetFromItsOwnText) {
  Hlp value = text("abcdef");
  value.SetString(OpcUa_String_GetRawString(value.Get().Value.String) + 2, 3);
  EXPECT_EQ(value.GetString(), "cde");
}

TEST(OpcUaVariantTest, DataValueCarriesItsPartsAndGivesTheInnerValueOnce) {
  Hlp value;
  value.SetDataValue(text("inner"), 0x40000000U, 123'456'789'012LL, -1);
  const OpcUa_DataValue* parts = value.GetDataValue();
  ASSERT_NE(parts, nullptr);
  EXPECT_EQ(parts->StatusCode, 0x40000000U);
  EXPECT_EQ(OpcUa_DateTime_ToInt64(&parts->SourceTimestamp), 123'456'789'012LL);
  EXPECT_EQ(OpcUa_DateTime_ToInt64(&parts->ServerTimestamp), -1);
  const Hlp copy = value;
  EXPECT_EQ(value.TakeInnerValue().GetString(), "inner");
  EXPECT_EQ(value.TakeInnerValue().GetType(), OpcUaType_Null);
  EXPECT_EQ(Hlp(copy.GetDataValue()->Value).GetString(), "inner");
  EXPECT_EQ(text("x").GetDataValue(), nullptr);
  EXPECT_EQ(text("x").TakeInnerValue().GetType(), OpcUaType_Null);
}

TEST(OpcUaVariantTest, DataValuesDifferInEachPart) {
  const auto dataValue = [](double v, OpcUa_StatusCode code, std::int64_t time) {
    Hlp value;
    value.SetDataValue(real(v), code, time);
    return value;
  };
  const Hlp value = dataValue(1, 2, 3);
  EXPECT_TRUE(value.IsEqual(dataValue(1, 2, 3)));
  EXPECT_FALSE(value.IsEqual(dataValue(0, 2, 3)));
  EXPECT_FALSE(value.IsEqual(dataValue(1, 0, 3)));
  EXPECT_FALSE(value.IsEqual(dataValue(1, 2, 0)));
}

TEST(OpcUaVariantTest, ArraysCompareByLengthAndElements) {
  const auto array = [](std::initializer_list<double> numbers) {
    std::vector<Hlp> items;
    for (double number : numbers) items.push_back(real(number));
    Hlp value;
    value.SetArray(OpcUaType_Double, items.data(), static_cast<std::int32_t>(items.size()));
    return value;
  };
  EXPECT_TRUE(array({1, 2}).IsEqual(array({1, 2})));
  EXPECT_FALSE(array({1, 2}).IsEqual(array({1})));
  EXPECT_FALSE(array({1, 2}).IsEqual(array({1, 3})));
  EXPECT_FALSE(array({1}).IsEqual(real(1)));
  EXPECT_TRUE(array({}).IsEqual(array({})));
  double number = 0;
  EXPECT_FALSE(array({1}).GetDouble(number));
}

TEST(OpcUaVariantTest, NumbersAndNumericTextsReadAsDouble) {
  double number = 0;
  EXPECT_TRUE(made(&Hlp::SetBool, true).GetDouble(number));
  EXPECT_EQ(number, 1);
  EXPECT_TRUE(made(&Hlp::SetUInt64, UINT64_MAX).GetDouble(number));
  EXPECT_EQ(number, 18446744073709551615.0);
  EXPECT_TRUE(made(&Hlp::SetFloat, 0.5F).GetDouble(number));
  EXPECT_EQ(number, 0.5);
  EXPECT_TRUE(real(kNan).GetDouble(number));
  EXPECT_TRUE(std::isnan(number));
  for (const char* good : {"12.5", "+12.5", "1.25e1", "012.50"}) {
    EXPECT_TRUE(text(good).GetDouble(number)) << good;
    EXPECT_EQ(number, 12.5) << good;
  }
  for (const char* bad :
       {"", " 1", "1 ", "1x", "0x10", "nan", "inf", "1,5", "-", "+", "+-1", "."}) {
    number = 7;
    EXPECT_FALSE(text(bad).GetDouble(number)) << bad;
    EXPECT_EQ(number, 7);
  }
  EXPECT_FALSE(Hlp().GetDouble(number));
  EXPECT_FALSE(made(&Hlp::SetDateTime, std::int64_t{1}).GetDouble(number));
}

TEST(OpcUaVariantTest, IntegersAreReadTruncatedAndOnlyWhenTheyFit) {
  std::int64_t number = 0;
  EXPECT_TRUE(real(-2.9).GetInt64(number));
  EXPECT_EQ(number, -2);
  EXPECT_TRUE(real(-9223372036854775808.0).GetInt64(number));
  EXPECT_EQ(number, INT64_MIN);
  EXPECT_TRUE(made(&Hlp::SetUInt64, std::uint64_t{INT64_MAX}).GetInt64(number));
  EXPECT_EQ(number, INT64_MAX);
  number = 7;
  EXPECT_FALSE(real(9223372036854775808.0).GetInt64(number));
  EXPECT_FALSE(real(kNan).GetInt64(number));
  EXPECT_FALSE(real(-kInfinity).GetInt64(number));
  EXPECT_FALSE(made(&Hlp::SetUInt64, std::uint64_t{1} << 63).GetInt64(number));
  EXPECT_FALSE(text("5").GetInt64(number));
  EXPECT_FALSE(Hlp().GetInt64(number));
  EXPECT_EQ(number, 7);
}

TEST(OpcUaVariantTest, EveryNumberButNanReadsAsBoolean) {
  bool flag = false;
  EXPECT_TRUE(real(-0.5).GetBool(flag));
  EXPECT_TRUE(flag);
  EXPECT_TRUE(whole(0).GetBool(flag));
  EXPECT_FALSE(flag);
  EXPECT_FALSE(real(kNan).GetBool(flag));
  EXPECT_FALSE(text("1").GetBool(flag));
  EXPECT_FALSE(Hlp().GetBool(flag));
}

TEST(OpcUaVariantTest, TimeIsTheScaledNumberSaturated) {
  std::int64_t time = 7;
  EXPECT_EQ(Hlp::GetTime(real(2.9), 10, time), 0);
  EXPECT_EQ(time, 29);
  EXPECT_EQ(Hlp::GetTime(real(-2.99), 1, time), 0);
  EXPECT_EQ(time, -2);
  EXPECT_EQ(Hlp::GetTime(whole((1LL << 53) + 1), 3, time), 0);
  EXPECT_EQ(time, ((1LL << 53) + 1) * 3);
  EXPECT_EQ(Hlp::GetTime(text("9223372036854775807"), 1, time), 0);
  EXPECT_EQ(time, INT64_MAX);
  EXPECT_EQ(Hlp::GetTime(text("1.5"), 10, time), 0);
  EXPECT_EQ(time, 15);
  EXPECT_EQ(Hlp::GetTime(made(&Hlp::SetDateTime, std::int64_t{42}), 10, time), 0);
  EXPECT_EQ(time, 42);
}

TEST(OpcUaVariantTest, TimeBeyondItsRangeStopsAtTheEnds) {
  std::int64_t time = 0;
  for (const Hlp& large : {real(kInfinity), real(1e300), whole(INT64_MAX), text("1e30"),
                           made(&Hlp::SetUInt64, UINT64_MAX)}) {
    EXPECT_EQ(Hlp::GetTime(large, 10'000, time), 0);
    EXPECT_EQ(time, INT64_MAX);
    EXPECT_EQ(Hlp::GetTime(large, -10'000, time), 0);
    EXPECT_EQ(time, INT64_MIN);
  }
  EXPECT_EQ(Hlp::GetTime(whole(INT64_MIN), -1, time), 0);
  EXPECT_EQ(time, INT64_MAX);
}

TEST(OpcUaVariantTest, WhatIsNoNumberIsTimeZero) {
  for (const Hlp& none : {Hlp(), real(kNan), text("x"), text("")}) {
    std::int64_t time = 7;
    EXPECT_EQ(Hlp::GetTime(none, 1, time), 1);
    EXPECT_EQ(time, 0);
  }
}

TEST(OpcUaVariantTest, NumbersChangeTypeWhenTheyFit) {
  Hlp value = real(200.7);
  EXPECT_EQ(value.ChangeType(OpcUaType_Byte), 0U);
  EXPECT_EQ(value.Get().Value.Byte, 200);
  EXPECT_EQ(value.ChangeType(OpcUaType_SByte), kTypeMismatch);
  EXPECT_EQ(value.GetType(), OpcUaType_Byte);
  EXPECT_EQ(value.Get().Value.Byte, 200);
  EXPECT_EQ(value.ChangeType(OpcUaType_Float), 0U);
  EXPECT_EQ(value.Get().Value.Float, 200.0F);
  EXPECT_EQ(value.ChangeType(OpcUaType_Boolean), 0U);
  EXPECT_TRUE(value.Get().Value.Boolean);
  EXPECT_EQ(value.ChangeType(OpcUaType_String), 0U);
  EXPECT_EQ(value.GetString(), "true");
  EXPECT_EQ(value.ChangeType(OpcUaType_Boolean), 0U);
  EXPECT_EQ(value.ChangeType(OpcUaType_UInt64), 0U);
  EXPECT_EQ(value.Get().Value.UInt64, 1U);
}

TEST(OpcUaVariantTest, EndsOfIntegerTypesAreKeptExactly) {
  Hlp value = made(&Hlp::SetUInt64, UINT64_MAX);
  EXPECT_EQ(value.ChangeType(OpcUaType_Int64), kTypeMismatch);
  EXPECT_EQ(value.ChangeType(OpcUaType_String), 0U);
  EXPECT_EQ(value.GetString(), "18446744073709551615");
  value = real(18446744073709549568.0);  // the largest double below 2^64
  EXPECT_EQ(value.ChangeType(OpcUaType_UInt64), 0U);
  EXPECT_EQ(value.Get().Value.UInt64, 18446744073709549568U);
  value = real(18446744073709551616.0);
  EXPECT_EQ(value.ChangeType(OpcUaType_UInt64), kTypeMismatch);
  value = real(-0.5);
  EXPECT_EQ(value.ChangeType(OpcUaType_UInt64), 0U);
  EXPECT_EQ(value.Get().Value.UInt64, 0U);
}

TEST(OpcUaVariantTest, ImpossibleChangeLeavesTheValueAlone) {
  const std::pair<Hlp, OpcUa_Byte> impossible[] = {
      {real(kNan), OpcUaType_Int32},  {real(kNan), OpcUaType_Boolean},
      {real(1e300), OpcUaType_Float}, {text("abc"), OpcUaType_Double},
      {real(1), OpcUaType_Null},      {real(1), OpcUaType_DataValue},
      {text("x"), OpcUaType_Json},    {real(1), OpcUaType_ByteString},
      {real(1), OpcUaType_Guid},      {real(1), 200},
  };
  for (const auto& [value, type] : impossible) {
    Hlp changed = value;
    EXPECT_EQ(changed.ChangeType(type), kTypeMismatch) << int{type};
    EXPECT_TRUE(changed.IsEqual(value)) << int{type};
  }
}

TEST(OpcUaVariantTest, NullStaysNullAndEveryValueIsAVariant) {
  Hlp null;
  EXPECT_EQ(null.ChangeType(OpcUaType_Double), 0U);
  EXPECT_EQ(null.GetType(), OpcUaType_Null);
  Hlp value = real(1);
  EXPECT_EQ(value.ChangeType(OpcUaType_Variant), 0U);
  EXPECT_EQ(value.GetType(), OpcUaType_Double);
  Hlp infinite = real(-kInfinity);
  EXPECT_EQ(infinite.ChangeType(OpcUaType_Float), 0U);
  EXPECT_EQ(infinite.Get().Value.Float, -std::numeric_limits<float>::infinity());
}

TEST(OpcUaVariantTest, TextAndTimeChangeBothWays) {
  Hlp value = made(&Hlp::SetDateTime, std::int64_t{1'000'000'007});
  EXPECT_EQ(value.ChangeType(OpcUaType_Int64), 0U);
  EXPECT_EQ(value.Get().Value.Int64, 1'000'000'007);
  EXPECT_EQ(value.ChangeType(OpcUaType_DateTime), 0U);
  EXPECT_EQ(OpcUa_DateTime_ToInt64(&value.Get().Value.DateTime), 1'000'000'007);
  Hlp bytes = text("abc");
  EXPECT_EQ(bytes.ChangeType(OpcUaType_ByteString), 0U);
  EXPECT_EQ(bytes.GetType(), OpcUaType_ByteString);
  EXPECT_EQ(bytes.ChangeType(OpcUaType_String), 0U);
  EXPECT_EQ(bytes.GetString(), "abc");
}

TEST(OpcUaVariantTest, ArrayChangesWholeOrNotAtAll) {
  const Hlp items[] = {text("1"), text("x")};
  Hlp value;
  value.SetArray(OpcUaType_String, items, 1);
  EXPECT_EQ(value.ChangeType(OpcUaType_Int32), 0U);
  ASSERT_TRUE(value.IsArray());
  EXPECT_EQ(value.Get().Value.Array->Items[0].Value.Int32, 1);
  value.SetArray(OpcUaType_String, items, 2);
  const Hlp before = value;
  EXPECT_EQ(value.ChangeType(OpcUaType_Int32), kTypeMismatch);
  EXPECT_TRUE(value.IsEqual(before));
}

TEST(OpcUaVariantTest, TextsReadWell) {
  EXPECT_EQ(Hlp().ToText(), "null");
  EXPECT_EQ(real(0.1).ToText(), "0.1");
  EXPECT_EQ(made(&Hlp::SetFloat, 0.1F).ToText(), "0.1");
  EXPECT_EQ(made(&Hlp::SetByte, std::uint8_t{65}).ToText(), "65");
  EXPECT_EQ(made(&Hlp::SetDateTime, std::int64_t{0}).ToText(), "1601-01-01T00:00:00.000Z");
  EXPECT_EQ(made(&Hlp::SetDateTime, std::int64_t{orva::kUnixEpochTicks - 1}).ToText(),
            "1969-12-31T23:59:59.999Z");
  // 2000-02-29 12:34:56.789
  EXPECT_EQ(made(&Hlp::SetDateTime, std::int64_t{orva::kUnixEpochTicks + 951'827'696'789 * 10'000})
                .ToText(),
            "2000-02-29T12:34:56.789Z");
  Hlp value;
  value.SetBytes(OpcUaType_Guid, "\x01\xAB", 2);
  EXPECT_EQ(value.ToText(), "01ab");
  const Hlp items[] = {real(1), real(2.5)};
  value.SetArray(OpcUaType_Double, items, 2);
  EXPECT_EQ(value.ToText(), "[1, 2.5]");
  value.SetDataValue(text("in"), 0, 0);
  EXPECT_EQ(value.ToText(), "in");
}

}  // namespace
