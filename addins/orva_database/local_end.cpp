#include "orva_database/local_end.h"

#include <boost/smart_ptr/make_shared.hpp>

#include "host/vm_info.h"
#include "share/signal.h"
#include "share/ticks.h"

namespace orva::archive {
namespace {

constexpr int kReadLimitMs = 60'000;
constexpr std::int64_t kRetryTicks = 5 * kTicksPerSecond;
// Of one time there are hardly ever more samples.
constexpr std::uint32_t kSamplesOfOneTime = 10'000;

// The layer with the finest samples.
std::int32_t firstLayerOf(std::int64_t itemId) {
  const auto layers = vm::VMInfo::GetInstance()->GetArchivedLayers(itemId);
  return layers && !layers->empty() ? layers->begin()->first : 0;
}

}  // namespace

bool LocalEnd::find(std::int64_t itemId, std::int64_t cacheId) {
  if (state_ == State::known) return true;
  cacheId_ = cacheId;
  const std::int32_t layer = firstLayerOf(itemId);
  if (state_ == State::start) {
    const std::int64_t since = Signal::elapsed() - failedAt_;
    if (failed_ && since >= 0 && since < kRetryTicks) return false;
    ask(State::newest, layer);
  }
  while (state_ != State::known && answered()) readAnswer(layer);
  return state_ == State::known;
}

void LocalEnd::ask(State next, std::int32_t layer) {
  state_ = next;
  request_ = boost::make_shared<Request>();
  request_->options.layerId = layer;
  request_->options.returnFirstLastValue = next == State::newest;
  const SharedItem item = request_->addItem(cacheId_);
  if (next == State::samples) {
    item->numValuesPerNode = kSamplesOfOneTime;
    item->setContinuationPoint(time_);
  }
  DataArchiveManager::instance().addRequest(request_, kReadLimitMs);
}

// Whether the read is over. One that failed is begun again, later.
bool LocalEnd::answered() {
  if (state_ == State::start) return false;
  const bool complete = request_->complete();
  if (!complete && request_->status() != status::kBadTimeout) return false;
  failed_ = !complete || isBad(request_->items().front()->failure());
  if (!failed_) return true;
  failedAt_ = Signal::elapsed();
  request_.reset();
  state_ = State::start;
  return false;
}

void LocalEnd::readAnswer(std::int32_t layer) {
  const SharedRequest done = std::move(request_);
  const PinList& values = done->items().front()->values();
  if (values.empty()) {
    state_ = State::known;
    return;
  }
  time_ = values.back()->time;
  if (state_ == State::newest) return ask(State::samples, layer);
  for (const PinPtr& pin : values) {
    if (pin->time == time_) samples_.push_back(pin);
  }
  state_ = State::known;
}

}  // namespace orva::archive
