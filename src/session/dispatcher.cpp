#include "session/dispatcher.h"

#include "frame/settings.h"
#include "platform/threads.h"
#include "session/application_registry.h"
#include "session/session.h"
#include "signals/slot_table.h"

namespace TQ::detail {
namespace {

/// Runs the slot that `message` is for, if there is one. The slot table stays locked meanwhile.
void CallSlot(const ITQMessage& message) TQ_REQUIRES(g_slots.lock) {
  SlotEntry slot;  // a copy: the callback may take its own entry out of the table
  if (!g_slots.Find(message.GetSlotId(), &slot)) return;
  const SessionRef& session = message.Session();
  const TQSlotCallInfo info = {session.IsValid() ? session->Name().c_str() : "", slot.context};
  // What a slot returns has no meaning to anyone.
  (void)slot.callback({message.GetParams().Get()}, {message.GetResult().Get()}, &info);
}

/// Hands the message back to its session as the reply to itself.
void QueueReply(const MessageRef& message) {
  const SessionRef& session = message->Session();
  if (!session.IsValid()) return;
  message->SetKind(MSG_REPLY);
  if (!session->Outgoing().IsClosed()) session->Outgoing().Push(message);
}

void DispatchOne(const MessageRef& message) {
  switch (message->Kind()) {
    case MSG_REPLY:  // a request whose own write failed
      message->Complete(false);
      break;
    case MSG_NOTIFY: {
      LockScope held(g_slots.lock);
      CallSlot(*message);
      break;
    }
    case MSG_CALL: {
      // An unknown slot is answered too, with the empty list that nothing has filled. The table
      // stays locked until the reply is queued: once a slot has been unregistered, neither its
      // callback nor its reply is still to come.
      LockScope held(g_slots.lock);
      CallSlot(*message);
      QueueReply(message);
      break;
    }
    default:
      break;
  }
}

}  // namespace

void Dispatch(MessageRef message) {
  if (!g_dispatchQueue.IsClosed()) g_dispatchQueue.Push(std::move(message));
}

void RunDispatcher() {
  platform::SetCurrentThreadName("tq-dispatch");
  while (!StopAllRequested() || g_applications.Size() != 0) {
    const MessageRef message = g_dispatchQueue.Pop(WAIT_FOREVER);
    if (message.IsValid()) DispatchOne(message);
  }
}

}  // namespace TQ::detail
