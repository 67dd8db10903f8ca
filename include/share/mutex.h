#pragma once

#include <mutex>

#include "share/lock_order.h"
#include "share/thread_annotations.h"

#if defined(__SANITIZE_THREAD__)
#include <sanitizer/tsan_interface.h>
#endif

namespace orva {

// The system mutex with the attributes that let clang check who holds it. Not recursive. Its class
// says where it stands in the order of locks.
class CAPABILITY("mutex") Mutex : private LockWatch {
 public:
  Mutex() = default;
  explicit Mutex(LockClass lockClass) : LockWatch(lockClass) {}
#if defined(__SANITIZE_THREAD__)
  // The sanitizer does not see a std::mutex end, and takes one made later in its place for it.
  ~Mutex() { __tsan_mutex_destroy(mutex_.native_handle(), 0); }
#endif
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  void lock() ACQUIRE() {
    acquiring();
    mutex_.lock();
    acquired();
  }
  bool try_lock() TRY_ACQUIRE(true) {
    if (!mutex_.try_lock()) return false;
    acquired();
    return true;
  }
  void unlock() RELEASE() {
    released();
    mutex_.unlock();
  }

  // For Condition only: what lets the mutex go and takes it again.
  std::mutex& nativeForWait() {
    awaiting();
    return mutex_;
  }

 private:
  std::mutex mutex_;
};

// As Mutex, but its owner may take it again.
class CAPABILITY("mutex") RecursiveMutex : private LockWatch {
 public:
  RecursiveMutex() = default;
  explicit RecursiveMutex(LockClass lockClass) : LockWatch(lockClass) {}
#if defined(__SANITIZE_THREAD__)
  // The same.
  ~RecursiveMutex() { __tsan_mutex_destroy(mutex_.native_handle(), 0); }
#endif
  RecursiveMutex(const RecursiveMutex&) = delete;
  RecursiveMutex& operator=(const RecursiveMutex&) = delete;

  void lock() ACQUIRE() {
    acquiringAgain();
    mutex_.lock();
    acquired();
  }
  void unlock() RELEASE() {
    released();
    mutex_.unlock();
  }

 private:
  std::recursive_mutex mutex_;
};

// Holds a mutex for a scope. unlock() lets it go early.
template <class M>
class SCOPED_CAPABILITY BasicMutexLock {
 public:
  explicit BasicMutexLock(M& mutex) ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
  ~BasicMutexLock() RELEASE() {
    if (held_) mutex_.unlock();
  }
  BasicMutexLock(const BasicMutexLock&) = delete;
  BasicMutexLock& operator=(const BasicMutexLock&) = delete;

  void unlock() RELEASE() {
    held_ = false;
    mutex_.unlock();
  }

 private:
  M& mutex_;
  bool held_ = true;
};

using MutexLock = BasicMutexLock<Mutex>;
using RecursiveMutexLock = BasicMutexLock<RecursiveMutex>;

}  // namespace orva
