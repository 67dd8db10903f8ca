#include "orva_events_log/event_writer.h"

#include <algorithm>
#include <exception>
#include <limits>

#include "host/host_time.h"
#include "host/trace.h"
#include "share/ticks.h"
#include "sqlite_base/period.h"

namespace orva::events_log {
namespace {

constexpr const char* kProvider = "eventslog";

constexpr int kAttemptsToFinish = 3;

}  // namespace

EventWriter::EventWriter(const archive::ArchiveCfg& limits,
                         const archive::ConnectionCfg& connection, EventBuffer& buffer)
    : limits_(limits),
      retryTicks_(std::max<std::int64_t>(connection.reconnectTimeout, kTicksPerMillisecond)),
      location_(connection.location, "events.db"),
      buffer_(buffer),
      problems_(kProvider, location_.file()),
      store_(sqlite::tracedStoreParameters(kProvider, connection.location, connection.parameters),
             std::int64_t{limits.maxSize} * 1'000'000) {}

// ---- opening

bool EventWriter::failed(const char* doing) {
  const std::string problem = std::string(doing) + " failed: " + store_.db().failure();
  doubtful_ = doubtful_ || store_.db().isUnreadable();
  store_.db().rollback();
  // Otherwise a connection that begins anew knows the state of the file.
  if (!store_.db().isHarmless()) store_.close();
  store_.db().clearFailure();
  failedAt_ = Signal::elapsed();
  problems_.failed(problem);
  return false;
}

void EventWriter::succeeded() {
  failedAt_ = 0;
  if (store_.space().logProblem().empty()) {
    problems_.works();
  } else {
    problems_.failed(store_.space().logProblem());
  }
}

bool EventWriter::open() {
  std::string problem;
  const sqlite::Location::Claim claim = location_.claim(problem);
  refused_ = claim == sqlite::Location::Claim::kTaken;
  if (refused_) {
    problems_.cannotOpen("refused, since another log is open at this place (" + problem + ")");
  } else if (claim == sqlite::Location::Claim::kUnreachable) {
    problems_.cannotOpen(problem);
  } else if (openFile()) {
    failedAt_ = 0;
    problems_.opened();
    return true;
  }
  failedAt_ = Signal::elapsed();
  return false;
}

// What cannot be read is moved aside, so that there is a log whatever stood there; but not for one
// look that went wrong.
bool EventWriter::openFile() {
  bool doubted = false;
  for (int attempt = 0; attempt < 3; ++attempt) {
    const sqlite::Opened opened = store_.open(location_.file(), doubtful_);
    if (opened == sqlite::Opened::kReady) {
      doubtful_ = false;
      // The transaction that was thought to have failed may be in the file after all.
      if (batchId_ != 0 && store_.nextId() > batchId_) batch_.clear();
      return true;
    }
    const std::string problem = store_.db().failure();
    store_.close();
    store_.db().clearFailure();
    if (opened == sqlite::Opened::kUnavailable) {
      problems_.cannotOpen("cannot be opened: " + problem);
      return false;
    }
    if (doubted && !moveAside()) return false;
    doubted = !doubted;
  }
  problems_.cannotOpen("cannot be read");
  return false;
}

bool EventWriter::moveAside() {
  std::string problem;
  const std::string name = location_.moveAside(problem);
  if (name.empty()) {
    problems_.cannotOpen("cannot be read, nor moved aside: " + problem);
    return false;
  }
  batchId_ = 0;
  doubtful_ = false;
  problems_.movedAside(name);
  return true;
}

// ---- writing

bool EventWriter::writeBatch() {
  if (batch_.empty()) {
    batch_ = buffer_.take();
    batchId_ = 0;
  }
  if (batch_.empty()) return true;
  batchId_ = store_.nextId();
  if (!store_.append(batch_)) return failed("writing events");
  batch_.clear();
  succeeded();
  return true;
}

// ---- cleaning up

void EventWriter::startCleanUp(std::int64_t elapsed) {
  constexpr std::int64_t kEarliest = std::numeric_limits<std::int64_t>::min();
  cleanedAt_ = elapsed;
  const std::int64_t now = ageClock_.timeOfCleanUp(getInt64FileTime(), elapsed);
  cleaning_ = limits_.maxTime > 0 ? Cleaning::kAge : Cleaning::kSize;
  cleanBefore_ = now < kEarliest + std::max<std::int64_t>(0, limits_.maxTime)
                     ? kEarliest
                     : now - limits_.maxTime;
}

// One step, a transaction at most.
bool EventWriter::cleanUp() {
  const std::int64_t most = std::max(1U, limits_.maxDelValues);
  std::int64_t deleted = 0;
  if (cleaning_ == Cleaning::kAge) {
    deleted = store_.deleteBefore(cleanBefore_, most);
    if (deleted < most) cleaning_ = Cleaning::kSize;
  } else {
    sqlite::FileSpace& space = store_.space();
    const std::int64_t used = space.used();
    if (space.target() > 0 && used > space.target()) {
      // As large a part of the events as the excess is of the file.
      const double part = static_cast<double>(used - space.target()) / static_cast<double>(used);
      const auto rows = static_cast<std::int64_t>(part * static_cast<double>(store_.count()));
      deleted = store_.deleteOldest(std::clamp<std::int64_t>(rows, 1, most));
    }
    if (deleted == 0) {
      cleaning_ = Cleaning::kNot;
      space.shrink();
      if (space.target() > 0) space.checkpoint();
    }
  }
  if (deleted >= 0 && !store_.db().failed()) {
    succeeded();
    return true;
  }
  cleaning_ = Cleaning::kNot;
  return failed("cleaning up");
}

// ---- the loop's body

std::int64_t EventWriter::pass() {
  const std::int64_t now = Signal::elapsed();
  const bool waits = failedAt_ != 0 && now - failedAt_ < retryTicks_;
  if (waits) return ticksToNext(now);
  if (!store_.isOpen() && !open()) return ticksToNext(now);
  if (cleanedAt_ == 0) {
    cleanedAt_ = now;
    ageClock_.timeOfCleanUp(getInt64FileTime(), now);
  }
  if (!batch_.empty() || buffer_.batchIsDue(now, limits_.writePeriod)) {
    if (writeBatch()) return 0;
  } else if (cleaning_ != Cleaning::kNot) {
    if (cleanUp()) return 0;
  } else if (limits_.cleanupPeriod > 0 && now - cleanedAt_ >= limits_.cleanupPeriod) {
    startCleanUp(now);
    return 0;
  }
  return ticksToNext(now);
}

std::int64_t EventWriter::ticksToNext(std::int64_t now) const {
  if (failedAt_ != 0) return sqlite::ticksLeft(retryTicks_, failedAt_, now);
  std::int64_t ticks = kTicksPerHour;
  if (!buffer_.empty()) {
    ticks = std::min(ticks, sqlite::ticksLeft(limits_.writePeriod, buffer_.waitingSince(), now));
  }
  if (limits_.cleanupPeriod > 0) {
    ticks = std::min(ticks, sqlite::ticksLeft(limits_.cleanupPeriod, cleanedAt_, now));
  }
  return ticks;
}

// ---- the end

void EventWriter::interrupted() noexcept {
  store_.close();
  store_.db().clearFailure();
}

bool EventWriter::writeRest() {
  if (refused_) return true;
  if (!store_.isOpen() && !open()) return false;
  while (!batch_.empty() || !buffer_.empty()) {
    if (!writeBatch()) return false;
  }
  return true;
}

void EventWriter::countRest() noexcept {
  for (const Event& event : batch_) unwritten_ += event.events();
  batch_.clear();
  unwritten_ += buffer_.discard();
}

void EventWriter::tellRest() {
  if (unwritten_ == 0) return;
  const std::string problem = std::to_string(unwritten_) + " events could not be written";
  problems_.failed(problem);
  problems_.post(HostEventKind::kEventsLost, HostEventSeverity::kError, problem, unwritten_);
}

// What failed may be over at the next attempt: a lack of memory, a busy file.
std::int64_t EventWriter::finish() noexcept {
  bool written = false;
  bool told = false;
  for (int attempt = 0; attempt < kAttemptsToFinish && !told; ++attempt) {
    try {
      written = written || writeRest() || writeRest();
      countRest();
      tellRest();
      told = true;
    } catch (const std::exception& error) {
      OpcUa_Trace_Imp(kTraceError, "<--ReturnError: eventslog stop throws: %s\n", __FILE__,
                      __LINE__, error.what());
      interrupted();
    }
  }
  countRest();
  store_.close();
  location_.unlock();
  return unwritten_;
}

}  // namespace orva::events_log
