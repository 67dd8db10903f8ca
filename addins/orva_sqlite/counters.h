#pragma once

#include <atomic>
#include <cstdint>

namespace orva::sqlite {

// What an archive did so far. Each figure is exact by itself; together they may be a moment apart.
struct Counters {
  std::atomic<std::uint64_t> reads{0};      // intervals answered
  std::atomic<std::uint64_t> diskReads{0};  // those that asked the file
  std::atomic<std::uint64_t> pushed{0};     // samples pushed into intervals
  std::atomic<std::uint64_t> accepted{0};   // samples put into the write buffer
  std::atomic<std::uint64_t> written{0};    // samples committed
  std::atomic<std::uint64_t> dropped{0};    // samples not taken: buffer full, or store in use
  std::atomic<std::uint64_t> refused{0};    // samples of a type that is not kept
  std::atomic<std::uint64_t> deleted{0};    // samples deleted for age or size
  std::atomic<std::uint64_t> damaged{0};    // segments set apart
  std::atomic<std::uint64_t> merged{0};     // segments replaced by merging
  std::atomic<std::uint64_t> bytes{0};      // bytes of the segments written, merged ones included
  std::atomic<std::uint64_t> commits{0};    // transactions with new samples
  std::atomic<std::uint64_t> failures{0};   // transactions that failed
  // Time spent, in 100 ns.
  std::atomic<std::uint64_t> readTicks{0};    // answering intervals
  std::atomic<std::uint64_t> writeTicks{0};   // in transactions with new samples
  std::atomic<std::uint64_t> deleteTicks{0};  // enforcing age and size
};

}  // namespace orva::sqlite
