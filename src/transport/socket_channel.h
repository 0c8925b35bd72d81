// SocketChannel: a byte stream over a connected TCP socket.
#pragma once

#include "transport/transport_channel.h"
#include "transport/wakeup_socket.h"

/// Made by the socket listener and by an outbound connection, over a socket that they have made
/// non-blocking. Owns the socket from construction on; nothing else closes it, and nothing shuts it
/// down, so the peer sees the end when the last reference has gone.
///
/// Threads and locks: as ITransportChannel; there is no lock. Failures are -1 and one line in the
/// log.
class SocketChannel final : public ITransportChannel {
 public:
  explicit SocketChannel(TQ::platform::SocketHandle connectedSocket);

  bool CheckValid() const override { return true; }
  int32_t Receive(void* buffer, uint32_t length, const TQ::detail::StopFlag* stopFlag) override;
  int32_t Receive(void* buffer, uint32_t length) override;
  int32_t Send(const void* buffer, uint32_t length) override;
  std::string GetRemoteAddress() const override { return remoteAddress; }
  std::string GetLocalAddress() const override { return localAddress; }
  int32_t WaitForData(uint32_t timeoutMs) override;
  int32_t WaitForData() override;
  void Wakeup() override { wakeup.Wake(); }

 private:
  ~SocketChannel() override;

  int32_t FailReceive(const char* text, int32_t code, uint32_t remaining) const;
  int32_t WaitAndConsume(int64_t limitMicroseconds);

  // Constant after construction.
  const TQ::platform::SocketHandle socket;
  TQ::detail::WakeupSocket wakeup;
  std::string remoteAddress;
  std::string localAddress;
};
