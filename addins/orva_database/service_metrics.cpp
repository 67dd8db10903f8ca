#include "orva_database/service_metrics.h"

#include "host/metrics.h"
#include "orva_database/archive_manager_state.h"
#include "orva_database/counters.h"
#include "orva_database/layer.h"

namespace orva {

namespace {

using archive::Filter;
using metrics::Family;
using metrics::Kind;

constexpr Family kItems{"orva_cache_items", Kind::gauge, "Items in the cache."};
constexpr Family kBlocks{"orva_cache_blocks", Kind::gauge,
                         "Blocks in the cache, by queue of the replacement policy."};
constexpr Family kCapacity{"orva_cache_capacity_blocks", Kind::gauge,
                           "Blocks that the cache may hold in all queues together."};
constexpr Family kHits{"orva_cache_hits_total", Kind::counter,
                       "Stretches of history that blocks in memory gave to reads."};
constexpr Family kMisses{"orva_cache_misses_total", Kind::counter,
                         "Stretches of history that cached layers had to ask an archive for."};
constexpr Family kEvictions{"orva_cache_evictions_total", Kind::counter,
                            "Blocks that the cache dropped to make room."};
constexpr Family kAccepted{"orva_samples_accepted_total", Kind::counter,
                           "New samples that write filters let through, by the rule that did."};
constexpr Family kRefused{"orva_samples_refused_total", Kind::counter,
                          "New samples that write filters kept back, by the rule that did."};
constexpr Family kInboxDropped{"orva_inbox_dropped_samples_total", Kind::counter,
                               "Samples read from archives that there was no room to cache."};
constexpr Family kReads{"orva_reads_total", Kind::counter, "Requests for history."};
constexpr Family kTimeouts{"orva_read_timeouts_total", Kind::counter,
                           "Requests for history given up before they were complete."};
constexpr Family kValues{"orva_values_returned_total", Kind::counter,
                         "Values given to requests for history."};
constexpr Family kOpenRequests{"orva_open_requests", Kind::gauge,
                               "Requests queued until they are fetched or their time is up."};
constexpr Family kOpenAsync{"orva_open_async_reads", Kind::gauge,
                            "Asynchronous reads that nobody has fetched yet."};
constexpr Family kRemoteExchanges{"orva_remote_exchanges_total", Kind::counter,
                                  "Requests for records sent to other controllers."};
constexpr Family kRemoteFailures{"orva_remote_failed_exchanges_total", Kind::counter,
                                 "Those that got no answer, or none that can be used."};
constexpr Family kRemoteReceived{"orva_remote_received_samples_total", Kind::counter,
                                 "Samples received from other controllers."};
constexpr Family kRemoteStored{"orva_remote_stored_samples_total", Kind::counter,
                               "Samples of other controllers that were stored."};
constexpr Family kRemoteRefused{
    "orva_remote_refused_samples_total", Kind::counter,
    "Samples of other controllers that the local write filter refused."};
constexpr Family kRemoteRepeated{"orva_remote_repeated_samples_total", Kind::counter,
                                 "Samples of other controllers that were here already."};
constexpr Family kRemoteSkipped{"orva_remote_unusable_samples_total", Kind::counter,
                                "Samples of other controllers of a form that cannot be taken."};

const char* ruleName(Filter::Rule rule) {
  switch (rule) {
    case Filter::Rule::first:
      return "first";
    case Filter::Rule::allValues:
      return "all_values";
    case Filter::Rule::maxPeriod:
      return "max_period";
    case Filter::Rule::change:
      return "change";
    case Filter::Rule::outsideDeadband:
      return "outside_deadband";
    case Filter::Rule::oldTime:
      return "old_time";
    case Filter::Rule::withinMaxPeriod:
      return "within_max_period";
    case Filter::Rule::minPeriod:
      return "min_period";
    case Filter::Rule::equal:
      return "equal";
    case Filter::Rule::insideDeadband:
      return "inside_deadband";
  }
  return "";
}

void collectRules(const cache::RuleCounts& rules, metrics::Sink& sink) {
  for (std::size_t i = 0; i < rules.size(); ++i) {
    const auto rule = static_cast<Filter::Rule>(i);
    sink.add(Filter::accepts(rule) ? kAccepted : kRefused, {{"rule", ruleName(rule)}}, rules[i]);
  }
}

void collectStorage(metrics::Sink& sink) {
  const auto counts = cache::Layer::storage->counts();
  sink.add(kBlocks, {{"queue", "first_in"}}, counts.firstIn);
  sink.add(kBlocks, {{"queue", "probation"}}, counts.probation);
  sink.add(kBlocks, {{"queue", "main"}}, counts.main);
  sink.add(kCapacity, cache::Layer::kStorageBlocks);
  sink.add(kEvictions, counts.evicted);
}

void collectCounters(metrics::Sink& sink) {
  sink.add(kHits, counters.hits.value());
  sink.add(kMisses, counters.misses.value());
  sink.add(kInboxDropped, counters.inboxDropped.value());
  sink.add(kReads, counters.reads.value());
  sink.add(kTimeouts, counters.readTimeouts.value());
  sink.add(kValues, counters.valuesReturned.value());
  sink.add(kOpenAsync, counters.openAsyncReads.value());
}

void collectRemote(metrics::Sink& sink) {
  sink.add(kRemoteExchanges, counters.remoteExchanges.value());
  sink.add(kRemoteFailures, counters.remoteFailures.value());
  sink.add(kRemoteReceived, counters.remoteReceived.value());
  sink.add(kRemoteStored, counters.remoteStored.value());
  sink.add(kRemoteRefused, counters.remoteRefused.value());
  sink.add(kRemoteRepeated, counters.remoteRepeated.value());
  sink.add(kRemoteSkipped, counters.remoteSkipped.value());
}

}  // namespace

void archive::DataArchiveManager::collectMetrics(metrics::Sink& sink) const {
  const cache::Cache::Figures figures = state_->cache.figures();
  sink.add(kItems, figures.items);
  collectRules(figures.rules, sink);
  MutexLock lock(state_->queueMutex);
  const std::size_t open = state_->pending.size();
  lock.unlock();
  sink.add(kOpenRequests, open);
}

void registerServiceMetrics() {
  // The manager first, so that it outlives the registration.
  static const archive::DataArchiveManager& manager = archive::DataArchiveManager::instance();
  static const metrics::Registration registration("orva_database", [](metrics::Sink& sink) {
    manager.collectMetrics(sink);
    collectStorage(sink);
    collectCounters(sink);
    collectRemote(sink);
  });
}

}  // namespace orva
