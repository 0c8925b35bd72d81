#include "transport/outbound_connection.h"

#include <gtest/gtest.h>
#include <tq/tq.h>

#include <chrono>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "platform/sockets.h"
#include "session/session.h"
#include "support/channel_ends.h"
#include "support/free_port.h"
#include "support/host_conditions.h"
#include "support/log_recorder.h"
#include "support/loopback_pair.h"
#include "support/raw_peer.h"
#include "support/socket_state.h"
#include "support/system_faults.h"
#include "support/transport.h"
#include "support/wait_until.h"
#include "transport/socket_address.h"

namespace TQ::test {
namespace {

using detail::ChannelRef;
using detail::ConnectSocket;
using std::chrono::steady_clock;

/// An outgoing session of the library and the peer that it reached.
struct Connected {
  explicit Connected(const std::string& target, int32_t targetPort, RawListener& listener) {
    std::thread acceptor([&] {
      peer = listener.Accept();
      if (peer) greeting = peer->HandshakeAsAcceptor("test:1/raw");
    });
    result = TQConnect(target.c_str(), targetPort, nullptr, 0, nullptr, 0);
    acceptor.join();
  }
  ~Connected() { TQDisconnect("test:1/raw"); }

  std::optional<RawPeer> peer;
  HandshakeResult greeting;
  _tag_TQ_ERROR result;
};

// ---- targets -----------------------------------------------------------------------------------

TEST(OutboundConnection, PortZeroMakesNoSocket) {
  LogRecorder log;
  const int before = SocketsMade();
  EXPECT_FALSE(ConnectSocket("127.0.0.1", 0));
  EXPECT_EQ(TQConnect("127.0.0.1", 0, nullptr, 0, nullptr, 0), TQ_ERR_FAILED);
  EXPECT_EQ(SocketsMade(), before);
  EXPECT_TRUE(OpenSockets().empty());
  EXPECT_EQ(log.CountOfPrefix("Socket channel"), 0u);
}

TEST(OutboundConnection, OnlyDottedTextsAreTargets) {
  RawListener listener(FreePort());
  const uint16_t port = listener.Port();
  LogRecorder log;
  const int before = SocketsMade();
  for (const char* target : {"", "localhost", "127.0.0", "127.0.0.1.1", "127.0.0.1 ", "256.0.0.1",
                             "::1", "example.invalid"}) {
    EXPECT_FALSE(ConnectSocket(target, port)) << target;
  }
  EXPECT_EQ(TQConnect("localhost", port, nullptr, 0, nullptr, 0), TQ_ERR_FAILED);
  EXPECT_EQ(TQConnect("", port, nullptr, 0, nullptr, 0), TQ_ERR_FAILED);
  EXPECT_EQ(SocketsMade(), before);
  EXPECT_EQ(log.CountOfPrefix("Socket channel"), 0u) << log.Dump();
}

TEST(OutboundConnection, PipeTargetReachesNobody) {
  RawListener listener(FreePort());
  const std::string target = "\\" + PipeName(listener.Port());
  EXPECT_EQ(TQConnect(target.c_str(), listener.Port(), nullptr, 0, nullptr, 0), TQ_ERR_FAILED);
  EXPECT_FALSE(listener.Accept(std::chrono::milliseconds{0})) << "its port counts for nothing";
}

TEST(OutboundConnection, SixteenBitsOfThePortCount) {
  RawListener listener(FreePort());
  const Connected connected("127.0.0.1", 0x10000 + listener.Port(), listener);
  EXPECT_EQ(connected.result, TQ_ERR_OK);
  EXPECT_TRUE(connected.greeting.Completed()) << connected.greeting.failure;
  const int before = SocketsMade();
  EXPECT_EQ(TQConnect("127.0.0.1", 0x10000, nullptr, 0, nullptr, 0), TQ_ERR_FAILED);
  EXPECT_EQ(SocketsMade(), before);
}

// ---- success -----------------------------------------------------------------------------------

TEST(OutboundConnection, ChannelReachesThePeer) {
  RawListener listener(FreePort());
  LogRecorder log;
  const ChannelRef channel = ConnectSocket("127.0.0.1", listener.Port());
  ASSERT_TRUE(channel.IsValid());
  auto peer = listener.Accept();
  ASSERT_TRUE(peer);
  EXPECT_EQ(channel->GetRemoteAddress(), peer->LocalAddress());
  EXPECT_EQ(channel->GetLocalAddress(), peer->RemoteAddress());
  EXPECT_EQ(SendBytes(*channel, Pattern(100)), 100);
  EXPECT_EQ(peer->ReceiveExactly(100), Pattern(100));
  ASSERT_TRUE(peer->SendBytes(Pattern(50)));
  EXPECT_EQ(ReceiveBytes(*channel, 50), Pattern(50));
  // The channel's own line is the only one.
  EXPECT_EQ(log.Lines().size(), 1u) << log.Dump();
  EXPECT_EQ(log.CountOfPrefix("Socket channel("), 1u);
}

TEST(OutboundConnection, SocketIsConfiguredAsAnAcceptedOne) {
  RawListener listener(FreePort());
  const ChannelRef channel = ConnectSocket("127.0.0.1", listener.Port());
  ASSERT_TRUE(channel);
  platform::Handle connected = platform::NO_HANDLE;
  for (const platform::Handle socket : OpenSockets()) {
    if (IsStream(socket) && platform::RemotePort(socket) == listener.Port()) connected = socket;
    EXPECT_FALSE(IsInheritable(socket));
  }
  ASSERT_NE(connected, platform::NO_HANDLE);
  EXPECT_TRUE(SendsWithoutDelay(connected));
  EXPECT_TRUE(IsNonBlocking(connected));
  EXPECT_EQ(ReceiveBufferSize(connected), ReportedBufferSize(0x10000));
  EXPECT_EQ(SendBufferSize(connected), ReportedBufferSize(0x10000));
  EXPECT_FALSE(ReusesAddress(connected));
}

TEST(OutboundConnection, HandshakesResultIsTheResult) {
  RawListener listener(FreePort());
  const Connected connected("127.0.0.1", listener.Port(), listener);
  EXPECT_EQ(connected.result, TQ_ERR_OK);
  EXPECT_TRUE(connected.greeting.Completed()) << connected.greeting.failure;
  EXPECT_TRUE(connected.greeting.digestMatches);
}

TEST(OutboundConnection, FailedHandshakeClosesTheChannel) {
  RawListener listener(FreePort());
  std::optional<RawPeer> peer;
  std::thread acceptor([&] {
    peer = listener.Accept();
    ASSERT_TRUE(peer);
    // The digest is read, and the second name never comes.
    HandshakeOptions options;
    options.stopAfterStep = 4;
    EXPECT_EQ(peer->HandshakeAsAcceptor("test:1/raw", {}, options).stepsDone, 4);
    peer->ShutdownWrite();
    EXPECT_TRUE(peer->WaitClosed());
  });
  EXPECT_EQ(TQConnect("127.0.0.1", listener.Port(), nullptr, 0, nullptr, 0), TQ_ERR_NAME_REJECTED);
  acceptor.join();
  EXPECT_TRUE(WaitUntil([] { return DEBUG_TQObjectCount().sessions == 0; }));
}

TEST(OutboundConnection, SeveralThreadsMayConnectAtTheSameTime) {
  RawListener listener(FreePort());
  std::vector<ChannelRef> channels(8);
  std::vector<std::thread> threads;
  for (ChannelRef& channel : channels) {
    threads.emplace_back([&] { channel = ConnectSocket("127.0.0.1", listener.Port()); });
  }
  for (std::thread& thread : threads) thread.join();
  for (const ChannelRef& channel : channels) {
    EXPECT_TRUE(channel.IsValid());
    EXPECT_TRUE(listener.Accept());
  }
}

TEST(OutboundConnection, WorksWithDescriptorsAboveTheOldSetLimitAndUnderSignals) {
  const DescriptorsInUse used(1100);
  RawListener listener(FreePort());
  const SignalStorm storm;
  for (int i = 0; i < 20; ++i) {
    const ChannelRef channel = ConnectSocket("127.0.0.1", listener.Port());
    ASSERT_TRUE(channel.IsValid());
    auto peer = listener.Accept();
    ASSERT_TRUE(peer);
    EXPECT_EQ(SendBytes(*channel, Pattern(10)), 10);
    EXPECT_EQ(peer->ReceiveExactly(10), Pattern(10));
  }
}

// ---- failure -----------------------------------------------------------------------------------

TEST(OutboundConnection, NoSocketIsNoChannel) {
  RawListener listener(FreePort());
  LogRecorder log;
  const NoMoreDescriptors none;
  EXPECT_FALSE(ConnectSocket("127.0.0.1", listener.Port()));
  EXPECT_TRUE(log.Lines().empty()) << log.Dump();
}

// Refused at once, or connected at first sight and then failing in the handshake.
TEST(OutboundConnection, RefusedConnectionFails) {
  const uint16_t port = FreePort();
  {
    const ChannelRef channel = ConnectSocket("127.0.0.1", port);
    uint8_t byte = 0;
    EXPECT_TRUE(!channel || channel->Receive(&byte, 1) == -1);
  }
  EXPECT_EQ(TQConnect("127.0.0.1", port, nullptr, 0, nullptr, 0), TQ_ERR_FAILED);
  EXPECT_TRUE(WaitUntil([] { return DEBUG_TQObjectCount().sessions == 0; }));
  EXPECT_TRUE(WaitUntil([] { return OpenSockets().empty(); }));
}

TEST(OutboundConnection, ConnectThatFailsAtOnceClosesItsSocketAndLogsNothing) {
  RawListener listener(FreePort());
  const size_t before = OpenSockets().size();
  LogRecorder log;
  (void)TakePollLimits();
  FailCalls(SystemCall::CONNECT, 1);
  EXPECT_FALSE(ConnectSocket("127.0.0.1", listener.Port()));
  EXPECT_EQ(FailedCalls(SystemCall::CONNECT), 1);
  EXPECT_TRUE(TakePollLimits().empty()) << "only a connection under way is waited for";
  EXPECT_EQ(OpenSockets().size(), before);
  EXPECT_TRUE(log.Lines().empty()) << log.Dump();
}

TEST(OutboundConnection, FailedWaitEndsTheWaitingAtOnce) {
  RawListener listener(FreePort());
  const size_t before = OpenSockets().size();
  LogRecorder log;
  (void)TakePollLimits();
  FailCalls(SystemCall::POLL, 2);
  EXPECT_FALSE(ConnectSocket("127.0.0.1", listener.Port()));
  const std::vector<int64_t> limits = TakePollLimits();
  ASSERT_EQ(limits.size(), 1u);
  EXPECT_LE(limits[0], 2001000);
  EXPECT_GT(limits[0], 1000000);
  EXPECT_EQ(OpenSockets().size(), before);
  EXPECT_TRUE(log.Lines().empty()) << log.Dump();
}

// A listener whose backlog is full answers nothing.
TEST(OutboundConnection, PeerThatDoesNotAnswerIsGivenUpAfterTwoWaits) {
  const uint16_t port = FreePort();
  const auto listener = TQ::platform::CreateStreamSocket();
  const auto area = detail::MakeSocketAddress("127.0.0.1", port);
  ASSERT_TRUE(TQ::platform::BindSocket(listener, area.data(), 128));
  ASSERT_TRUE(TQ::platform::ListenOnSocket(listener, 0));
  std::vector<RawPeer> waiting;
  bool full = false;
  for (int i = 0; i < 10 && !full; ++i) {
    const auto handle = platform::Connect(port, std::chrono::milliseconds{200});
    full = handle == platform::NO_HANDLE;
    if (!full) waiting.emplace_back(handle);
  }
  ASSERT_TRUE(full);
  const size_t before = OpenSockets().size();
  LogRecorder log;
  (void)TakePollLimits();
  const auto start = steady_clock::now();
  EXPECT_FALSE(ConnectSocket("127.0.0.1", port));
  EXPECT_GE(ElapsedMs(start), 4002);
  EXPECT_EQ(TakePollLimits().size(), 2u);
  EXPECT_EQ(OpenSockets().size(), before);
  EXPECT_TRUE(log.Lines().empty()) << log.Dump();
  TQ::platform::CloseSocket(listener);
}

}  // namespace
}  // namespace TQ::test
