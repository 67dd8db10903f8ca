#include <algorithm>
#include <map>

#include "model/world.h"
#include "orva_database/sampling.h"

// What makes an answer right.

namespace orva::model {

namespace {

std::vector<Sample> sorted(std::vector<Sample> samples) {
  std::sort(samples.begin(), samples.end(), [](const Sample& a, const Sample& b) {
    return a.time != b.time ? a.time < b.time : a.value < b.value;
  });
  return samples;
}

bool contains(const std::vector<Sample>& all, const std::vector<Sample>& some) {
  const std::vector<Sample> a = sorted(all);
  const std::vector<Sample> b = sorted(some);
  return std::includes(a.begin(), a.end(), b.begin(), b.end(),
                       [](const Sample& x, const Sample& y) {
                         return x.time != y.time ? x.time < y.time : x.value < y.value;
                       });
}

// The points that resampling a plain list gives.
std::vector<Sample> resampled(const Sample* first, const Sample* last, std::int64_t interval) {
  PinList points;
  archive::Sampling sampling(interval, points, points.end());
  for (; first != last; ++first) sampling.push(makeSample(*first, 0));
  sampling.flush();
  return samplesOf(points);
}

}  // namespace

// True when there is another page and the reader wants it.
bool World::check(Read& read) {
  ++counts_.pages;
  const archive::Request::Item& item = *read.item;
  const std::vector<Sample> got = samplesOf(item.values());
  log("page %llu gave %s status %x%s, list %zu to %zu\n",
      static_cast<unsigned long long>(read.page), text(got).c_str(), item.status(),
      item.cut() ? " cut" : "", read.sizeBefore, read.variable->writer.truth.size());
  checkShape(read, got);
  compare(read, got);
  read.joined.insert(read.joined.end(), got.begin(), got.end());
  return nextPage(read, got);
}

void World::checkShape(const Read& read, const std::vector<Sample>& got) const {
  const archive::Request::Item& item = *read.item;
  const auto point = item.continuationPoint();
  if (read.completions != 1) differs("completed " + std::to_string(read.completions) + " times");
  if (read.request->status() != status::kGood) differs("request not good");
  const auto descends = [](const Sample& a, const Sample& b) { return a.time > b.time; };
  if (std::adjacent_find(got.begin(), got.end(), descends) != got.end()) {
    differs("not in time order: " + text(got));
  }
  if (read.query.limit != 0 && got.size() > read.query.limit) differs("more than the limit");
  if (item.status() == status::kGoodMoreData) {
    if (got.size() != read.query.limit) differs("more announced away from the limit");
    if (!point || *point != got.back().time + 1) differs("wrong continuation point");
  } else if (item.status() != status::kGood) {
    differs("item status " + std::to_string(item.status()));
  } else if (point) {
    differs("a continuation point though complete");
  }
  if (item.cut() && !read.query.resampled() && got.size() != read.query.limit) {
    differs("cut away from the limit");
  }
}

void World::compare(Read& read, const std::vector<Sample>& got) {
  const archive::Request::Item& item = *read.item;
  const Truth& truth = read.variable->writer.truth;
  counts_.cut += item.cut() && item.status() == status::kGood;
  if (item.failure() != 0 || read.marks->shortAnswer || read.variable->writer.older) {
    ++counts_.notCompared;
    read.grown = true;
    return checkKnown(read, got);
  }
  if (read.query.resampled()) return compareResampled(read, got);
  const bool same = truth.size() == read.sizeBefore;
  ++(same ? counts_.exact : counts_.grown);
  read.grown = read.grown || !same;
  if (truth.allows(read.query, got, item.status(), item.cut(), read.sizeBefore, truth.size())) {
    return;
  }
  differs("answer " + text(got) + " status " + std::to_string(item.status()) + ", expected " +
          text(truth.answer(read.query, truth.size())));
}

// A resampled answer has every point that resampling the plain list gives, and perhaps some more
// samples where blocks and answers adjoin.
void World::compareResampled(Read& read, const std::vector<Sample>& got) {
  ++counts_.resampled;
  const Truth& truth = read.variable->writer.truth;
  checkKnown(read, got);
  if (truth.size() != read.sizeBefore) {
    read.grown = true;
    return;
  }
  const Pieces page = truth.page(read.query, truth.size());
  std::vector<Sample> points = resampled(page.first, page.last, read.query.resampleInterval);
  if (page.before) points.insert(points.begin(), *page.before);
  if (page.after) points.push_back(*page.after);
  counts_.resampledExact += got == points;
  if (read.item->status() == status::kGoodMoreData || read.item->cut()) {
    // Only what lies before the page's last time must be there.
    while (!points.empty() && (got.empty() || points.back().time >= got.back().time)) {
      points.pop_back();
    }
  }
  if (!contains(got, points)) differs("resampled " + text(got) + " without all of " + text(points));
  const std::size_t edges = (page.before ? 1U : 0U) + (page.after ? 1U : 0U);
  const std::size_t most = static_cast<std::size_t>(page.last - page.first) + edges;
  if (got.size() > most) differs("resampled answer is longer than the raw one");
}

// What holds of every answer: only samples that were written, none more often than it was.
void World::checkKnown(const Read& read, const std::vector<Sample>& got) const {
  if (contains(read.variable->writer.truth.samples(), got)) return;
  differs("a sample twice or unknown in " + text(got));
}

bool World::nextPage(Read& read, const std::vector<Sample>& got) {
  auto point = read.item->continuationPoint();
  if (!point && read.item->cut() && !got.empty()) point = got.back().time + 1;
  if (!point) {
    if (!read.grown && !read.randomPoint && !read.query.firstLast && !read.query.resampled()) {
      checkJoined(read);
    }
    return false;
  }
  if (read.query.point && *point <= *read.query.point) differs("the point does not advance");
  read.query.point = point;
  return read.pages < 3 || random_.chance(.98);
}

// Joined pages are the one big read, but for samples of the very times at which a limit cut.
void World::checkJoined(const Read& read) {
  Query whole = read.query;
  whole.point.reset();
  whole.limit = 0;
  std::vector<Sample> one =
      read.variable->writer.truth.answer(whole, read.variable->writer.truth.size());
  ++counts_.joinedPages;
  if (read.joined == one) return;
  std::vector<std::int64_t> cuts;
  for (std::size_t end = read.query.limit; end > 0 && end <= read.joined.size();
       end += read.query.limit) {
    cuts.push_back(read.joined[end - 1].time);
  }
  const auto atCut = [&cuts](const Sample& sample) {
    return std::binary_search(cuts.begin(), cuts.end(), sample.time);
  };
  std::vector<Sample> pages = read.joined;
  pages.erase(std::remove_if(pages.begin(), pages.end(), atCut), pages.end());
  one.erase(std::remove_if(one.begin(), one.end(), atCut), one.end());
  if (pages != one) differs("joined pages " + text(pages) + ", one read " + text(one));
}

}  // namespace orva::model
