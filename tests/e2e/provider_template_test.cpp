// The provider that others begin with, in the host: scripts/package-test.sh builds it from the
// installed packages as well.

#include <gtest/gtest.h>

#include <string>

#include "support/plant.h"

namespace orva::test {
namespace {

constexpr const char* kCounter = R"(
local counter = ArchiveProc.new{Id = 1, Path = "Plant/Counter"}
local text = ArchiveProc.new{Id = 2, Path = "Plant/Text"}
function cycle()
  if counter.Value then return end
  text.Value = "a text"
  text()
  for n = 1, 5 do
    counter.Value = DataValue{Value = n * 1.5, SourceTime = 1700000000000 + 1000 * n,
                              Status = n == 4 and 0x40000000 or 0}
    counter()
  end
end
)";

class ProviderTemplateTest : public ::testing::Test {
 protected:
  static PlantConfig config() {
    PlantConfig config;
    config.addins = R"(["liborva_database.so", "liborva_template.so"])";
    config.variables = "[" + variable(1, "Plant/Counter", "Double") + ", " +
                       variable(2, "Plant/Text", "String") + "]";
    config.programs = "[" + program("counter", "counter.lua", 10) + "]";
    // Not cached, so that every read is the provider's.
    config.layers = R"([{"number": 0, "cache": false}])";
    return config;
  }

  void SetUp() override {
    PlantConfig withArchive = config();
    withArchive.dataArchive = R"({"archives": [{"connection": {"providerType": "template",
      "location": ")" + plant_.folder().path(".") +
                              R"("}, "limits": {"writeBufferSize": 8},
      "filter": {"allValues": true}}]})";
    plant_.configure(withArchive);
  }

  void startWith(const char* counter) {
    plant_.folder().write("counter.lua", counter);
    ASSERT_TRUE(plant_.start());
  }
  Samples read(const std::string& path, const std::string& parameters = "") {
    return plant_.client().readRaw(plant_.itemId(path), parameters).item().values;
  }

  Plant plant_{config()};
  const Sample second_{1'700'000'002'000, "3.0", 0};
  const Sample third_{1'700'000'003'000, "4.5", 0};
  const Sample fourth_{1'700'000'004'000, "6.0", 0x40000000};
  const Samples all_{
      {1'700'000'001'000, "1.5", 0}, second_, third_, fourth_, {1'700'000'005'000, "7.5", 0}};
};

TEST_F(ProviderTemplateTest, AnswersReadsAndKeepsHistoryOverARestart) {
  startWith(kCounter);
  ASSERT_TRUE(plant_.waitForValue(plant_.itemId("Plant/Counter"), "7.5"));
  EXPECT_EQ(read("Plant/Counter"), all_);
  EXPECT_EQ(read("Plant/Counter", R"("returnFirstLastValue": true)"),
            (Samples{all_.front(), all_.back()}));
  const std::string middle = R"("startTime": 1700000002500, "endTime": 1700000003500)";
  EXPECT_EQ(read("Plant/Counter", middle), (Samples{third_}));
  EXPECT_EQ(read("Plant/Counter", middle + R"(, "returnBounds": true)"),
            (Samples{second_, third_, fourth_}));
  EXPECT_EQ(read("Plant/Text"), Samples{});
  EXPECT_EQ(plant_.host().stop(), 0);

  startWith("function cycle() end");
  Samples kept = read("Plant/Counter");
  ASSERT_EQ(kept.size(), all_.size() + 1);
  // What the block wrote when it went away, so stop() saved it.
  EXPECT_EQ(kept.back().value, "7.5");
  EXPECT_EQ(kept.back().quality, 0x00A80000U);
  kept.pop_back();
  EXPECT_EQ(kept, all_);
}

// What a loss of power leaves: a part of the last record.
TEST_F(ProviderTemplateTest, ATornRecordDoesNotShiftThoseBehindIt) {
  startWith(kCounter);
  ASSERT_TRUE(plant_.waitForValue(plant_.itemId("Plant/Counter"), "7.5"));
  EXPECT_EQ(plant_.host().stop(), 0);
  const std::string file = plant_.folder().path("1-0");
  const std::string whole = readFile(file);
  plant_.folder().write("1-0", whole + whole.substr(0, 7));
  startWith(R"(
    local counter = ArchiveProc.new{Id = 1, Path = "Plant/Counter"}
    function cycle()
      if counter.Value == 9 then return end
      counter.Value = 9
      counter()
    end)");
  ASSERT_TRUE(plant_.waitForValue(plant_.itemId("Plant/Counter"), "9.0"));
  EXPECT_EQ(plant_.host().stop(), 0);

  startWith("function cycle() end");
  Samples kept = read("Plant/Counter");
  ASSERT_EQ(kept.size(), 8U);
  EXPECT_EQ(kept[6].value, "9.0") << "the first one behind the torn record";
  kept.resize(all_.size());
  EXPECT_EQ(kept, all_);
}

TEST_F(ProviderTemplateTest, SaysWhatItRefused) {
  startWith(kCounter);
  EXPECT_TRUE(plant_.host().waitForLog("2-0: 1 samples refused"));
}

}  // namespace
}  // namespace orva::test
