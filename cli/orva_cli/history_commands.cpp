#include <algorithm>
#include <chrono>
#include <thread>

#include "orva_cli/commands.h"
#include "orva_cli/failure.h"
#include "orva_cli/host_methods.h"
#include "orva_cli/quality_words.h"
#include "share/ticks.h"

namespace orva::cli {
namespace {

constexpr std::int64_t kHourMs = 3'600'000;

std::size_t widestPath(const std::vector<Item>& items) {
  std::size_t width = 0;
  for (const Item& item : items) width = std::max(width, item.path.size());
  return width;
}

// "now" is what the host takes for it, also when this machine's clock differs.
HistoryRange rangeOf(const Options& options, std::int64_t nowMs) {
  HistoryRange range;
  range.toMs = options.to ? options.to->at(nowMs) : nowMs;
  range.fromMs = options.from ? options.from->at(nowMs) : range.toMs - kHourMs;
  // 0 stands for an open end.
  range.fromMs = std::max<std::int64_t>(range.fromMs, 1);
  if (range.fromMs >= range.toMs) throw UsageError("--from must be before --to");
  return range;
}

void expectWritten(const std::ostream& out) {
  if (!out) throw Failure("cannot write the output; is the disk full?");
}

}  // namespace

void readCommand(const Options& options, HostClient& host, std::ostream& out) {
  const ItemList list = listItems(host);
  const HistoryRange range = rangeOf(options, list.hostTimeMs);
  const std::vector<Item> items = findItems(list, options.items, host);
  const std::vector<std::int64_t> ids = archiveItemIds(host, items);
  const auto writer = makeRowWriter(options.format, options.zone, widestPath(items), out);
  const TakeRow take = [&writer](const Row& row) { writer->row(row); };
  std::string failed;
  writer->begin();
  for (std::size_t i = 0; i < items.size(); ++i) {
    const StatusCode code = options.points > 0
                                ? readThinned(host, items[i], range, options.points, take)
                                : readRaw(host, items[i], ids[i], range, options.limit, take);
    if (isBad(code)) failed += "\n  \"" + items[i].path + "\": " + itemWords(code);
    expectWritten(out);
  }
  writer->end();
  if (!failed.empty()) {
    throw Failure("the host at " + host.url() + " could not read all of it:" + failed);
  }
}

void tailCommand(const Options& options, HostClient& host, std::ostream& out) {
  const ItemList list = listItems(host);
  const std::vector<Item> items = findItems(list, options.items, host);
  archiveItemIds(host, items);
  const std::int64_t fromMs =
      options.from ? std::max<std::int64_t>(options.from->at(list.hostTimeMs), 1) : list.hostTimeMs;
  std::vector<Followed> followed;
  followed.reserve(items.size());
  for (const Item& item : items) {
    followed.push_back({item, fromMs * kTicksPerMillisecond + kUnixEpochTicks});
  }
  const auto writer = makeRowWriter(options.format, options.zone, widestPath(items), out);
  std::int64_t left = options.limit;
  const TakeRow take = [&writer, &left](const Row& row) {
    if (left > 0) writer->row(row);
    if (left > 0) --left;
  };
  const std::chrono::duration<double> interval(options.intervalSeconds);
  writer->begin();
  while (left > 0) {
    const bool areMore = readNew(host, followed, take);
    out.flush();
    expectWritten(out);
    if (left > 0 && !areMore) std::this_thread::sleep_for(interval);
  }
  writer->end();
}

}  // namespace orva::cli
