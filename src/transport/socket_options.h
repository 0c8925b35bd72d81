// What every connected socket of a session is set to, accepted or connecting.
#pragma once

#include "platform/sockets.h"

namespace TQ::detail {

/// No delay, non-blocking, buffers of 64 KiB, in this order. A refused option is passed over.
inline void ConfigureStreamSocket(platform::SocketHandle socket) {
  constexpr uint32_t BUFFER_SIZE = 0x10000;
  platform::SetNoDelay(socket);
  platform::SetNonBlocking(socket);
  platform::SetReceiveBufferSize(socket, BUFFER_SIZE);
  platform::SetSendBufferSize(socket, BUFFER_SIZE);
}

}  // namespace TQ::detail
