#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "share/status_codes.h"

namespace orva::host {

// A sample as the JSON methods give it.
struct HistoryPoint {
  std::int64_t timeMs = 0;       // since 1970
  std::string value;             // its JSON text
  std::optional<double> number;  // what it is drawn at; booleans are 0 and 1
  StatusCode quality = status::kGood;

  // Whether a line goes through it: it has a number, and that may be trusted.
  bool isDrawn() const { return number && !isBad(quality); }
};

// Thins the history of one item for a drawing of limited width.
//
// Up to `most` points all stay. Beyond that the range is cut into equal stretches, each of which
// keeps its smallest and its largest number, so no peak is lost, and its last point if that is one
// where a line breaks, so gaps stay gaps. A stretch without numbers, of texts or bad values, keeps
// its first and its last point. Memory follows `most`, however many points come.
//
// For one thread. Points come by ascending time.
class HistoryPoints {
 public:
  static constexpr std::size_t kFewest = 3;  // that `most` can be

  HistoryPoints(std::int64_t fromMs, std::int64_t toMs, std::size_t most);

  void add(HistoryPoint point);
  // `most` at most, by ascending time. Once.
  std::vector<HistoryPoint> take();

 private:
  struct Stretch {
    std::optional<HistoryPoint> least;
    std::optional<HistoryPoint> greatest;
    std::optional<HistoryPoint> firstBroken;
    std::optional<HistoryPoint> last;
  };

  void cutInto(std::size_t stretches);
  void put(HistoryPoint point);
  std::vector<HistoryPoint> kept() const;

  const std::int64_t from_;
  const std::int64_t to_;
  const std::size_t most_;
  std::vector<HistoryPoint> all_;   // while they are few
  std::vector<Stretch> stretches_;  // empty until they are more
};

}  // namespace orva::host
