#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "orva_database/block_storage.h"
#include "orva_database/data_block.h"

namespace orva::cache {
namespace {

// In a file of its own that needs little: scripts/planted.sh compiles it alone.
TEST(BlockStorageTest, ThreadsMakeAndUseBlocksTogether) {
  const auto storage = BlockStorage::make(8);  // first-in 2, probation 4, main 2
  std::atomic<int> used{0};
  const auto work = [&] {
    std::vector<boost::weak_ptr<DataBlock>> mine;
    for (int i = 0; i < 2000; ++i) {
      mine.push_back(storage->make_new());
      for (std::size_t k = mine.size() > 5 ? mine.size() - 5 : 0; k < mine.size(); ++k) {
        if (const auto block = mine[k].lock()) {
          block->used();
          ++used;
        }
      }
    }
  };
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) threads.emplace_back(work);
  for (std::thread& thread : threads) thread.join();
  const auto counts = storage->counts();
  EXPECT_EQ(counts.firstIn, 2U);
  EXPECT_LE(counts.probation, 4U);
  EXPECT_LE(counts.main, 2U);
  EXPECT_GT(used.load(), 0);
}

}  // namespace
}  // namespace orva::cache
