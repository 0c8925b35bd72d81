#include "transport/outbound_connection.h"

#include <gtest/gtest.h>
#include <tq/tq.h>

#include <chrono>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "platform/sockets.h"
#include "session/session.h"
#include "support/channel_ends.h"
#include "support/free_port.h"
#include "support/host_conditions.h"
#include "support/log_recorder.h"
#include "support/loopback_pair.h"
#include "support/platform.h"
#include "support/raw_peer.h"
#include "support/socket_state.h"
#include "support/system_faults.h"
#include "support/transport.h"
#include "support/wait_until.h"
#include "transport/socket_address.h"

namespace TQ::test {
namespace {

using detail::ChannelRef;
using detail::ConnectPipe;
using detail::ConnectSocket;
using std::chrono::steady_clock;
using Texts = std::vector<std::string>;

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

// ---- pipes -------------------------------------------------------------------------------------

/// A pair of pipes that waits for one peer.
class RawPipes final {
 public:
  explicit RawPipes(const std::string& pipeName)
      : name(pipeName),
        inbound(platform::ListenPipe(name + "_in")),
        outbound(platform::ListenPipe(name + "_out")) {}
  RawPipes() : RawPipes(PipeName(FreePort())) {}
  ~RawPipes() {
    CloseInbound();
    CloseOutbound();
  }
  RawPipes(const RawPipes&) = delete;
  RawPipes& operator=(const RawPipes&) = delete;

  const std::string& Name() const { return name; }
  std::string Target() const { return "\\" + name; }

  void CloseInbound() { platform::CloseSocket(std::exchange(inbound, platform::NO_HANDLE)); }
  void CloseOutbound() { platform::CloseSocket(std::exchange(outbound, platform::NO_HANDLE)); }

  /// The pipe that the connecting side writes to, which the caller closes.
  platform::Handle AcceptInbound() {
    const platform::Handle accepted = platform::AcceptPipe(inbound, DEFAULT_DEADLINE);
    CloseInbound();
    return accepted;
  }

  std::optional<RawPeer> Accept() {
    const platform::Handle read = AcceptInbound();
    const platform::Handle write = platform::AcceptPipe(outbound, DEFAULT_DEADLINE);
    CloseOutbound();
    RawPeer peer(read, write, Target() + "_in", Target() + "_out");
    if (read == platform::NO_HANDLE || write == platform::NO_HANDLE) return std::nullopt;
    return peer;
  }

 private:
  const std::string name;
  platform::Handle inbound;
  platform::Handle outbound;
};

std::string FirstLine(const std::string& target) {
  return R"(Waiting named pipe\\.\pipe\)" + target + "_in";
}

std::string SecondLine(const std::string& target) {
  return R"(Waiting named pipe \\.\pipe\)" + target + "_out";
}

constexpr char FAILURE_LINE[] = "Waiting named pipe done";

/// All lines but those of a session's own end.
void ExpectInfoLines(const LogRecorder& log, const Texts& texts) {
  Texts own;
  for (const LogLine& line : log.Lines()) {
    if (line.text.find("TQAPPImpl::~TQAPPImpl()") != std::string::npos) continue;
    own.push_back(line.text);
    EXPECT_EQ(line.level, TQ_LOG_INFO) << line.text;
  }
  EXPECT_EQ(own, texts);
}

TEST(OutboundPipe, ChannelReachesThePeerAndWritesTwoLines) {
  RawPipes pipes;
  LogRecorder log;
  ChannelRef channel;
  std::thread connector([&] { channel = ConnectPipe(pipes.Target()); });
  auto peer = pipes.Accept();
  connector.join();
  ASSERT_TRUE(peer);
  ASSERT_TRUE(channel.IsValid());
  EXPECT_EQ(channel->GetLocalAddress(), "\\" + pipes.Name() + "_out");
  EXPECT_EQ(channel->GetRemoteAddress(), "\\" + pipes.Name() + "_in");
  EXPECT_EQ(SendBytes(*channel, Pattern(100)), 100);
  EXPECT_EQ(peer->ReceiveExactly(100), Pattern(100));
  ASSERT_TRUE(peer->SendBytes(Pattern(50)));
  EXPECT_EQ(ReceiveBytes(*channel, 50), Pattern(50));
  ExpectInfoLines(log, {FirstLine("\\" + pipes.Name()), SecondLine("\\" + pipes.Name())});
}

TEST(OutboundPipe, TargetStandsInLinesAndAddressesAsItIs) {
  RawPipes pipes;
  const std::string target = R"(\\\)" + pipes.Name();
  LogRecorder log;
  ChannelRef channel;
  std::thread connector([&] { channel = ConnectPipe(target); });
  EXPECT_TRUE(pipes.Accept());
  connector.join();
  ASSERT_TRUE(channel.IsValid());
  EXPECT_EQ(channel->GetLocalAddress(), target + "_out");
  EXPECT_EQ(channel->GetRemoteAddress(), target + "_in");
  EXPECT_EQ(log.Texts(), (Texts{R"(Waiting named pipe\\.\pipe\\\\)" + pipes.Name() + "_in",
                                R"(Waiting named pipe \\.\pipe\\\\)" + pipes.Name() + "_out"}));
}

TEST(OutboundPipe, FirstPipeIsOpenBeforeTheSecondIsLookedFor) {
  RawPipes pipes;
  LogRecorder log;
  ChannelRef channel;
  std::thread connector([&] { channel = ConnectPipe(pipes.Target()); });
  // Nobody takes the first, and so the second is not even told of.
  EXPECT_TRUE(log.WaitFor(TQ_LOG_INFO, FirstLine("\\" + pipes.Name())));
  std::this_thread::sleep_for(std::chrono::milliseconds{50});
  EXPECT_EQ(log.Lines().size(), 1u);
  auto peer = pipes.Accept();
  connector.join();
  EXPECT_TRUE(peer);
  EXPECT_TRUE(channel);
}

TEST(OutboundPipe, PortOfAPipeTargetIsIgnored) {
  for (const int32_t port : {0, 20000, -1}) {
    RawPipes pipes;
    std::optional<RawPeer> peer;
    HandshakeResult greeting;
    std::thread acceptor([&] {
      peer = pipes.Accept();
      if (peer) greeting = peer->HandshakeAsAcceptor("test:1/raw");
    });
    EXPECT_EQ(TQConnect(pipes.Target().c_str(), port, nullptr, 0, nullptr, 0), TQ_ERR_OK) << port;
    acceptor.join();
    EXPECT_TRUE(greeting.Completed()) << greeting.failure;
    EXPECT_TRUE(greeting.digestMatches);
    EXPECT_TRUE(OpenSockets().empty());
    TQDisconnect("test:1/raw");
    EXPECT_TRUE(WaitUntil([] { return DEBUG_TQObjectCount().sessions == 0; }));
  }
}

TEST(OutboundPipe, FailedHandshakeClosesBothPipes) {
  RawPipes pipes;
  std::thread acceptor([&] {
    auto peer = pipes.Accept();
    ASSERT_TRUE(peer);
    // The digest is read, and the second name never comes.
    HandshakeOptions options;
    options.stopAfterStep = 4;
    EXPECT_EQ(peer->HandshakeAsAcceptor("test:1/raw", {}, options).stepsDone, 4);
    peer->ShutdownWrite();
    EXPECT_TRUE(peer->WaitClosed());
  });
  EXPECT_EQ(TQConnect(pipes.Target().c_str(), 0, nullptr, 0, nullptr, 0), TQ_ERR_NAME_REJECTED);
  acceptor.join();
  EXPECT_TRUE(WaitUntil([] { return DEBUG_TQObjectCount().sessions == 0; }));
  EXPECT_TRUE(WaitUntil([] { return platform::OpenPipeEnds().empty(); }));
}

TEST(OutboundPipe, ListenerMayComeLater) {
  const std::string name = PipeName(FreePort());
  const int before = SocketsMade();
  ChannelRef channel;
  std::thread connector([&] { channel = ConnectPipe("\\" + name); });
  EXPECT_TRUE(WaitUntil([&] { return SocketsMade() >= before + 2; }));
  RawPipes pipes(name);
  EXPECT_TRUE(pipes.Accept());
  connector.join();
  EXPECT_TRUE(channel);
}

TEST(OutboundPipe, SeveralThreadsMayConnectAtTheSameTime) {
  const std::string name = PipeName(FreePort());
  std::vector<ChannelRef> channels(8);
  std::vector<std::thread> threads;
  for (ChannelRef& channel : channels) {
    threads.emplace_back([&] {
      channel = ConnectPipe("\\" + name);
      EXPECT_TRUE(channel && SendBytes(*channel, {7}) == 1);
    });
  }
  std::vector<RawPeer> peers;
  for (size_t i = 0; i < channels.size(); ++i) {
    RawPipes pipes(name);
    auto peer = pipes.Accept();
    EXPECT_TRUE(peer);
    if (!peer) break;
    EXPECT_EQ(peer->ReceiveExactly(1), Bytes{7});
    peers.push_back(std::move(*peer));
  }
  for (std::thread& thread : threads) thread.join();
  for (const ChannelRef& channel : channels) EXPECT_TRUE(channel.IsValid());
}

TEST(OutboundPipe, WorksWithDescriptorsAboveTheOldSetLimitAndUnderSignals) {
  const DescriptorsInUse used(1100);
  const SignalStorm storm;
  for (int i = 0; i < 20; ++i) {
    RawPipes pipes;
    ChannelRef channel;
    std::thread connector([&] { channel = ConnectPipe(pipes.Target()); });
    auto peer = pipes.Accept();
    connector.join();
    ASSERT_TRUE(peer);
    ASSERT_TRUE(channel.IsValid());
    EXPECT_EQ(SendBytes(*channel, Pattern(10)), 10);
    EXPECT_EQ(peer->ReceiveExactly(10), Pattern(10));
  }
}

TEST(OutboundPipe, WithoutAListenerItFailsAfterTenSecondsAndSaysSo) {
  const std::string target = "\\" + PipeName(FreePort());
  LogRecorder log;
  const auto start = steady_clock::now();
  EXPECT_EQ(TQConnect(target.c_str(), 1, nullptr, 0, nullptr, 0), TQ_ERR_FAILED);
  EXPECT_GE(ElapsedMs(start), 10000);
  ExpectInfoLines(log, {FirstLine(target), FAILURE_LINE});
  EXPECT_TRUE(WaitUntil([] { return DEBUG_TQObjectCount().sessions == 0; }));
}

TEST(OutboundPipe, WithoutASecondPipeTheFirstIsClosedAfterTenSeconds) {
  RawPipes pipes;
  pipes.CloseOutbound();
  LogRecorder log;
  ChannelRef channel;
  const auto start = steady_clock::now();
  std::thread connector([&] { channel = ConnectPipe(pipes.Target()); });
  RawPeer inbound(pipes.AcceptInbound());
  EXPECT_TRUE(inbound.WaitClosed());
  connector.join();
  EXPECT_GE(ElapsedMs(start), 10000);
  EXPECT_FALSE(channel);
  ExpectInfoLines(log, {FirstLine(pipes.Target()), SecondLine(pipes.Target()), FAILURE_LINE});
}

TEST(OutboundPipe, ListenerThatGoesBetweenTheTwoPipesFailsTheConnectAtOnce) {
  RawPipes pipes;
  LogRecorder log;
  _tag_TQ_ERROR result = TQ_ERR_OK;
  const int before = SocketsMade();
  std::thread connector(
      [&] { result = TQConnect(pipes.Target().c_str(), 0, nullptr, 0, nullptr, 0); });
  const platform::Handle inbound = pipes.AcceptInbound();
  EXPECT_TRUE(log.WaitFor(TQ_LOG_INFO, SecondLine(pipes.Target())));
  platform::CloseSocket(inbound);
  pipes.CloseOutbound();
  connector.join();
  EXPECT_EQ(result, TQ_ERR_FAILED);
  ExpectInfoLines(log, {FirstLine(pipes.Target()), SecondLine(pipes.Target()), FAILURE_LINE});
  EXPECT_EQ(SocketsMade(), before + 2) << "one attempt for each pipe";
  EXPECT_TRUE(platform::OpenPipeEnds().empty());
}

TEST(OutboundPipe, EmptyNameIsNotWaitedFor) {
  LogRecorder log;
  const int before = SocketsMade();
  EXPECT_FALSE(ConnectPipe(""));
  EXPECT_EQ(SocketsMade(), before);
  ExpectInfoLines(log, {FirstLine(""), FAILURE_LINE});
}

}  // namespace
}  // namespace TQ::test
