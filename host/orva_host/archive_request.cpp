#include "host/archive_request.h"

#include <time.h>

#include <algorithm>
#include <cerrno>

// The thread sanitizer does not know sem_clockwait().
#if defined(__SANITIZE_THREAD__)
#define ORVA_THREAD_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define ORVA_THREAD_SANITIZER 1
#endif
#endif
#ifdef ORVA_THREAD_SANITIZER
#include <sanitizer/tsan_interface.h>
#endif

namespace {

// The monotonic clock, where the library can wait by it: steps of the machine's clock neither
// lengthen nor shorten a wait then.
#if __GLIBC_PREREQ(2, 30)
constexpr clockid_t kWaitClock = CLOCK_MONOTONIC;

int waitOnce(sem_t* semaphore, const timespec& end) {
  const int result = sem_clockwait(semaphore, kWaitClock, &end);
#ifdef ORVA_THREAD_SANITIZER
  if (result == 0) __tsan_acquire(semaphore);
#endif
  return result;
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
