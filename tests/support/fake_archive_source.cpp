#include "support/fake_archive_source.h"

#include <sstream>

#include "share/status_codes.h"

namespace orva::test {

namespace {

template <class T>
std::string textOf(const boost::optional<T>& value) {
  if (!value) return " -";
  std::ostringstream text;
  text << std::boolalpha << ' ' << *value;
  return text.str();
}

}  // namespace

int FakeArchiveSource::called(const std::string& name, const std::string& arguments) {
  calls.push_back(arguments.empty() ? name : name + " " + arguments);
  const auto failure = failures.find(name);
  return failure == failures.end() ? 0 : failure->second;
}

int FakeArchiveSource::calledFor(int item, const std::string& name, const std::string& arguments) {
  const int result =
      called(name, std::to_string(item) + (arguments.empty() ? "" : " ") + arguments);
  if (result != 0 || records.count(item) != 0) return result;
  return static_cast<int>(status::kBadNotFound);
}

void FakeArchiveSource::LoadArchSettings(const json::Value*) { called("LoadArchSettings"); }

int FakeArchiveSource::Init(int number, const json::Value* settings) {
  const bool nothingSet = settings != nullptr && settings->IsNull();
  return called("Init", std::to_string(number) + (nothingSet ? "" : " settings"));
}

int FakeArchiveSource::GetArchiveItemId(long long id, const std::string& name, const std::string&,
                                        int& out) {
  out = static_cast<int>(id) + 1000;
  return called("GetArchiveItemId", std::to_string(id) + " " + name);
}

int FakeArchiveSource::FindArchiveItemId(long long id, const std::string&, int& out) {
  if (const int result = called("FindArchiveItemId", std::to_string(id)); result != 0)
    return result;
  out = static_cast<int>(id);
  records[out];
  return 0;
}

int FakeArchiveSource::AddValue(int item, const ArchiveRec& rec) {
  const int result = calledFor(item, "AddValue");
  if (result == 0) records[item].push_back(rec);
  return result;
}

int FakeArchiveSource::SetDisableWriteByChange(int item, bool disable) {
  disabled_[item] = disable;
  return calledFor(item, "SetDisableWriteByChange", disable ? "true" : "false");
}

bool FakeArchiveSource::GetDisableWriteByChange(int item) {
  calledFor(item, "GetDisableWriteByChange");
  return disabled_[item];
}

int FakeArchiveSource::AddRequest(ArchiveRequest* request) {
  std::ostringstream arguments;
  for (const int item : request->items) arguments << item << ' ';
  arguments << request->startTime << ' ' << request->endTime << ' ' << request->maxValues << ' '
            << request->interval;
  if (const int result = called("AddRequest", arguments.str()); result != 0) return result;
  if (onRequest) {
    onRequest(*request);
  } else {
    answer(*request);
  }
  return 0;
}

void FakeArchiveSource::answer(ArchiveRequest& request) {
  for (const int item : request.items) {
    std::uint32_t count = 0;
    for (const ArchiveRec& rec : records[item]) {
      const bool inRange =
          rec.time >= request.startTime && (request.endTime == 0 || rec.time <= request.endTime);
      if (!inRange || (request.maxValues != 0 && count == request.maxValues)) continue;
      ++count;
      request.records.emplace_back(rec.time, rec.value, rec.status, item);
    }
  }
  sem_post(&request.semaphore);
}

int FakeArchiveSource::SetFilter(int item, boost::optional<bool> allValues,
                                 boost::optional<bool> writeByChange,
                                 boost::optional<long long> maxWritePeriod,
                                 boost::optional<long long> minWritePeriod,
                                 boost::optional<double> deadband,
                                 boost::optional<bool> blocksWrite) {
  const std::string settings = textOf(allValues) + textOf(writeByChange) + textOf(maxWritePeriod) +
                               textOf(minWritePeriod) + textOf(deadband) + textOf(blocksWrite);
  return calledFor(item, "SetFilter", settings.substr(1));
}

int FakeArchiveSource::GetLastTime(int item, long long& out) {
  const int result = calledFor(item, "GetLastTime");
  if (result == 0) out = records[item].empty() ? 0 : records[item].back().time;
  return result;
}

int FakeArchiveSource::InitSource() { return called("InitSource"); }
int FakeArchiveSource::DestroySource() { return called("DestroySource"); }
int FakeArchiveSource::ExecuteWrite(std::map<int, std::vector<ArchiveRec>>&) {
  return called("ExecuteWrite");
}
int FakeArchiveSource::ExecuteRead(ArchiveRequest*) { return called("ExecuteRead"); }
int FakeArchiveSource::ReadItemList(ArchiveRequest*) { return called("ReadItemList"); }
int FakeArchiveSource::ExecuteDelete(unsigned int item, int*) {
  return called("ExecuteDelete", std::to_string(item));
}

}  // namespace orva::test
