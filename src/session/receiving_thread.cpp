// The receiving thread of a session: the only reader of its channel.
#include "frame/log.h"
#include "platform/threads.h"
#include "session/application_name.h"
#include "session/application_registry.h"
#include "session/dispatcher.h"
#include "session/session.h"
#include "signals/signal_table.h"

using namespace TQ::detail;

namespace {

constexpr uint32_t POLL_MS = 5000;  ///< how long a stop without a wake-up can go unnoticed

}  // namespace

/// Ends on: a failed channel or frame, stopRequested, stopAll.
void TQAPPImpl::ReceivingThreadBody() {
  TQ::platform::SetCurrentThreadName("tq-receive");
  AwaitReceivingStart();
  if (!Authenticated()) {
    AnnounceReceivingReady();
    LogNotInitialized();
    return;
  }
  // The entry comes before the answer: when the handshake returns, the peer can be called by name.
  g_applications.Set(name, SessionRef(this));
  AnnounceReceivingReady();
  Log(TQ_LOG_INFO, "Application connected:", name);
  AnnounceConnection();
  EndReceiving(ReadFrames());
}

void TQAPPImpl::AnnounceConnection() const {
  const auto listener = g_connectListener.load(std::memory_order_relaxed);
  if (listener == nullptr) return;
  const ParsedApplicationName parsed(name.c_str());
  listener(localAddress.c_str(), remoteAddress.c_str(), name.c_str(), parsed.Host(), parsed.Port(),
           parsed.Application());
}

TQAPPImpl::EndCause TQAPPImpl::ReadFrames() {
  if (StopAllRequested()) return EndCause::GLOBAL;
  for (;;) {
    if (StopWanted()) return EndCause::LOCAL;
    const int32_t ready = channel->WaitForData(POLL_MS);
    if (ready < 0) return CauseOfFailure();
    if (ready > 0 && !ReadOneFrame()) return CauseOfFailure();
    if (StopAllRequested()) return EndCause::GLOBAL;
  }
}

/// False when the session has failed.
bool TQAPPImpl::ReadOneFrame() {
  MessageRef message = ReceiveMessage(*this);
  if (!message.IsValid()) return false;
  if (message->Kind() == MSG_REPLY) {
    message->Complete(false);
  } else {
    Dispatch(std::move(message));
  }
  return true;
}

/// A read that a stop has cut short is no loss of the peer.
TQAPPImpl::EndCause TQAPPImpl::CauseOfFailure() const {
  if (StopAllRequested()) return EndCause::GLOBAL;
  return StopWanted() ? EndCause::LOCAL : EndCause::REMOTE;
}

void TQAPPImpl::EndReceiving(EndCause cause) {
  const char* text = cause == EndCause::GLOBAL  ? "Global shutdown: "
                     : cause == EndCause::LOCAL ? "Local shutdown: "
                                                : "Remote disconnect: ";
  Log(TQ_LOG_INFO, text, '"', name, '"', " stopped");
  g_signals.RemoveSubscriptionsOf(*this);
  // When the peer is lost, the session can still be found and called while the listener runs.
  const auto listener = g_disconnectListener.load(std::memory_order_relaxed);
  if (listener != nullptr) {
    const ParsedApplicationName parsed(name.c_str());
    listener(name.c_str(), parsed.Host(), parsed.Port(), parsed.Application());
  }
  // Only now does the sending thread begin to cancel what is outstanding.
  stopRequested.store(1, std::memory_order_relaxed);
  outgoing.Wake(false);
  LogThreadFinished("Receiving thread finished for ");
}
