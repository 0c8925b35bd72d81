// One-shot events: what a blocking call and the listeners at their gates sleep on.
#pragma once

#include "frame/locks.h"

#include <tq/counted_base.h>

#include <cstdint>

namespace TQ::detail {

constexpr uint32_t WAIT_FOREVER = 0xFFFFFFFF;

/// A flag that is set once, and those who wait for it.
///
/// Threads: any.
class OneShot {
 public:
  /// Wakes every waiter, present and future: nothing ever clears the flag.
  void Set();

  /// True once the flag is set; false when `timeoutMs` milliseconds have passed before.
  /// WAIT_FOREVER waits without a limit.
  bool Wait(uint32_t timeoutMs);

 private:
  Mutex lock;
  Condition condition;
  bool signalled TQ_GUARDED_BY(lock) = false;
};

}  // namespace TQ::detail

namespace MTObjects {

/// The gates of the two listeners: made at library load, open for good once set.
class ISyncEvent final : public MTReferencedTypeBase {
 public:
  void Set() { event.Set(); }
  bool Wait(uint32_t timeoutMs) { return event.Wait(timeoutMs); }

 private:
  bool CheckValid() const override { return true; }

  TQ::detail::OneShot event;
};

}  // namespace MTObjects
