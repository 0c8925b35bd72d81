#include "transport/wakeup_socket.h"

#include "transport/socket_address.h"

namespace TQ::detail {
namespace {

constexpr uint32_t DATAGRAM_SIZE = 100;
constexpr uint8_t DATAGRAM_BYTE = 0xA5;

}  // namespace

WakeupSocket::WakeupSocket() : socket(platform::CreateDatagramSocket()) {
  if (socket == platform::NO_SOCKET) return;
  platform::SetNonBlocking(socket);
  if (!BindToItself()) {
    platform::CloseSocket(socket);
    socket = platform::NO_SOCKET;
  }
}

WakeupSocket::~WakeupSocket() {
  if (socket != platform::NO_SOCKET) platform::CloseSocket(socket);
}

bool WakeupSocket::BindToItself() {
  const SocketAddressArea anyPort = MakeSocketAddress("127.0.0.1", 0);
  return platform::BindSocket(socket, anyPort.data(), platform::SOCKET_ADDRESS_SIZE) &&
         platform::GetLocalAddress(socket, address.data(), &addressLength) &&
         platform::ConnectSocket(socket, address.data(), platform::SOCKET_ADDRESS_SIZE).count == 0;
}

void WakeupSocket::Wake() {
  if (socket == platform::NO_SOCKET) return;
  std::array<uint8_t, DATAGRAM_SIZE> datagram;
  datagram.fill(DATAGRAM_BYTE);
  // A full receive queue already holds a wake-up.
  (void)platform::SendDatagramDirect(socket, datagram.data(), DATAGRAM_SIZE);
}

bool WakeupSocket::Consume() {
  std::array<uint8_t, DATAGRAM_SIZE> datagram;
  std::array<uint8_t, platform::SOCKET_ADDRESS_SIZE> sender{};
  int32_t senderLength = 0;
  const auto received = platform::ReceiveDatagram(socket, datagram.data(), DATAGRAM_SIZE,
                                                  sender.data(), &senderLength);
  return received.count > 0 && senderLength == addressLength && sender == address;
}

}  // namespace TQ::detail
