// History written by one run of the host, read in the next.

#include <gtest/gtest.h>

#include <algorithm>

#include "support/plant.h"

namespace orva::test {
namespace {

constexpr std::int64_t kHistoryBegin = 1'700'000'000'000;
constexpr int kSamplesPerItem = 5000;
// What the SQLite provider traces when it has to look into its file.
constexpr const char* kReadFromFile = "read from the file";

constexpr const char* kThreeItems = R"(
local items = {}
for id = 1, 3 do items[id] = ArchiveProc.new{Id = id, Path = "Plant/Item" .. id} end
local done = false
function cycle()
  if done then return end
  done = true
  for n = 1, 5000 do
    for id, item in ipairs(items) do
      item.Value = DataValue{Value = n + id / 4, SourceTime = 1700000000000 + 10 * n}
      item()
    end
  end
end
)";

std::string pathOf(int id) { return "Plant/Item" + std::to_string(id); }

int countOf(const std::string& text, const std::string& part) {
  int count = 0;
  for (std::size_t at = 0; (at = text.find(part, at)) != std::string::npos; ++at) ++count;
  return count;
}

class RestartTest : public ::testing::Test {
 protected:
  static PlantConfig config() {
    PlantConfig config;
    config.log = R"({"levels": 112})";  // with details
    config.variables = "[";
    for (int id = 1; id <= 3; ++id) {
      config.variables += (id == 1 ? "" : ",") + variable(id, pathOf(id), "Double");
    }
    config.variables += "]";
    return config;
  }

  // Writes the history, stops, and starts a host that writes nothing.
  void SetUp() override {
    PlantConfig writing = config();
    writing.programs = "[" + program("writer", "writer.lua", 10) + "]";
    plant_.configure(writing);
    plant_.folder().write("writer.lua", kThreeItems);
    ASSERT_TRUE(plant_.start());
    ASSERT_TRUE(plant_.waitForValue(plant_.itemId(pathOf(3)), "5000.75"));
    ASSERT_EQ(plant_.host().stop(), 0) << plant_.host().log();
    plant_.configure(config());
    ASSERT_TRUE(plant_.start());
  }

  static Samples written(int id) {
    Samples samples;
    for (int n = 1; n <= kSamplesPerItem; ++n) {
      std::string value = std::to_string(n) + "." + std::to_string(id * 25);
      samples.push_back(
          {kHistoryBegin + 10 * n, value.substr(0, value.find_last_not_of('0') + 1), 0});
    }
    return samples;
  }
  // Tells where two long histories begin to differ instead of printing both.
  static void expectSame(const Samples& held, const Samples& expected) {
    EXPECT_EQ(held.size(), expected.size());
    for (std::size_t i = 0; i < std::min(held.size(), expected.size()); ++i) {
      ASSERT_EQ(held[i], expected[i]) << "sample " << i;
    }
  }
  int fileReads() { return countOf(plant_.host().log(), kReadFromFile); }

  Plant plant_{PlantConfig()};
};

TEST_F(RestartTest, TheWholeHistoryIsThere) {
  for (int id = 1; id <= 3; ++id) {
    Samples stored = plant_.client().readAll(plant_.itemId(pathOf(id)));
    ASSERT_FALSE(stored.empty());
    EXPECT_EQ(stored.back().quality, 0x00A80000U) << "the block's last value of item " << id;
    stored.pop_back();
    expectSame(stored, written(id));
  }
}

TEST_F(RestartTest, WhatWasReadOnceComesFromTheCacheTheNextTime) {
  const std::int64_t id = plant_.itemId(pathOf(1));
  const std::string range = "\"startTime\":" + std::to_string(kHistoryBegin + 10) +
                            ",\"endTime\":" + std::to_string(kHistoryBegin + 10 * kSamplesPerItem);
  EXPECT_EQ(fileReads(), 0);
  const HistoryReply cold = plant_.client().readRaw(id, range);
  EXPECT_EQ(cold.item().values, written(1));
  const int coldReads = fileReads();
  EXPECT_GT(coldReads, 0);

  const HistoryReply warm = plant_.client().readRaw(id, range);
  EXPECT_EQ(warm.item().values, written(1));
  EXPECT_EQ(fileReads(), coldReads);
}

TEST_F(RestartTest, AnItemHasTheSameIdInEveryRun) {
  std::int64_t ids[3];
  for (int id = 1; id <= 3; ++id) ids[id - 1] = plant_.itemId(pathOf(id));
  ASSERT_EQ(plant_.host().stop(), 0);
  ASSERT_TRUE(plant_.start());
  for (int id = 3; id >= 1; --id) EXPECT_EQ(plant_.itemId(pathOf(id)), ids[id - 1]);
}

TEST_F(RestartTest, ASecondHostAtTheSameStoreIsRefusedAndHarmsNothing) {
  HostProcess second(plant_.configFile());
  const std::uint16_t port = second.waitUntilListening();
  ASSERT_NE(port, 0);
  EXPECT_TRUE(second.waitForLog("ERROR")) << second.log();
  const HistoryClient client(port);
  const HistoryReply reply = client.readRaw(client.archiveItemId(pathOf(2)), "");
  EXPECT_TRUE(reply.item().values.empty());
  EXPECT_EQ(second.stop(), 0);
  Samples stored = plant_.client().readAll(plant_.itemId(pathOf(2)));
  ASSERT_EQ(stored.size(), static_cast<std::size_t>(kSamplesPerItem + 1));
  stored.pop_back();
  expectSame(stored, written(2));
}

}  // namespace
}  // namespace orva::test
