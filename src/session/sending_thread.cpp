// The sending thread of a session: the only writer to its channel, and the one that takes the
// session down.
#include "frame/log.h"
#include "platform/threads.h"
#include "session/application_registry.h"
#include "session/dispatcher.h"
#include "session/session.h"

using namespace TQ::detail;

namespace {

constexpr uint32_t POLL_MS = 5000;  ///< how long a stop without a wake-up can go unnoticed

}  // namespace

/// Ends on: stopRequested, stopAll, a failed write of a call. Nobody joins this thread.
void TQAPPImpl::SendingThreadBody() {
  TQ::platform::SetCurrentThreadName("tq-send");
  AwaitSendingStart();
  AnnounceSendingReady();  // before the test, other than the receiving thread: it has no entry to
                           // make
  if (!Authenticated()) {
    LogNotInitialized();
    return;
  }
  WriteMessages();
  EndSending();
}

void TQAPPImpl::WriteMessages() {
  while (!StopAllRequested() && !StopWanted()) {
    const MessageRef message = outgoing.Pop(POLL_MS);
    if (message.IsValid() && !WriteOne(message)) return;
  }
}

/// False when a call could not be written, which ends the sending side.
///
/// Intended: and the sending side alone. No stop is asked for: the receiving thread goes on reading
/// until the channel fails or the library stops, which it notices over pipes only when its peer
/// closes or sends, with a session that nobody finds any more. What it reads is dispatched, and
/// replies stay in a queue that nobody serves, which keeps the session.
bool TQAPPImpl::WriteOne(const MessageRef& message) {
  // Taken once: a reply that comes before the request is written must not change what is written.
  const uint32_t kind = message->Kind();
  const bool wantsReply = kind == MSG_CALL;
  if (wantsReply) {
    message->BeginWriting();
    // Before the first byte, so that a reply can never arrive ahead of its entry.
    awaitingRequests->Insert(message);
  }
  const bool written = message->Serialize(kind) >= 0;
  if (wantsReply) message->EndWriting();
  // Intended: a reply or notification that cannot be written is dropped without a sign; the
  // receiving thread finds out about a dead peer on its own. Where the channel still takes bytes,
  // because the peer was slow and not gone, the next frame follows the cut one at once, and the
  // peer reads damage.
  if (written || !wantsReply) return true;
  FinishFailedRequest(message);
  return false;
}

/// Intended: the dispatcher completes the request with its own empty result, which the caller
/// cannot tell from an empty reply. A cancelled request gives the null handle instead. A dispatcher
/// that ends with the library before it comes to the request leaves it, and its caller, waiting.
void TQAPPImpl::FinishFailedRequest(const MessageRef& message) {
  MessageRef request = awaitingRequests->Take(message->RequestId());
  if (!request.IsValid()) return;
  request->SetKind(MSG_REPLY);
  Dispatch(std::move(request));
}

/// Intended: the name goes before the cancellations. A shutdown that waits for the names alone may
/// return while completion callbacks still run here.
void TQAPPImpl::EndSending() {
  // A library that stops while the session starts gets here first. The entry must be there before
  // it is taken away, or it would stay for good and the shutdown would wait for it for good.
  AwaitReceivingReady();
  Log(TQ_LOG_INFO, "Removing application ", name);
  // From here on nobody finds the session, so a call that has found it is in the queue by now.
  g_applications.Erase(name);
  DrainOutgoing();  // Intended: queued messages are cancelled, not flushed
  Log(TQ_LOG_INFO, "Cancel postponed outgoing Outgoing messages queue has been cleared for", name);
  awaitingRequests->CancelAll();
  Log(TQ_LOG_INFO, "All awaiting requests cancelled for ", name);
  LogThreadFinished("Sending thread finished for ");
}

/// Intended: the first null or invalid message ends it. What stands behind that one stays queued,
/// neither sent nor completed, and keeps the session.
void TQAPPImpl::DrainOutgoing() {
  for (MessageRef message = outgoing.Pop(0); message.IsValid(); message = outgoing.Pop(0)) {
    message->Complete(true);
  }
}
