#include "model/truth.h"

#include <algorithm>

namespace orva::model {

namespace {

bool fits(const Pieces& page, const Query& query, const std::vector<Sample>& got, StatusCode status,
          bool cut) {
  std::size_t total = static_cast<std::size_t>(page.last - page.first);
  total += (page.before ? 1U : 0U) + (page.after ? 1U : 0U);
  const bool more = query.limit != 0 && total > query.limit;
  if (got.size() != (more ? query.limit : total)) return false;
  if (status != (more ? status::kGoodMoreData : status::kGood) && !(cut && !isBad(status))) {
    return false;
  }
  auto at = got.begin();
  if (page.before && at != got.end() && *at++ != *page.before) return false;
  for (const Sample* sample = page.first; sample != page.last && at != got.end(); ++sample) {
    if (*at++ != *sample) return false;
  }
  return at == got.end() || (page.after && *at == *page.after);
}

template <class T>
void addNew(std::vector<T>& all, const T& one) {
  if (std::find(all.begin(), all.end(), one) == all.end()) all.push_back(one);
}

}  // namespace

void Truth::put(const Sample& sample) {
  const std::size_t place = above(sample.time, size());
  samples_.insert(samples_.begin() + static_cast<std::ptrdiff_t>(place), sample);
}

std::size_t Truth::notBelow(std::int64_t time, std::size_t n) const {
  const auto end = samples_.begin() + static_cast<std::ptrdiff_t>(n);
  const auto found = std::lower_bound(samples_.begin(), end, time,
                                      [](const Sample& s, std::int64_t t) { return s.time < t; });
  return static_cast<std::size_t>(found - samples_.begin());
}

std::size_t Truth::above(std::int64_t time, std::size_t n) const {
  const auto end = samples_.begin() + static_cast<std::ptrdiff_t>(n);
  const auto found = std::upper_bound(samples_.begin(), end, time,
                                      [](std::int64_t t, const Sample& s) { return t < s.time; });
  return static_cast<std::size_t>(found - samples_.begin());
}

std::pair<std::size_t, std::size_t> Truth::range(std::int64_t from, std::int64_t to,
                                                 std::size_t n) const {
  const std::size_t first = from > 0 ? notBelow(from, n) : 0;
  const std::size_t last = to != 0 ? above(to, n) : n;
  return {first, std::max(first, last)};
}

Pieces Truth::rangePage(const Query& query, std::size_t n) const {
  Pieces page;
  if (query.end != 0 && query.end < query.start) return page;
  // A cached layer takes a range of equal ends for an empty one.
  if (!(query.cachedLayer && query.end != 0 && query.start == query.end)) {
    const auto [first, last] = range(query.from(), query.end, n);
    page.first = samples_.data() + first;
    page.last = samples_.data() + last;
  }
  if (!query.bounds) return page;
  if (!query.point && query.start > 1) {
    const std::size_t first = notBelow(query.start, n);
    if (first > 0) page.before = samples_[first - 1];
  }
  if (query.end != 0) {
    const std::size_t behind = above(query.end, n);
    if (behind < n) page.after = samples_[behind];
  }
  return page;
}

Pieces Truth::firstLastPage(const Query& query, std::size_t n) const {
  Pieces page;
  if (query.end != 0 && query.end < query.start) return page;
  const auto [first, last] = range(query.from(), query.end, n);
  if (first == last) return page;
  if (!query.point) page.before = samples_[first];
  if (page.before != samples_[last - 1]) page.after = samples_[last - 1];
  return page;
}

Pieces Truth::page(const Query& query, std::size_t n) const {
  return query.firstLast ? firstLastPage(query, n) : rangePage(query, n);
}

bool Truth::allows(const Query& query, const std::vector<Sample>& got, StatusCode status, bool cut,
                   std::size_t n0, std::size_t n1) const {
  for (std::size_t n = n0; n <= n1; ++n) {
    if (fits(page(query, n), query, got, status, cut)) return true;
  }
  return n0 != n1 && allowsParts(query, got, status, cut, n0, n1);
}

bool Truth::allowsParts(const Query& query, const std::vector<Sample>& got, StatusCode status,
                        bool cut, std::size_t n0, std::size_t n1) const {
  std::vector<boost::optional<Sample>> befores;
  std::vector<boost::optional<Sample>> afters;
  std::vector<std::pair<const Sample*, const Sample*>> stretches;
  Query part = query;
  for (std::size_t n = n0; n <= n1; ++n) {
    const Pieces whole = page(query, n);
    addNew(befores, whole.before);
    if (query.firstLast) {  // the last value may be that of a moment with another first one
      part.point = query.from();
      addNew(afters, page(part, n).after);
    } else {
      addNew(afters, whole.after);
    }
    addNew(stretches, {whole.first, whole.last});
  }
  for (const auto& before : befores) {
    for (const auto& stretch : stretches) {
      for (const auto& after : afters) {
        Pieces mixed{before, stretch.first, stretch.second, after};
        if (query.firstLast && mixed.after == mixed.before) mixed.after.reset();
        if (fits(mixed, query, got, status, cut)) return true;
      }
    }
  }
  return false;
}

std::vector<Sample> Truth::answer(const Query& query, std::size_t n) const {
  const Pieces pieces = page(query, n);
  std::vector<Sample> values(pieces.first, pieces.last);
  if (pieces.before) values.insert(values.begin(), *pieces.before);
  if (pieces.after) values.push_back(*pieces.after);
  if (query.limit != 0 && values.size() > query.limit) values.resize(query.limit);
  return values;
}

}  // namespace orva::model
