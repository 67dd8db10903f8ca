#pragma once

#include <atomic>
#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <vector>

#include "host/threads.h"
#include "orva_database/controller_link.h"
#include "orva_database/remote_exchange.h"
#include "orva_database/remote_source_info.h"
#include "share/condition.h"
#include "share/json.h"
#include "share/mutex.h"
#include "share/signal.h"

namespace orva::archive {

// Brings the archives of other controllers here: asks them for the new records of configured items,
// and stores these as samples of local items. Configured by the section "RemoteData"; a thread of
// its own makes a pass every 100 ms, and sooner while there is more to bring.
//
// Init(), Start() and Stop() come from the host's configuration thread, in any order.
//
// Stop() holds the mutex while it waits for the worker's end. So the worker never waits for the
// mutex: it tries until it gets it or is to stop, and holds it only to copy the tables.
class RemoteArchiveSource {
 public:
  static RemoteArchiveSource* Instance();
  explicit RemoteArchiveSource(std::unique_ptr<ControllerLink> link);
  ~RemoteArchiveSource();
  RemoteArchiveSource(const RemoteArchiveSource&) = delete;
  RemoteArchiveSource& operator=(const RemoteArchiveSource&) = delete;

  // Reads the section. 0, or the negative status of the parse helper; then there are no items.
  int Init() EXCLUDES(mutex_, passMutex_);
  // Adds one element of "items". Returns 0.
  int AddRequest(const json::Value& item) REQUIRES(mutex_);
  // Does not look whether a worker runs: that one ends, the new one goes on. Returns 0.
  int Start() EXCLUDES(mutex_, passMutex_);
  // Returns when no worker runs: within a second, also in the middle of an exchange. Returns 0.
  int Stop() EXCLUDES(mutex_, passMutex_);
  // Empties both tables.
  void DestroySource() EXCLUDES(mutex_, passMutex_);
  // The body of the worker; `source` is this object.
  static void ThreadFunc(void* source);
  // One pass: each controller whose time has come is asked, page after page. Ends early when the
  // worker is to stop, and does nothing while another thread makes a pass.
  void Execute() EXCLUDES(mutex_, passMutex_);

  // ---- for tests
  std::int64_t requestPeriod() const EXCLUDES(mutex_);
  using Controllers = std::map<std::int32_t, std::list<RemoteSourceInfo>>;
  Controllers controllers() const EXCLUDES(mutex_);
  RemoteCounts counts(std::int32_t controllerIndex) const EXCLUDES(passMutex_);

 private:
  // Whom an exchange goes to.
  struct Peer {
    std::int32_t index = -1;  // the controller it was set up for
    NLAddress address;
    int addresses = 0;  // how many the controller has
    int missing = 0;    // 1: none
  };

  using Exchanges = std::vector<RemoteExchange*>;

  bool lockUnlessStopping() TRY_ACQUIRE(true, mutex_);
  long long executePass() EXCLUDES(mutex_, passMutex_);
  void pass() REQUIRES(passMutex_) EXCLUDES(mutex_);
  long long pauseAfterPass() const REQUIRES(passMutex_);
  // False when the worker is to stop.
  bool takeTables(std::int64_t& period) REQUIRES(passMutex_) EXCLUDES(mutex_);
  void configure(const Controllers& controllers, const std::map<std::int32_t, Peer>& peers)
      REQUIRES(passMutex_);
  bool askAnswering() REQUIRES(passMutex_);
  Exchanges chooseFailing(std::int64_t now) const REQUIRES(passMutex_);
  bool askOneOf(const Exchanges& failing) REQUIRES(passMutex_);
  void work() EXCLUDES(workersMutex_);
  bool isLatest(std::uint64_t worker) EXCLUDES(workersMutex_);
  void waitForWorkers() EXCLUDES(workersMutex_);

  const std::unique_ptr<ControllerLink> link_;
  const std::string methodPath_ = "/Methods/ReadNewRecords";

  std::atomic<bool> stop_{false};
  bool running_ GUARDED_BY(mutex_) = false;
  Signal wake_;  // ends the workers' pause

  Mutex workersMutex_;  // leaf
  Condition workersChanged_;
  // Workers are numbered as they begin. One ends when a later one was started.
  std::uint64_t started_ GUARDED_BY(workersMutex_) = 0;
  std::uint64_t begun_ GUARDED_BY(workersMutex_) = 0;
  std::uint64_t ended_ GUARDED_BY(workersMutex_) = 0;

  mutable Mutex mutex_{LockClass::kRemoteTables};  // guards the tables and the thread's handle;
                                                   // never waited for by a pass
  std::unique_ptr<tthread::thread> thread_ GUARDED_BY(mutex_);
  std::int64_t period_ GUARDED_BY(mutex_);
  Controllers controllers_ GUARDED_BY(mutex_);
  std::map<std::int32_t, Peer> peers_ GUARDED_BY(mutex_);
  std::uint64_t version_ GUARDED_BY(mutex_) = 1;  // of the tables

  // One pass at a time: whoever finds another one under way makes none.
  std::atomic<bool> inPass_{false};
  mutable Mutex passMutex_{LockClass::kRemotePass};  // held for a whole pass; before mutex_
  std::map<std::int32_t, std::unique_ptr<RemoteExchange>> exchanges_ GUARDED_BY(passMutex_);
  std::uint64_t seenVersion_ GUARDED_BY(passMutex_) = 0;
  bool hasMore_ GUARDED_BY(passMutex_) = false;  // the last pass left pages unasked for
};

}  // namespace orva::archive
