/// @file
/// TQ::TQApplicationHolder, a peer's name with the functions that take it. C++ only.
///
/// A holder keeps a name and nothing else; it has no share in the session's life. It goes on naming
/// a peer whose session has ended, and calls through it then fail as calls to an unknown name do.
/// Its destruction, however, disconnects the peer, also one that the holder did not connect, and
/// also if other holders name the same one: nothing counts copies.
///
/// A holder has no lock and is for one thread at a time. The rules of <tq/application.h> and
/// <tq/messaging.h> hold for everything that it forwards to: who owns lists, what blocks, what may
/// be called from callbacks, what is thrown.
#pragma once

#include <tq/export.h>
#include <tq/types.h>

namespace TQ {

class TQ_API TQApplicationHolder {
 public:
  /// @param name  a peer's full name; copied up to 255 bytes, the rest is cut off without a word.
  ///              Null makes a holder that names nobody.
  // NOLINTNEXTLINE(google-explicit-constructor): a name may stand where a holder is expected.
  TQApplicationHolder(const char* name = nullptr);

  /// Copies the name. Both holders will disconnect the peer.
  TQApplicationHolder(const TQApplicationHolder& other);

  /// Disconnects the peer as Disconnect does, and so can block for as long.
  /// Throws what TQDisconnect throws; during the unwinding of another exception that ends the
  /// process.
  virtual ~TQApplicationHolder() noexcept(false);

  /// Copies the name. The peer that this holder named is not disconnected.
  TQApplicationHolder& operator=(const TQApplicationHolder& other);

  /// Whether the holder names nobody. Says nothing about the session.
  bool operator!() const;

  /// @return the name, NUL-terminated, empty for nobody; the holder's own memory, which changes
  ///         with Connect, Disconnect and assignment.
  const char* getName() const;

  /// TQConnect; arguments as there.
  ///
  /// @return whether it succeeded. The holder then names the new peer, and the one that it named
  ///         before is not disconnected. After a failure the name is as it was. If the peer's name
  ///         has 256 bytes the session stands, but the holder names nobody.
  bool Connect(const char* host, int port, const unsigned char* authData, int authLength);

  /// TQDisconnect; the holder then names nobody.
  ///
  /// @return true, always.
  bool Disconnect();

  /// TQCall; the result belongs to the caller.
  _tag_HTQPARAMLIST Call(unsigned slotId, _tag_HTQPARAMLIST params);

  /// TQCallWithFlow; the result belongs to the caller.
  _tag_HTQPARAMLIST CallWithFlow(unsigned flowId, unsigned slotId, _tag_HTQPARAMLIST params);

  /// TQNotify.
  ///
  /// @return true if the message was queued, false if there is no such session.
  bool Notify(unsigned slotId, _tag_HTQPARAMLIST params, TQNotifyCallback callback, void* context);

  /// TQNotifyWithFlow; result as for Notify.
  bool NotifyWithFlow(unsigned flowId, unsigned slotId, _tag_HTQPARAMLIST params,
                      TQNotifyCallback callback, void* context);

  /// TQConnectSignal.
  ///
  /// @return true, always.
  bool ConnectSignal(const char* signalName, unsigned slotId);

  /// TQDisconnectSignal, which waits for the peer.
  ///
  /// @return true, always.
  bool DisconnectSignal(const char* signalName, unsigned slotId);

 private:
  char name[256];
};

static_assert(sizeof(TQApplicationHolder) == 264, "the virtual table's address and 256 bytes");

}  // namespace TQ
