#pragma once

#include <boost/smart_ptr/shared_ptr.hpp>
#include <boost/smart_ptr/weak_ptr.hpp>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <map>
#include <memory>
#include <vector>

#include "host/pin.h"
#include "host/vm_info.h"
#include "orva_database/data_block.h"
#include "orva_database/inbox.h"
#include "orva_database/sampling.h"
#include "share/archive_provider.h"
#include "share/archive_request.h"

namespace orva::cache {

// Whether the item takes more values: no limit, or fewer values than its limit.
bool HasSpase(const archive::SharedItem& item);

// The cache of one item in one archive layer. It passes accepted samples on to the layer's archive,
// resampled if the layer says so; if the layer is cached, it keeps recent and recently read samples
// in blocks, answers reads from them, and asks the archive exactly for what it lacks.
//
// What a block vouches for: the stretch from its first to its newest sample. An entry of the map is
// *joined* to the one before it when it is known that no sample lies between the two blocks; across
// a joined boundary nobody is asked. Samples are in ascending time; equal times are ordinary data
// and may lie on both sides of a block boundary, which the two open marks of an entry say.
//
// No lock of its own: the cached item serialises everything but the inbox under its mutex.
class Layer {
 public:
  using Options = archive::Request::Options;

  // Figures that tests make small, to meet block boundaries often.
  struct Limits {
    std::uint32_t blockSamples = DataBlock::MAX_SIZE;  // the most samples of a block
    std::uint32_t cachedFrom = 10;                     // fewer fetched samples are not cached
  };
  static Limits limits;
  // Blocks in the one storage of the process.
  static constexpr unsigned kStorageBlocks = 1638;
  static boost::shared_ptr<BlockStorage> storage;

  Layer();
  ~Layer();
  Layer(const Layer&) = delete;
  Layer& operator=(const Layer&) = delete;

  // Takes on a description; what a running resampler has selected goes to its writer first.
  void init(const vm::Layer& description, archive::ILayerWriter& writer);
  void baseInit();
  // Enters the block that is appended to: under the time of its first sample, or the current time
  // while it is empty. A live block under that key stays, and the new one is read after all others.
  void set_last(const boost::shared_ptr<DataBlock>& block);

  // A new sample: to the cache and the writer.
  Layer& operator<<(const PinPtr& sample);
  // Hands what a running resampler has selected to the writer.
  void flush();

  // Answers the item from the cache and opens intervals for the rest. True if the cache gave any
  // value.
  bool load(const archive::SharedItem& item, const Options& options);
  // The same for the first and the last value of the range.
  bool getFirtsLast(const archive::SharedItem& item, const Options& options);

  // Puts what a provider answered into the cache: completed intervals with enough samples.
  void insert(const archive::SharedInterval& interval);
  void assign(std::int64_t from, std::int64_t to, std::vector<PinPtr>& samples);
  // Takes in what providers answered since.
  void drain();

  bool cached() const { return cached_; }
  // Whether the writer asks those who can wait to wait.
  bool crowded() const { return writer_ != nullptr && writer_->crowded(); }
  std::uint32_t number() const { return layer_; }
  // The oldest sample of the first live block, null when there is none.
  PinPtr oldest() const;

  // ---- for tests and statistics
  struct BlockInfo {
    std::int64_t key;
    std::vector<PinPtr> samples;  // empty when the block is gone
    bool joined, openLeft, openRight, entered, last;
  };
  std::vector<BlockInfo> describe() const;

 private:
  struct Entry {
    boost::weak_ptr<DataBlock> block;
    bool joined = false;     // no sample lies between this block and the one before
    bool openLeft = false;   // samples of its first time may lie before it
    bool openRight = false;  // samples of its newest time may lie after it
    bool entered = true;     // false: `last`, kept behind a live block of the same key
  };
  // Ordered by time of the first sample. One entry a key, but for a `last` that is not entered.
  using Blocks = std::multimap<std::int64_t, Entry>;
  using Iter = Blocks::iterator;
  using BlockPtr = boost::shared_ptr<DataBlock>;

  struct Walk;
  struct Merge;
  friend struct Merge;

  static BlockPtr live(const Entry& entry);
  bool hasRoom(const DataBlock& block) const { return block.size() < limits.blockSamples; }

  // The entries as a reader sees them: an empty `last` is passed over.
  Iter skipEmptyLast(Iter it);
  Iter first() { return skipEmptyLast(blocks_.begin()); }
  Iter next(Iter it) { return skipEmptyLast(std::next(it)); }
  bool previous(Iter& it);
  // The last entry keyed at or before (strictly before) a time; the end if there is none.
  Iter atOrBefore(std::int64_t time);
  Iter before(std::int64_t time);
  // Removes an entry whose block is gone and advances. The one of key 0 and that of `last` stay,
  // emptied; the entry after it is no longer joined.
  void clearInterval(Iter& position);
  // Does that where no reader comes by: looks at so many entries, at the next ones each time.
  void sweep(std::size_t entries);

  void emit(const PinPtr& sample);
  void emitResampled();
  void append(const PinPtr& sample);
  void openBlock(const PinPtr& sample);
  void appendFirst(const PinPtr& sample);
  void dropEntriesBeyond(std::int64_t time);

  archive::SharedInterval ask(const archive::SharedItem& item, std::int64_t from, std::int64_t to);
  bool loadUncached(const archive::SharedItem& item, const Options& options, bool firstPage,
                    std::int64_t from);
  bool walkBlocks(Walk& walk);
  bool takeFrom(Walk& walk, Iter entry, const BlockPtr& block);
  Iter startEntry(std::int64_t from);
  void getLeftBound(Iter position, const archive::SharedItem& item, std::int64_t t);
  void getRightBound(Iter position, const archive::SharedItem& item, std::int64_t t);
  void firstLastUncached(const archive::SharedItem& item, std::int64_t from, std::int64_t to,
                         bool onlyLast);
  PinPtr findFirst(std::int64_t start);
  PinPtr findLast(std::int64_t end);

  void take(const Inbox::Answer& answer);

  BlockPtr last_;  // new samples go here; null while not cached
  std::uint32_t layer_ = 0;
  std::uint32_t reserved_ = 0;
  Blocks blocks_;
  Iter lastEntry_;            // the entry of last_
  std::int64_t sweptTo_ = 0;  // the key that sweep() looked at last
  archive::ILayerWriter* writer_ = nullptr;
  bool cached_ = false;
  PinList resampled_;  // the resampler's output queue
  std::unique_ptr<archive::Sampling> resampler_;
  boost::shared_ptr<Inbox> inbox_;  // shared weakly with listeners
};

}  // namespace orva::cache
