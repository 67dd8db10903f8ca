#pragma once

#include <atomic>
#include <boost/smart_ptr/make_shared.hpp>
#include <boost/smart_ptr/shared_ptr.hpp>
#include <boost/smart_ptr/weak_ptr.hpp>
#include <cstdint>
#include <list>
#include <unordered_map>

#include "share/mutex.h"

namespace orva::cache {

// The base of a block: its number in the storage's books and the way to say that it was used.
template <class StorageType>
class storage_hook {
 public:
  storage_hook() = default;
  storage_hook(const storage_hook&) = delete;
  storage_hook& operator=(const storage_hook&) = delete;
  virtual ~storage_hook() = default;

  // Records a use with the storage, if that still lives. Any thread.
  void used() {
    if (const auto storage = storage_.lock()) storage->up(index());
  }
  // 0 until the block has left the first-in queue. Read without the storage's lock: a value that is
  // one step old loses one use, no more.
  std::uint32_t index() const { return index_.load(std::memory_order_relaxed); }

 private:
  template <class Block>
  friend class Allocator2Q;
  template <class Block, template <class> class Allocator, template <class> class Hook>
  friend class Storage;

  std::atomic<std::uint32_t> index_{0};
  boost::weak_ptr<StorageType> storage_;  // set once, before the block is handed out
};

// Which blocks are kept: the 2Q policy (Johnson and Shasha, "2Q: A Low Overhead High Performance
// Buffer Management Replacement Algorithm", 1994).
//
// A new block enters the first-in queue, where a use changes nothing, and then the probation queue.
// Used there, it moves to the main queue, which is kept in order of use; not used there, it is
// dropped. So one long read of old history passes by the blocks that are read again and again.
//
// Thread-safe. Calls nobody while it holds its lock; blocks it drops die after that.
template <class Block>
class Allocator2Q {
 public:
  using BlockPtr = boost::shared_ptr<Block>;

  // How many blocks each queue holds at the moment, and how many have been dropped so far.
  struct Counts {
    std::uint32_t firstIn;
    std::uint32_t probation;
    std::uint32_t main;
    std::uint64_t evicted;
  };

  // `firstIndex` is the first number a block gets; tests bring it near to its end.
  explicit Allocator2Q(unsigned total, std::uint32_t firstIndex = 1)
      : kin_(total / 4), kout_(2 * (total / 4)), km_(total - 3 * (total / 4)), next_(firstIndex) {}
  virtual ~Allocator2Q() = default;
  Allocator2Q(const Allocator2Q&) = delete;
  Allocator2Q& operator=(const Allocator2Q&) = delete;

  // A new, empty block, entered into the first-in queue.
  BlockPtr make_new() EXCLUDES(mutex_) {
    BlockPtr block = boost::make_shared<Block>();
    Queue dropped;  // destroyed after the lock
    MutexLock lock(mutex_);
    firstIn_.push_front(block);
    if (firstIn_.size() > kin_) moveToProbation(dropped);
    return block;
  }

  // Records a use of the block with this index; null (0) while it is in the first-in queue.
  virtual void up(unsigned const& index) EXCLUDES(mutex_) {
    if (index == kNullIndex) return;
    Queue dropped;
    MutexLock lock(mutex_);
    if (const auto found = inMain_.find(index); found != inMain_.end()) {
      if (found->second != main_.begin()) main_.splice(main_.begin(), main_, found->second);
      return;
    }
    const auto found = inProbation_.find(index);
    if (found == inProbation_.end()) return;
    const Place place = found->second;
    inProbation_.erase(found);
    main_.splice(main_.begin(), probation_, place);
    if (main_.size() > km_) dropOldest(main_, inMain_, dropped);
    if (!main_.empty() && main_.begin() == place) inMain_[index] = place;
  }

  Counts counts() const EXCLUDES(mutex_) {
    MutexLock lock(mutex_);
    return {static_cast<std::uint32_t>(firstIn_.size()),
            static_cast<std::uint32_t>(probation_.size()), static_cast<std::uint32_t>(main_.size()),
            evicted_};
  }

 private:
  using Queue = std::list<BlockPtr>;  // the front is the newest end
  using Place = typename Queue::iterator;
  using Index = std::unordered_map<std::uint32_t, Place>;
  static constexpr std::uint32_t kNullIndex = 0;
  static constexpr std::size_t kFirstBuckets = 10;

  void moveToProbation(Queue& dropped) REQUIRES(mutex_) {
    const Place moved = std::prev(firstIn_.end());
    const std::uint32_t index = freeIndex();
    (*moved)->index_.store(index, std::memory_order_relaxed);
    probation_.splice(probation_.begin(), firstIn_, moved);
    if (probation_.size() > kout_) dropOldest(probation_, inProbation_, dropped);
    // Where a queue holds nothing the moved block itself was the oldest.
    if (!probation_.empty() && probation_.begin() == moved) inProbation_[index] = moved;
  }

  void dropOldest(Queue& queue, Index& books, Queue& dropped) REQUIRES(mutex_) {
    const Place oldest = std::prev(queue.end());
    books.erase((*oldest)->index());
    dropped.splice(dropped.begin(), queue, oldest);
    ++evicted_;
  }

  // The counter wraps: 0 and numbers still in use are passed over.
  std::uint32_t freeIndex() REQUIRES(mutex_) {
    while (next_ == kNullIndex || inProbation_.count(next_) != 0 || inMain_.count(next_) != 0) {
      ++next_;
    }
    return next_++;
  }

  const std::uint32_t kin_;
  const std::uint32_t kout_;
  const std::uint32_t km_;
  mutable Mutex mutex_;  // leaf; guards everything below
  Index inProbation_ GUARDED_BY(mutex_){kFirstBuckets};
  Index inMain_ GUARDED_BY(mutex_){kFirstBuckets};
  Queue firstIn_ GUARDED_BY(mutex_);
  Queue probation_ GUARDED_BY(mutex_);
  Queue main_ GUARDED_BY(mutex_);
  std::uint32_t next_ GUARDED_BY(mutex_);
  std::uint64_t evicted_ GUARDED_BY(mutex_) = 0;
};

// Owns the blocks of all items and layers under one policy. Layers refer to blocks weakly, so a
// block that is dropped here vanishes from its layer without a call.
template <class Block, template <class> class Allocator, template <class> class Hook>
class Storage : public Allocator<Block> {
 public:
  using BlockPtr = boost::shared_ptr<Block>;

  // A storage for `total` blocks, always held by a shared reference.
  static boost::shared_ptr<Storage> make(unsigned total) {
    boost::shared_ptr<Storage> storage(new Storage(total));
    storage->self_ = storage;
    return storage;
  }

  BlockPtr make_new() {
    BlockPtr block = Allocator<Block>::make_new();
    static_cast<Hook<Storage>&>(*block).storage_ = self_;
    return block;
  }

 private:
  explicit Storage(unsigned total) : Allocator<Block>(total) {}

  boost::weak_ptr<Storage> self_;  // set once by make()
};

}  // namespace orva::cache
