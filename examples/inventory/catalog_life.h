// When a catalog may end.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <stdexcept>
#include <string>
#include <string_view>

namespace inventory {

/// Threads: WaitForEnd on the main thread, the others on threads of the library.
class CatalogLife final {
 public:
  /// A signal handler, the only operation that is safe in one.
  static void Interrupt(int) { interrupted = true; }

  void AddPeer(int change) {
    const std::lock_guard guard(lock);
    peers += change;
    changed.notify_all();
  }

  void Finish() {
    const std::lock_guard guard(lock);
    finished = true;
    changed.notify_all();
  }

  void Fail(std::string_view text) {
    const std::lock_guard guard(lock);
    failure = text;
    changed.notify_all();
  }

  /// True if a scan has come to its end, false after an interrupt. Throws if nobody can connect.
  bool WaitForEnd() {
    std::unique_lock guard(lock);
    // A signal handler cannot notify a condition, so the wait looks up now and then.
    while (!(finished && peers == 0) && failure.empty() && !interrupted)
      changed.wait_for(guard, std::chrono::milliseconds(100));
    if (!failure.empty()) throw std::runtime_error(failure);
    return !interrupted;
  }

 private:
  static inline std::atomic<bool> interrupted = false;  // lock-free, so a handler may set it

  std::mutex lock;
  std::condition_variable changed;
  // Guarded by lock.
  int peers = 0;
  bool finished = false;
  std::string failure;
};

}  // namespace inventory
