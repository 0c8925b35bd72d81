#include "signals/signal_table.h"

#include "session/session.h"

#include <tq/messaging.h>

namespace TQ::detail {

void SignalTable::Register(const char* name) {
  LockScope held(lock);
  signals[name].clear();
}

bool SignalTable::Unregister(const char* name) {
  LockScope held(lock);
  const auto found = signals.find(name);
  if (found == signals.end()) return false;
  signals.erase(found);
  return true;
}

SubscriberList* SignalTable::Find(const char* name) {
  const auto found = signals.find(name);
  return found != signals.end() ? &found->second : nullptr;
}

void SignalTable::Clear() {
  LockScope held(lock);
  signals.clear();
}

void SignalTable::RemoveSubscriptionsOf(const TQAPPImpl& session) {
  LockScope held(lock);
  for (auto& [name, subscribers] : signals) {
    subscribers.remove_if([&](const Subscriber& each) { return each.session == &session; });
  }
}

}  // namespace TQ::detail

using TQ::detail::g_signals;

_tag_TQ_ERROR TQRegisterSignal(const char* name) {
  g_signals.Register(name);
  return TQ_ERR_OK;
}

_tag_TQ_ERROR TQRegisterSignals(const _tag_SIGNAL_DESCRIPTION* records, int count) {
  for (int i = 0; i < count; ++i) g_signals.Register(records[i].name);
  return TQ_ERR_OK;
}

_tag_TQ_ERROR TQUnregisterSignal(const char* name) {
  return g_signals.Unregister(name) ? TQ_ERR_OK : TQ_ERR_NO_SUCH_SIGNAL;
}
