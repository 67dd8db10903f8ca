#include "orva_database/inbox.h"

#include "orva_database/counters.h"

namespace orva::cache {

namespace {
std::atomic<std::uint32_t> waiting{0};  // samples in all inboxes

std::uint32_t sampleCount(const Inbox::Answer& answer) {
  return static_cast<std::uint32_t>(answer.interval->buffer().size());
}

bool reserve(std::uint32_t count) {
  std::uint32_t now = waiting.load();
  do {
    if (count > Inbox::maxWaiting || now > Inbox::maxWaiting - count) return false;
  } while (!waiting.compare_exchange_weak(now, now + count));
  return true;
}
}  // namespace

std::uint32_t Inbox::maxWaiting = 100'000;

Inbox::~Inbox() { take(); }

void Inbox::post(Answer answer) {
  const std::uint32_t count = sampleCount(answer);
  if (!reserve(count)) {
    counters.inboxDropped.add(count);
    return;
  }
  MutexLock lock(mutex_);
  try {
    answers_.push_back(std::move(answer));
  } catch (...) {
    waiting.fetch_sub(count);
    throw;
  }
}

std::vector<Inbox::Answer> Inbox::take() {
  std::vector<Answer> taken;
  {
    MutexLock lock(mutex_);
    taken.swap(answers_);
  }
  for (const Answer& answer : taken) waiting.fetch_sub(sampleCount(answer));
  return taken;
}

}  // namespace orva::cache
