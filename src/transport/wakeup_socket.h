// A socket connected to itself, by which one thread ends another's wait.
#pragma once

#include "platform/sockets.h"

#include <array>
#include <cstdint>

namespace TQ::detail {

/// Threads: Wake from any thread at any time; Consume by the waiting thread alone.
class WakeupSocket {
 public:
  /// Any step that fails leaves an object without a socket: it works, and wakes nobody.
  WakeupSocket();
  ~WakeupSocket();
  WakeupSocket(const WakeupSocket&) = delete;
  WakeupSocket& operator=(const WakeupSocket&) = delete;

  /// NO_SOCKET when it could not be made.
  platform::SocketHandle Handle() const { return socket; }

  /// Leaves one datagram in the socket. With nobody waiting it stays there for the next wait.
  void Wake();

  /// Takes at most one datagram out: true when the socket sent it to itself.
  bool Consume();

 private:
  bool BindToItself();

  platform::SocketHandle socket;
  std::array<uint8_t, platform::SOCKET_ADDRESS_SIZE> address{};
  int32_t addressLength = platform::SOCKET_ADDRESS_SIZE;
};

}  // namespace TQ::detail
