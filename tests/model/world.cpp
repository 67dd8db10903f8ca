#include "model/world.h"

#include <algorithm>
#include <boost/smart_ptr/make_shared.hpp>
#include <cstdarg>
#include <cstdio>
#include <limits>

#include "orva_database/inbox.h"

namespace orva::model {

using archive::Request;
using cache::BlockStorage;
using cache::Inbox;
using cache::Layer;

namespace {
constexpr std::int64_t kEarliest = std::numeric_limits<std::int64_t>::min();
constexpr std::int64_t kLatest = std::numeric_limits<std::int64_t>::max();
// Steps this long let resampling periods hold a few samples.
constexpr std::int64_t kLongStep = 400'000;
constexpr std::int64_t kShortestPeriod = 1'000'001;
constexpr std::int64_t kNoResampling = 1'000'000;
constexpr unsigned kMostPages = 3000;
}  // namespace

// ---- setting up

World::World(std::uint64_t seed, bool logs)
    : logs_(logs),
      random_(seed),
      clock_(1),
      total_(random_.pick({4U, 8U, 8U, 12U, 16U, 40U})),
      archives_(random_, manners()) {
  Layer::limits.blockSamples = random_.pick({2U, 3U, 4U, 4U, 4U, 5U});
  Layer::limits.cachedFrom = random_.pick({10U, 10U, 4U, 3U, 3U});
  Layer::storage = BlockStorage::make(total_);
  Inbox::maxWaiting = random_.pick({100'000U, 100'000U, 25U});
  sameTime_ = random_.pick({.2, .45, .45, .8, .93});
  sameValue_ = random_.pick({0., .1, .3});
  if (random_.chance(.3)) unit_ = kLongStep;
  const unsigned count = random_.pick({1U, 1U, 2U, 3U});
  for (unsigned i = 0; i < count; ++i) makeVariable(i);
  log("world: %u blocks of %u, cached from %u, inbox %u, %u variables, unit %lld\n", total_,
      Layer::limits.blockSamples, Layer::limits.cachedFrom, Inbox::maxWaiting, count,
      static_cast<long long>(unit_));
}

World::~World() {
  for (const ReadPtr& read : reads_) read->request->clearCallbacks();
  variables_.clear();
  Layer::limits = Layer::Limits();
  Layer::storage = BlockStorage::make(Layer::kStorageBlocks);
  Inbox::maxWaiting = 100'000;
}

Manners World::manners() {
  Manners manners;
  manners.atOnce = random_.pick({0., .3, 1.});
  manners.shortAnswers = random_.pick({0., 0., .1});
  manners.failures = random_.pick({0., 0., .1});
  manners.outOfOrder = random_.pick({0., 0., .2});
  manners.sloppy = random_.chance(.1);
  manners.archives = random_.pick({1U, 1U, 1U, 2U, 3U});
  manners.salt = random_.next();
  manners.logs = logs_;
  return manners;
}

std::int64_t World::timeStep() {
  if (random_.chance(sameTime_)) return 0;
  return random_.pick<std::int64_t>({1, 1, 2, 3, 7}) * unit_;
}

Sample World::newSample(Variable& variable) {
  const std::vector<Sample>& held = variable.writer.truth.samples();
  const bool same = !held.empty() && held.back().time == variable.time;
  if (same && random_.chance(sameValue_)) return {variable.time, held.back().value};
  // Equal samples stand side by side: of a, b, a at an edge nobody can tell which a is meant.
  if (!same && random_.chance(.02)) return {variable.time, kNotANumber};
  // Goes up and down, and never gives a value twice.
  constexpr std::int64_t kPrime = 1'000'003;
  return {variable.time, ++values_ * 7919 % kPrime};
}

void World::makeVariable(unsigned number) {
  variables_.push_back(std::make_unique<Variable>());
  Variable& variable = *variables_.back();
  variable.number = number;
  variable.description.number = static_cast<std::int32_t>(number);
  variable.description.cache = random_.chance(.93);
  if (unit_ != 1 && random_.chance(.3)) {
    variable.description.resampleInterval = random_.between(kShortestPeriod, 5 * kLongStep);
  }
  variable.mayBeginOlder = random_.chance(.06);
  variable.time = (random_.chance(.5) ? random_.pick<std::int64_t>({0, 0, 2, 5}) : 2) * unit_;
  const std::uint64_t most = random_.pick<std::uint64_t>({0, 1, 2, 5, 20, 60});
  for (std::uint64_t i = 0; i < most; ++i) {
    variable.time += timeStep();
    if (variable.time > 0) variable.writer.truth.add(newSample(variable));
  }
  variable.history = variable.writer.truth.size();
  variable.clock = std::max<std::int64_t>(1, variable.time + random_.pick({0, 0, 1, 5}) * unit_);
  if (random_.chance(.3)) variable.clock = random_.between(1, variable.clock);
  startLayer(variable);
}

void World::startLayer(Variable& variable) {
  clock_.setTime(variable.clock);
  variable.layer = std::make_unique<Layer>();
  variable.layer->init(variable.description, variable.writer);
}

void World::Writer::write(const PinPtr& pin) {
  const Sample sample = sampleOf(*pin);
  if (truth.size() != 0 && sample.time < truth.samples().back().time) {
    if (!older) throw Difference("an older sample reached the archive");
    truth.put(sample);
  } else {
    truth.add(sample);
  }
}

// ---- operations

void World::run(std::uint64_t operations) {
  for (operation_ = 0; operation_ < operations; ++operation_) operate();
  const auto answered = [](const ReadPtr& read) { return read->item->isFinal(); };
  while (archives_.stepAny() || std::any_of(reads_.begin(), reads_.end(), answered)) collect();
  for (const auto& variable : variables_) checkCache(*variable);
  if (!reads_.empty()) differs("a read without an answer though every archive has answered");
}

void World::operate() {
  ++counts_.operations;
  Variable& variable = *variables_[random_.below(variables_.size())];
  const std::uint64_t dice = random_.below(1000);
  if (dice < 400) {
    for (int left = random_.pick({1, 1, 1, 2, 6}); left > 0; --left) append(variable);
  } else if (dice < 790) {
    startRead(variable);
  } else if (dice < 830) {
    evict();
  } else if (dice < 845) {
    variable.clock += unit_;
  } else if (dice < 850) {
    restart(variable);
  } else {
    letArchivesAnswer();
  }
  collect();
  checkStorage();
  checkCache(variable);
}

void World::append(Variable& variable) {
  Writer& writer = variable.writer;
  if (variable.appended == 0 && variable.mayBeginOlder && writer.truth.size() != 0) {
    writer.older = true;
    variable.time = random_.between(0, writer.truth.samples().back().time);
  } else {
    variable.time += timeStep();
    if (variable.time == 0 && writer.truth.size() != 0) ++variable.time;
  }
  const Sample sample = newSample(variable);
  if (random_.chance(.9)) variable.clock = std::max(variable.clock, variable.time);
  log("append %u %s\n", variable.number, text(sample).c_str());
  ++variable.appended;
  ++counts_.appended;
  *variable.layer << makeSample(sample, static_cast<OpcUa_StatusCode>(random_.below(3)));
}

// The layer begins anew, as after a restart of the service or a new description of it; whatever is
// being fetched for the old one is still under way.
void World::restart(Variable& variable) {
  ++counts_.restarts;
  log("restart %u\n", variable.number);
  if (random_.chance(.5)) {
    clock_.setTime(variable.clock);
    variable.layer->init(variable.description, variable.writer);
  } else {
    variable.layer->flush();
    startLayer(variable);
  }
  variable.history = variable.writer.truth.size();
}

// Other items use the storage.
void World::evict() {
  for (int left = random_.pick({1, 2, 5}); left > 0; --left) {
    ++counts_.foreignBlocks;
    Layer::storage->make_new()->push(makeSample({0, 0}, 0));
  }
}

void World::letArchivesAnswer() {
  for (int left = random_.pick({1, 3, 10}); left > 0; --left) {
    if (!archives_.stepAny()) return;
    collect();
  }
}

// Mostly a time at which there is a sample, or one next to it.
std::int64_t World::someTime(Variable& variable) {
  const std::vector<Sample>& held = variable.writer.truth.samples();
  if (held.empty() || random_.chance(.2)) return random_.between(0, variable.time + 3 * unit_);
  const std::size_t recent = random_.pick<std::size_t>({5, 30, 1'000'000});
  const std::size_t from = held.size() > recent ? held.size() - recent : 0;
  const std::int64_t time = held[from + random_.below(held.size() - from)].time;
  const std::int64_t step = random_.chance(.5) ? 1 : unit_;
  return std::max<std::int64_t>(0,
                                time + random_.pick<std::int64_t>({0, 0, 0, 0, -1, 1, 2}) * step);
}

Query World::someQuery(Variable& variable) {
  Query query;
  query.start = someTime(variable);
  query.end = someTime(variable);
  if (query.start > query.end && random_.chance(.97)) std::swap(query.start, query.end);
  if (random_.chance(.15)) query.start = 0;
  if (random_.chance(.01)) query.start = -random_.between(1, 5);
  if (random_.chance(.3)) query.end = 0;
  query.limit = random_.pick({0U, 1U, 1U, 2U, 3U, 4U, 5U, 7U, 12U, 1000U});
  query.bounds = random_.chance(.4);
  query.firstLast = random_.chance(.12);
  query.cachedLayer = variable.layer->cached();
  if (random_.chance(.1)) query.resampleInterval = kNoResampling;
  if (unit_ != 1 && random_.chance(.4)) {
    query.resampleInterval = random_.between(kShortestPeriod, 12 * kLongStep);
  }
  if (random_.chance(.15)) {
    query.point = random_.pick<std::int64_t>(
        {kEarliest, kLatest, -1, 0, someTime(variable), someTime(variable), someTime(variable)});
  }
  return query;
}

// ---- reads

void World::startRead(Variable& variable) {
  const auto read = std::make_shared<Read>();
  read->variable = &variable;
  read->query = someQuery(variable);
  read->randomPoint = static_cast<bool>(read->query.point);
  read->waits = random_.chance(.7);
  ++counts_.reads;
  counts_.randomPoints += read->randomPoint;
  counts_.boundsReads += read->query.bounds && !read->query.firstLast;
  counts_.firstLastReads += read->query.firstLast;
  page(read);
}

// Asks for a page, and for those after it as long as they come at once.
void World::page(const ReadPtr& read) {
  do {
    ask(*read);
    reads_.push_back(read);
    if (!read->waits) return;
    wait(read);
    if (random_.chance(.5)) read->variable->layer->drain();
  } while (check(*read));
  finish(*read);
}

void World::ask(Read& read) {
  Variable& variable = *read.variable;
  Layer& layer = *variable.layer;
  const Query& query = read.query;
  if (++read.pages > kMostPages) differs("pages without an end");
  read.page = ++pages_;
  read.marks = std::make_shared<PageMarks>();
  read.sizeBefore = variable.writer.truth.size();
  read.completions = 0;
  read.request = boost::make_shared<Request>();
  read.request->options.startTime = query.start;
  read.request->options.endTime = query.end;
  read.request->options.returnBounds = query.bounds;
  read.request->options.returnFirstLastValue = query.firstLast;
  read.request->setCompletion([&read](const auto&) { ++read.completions; });
  read.item = read.request->addItem(variable.number + 1);
  read.item->numValuesPerNode = query.limit;
  read.item->resampleInterval = query.resampleInterval;
  read.item->setContinuationPoint(query.point);
  log("page %llu of %u: %s %lld to %lld%s limit %u point %s resampled %lld\n",
      static_cast<unsigned long long>(read.page), variable.number,
      query.firstLast ? "first/last" : "range", static_cast<long long>(query.start),
      static_cast<long long>(query.end), query.bounds ? " bounds" : "", query.limit,
      query.point ? std::to_string(*query.point).c_str() : "none",
      static_cast<long long>(query.resampleInterval));
  layer.drain();
  const Blocks before = seen(layer.describe());
  if (logs_) logBlocks(layer);
  noteWhatIsMet(read, before);
  if (query.firstLast) {
    layer.getFirtsLast(read.item, read.request->options);
  } else {
    layer.load(read.item, read.request->options);
  }
  read.held = read.item->valueCount();
  if (layer.cached() && query.firstLast) checkFirstLastAsked(read, chains(before));
  if (layer.cached() && !query.firstLast) checkAsked(read, chains(before));
  std::vector<archive::SharedInterval> open = read.item->openIntervals();
  log("   from the cache %s\n", text(samplesOf(read.item->values())).c_str());
  for (const auto& interval : open) {
    log("   asked %lld to %lld kind %d\n", static_cast<long long>(interval->start()),
        static_cast<long long>(interval->end()), static_cast<int>(interval->kind()));
  }
  ++(open.empty() ? counts_.fromCacheAlone : counts_.asked);
  if (open.empty()) read.item->finalize();
  random_.shuffle(open);
  for (const auto& interval : open) {
    archives_.read(interval, variable.writer.truth, read.page, read.marks);
  }
}

void World::wait(const ReadPtr& read) {
  while (!read->item->isFinal()) {
    if (!archives_.stepPage(read->page)) differs("a page that nobody answers");
  }
  reads_.erase(std::find(reads_.begin(), reads_.end(), read));
}

// Looks after the readers that do something else meanwhile.
void World::collect() {
  for (const ReadPtr& read : std::vector<ReadPtr>(reads_)) {
    if (giveUp(read) || !read->item->isFinal()) continue;
    reads_.erase(std::find(reads_.begin(), reads_.end(), read));
    if (check(*read)) {
      page(read);
    } else {
      finish(*read);
    }
  }
}

// A reader that goes away closes its items, or just lets go of the request.
bool World::giveUp(const ReadPtr& read) {
  if (read->item->isFinal() || !random_.chance(.005)) return false;
  ++counts_.abandonedReads;
  log("page %llu is given up\n", static_cast<unsigned long long>(read->page));
  read->request->clearCallbacks();
  if (random_.chance(.5)) read->item->close();
  reads_.erase(std::find(reads_.begin(), reads_.end(), read));
  return true;
}

void World::finish(const Read& read) {
  if (!read.query.cachedLayer || read.query.firstLast) return;
  ++counts_.rangeReads;
  counts_.metEvicted += read.metEvicted;
  counts_.metHalfFetched += read.metHalfFetched;
  counts_.metEither += read.metEvicted || read.metHalfFetched;
}

Counts World::counts() const {
  Counts counts = counts_;
  counts.answers = archives_.counts();
  return counts;
}

void World::differs(const std::string& what) const { throw Difference(what); }

void World::log(const char* format, ...) const {
  if (!logs_) return;
  std::va_list arguments;
  va_start(arguments, format);
  std::vprintf(format, arguments);
  va_end(arguments);
}

void World::logBlocks(const Layer& layer) const {
  for (const Layer::BlockInfo& block : layer.describe()) {
    std::vector<Sample> samples;
    for (const PinPtr& pin : block.samples) samples.push_back(sampleOf(*pin));
    log("     %lld %c%c%c %s%s%s\n", static_cast<long long>(block.key), block.joined ? 'J' : '-',
        block.openLeft ? 'L' : '-', block.openRight ? 'R' : '-', text(samples).c_str(),
        block.last ? " last" : "", block.entered ? "" : " outside");
  }
}

}  // namespace orva::model
