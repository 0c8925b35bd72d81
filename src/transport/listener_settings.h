// What the two listeners are to listen on, and the gates that hold them back until it is settled.
#pragma once

#include "frame/counted_ref.h"
#include "frame/locks.h"
#include "frame/settings.h"
#include "transport/socket_address.h"
#include "wire/sync_event.h"

#include <tq/counted_base.h>

#include <atomic>
#include <cstdint>
#include <string>

/// The socket listener's settings. One instance, made at library load.
///
/// Threads: written by initialisation and TQStartListeners, read by the listener after its gate.
struct ConnThreadInfo final : public MTObjects::MTReferencedTypeBase {
  /// No listener defined, no address.
  void Clear();

  /// A listener on `host`, which must be a dotted IPv4 text. Intended: any other text leaves the
  /// address zero, and the listener binds to all interfaces.
  void Define(const char* host, uint16_t port);

  void Disable() { enabled.store(0, std::memory_order_relaxed); }
  bool Enabled() const;
  TQ::detail::SocketAddressArea ListenAddress() const;

 private:
  bool CheckValid() const override { return true; }
  void SetAddress(const TQ::detail::SocketAddressArea& address);

  std::atomic<uint32_t> enabled{0};
  mutable TQ::detail::Mutex lock;
  TQ::detail::SocketAddressArea listenAddress TQ_GUARDED_BY(lock){};
};

/// The pipe listener's settings. One instance, made at library load.
///
/// Threads: as ConnThreadInfo.
struct ConnPipeThreadInfo final : public MTObjects::MTReferencedTypeBase {
  /// The base name of the pipes, without any leading backslash; empty when none was ever given.
  TQ::detail::GuardedText pipeName;

 private:
  bool CheckValid() const override { return true; }
};

namespace TQ::detail {

// The references are held from library load to unload.
extern CountedRef<ConnThreadInfo> connThreadInfo;
extern CountedRef<ConnPipeThreadInfo> connPipeThreadInfo;

// Intended: a gate once open stays open. After a shutdown the next initialisation finds both open,
// and its listeners run at once.
extern CountedRef<MTObjects::ISyncEvent> socketListenerGate;
extern CountedRef<MTObjects::ISyncEvent> pipeListenerGate;

/// Lets both listeners go.
void OpenListenerGates();

}  // namespace TQ::detail
