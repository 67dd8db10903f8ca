// An add-in with the provider type "silent": its archive takes reads and samples and never answers.

#include <boost/make_shared.hpp>
#include <vector>

#include "host/addin_base.h"
#include "share/archive_manager.h"
#include "share/mutex.h"

namespace {

using namespace orva;
using namespace orva::archive;

class SilentArchive final : public IDataArchive, public ILayerWriter {
 public:
  // Kept, or the reader would be told that nobody answers.
  void read(const SharedInterval& interval) override {
    const MutexLock lock(mutex_);
    held_.push_back(interval);
  }
  std::uint32_t itemHandle(const ItemKey&) override { return 1; }
  const Filter& filter() override { return filter_; }
  ILayerWriter& layerWriter(const ItemKey&, std::int32_t, std::int64_t) override { return *this; }
  void loadFilter(const json::Value&) override {}
  void write(const PinPtr&) override {}

 private:
  Mutex mutex_;
  std::vector<SharedInterval> held_ GUARDED_BY(mutex_);
  const Filter filter_{};
};

class SilentProvider final : public IDataArchiveProc {
 public:
  IDataArchive* archive() override { return &archive_; }
  void start() override {}
  void stop() override {}

 private:
  SilentArchive archive_;
};

class SilentFactory final : public IDataArchiveProcFactory {
 public:
  boost::shared_ptr<IDataArchiveProc> create(const ArchiveCfg&, const ConnectionCfg&) override {
    return boost::make_shared<SilentProvider>();
  }
};

}  // namespace

extern "C" ORVA_API int InitAddin(HostCallback) {
  static SilentFactory factory;
  DataArchiveManager::instance().regFactory("silent", &factory);
  return 0;
}
