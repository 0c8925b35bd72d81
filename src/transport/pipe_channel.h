// PipeChannel: a byte stream over the two named pipes of a connection.
#pragma once

#include "platform/pipes.h"
#include "transport/transport_channel.h"

/// Made by the pipe listener and by an outbound connection, over pipes that are connected. Owns
/// both ends from construction on; nothing else closes them, and nothing flushes them first.
///
/// Threads and locks: as ITransportChannel; there is no lock. Failures are -1 and are not logged.
/// Waiting differs from a socket's: WaitForData never waits and Wakeup does nothing, so a receiving
/// thread is always inside Receive, which looks at its stop flag once a second. Intended: Send has
/// no time limit at all, and the one of Receive begins anew with each read of the system.
class PipeChannel final : public ITransportChannel {
 public:
  /// `localPipe` names the pipe that is read, `remotePipe` the one that is written, both without
  /// the system's prefix.
  PipeChannel(TQ::platform::PipeEnd readEnd, TQ::platform::PipeEnd writeEnd, std::string localPipe,
              std::string remotePipe);

  bool CheckValid() const override { return true; }
  int32_t Receive(void* buffer, uint32_t length, const TQ::detail::StopFlag* stopFlag) override;
  int32_t Receive(void* buffer, uint32_t length) override;
  int32_t Send(const void* buffer, uint32_t length) override;
  std::string GetRemoteAddress() const override { return remoteName; }
  std::string GetLocalAddress() const override { return localName; }
  int32_t WaitForData(uint32_t /*timeoutMs*/) override { return 1; }
  int32_t WaitForData() override { return 1; }
  void Wakeup() override {}

 private:
  ~PipeChannel() override;

  bool AwaitRead(const TQ::detail::StopFlag* stopFlag);

  TQ::platform::PipeEvent readEvent;  // of the reading thread
  TQ::platform::PipeEnd readHandle;
  TQ::platform::PipeEnd writeHandle;
  // Constant after construction.
  const std::string remoteName;
  const std::string localName;
};
