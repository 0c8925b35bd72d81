// Sockets over the POSIX interface.
//
// Waiting goes through ppoll, which takes descriptors of any number. A peer that dies must not kill
// the host, so every send forbids the broken-pipe signal. Descriptors are close-on-exec from the
// start, since a child of the host would otherwise keep a peer's connection open.
#include "platform/sockets.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>

namespace TQ::platform {

static_assert(AF_INET == ADDRESS_FAMILY_IPV4);
static_assert(sizeof(sockaddr_in) == SOCKET_ADDRESS_SIZE);
static_assert(sizeof(sockaddr_storage) == SOCKET_ADDRESS_AREA_SIZE);

const int32_t WOULD_BLOCK = EAGAIN;

namespace {

using Clock = std::chrono::steady_clock;

int Descriptor(SocketHandle socket) { return static_cast<int>(socket); }

const sockaddr* AsAddress(const uint8_t* bytes) { return reinterpret_cast<const sockaddr*>(bytes); }
sockaddr* AsAddress(uint8_t* bytes) { return reinterpret_cast<sockaddr*>(bytes); }

TransferResult AsTransfer(ssize_t result) {
  if (result >= 0) return {static_cast<int32_t>(result), 0};
  return {-1, errno};
}

/// A transfer call moves at most this much, so that its count fits the result.
constexpr uint32_t MAX_TRANSFER = 0x7FFFF000;

template <typename Call>
auto Uninterrupted(Call call) {
  auto result = call();
  while (result < 0 && errno == EINTR) result = call();
  return result;
}

/// Waits with the time that remains, so that a signal neither ends nor prolongs the wait.
int Poll(pollfd* entries, nfds_t count, int64_t limitMicroseconds) {
  const bool limited = limitMicroseconds >= 0;
  const auto deadline = Clock::now() + std::chrono::microseconds(limited ? limitMicroseconds : 0);
  for (;;) {
    timespec remaining{};
    if (limited) {
      const auto left =
          std::chrono::duration_cast<std::chrono::nanoseconds>(deadline - Clock::now());
      const int64_t leftNanoseconds = left.count() > 0 ? left.count() : 0;
      remaining.tv_sec = leftNanoseconds / 1000000000;
      remaining.tv_nsec = leftNanoseconds % 1000000000;
    }
    const int ready = ppoll(entries, count, limited ? &remaining : nullptr, nullptr);
    if (ready >= 0 || errno != EINTR) return ready;
  }
}

/// Turns what ppoll found into the picture of one set of ready sockets.
WaitResult Evaluate(const pollfd* entries, std::size_t count, int ready, short wanted) {
  if (ready < 0) return {-1, false, false, errno};
  for (std::size_t i = 0; i < count; ++i) {
    if (entries[i].revents & POLLNVAL) return {-1, false, false, EBADF};
  }
  WaitResult result{0, false, false, 0};
  result.firstReady = (entries[0].revents & wanted) != 0;
  result.secondReady = count > 1 && (entries[1].revents & wanted) != 0;
  result.count = (result.firstReady ? 1 : 0) + (result.secondReady ? 1 : 0);
  return result;
}

}  // namespace

void StartSockets() {}

void StopSockets() {}

bool GetHostName(char* buffer, uint32_t bufferSize) {
  if (gethostname(buffer, bufferSize) != 0) return false;
  buffer[bufferSize - 1] = '\0';
  return true;
}

SocketHandle CreateStreamSocket() { return ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0); }

SocketHandle CreateDatagramSocket() {
  return ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, IPPROTO_UDP);
}

void CloseSocket(SocketHandle socket) {
  // Not retried when interrupted: Linux has freed the descriptor by then, and another thread may
  // already own the number.
  (void)::close(Descriptor(socket));
}

void SetNonBlocking(SocketHandle socket) {
  int on = 1;
  (void)ioctl(Descriptor(socket), FIONBIO, &on);
}

void SetNoDelay(SocketHandle socket) {
  const int on = 1;
  (void)setsockopt(Descriptor(socket), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

void SetReceiveBufferSize(SocketHandle socket, uint32_t sizeBytes) {
  const int value = static_cast<int>(sizeBytes);
  (void)setsockopt(Descriptor(socket), SOL_SOCKET, SO_RCVBUF, &value, sizeof value);
}

void SetSendBufferSize(SocketHandle socket, uint32_t sizeBytes) {
  const int value = static_cast<int>(sizeBytes);
  (void)setsockopt(Descriptor(socket), SOL_SOCKET, SO_SNDBUF, &value, sizeof value);
}

bool BindSocket(SocketHandle socket, const uint8_t* address, uint32_t addressSize) {
  return ::bind(Descriptor(socket), AsAddress(address), addressSize) == 0;
}

bool ListenOnSocket(SocketHandle socket, int32_t backlog) {
  return ::listen(Descriptor(socket), backlog) == 0;
}

SocketHandle AcceptConnection(SocketHandle listener, uint8_t* peerAddress) {
  return Uninterrupted([&] {
    socklen_t length = SOCKET_ADDRESS_SIZE;
    return ::accept4(Descriptor(listener), AsAddress(peerAddress), &length, SOCK_CLOEXEC);
  });
}

TransferResult ConnectSocket(SocketHandle socket, const uint8_t* address, uint32_t addressSize) {
  if (::connect(Descriptor(socket), AsAddress(address), addressSize) == 0) return {0, 0};
  // An interrupted connect goes on in the background, just as one that would have had to wait.
  const bool underWay = errno == EINPROGRESS || errno == EINTR || errno == EAGAIN;
  return {-1, underWay ? WOULD_BLOCK : errno};
}

bool GetPeerAddress(SocketHandle socket, uint8_t* address) {
  socklen_t length = SOCKET_ADDRESS_SIZE;
  return getpeername(Descriptor(socket), AsAddress(address), &length) == 0;
}

bool GetLocalAddress(SocketHandle socket, uint8_t* address, int32_t* addressLength) {
  socklen_t length = SOCKET_ADDRESS_SIZE;
  if (getsockname(Descriptor(socket), AsAddress(address), &length) != 0) return false;
  *addressLength = static_cast<int32_t>(length);
  return true;
}

TransferResult ReceiveBytes(SocketHandle socket, void* buffer, uint32_t length) {
  const uint32_t part = length < MAX_TRANSFER ? length : MAX_TRANSFER;
  return AsTransfer(Uninterrupted([&] { return ::recv(Descriptor(socket), buffer, part, 0); }));
}

TransferResult SendBytes(SocketHandle socket, const void* buffer, uint32_t length) {
  const uint32_t part = length < MAX_TRANSFER ? length : MAX_TRANSFER;
  return AsTransfer(
      Uninterrupted([&] { return ::send(Descriptor(socket), buffer, part, MSG_NOSIGNAL); }));
}

TransferResult SendDatagramDirect(SocketHandle socket, const void* buffer, uint32_t length) {
  return AsTransfer(Uninterrupted(
      [&] { return ::send(Descriptor(socket), buffer, length, MSG_DONTROUTE | MSG_NOSIGNAL); }));
}

TransferResult ReceiveDatagram(SocketHandle socket, void* buffer, uint32_t length,
                               uint8_t* senderAddress, int32_t* senderLength) {
  socklen_t addressLength = SOCKET_ADDRESS_SIZE;
  const TransferResult result = AsTransfer(Uninterrupted([&] {
    addressLength = SOCKET_ADDRESS_SIZE;
    return ::recvfrom(Descriptor(socket), buffer, length, 0, AsAddress(senderAddress),
                      &addressLength);
  }));
  *senderLength = static_cast<int32_t>(addressLength);
  return result;
}

WaitResult WaitReadable(SocketHandle first, SocketHandle second, int64_t limitMicroseconds) {
  // ppoll passes over a negative descriptor instead of failing.
  if (first < 0) return {-1, false, false, EBADF};
  pollfd entries[2] = {{Descriptor(first), POLLIN, 0}, {Descriptor(second), POLLIN, 0}};
  const std::size_t count = second == NO_SOCKET ? 1 : 2;
  const int ready = Poll(entries, count, limitMicroseconds);
  return Evaluate(entries, count, ready, POLLIN | POLLHUP | POLLERR);
}

WaitResult WaitWritable(SocketHandle socket, int64_t limitMicroseconds) {
  if (socket < 0) return {-1, false, false, EBADF};
  pollfd entry = {Descriptor(socket), POLLOUT, 0};
  const int ready = Poll(&entry, 1, limitMicroseconds);
  return Evaluate(&entry, 1, ready, POLLOUT | POLLERR);
}

bool ParseAddressText(const char* text, uint8_t* addressBytes) {
  return inet_pton(AF_INET, text, addressBytes) == 1;
}

void FormatAddressText(const uint8_t* addressBytes, char* text) {
  if (inet_ntop(AF_INET, addressBytes, text, ADDRESS_TEXT_SIZE) == nullptr) text[0] = '\0';
}

}  // namespace TQ::platform
