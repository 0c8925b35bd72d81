#include "signals/signal_connections.h"

#include "params/list_store.h"
#include "session/application_registry.h"
#include "session/session.h"
#include "signals/signal_table.h"
#include "wire/frame_layout.h"

#include <tq/messaging.h>
#include <tq/param_list.h>

#include <algorithm>
#include <cstring>

using namespace TQ::detail;

namespace {

constexpr const char* SIGNAL_NAME = "signalName";
constexpr const char* SLOT_ID = "slotName";  // the slot's number, in spite of the word

/// The body of a connect or disconnect message.
ListRef SubscriptionList(const char* signalName, unsigned slotId) {
  ListRef list = ListRef::Adopt(TQCreateParamList().impl);
  TQSetStringValue({list.Get()}, SIGNAL_NAME, signalName);
  TQSetInt32Value({list.Get()}, SLOT_ID, slotId);
  return list;
}

/// True when `subscriber` is the named peer with that slot. A session that is not valid any more
/// counts as nameless.
bool Matches(const Subscriber& subscriber, const char* applicationName, uint32_t slotId) {
  const char* name = subscriber.session.IsValid() ? subscriber.session->Name().c_str() : "";
  return subscriber.slotId == slotId && std::strcmp(name, applicationName) == 0;
}

}  // namespace

namespace TQ::detail {

int ServeConnectSignal(_tag_HTQPARAMLIST params, _tag_HTQPARAMLIST /*result*/,
                       const TQSlotCallInfo* info) {
  const char* signalName = TQGetStringValue(params, SIGNAL_NAME);
  if (signalName == nullptr) return 0;
  const uint32_t slotId = TQGetInt32Value(params, SLOT_ID);
  LockScope held(g_signals.lock);
  SessionRef session = g_applications.Find(info->applicationName);
  if (!session.IsValid()) return 0;
  SubscriberList* subscribers = g_signals.Find(signalName);
  // A signal that is not registered is passed over; the peer is not told.
  if (subscribers == nullptr) return 0;
  // Intended: pairs are not compared. Connecting twice means two deliveries for each emit.
  subscribers->push_back({std::move(session), slotId});
  return 0;
}

int ServeDisconnectSignal(_tag_HTQPARAMLIST params, _tag_HTQPARAMLIST /*result*/,
                          const TQSlotCallInfo* info) {
  const char* signalName = TQGetStringValue(params, SIGNAL_NAME);
  if (signalName == nullptr) return 0;
  const uint32_t slotId = TQGetInt32Value(params, SLOT_ID);
  LockScope held(g_signals.lock);
  SubscriberList* subscribers = g_signals.Find(signalName);
  if (subscribers == nullptr) return 0;
  const auto oldest = std::find_if(
      subscribers->begin(), subscribers->end(),
      [&](const Subscriber& each) { return Matches(each, info->applicationName, slotId); });
  if (oldest != subscribers->end()) subscribers->erase(oldest);
  return 0;
}

void RegisterInternalSlots() {
  TQRegisterSlot(CONNECT_SIGNAL_SLOT, ServeConnectSignal, &g_signals);
  TQRegisterSlot(DISCONNECT_SIGNAL_SLOT, ServeDisconnectSignal, &g_signals);
}

}  // namespace TQ::detail

_tag_TQ_ERROR TQConnectSignal(const char* applicationName, const char* signalName,
                              unsigned slotId) {
  const ListRef list = SubscriptionList(signalName, slotId);
  // Intended: an unknown application is no error; nothing is known of the outcome on return.
  (void)TQNotify(applicationName, CONNECT_SIGNAL_SLOT, {list.Get()}, nullptr, nullptr);
  return TQ_ERR_OK;
}

_tag_TQ_ERROR TQDisconnectSignal(const char* applicationName, const char* signalName,
                                 unsigned slotId) {
  const ListRef list = SubscriptionList(signalName, slotId);
  // Other than connecting, this waits until the peer has dealt with it or the session has ended.
  TQCloseHandle(TQCall(applicationName, DISCONNECT_SIGNAL_SLOT, {list.Get()}));
  return TQ_ERR_OK;
}
