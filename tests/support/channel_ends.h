// The two ends of a connection of which the near one is a channel of the library and the far one is
// the test's own. Each transport has such a class; the suite of transport/channel_suite.h and the
// transport's own tests use it.
//
//   SocketEnds ends;
//   ends.FarSend(Pattern(100));
//   EXPECT_EQ(ReceiveBytes(ends.Channel(), 100), Pattern(100));
#pragma once

#include <tq/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>

#include "frame/settings.h"
#include "platform/pipes.h"
#include "support/bytes.h"
#include "support/free_port.h"
#include "support/loopback_pair.h"
#include "support/raw_peer.h"
#include "support/transport.h"
#include "transport/pipe_channel.h"
#include "transport/socket_channel.h"

namespace TQ::test {

/// A channel over one end of a TCP connection.
class SocketEnds final {
 public:
  /// The least time after which a read without a flag gives a silent peer up.
  static int64_t SilenceMs(uint32_t ioTimeoutMs) { return (ioTimeoutMs + 1999) / 2000 * 1000 + 1; }

  /// `bufferSize` as for LoopbackPair.
  explicit SocketEnds(int bufferSize = 0)
      : pair(bufferSize),
        nearAddress(pair.NearAddress()),
        farAddress(pair.FarAddress()),
        handle(pair.Near()),
        far(pair.TakeFar()),
        channel(new SocketChannel(pair.TakeNear())) {}

  ITransportChannel& Channel() { return *channel; }
  const detail::ChannelRef& Ref() const { return channel; }

  /// Gives up the reference to the channel that this object holds.
  void DropChannel() { channel.Reset(); }

  bool FarSend(const Bytes& bytes) { return far.SendBytes(bytes); }
  std::optional<Bytes> FarReceive(size_t count) { return far.ReceiveExactly(count); }
  bool FarStaysSilentFor(std::chrono::milliseconds time) { return far.StaysSilentFor(time); }
  bool FarSeesClose() { return far.WaitClosed(); }
  void FarClose() { far.Close(); }

  // What only a socket has.
  RawPeer& Far() { return far; }
  platform::Handle NearHandle() const { return handle; }
  const std::string& NearAddress() const { return nearAddress; }
  const std::string& FarAddress() const { return farAddress; }

 private:
  LoopbackPair pair;
  const std::string nearAddress;
  const std::string farAddress;
  const platform::Handle handle;
  RawPeer far;
  detail::ChannelRef channel;
};

/// A channel over one end of a pair of pipes, as a connecting side makes it.
class PipeEnds final {
 public:
  static int64_t SilenceMs(uint32_t ioTimeoutMs) { return ioTimeoutMs; }

  PipeEnds() : name(PipeName(FreePort())), far(Connect()) {}

  ITransportChannel& Channel() { return *channel; }
  const detail::ChannelRef& Ref() const { return channel; }
  void DropChannel() { channel.Reset(); }

  bool FarSend(const Bytes& bytes) { return far.SendBytes(bytes); }
  std::optional<Bytes> FarReceive(size_t count) { return far.ReceiveExactly(count); }
  bool FarStaysSilentFor(std::chrono::milliseconds time) { return far.StaysSilentFor(time); }
  bool FarSeesClose() { return far.WaitClosed(); }
  void FarClose() { far.Close(); }

  // What only a pair of pipes has.
  RawPeer& Far() { return far; }
  TQ::platform::PipeHandle ReadHandle() const { return readHandle; }
  TQ::platform::PipeHandle WriteHandle() const { return writeHandle; }
  const std::string& Name() const { return name; }

 private:
  RawPeer Connect() {
    const platform::Handle inbound = platform::ListenPipe(name + "_in");
    const platform::Handle outbound = platform::ListenPipe(name + "_out");
    platform::Handle farRead = platform::NO_HANDLE;
    platform::Handle farWrite = platform::NO_HANDLE;
    std::thread acceptor([&] {
      farRead = platform::AcceptPipe(inbound, DEFAULT_DEADLINE);
      farWrite = platform::AcceptPipe(outbound, DEFAULT_DEADLINE);
    });
    const std::string path = TQ::platform::PIPE_PREFIX + name;
    auto writeEnd =
        TQ::platform::OpenPipeEnd(path + "_in", TQ::platform::PipeAccess::WRITE, nullptr);
    auto readEnd =
        TQ::platform::OpenPipeEnd(path + "_out", TQ::platform::PipeAccess::READ, &writeEnd);
    acceptor.join();
    platform::CloseSocket(inbound);
    platform::CloseSocket(outbound);
    if (!writeEnd.IsOpen() || !readEnd.IsOpen()) throw std::runtime_error("PipeEnds: no pipes");
    readHandle = readEnd.Handle();
    writeHandle = writeEnd.Handle();
    channel = detail::ChannelRef(new PipeChannel(std::move(readEnd), std::move(writeEnd),
                                                 "\\" + name + "_out", "\\" + name + "_in"));
    return RawPeer(farRead, farWrite, name + "_in", name + "_out");
  }

  const std::string name;
  TQ::platform::PipeHandle readHandle = TQ::platform::NO_PIPE;
  TQ::platform::PipeHandle writeHandle = TQ::platform::NO_PIPE;
  detail::ChannelRef channel;
  RawPeer far;
};

/// Exactly `count` bytes within the channel's own limit; nullopt if the read fails.
inline std::optional<Bytes> ReceiveBytes(ITransportChannel& channel, size_t count) {
  Bytes bytes(count);
  const int32_t result = channel.Receive(bytes.data(), static_cast<uint32_t>(count));
  if (result != static_cast<int32_t>(count)) return std::nullopt;
  return bytes;
}

inline int32_t SendBytes(ITransportChannel& channel, const Bytes& bytes) {
  return channel.Send(bytes.data(), static_cast<uint32_t>(bytes.size()));
}

/// Puts limits in force; 0 leaves one as it is.
inline void SetLimits(uint32_t ioTimeoutMs, uint32_t maxReadSize = 0) {
  _tag_TQLIMITS record{};
  record.size = sizeof record;
  record.IO_TIMEOUT_MS = ioTimeoutMs;
  record.MAX_READ_SIZE = maxReadSize;
  detail::limits.Override(record);
}

inline int64_t ElapsedMs(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() -
                                                               start)
      .count();
}

}  // namespace TQ::test
