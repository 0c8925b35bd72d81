// Holding up a push on a session's queue, for tests of what is locked meanwhile.
//
//   const SessionRef session = g_applications.Find("test:1/raw");
//   LockScope held(LockOf(session->Outgoing()));   // a push on the empty queue now waits
#pragma once

#include "frame/locks.h"
#include "session/message_queue.h"

namespace TQ::test {

/// The lock under which a push signals the consumer. The queue gives it to nobody, and nothing but
/// an explicit instantiation may name it from outside.
detail::Mutex& LockOf(detail::MessageQueue& queue);

template <detail::Mutex detail::MessageQueue::*LOCK>
struct QueueLockAccess {
  friend detail::Mutex& LockOf(detail::MessageQueue& queue) { return queue.*LOCK; }
};

template struct QueueLockAccess<&detail::MessageQueue::lock>;

}  // namespace TQ::test
