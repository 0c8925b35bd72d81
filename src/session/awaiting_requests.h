// The requests of one session that went out and wait for their reply.
#pragma once

#include "frame/locks.h"
#include "frame/private_heap.h"
#include "wire/message.h"

#include <cstdint>
#include <functional>
#include <map>
#include <utility>

namespace TQ::detail {

/// Requests by id, each with a reference.
///
/// Threads: the sending thread inserts and cancels, the receiving thread takes out. No entry has a
/// time limit.
class AwaitingRequests {
 public:
  /// Makes the entry of `message`, replacing and releasing what stood under its id. The number of
  /// entries goes into the counter `pendingCalls`, which all sessions share.
  void Insert(MessageRef message);

  /// Takes the entry of `requestId` out; null when there is none. Intended: the number of entries
  /// goes into `pendingCalls` only where there is none. A reply that is awaited lowers the table
  /// and leaves the counter.
  MessageRef Take(uint32_t requestId);

  /// Completes every entry as cancelled, in the order of ids, with the lock held.
  ///
  /// Intended: the entries stay. Each message holds its session, so a session that ended with
  /// unanswered requests is kept for the rest of the process, channel included.
  void CancelAll();

  /// Releases every entry.
  void Clear();

 private:
  using Entry = std::pair<const uint32_t, MessageRef>;

  std::map<uint32_t, MessageRef, std::less<>, TQHeapAllocator<Entry>> entries TQ_GUARDED_BY(lock);

  // Recursive: a completion callback that CancelAll runs may come back here on its thread.
  RecursiveMutex lock;
};

}  // namespace TQ::detail
