// Emitting a signal: one notification for each subscriber.
#include "frame/locks.h"
#include "session/session.h"
#include "signals/flow.h"
#include "signals/signal_table.h"

#include <tq/messaging.h>

using namespace TQ::detail;

namespace {

enum class EmitResult { UNKNOWN_SIGNAL, NOBODY_LISTENS, SENT };

/// Walks the subscribers from the oldest. The table stays locked, so an emit sees one whole list.
EmitResult NotifySubscribers(const char* signalName, _tag_HTQPARAMLIST params,
                             TQNotifyCallback callback, void* context) {
  LockScope held(g_signals.lock);
  const SubscriberList* subscribers = g_signals.Find(signalName);
  if (subscribers == nullptr) return EmitResult::UNKNOWN_SIGNAL;
  if (subscribers->empty()) return EmitResult::NOBODY_LISTENS;
  for (const Subscriber& each : *subscribers) {
    // Intended: reached by its name, as by any caller. A session that has ended or lost its name is
    // not reached, and one that has taken the name over is called in its place.
    const char* name = each.session.IsValid() ? each.session->Name().c_str() : "";
    // One subscriber that cannot be reached must not keep the signal from the others.
    (void)TQNotify(name, each.slotId, params, callback, context);
  }
  return EmitResult::SENT;
}

}  // namespace

_tag_TQ_ERROR TQEmit(const char* signalName, _tag_HTQPARAMLIST params, TQNotifyCallback callback,
                     void* context) {
  switch (NotifySubscribers(signalName, params, callback, context)) {
    case EmitResult::UNKNOWN_SIGNAL:
      return TQ_ERR_NO_SUCH_SIGNAL;
    case EmitResult::NOBODY_LISTENS:
      // The emitter's only way of learning that nobody listens.
      if (callback != nullptr) (void)callback(nullptr, 0, params, {nullptr}, context);
      return TQ_ERR_OK;
    case EmitResult::SENT:
      break;
  }
  return TQ_ERR_OK;
}

_tag_TQ_ERROR TQEmitWithFlow(unsigned flowId, const char* signalName, _tag_HTQPARAMLIST params,
                             TQNotifyCallback callback, void* context) {
  StampFlowId(flowId, params);
  return TQEmit(signalName, params, callback, context);
}
