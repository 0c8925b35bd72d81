#include <tq/application_holder.h>

#include <tq/application.h>
#include <tq/messaging.h>

#include <cstring>

namespace TQ {

TQApplicationHolder::TQApplicationHolder(const char* applicationName) : name{} {
  if (applicationName == nullptr) return;
  std::strncpy(name, applicationName, sizeof name - 1);
}

TQApplicationHolder::TQApplicationHolder(const TQApplicationHolder& other) {
  std::memcpy(name, other.name, sizeof name);
}

// Intended: whoever is destroyed first disconnects the peer for every holder of that name. Nothing
// counts copies. An error of the join reaches the host as an exception.
TQApplicationHolder::~TQApplicationHolder() noexcept(false) {
  TQDisconnect(name);
  name[0] = '\0';
}

// The copy onto itself is harmless, as the ranges of memmove may be the same one.
// NOLINTNEXTLINE(bugprone-unhandled-self-assignment)
TQApplicationHolder& TQApplicationHolder::operator=(const TQApplicationHolder& other) {
  std::memmove(name, other.name, sizeof name);
  return *this;
}

bool TQApplicationHolder::operator!() const { return name[0] == '\0'; }

const char* TQApplicationHolder::getName() const { return name; }

bool TQApplicationHolder::Connect(const char* host, int port, const unsigned char* authData,
                                  int authLength) {
  return TQConnect(host, port, name, sizeof name, authData, authLength) == TQ_ERR_OK;
}

bool TQApplicationHolder::Disconnect() {
  const _tag_TQ_ERROR result = TQDisconnect(name);
  name[0] = '\0';
  return result == TQ_ERR_OK;
}

_tag_HTQPARAMLIST TQApplicationHolder::Call(unsigned slotId, _tag_HTQPARAMLIST params) {
  return TQCall(name, slotId, params);
}

_tag_HTQPARAMLIST TQApplicationHolder::CallWithFlow(unsigned flowId, unsigned slotId,
                                                    _tag_HTQPARAMLIST params) {
  return TQCallWithFlow(flowId, name, slotId, params);
}

bool TQApplicationHolder::Notify(unsigned slotId, _tag_HTQPARAMLIST params,
                                 TQNotifyCallback callback, void* context) {
  return TQNotify(name, slotId, params, callback, context) == TQ_ERR_OK;
}

bool TQApplicationHolder::NotifyWithFlow(unsigned flowId, unsigned slotId, _tag_HTQPARAMLIST params,
                                         TQNotifyCallback callback, void* context) {
  return TQNotifyWithFlow(flowId, name, slotId, params, callback, context) == TQ_ERR_OK;
}

bool TQApplicationHolder::ConnectSignal(const char* signalName, unsigned slotId) {
  return TQConnectSignal(name, signalName, slotId) == TQ_ERR_OK;
}

bool TQApplicationHolder::DisconnectSignal(const char* signalName, unsigned slotId) {
  return TQDisconnectSignal(name, signalName, slotId) == TQ_ERR_OK;
}

}  // namespace TQ
