#include <boost/assert.hpp>
#include <boost/smart_ptr/make_shared.hpp>
#include <exception>

#include "host/trace.h"
#include "share/archive_request.h"

namespace orva::archive {

namespace {
// A callback belongs to somebody else: what it throws ends here.
void callGuarded(const Request::Completion& callback, const SharedRequest& request) noexcept {
  try {
    if (callback) callback(request);
  } catch (const std::exception& e) {
    OpcUa_Trace_Imp(kTraceError, "<--ReturnError: request callback throws: %s\n", __FILE__,
                    __LINE__, e.what());
  } catch (...) {
    OpcUa_Trace_Imp(kTraceError, "<--ReturnError: request callback throws\n", __FILE__, __LINE__);
  }
}
}  // namespace

std::atomic<std::uint64_t> Request::archivesEpoch_{0};

Request::~Request() = default;

const boost::shared_ptr<Request::Item>& Request::addItem(std::int64_t id) {
  BOOST_ASSERT_MSG(!completedOnce_.load(), "an item added to a request that is complete");
  items_.push_back(boost::make_shared<Item>(weak_from_this(), id));
  return items_.back();
}

void Request::setCompletion(Completion callback) {
  MutexLock lock(callbackMutex_);
  completion_.swap(callback);
}

void Request::setTimeoutListener(Completion callback) {
  MutexLock lock(callbackMutex_);
  timeoutListener_.swap(callback);
}

void Request::clearCallbacks() {
  Completion completion;
  Completion listener;
  MutexLock lock(callbackMutex_);
  completion_.swap(completion);
  timeoutListener_.swap(listener);
}

void Request::finalizeItem(std::int64_t) {
  // The result of the increment itself decides: two threads that read the count afterwards could
  // both find it full.
  if (finalized_.fetch_add(1, std::memory_order_acq_rel) + 1 == items_.size()) completeNow();
}

void Request::completeIfEmpty() {
  if (items_.empty()) completeNow();
}

void Request::completeNow() {
  Completion callback;
  if (!completedOnce_.exchange(true)) {
    MutexLock lock(callbackMutex_);
    callback.swap(completion_);
  }
  const SharedRequest self = shared_from_this();
  status_.store(status::kGood, std::memory_order_release);
  completed_.notify();
  callGuarded(callback, self);
}

void Request::timeout() {
  status_.store(status::kBadTimeout, std::memory_order_release);
  rapidjson::StringBuffer text;
  rapidjson::Writer<rapidjson::StringBuffer> writer(text);
  writer.StartObject();
  writer.Key("CacheIds");
  writer.StartArray();
  for (const auto& item : items_) writer.Int64(item->cacheId);
  writer.EndArray();
  writer.Key("Options");
  options.toJson(writer);
  writer.EndObject();
  logMsg("Request::timeout \n%s", text.GetString());
}

void Request::runTimeoutListener() {
  Completion listener;
  {
    MutexLock lock(callbackMutex_);
    listener.swap(timeoutListener_);
  }
  callGuarded(listener, shared_from_this());
}

}  // namespace orva::archive
