#include "session/awaiting_requests.h"

#include "frame/object_counts.h"

namespace TQ::detail {

void AwaitingRequests::Insert(MessageRef message) {
  const uint32_t requestId = message->RequestId();
  // Whatever is replaced is released when `message` goes, after the lock.
  LockScope held(lock);
  std::swap(entries[requestId], message);
  g_objectCounts.pendingCalls.exchange(static_cast<uint32_t>(entries.size()));
}

MessageRef AwaitingRequests::Take(uint32_t requestId) {
  LockScope held(lock);
  const auto found = entries.find(requestId);
  if (found == entries.end()) {
    g_objectCounts.pendingCalls.exchange(static_cast<uint32_t>(entries.size()));
    return nullptr;
  }
  MessageRef message = std::move(found->second);
  entries.erase(found);
  return message;
}

void AwaitingRequests::CancelAll() {
  LockScope held(lock);
  for (const auto& [requestId, message] : entries) message->Complete(true);
}

void AwaitingRequests::Clear() {
  LockScope held(lock);
  entries.clear();
}

}  // namespace TQ::detail
