#include "orva_sqlite/storage_worker.h"

#include <algorithm>
#include <filesystem>
#include <limits>
#include <system_error>
#include <tuple>

#include "host/host_time.h"
#include "host/trace.h"
#include "orva_sqlite/stopwatch.h"
#include "share/ticks.h"
#include "sqlite_base/period.h"

namespace orva::sqlite {
namespace {

// One transaction of joining rewrites about so many samples, so that new ones need not wait long.
constexpr std::size_t kMergeSamples = 50000;
// How long until setting damage apart, which failed, is tried again.
constexpr long long kRepeatTicks = 60 * kTicksPerSecond;

// How long until an index that readers doubt again is made anew again: that reads every row.
constexpr std::int64_t kDoubtTicks = kTicksPerHour;

// Whether a file stands there that has lost its content, or never got any.
bool isEmptied(const std::string& file) {
  std::error_code error;
  return std::filesystem::is_regular_file(file, error) && std::filesystem::is_empty(file, error);
}

std::int64_t bytesOfMegabytes(std::uint32_t megabytes) {
  return std::int64_t{megabytes} * 1'000'000;
}

}  // namespace

StorageWorker::StorageWorker(const archive::ArchiveCfg& limits,
                             const archive::ConnectionCfg& connection, Catalog& catalog,
                             WriteBuffer& buffer, ReaderPool& readers, DamageRegister& damage,
                             Counters& counters, Activity& activity)
    : limits_(limits),
      retryTicks_(std::max<std::int64_t>(connection.reconnectTimeout, kTicksPerMillisecond)),
      location_(connection.location, "archive.db"),
      parameters_(tracedStoreParameters("sqlite", connection.location, connection.parameters)),
      catalog_(catalog),
      buffer_(buffer),
      readers_(readers),
      damage_(damage),
      counters_(counters),
      activity_(activity),
      problems_("sqlite", location_.file()),
      drops_(counters.dropped, problems_),
      store_(parameters_, bytesOfMegabytes(limits.maxSize), counters),
      writer_(store_, damage, counters),
      cleaner_(limits, store_, writer_, catalog, buffer, damage, counters) {}

StorageWorker::~StorageWorker() { readers_.close(); }

// ---- opening

// A transaction or a look-up failed: what it was part of is tried again later.
void StorageWorker::failed(const char* doing) {
  ++counters_.failures;
  const std::string problem = std::string(doing) + " failed: " + store_.db().failure();
  doubtful_ = doubtful_ || store_.db().isUnreadable();
  store_.rollback();
  // Otherwise a connection that begins anew knows the state of the file.
  if (!store_.db().isHarmless()) store_.close();
  store_.db().clearFailure();
  failedAt_ = Signal::elapsed();
  problems_.failed(problem);
}

void StorageWorker::succeeded() {
  failedAt_ = 0;
  if (store_.space().logProblem().empty()) {
    problems_.works();
  } else {
    problems_.failed(store_.space().logProblem());
  }
}

bool StorageWorker::open() {
  std::string problem;
  const Location::Claim claim = location_.claim(problem);
  refused_ = claim == Location::Claim::kTaken;
  if (refused_) {
    problems_.cannotOpen("refused, since another archive is open at this place (" + problem +
                         "); nothing is accepted");
  } else if (claim == Location::Claim::kUnreachable) {
    problems_.cannotOpen(problem);
  } else if (openFile()) {
    failedAt_ = 0;
    problems_.opened();
    return true;
  }
  failedAt_ = Signal::elapsed();
  return false;
}

// Opens the file and learns what is in it. What cannot be read, not even with a new index, is moved
// aside, so that there is an archive whatever stood there; but not for one look that went wrong.
bool StorageWorker::openFile() {
  bool doubted = false;
  bool moved = false;
  for (int attempt = 0; attempt < 3; ++attempt) {
    const bool wasEmpty = isEmptied(location_.file());
    const Look look = doubtful_ ? Look::kWhole : doubted ? Look::kIndex : Look::kUsual;
    const Opened opened = store_.open(location_.file(), look);
    const bool loaded = opened == Opened::kReady && load();
    // Names that are missing may have been misread: their items would get others.
    const bool misread = loaded && nameless_ && !doubted;
    const std::size_t lost = loaded && !misread ? learn() : 0;
    if (lost > 0 && !moved) sayLoss(lost);
    if (loaded && !misread && settleDoubt()) {
      doubtful_ = false;
      if (wasEmpty) problems_.wasEmpty();
      sayIndexIsNew();
      readers_.open(location_.file(), parameters_.cacheKiB);
      ready_ = true;
      return true;
    }
    const bool unreadable = misread || opened == Opened::kUnreadable ||
                            (opened == Opened::kReady && store_.db().isUnreadable());
    const std::string problem = store_.db().failure();
    store_.close();
    store_.db().clearFailure();
    if (!unreadable) {
      problems_.cannotOpen("cannot be opened: " + problem);
      return false;
    }
    if (doubted && !moveAside()) return false;
    moved = moved || doubted;
    doubted = !doubted;
  }
  problems_.cannotOpen("cannot be read");
  return false;
}

// Whether the transaction that was thought to have failed is in the file after all. False when that
// cannot be told: its samples would be written twice.
bool StorageWorker::settleDoubt() {
  const bool inFile = store_.segments().exists(marker_);
  if (store_.db().failed()) return false;
  if (inFile) {
    const std::size_t written = buffer_.committed(true);
    marker_ = 0;
    counters_.written += written;
    activity_.noteWrite(0, written);
  }
  return true;
}

bool StorageWorker::moveAside() {
  std::string problem;
  readers_.close();
  const std::string name = location_.moveAside(problem);
  if (name.empty()) {
    problems_.cannotOpen("cannot be read, nor moved aside: " + problem);
    return false;
  }
  // Reads of what it held say that it is lost, until the next start: see learn().
  marker_ = 0;
  damage_.forgetRows();
  mergeQueue_.clear();
  doubtful_ = false;
  problems_.movedAside(name);
  return true;
}

// Looks at what the file holds. Nothing is taken for known before learn().
bool StorageWorker::load() {
  byRow_.clear();
  loaded_.clear();
  nameless_ = false;
  store_.forEachItem(
      [this](std::int64_t row, const archive::ItemKey& key) { byRow_[row] = &catalog_.add(key); });
  StreamKey key{std::numeric_limits<std::int64_t>::min(), 0};
  while (const auto next = store_.segments().nextStream(key)) {
    // A damaged index may lead back to where the search began, for ever.
    if (std::tie(next->handle, next->layer) <= std::tie(key.handle, key.layer)) {
      store_.db().noteCorrupt("listing what is stored: the index is out of order");
      break;
    }
    key = *next;
    const auto item = byRow_.find(key.handle);
    if (item == byRow_.end()) {
      nameless_ = true;
      OpcUa_Trace_Imp(
          kTraceError, "sqlite: archive \"%s\": segments of item %lld, which has no name\n",
          __FILE__, __LINE__, location_.file().c_str(), static_cast<long long>(key.handle));
    } else {
      loaded_[&catalog_.addStream(*item->second, key.layer)] = writer_.spanOf(key);
    }
  }
  if (!ready_ && !store_.db().failed()) {
    store_.forEachDamaged([this](const StreamKey& at, const Segment& segment) {
      const auto item = byRow_.find(at.handle);
      if (item == byRow_.end()) return;
      damage_.remember(catalog_.addStream(*item->second, at.layer), segment);
    });
  }
  return !store_.db().failed();
}

// What load() found is known from now on. The file may be another one than before: then its items
// have other numbers, or none, and of how many streams samples are lost is returned. No read may
// have the numbers of one file and look into the other: see renumber().
std::size_t StorageWorker::learn() {
  const std::vector<Item*> items = catalog_.items();
  if (renumber(items)) {
    readers_.close();
    damage_.forgetRows();
  }
  std::size_t lost = 0;
  for (Stream* const stream : catalog_.streams()) {
    const auto found = loaded_.find(stream);
    const Span span = found == loaded_.end() ? Span() : found->second;
    lost += rememberLoss(*stream, span) ? 1 : 0;
    stream->stored = span;
    buffer_.setStored(*stream, span);
    if (found == loaded_.end()) continue;
    // The last start may have left small segments.
    stream->freshRows = 8;
    stream->freshTo = span.last;
  }
  for (Item* const item : items) {
    const auto row = rows_.find(item);
    item->rowStored = row != rows_.end();
    item->row = item->rowStored ? row->second : 0;
  }
  byRow_.clear();
  loaded_.clear();
  rows_.clear();
  return lost;
}

// Whether an item has another number than it had.
bool StorageWorker::renumber(const std::vector<Item*>& items) {
  rows_.clear();
  for (const auto& [row, item] : byRow_) {
    std::int64_t& highest = rows_[item];
    highest = std::max(highest, row);
  }
  return std::any_of(items.begin(), items.end(), [this](const Item* item) {
    const auto row = rows_.find(item);
    return item->row != 0 && (row == rows_.end() || row->second != item->row);
  });
}

// Whether the file had newer samples than it has. Older ones may have been cleaned up.
bool StorageWorker::rememberLoss(const Stream& stream, const Span& span) {
  const Span& before = stream.stored;
  if (before.empty() || (!span.empty() && span.last >= before.last)) return false;
  Segment lost;
  lost.first = span.empty() ? before.first : std::max(before.first, span.last + 1);
  lost.last = before.last;
  damage_.remember(stream, lost);
  return true;
}

void StorageWorker::sayLoss(std::size_t streams) {
  const std::string problem = "the file is not what it was: newer samples of " +
                              std::to_string(streams) + " items and layers are lost";
  OpcUa_Trace_Imp(kTraceError, "sqlite: archive \"%s\": %s\n", __FILE__, __LINE__,
                  location_.file().c_str(), problem.c_str());
  problems_.post(HostEventKind::kProviderFailure, HostEventSeverity::kError, problem,
                 static_cast<std::int64_t>(streams));
}

// ---- writing

bool StorageWorker::writeBatch() {
  if (!buffer_.hasBatch()) buffer_.takeBatch();
  if (!buffer_.hasBatch()) return true;
  const Stopwatch watch;
  const std::uint64_t before = counters_.written;
  const bool done = tryBatch();
  activity_.noteWrite(watch.ticks(), counters_.written - before);
  return done;
}

bool StorageWorker::tryBatch() {
  // What follows the commit must not fail.
  mergeQueue_.reserve(mergeQueue_.size() + buffer_.batchStreams().size());
  marker_ = store_.nextSegmentId();
  if (store_.begin(true)) appendBatch();
  bool done = false;
  if (!store_.db().failed()) {
    buffer_.committing(marker_);
    done = store_.commit();
  }
  if (!done) {
    buffer_.committed(false);
    failed("writing samples");
    return false;
  }
  for (BufferedStream* const buffered : buffer_.batchStreams()) {
    Stream& stream = *static_cast<Stream*>(buffered);
    for (const PinPtr& pin : buffer_.batchOf(stream)) stream.stored.extend(pin->time, pin->time);
    queueForMerge(stream);
  }
  for (Item* const item : newItems_) item->rowStored = true;
  counters_.written += buffer_.committed(true);
  marker_ = 0;  // what is taken from now on is in no file yet
  ++counters_.commits;
  succeeded();
  return true;
}

void StorageWorker::appendBatch() {
  newItems_.clear();
  for (BufferedStream* const buffered : buffer_.batchStreams()) {
    Stream& stream = *static_cast<Stream*>(buffered);
    if (!stream.item.rowStored &&
        std::find(newItems_.begin(), newItems_.end(), &stream.item) == newItems_.end()) {
      if (stream.item.row == 0) stream.item.row = store_.nextItemHandle();
      store_.insertItem(stream.item.row, stream.item.key);
      newItems_.push_back(&stream.item);
    }
    columns_.clear();
    for (const PinPtr& pin : buffer_.batchOf(stream)) columns_.add(*pin);
    writer_.append(stream, columns_);
    if (store_.db().failed()) return;
  }
}

// False when the row is good, so that the index must be wrong.
bool StorageWorker::setApart(const DamageRegister::Found& found) {
  if (store_.segments().isGood(found.segment.id, store_.decoder(), columns_)) {
    damage_.acquit(found);
    damage_.doubt();
    return false;
  }
  store_.setApart(found.segment, found.reason);
  return true;
}

bool StorageWorker::setDamagedApart() {
  const auto found = damage_.reported();
  if (found.empty()) return true;
  std::int64_t apart = 0;
  if (store_.begin(true)) {
    for (const DamageRegister::Found& one : found) apart += setApart(one) ? 1 : 0;
  }
  if (!store_.db().failed() && store_.commit()) {
    for (const DamageRegister::Found& one : found) {
      auto* const stream = const_cast<Stream*>(one.stream);
      const Span span = writer_.spanOf(fileKey(*stream));
      if (store_.db().failed()) break;
      stream->stored = span;
      buffer_.setStored(*stream, stream->stored);
    }
  }
  if (!store_.db().failed()) {
    damage_.settled(found.size());
    apartFailedAt_ = 0;
    if (apart == 0) return true;
    problems_.post(HostEventKind::kProviderFailure, HostEventSeverity::kError,
                   std::to_string(apart) + " damaged segments were set apart", apart);
    return true;
  }
  failed("setting damaged segments apart");
  apartFailedAt_ = failedAt_;
  return false;
}

// Makes the index anew where readers doubt it, but does not go on for ever where that does not
// help. False when the file has to be opened again: what it holds was learnt from the old index.
bool StorageWorker::settleIndex(std::int64_t now) {
  if (!damage_.takeDoubt()) return true;
  if (mendedAt_ != 0 && now - mendedAt_ < kDoubtTicks) return true;
  mendedAt_ = now;
  if (store_.mendIndex()) {
    sayIndexIsNew();
    store_.close();
    return false;
  }
  // Rows cannot be read either. Reads that meet them say so, all others go on.
  if (!store_.db().isUnreadable()) {
    failed("making the index anew");
    return false;
  }
  store_.rollback();
  store_.db().clearFailure();
  return true;
}

void StorageWorker::sayIndexIsNew() {
  if (!store_.indexIsNew()) return;
  OpcUa_Trace_Imp(kTraceWarning, "sqlite: archive \"%s\": its index was made anew from its rows\n",
                  __FILE__, __LINE__, location_.file().c_str());
}

// After a failure only once in a while: new samples must not wait for it.
std::int64_t StorageWorker::ticksToSetApart(std::int64_t now) const {
  if (apartFailedAt_ == 0) return 0;
  return std::max<std::int64_t>(0, kRepeatTicks - (now - apartFailedAt_));
}

void StorageWorker::queueForMerge(Stream& stream) {
  if (!SegmentWriter::mayMerge(stream)) return;
  if (std::find(mergeQueue_.begin(), mergeQueue_.end(), &stream) == mergeQueue_.end()) {
    mergeQueue_.push_back(&stream);
  }
}

bool StorageWorker::mergeSome() {
  if (store_.begin(false)) {
    std::size_t rewritten = 0;
    while (!mergeQueue_.empty() && rewritten < kMergeSamples && !store_.db().failed()) {
      Stream* const stream = mergeQueue_.back();
      mergeQueue_.pop_back();
      rewritten += writer_.mergeSmall(*stream, mergeEverything_);
    }
  }
  if (!store_.db().failed() && store_.commit()) {
    succeeded();
    return true;
  }
  mergeQueue_.clear();
  failed("joining segments");
  return false;
}

bool StorageWorker::cleanSome() {
  const Stopwatch watch;
  const std::uint64_t before = counters_.deleted;
  const bool done = cleaner_.step();
  activity_.noteDelete(watch.ticks(), counters_.deleted - before);
  return done;
}

// ---- the loop's body

bool StorageWorker::tryAgainAt(std::int64_t now) const {
  return failedAt_ == 0 || now - failedAt_ >= retryTicks_;
}

std::int64_t StorageWorker::pass() {
  const std::int64_t now = Signal::elapsed();
  activity_.noteWaiting(buffer_.waiting());
  drops_.tell(now);
  if (!tryAgainAt(now)) return ticksToNext(now);
  if (!store_.isOpen() && !open()) return ticksToNext(now);
  if (cleanedAt_ == 0) {
    cleanedAt_ = now;
    ageClock_.timeOfCleanUp(getInt64FileTime(), now);
  }
  if (damage_.hasReported() && ticksToSetApart(now) == 0 && !setDamagedApart()) {
    return ticksToNext(now);
  }
  if (!settleIndex(now)) return failedAt_ == 0 ? 0 : ticksToNext(now);
  if (buffer_.batchIsDue(now, limits_.writePeriod)) {
    if (!writeBatch()) return ticksToNext(now);
    // Steady writing must not keep a clean-up waiting.
    if (!cleaner_.isRunning() && cleanUpIsDue(now)) startCleanUp(now);
    if (!cleaner_.isRunning()) return 0;
  } else if (!mergeQueue_.empty()) {
    return mergeSome() ? 0 : ticksToNext(now);
  } else if (!cleaner_.isRunning()) {
    if (!cleanUpIsDue(now)) return ticksToNext(now);
    startCleanUp(now);
    return 0;
  }
  if (cleanSome()) {
    succeeded();
    return 0;
  }
  failed("cleaning up");
  return ticksToNext(now);
}

bool StorageWorker::cleanUpIsDue(std::int64_t now) const {
  return limits_.cleanupPeriod > 0 && now - cleanedAt_ >= limits_.cleanupPeriod;
}

void StorageWorker::startCleanUp(std::int64_t now) {
  cleanedAt_ = now;
  cleaner_.start(ageClock_.timeOfCleanUp(getInt64FileTime(), now));
}

std::int64_t StorageWorker::ticksToNext(std::int64_t now) const {
  const std::int64_t ticksToDrops = drops_.ticksToNext(now);
  if (failedAt_ != 0) return std::min(ticksToDrops, ticksLeft(retryTicks_, failedAt_, now));
  std::int64_t ticks = std::min(ticksToDrops, std::int64_t{kTicksPerHour});
  if (buffer_.waiting() > 0) {
    ticks = std::min(ticks, ticksLeft(limits_.writePeriod, buffer_.waitingSince(), now));
  }
  if (damage_.hasReported()) ticks = std::min(ticks, ticksToSetApart(now) + 1);
  if (limits_.cleanupPeriod > 0) {
    ticks = std::min(ticks, ticksLeft(limits_.cleanupPeriod, cleanedAt_, now));
  }
  return ticks;
}

// ---- on demand

bool StorageWorker::writeAll() {
  if (!store_.isOpen() && !open()) return false;
  while (buffer_.hasBatch() || buffer_.waiting() > 0) {
    if (!writeBatch()) return false;
  }
  return setDamagedApart();
}

bool StorageWorker::mergeAll() {
  if (!store_.isOpen() && !open()) return false;
  // A batch of a doubtful transaction comes first: its first row's number must not become
  // another's.
  if (buffer_.hasBatch() && !writeBatch()) return false;
  mergeQueue_ = catalog_.streams();
  for (Stream* const stream : mergeQueue_) stream->freshTo = stream->stored.last;
  mergeEverything_ = true;
  bool done = true;
  while (done && !mergeQueue_.empty()) done = mergeSome();
  mergeEverything_ = false;
  return done;
}

bool StorageWorker::cleanUp() {
  if (!store_.isOpen() && !open()) return false;
  if (buffer_.hasBatch() && !writeBatch()) return false;
  cleaner_.start(getInt64FileTime());
  while (cleaner_.isRunning()) {
    if (cleanSome()) continue;
    failed("cleaning up");
    return false;
  }
  return true;
}

void StorageWorker::interrupted() {
  byRow_.clear();
  loaded_.clear();
  rows_.clear();
  newItems_.clear();
  mergeEverything_ = false;
  store_.close();
  store_.db().clearFailure();
}

void StorageWorker::finish() {
  // Once more, since what failed may be over: a lack of memory, a busy file.
  if (!refused_ && !writeAll()) writeAll();
  if (const std::size_t lost = buffer_.discard()) {
    counters_.dropped += lost;
    drops_.note();
    problems_.failed("stopped with " + std::to_string(lost) + " samples that could not be written");
  }
  drops_.tellRest(Signal::elapsed());
  activity_.noteWaiting(buffer_.waiting());
  readers_.close();
  ready_ = false;
  store_.close();
  location_.unlock();
}

void StorageWorker::abandon() noexcept {
  counters_.dropped += buffer_.discard();
  readers_.close();
  ready_ = false;
  store_.close();
  location_.unlock();
}

}  // namespace orva::sqlite
