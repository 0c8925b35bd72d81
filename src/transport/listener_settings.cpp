#include "transport/listener_settings.h"

using namespace TQ::detail;

void ConnThreadInfo::SetAddress(const SocketAddressArea& address) {
  LockScope held(lock);
  listenAddress = address;
}

bool ConnThreadInfo::Enabled() const { return enabled.load(std::memory_order_relaxed) != 0; }

void ConnThreadInfo::Clear() {
  Disable();
  SetAddress(SocketAddressArea{});
}

void ConnThreadInfo::Define(const char* host, uint16_t port) {
  SetAddress(MakeSocketAddress(host, port));
  enabled.store(1, std::memory_order_relaxed);
}

SocketAddressArea ConnThreadInfo::ListenAddress() const {
  LockScope held(lock);
  return listenAddress;
}

void TQ::detail::OpenListenerGates() {
  socketListenerGate->Set();
  pipeListenerGate->Set();
}
