#pragma once

#include <boost/smart_ptr/shared_ptr.hpp>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "host/vm_info.h"
#include "model/archive_model.h"
#include "model/random.h"
#include "model/truth.h"
#include "orva_database/layer.h"
#include "share/archive_request.h"
#include "support/manual_clock.h"

namespace orva::model {

// What happened in some worlds; printed at the end, and the reason to believe the test.
struct Counts {
  std::uint64_t operations = 0, appended = 0, restarts = 0, foreignBlocks = 0;
  std::uint64_t reads = 0, pages = 0, abandonedReads = 0;
  std::uint64_t rangeReads = 0;      // of a range on a cached layer
  std::uint64_t metEvicted = 0;      // of these, met a stretch that had been evicted
  std::uint64_t metHalfFetched = 0;  // met a stretch that was there in part or being fetched
  std::uint64_t metEither = 0;
  std::uint64_t exact = 0, grown = 0, resampled = 0, resampledExact = 0, notCompared = 0;
  std::uint64_t fromCacheAlone = 0, asked = 0, joinedPages = 0, cut = 0, lastFromCache = 0,
                randomPoints = 0, boundsReads = 0, firstLastReads = 0;
  AnswerCounts answers;

  void add(const Counts& other);
  std::string table() const;
};

// One world: some variables, each with one layer, that share a small block storage; archives behind
// them; writers, readers, a restart now and then, all at random but the same for a seed. After
// every operation the cache is searched for anything that cannot be true.
class World {
 public:
  World(std::uint64_t seed, bool logs);
  ~World();
  World(const World&) = delete;
  World& operator=(const World&) = delete;

  static constexpr std::uint64_t kOperations = 300;  // of one world

  // Throws Difference.
  void run(std::uint64_t operations);
  std::uint64_t operation() const { return operation_; }
  Counts counts() const;

 private:
  // Gets what the layer hands to its archive: the plain list.
  struct Writer : archive::ILayerWriter {
    void write(const PinPtr& pin) override;
    Truth truth;
    bool older = false;  // the layer's first sample was older than the archive's newest
  };
  struct Variable {
    vm::Layer description;
    Writer writer;
    std::unique_ptr<cache::Layer> layer;
    std::int64_t time = 0;  // of the sample offered last
    std::int64_t clock = 0;
    std::size_t history = 0;  // samples of the list that were there before the layer was
    bool mayBeginOlder = false;
    std::uint64_t appended = 0;
    unsigned number = 0;
  };
  struct Read {
    Variable* variable = nullptr;
    Query query;
    boost::shared_ptr<archive::Request> request;
    archive::SharedItem item;
    std::shared_ptr<PageMarks> marks;
    std::uint64_t page = 0;
    std::size_t sizeBefore = 0;  // of the list when the page was asked for
    std::size_t held = 0;        // values from the cache
    bool waits = false;          // its reader does nothing else until the page is there
    bool grown = false;          // not all pages are of the same list
    bool randomPoint = false;
    int completions = 0;
    unsigned pages = 0;
    bool metEvicted = false, metHalfFetched = false;
    std::vector<Sample> joined;
  };
  using ReadPtr = std::shared_ptr<Read>;
  // Live blocks of a layer that are joined.
  struct Chain {
    std::int64_t first, last;
    std::vector<const Pin*> blocks;  // the first sample of each: what it is known by
  };
  using Blocks = std::vector<cache::Layer::BlockInfo>;

  // ---- setting up
  Manners manners();
  void makeVariable(unsigned number);
  void startLayer(Variable& variable);
  std::int64_t timeStep();
  Sample newSample(Variable& variable);
  // ---- operations
  void operate();
  void append(Variable& variable);
  void restart(Variable& variable);
  void evict();
  void letArchivesAnswer();
  void startRead(Variable& variable);
  std::int64_t someTime(Variable& variable);
  Query someQuery(Variable& variable);
  // ---- reads
  void page(const ReadPtr& read);
  void ask(Read& read);
  void wait(const ReadPtr& read);
  void collect();
  bool giveUp(const ReadPtr& read);
  void finish(const Read& read);
  // ---- checks of answers (world_answers.cpp)
  bool check(Read& read);  // true when there is another page
  void checkShape(const Read& read, const std::vector<Sample>& got) const;
  void compare(Read& read, const std::vector<Sample>& got);
  void compareResampled(Read& read, const std::vector<Sample>& got);
  void checkKnown(const Read& read, const std::vector<Sample>& got) const;
  void checkJoined(const Read& read);
  bool nextPage(Read& read, const std::vector<Sample>& got);
  // ---- checks of the cache (world_cache.cpp)
  static Blocks seen(Blocks blocks);
  static std::vector<Chain> chains(const Blocks& blocks);
  void noteWhatIsMet(Read& read, const Blocks& blocks);
  void checkAsked(const Read& read, const std::vector<Chain>& before) const;
  using Intervals = std::vector<archive::SharedInterval>;
  void checkRangeAsked(const Read& read, const Intervals& intervals, const PinPtr& newest,
                       const Chain& chain) const;
  static bool live(const Chain& chain, const Blocks& blocks);
  void checkFirstLastAsked(Read& read, const std::vector<Chain>& before);
  void checkStorage() const;
  void checkCache(const Variable& variable) const;
  void checkEntries(const Blocks& all, const Variable& variable) const;
  void checkStretch(const Blocks& blocks, std::size_t first, std::size_t last,
                    const Variable& variable) const;
  void checkNoneTwice(const Blocks& blocks, const Variable& variable) const;

  [[noreturn]] void differs(const std::string& what) const;
  void log(const char* format, ...) const __attribute__((format(printf, 2, 3)));
  void logBlocks(const cache::Layer& layer) const;

  const bool logs_;
  Random random_;
  test::ManualClock clock_;
  const unsigned total_;   // blocks of the storage
  std::int64_t unit_ = 1;  // ticks of a step of time
  double sameTime_ = 0;    // how often a sample has the time of the one before ...
  double sameValue_ = 0;   // ... and then its value
  ArchiveModel archives_;
  std::vector<std::unique_ptr<Variable>> variables_;
  std::vector<ReadPtr> reads_;  // whose page is not there yet
  std::int64_t values_ = 0;
  std::uint64_t pages_ = 0;
  std::uint64_t operation_ = 0;
  Counts counts_;
};

}  // namespace orva::model
