// MessageQueue: many producers, one consumer.
#pragma once

#include "frame/locks.h"
#include "wire/message.h"

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace TQ::detail {

/// First in, first out for each producer; the nodes pass through one atomic stack that the consumer
/// takes as a whole and reverses.
///
/// Threads: Push and Wake from any thread; Pop by one thread at a time, the consumer.
/// Owns: its nodes, and one reference to each queued message until Pop hands it on.
/// Locks: `lock` covers sleeping and waking only. A producer takes it only when the queue was
/// empty.
class MessageQueue {
 public:
  MessageQueue() = default;
  /// Releases what is still queued; nothing is completed.
  ~MessageQueue();
  MessageQueue(const MessageQueue&) = delete;
  MessageQueue& operator=(const MessageQueue&) = delete;

  /// Queues `message`, which may be null. False, without effect, when the queue is closed. Throws
  /// std::bad_alloc when the private heap is exhausted.
  bool Push(MessageRef message);

  /// The oldest message, or null: the time ran out, Wake was called, or null was pushed. 0 never
  /// sleeps, WAIT_FOREVER sleeps without a limit, other values are milliseconds.
  MessageRef Pop(uint32_t timeoutMs);

  /// Makes one Pop that sleeps, now or next, return empty-handed.
  void Wake(bool close);

  bool IsClosed() const { return closed.load(std::memory_order_relaxed); }

  /// Releases what is queued. No consumer may be at work.
  void ReleaseAll();

 private:
  struct Node;

  Node* TakeStack() { return head.exchange(nullptr, std::memory_order_acq_rel); }
  Node* SleepForStack(uint32_t timeoutMs);
  void Reverse(Node* stack);
  static void ReleaseList(Node* list);

  // Atomic. The exchange that takes the stack acquires what each push has released.
  std::atomic<Node*> head{nullptr};

  Mutex lock;
  Condition condition;

  // The consumer's own: oldest first.
  Node* batch = nullptr;

  bool wakeRequested TQ_GUARDED_BY(lock) = false;

  // Written under `lock`, read by producers without it. No caller of Wake closes a queue today;
  // that it can be closed is part of the queue's contract, and producers reckon with it.
  std::atomic<bool> closed{false};
};

}  // namespace TQ::detail
