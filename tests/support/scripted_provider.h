#pragma once

#include <boost/smart_ptr/shared_ptr.hpp>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "share/archive_provider.h"
#include "share/mutex.h"
#include "share/signal.h"

namespace orva::test {

// An archive provider for tests. It keeps, per item and layer, a plain list of samples in time
// order (equal times in order of arrival), and answers each read from it in the way its script
// says. Reads and writes are counted and recorded.
//
//   ScriptedFactory factory;
//   DataArchiveManager::instance().regFactory("scripted", &factory);
//   ... config section: {"archives":[{"connection":{"providerType":"scripted"}}]}, init() ...
//   ScriptedProvider& archive = factory.provider(0);
//   archive.add({7, "Plant/Load"}, /*layer=*/0, makePin(time, value));
//   archive.setScript({When::later});       // every read from now on
//   archive.scriptNext({When::never});      // one read each, before the others
//
// Thread-safe. Holds no lock while it pushes, finalises or calls a hook. It waits in real time
// only, so a test with a manual clock may let it answer "later".

// When a read is answered.
enum class When {
  now,      // inside read()
  later,    // on the provider's own thread, as soon as that gets to it
  held,     // when the test calls release(); finalised empty by stop()
  never,    // by nobody: the reference is kept, stop() does not finalise it either
  dropped,  // not at all: the last reference goes away unfinished, inside read()
  throws,   // read() throws std::runtime_error and keeps nothing
};

struct Script {
  When when = When::now;
  // What the answer does beyond being right.
  bool twice = false;  // all values are pushed twice (in two passes), finalize() is called twice
  bool lateValue = false;   // the values are pushed once more after finalize()
  bool outOfOrder = false;  // the values come newest first
  bool everything = false;  // kind, wanted() and full() are ignored: the whole stretch is pushed
  bool silent = false;      // pushes, but never finalises; keeps the reference
  bool oneByOne = false;    // a push() for each value
  std::size_t atMost = SIZE_MAX;  // values pushed at most, though there are more
  StatusCode fail = 0;            // not 0: fail() with it after the values
  std::int64_t shift =
      0;  // ticks added to the times that are looked up (answers the wrong stretch)
};

// One read() as it arrived.
struct ReadRecord {
  std::uint32_t handle = 0;
  std::int64_t cacheId = 0;
  std::int32_t layer = 0;
  std::int64_t start = 0;
  std::int64_t end = 0;
  archive::Interval::Kind kind = archive::Interval::Kind::range;
  archive::Interval::Bounds bounds;
  std::uint64_t wanted = 0;
  bool stopped = false;  // arrived after stop()
};

// What answers a read when the script is right: `samples` in time order, cut to [start, end] (0 is
// open), to the kind and to wanted(), with the bounds that are asked for.
std::vector<PinPtr> rightAnswer(const archive::Interval& interval,
                                const std::vector<PinPtr>& samples);

// Pushes in the way the script says and finalises, on the calling thread.
void answer(const archive::SharedInterval& interval, const std::vector<PinPtr>& samples,
            const Script& script = {});

class ScriptedProvider : public archive::IDataArchiveProc, public archive::IDataArchive {
 public:
  ScriptedProvider(const archive::ArchiveCfg& limits, const archive::ConnectionCfg& connection);
  ScriptedProvider() : ScriptedProvider(archive::ArchiveCfg(), archive::ConnectionCfg()) {}
  ~ScriptedProvider() override;

  // ---- the script
  void setScript(const Script& script);
  void scriptNext(const Script& script);
  // Whether it holds items: false makes every itemHandle() 0. Items that were never added nor
  // written have 0 anyway.
  void setHolds(bool holds);
  // itemHandle() throws std::runtime_error.
  void setHandleThrows(bool throws);
  // Called first in every read() or write(), start(), stop(); null for nothing.
  void onRead(std::function<void(const archive::SharedInterval&)> hook);
  void onWrite(std::function<void(const archive::ItemKey&, std::int32_t, const PinPtr&)> hook);
  // What a layer writer's crowded() gives; null for false.
  void onCrowded(std::function<bool()> hook);
  // Runs inside layerWriter(), which throws what it throws.
  void onLayerWriter(std::function<void(const archive::ItemKey&)> hook);
  void onStart(std::function<void()> hook);
  void onStop(std::function<void()> hook);

  // ---- the store
  // The item exists from the first call on.
  void addItem(const archive::ItemKey& key);
  void add(const archive::ItemKey& key, std::int32_t layer, const PinPtr& pin);
  void add(const archive::ItemKey& key, std::int32_t layer, const std::vector<PinPtr>& pins);
  std::vector<PinPtr> samples(const archive::ItemKey& key, std::int32_t layer) const;
  // Whether write() stores what it gets; true unless set. It is recorded anyway.
  void setStoresWrites(bool stores);

  // ---- what was asked of it
  std::size_t readCount() const;
  std::vector<ReadRecord> reads() const;
  // What write() got for an item and layer, in order.
  std::vector<PinPtr> written(const archive::ItemKey& key, std::int32_t layer) const;
  // The parameter of the last layerWriter() call for it, -1 when there was none.
  std::int64_t layerParameter(const archive::ItemKey& key, std::int32_t layer) const;
  std::size_t layerWriterCount() const;
  // "loadFilter", "start", "stop" in the order in which they came.
  std::vector<std::string> calls() const;
  // The text of what loadFilter() got.
  std::string filterText() const;
  const archive::ArchiveCfg limits;
  const archive::ConnectionCfg connection;

  // ---- reads that are held
  std::size_t heldCount() const;
  // Waits, in real time, until so many reads are held; false after ten seconds.
  bool waitForHeld(std::size_t count);
  // Answers the oldest held read (all of them) on the calling thread; false when there was none.
  bool release();
  void releaseAll();
  // Takes the oldest held read out, unanswered; empty when there was none.
  archive::SharedInterval takeHeld();

  // ---- the provider's interface
  archive::IDataArchive* archive() override { return this; }
  void start() override;
  void stop() override;
  void read(const archive::SharedInterval& interval) override;
  std::uint32_t itemHandle(const archive::ItemKey& key) override;
  const archive::Filter& filter() override { return filter_; }
  archive::ILayerWriter& layerWriter(const archive::ItemKey& key, std::int32_t layer,
                                     std::int64_t parameter) override;
  void loadFilter(const json::Value& filter) override;

  // The filter's fields may be set before the manager asks for it.
  archive::Filter& mutableFilter() { return filter_; }

 private:
  using LayerKey = std::pair<archive::ItemKey, std::int32_t>;
  struct Writer;
  struct Held {
    archive::SharedInterval interval;
    std::vector<PinPtr> samples;
    Script script;
  };
  struct Stored {
    std::vector<PinPtr> samples;
    std::vector<PinPtr> written;
    std::int64_t parameter = -1;
    std::unique_ptr<Writer> writer;
  };

  void write(const LayerKey& key, const PinPtr& pin);
  bool crowded() const;
  std::uint32_t knowItem(const archive::ItemKey& key) REQUIRES(mutex_);
  std::vector<PinPtr> lookUp(const archive::Interval& interval) const REQUIRES(mutex_);
  Script nextScript() REQUIRES(mutex_);
  void answerHeld(const Held& held);
  void workerLoop();

  archive::Filter filter_;

  mutable Mutex mutex_;  // leaf
  Signal changed_;       // something was held, queued or stopped
  std::map<LayerKey, Stored> stored_ GUARDED_BY(mutex_);
  std::map<archive::ItemKey, std::uint32_t> handles_ GUARDED_BY(mutex_);
  std::vector<archive::ItemKey> keys_ GUARDED_BY(mutex_);  // by handle - 1
  Script script_ GUARDED_BY(mutex_);
  std::deque<Script> next_ GUARDED_BY(mutex_);
  bool holds_ GUARDED_BY(mutex_) = true;
  bool handleThrows_ GUARDED_BY(mutex_) = false;
  bool storesWrites_ GUARDED_BY(mutex_) = true;
  bool stopped_ GUARDED_BY(mutex_) = false;
  std::size_t layerWriterCount_ GUARDED_BY(mutex_) = 0;
  std::vector<std::string> calls_ GUARDED_BY(mutex_);
  std::string filterText_ GUARDED_BY(mutex_);
  std::vector<ReadRecord> reads_ GUARDED_BY(mutex_);
  std::deque<Held> held_ GUARDED_BY(mutex_);
  std::deque<Held> queue_ GUARDED_BY(mutex_);                     // for the worker
  std::vector<archive::SharedInterval> kept_ GUARDED_BY(mutex_);  // never answered
  std::function<void(const archive::SharedInterval&)> onRead_ GUARDED_BY(mutex_);
  std::function<void(const archive::ItemKey&, std::int32_t, const PinPtr&)> onWrite_
      GUARDED_BY(mutex_);
  std::function<bool()> onCrowded_ GUARDED_BY(mutex_);
  std::function<void(const archive::ItemKey&)> onLayerWriter_ GUARDED_BY(mutex_);
  std::function<void()> onStart_ GUARDED_BY(mutex_);
  std::function<void()> onStop_ GUARDED_BY(mutex_);
  std::thread worker_ GUARDED_BY(mutex_);  // runs from the first read answered later
};

// Makes scripted providers and remembers them; must outlive their use by the manager.
class ScriptedFactory : public archive::IDataArchiveProcFactory {
 public:
  boost::shared_ptr<archive::IDataArchiveProc> create(
      const archive::ArchiveCfg& limits, const archive::ConnectionCfg& connection) override;

  // Called with each new provider before the manager gets it: the place to script it.
  std::function<void(ScriptedProvider&)> onCreate;
  // create() returns an empty reference.
  bool createsNothing = false;

  std::size_t count() const;
  // The n-th provider made; also after the manager let it go, unless forget() was called.
  ScriptedProvider& provider(std::size_t index);
  ScriptedProvider& last() { return provider(count() - 1); }
  boost::weak_ptr<ScriptedProvider> weak(std::size_t index);
  // Lets go of all references to what was made.
  void forget();

 private:
  mutable Mutex mutex_;
  std::vector<boost::shared_ptr<ScriptedProvider>> made_ GUARDED_BY(mutex_);
};

}  // namespace orva::test
