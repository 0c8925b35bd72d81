// The library's locks: the standard ones, with annotations that let clang check who holds what.
//
// The order in which locks nest, and what may run under each of them, stands in
// docs/architecture.md.
#pragma once

#include "frame/thread_safety.h"

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace TQ::detail {

/// A plain mutex.
class TQ_CAPABILITY("mutex") Mutex {
 public:
  Mutex() = default;
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  void Lock() TQ_ACQUIRE() { mutex.lock(); }
  void Unlock() TQ_RELEASE() { mutex.unlock(); }

 private:
  friend class Condition;
  std::mutex mutex;
};

/// A mutex that its owner may take again. Each use names the path that comes back in.
class TQ_CAPABILITY("mutex") RecursiveMutex {
 public:
  RecursiveMutex() = default;
  RecursiveMutex(const RecursiveMutex&) = delete;
  RecursiveMutex& operator=(const RecursiveMutex&) = delete;

  void Lock() TQ_ACQUIRE() { mutex.lock(); }
  void Unlock() TQ_RELEASE() { mutex.unlock(); }

 private:
  std::recursive_mutex mutex;
};

/// Holds a lock for a scope.
template <typename Lockable>
class TQ_SCOPED_CAPABILITY LockScope {
 public:
  explicit LockScope(Lockable& lockable) TQ_ACQUIRE(lockable) : target(lockable) { target.Lock(); }
  ~LockScope() TQ_RELEASE() { target.Unlock(); }
  LockScope(const LockScope&) = delete;
  LockScope& operator=(const LockScope&) = delete;

 private:
  Lockable& target;
};

/// A condition variable on the steady clock, so that setting the machine's clock moves no deadline.
class Condition {
 public:
  using Clock = std::chrono::steady_clock;

  void Wait(Mutex& mutex) TQ_REQUIRES(mutex) {
    std::unique_lock<std::mutex> held(mutex.mutex, std::adopt_lock);
    condition.wait(held);
    held.release();
  }

  /// False once the deadline has passed.
  bool WaitUntil(Mutex& mutex, Clock::time_point deadline) TQ_REQUIRES(mutex) {
    std::unique_lock<std::mutex> held(mutex.mutex, std::adopt_lock);
    const std::cv_status status = condition.wait_until(held, deadline);
    held.release();
    return status == std::cv_status::no_timeout;
  }

  void SignalOne() { condition.notify_one(); }
  void SignalAll() { condition.notify_all(); }

 private:
  std::condition_variable condition;
};

/// Now plus `timeoutMs`, or the last moment that the clock can express where that is earlier.
inline Condition::Clock::time_point DeadlineAfter(uint32_t timeoutMs) {
  using TimePoint = Condition::Clock::time_point;
  const TimePoint now = Condition::Clock::now();
  const std::chrono::milliseconds limit(timeoutMs);
  return TimePoint::max() - now < limit ? TimePoint::max() : now + limit;
}

}  // namespace TQ::detail
