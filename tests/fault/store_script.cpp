#include "fault/store_script.h"

#include <algorithm>
#include <set>

#include "host/trace.h"
#include "share/status_codes.h"

namespace orva::sqlite::test {
namespace {

constexpr std::int64_t kKeep = 400 * kTicksPerSecond;
constexpr std::int64_t kRetry = 5 * kTicksPerSecond;
constexpr int kManyPasses = 2000;

}  // namespace

StoreScript::StoreScript(const std::string& folder, std::uint64_t seed) : random_(seed) {
  connection_.location = folder;
  connection_.parameters = "checkpointPages=16;cacheKiB=64";
  connection_.reconnectTimeout = kRetry;
  limits_.maxWriteValues = 60;
  limits_.writeBufferSize = 100'000;
  limits_.writePeriod = kTicksPerSecond;
  limits_.maxDelValues = 50;
  limits_.maxTime = kKeep;
  limits_.cleanupPeriod = 200 * kTicksPerSecond;
  sources_ = {{{1, "a"}, 0}, {{1, "a"}, 1}, {{2, "b"}, 0}};
  open();
}

StoreScript::~StoreScript() {
  if (archive_) close();
}

void StoreScript::complain(const std::string& what) {
  if (problem_.empty()) problem_ = what + " (" + last_ + ")";
}

// ---- the script

void StoreScript::run(int operations) {
  for (int i = 0; i < operations && problem_.empty(); ++i) {
    step();
    noteWritten();
  }
}

void StoreScript::step() {
  clock_.advance(static_cast<std::int64_t>(1 + below(4)) * kTicksPerSecond);
  noteAges();
  const std::size_t choice = below(20);
  if (choice < 8) {
    last_ = "write";
    write(below(sources_.size()), below(10) == 0 ? 70 : 1 + below(6));
  } else if (choice < 12) {
    last_ = "passes";
    for (int i = 0; i < 4; ++i) archive_->worker().pass();
  } else if (choice < 14) {
    last_ = "writing all";
    if (!archive_->worker().writeAll()) suffered_ = true;
  } else if (choice == 14) {
    last_ = "joining all";
    if (!archive_->worker().mergeAll()) suffered_ = true;
  } else if (choice == 15) {
    last_ = "cleaning up";
    clock_.advance(static_cast<std::int64_t>(below(200)) * kTicksPerSecond);
    noteAges();
    if (!archive_->worker().cleanUp()) suffered_ = true;
  } else if (choice == 16) {
    last_ = "restart";
    close();
    open();
  } else {
    last_ = "read";
    read();
  }
}

void StoreScript::open() {
  archive_ = std::make_unique<Archive>(limits_, connection_);
  archive_->open();
  lifeBegin_ = ledger_.size();
}

void StoreScript::close() {
  const std::uint64_t droppedBefore = archive_->counters().dropped;
  archive_->shutDown();
  archive_->close();
  noteWritten();
  const std::uint64_t dropped = archive_->counters().dropped - droppedBefore;
  for (; committed_ < ledger_.size(); ++committed_) ledger_[committed_].state = State::kLost;
  const std::uint64_t accounted = archive_->counters().written + dropped;
  if (accounted != ledger_.size() - lifeBegin_) {
    complain(std::to_string(ledger_.size() - lifeBegin_) + " samples were accepted, but " +
             std::to_string(accounted) + " counted as written or lost");
  }
  if (dropped != 0) suffered_ = true;
  archive_.reset();
}

void StoreScript::write(std::size_t source, std::size_t count) {
  archive::ILayerWriter& writer =
      archive_->layerWriter(sources_[source].key, sources_[source].layer, 0);
  for (std::size_t i = 0; i < count; ++i) {
    if (below(4) != 0) clock_.advance(kTicksPerSecond / 10);
    const std::uint64_t before = archive_->counters().accepted;
    // Now and then one from before, as after a clock was set back.
    const std::int64_t age = below(30) == 0 ? static_cast<std::int64_t>(below(20)) : 0;
    const std::int64_t time = clock_.now() - age * kTicksPerSecond;
    writer.write(makePin(time, valueOf(ledger_.size())));
    if (archive_->counters().accepted == before) {
      suffered_ = true;
    } else {
      ledger_.push_back({source, time});
    }
  }
}

// The archive writes in the order in which it accepted.
void StoreScript::noteWritten() {
  if (!archive_) return;
  const std::size_t end = lifeBegin_ + static_cast<std::size_t>(archive_->counters().written);
  if (end > ledger_.size()) return complain("more samples were written than accepted");
  for (; committed_ < end; ++committed_) ledger_[committed_].state = State::kCommitted;
}

void StoreScript::noteAges() {
  goneBefore_ = std::max<std::int64_t>(goneBefore_, clock_.now() - kKeep);
}

void StoreScript::read() {
  const std::size_t source = below(sources_.size());
  const std::int64_t to = clock_.now() - static_cast<std::int64_t>(below(100)) * kTicksPerSecond;
  const std::int64_t from = to - static_cast<std::int64_t>(below(300)) * kTicksPerSecond;
  compare(*archive_, source, below(3) == 0 ? 0 : from, below(3) == 0 ? 0 : to);
}

// ---- the ledger

// Texts, long and short, and numbers; each says its place in the ledger.
OpcUa_VariantHlp StoreScript::valueOf(std::size_t number) const {
  if (number % 3 != 0) return realValue(static_cast<double>(number));
  return textValue(std::to_string(number) + std::string(number % 7 == 0 ? 300 : 1, '.'));
}

std::int64_t StoreScript::numberOf(const Pin& pin, std::size_t source) const {
  double number = -1;
  if (pin.value.GetType() == OpcUaType_String) {
    number = std::atof(pin.value.GetString().c_str());
  } else if (!pin.value.GetDouble(number)) {
    return -1;
  }
  if (!(number >= 0) || number >= static_cast<double>(ledger_.size())) return -1;
  const auto at = static_cast<std::size_t>(number);
  const LedgerEntry& entry = ledger_[at];
  const bool same = entry.stream == source && entry.time == pin.time &&
                    sameSample(pin, *makePin(entry.time, valueOf(at)));
  return same ? static_cast<std::int64_t>(at) : -1;
}

bool StoreScript::mayBeMissing(const LedgerEntry& entry) const {
  if (entry.state == State::kLost || entry.time < goneBefore_) return true;
  return excusesMissing_;
}

void StoreScript::compare(archive::IDataArchive& archive, std::size_t source, std::int64_t from,
                          std::int64_t to, std::vector<std::int64_t>* found) {
  const Answer answer = ask(archive, {sources_[source].key, sources_[source].layer, from, to});
  if (!answer.final) return complain("a read was not finalised");
  std::set<std::int64_t> numbers;
  std::int64_t before = kEarliest;
  for (const PinPtr& pin : answer.pushed) {
    const std::int64_t number = numberOf(*pin, source);
    if (number < 0)
      return complain("a read gives a sample that was not written: " + describe(*pin));
    if (!numbers.insert(number).second) {
      return complain("a read gives sample " + std::to_string(number) + " twice");
    }
    if (pin->time < before) return complain("a read is out of order");
    before = pin->time;
  }
  if (found != nullptr) found->insert(found->end(), numbers.begin(), numbers.end());
  if (isBad(answer.failure)) {
    if (found != nullptr) complain("an image cannot be read");
    suffered_ = true;
    return;
  }
  for (std::size_t i = 0; i < ledger_.size() && found == nullptr; ++i) {
    const LedgerEntry& entry = ledger_[i];
    if (entry.stream != source || (from != 0 && entry.time < from) ||
        (to != 0 && entry.time > to)) {
      continue;
    }
    if (numbers.count(static_cast<std::int64_t>(i)) == 0 && !mayBeMissing(entry)) {
      return complain("a good read lacks sample " + std::to_string(i) + " of " +
                      std::to_string(ledger_.size()));
    }
  }
}

void StoreScript::compareAll() {
  const bool before = suffered_;
  suffered_ = false;
  for (std::size_t source = 0; source < sources_.size(); ++source) compare(*archive_, source, 0, 0);
  if (suffered_ && !excusesMissing_) complain("a read failed after the fault");
  suffered_ = before;
}

// Everything that was accepted gets into the file, without a restart.
void StoreScript::settle() {
  int passes = 0;
  // A try that finds what the fault has left may fail once more.
  for (int tries = 0; tries < 2; ++tries) {
    clock_.advance(2 * kRetry);
    noteAges();
    while (archive_->worker().pass() == 0 && passes < kManyPasses) ++passes;
  }
  if (passes == kManyPasses) complain("the worker never rests");
  noteWritten();
  if (committed_ != ledger_.size()) {
    complain(std::to_string(ledger_.size() - committed_) + " samples are not written");
  }
  compareAll();
}

void StoreScript::recover() {
  last_ = "passes after the fault";
  settle();
  last_ = "new samples after the fault";
  write(0, 5);
  // Reads that lied may have had SQLite spoil the file, which the first writing meets.
  if (!archive_->worker().writeAll() && !excusesMissing_) complain("writing fails after the fault");
  settle();
  last_ = "restart after the fault";
  close();
  open();
  compareAll();
}

Moment StoreScript::moment() const {
  const std::uint64_t written = archive_ ? archive_->counters().written.load() : 0;
  return {std::max(committed_, lifeBegin_ + static_cast<std::size_t>(written)), ledger_.size(),
          goneBefore_};
}

// What is found must be, all streams together, the first so many of those accepted: not less than
// were committed.
void StoreScript::compareImage(const std::string& folder, const Moment& moment) {
  archive::ConnectionCfg connection = connection_;
  connection.location = folder;
  connection.parameters = "synchronous=OFF";
  archive::ArchiveCfg limits = limits_;
  limits.cleanupPeriod = 0;
  last_ = "image";
  goneBefore_ = moment.goneBefore;
  Archive image(limits, connection);
  image.open();
  std::vector<std::int64_t> found;
  for (std::size_t source = 0; source < sources_.size(); ++source) {
    compare(image, source, 0, 0, &found);
  }
  const std::set<std::int64_t> numbers(found.begin(), found.end());
  const std::size_t end = numbers.empty() ? 0 : static_cast<std::size_t>(*numbers.rbegin()) + 1;
  if (end > moment.accepted) complain("an image holds what was not accepted yet");
  for (std::size_t i = 0; i < std::max(moment.committed, end); ++i) {
    if (numbers.count(static_cast<std::int64_t>(i)) == 0 && !mayBeMissing(ledger_[i])) {
      complain("an image lacks sample " + std::to_string(i) + "; " +
               std::to_string(moment.committed) + " were committed, " + std::to_string(end) +
               " is behind the newest there");
      break;
    }
  }
  if (toldOfDamage()) complain("an image was taken for damaged: " + log());
  image.shutDown();
  image.close();
}

// ---- the log

bool StoreScript::hasErrorLine() const {
  for (const host::TraceLine& line : trace_.lines()) {
    if (line.level == kTraceError && line.text.rfind("sqlite: ", 0) == 0) return true;
  }
  return false;
}

bool StoreScript::toldOfDamage() const {
  return trace_.countContaining("cannot be read: it was moved") != 0 ||
         trace_.countContaining("is damaged") != 0;
}

std::string StoreScript::log() const {
  std::string all;
  for (const std::string& text : trace_.texts()) all += text;
  return all;
}

}  // namespace orva::sqlite::test
