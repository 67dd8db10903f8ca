#include "orva_database/block_storage.h"

#include <gtest/gtest.h>

#include <functional>
#include <limits>
#include <vector>

#include "orva_database/data_block.h"
#include "orva_database/layer.h"

namespace orva::cache {
namespace {

using BlockPtr = boost::shared_ptr<DataBlock>;
using WeakBlock = boost::weak_ptr<DataBlock>;

// First-in 2, probation 4, main 2.
constexpr unsigned kSmall = 8;

struct Counts {
  std::uint32_t firstIn, probation, main;
  bool operator==(const Counts& o) const {
    return firstIn == o.firstIn && probation == o.probation && main == o.main;
  }
};

Counts countsOf(const BlockStorage& storage) {
  const auto counts = storage.counts();
  return {counts.firstIn, counts.probation, counts.main};
}

std::vector<WeakBlock> makeBlocks(BlockStorage& storage, std::size_t count) {
  std::vector<WeakBlock> blocks;
  for (std::size_t i = 0; i < count; ++i) blocks.push_back(storage.make_new());
  return blocks;
}

void use(const WeakBlock& block) { block.lock()->used(); }

}  // namespace

TEST(BlockStorageTest, NewBlocksAreEmptyAndStayInTheFirstInQueue) {
  const auto storage = BlockStorage::make(kSmall);
  const auto blocks = makeBlocks(*storage, 2);
  EXPECT_EQ(countsOf(*storage), (Counts{2, 0, 0}));
  for (const WeakBlock& block : blocks) {
    EXPECT_TRUE(block.lock()->empty());
    EXPECT_EQ(block.lock()->index(), 0U);
  }
}

TEST(BlockStorageTest, UseInTheFirstInQueueChangesNothing) {
  const auto storage = BlockStorage::make(kSmall);
  const auto blocks = makeBlocks(*storage, 2);
  use(blocks[0]);
  use(blocks[1]);
  EXPECT_EQ(countsOf(*storage), (Counts{2, 0, 0}));
  storage->make_new();
  EXPECT_EQ(blocks[0].lock()->index(), 1U) << "the oldest one leaves all the same";
  EXPECT_EQ(blocks[1].lock()->index(), 0U);
}

TEST(BlockStorageTest, BlocksAreNumberedAsTheyEnterProbation) {
  const auto storage = BlockStorage::make(kSmall);
  const auto blocks = makeBlocks(*storage, 5);
  EXPECT_EQ(blocks[0].lock()->index(), 1U);
  EXPECT_EQ(blocks[1].lock()->index(), 2U);
  EXPECT_EQ(blocks[2].lock()->index(), 3U);
  EXPECT_EQ(blocks[3].lock()->index(), 0U);
  EXPECT_EQ(countsOf(*storage), (Counts{2, 3, 0}));
}

TEST(BlockStorageTest, FullProbationDropsItsOldestBlock) {
  const auto storage = BlockStorage::make(kSmall);
  const auto blocks = makeBlocks(*storage, 6);
  EXPECT_FALSE(blocks[0].expired());
  storage->make_new();
  EXPECT_TRUE(blocks[0].expired());
  EXPECT_FALSE(blocks[1].expired());
  EXPECT_EQ(countsOf(*storage), (Counts{2, 4, 0}));
}

TEST(BlockStorageTest, UseOnProbationMovesABlockToTheMainQueueWithItsNumber) {
  const auto storage = BlockStorage::make(kSmall);
  const auto blocks = makeBlocks(*storage, 4);
  use(blocks[0]);
  EXPECT_EQ(countsOf(*storage), (Counts{2, 1, 1}));
  EXPECT_EQ(blocks[0].lock()->index(), 1U);
  makeBlocks(*storage, 20);
  EXPECT_FALSE(blocks[0].expired()) << "blocks that pass by leave the main queue alone";
  EXPECT_TRUE(blocks[1].expired());
}

TEST(BlockStorageTest, FullMainQueueDropsTheBlockUsedLongestAgo) {
  const auto storage = BlockStorage::make(kSmall);
  const auto blocks = makeBlocks(*storage, 6);
  use(blocks[0]);
  use(blocks[1]);
  use(blocks[0]);  // to the front again
  use(blocks[2]);
  EXPECT_FALSE(blocks[0].expired());
  EXPECT_TRUE(blocks[1].expired());
  EXPECT_EQ(countsOf(*storage), (Counts{2, 1, 2}));
}

TEST(BlockStorageTest, UseOfTheFrontOfTheMainQueueChangesNothing) {
  const auto storage = BlockStorage::make(kSmall);
  const auto blocks = makeBlocks(*storage, 6);
  use(blocks[0]);
  use(blocks[1]);
  use(blocks[1]);
  use(blocks[2]);
  EXPECT_TRUE(blocks[0].expired());
  EXPECT_FALSE(blocks[1].expired());
}

TEST(BlockStorageTest, DroppedBlockIsNeverRevived) {
  const auto storage = BlockStorage::make(kSmall);
  const BlockPtr kept = storage->make_new();
  makeBlocks(*storage, 6);
  const Counts before = countsOf(*storage);
  EXPECT_EQ(kept.use_count(), 1) << "the storage has let go of it";
  EXPECT_EQ(kept->index(), 1U);
  kept->used();
  EXPECT_EQ(countsOf(*storage), before);
  EXPECT_EQ(kept.use_count(), 1);
}

TEST(BlockStorageTest, NumbersNobodyHasAreIgnored) {
  const auto storage = BlockStorage::make(kSmall);
  makeBlocks(*storage, 4);
  storage->up(0);
  storage->up(77);
  EXPECT_EQ(countsOf(*storage), (Counts{2, 2, 0}));
}

TEST(BlockStorageTest, BlockOutlivesItsStorage) {
  auto storage = BlockStorage::make(kSmall);
  const BlockPtr kept = storage->make_new();
  makeBlocks(*storage, 2);
  ASSERT_EQ(kept->index(), 1U);
  storage.reset();
  kept->used();
  EXPECT_EQ(kept.use_count(), 1);
}

TEST(BlockStorageTest, BlockTellsTheStorageThatMadeIt) {
  const auto mine = BlockStorage::make(kSmall);
  const auto other = BlockStorage::make(kSmall);
  const auto blocks = makeBlocks(*mine, 3);
  makeBlocks(*other, 3);
  use(blocks[0]);
  EXPECT_EQ(countsOf(*mine).main, 1U);
  EXPECT_EQ(countsOf(*other).main, 0U);
}

TEST(BlockStorageTest, StorageReleasesItsBlocks) {
  auto storage = BlockStorage::make(kSmall);
  const auto blocks = makeBlocks(*storage, 6);
  use(blocks[0]);
  storage.reset();
  for (const WeakBlock& block : blocks) EXPECT_TRUE(block.expired());
}

TEST(BlockStorageTest, TheOneStorageHasRoomFor1638Blocks) {
  static_assert(Layer::kStorageBlocks == 1638);
  ASSERT_TRUE(Layer::storage);
  const auto storage = BlockStorage::make(Layer::kStorageBlocks);
  const auto blocks = makeBlocks(*storage, 409);
  EXPECT_EQ(countsOf(*storage), (Counts{409, 0, 0}));
  EXPECT_EQ(blocks[0].lock()->index(), 0U);
  storage->make_new();
  EXPECT_EQ(blocks[0].lock()->index(), 1U);
  storage->make_new();
  EXPECT_EQ(blocks[1].lock()->index(), 2U);
  makeBlocks(*storage, 816);
  EXPECT_EQ(countsOf(*storage), (Counts{409, 818, 0}));
  EXPECT_FALSE(blocks[0].expired());
  storage->make_new();
  EXPECT_TRUE(blocks[0].expired());
  EXPECT_FALSE(blocks[1].expired());
}

TEST(BlockStorageTest, TheMainQueueOfTheOneStorageHolds411Blocks) {
  const auto storage = BlockStorage::make(Layer::kStorageBlocks);
  const auto blocks = makeBlocks(*storage, 409 + 412);
  for (int i = 0; i < 411; ++i) use(blocks[static_cast<std::size_t>(i)]);
  EXPECT_EQ(countsOf(*storage), (Counts{409, 1, 411}));
  EXPECT_FALSE(blocks[0].expired());
  use(blocks[411]);
  EXPECT_EQ(countsOf(*storage), (Counts{409, 0, 411}));
  EXPECT_TRUE(blocks[0].expired());
}

// Queues of no room: what is moved there is the oldest one at once.
TEST(BlockStorageTest, TotalsBelowFourHoldNothing) {
  for (unsigned total = 0; total < 4; ++total) {
    const auto storage = BlockStorage::make(total);
    const BlockPtr block = storage->make_new();
    EXPECT_EQ(countsOf(*storage), (Counts{0, 0, 0})) << total;
    EXPECT_EQ(block.use_count(), 1) << total;
    block->used();
    storage->make_new();
    EXPECT_EQ(countsOf(*storage), (Counts{0, 0, 0})) << total;
  }
}

TEST(BlockStorageTest, CapacitiesFollowFromTheTotal) {
  for (const unsigned total : {4U, 5U, 7U, 8U, 41U}) {
    const auto storage = BlockStorage::make(total);
    const auto blocks = makeBlocks(*storage, 4 * total);
    const unsigned quarter = total / 4;
    EXPECT_EQ(countsOf(*storage), (Counts{quarter, 2 * quarter, 0})) << total;
    for (int round = 0; round < 4; ++round) {
      for (const WeakBlock& block : makeBlocks(*storage, 2 * quarter)) {
        if (const BlockPtr held = block.lock()) held->used();
      }
    }
    EXPECT_EQ(countsOf(*storage).main, total - 3 * quarter) << total;
  }
}

TEST(BlockStorageTest, WrappingCounterSkipsZero) {
  constexpr std::uint32_t kMax = std::numeric_limits<std::uint32_t>::max();
  Allocator2Q<DataBlock> books(kSmall, kMax);
  std::vector<BlockPtr> blocks;
  for (int i = 0; i < 4; ++i) blocks.push_back(books.make_new());
  EXPECT_EQ(blocks[0]->index(), kMax);
  EXPECT_EQ(blocks[1]->index(), 1U) << "0 means that a block has no number yet";
}

namespace {

// A block that asks its storage something when it dies.
struct AskingBlock;
using AskingStorage = Storage<AskingBlock, Allocator2Q, storage_hook>;
struct AskingBlock : storage_hook<AskingStorage> {
  ~AskingBlock() override {
    if (onDeath) onDeath();
  }
  std::function<void()> onDeath;
};

}  // namespace

TEST(BlockStorageTest, DroppedBlocksDieAfterTheLockIsReleased) {
  const auto storage = AskingStorage::make(kSmall);
  int deaths = 0;
  const auto ask = [&] {
    ++deaths;
    EXPECT_LE(storage->counts().probation, 4U);
  };
  std::vector<boost::weak_ptr<AskingBlock>> blocks;
  for (int i = 0; i < 6; ++i) {
    const auto block = storage->make_new();
    block->onDeath = ask;
    blocks.push_back(block);
  }
  storage->make_new();  // drops from probation
  EXPECT_EQ(deaths, 1);
  for (int i = 1; i < 4; ++i) blocks[static_cast<std::size_t>(i)].lock()->used();
  EXPECT_EQ(deaths, 2) << "the main queue drops too";
  for (const auto& block : blocks) {
    if (const auto live = block.lock()) live->onDeath = nullptr;
  }
}

}  // namespace orva::cache
