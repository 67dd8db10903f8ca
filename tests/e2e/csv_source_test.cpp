// A recorded plant replayed into the archives, compared sample by sample with the recording.

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <limits>
#include <map>
#include <vector>

#include "share/json.h"
#include "support/plant.h"

namespace orva::test {
namespace {

using CsvRow = std::vector<std::string>;

// A second, simpler reader of CSV than the host's own.
std::vector<CsvRow> parseCsv(const std::string& text) {
  std::vector<CsvRow> rows;
  CsvRow row;
  std::string field;
  bool quoted = false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (quoted && c == '"' && i + 1 < text.size() && text[i + 1] == '"') {
      field += text[++i];
    } else if (c == '"') {
      quoted = !quoted;
    } else if (!quoted && (c == ',' || c == '\n')) {
      row.push_back(field);
      field.clear();
      if (c == '\n') rows.push_back(std::move(row)), row.clear();
    } else {
      field += c;
    }
  }
  return rows;
}

std::string jsonOf(const json::Value& value) {
  rapidjson::StringBuffer text;
  rapidjson::Writer<rapidjson::StringBuffer> writer(text);
  value.Accept(writer);
  return text.GetString();
}

std::string numberText(double value) {
  return std::isfinite(value) ? jsonOf(json::Value(value)) : "null";
}

// How a reply gives a value of the recording.
std::string replyText(const std::string& type, const std::string& value) {
  if (type == "double") return numberText(std::strtod(value.c_str(), nullptr));
  if (type == "float") return numberText(std::strtof(value.c_str(), nullptr));
  if (type == "string") return jsonOf(json::Value(rapidjson::StringRef(value)));
  return value;
}

struct Recorded {
  std::string path;
  std::string type;
  Samples accepted;
};

// What an archive that keeps all values must hold of each item, by id: every sample that is not
// older than the one before, but for Doubles of plus infinity, which blocks never write.
std::map<int, Recorded> expectedOf(const std::vector<CsvRow>& rows) {
  std::map<int, Recorded> items;
  for (std::size_t i = 1; i < rows.size(); ++i) {
    const CsvRow& row = rows[i];
    Recorded& item = items[std::stoi(row[1])];
    item.path = row[2];
    item.type = row[3];
    const Sample sample{std::stoll(row[0]), replyText(row[3], row[4]),
                        static_cast<std::uint32_t>(std::stoul(row[5]))};
    const bool plusInfinity = row[3] == "double" && row[4] == "Inf";
    const bool late = !item.accepted.empty() && sample.timeMs < item.accepted.back().timeMs;
    if (!plusInfinity && !late) item.accepted.push_back(sample);
  }
  return items;
}

std::string builtInType(const std::string& type) {
  static const std::map<std::string, std::string> kNames = {
      {"double", "Double"}, {"float", "Float"},  {"int64", "Int64"},
      {"uint32", "UInt32"}, {"bool", "Boolean"}, {"string", "String"}};
  return kNames.at(type);
}

// Samples that are late, repeated, out of range, of each type, and texts that are hard to read.
constexpr const char* kSmallRecording =
    "time_ms,item_id,path,type,value,quality\n"
    "1700000000000,1,Plant/A,double,1.5,0\n"
    "1700000000000,2,Plant/B b,string,\"a, \"\"b\"\"\nc\",0\n"
    "1700000001000,1,Plant/A,double,NaN,0\n"
    "1700000001000,1,Plant/A,double,Inf,0\n"
    "1700000001000,1,Plant/A,double,-Inf,2147483648\n"
    "1700000000500,1,Plant/A,double,7,0\n"
    "1700000001000,1,Plant/A,double,0.1,0\n"
    "1700000002000,2,Plant/B b,string,\"\",0\n"
    "1700000003000,2,Plant/B b,string,true,1073741824\n"
    "1700000000000,3,Plant/Kühl,int64,9007199254740993,0\n"
    "1700000000000,4,Plant/D,uint32,4294967295,9830400\n"
    "1700000000001,5,Plant/E,bool,true,0\n"
    "1700000000002,5,Plant/E,bool,false,0\n"
    "1700000000002,5,Plant/E,bool,false,0\n"
    "1700000000000,6,Plant/F,float,0.1,0\n"
    "1700000000100,6,Plant/F,float,Inf,0\n";

class CsvSourceTest : public ::testing::Test {
 protected:
  // Replays the recording and compares, in the same run and after a restart.
  void expectReplayed(const std::string& recording) {
    const std::map<int, Recorded> items = expectedOf(parseCsv(recording));
    ASSERT_GE(items.size(), 6U);
    Plant plant{PlantConfig()};
    plant.folder().write("plant.csv", recording);
    PlantConfig replaying = configFor(items);
    replaying.sources = R"([{"type": "csv", "file": "plant.csv", "speed": "max"}])";
    plant.configure(replaying);
    ASSERT_TRUE(plant.start());
    ASSERT_TRUE(plant.host().waitForLog("plant.csv: done", 60'000)) << plant.host().log();
    expectHeld(plant, items, "replayed");
    ASSERT_EQ(plant.host().stop(), 0) << plant.host().log();

    plant.configure(configFor(items));
    ASSERT_TRUE(plant.start());
    expectHeld(plant, items, "restarted");
  }

 private:
  static PlantConfig configFor(const std::map<int, Recorded>& items) {
    PlantConfig config;
    // Far less room than a recording at full speed needs.
    config.dataArchive = R"({"archives": [{
      "connection": {"providerType": "sqlite", "location": "store"},
      "limits": {"writePeriod": 1000000, "writeBufferSize": 500},
      "filter": {"allValues": true}}]})";
    std::string variables;
    for (const auto& [id, item] : items) {
      variables += (variables.empty() ? "" : ",") + variable(id, item.path, builtInType(item.type));
    }
    config.variables = "[" + variables + "]";
    return config;
  }

  static void expectHeld(const Plant& plant, const std::map<int, Recorded>& items,
                         const char* when) {
    for (const auto& [id, item] : items) {
      SCOPED_TRACE(item.path + " " + when);
      // In one page: of equal times that a limit cuts through, the rest is not given.
      Samples held = plant.client()
                         .readRaw(plant.itemId(item.path), R"("numValuesPerNode": 1000000)")
                         .item()
                         .values;
      // The block's last value, written when its host stopped.
      if (!held.empty() && held.back().quality == 0x00A80000) held.pop_back();
      expectSame(held, item.accepted);
    }
  }

  // Tells where two long histories begin to differ instead of printing both.
  static void expectSame(const Samples& held, const Samples& expected) {
    EXPECT_EQ(held.size(), expected.size());
    for (std::size_t i = 0; i < std::min(held.size(), expected.size()); ++i) {
      ASSERT_EQ(held[i], expected[i]) << "sample " << i;
    }
  }
};

TEST_F(CsvSourceTest, AnOddRecordingIsHeldSampleBySample) { expectReplayed(kSmallRecording); }

TEST_F(CsvSourceTest, AnHourOfASimulatedPlantIsHeldSampleBySample) {
  const std::string generator = std::string(ORVA_SOURCE_DIR) + "/../shared/data/make_plant.py";
  if (!std::filesystem::exists(generator) || std::system("python3 --version >/dev/null") != 0) {
    GTEST_SKIP() << "needs python3 and " << generator;
  }
  const TempFolder folder;
  const std::string file = folder.path("hour.csv");
  const std::string command =
      "python3 '" + generator + "' --items 20 --hours 1 --out '" + file + "' >/dev/null";
  ASSERT_EQ(std::system(command.c_str()), 0);
  expectReplayed(readFile(file));
}

}  // namespace
}  // namespace orva::test
