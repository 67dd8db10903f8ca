// Variable information, live values and global parameters.

#include "orva_host/variables.h"

#include <gtest/gtest.h>

#include <cmath>

#include "host/global_params.h"
#include "orva_host/live_values.h"

namespace orva::host {
namespace {

constexpr std::uint32_t kVariables = 0x10000;

class VariablesTest : public testing::Test {
 protected:
  VariablesTest() { clear(); }
  ~VariablesTest() override { clear(); }
  static void clear() {
    clearInstallation();
    clearLiveValues();
  }

  static vm::VMInfo& info() { return *vm::VMInfo::GetInstance(); }
};

TEST_F(VariablesTest, UnknownVariablesAndLayersAreSaidToBe) {
  std::int64_t id = 7;
  EXPECT_EQ(info().GetItemByID(1), nullptr);
  EXPECT_EQ(info().GetArchivedLayers(1), nullptr);
  EXPECT_EQ(info().GetItemType(1), OpcUaType_Null);
  EXPECT_EQ(info().GetLayer(0), nullptr);
  EXPECT_EQ(info().GetItemIdByPath("Plant/Load", id), 0x803E0000U);
  EXPECT_EQ(id, 7);
}

TEST_F(VariablesTest, VariableIsFoundByIdAndPath) {
  setVariable({-5, "Plant/Load", OpcUaType_Double}, {{0, {1, 2}}, {3, {4, 5}}});
  setVariable({6, "", OpcUaType_Int32});
  setLayer({3, true, 10'000'000});
  std::int64_t id = 0;
  EXPECT_EQ(info().GetItemIdByPath("Plant/Load", id), 0U);
  EXPECT_EQ(id, -5);
  EXPECT_EQ(info().GetItemByID(-5)->path, "Plant/Load");
  EXPECT_EQ(info().GetItemType(-5), OpcUaType_Double);
  EXPECT_EQ(info().GetArchivedLayers(-5)->at(3), (std::pair<std::int32_t, std::int64_t>(4, 5)));
  EXPECT_TRUE(info().GetArchivedLayers(6)->empty());
  EXPECT_NE(info().GetItemIdByPath("", id), 0U);
  EXPECT_EQ(info().GetLayer(3)->resampleInterval, 10'000'000);
  EXPECT_TRUE(info().GetLayer(3)->cache);
}

TEST_F(VariablesTest, AnswersAreSnapshots) {
  setVariable({1, "old", OpcUaType_Double}, {{0, {0, 0}}});
  const auto item = info().GetItemByID(1);
  const auto layers = info().GetArchivedLayers(1);
  setVariable({1, "new", OpcUaType_Int32});
  EXPECT_EQ(item->path, "old");
  EXPECT_EQ(layers->size(), 1U);
  std::int64_t id = 0;
  EXPECT_NE(info().GetItemIdByPath("old", id), 0U);
  EXPECT_EQ(info().GetItemIdByPath("new", id), 0U);
  removeVariable(1);
  EXPECT_EQ(info().GetItemByID(1), nullptr);
  EXPECT_NE(info().GetItemIdByPath("new", id), 0U);
}

TEST_F(VariablesTest, InstallationIsReplacedAsAWhole) {
  setVariable({1, "a", OpcUaType_Double});
  setLayer({1, true, 0});
  replaceInstallation({{{3, "c", OpcUaType_Double}, {}}, {{2, "b", OpcUaType_Int32}, {}}},
                      {{0, false, 0}});
  const auto all = allVariables();
  ASSERT_EQ(all.size(), 2U);
  EXPECT_EQ(all[0].item->id, 2);
  EXPECT_EQ(all[1].item->id, 3);
  EXPECT_EQ(info().GetLayer(1), nullptr);
  EXPECT_NE(info().GetLayer(0), nullptr);
}

class GlobalParamsTest : public VariablesTest {
 protected:
  // The index, or -1.
  static int indexOf(std::uint32_t id, std::uint32_t qualifier) {
    const GlobalParamKey key{id, qualifier};
    std::uint32_t index = 0;
    return GetGlobalArrayIndexByID(&key, &index) == 0 ? static_cast<int>(index) : -1;
  }
  static int kindOf(int index) {
    return GetGlobalParam(static_cast<std::uint32_t>(index))->bytes[1] >> 6;
  }
  static OpcUa_VariantHlp number(double v) {
    OpcUa_VariantHlp value;
    value.SetDouble(v);
    return value;
  }
};

TEST_F(GlobalParamsTest, VariableIsFoundByTheLowHalfOfItsId) {
  const std::int64_t high = std::int64_t{1} << 32;
  setVariable({high + 7, "a", OpcUaType_Double});
  setVariable({2 * high + 7, "b", OpcUaType_Boolean});
  setVariable({-1, "c", OpcUaType_Int16});
  ASSERT_GE(indexOf(7, kVariables), 0);
  EXPECT_EQ(kindOf(indexOf(7, kVariables)), 0);
  EXPECT_EQ(kindOf(indexOf(0xFFFFFFFFU, kVariables)), 2);
  setVariable({7, "exact", OpcUaType_Boolean});
  EXPECT_EQ(kindOf(indexOf(7, kVariables)), 1);
  EXPECT_EQ(indexOf(8, kVariables), -1);
  EXPECT_EQ(indexOf(7, 1), -1);
}

TEST_F(GlobalParamsTest, KindGoesByTheType) {
  const std::pair<OpcUa_Byte, int> kinds[] = {
      {OpcUaType_Boolean, 1}, {OpcUaType_SByte, 2},  {OpcUaType_UInt16, 2},
      {OpcUaType_Int32, 2},   {OpcUaType_UInt32, 0}, {OpcUaType_Int64, 0},
      {OpcUaType_Float, 0},   {OpcUaType_Double, 0}, {OpcUaType_String, 0},
  };
  for (const auto& [type, kind] : kinds) {
    setVariable({1, "v", type});
    EXPECT_EQ(kindOf(indexOf(1, kVariables)), kind) << int{type};
  }
}

TEST_F(GlobalParamsTest, ValuesSetUnderAnyIdAreFoundByQualifierZero) {
  EXPECT_EQ(indexOf(9, 0), -1);
  setLiveValue(9, number(1.5));
  EXPECT_EQ(indexOf(9, kVariables), -1);
  ASSERT_GE(indexOf(9, 0), 0);
  double value = 0;
  EXPECT_EQ(iReadFloat(static_cast<std::uint32_t>(indexOf(9, 0)), &value), 0);
  EXPECT_EQ(value, 1.5);
  setLiveValue(-2, number(2));
  EXPECT_GE(indexOf(0xFFFFFFFEU, 0), 0);
}

TEST_F(GlobalParamsTest, LiveValueTakesTheTypeOfItsVariable) {
  setVariable({1, "i", OpcUaType_Int32});
  setVariable({2, "b", OpcUaType_Boolean});
  setLiveValue(1, number(41.9));
  setLiveValue(2, number(3));
  OpcUa_VariantHlp value;
  ASSERT_TRUE(getLiveValue(1, value));
  EXPECT_EQ(value.GetType(), OpcUaType_Int32);
  std::int32_t whole = 0;
  int flag = 0;
  EXPECT_EQ(iReadInteger(static_cast<std::uint32_t>(indexOf(1, kVariables)), &whole), 0);
  EXPECT_EQ(whole, 41);
  EXPECT_EQ(iReadBoolean(static_cast<std::uint32_t>(indexOf(2, kVariables)), &flag), 0);
  EXPECT_EQ(flag, 1);
  setLiveValue(1, number(std::nan("")));
  ASSERT_TRUE(getLiveValue(1, value));
  EXPECT_EQ(value.GetType(), OpcUaType_Double);
}

TEST_F(GlobalParamsTest, ParameterWithoutReadableValueFails) {
  setVariable({1, "d", OpcUaType_Double});
  const auto index = static_cast<std::uint32_t>(indexOf(1, kVariables));
  double real = 0;
  std::int32_t whole = 0;
  int flag = 0;
  EXPECT_NE(iReadFloat(index, &real), 0);
  EXPECT_NE(iReadInteger(index, &whole), 0);
  EXPECT_NE(iReadBoolean(index, &flag), 0);
  setLiveValue(1, number(1e10));
  EXPECT_EQ(iReadFloat(index, &real), 0);
  EXPECT_NE(iReadInteger(index, &whole), 0);
  EXPECT_NE(iReadFloat(1'000'000, &real), 0);
  EXPECT_EQ(GetGlobalParam(1'000'000), nullptr);
  OpcUa_VariantHlp none;
  EXPECT_FALSE(getLiveValue(2, none));
}

TEST_F(GlobalParamsTest, DescriptorsStayValidAsTheTableGrows) {
  setVariable({1, "first", OpcUaType_Boolean});
  const int index = indexOf(1, kVariables);
  const GlobalParamDescriptor* first = GetGlobalParam(static_cast<std::uint32_t>(index));
  for (std::int64_t id = 2; id < 2000; ++id) {
    setVariable({id, std::to_string(id), OpcUaType_Int32});
    ASSERT_GE(indexOf(static_cast<std::uint32_t>(id), kVariables), 0);
  }
  EXPECT_EQ(GetGlobalParam(static_cast<std::uint32_t>(index)), first);
  EXPECT_EQ(first->bytes[1] >> 6, 1);
  setVariable({1, "first", OpcUaType_Int32});
  EXPECT_EQ(kindOf(indexOf(1, kVariables)), 2);
  EXPECT_EQ(first->bytes[1] >> 6, 1);
}

}  // namespace
}  // namespace orva::host
