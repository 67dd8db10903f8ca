#include <cstdlib>
#include <cstring>

#include "unit/orva_database/remote_fixture.h"

namespace orva::archive {
namespace {

class RemoteValueTest : public RemoteArchiveSourceTest {
 protected:
  // What a value that arrives as `text` becomes in a local variable of this type.
  OpcUa_VariantHlp received(const std::string& text, OpcUa_Byte type) {
    const std::int64_t id = 500 + ++made_;
    const std::string path = "V" + std::to_string(made_);
    localItem(id, "Here/" + path, type);
    peer().history[path] = {{kStart, text, 0}};
    init(sectionText({itemText(1, id, path)}));
    nextRound();
    const auto pins = stored({id, "Here/" + path});
    EXPECT_EQ(pins.size(), 1U) << text;
    return pins.size() == 1 ? pins[0]->value : OpcUa_VariantHlp();
  }

 private:
  int made_ = 0;
};

TEST_F(RemoteValueTest, BecomesTheTypeOfTheLocalVariable) {
  EXPECT_EQ(received("true", OpcUaType_Boolean).Get().Value.Boolean, true);
  EXPECT_EQ(received("-128", OpcUaType_SByte).Get().Value.SByte, -128);
  EXPECT_EQ(received("255", OpcUaType_Byte).Get().Value.Byte, 255);
  EXPECT_EQ(received("-32768", OpcUaType_Int16).Get().Value.Int16, -32768);
  EXPECT_EQ(received("65535", OpcUaType_UInt16).Get().Value.UInt16, 65535);
  EXPECT_EQ(received("-2147483648", OpcUaType_Int32).Get().Value.Int32, INT32_MIN);
  EXPECT_EQ(received("4294967295", OpcUaType_UInt32).Get().Value.UInt32, UINT32_MAX);
  EXPECT_EQ(received("-9223372036854775808", OpcUaType_Int64).Get().Value.Int64, INT64_MIN);
  EXPECT_EQ(received("18446744073709551615", OpcUaType_UInt64).Get().Value.UInt64, UINT64_MAX);
  EXPECT_EQ(received("0.10000000149011612", OpcUaType_Float).Get().Value.Float, 0.1F);
  EXPECT_EQ(received("0.1", OpcUaType_Double).Get().Value.Double, 0.1);
  EXPECT_EQ(received("\"a\\u0000\\\"b\"", OpcUaType_String).GetString(), std::string("a\0\"b", 4));
  const OpcUa_VariantHlp time = received("1715932800001", OpcUaType_DateTime);
  EXPECT_EQ(time.GetType(), OpcUaType_DateTime);
  EXPECT_EQ(OpcUa_DateTime_ToInt64(&time.Get().Value.DateTime), 133'604'064'000'010'000);
}

TEST_F(RemoteValueTest, DoublesArriveBitForBit) {
  for (const char* text : {"5e-324", "1.7976931348623157e308", "2.2250738585072014e-308", "-0.0",
                           "0.30000000000000004", "9007199254740993.0", "123456789012345680.0"}) {
    const OpcUa_VariantHlp value = received(text, OpcUaType_Double);
    EXPECT_EQ(value.GetType(), OpcUaType_Double);
    const double expected = std::strtod(text, nullptr);
    EXPECT_EQ(std::memcmp(&value.Get().Value.Double, &expected, sizeof expected), 0) << text;
  }
}

TEST_F(RemoteValueTest, NullStaysNull) {
  for (const OpcUa_Byte type : {OpcUaType_Double, OpcUaType_String, OpcUaType_Json}) {
    EXPECT_EQ(received("null", type).GetType(), OpcUaType_Null);
  }
}

TEST_F(RemoteValueTest, JsonTextIsKeptAsItIs) {
  for (const char* text : {R"({"a":[1,2.5,null,"x"]})", "[]", "5", "\"t\"", "true"}) {
    const OpcUa_VariantHlp value = received(text, OpcUaType_Json);
    EXPECT_EQ(value.GetType(), OpcUaType_Json);
    EXPECT_EQ(value.GetString(), text);
  }
}

TEST_F(RemoteValueTest, AValueThatDoesNotConvertKeepsItsForm) {
  EXPECT_EQ(received("\"abc\"", OpcUaType_Double).GetString(), "abc");
  EXPECT_EQ(received("300", OpcUaType_Byte).Get().Value.Int64, 300);
}

}  // namespace
}  // namespace orva::archive
