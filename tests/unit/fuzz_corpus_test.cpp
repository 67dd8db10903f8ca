#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "fuzz/fuzz_targets.h"
#include "support/trace_capture.h"

// What the fuzzers begin with and what they once found, in every build (see docs/testing.md).

namespace orva::fuzz {
namespace {

using Entry = void (*)(const std::uint8_t* data, std::size_t size);

// Returns how many inputs there were.
int replay(const std::string& target, Entry entry) {
  const test::TraceCapture traces;
  int inputs = 0;
  for (const auto& file :
       std::filesystem::directory_iterator(ORVA_SOURCE_DIR "/tests/fuzz/corpus/" + target)) {
    std::ifstream in(file.path(), std::ios::binary);
    const std::vector<char> bytes((std::istreambuf_iterator<char>(in)),
                                  std::istreambuf_iterator<char>());
    EXPECT_NO_THROW(entry(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()))
        << file.path();
    ++inputs;
  }
  return inputs;
}

TEST(FuzzCorpusTest, DatagramsKeepTheirPromises) { EXPECT_GE(replay("datagrams", datagrams), 10); }

TEST(FuzzCorpusTest, AnswersOfOtherControllersKeepTheirPromises) {
  EXPECT_GE(replay("remote_answer", remoteAnswer), 14);
}

}  // namespace
}  // namespace orva::fuzz
