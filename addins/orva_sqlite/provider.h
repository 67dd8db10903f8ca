#pragma once

#include <memory>

#include "host/threads.h"
#include "orva_sqlite/archive.h"
#include "share/archive_provider.h"
#include "share/live_count.h"
#include "share/mutex.h"

namespace orva::sqlite {

// One configured archive and the thread that writes it.
class Provider final : public archive::IDataArchiveProc, public LiveCount<Provider> {
 public:
  Provider(const archive::ArchiveCfg& limits, const archive::ConnectionCfg& connection);
  // On whatever thread; stops what was not stopped.
  ~Provider() override;
  Provider(const Provider&) = delete;
  Provider& operator=(const Provider&) = delete;

  archive::IDataArchive* archive() override { return &archive_; }
  void start() override EXCLUDES(mutex_);
  void stop() override EXCLUDES(mutex_);

  Archive& sqliteArchive() { return archive_; }

 private:
  static void run(void* self);

  Archive archive_;
  Mutex mutex_{LockClass::kProvider};  // held while the thread is joined: a second stop() returns
                                       // when all is written
  std::unique_ptr<tthread::thread> thread_ GUARDED_BY(mutex_);
  bool started_ GUARDED_BY(mutex_) = false;
  bool stopped_ GUARDED_BY(mutex_) = false;
};

// What is registered under "sqlite".
class Factory final : public archive::IDataArchiveProcFactory {
 public:
  boost::shared_ptr<archive::IDataArchiveProc> create(
      const archive::ArchiveCfg& limits, const archive::ConnectionCfg& connection) override;
};

}  // namespace orva::sqlite
