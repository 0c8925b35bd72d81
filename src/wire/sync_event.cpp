#include "wire/sync_event.h"

namespace TQ::detail {

void OneShot::Set() {
  {
    LockScope held(lock);
    signalled = true;
  }
  condition.SignalAll();
}

bool OneShot::Wait(uint32_t timeoutMs) {
  LockScope held(lock);
  if (timeoutMs == WAIT_FOREVER) {
    while (!signalled) condition.Wait(lock);
    return true;
  }
  const auto deadline = DeadlineAfter(timeoutMs);
  while (!signalled && condition.WaitUntil(lock, deadline)) {
  }
  return signalled;
}

}  // namespace TQ::detail
