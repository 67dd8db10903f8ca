#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "model/random.h"
#include "model/truth.h"
#include "share/archive_request.h"

namespace orva::model {

// What one page learns of how it was answered.
struct PageMarks {
  bool shortAnswer = false;  // an archive gave less than it should have
};

// How the archives of a world answer.
struct Manners {
  double atOnce = 0;        // answers inside the read
  double shortAnswers = 0;  // end early without saying so
  double failures = 0;
  double outOfOrder = 0;
  bool sloppy = false;     // also pushes a value on either side of the stretch
  unsigned archives = 1;   // an interval is given to so many
  std::uint64_t salt = 0;  // decides which archive holds what
  bool logs = false;
};

struct AnswerCounts {
  std::uint64_t intervals = 0, split = 0, late = 0, failed = 0, afterEnd = 0, outOfOrder = 0,
                abandoned = 0;
};

// The archives behind the layers of a world: they hold the plain lists and answer intervals in
// pieces, in any order and whenever the world says so.
class ArchiveModel {
 public:
  ArchiveModel(Random& random, const Manners& manners) : random_(random), manners_(manners) {}

  void read(const archive::SharedInterval& interval, const Truth& truth, std::uint64_t page,
            const std::shared_ptr<PageMarks>& marks);
  bool idle() const { return jobs_.empty(); }
  // One step of any job, or of any job of that page; false when there was none.
  bool stepAny();
  bool stepPage(std::uint64_t page);
  const AnswerCounts& counts() const { return counts_; }

 private:
  struct Job {
    archive::SharedInterval interval;
    const Truth* truth = nullptr;
    std::uint64_t page = 0;
    std::shared_ptr<PageMarks> marks;
    unsigned archive = 0;
    // What of the list is answered: all archives of one interval look at the same moment.
    std::shared_ptr<std::size_t> moment;
    std::size_t chunk = 1;  // values per push
    std::size_t extra = 0;  // values pushed beyond those that are wanted
    bool endsEarly = false, fails = false, asksFull = false;
    bool filled = false;
    std::vector<Sample> values;
    std::size_t position = 0;
  };

  void begin(Job job);
  void fill(Job& job);
  void fillOne(Job& job, std::vector<Sample> held) const;
  void fillRange(Job& job, std::size_t first, std::size_t last);
  void spoil(Job& job);
  std::vector<Sample> heldBy(const Job& job, std::size_t first, std::size_t last,
                             std::size_t most) const;
  bool holds(unsigned archive, const Sample& sample) const;
  void push(Job& job);
  void end(Job& job);
  // False when the job has ended.
  bool step(Job& job);
  void stepAt(std::size_t index);

  Random& random_;
  const Manners manners_;
  std::vector<Job> jobs_;
  AnswerCounts counts_;
};

}  // namespace orva::model
