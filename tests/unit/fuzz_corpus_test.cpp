#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <string>
#include <vector>

#include "fuzz/fuzz_targets.h"
#include "support/trace_capture.h"

// What the fuzzers begin with and what they once found, in every build (see docs/testing.md).

namespace orva::fuzz {
namespace {

const std::filesystem::path kCorpus = ORVA_SOURCE_DIR "/tests/fuzz/corpus";

class FuzzCorpusTest : public ::testing::TestWithParam<Target> {};

TEST_P(FuzzCorpusTest, EveryInputKeepsTheTargetsPromises) {
  int inputs = 0;
  for (const auto& file : std::filesystem::directory_iterator(kCorpus / GetParam().name)) {
    const test::TraceCapture traces;
    std::ifstream in(file.path(), std::ios::binary);
    const std::vector<char> bytes((std::istreambuf_iterator<char>(in)),
                                  std::istreambuf_iterator<char>());
    EXPECT_NO_THROW(
        GetParam().run(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()))
        << file.path();
    ++inputs;
  }
  EXPECT_GE(inputs, 5);
}

TEST_P(FuzzCorpusTest, NoBytesAreAnInputToo) { EXPECT_NO_THROW(GetParam().run(nullptr, 0)); }

INSTANTIATE_TEST_SUITE_P(Targets, FuzzCorpusTest, ::testing::ValuesIn(targets()),
                         [](const auto& each) { return std::string(each.param.name); });

TEST(FuzzCorpusFoldersTest, EachBelongsToATarget) {
  std::set<std::string> names;
  for (const Target& target : targets()) names.insert(target.name);
  for (const auto& folder : std::filesystem::directory_iterator(kCorpus)) {
    EXPECT_EQ(names.count(folder.path().filename().string()), 1U) << folder.path();
  }
}

}  // namespace
}  // namespace orva::fuzz
