#pragma once

#include <mutex>

#include "share/thread_annotations.h"

namespace orva {

// The system mutex with the attributes that let clang check who holds it. Not recursive.
class CAPABILITY("mutex") Mutex {
 public:
  Mutex() = default;
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  void lock() ACQUIRE() { mutex_.lock(); }
  bool try_lock() TRY_ACQUIRE(true) { return mutex_.try_lock(); }
  void unlock() RELEASE() { mutex_.unlock(); }

  // For Condition only.
  std::mutex& native() { return mutex_; }

 private:
  std::mutex mutex_;
};

// As Mutex, but its owner may take it again.
class CAPABILITY("mutex") RecursiveMutex {
 public:
  RecursiveMutex() = default;
  RecursiveMutex(const RecursiveMutex&) = delete;
  RecursiveMutex& operator=(const RecursiveMutex&) = delete;

  void lock() ACQUIRE() { mutex_.lock(); }
  void unlock() RELEASE() { mutex_.unlock(); }

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
