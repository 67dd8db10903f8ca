#pragma once

#include <cstdint>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "orva_sqlite/archive.h"
#include "support/manual_clock.h"
#include "support/trace_capture.h"
#include "unit/orva_sqlite/archive_fixture.h"

namespace orva::sqlite::test {

// What was given to an archive and what has become of it, known from the archive's words alone.
struct LedgerEntry {
  std::size_t stream;
  std::int64_t time;
  enum class State {
    kAccepted,   // waits, or is being written
    kCommitted,  // the archive said that it is written
    kLost,       // the archive said that it could not be written; it may be there all the same
  } state = State::kAccepted;
};

// How far things were when a file was about to be changed.
struct Moment {
  std::size_t committed = 0;  // entries of the ledger that were known to be written
  std::size_t accepted = 0;
  std::int64_t goneBefore = 0;  // clean-ups may have deleted what is older
};

// Runs a script of random, but always the same, operations on an archive: writes, passes of its
// worker, joins, clean-ups, reads, restarts. Each answer is held against the ledger: nothing in it
// that was not written, nothing twice, and whatever is missing is said by a bad status.
//
// An archive without a thread, as in ArchiveTest.
class StoreScript {
 public:
  // `folder` is the archive's place.
  StoreScript(const std::string& folder, std::uint64_t seed);
  ~StoreScript();

  // Ends at the first problem.
  void run(int operations);
  // The fault has ended: without a restart, all that was accepted gets into the file and can be
  // read; new samples too; and so it is after a restart.
  void recover();
  // Writes what is accepted and closes the archive.
  void close();
  Moment moment() const;
  // Compares an archive that was found at this place after a loss of power at that moment.
  void compareImage(const std::string& folder, const Moment& moment);

  // The first thing that was wrong; empty when nothing was.
  const std::string& problem() const { return problem_; }
  void forgetProblem() { problem_.clear(); }
  // Whether something failed that somebody has to be told: an operation, a read, a lost sample.
  bool suffered() const { return suffered_; }
  bool hasErrorLine() const;
  // Whether the log says that something in the file could not be read any more.
  bool toldOfDamage() const;
  // The disk gives wrong content without an error, against which the file has no means: samples may
  // be missing, but none may be there that was not written.
  void excuseMissing() { excusesMissing_ = true; }
  std::string log() const;

 private:
  struct Source {
    ItemKey key;
    std::int32_t layer;
  };
  using State = LedgerEntry::State;

  std::size_t below(std::size_t limit) { return test::below(random_, limit); }
  void step();
  void open();
  void write(std::size_t source, std::size_t count);
  void noteWritten();
  void noteAges();
  void read();
  OpcUa_VariantHlp valueOf(std::size_t number) const;
  // The ledger's number of a sample; -1 when it was never written like that.
  std::int64_t numberOf(const Pin& pin, std::size_t source) const;
  bool mayBeMissing(const LedgerEntry& entry) const;
  void compare(archive::IDataArchive& archive, std::size_t source, std::int64_t from,
               std::int64_t to, std::vector<std::int64_t>* found = nullptr);
  // Compares all that the archive holds with the ledger.
  void settle();
  void compareAll();
  void complain(const std::string& what);

  std::mt19937_64 random_;
  orva::test::ManualClock clock_;
  orva::test::TraceCapture trace_;
  archive::ArchiveCfg limits_;
  archive::ConnectionCfg connection_;
  std::vector<Source> sources_;
  std::unique_ptr<Archive> archive_;
  std::vector<LedgerEntry> ledger_;
  std::size_t lifeBegin_ = 0;    // the first entry since the last start
  std::size_t committed_ = 0;    // entries that are, the lost ones among them
  std::int64_t goneBefore_ = 0;  // clean-ups may have deleted what is older
  std::string problem_;
  std::string last_;  // the operation under way
  bool suffered_ = false;
  bool excusesMissing_ = false;
};

}  // namespace orva::sqlite::test
