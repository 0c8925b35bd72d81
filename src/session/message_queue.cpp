#include "session/message_queue.h"

#include "frame/private_heap.h"

#include <new>
#include <utility>

namespace TQ::detail {

struct MessageQueue::Node : OnPrivateHeap {
  explicit Node(MessageRef queued) : message(std::move(queued)) {}

  Node* next = nullptr;
  MessageRef message;
};

MessageQueue::~MessageQueue() { ReleaseAll(); }

void MessageQueue::ReleaseAll() {
  ReleaseList(std::exchange(batch, nullptr));
  LockScope held(lock);
  ReleaseList(TakeStack());
}

void MessageQueue::ReleaseList(Node* list) {
  while (list != nullptr) delete std::exchange(list, list->next);
}

bool MessageQueue::Push(MessageRef message) {
  if (IsClosed()) return false;
  Node* node = new Node(std::move(message));
  if (node == nullptr) throw std::bad_alloc();
  Node* seen = head.load(std::memory_order_relaxed);
  do {
    node->next = seen;
  } while (!head.compare_exchange_weak(seen, node, std::memory_order_acq_rel,
                                       std::memory_order_relaxed));
  // When something was there already, the consumer has been signalled or has yet to take it. The
  // node may be gone by now: only `seen` may be looked at.
  if (seen == nullptr) {
    LockScope held(lock);
    condition.SignalOne();
  }
  return true;
}

MessageRef MessageQueue::Pop(uint32_t timeoutMs) {
  if (batch == nullptr) {
    Node* stack = TakeStack();
    if (stack == nullptr && timeoutMs != 0) stack = SleepForStack(timeoutMs);
    Reverse(stack);
  }
  if (batch == nullptr) return nullptr;
  Node* oldest = std::exchange(batch, batch->next);
  MessageRef message = std::move(oldest->message);
  delete oldest;
  return message;
}

/// Sleeps until something is pushed, Wake is called, or the time has run out. Each turn looks
/// before it sleeps, so that what came before the lock was taken is not missed.
MessageQueue::Node* MessageQueue::SleepForStack(uint32_t timeoutMs) {
  const bool limited = timeoutMs != WAIT_FOREVER;
  const auto deadline = DeadlineAfter(limited ? timeoutMs : 0);
  LockScope held(lock);
  for (bool timeLeft = true;;) {
    if (Node* stack = TakeStack()) return stack;
    if (std::exchange(wakeRequested, false) || !timeLeft) return nullptr;
    if (limited) {
      timeLeft = condition.WaitUntil(lock, deadline);
    } else {
      condition.Wait(lock);
    }
  }
}

void MessageQueue::Reverse(Node* stack) {
  while (stack != nullptr) {
    Node* node = std::exchange(stack, stack->next);
    node->next = batch;
    batch = node;
  }
}

void MessageQueue::Wake(bool close) {
  LockScope held(lock);
  wakeRequested = true;
  closed.store(close, std::memory_order_relaxed);
  condition.SignalOne();
}

}  // namespace TQ::detail
