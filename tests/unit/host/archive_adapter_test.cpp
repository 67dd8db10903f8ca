// The host's own archive, and values in the form of global parameters.

#include "orva_host/archive_adapter.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "host/global_params.h"
#include "host/opcua_variant.h"
#include "orva_host/live_values.h"
#include "orva_host/variables.h"
#include "share/ticks.h"

namespace orva::host {
namespace {

using Kind = RPARAMValue::Kind;

constexpr OpcUa_StatusCode kMismatch = 0x80740000;

class ArchiveAdapterTest : public testing::Test {
 protected:
  ArchiveAdapterTest() {
    clearInstallation();
    clearLiveValues();
    setVariable({1, "Plant/Load", OpcUaType_Double});
    setVariable({2, "Plant/Count", OpcUaType_Int16});
    setVariable({3, "Plant/Open", OpcUaType_Boolean});
  }
  ~ArchiveAdapterTest() override {
    archiveAdapter()->clear();
    clearInstallation();
  }

  static std::uint32_t indexOf(std::uint32_t id) {
    const GlobalParamKey key{id, 0x10000};
    std::uint32_t index = 0;
    EXPECT_EQ(GetGlobalArrayIndexByID(&key, &index), 0);
    return index;
  }
  static std::uint32_t unknownIndex() { return std::numeric_limits<std::uint32_t>::max(); }

  static ArchiveAdapterValue valueOf(std::uint32_t id, RTime time, double number) {
    ArchiveAdapterValue value;
    value.index = indexOf(id);
    value.time = time;
    value.value.floating = number;
    value.quality = 0xC0;
    return value;
  }
  static std::vector<double> numbersOf(std::uint32_t id) {
    std::vector<double> numbers;
    for (const ArchiveAdapterValue& value : archiveAdapter()->values(indexOf(id))) {
      numbers.push_back(value.value.floating);
    }
    return numbers;
  }
  static int write(const std::vector<ArchiveAdapterValue>& values) {
    return ArchiveAdapterWriteValues(archiveAdapter(), static_cast<std::uint32_t>(values.size()),
                                     values.data());
  }
};

// The conversion of one value for the parameter of a variable.
struct Converted {
  Converted(std::uint32_t index, const OpcUa_VariantHlp& value) {
    out.kind = Kind::floating;
    out.floating = -1;
    out.integer = -1;
    status = GetRPARAMValue(index, &value.Get(), &out);
  }
  OpcUa_StatusCode status;
  RPARAMValue out;
};

template <class Set, class T>
OpcUa_VariantHlp made(Set set, T value) {
  OpcUa_VariantHlp variant;
  (variant.*set)(value);
  return variant;
}
OpcUa_VariantHlp real(double value) { return made(&OpcUa_VariantHlp::SetDouble, value); }
OpcUa_VariantHlp text(const std::string& value) {
  OpcUa_VariantHlp variant;
  variant.SetString(value);
  return variant;
}

TEST_F(ArchiveAdapterTest, TimeIsSecondsSince1970) {
  EXPECT_EQ(FileTimeToRTime(kUnixEpochTicks), 0);
  EXPECT_EQ(FileTimeToRTime(kUnixEpochTicks + 15'000'000), 1.5);
  EXPECT_EQ(FileTimeToRTime(kUnixEpochTicks - 15'000'000), -1.5);
  EXPECT_EQ(FileTimeToRTime(0), -11'644'473'600.0);
  EXPECT_EQ(FileTimeToRTime(kUnixEpochTicks + 17'000'000'005'000'000), 1'700'000'000.5);
  EXPECT_NEAR(FileTimeToRTime(kUnixEpochTicks + 17'000'000'001'234'567) - 1'700'000'000, 0.1234567,
              3e-7);
}

TEST_F(ArchiveAdapterTest, TheEndsOfTimeAreTimesToo) {
  EXPECT_NEAR(FileTimeToRTime(INT64_MAX), 9.22337203685e11 - 1.16444736e10, 1);
  EXPECT_NEAR(FileTimeToRTime(INT64_MIN), -9.22337203685e11 - 1.16444736e10, 1);
}

TEST_F(ArchiveAdapterTest, QualityGoesByTheSeverity) {
  EXPECT_EQ(GetDAQualityByUA(0), 0xC0);
  EXPECT_EQ(GetDAQualityByUA(0x00A80000), 0xC0);
  EXPECT_EQ(GetDAQualityByUA(0x40000000), 0x40);
  EXPECT_EQ(GetDAQualityByUA(0x7FFFFFFF), 0x40);
  EXPECT_EQ(GetDAQualityByUA(0x80000000), 0);
  EXPECT_EQ(GetDAQualityByUA(0xFFFFFFFF), 0);
}

TEST_F(ArchiveAdapterTest, FloatingParametersTakeWhatReadsAsANumber) {
  const std::uint32_t index = indexOf(1);
  const Converted half(index, real(0.5));
  EXPECT_EQ(half.status, 0U);
  EXPECT_EQ(half.out.kind, Kind::floating);
  EXPECT_EQ(half.out.floating, 0.5);
  EXPECT_EQ(half.out.integer, 0);
  EXPECT_EQ(Converted(index, made(&OpcUa_VariantHlp::SetBool, true)).out.floating, 1);
  EXPECT_EQ(Converted(index, text("2.5")).out.floating, 2.5);
  const Converted nan(index, real(std::nan("")));
  EXPECT_EQ(nan.status, 0U);
  EXPECT_TRUE(std::isnan(nan.out.floating));
}

TEST_F(ArchiveAdapterTest, IntegerParametersTakeWhatFits32Bits) {
  const std::uint32_t index = indexOf(2);
  const Converted cut(index, real(-2.75));
  EXPECT_EQ(cut.status, 0U);
  EXPECT_EQ(cut.out.kind, Kind::integer);
  EXPECT_EQ(cut.out.integer, -2);
  EXPECT_EQ(cut.out.floating, 0);
  EXPECT_EQ(Converted(index, real(INT32_MAX)).out.integer, INT32_MAX);
  EXPECT_EQ(Converted(index, real(INT32_MIN)).out.integer, INT32_MIN);
  EXPECT_EQ(Converted(index, made(&OpcUa_VariantHlp::SetBool, true)).out.integer, 1);
}

TEST_F(ArchiveAdapterTest, BooleanParametersTakeNumbersToo) {
  const std::uint32_t index = indexOf(3);
  const Converted yes(index, made(&OpcUa_VariantHlp::SetBool, true));
  EXPECT_EQ(yes.status, 0U);
  EXPECT_EQ(yes.out.kind, Kind::boolean);
  EXPECT_EQ(yes.out.integer, 1);
  EXPECT_EQ(Converted(index, real(0.25)).out.integer, 1);
  EXPECT_EQ(Converted(index, real(0)).out.integer, 0);
}

TEST_F(ArchiveAdapterTest, WhatDoesNotFitLeavesTheTargetAlone) {
  OpcUa_VariantHlp array;
  array.SetArray(OpcUaType_Double, nullptr, 0);
  const std::vector<std::pair<std::uint32_t, OpcUa_VariantHlp>> misfits = {
      {1, text("open")},       {1, OpcUa_VariantHlp()},  {1, array},
      {2, real(2147483648.0)}, {2, real(-2147483649.0)}, {2, real(std::nan(""))},
      {2, text("2")},          {3, real(std::nan(""))},  {3, text("true")}};
  for (const auto& [id, value] : misfits) {
    const Converted converted(indexOf(id), value);
    EXPECT_EQ(converted.status, kMismatch) << id << " " << value.ToText();
    EXPECT_EQ(converted.out.floating, -1);
    EXPECT_EQ(converted.out.integer, -1);
  }
}

TEST_F(ArchiveAdapterTest, UnknownParametersAndNullPointersAreRefused) {
  EXPECT_EQ(Converted(unknownIndex(), real(1)).status, 0x803E0000U);
  RPARAMValue out;
  EXPECT_EQ(GetRPARAMValue(indexOf(1), nullptr, &out), 0x805A0000U);
  EXPECT_EQ(GetRPARAMValue(indexOf(1), &real(1).Get(), nullptr), 0x805A0000U);
}

TEST_F(ArchiveAdapterTest, WrittenValuesAreKeptByTime) {
  EXPECT_EQ(write({valueOf(1, 2, 20), valueOf(1, 1, 10)}), 0);
  EXPECT_EQ(write({valueOf(1, 1, 11), valueOf(1, -1, 0)}), 0);
  EXPECT_EQ(numbersOf(1), (std::vector<double>{0, 10, 11, 20}));
  EXPECT_EQ(numbersOf(2), std::vector<double>());
  const ArchiveAdapterValue newest = archiveAdapter()->values(indexOf(1)).back();
  EXPECT_EQ(newest.time, 2);
  EXPECT_EQ(newest.quality, 0xC0);
}

TEST_F(ArchiveAdapterTest, EachParameterKeepsItsNewestThousandValues) {
  for (int n = 1; n <= 1100; ++n) ASSERT_EQ(write({valueOf(1, n, n)}), 0);
  EXPECT_EQ(numbersOf(1).size(), 1000U);
  EXPECT_EQ(numbersOf(1).front(), 101);
  EXPECT_EQ(write({valueOf(1, 50, -1)}), 0) << "older than all that are kept";
  EXPECT_EQ(numbersOf(1).size(), 1000U);
  EXPECT_EQ(numbersOf(1).front(), 101);
  EXPECT_EQ(numbersOf(1).back(), 1100);
}

TEST_F(ArchiveAdapterTest, OneBadValueMeansThatNoneIsWritten) {
  ArchiveAdapterValue unknown = valueOf(1, 2, 2);
  unknown.index = unknownIndex();
  ArchiveAdapterValue otherKind = valueOf(1, 2, 2);
  otherKind.value.kind = Kind::integer;
  const double infinity = std::numeric_limits<double>::infinity();
  for (const ArchiveAdapterValue& bad :
       {unknown, otherKind, valueOf(1, std::nan(""), 2), valueOf(1, infinity, 2)}) {
    EXPECT_LT(write({valueOf(1, 1, 1), bad}), 0);
    EXPECT_EQ(numbersOf(1), std::vector<double>());
  }
}

TEST_F(ArchiveAdapterTest, NullArgumentsWriteNothing) {
  const ArchiveAdapterValue value = valueOf(1, 1, 1);
  EXPECT_LT(ArchiveAdapterWriteValues(nullptr, 1, &value), 0);
  EXPECT_LT(ArchiveAdapterWriteValues(archiveAdapter(), 1, nullptr), 0);
  EXPECT_EQ(ArchiveAdapterWriteValues(archiveAdapter(), 0, nullptr), 0);
  EXPECT_EQ(numbersOf(1), std::vector<double>());
}

}  // namespace
}  // namespace orva::host
