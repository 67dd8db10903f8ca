#pragma once

#include <boost/optional.hpp>
#include <cstdint>
#include <utility>
#include <vector>

#include "model/sample.h"
#include "share/status_codes.h"

namespace orva::model {

// What is read.
struct Query {
  std::int64_t start = 0;
  std::int64_t end = 0;
  bool bounds = false;
  bool firstLast = false;
  std::uint32_t limit = 0;
  std::int64_t resampleInterval = 0;
  bool cachedLayer = true;
  boost::optional<std::int64_t> point;  // where the page before stopped

  // Where this page begins.
  std::int64_t from() const { return point && *point > start ? *point : start; }
  bool resampled() const { return resampleInterval > 1'000'000 && !firstLast; }
};

// A page before its limit: one sample, a stretch of the list, one sample.
struct Pieces {
  boost::optional<Sample> before;
  const Sample* first = nullptr;
  const Sample* last = nullptr;
  boost::optional<Sample> after;
};

// Everything accepted for one variable and layer, in order: the plain list that every answer is
// compared with. Where samples are appended while a page is read, the first `n` of them are what
// the list was at some moment.
class Truth {
 public:
  void add(const Sample& sample) { samples_.push_back(sample); }
  // For a sample older than the newest: behind those of its time.
  void put(const Sample& sample);

  const std::vector<Sample>& samples() const { return samples_; }
  std::size_t size() const { return samples_.size(); }
  // The first place with a time not below (above) `time`, among the first n.
  std::size_t notBelow(std::int64_t time, std::size_t n) const;
  std::size_t above(std::int64_t time, std::size_t n) const;
  // [first, last) of the samples of a range whose ends may be open.
  std::pair<std::size_t, std::size_t> range(std::int64_t from, std::int64_t to,
                                            std::size_t n) const;

  Pieces page(const Query& query, std::size_t n) const;
  // Whether `got` with `status` is a right answer if the list grew from n0 to n1 samples while it
  // was made. Each part of the answer may be of another moment. With `cut` it may say good where
  // there is more.
  bool allows(const Query& query, const std::vector<Sample>& got, StatusCode status, bool cut,
              std::size_t n0, std::size_t n1) const;
  // The answer for the first n samples.
  std::vector<Sample> answer(const Query& query, std::size_t n) const;

 private:
  Pieces rangePage(const Query& query, std::size_t n) const;
  Pieces firstLastPage(const Query& query, std::size_t n) const;
  bool allowsParts(const Query& query, const std::vector<Sample>& got, StatusCode status, bool cut,
                   std::size_t n0, std::size_t n1) const;

  std::vector<Sample> samples_;
};

}  // namespace orva::model
