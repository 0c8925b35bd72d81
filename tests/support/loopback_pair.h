// Two connected TCP sockets in one process, for tests of a channel.
//
//   LoopbackPair pair;
//   auto channel = ... a channel over pair.TakeNear(), which owns it from now on ...
//   RawPeer far = pair.TakeFarAsPeer();
//   far.SendBytes(Pattern(100));
//
// Both sockets are nonblocking and send small pieces at once, as the library's own are.
#pragma once

#include "support/bytes.h"
#include "support/platform.h"
#include "support/raw_peer.h"

#include <string>

namespace TQ::test {

class LoopbackPair final {
 public:
  /// Throws std::runtime_error if there are no sockets. Buffer sizes above 0 are given to both
  /// sockets, so that a test fills them with little data.
  explicit LoopbackPair(int bufferSize = 0);

  /// Closes what was not taken.
  ~LoopbackPair();

  LoopbackPair(const LoopbackPair&) = delete;
  LoopbackPair& operator=(const LoopbackPair&) = delete;

  /// The native handles; still the pair's.
  platform::Handle Near() const { return nearEnd; }
  platform::Handle Far() const { return farEnd; }

  /// The native handles; the caller closes them.
  platform::Handle TakeNear();
  platform::Handle TakeFar();

  /// The far end as a peer, which owns it.
  RawPeer TakeFarAsPeer() { return RawPeer(TakeFar()); }

  /// "127.0.0.1:port" of the near end, and of the far end.
  const std::string& NearAddress() const { return nearAddress; }
  const std::string& FarAddress() const { return farAddress; }

 private:
  platform::Handle nearEnd = platform::NO_HANDLE;
  platform::Handle farEnd = platform::NO_HANDLE;
  std::string nearAddress;
  std::string farAddress;
};

/// Sends one UDP datagram to 127.0.0.1:`port`. False if the system refuses.
inline bool SendDatagramTo(uint16_t port, const Bytes& bytes) {
  return platform::SendDatagram(port, bytes.data(), bytes.size());
}

}  // namespace TQ::test
