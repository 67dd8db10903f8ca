#include <cstdio>

#include "model/world.h"

namespace orva::model {

void Counts::add(const Counts& other) {
  operations += other.operations;
  appended += other.appended;
  restarts += other.restarts;
  foreignBlocks += other.foreignBlocks;
  reads += other.reads;
  pages += other.pages;
  abandonedReads += other.abandonedReads;
  rangeReads += other.rangeReads;
  metEvicted += other.metEvicted;
  metHalfFetched += other.metHalfFetched;
  metEither += other.metEither;
  exact += other.exact;
  grown += other.grown;
  resampled += other.resampled;
  resampledExact += other.resampledExact;
  notCompared += other.notCompared;
  fromCacheAlone += other.fromCacheAlone;
  asked += other.asked;
  joinedPages += other.joinedPages;
  cut += other.cut;
  lastFromCache += other.lastFromCache;
  randomPoints += other.randomPoints;
  boundsReads += other.boundsReads;
  firstLastReads += other.firstLastReads;
  answers.intervals += other.answers.intervals;
  answers.split += other.answers.split;
  answers.late += other.answers.late;
  answers.failed += other.answers.failed;
  answers.afterEnd += other.answers.afterEnd;
  answers.outOfOrder += other.answers.outOfOrder;
  answers.abandoned += other.answers.abandoned;
}

std::string Counts::table() const {
  std::string all;
  const auto line = [&all](const char* name, std::uint64_t count) {
    char text[96];
    std::snprintf(text, sizeof text, "  %-52s %10llu\n", name,
                  static_cast<unsigned long long>(count));
    all += text;
  };
  line("operations", operations);
  line("samples appended", appended);
  line("layers begun anew", restarts);
  line("blocks of other items", foreignBlocks);
  line("reads", reads);
  line("  with bounds", boundsReads);
  line("  of the first and last value", firstLastReads);
  line("  from a random continuation point", randomPoints);
  line("  given up", abandonedReads);
  line("reads of a range on a cached layer", rangeReads);
  line("  that met an evicted stretch", metEvicted);
  line("  that met a half-fetched stretch", metHalfFetched);
  line("  that met either (at least a third)", metEither);
  line("pages", pages);
  line("  from the cache alone", fromCacheAlone);
  line("  that asked an archive", asked);
  line("  compared with the list", exact);
  line("  compared with the list as it grew", grown);
  line("  compared with the resampled list", resampled);
  line("    and equal point by point", resampledExact);
  line("  of incomplete answers, not compared", notCompared);
  line("  cut at the limit with nothing known of the rest", cut);
  line("reads whose joined pages equal one read", joinedPages);
  line("last values from a block within the range", lastFromCache);
  line("intervals answered", answers.intervals);
  line("  by several archives", answers.split);
  line("answers that came late", answers.late);
  line("  that failed", answers.failed);
  line("  out of order", answers.outOfOrder);
  line("  for a request that was gone", answers.abandoned);
  line("pushes and ends after the end", answers.afterEnd);
  return all;
}

}  // namespace orva::model
