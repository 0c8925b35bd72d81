// Calls and notifications: one message each, queued on the peer's session.
#include "params/list_store.h"
#include "session/application_registry.h"
#include "session/session.h"
#include "signals/flow.h"
#include "wire/message.h"

#include <tq/messaging.h>
#include <tq/param_list.h>

#include <new>

using namespace TQ::detail;

namespace {

/// Builds the message of a call and queues it, and gives the event that tells of its end. Null when
/// there is no session to call, or no memory.
///
/// The registry stays locked from the look-up to the push: the end of a session erases its name
/// under this lock before it drains the queue, so that a call is always either sent or cancelled.
MessageRef QueueCall(const char* applicationName, uint32_t slotId, FastHolderImpl* params,
                     ITQMessage::SyncEventRef* event) {
  SessionRef session;  // released after the lock
  LockScope held(g_applications.applicationsLock);
  session = g_applications.FindLocked(applicationName);
  if (!session.IsValid()) return nullptr;
  *event = ITQMessage::SyncEventRef(new (std::nothrow) ITQMessage::ISyncEvent());
  // Without an event there is nothing to wait on: the message then goes out one-way.
  const uint32_t kind = *event ? MSG_CALL : MSG_NOTIFY;
  // Intended: the message shares the list. Nothing is copied, here or in TQNotify.
  MessageRef message(TQSlotCallMessage::Outbound(session, kind, slotId, params, *event, {}).Get());
  if (message) session->Outgoing().Push(message);
  return message;
}

}  // namespace

_tag_HTQPARAMLIST TQCall(const char* applicationName, unsigned slotId, _tag_HTQPARAMLIST params) {
  ITQMessage::SyncEventRef event;
  const MessageRef message = QueueCall(applicationName, slotId, params.impl, &event);
  if (!message || !event) return g_nullParamList;
  // Intended: no time limit. The reply or the end of the session lets the caller go.
  event->Wait(WAIT_FOREVER);
  // A peer may answer before it has read the request. The list is the caller's again only when the
  // sending thread is done with it.
  message->WaitUntilWritten();
  return TQReferenceHandle({message->GetResult().Get()});
}

_tag_HTQPARAMLIST TQCallWithFlow(unsigned flowId, const char* applicationName, unsigned slotId,
                                 _tag_HTQPARAMLIST params) {
  StampFlowId(flowId, params);
  return TQCall(applicationName, slotId, params);
}

_tag_TQ_ERROR TQNotify(const char* applicationName, unsigned slotId, _tag_HTQPARAMLIST params,
                       TQNotifyCallback callback, void* context) {
  const SessionRef session = g_applications.Find(applicationName);
  if (!session.IsValid()) return TQ_ERR_NO_SESSION;
  const uint32_t kind = callback != nullptr ? MSG_CALL : MSG_NOTIFY;
  const auto message =
      TQSlotCallMessage::Outbound(session, kind, slotId, params.impl, nullptr, {callback, context});
  // Intended: no lock is held here, so a message may come after the end of its session has drained
  // the queue, and is then neither sent nor completed. Success means queued and nothing more: where
  // there was no memory for the message, a null one is queued in its place.
  (void)session->Outgoing().Push(MessageRef(message.Get()));
  return TQ_ERR_OK;
}

_tag_TQ_ERROR TQNotifyWithFlow(unsigned flowId, const char* applicationName, unsigned slotId,
                               _tag_HTQPARAMLIST params, TQNotifyCallback callback, void* context) {
  StampFlowId(flowId, params);
  return TQNotify(applicationName, slotId, params, callback, context);
}
