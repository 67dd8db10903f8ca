#include "orva_host/host_events.h"

#include <algorithm>
#include <exception>

#include "host/host_time.h"
#include "host/trace.h"

namespace orva::host {
namespace {

// The beginning of a text, not cut within a character.
std::string cutTo(const char* text, std::size_t limit) {
  std::string result(text == nullptr ? "" : text);
  if (result.size() <= limit) return result;
  const auto continues = [](char c) { return (static_cast<unsigned char>(c) & 0xC0U) == 0x80U; };
  while (limit > 0 && continues(result[limit])) --limit;
  result.resize(limit);
  return result;
}

}  // namespace

void HostEvents::post(const HostEvent& event) {
  Kept kept{event, cutTo(event.source, kSourceBytes), cutTo(event.text, kTextBytes)};
  MutexLock lock(mutex_);
  kept.event.number = ++last_;
  kept.event.time = getInt64FileTime();
  std::swap(ring_[last_ % kKept], kept);
  for (auto& [name, entry] : names_) tell(name, entry);
}

bool HostEvents::attach(const std::string& name, HostEventListener& listener) {
  MutexLock lock(mutex_);
  Name& entry = names_[name];
  if (entry.listener != nullptr) return false;
  entry.listener = &listener;
  tell(name, entry);
  return true;
}

void HostEvents::detach(const std::string& name) {
  MutexLock lock(mutex_);
  const auto found = names_.find(name);
  if (found == names_.end()) return;
  Name& entry = found->second;
  const HostEventListener* const listener = entry.listener;
  entry.listener = nullptr;
  while (listener != nullptr && entry.called == listener &&
         entry.caller != std::this_thread::get_id()) {
    returned_.wait(mutex_);
  }
}

void HostEvents::tell(const std::string& name, Name& entry) {
  while (entry.listener != nullptr && entry.called == nullptr && entry.told < last_) {
    std::uint64_t gone = 0;
    Kept kept = take(entry, gone);
    kept.event.source = kept.source.c_str();
    kept.event.text = kept.text.c_str();
    HostEventListener* const listener = entry.listener;
    entry.called = listener;
    entry.caller = std::this_thread::get_id();
    mutex_.unlock();
    if (gone > 0) {
      logMsg("%llu events came and went before \"%s\" was told of them\n",
             static_cast<unsigned long long>(gone), name.c_str());
    }
    listener->onEvent(kept.event, gone);
    mutex_.lock();
    entry.called = nullptr;
    returned_.notifyAll();
  }
}

HostEvents::Kept HostEvents::take(Name& entry, std::uint64_t& gone) {
  const std::uint64_t oldest = last_ < kKept ? 1 : last_ - kKept + 1;
  const std::uint64_t next = std::max(entry.told + 1, oldest);
  Kept kept = ring_[next % kKept];
  gone = next - entry.told - 1;
  missed_ += gone;
  entry.told = next;
  return kept;
}

std::uint64_t HostEvents::missed() const {
  MutexLock lock(mutex_);
  return missed_;
}

void HostEvents::forget() {
  MutexLock lock(mutex_);
  names_.clear();
  ring_ = {};
  last_ = 0;
  missed_ = 0;
}

// Never destroyed: archives of events may end when the process does.
HostEvents& hostEvents() {
  static HostEvents& made = *new HostEvents;
  return made;
}

}  // namespace orva::host

namespace {

template <class Call>
bool servedWithoutThrowing(const char* what, const Call& call) noexcept {
  try {
    return call();
  } catch (const std::exception& error) {
    OpcUa_Trace_Imp(kTraceError, "%s throws: %s\n", __FILE__, __LINE__, what, error.what());
    return false;
  }
}

}  // namespace

void OrvaPostHostEvent(const orva::HostEvent* event) noexcept {
  if (event == nullptr) return;
  servedWithoutThrowing("OrvaPostHostEvent", [event] {
    orva::host::hostEvents().post(*event);
    return true;
  });
}

bool OrvaAttachHostEvents(const char* name, orva::HostEventListener* listener) noexcept {
  if (name == nullptr || listener == nullptr) return false;
  return servedWithoutThrowing("OrvaAttachHostEvents", [name, listener] {
    return orva::host::hostEvents().attach(name, *listener);
  });
}

void OrvaDetachHostEvents(const char* name) noexcept {
  if (name == nullptr) return;
  servedWithoutThrowing("OrvaDetachHostEvents", [name] {
    orva::host::hostEvents().detach(name);
    return true;
  });
}
