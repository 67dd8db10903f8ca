#include <semaphore.h>

#include <boost/smart_ptr/make_shared.hpp>
#include <boost/smart_ptr/weak_ptr.hpp>

#include "host/trace.h"
#include "orva_database/guarded.h"
#include "orva_database/proxy_old_archive_api.h"
#include "orva_database/proxy_old_archive_state.h"
#include "share/archive_manager.h"
#include "share/status_codes.h"

namespace orva::archive {

namespace {

constexpr int kReadBudgetMs = 60'000;
constexpr std::int64_t kTicksPerMicrosecond = 10;

std::int64_t ticksOf(double microseconds) {
  OpcUa_VariantHlp value;
  value.SetDouble(microseconds);
  std::int64_t ticks = 0;
  static_cast<void>(OpcUa_VariantHlp::GetTime(value, kTicksPerMicrosecond, ticks));  // NaN: raw
  return ticks;
}

// What is left of an item that is still open is not waited for.
void closeOpenItems(const Request& request) {
  if (request.complete()) return;
  for (const SharedItem& item : request.items()) item->close();
}

// Copies the answer; every item is final or closed, so nothing changes it.
void copyAnswer(const Request& request, ArchiveRequest& legacyRequest) {
  std::size_t count = legacyRequest.records.size();
  for (const SharedItem& item : request.items()) count += item->values().size();
  legacyRequest.records.reserve(count);
  StatusCode failure = status::kGood;
  bool allFinal = true;
  for (std::size_t i = 0; i < request.items().size(); ++i) {
    const Request::Item& item = *request.items()[i];
    if (failure == status::kGood) failure = item.failure();
    if (!item.isFinal()) allFinal = false;
    for (const PinPtr& pin : item.values()) {
      legacyRequest.records.emplace_back(pin->time, pin->value, pin->quality,
                                         legacyRequest.items.at(i));
    }
  }
  legacyRequest.status = allFinal ? failure : status::kBadTimeout;
}

}  // namespace

int ProxyOldArchiveApi::GetLastTime(int item, long long& out) {
  return legacyResult("ProxyOldArchiveApi::GetLastTime", [&] {
    const Held held = hold(item);
    if (!held.pin) return status::kBadNotFound;
    out = manager->lastTime(held.cacheId);
    return status::kGood;
  });
}

int ProxyOldArchiveApi::AddRequest(ArchiveRequest* legacyRequest) {
  if (manager == nullptr || legacyRequest == nullptr) {
    return static_cast<int>(status::kBadInvalidArgument);
  }
  const SharedRequest request = makeRequest(*legacyRequest);
  const auto finish = [weak = boost::weak_ptr<State>(state_)](const SharedRequest& done) {
    if (const boost::shared_ptr<State> state = weak.lock()) state->finish(done);
  };
  request->setCompletion(finish);
  request->setTimeoutListener(finish);
  state_->add(request, legacyRequest);
  try {
    // The caller may be woken inside this call: nothing of its request is touched from here on.
    manager->addRequest(request, kReadBudgetMs);
  } catch (...) {
    request->clearCallbacks();
    if (state_->take(request) != nullptr) throw;
    // The caller has its answer, so the request counts as taken.
  }
  return 0;
}

SharedRequest ProxyOldArchiveApi::makeRequest(const ArchiveRequest& legacyRequest) {
  auto request = boost::make_shared<Request>(legacyRequest.id);
  Request::Options& options = request->options;
  options.startTime = legacyRequest.startTime;
  options.endTime = legacyRequest.endTime;
  options.resampleInterval = ticksOf(legacyRequest.interval);
  options.layerId = Request::Options::layerFor(options.resampleInterval);
  for (const int id : legacyRequest.items) {
    const Held held = hold(id);
    const std::int64_t cacheId =
        held.pin ? held.cacheId : manager->getCacheId(static_cast<unsigned>(id), "");
    Request::Item& item = *request->addItem(cacheId);
    item.numValuesPerNode = legacyRequest.maxValues;
    item.resampleInterval = options.resampleInterval;
  }
  return request;
}

void ProxyOldArchiveApi::RequestFinished(const SharedRequest& request) { state_->finish(request); }

void ProxyOldArchiveApi::State::add(const SharedRequest& request, ArchiveRequest* legacyRequest) {
  MutexLock lock(mutex);
  requests.emplace(request, legacyRequest);
}

ArchiveRequest* ProxyOldArchiveApi::State::take(const SharedRequest& request) {
  Requests::node_type taken;  // may hold the last reference; dies after the mutex is released
  MutexLock lock(mutex);
  const auto found = requests.find(request);
  if (found == requests.end()) return nullptr;
  taken = requests.extract(found);
  return taken.mapped();
}

SharedRequest ProxyOldArchiveApi::State::anyRequest() {
  MutexLock lock(mutex);
  return requests.empty() ? SharedRequest() : requests.begin()->first;
}

void ProxyOldArchiveApi::State::finish(const SharedRequest& request) {
  ArchiveRequest* const legacyRequest = take(request);
  if (legacyRequest == nullptr) return;
  const bool copied = guarded("ProxyOldArchiveApi::RequestFinished", [&] {
    closeOpenItems(*request);
    copyAnswer(*request, *legacyRequest);
  });
  if (!copied) legacyRequest->status = status::kBadOutOfMemory;
  // The last touch: whoever wakes may destroy it.
  sem_post(&legacyRequest->semaphore);
}

}  // namespace orva::archive
