#include "orva_sqlite/interval_reader.h"

#include <algorithm>

#include "host/trace.h"
#include "orva_sqlite/archive_status.h"

namespace orva::sqlite {
namespace {

using Kind = archive::Interval::Kind;

constexpr std::uint64_t kAll = ~std::uint64_t{0};

std::uint64_t wantedOf(const archive::Interval& interval) {
  const std::uint64_t wanted = interval.wanted();
  return wanted == 0 ? kAll : wanted;
}

class IntervalSink final : public SampleSink {
 public:
  IntervalSink(archive::Interval& interval, Counters& counters)
      : interval_(interval), counters_(counters), room_(wantedOf(interval)) {}

  bool take(const PinPtr* first, std::size_t count) override {
    interval_.push(first, count);
    counters_.pushed += count;
    pushed_ += count;
    room_ -= std::min<std::uint64_t>(room_, count);
    return room_ > 0 && !interval_.full();
  }
  std::uint64_t room() const override { return room_; }
  std::uint64_t pushed() const { return pushed_; }

 private:
  archive::Interval& interval_;
  Counters& counters_;
  std::uint64_t room_;
  std::uint64_t pushed_ = 0;
};

class ListSink final : public SampleSink {
 public:
  explicit ListSink(std::uint64_t wanted) : room_(wanted) {}

  bool take(const PinPtr* first, std::size_t count) override {
    list.insert(list.end(), first, first + count);
    room_ -= std::min<std::uint64_t>(room_, count);
    return room_ > 0;
  }
  std::uint64_t room() const override { return room_; }

  std::vector<PinPtr> list;

 private:
  std::uint64_t room_;
};

}  // namespace

// 0 is open at either end. A stretch that begins at 1 or earlier has no sample before it that
// anybody could ask for.
IntervalReader::Stretch IntervalReader::stretchOf(const archive::Interval& interval) {
  Stretch stretch{};
  stretch.from = interval.start() == 0 ? kEarliest : interval.start();
  stretch.to = interval.end() == 0 ? kLatest : interval.end();
  const bool isRange = interval.kind() == Kind::range;
  stretch.left = isRange && interval.bounds().left && interval.start() > 1;
  stretch.right = isRange && interval.bounds().right && stretch.to != kLatest;
  return stretch;
}

std::uint64_t IntervalReader::answer(archive::Interval& interval, std::uint32_t handle) {
  const Stretch stretch = stretchOf(interval);
  if (stretch.from > stretch.to || interval.full()) return 0;
  const std::vector<Stream*> streams = catalog_.streamsOf(handle, interval.layer());
  if (streams.empty()) return 0;
  if (interval.kind() != Kind::range) return answerOne(interval, streams, stretch);
  if (streams.size() == 1) return answerRange(interval, *streams.front(), stretch);
  return answerMerged(interval, streams, stretch);
}

std::uint64_t IntervalReader::push(archive::Interval& interval, const PinPtr& pin) {
  if (!pin) return 0;
  interval.push(pin);
  ++counters_.pushed;
  return 1;
}

// What the view met on its way goes into the answer.
void IntervalReader::close(archive::Interval& interval, const StreamView& view) {
  if (view.readsFile()) {
    ++counters_.diskReads;
    OpcUa_Trace_Imp(kTraceDetail, "sqlite: item %lld, layer %d: %lld to %lld read from the file\n",
                    __FILE__, __LINE__, static_cast<long long>(interval.cacheId()),
                    interval.layer(), static_cast<long long>(interval.start()),
                    static_cast<long long>(interval.end()));
  }
  if (view.metDamage()) interval.fail(status::kBadDataLost);
  if (!view.unavailable()) return;
  interval.fail(status::kBadDataUnavailable);
  if (unavailableTrace_.pass()) {
    OpcUa_Trace_Imp(kTraceError, "sqlite: reading failed: %s\n", __FILE__, __LINE__,
                    view.problem().c_str());
  }
}

std::uint64_t IntervalReader::answerOne(archive::Interval& interval,
                                        const std::vector<Stream*>& streams,
                                        const Stretch& stretch) {
  const bool newest = interval.kind() == Kind::newest;
  PinPtr best;
  for (const Stream* const stream : streams) {
    StreamView view(*stream, stretch.from, stretch.to, buffer_, pool_, damage_);
    const PinPtr found =
        newest ? view.newest(stretch.from, stretch.to) : view.oldest(stretch.from, stretch.to);
    close(interval, view);
    if (!found) continue;
    if (!best || (newest ? found->time >= best->time : found->time < best->time)) best = found;
  }
  return push(interval, best);
}

std::uint64_t IntervalReader::answerRange(archive::Interval& interval, const Stream& stream,
                                          const Stretch& stretch) {
  StreamView view(stream, stretch.left ? kEarliest : stretch.from,
                  stretch.right ? kLatest : stretch.to, buffer_, pool_, damage_);
  std::uint64_t bounds = 0;
  if (stretch.left) bounds += push(interval, view.newest(kEarliest, stretch.from - 1));
  IntervalSink sink(interval, counters_);
  const bool toTheEnd = view.range(stretch.from, stretch.to, sink);
  if (toTheEnd && stretch.right) bounds += push(interval, view.oldest(stretch.to + 1, kLatest));
  close(interval, view);
  return bounds + sink.pushed();
}

// All layers of the item in one order of time; of equal times the lower layer comes first.
std::uint64_t IntervalReader::answerMerged(archive::Interval& interval,
                                           const std::vector<Stream*>& streams,
                                           const Stretch& stretch) {
  const std::uint64_t wanted = wantedOf(interval);
  PinPtr left;
  PinPtr right;
  std::vector<PinPtr> all;
  for (const Stream* const stream : streams) {
    StreamView view(*stream, stretch.left ? kEarliest : stretch.from,
                    stretch.right ? kLatest : stretch.to, buffer_, pool_, damage_);
    if (stretch.left) {
      const PinPtr found = view.newest(kEarliest, stretch.from - 1);
      if (found && (!left || found->time >= left->time)) left = found;
    }
    ListSink sink(wanted);
    view.range(stretch.from, stretch.to, sink);
    all.insert(all.end(), sink.list.begin(), sink.list.end());
    if (stretch.right) {
      const PinPtr found = view.oldest(stretch.to + 1, kLatest);
      if (found && (!right || found->time < right->time)) right = found;
    }
    close(interval, view);
  }
  std::stable_sort(all.begin(), all.end(),
                   [](const PinPtr& a, const PinPtr& b) { return a->time < b->time; });
  std::uint64_t bounds = push(interval, left);
  IntervalSink sink(interval, counters_);
  bool more = true;
  for (std::size_t at = 0; more && at < all.size();) {
    const auto count = std::min<std::uint64_t>({500, sink.room(), all.size() - at});
    more = sink.take(all.data() + at, static_cast<std::size_t>(count));
    at += static_cast<std::size_t>(count);
  }
  if (more) bounds += push(interval, right);
  return bounds + sink.pushed();
}

}  // namespace orva::sqlite
