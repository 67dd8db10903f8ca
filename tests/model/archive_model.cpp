#include "model/archive_model.h"

#include <algorithm>
#include <cstdio>
#include <limits>

namespace orva::model {

using archive::Interval;

namespace {
constexpr std::size_t kAll = std::numeric_limits<std::uint32_t>::max();
constexpr std::size_t kNotYet = std::numeric_limits<std::size_t>::max();
constexpr StatusCode kStorageFailure = 0x80050000;

bool ascendsStrictly(const std::vector<Sample>& values) {
  return std::adjacent_find(values.begin(), values.end(), [](const Sample& a, const Sample& b) {
           return a.time >= b.time;
         }) == values.end();
}
}  // namespace

// Samples of one time lie in the same archives, in the same order: which archive gave them makes
// no difference to the merged answer.
bool ArchiveModel::holds(unsigned archive, const Sample& sample) const {
  if (manners_.archives == 1) return true;
  Random hash(manners_.salt ^ static_cast<std::uint64_t>(sample.time));
  const std::uint64_t mask = hash.below((1U << manners_.archives) - 1) + 1;
  return (mask >> archive & 1) != 0;
}

void ArchiveModel::read(const archive::SharedInterval& interval, const Truth& truth,
                        std::uint64_t page, const std::shared_ptr<PageMarks>& marks) {
  ++counts_.intervals;
  Job job;
  job.truth = &truth;
  job.page = page;
  job.marks = marks;
  job.moment = std::make_shared<std::size_t>(kNotYet);
  if (manners_.archives == 1) {
    job.interval = interval;
    return begin(std::move(job));
  }
  ++counts_.split;
  const std::vector<archive::SharedInterval> parts = interval->split(manners_.archives);
  for (unsigned i = 0; i < parts.size(); ++i) {
    Job part = job;
    part.interval = parts[i];
    part.archive = i;
    begin(std::move(part));
  }
}

void ArchiveModel::begin(Job job) {
  job.chunk = random_.pick<std::size_t>({1, 2, 5, 1000});
  job.extra = random_.pick<std::size_t>({0, 0, 1, 3, kAll});
  job.endsEarly = manners_.archives == 1 && random_.chance(manners_.shortAnswers);
  job.fails = random_.chance(manners_.failures);
  job.asksFull = random_.chance(0.5);
  if (random_.chance(0.5)) fill(job);  // a snapshot of the moment it was asked
  if (!random_.chance(manners_.atOnce)) {
    ++counts_.late;
    jobs_.push_back(std::move(job));
    return;
  }
  while (step(job)) {
  }
}

std::vector<Sample> ArchiveModel::heldBy(const Job& job, std::size_t first, std::size_t last,
                                         std::size_t most) const {
  std::vector<Sample> values;
  const std::vector<Sample>& all = job.truth->samples();
  for (std::size_t i = first; i < last && values.size() < most; ++i) {
    if (holds(job.archive, all[i])) values.push_back(all[i]);
  }
  return values;
}

void ArchiveModel::fill(Job& job) {
  job.filled = true;
  const Interval& asked = *job.interval;
  const Truth& truth = *job.truth;
  if (*job.moment == kNotYet) *job.moment = truth.size();
  const auto [first, last] = truth.range(asked.start(), asked.end(), *job.moment);
  if (asked.kind() == Interval::Kind::range) {
    fillRange(job, first, last);
  } else {
    fillOne(job, heldBy(job, first, last, kAll));
  }
}

void ArchiveModel::fillOne(Job& job, std::vector<Sample> held) const {
  const std::size_t most = job.extra < 2 ? job.extra + 1 : kAll;
  if (held.size() > most) {
    const auto count = static_cast<std::ptrdiff_t>(most);
    if (job.interval->kind() == Interval::Kind::oldest) {
      held.resize(most);
    } else {
      held.erase(held.begin(), held.end() - count);
    }
  }
  job.values = std::move(held);
}

void ArchiveModel::fillRange(Job& job, std::size_t first, std::size_t last) {
  const Interval::Bounds bounds = job.interval->bounds();
  const std::vector<Sample>& all = job.truth->samples();
  std::vector<Sample> values;
  for (std::size_t i = first; bounds.left && i-- > 0;) {
    if (!holds(job.archive, all[i])) continue;
    values.push_back(all[i]);
    break;
  }
  const std::uint64_t wanted = job.interval->wanted();
  const std::size_t most =
      wanted == 0 ? kAll : static_cast<std::size_t>(wanted) + std::min(job.extra, kAll / 2);
  const std::vector<Sample> inside = heldBy(job, first, last, most);
  values.insert(values.end(), inside.begin(), inside.end());
  if (bounds.right && values.size() < most) {
    const std::vector<Sample> after = heldBy(job, last, *job.moment, 1);
    values.insert(values.end(), after.begin(), after.end());
  }
  job.values = std::move(values);
  spoil(job);
}

// What a provider gets wrong. (A short answer ends between two times: what it gives is right.)
void ArchiveModel::spoil(Job& job) {
  std::vector<Sample>& values = job.values;
  if (job.endsEarly && values.size() > 1) {
    std::size_t keep = 1 + random_.below(values.size() - 1);
    while (keep > 0 && values[keep].time == values[keep - 1].time) --keep;
    values.resize(keep);
    job.marks->shortAnswer = true;
  }
  if (job.fails && !values.empty()) values.resize(random_.below(values.size()));
  const Interval& asked = *job.interval;
  if (manners_.sloppy && random_.chance(0.3)) {
    if (asked.start() > 0 && !asked.bounds().left) {
      values.insert(values.begin(), {asked.start() - 1, -2});
    }
    if (asked.end() != 0 && !asked.bounds().right) values.push_back({asked.end() + 1, -3});
  }
  if (!asked.bounds().left && ascendsStrictly(values) && random_.chance(manners_.outOfOrder)) {
    const archive::SharedItem item = asked.item();
    if (item && item->resampleInterval != 0) return;
    ++counts_.outOfOrder;
    random_.shuffle(values);
  }
}

void ArchiveModel::push(Job& job) {
  const std::size_t end = std::min(job.values.size(), job.position + job.chunk);
  std::vector<PinPtr> pins;
  for (; job.position < end; ++job.position) {
    pins.push_back(
        makeSample(job.values[job.position], static_cast<OpcUa_StatusCode>(random_.below(3))));
  }
  if (random_.chance(0.5)) {
    job.interval->push(pins.data(), pins.size());
  } else {
    for (const PinPtr& pin : pins) job.interval->push(pin);
  }
}

bool ArchiveModel::step(Job& job) {
  if (!job.filled) fill(job);
  if (job.asksFull && job.interval->full()) job.position = job.values.size();
  if (job.position < job.values.size()) {
    push(job);
    if (job.position < job.values.size() || random_.chance(0.5)) return true;
  }
  end(job);
  return false;
}

void ArchiveModel::end(Job& job) {
  if (manners_.logs) {
    std::printf("   page %llu archive %u answers %lld to %lld: %s%s\n",
                static_cast<unsigned long long>(job.page), job.archive,
                static_cast<long long>(job.interval->start()),
                static_cast<long long>(job.interval->end()), text(job.values).c_str(),
                job.fails ? " fails" : "");
  }
  if (job.fails) {
    ++counts_.failed;
    job.interval->fail(kStorageFailure);
  }
  if (!job.interval->item()) ++counts_.abandoned;
  job.interval->finalize();
  if (!random_.chance(0.02)) return;
  ++counts_.afterEnd;
  job.interval->push(makeSample({job.interval->start(), -1}, 0));
  job.interval->finalize();
}

void ArchiveModel::stepAt(std::size_t index) {
  Job job = std::move(jobs_[index]);
  jobs_.erase(jobs_.begin() + static_cast<std::ptrdiff_t>(index));
  if (step(job)) jobs_.push_back(std::move(job));
}

bool ArchiveModel::stepAny() {
  if (jobs_.empty()) return false;
  stepAt(random_.below(jobs_.size()));
  return true;
}

bool ArchiveModel::stepPage(std::uint64_t page) {
  std::vector<std::size_t> mine;
  for (std::size_t i = 0; i < jobs_.size(); ++i) {
    if (jobs_[i].page == page) mine.push_back(i);
  }
  if (mine.empty()) return false;
  stepAt(mine[random_.below(mine.size())]);
  return true;
}

}  // namespace orva::model
