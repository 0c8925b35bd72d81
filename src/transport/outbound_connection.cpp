#include "transport/outbound_connection.h"

#include "platform/sockets.h"
#include "session/session.h"
#include "transport/socket_address.h"
#include "transport/socket_channel.h"
#include "transport/socket_options.h"

namespace TQ::detail {
namespace {

constexpr int CONNECT_WAITS = 2;
constexpr int64_t CONNECT_WAIT_MICROSECONDS = 2001000;

/// Intended: writable counts as connected. Neither an error condition nor the socket's own error is
/// looked at; a refusal that shows as writable fails in the handshake.
bool AwaitWritable(platform::SocketHandle socket) {
  for (int i = 0; i < CONNECT_WAITS; ++i) {
    const auto wait = platform::WaitWritable(socket, CONNECT_WAIT_MICROSECONDS);
    if (wait.count == 1) return true;
    if (wait.count < 0) return false;
  }
  return false;
}

bool Connect(platform::SocketHandle socket, const SocketAddressArea& address) {
  const auto started =
      platform::ConnectSocket(socket, address.data(), platform::SOCKET_ADDRESS_AREA_SIZE);
  if (started.count == 0) return true;
  return started.error == platform::WOULD_BLOCK && AwaitWritable(socket);
}

}  // namespace

ChannelRef ConnectSocket(const char* target, uint16_t port) {
  if (port == 0) return nullptr;
  bool dotted = false;
  const SocketAddressArea address = MakeSocketAddress(target, port, &dotted);
  if (!dotted) return nullptr;  // host names are not resolved
  const platform::SocketHandle socket = platform::CreateStreamSocket();
  if (socket == platform::NO_SOCKET) return nullptr;
  ConfigureStreamSocket(socket);
  if (!Connect(socket, address)) {
    platform::CloseSocket(socket);
    return nullptr;
  }
  return ChannelRef(new SocketChannel(socket));
}

}  // namespace TQ::detail

using namespace TQ::detail;

_tag_TQ_ERROR TQAPPImpl::ConnectTo(const char* target, uint32_t port, char* nameOut,
                                   uint32_t nameOutSize, const uint8_t* authData,
                                   int32_t authLength) {
  // A target that begins with a backslash names a pipe, and there is no pipe transport.
  const bool isPipe = target[0] == '\\';
  const ChannelRef connected =
      isPipe ? nullptr : ConnectSocket(target, static_cast<uint16_t>(port));
  if (!connected.IsValid()) return TQ_ERR_FAILED;
  return ConnectHandshake(connected, nameOut, nameOutSize, authData, authLength);
}
