// A provider to begin with, of the type "template": copy the folder, give things your own names and
// put your storage in the place of SampleFile. That keeps numbers: the newest of an item and layer
// in memory, all of them in a file of the folder "location".
#include <atomic>
#include <boost/make_shared.hpp>
#include <deque>
#include <filesystem>
#include <fstream>
#include <map>

#include "host/addin_base.h"
#include "host/async_task.h"
#include "share/archive_manager.h"

namespace {
using namespace orva;
using namespace orva::archive;

struct Record {
  std::int64_t time;
  OpcUa_Variant value;  // a number; anything else would own memory
  OpcUa_StatusCode quality;
};

class SampleFile final : public ILayerWriter {
 public:
  SampleFile(std::string path, std::size_t most) : path_(std::move(path)), most_(most) {
    cutToWholeRecords();
    Record record;
    std::ifstream in(path_, std::ios::binary);
    while (in.read(reinterpret_cast<char*>(&record), sizeof record)) records_.push_back(record);
    if (records_.size() > most_) records_.erase(records_.begin(), records_.end() - most_);
  }

  void write(const PinPtr& pin) override EXCLUDES(mutex_) {
    const bool isNumber = !pin->value.IsArray() && pin->value.GetType() < OpcUaType_String;
    const MutexLock lock(mutex_);
    if (!isNumber || unsaved_.size() >= most_) {
      ++refused_;
      return;
    }
    unsaved_.push_back({pin->time, pin->value.Get(), pin->quality});
    records_.push_back(unsaved_.back());
    if (records_.size() > most_) records_.pop_front();
  }

  // What answers the interval: a copy, since nothing is pushed under a lock.
  std::vector<Record> answer(const Interval& interval) const EXCLUDES(mutex_) {
    const std::int64_t start = interval.start(), end = interval.end();  // an end of 0 is open
    const auto before = [&](const Record& record) { return record.time < start; };
    const auto inside = [&](const Record& record) { return end == 0 || record.time <= end; };
    if (end != 0 && end < start) return {};
    const MutexLock lock(mutex_);
    auto first = std::partition_point(records_.begin(), records_.end(), before);
    auto last = std::partition_point(first, records_.end(), inside);
    if (first != last && interval.kind() == Interval::Kind::oldest) last = first + 1;
    if (first != last && interval.kind() == Interval::Kind::newest) first = last - 1;
    if (interval.bounds().left && first != records_.begin()) --first;
    if (interval.bounds().right && last != records_.end()) ++last;
    return {first, last};
  }

  // Stores what waits. Never called twice at a time.
  void save() EXCLUDES(mutex_) {
    std::vector<Record> records;
    {
      const MutexLock lock(mutex_);
      records.swap(unsaved_);
    }
    const std::size_t refused = refused_.exchange(0);
    if (refused != 0) logMsg("template: %s: %zu samples refused\n", path_.c_str(), refused);
    if (records.empty()) return;
    std::ofstream out(path_, std::ios::binary | std::ios::app);
    const auto bytes = static_cast<std::streamsize>(records.size() * sizeof(Record));
    out.write(reinterpret_cast<const char*>(records.data()), bytes).flush();
    if (out) return;
    logMsg("template: %s: %zu samples lost\n", path_.c_str(), records.size());
    out.close();
    cutToWholeRecords();
  }

 private:
  // A loss of power, or a full disk, may leave a part of a record, which would shift all behind it.
  void cutToWholeRecords() {
    std::error_code error;
    const auto size = std::filesystem::file_size(path_, error);
    if (error || size % sizeof(Record) == 0) return;
    std::filesystem::resize_file(path_, size - size % sizeof(Record), error);
    if (error) logMsg("template: %s: %s\n", path_.c_str(), error.message().c_str());
  }

  const std::string path_;
  const std::size_t most_;
  std::atomic<std::size_t> refused_{0};
  mutable Mutex mutex_;                            // leaf; the item's lock may be held
  std::deque<Record> records_ GUARDED_BY(mutex_);  // by ascending time
  std::vector<Record> unsaved_ GUARDED_BY(mutex_);
};

class TemplateArchive final : public IDataArchiveProc, public IDataArchive {
 public:
  TemplateArchive(const ArchiveCfg& limits, const ConnectionCfg& connection)
      : limits_(limits), folder_(connection.location) {}
  IDataArchive* archive() override { return this; }
  const Filter& filter() override { return filter_; }
  void loadFilter(const json::Value& filter) override { filter_.load(filter); }
  void start() override {
    task_ = ParalelTasksPool::instance()->addTask(limits_.writePeriod, [this] { save(); });
  }
  void stop() override {
    ParalelTasksPool::instance()->removeTask(task_);
    stopped_ = true;
    save();
  }
  void read(const SharedInterval& interval) override {
    const std::uint32_t item = stopped_ ? 0 : interval->handle();
    for (const Record& record : file(item, std::max(interval->layer(), 0)).answer(*interval))
      interval->push(makePin(record.time, OpcUa_VariantHlp(record.value), record.quality));
    interval->finalize();
  }
  std::uint32_t itemHandle(const ItemKey& key) override {
    return !stopped_ && key.first >> 32 == 0 ? static_cast<std::uint32_t>(key.first) : 0;
  }
  ILayerWriter& layerWriter(const ItemKey& key, std::int32_t layer, std::int64_t) override {
    return file(itemHandle(key), layer);
  }

 private:
  // Item 0 stands for what is not kept. References stay good: no file is ever taken out.
  SampleFile& file(std::uint32_t item, std::int32_t layer) EXCLUDES(mutex_) {
    const auto path = folder_ + "/" + std::to_string(item) + "-" + std::to_string(layer);
    const std::size_t most = item == 0 ? 0 : limits_.writeBufferSize;
    const MutexLock lock(mutex_);
    return files_.try_emplace({item, layer}, path, most).first->second;
  }
  void save() EXCLUDES(mutex_) {
    std::vector<SampleFile*> files;
    {
      const MutexLock lock(mutex_);
      for (auto& [key, file] : files_) files.push_back(&file);
    }
    for (SampleFile* file : files) file->save();
  }

  const ArchiveCfg limits_;
  const std::string folder_;
  Filter filter_;          // set before start()
  std::int64_t task_ = 0;  // in the pool
  std::atomic<bool> stopped_{false};
  Mutex mutex_;  // leaf
  std::map<std::pair<std::uint32_t, std::int32_t>, SampleFile> files_ GUARDED_BY(mutex_);
};
class TemplateFactory final : public IDataArchiveProcFactory {
  boost::shared_ptr<IDataArchiveProc> create(const ArchiveCfg& limits,
                                             const ConnectionCfg& connection) override {
    return boost::make_shared<TemplateArchive>(limits, connection);
  }
};
}  // namespace
extern "C" ORVA_API int InitAddin(HostCallback) {
  static TemplateFactory factory;  // lives as long as the process
  DataArchiveManager::instance().regFactory("template", &factory);
  return 0;
}
