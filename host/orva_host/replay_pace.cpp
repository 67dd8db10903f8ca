#include "orva_host/replay_pace.h"

#include <algorithm>
#include <vector>

namespace orva::host {

void ReplayPace::add(std::int64_t time) { window_.push_back(time); }

std::int64_t ReplayPace::next() {
  const std::size_t count = std::min(window_.size(), kWindow);
  std::vector<std::int64_t> around(window_.begin(),
                                   window_.begin() + static_cast<std::ptrdiff_t>(count));
  const auto middle = around.begin() + static_cast<std::ptrdiff_t>(count / 2);
  std::nth_element(around.begin(), middle, around.end());
  const std::int64_t judged = std::min(window_.front(), *middle);
  window_.pop_front();
  arrival_ = begun_ ? std::max(arrival_, judged) : judged;
  begun_ = true;
  return arrival_;
}

}  // namespace orva::host
