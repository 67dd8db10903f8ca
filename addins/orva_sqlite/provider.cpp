#include "orva_sqlite/provider.h"

#include <boost/smart_ptr/make_shared.hpp>

namespace orva::sqlite {

Provider::Provider(const archive::ArchiveCfg& limits, const archive::ConnectionCfg& connection)
    : archive_(limits, connection) {}

Provider::~Provider() { stop(); }

void Provider::start() {
  MutexLock lock(mutex_);
  if (started_ || stopped_) return;
  started_ = true;
  archive_.open();
  thread_ = std::make_unique<tthread::thread>(&Provider::run, this);
}

void Provider::stop() {
  archive_.shutDown();
  MutexLock lock(mutex_);
  if (stopped_) return;
  stopped_ = true;
  if (thread_) thread_->join();
  thread_.reset();
  if (started_) archive_.close();
}

void Provider::run(void* self) { static_cast<Provider*>(self)->archive_.work(); }

boost::shared_ptr<archive::IDataArchiveProc> Factory::create(
    const archive::ArchiveCfg& limits, const archive::ConnectionCfg& connection) {
  return boost::make_shared<Provider>(limits, connection);
}

}  // namespace orva::sqlite
