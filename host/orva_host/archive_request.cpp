#include "host/archive_request.h"

#include <time.h>

#include <algorithm>
#include <cerrno>
#include <tuple>

#if defined(__SANITIZE_THREAD__)
#define ORVA_THREAD_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define ORVA_THREAD_SANITIZER 1
#endif
#endif

namespace {

#if defined(ORVA_THREAD_SANITIZER)
constexpr clockid_t kWaitClock = CLOCK_REALTIME;

// The thread sanitizer does not know sem_clockwait(), and delivers no signal during a limited wait:
// it waits a little at a time.
int waitOnce(sem_t* semaphore, const timespec& end) {
  timespec slice{};
  clock_gettime(kWaitClock, &slice);
  slice.tv_nsec += 10'000'000L;
  if (slice.tv_nsec >= 1'000'000'000L) {
    ++slice.tv_sec;
    slice.tv_nsec -= 1'000'000'000L;
  }
  const bool last = std::tie(end.tv_sec, end.tv_nsec) <= std::tie(slice.tv_sec, slice.tv_nsec);
  const int result = sem_timedwait(semaphore, last ? &end : &slice);
  if (result != 0 && errno == ETIMEDOUT && !last) errno = EINTR;
  return result;
}
#elif __GLIBC_PREREQ(2, 30)
// Steps of the machine's clock neither lengthen nor shorten a wait.
constexpr clockid_t kWaitClock = CLOCK_MONOTONIC;

int waitOnce(sem_t* semaphore, const timespec& end) {
  return sem_clockwait(semaphore, kWaitClock, &end);
}
#else
constexpr clockid_t kWaitClock = CLOCK_REALTIME;

int waitOnce(sem_t* semaphore, const timespec& end) { return sem_timedwait(semaphore, &end); }
#endif

timespec endOfWait(int milliseconds) {
  timespec end{};
  clock_gettime(kWaitClock, &end);
  end.tv_sec += milliseconds / 1000;
  end.tv_nsec += milliseconds % 1000 * 1'000'000L;
  if (end.tv_nsec >= 1'000'000'000L) {
    ++end.tv_sec;
    end.tv_nsec -= 1'000'000'000L;
  }
  return end;
}

}  // namespace

ArchiveRequest::ArchiveRequest() { sem_init(&semaphore, /*pshared=*/0, 0); }
ArchiveRequest::~ArchiveRequest() { sem_destroy(&semaphore); }

void ArchiveRequest::Wait() {
  while (sem_wait(&semaphore) != 0 && errno == EINTR) {
  }
}

bool ArchiveRequest::WaitFor(int milliseconds) {
  const timespec end = endOfWait(std::max(milliseconds, 0));
  int result = 0;
  do {
    result = waitOnce(&semaphore, end);
  } while (result != 0 && errno == EINTR);
  return result == 0;
}
