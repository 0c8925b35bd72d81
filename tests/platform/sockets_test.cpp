#include "platform/sockets.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "support/bytes.h"
#include "support/child_process.h"
#include "support/free_port.h"
#include "support/host_conditions.h"
#include "support/loopback_pair.h"
#include "support/raw_peer.h"
#include "support/socket_state.h"
#include "support/wait_until.h"

namespace TQ::test {
namespace {

namespace seam = TQ::platform;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr int64_t MILLISECOND = 1000;
constexpr int64_t LONG_WAIT = 20 * 1000 * MILLISECOND;

using Area = std::array<uint8_t, seam::SOCKET_ADDRESS_AREA_SIZE>;

Area LoopbackArea(uint16_t port) {
  Area area{};
  area[0] = 2;
  area[2] = static_cast<uint8_t>(port >> 8);
  area[3] = static_cast<uint8_t>(port);
  area[4] = 127;
  area[7] = 1;
  return area;
}

int64_t ElapsedMs(steady_clock::time_point start) {
  return std::chrono::duration_cast<milliseconds>(steady_clock::now() - start).count();
}

// A socket of the seam, closed at the end.
struct Socket {
  explicit Socket(seam::SocketHandle made) : handle(made) {}
  ~Socket() {
    if (handle != seam::NO_SOCKET) seam::CloseSocket(handle);
  }
  Socket(const Socket&) = delete;
  Socket& operator=(const Socket&) = delete;

  seam::SocketHandle handle;
};

// Two datagram sockets of this process, each connected to the other.
struct DatagramPair {
  DatagramPair() : left(seam::CreateDatagramSocket()), right(seam::CreateDatagramSocket()) {
    for (const seam::SocketHandle handle : {left.handle, right.handle}) {
      const Area any = LoopbackArea(0);
      EXPECT_TRUE(seam::BindSocket(handle, any.data(), seam::SOCKET_ADDRESS_SIZE));
      seam::SetNonBlocking(handle);
    }
    int32_t length = 0;
    EXPECT_TRUE(seam::GetLocalAddress(left.handle, leftAddress.data(), &length));
    EXPECT_TRUE(seam::GetLocalAddress(right.handle, rightAddress.data(), &length));
    EXPECT_EQ(seam::ConnectSocket(left.handle, rightAddress.data(), 16).count, 0);
    EXPECT_EQ(seam::ConnectSocket(right.handle, leftAddress.data(), 16).count, 0);
  }

  Socket left;
  Socket right;
  std::array<uint8_t, 16> leftAddress{};
  std::array<uint8_t, 16> rightAddress{};
};

// Writes until the socket takes no more.
void Fill(seam::SocketHandle socket) {
  const Bytes chunk(65536);
  while (seam::SendBytes(socket, chunk.data(), 65536).count > 0) {
  }
}

// ---- making sockets ----------------------------------------------------------------------------

TEST(Sockets, WouldBlockIsTheCodeOfTheSystem) { EXPECT_EQ(seam::WOULD_BLOCK, WOULD_BLOCK_CODE); }

TEST(Sockets, StreamSocketIsBlockingUninheritedAndWithoutOptions) {
  const Socket made(seam::CreateStreamSocket());
  ASSERT_NE(made.handle, seam::NO_SOCKET);
  EXPECT_TRUE(IsStream(made.handle));
  EXPECT_FALSE(IsInheritable(made.handle));
  EXPECT_FALSE(IsNonBlocking(made.handle));
  EXPECT_FALSE(ReusesAddress(made.handle));
  EXPECT_FALSE(ReusesPort(made.handle));
  EXPECT_FALSE(SendsWithoutDelay(made.handle));
}

TEST(Sockets, DatagramSocketIsBlockingAndUninherited) {
  const Socket made(seam::CreateDatagramSocket());
  ASSERT_NE(made.handle, seam::NO_SOCKET);
  EXPECT_FALSE(IsStream(made.handle));
  EXPECT_FALSE(IsInheritable(made.handle));
  EXPECT_FALSE(IsNonBlocking(made.handle));
  EXPECT_FALSE(ReusesAddress(made.handle));
}

TEST(Sockets, NothingIsMadeWhenDescriptorsAreExhausted) {
  const NoMoreDescriptors none;
  EXPECT_EQ(seam::CreateStreamSocket(), seam::NO_SOCKET);
  EXPECT_EQ(seam::CreateDatagramSocket(), seam::NO_SOCKET);
}

TEST(Sockets, ClosedSocketIsGone) {
  const seam::SocketHandle made = seam::CreateStreamSocket();
  EXPECT_EQ(OpenSockets(), std::vector<platform::Handle>{made});
  seam::CloseSocket(made);
  EXPECT_TRUE(OpenSockets().empty());
}

TEST(Sockets, OptionsAreSet) {
  const Socket made(seam::CreateStreamSocket());
  seam::SetNonBlocking(made.handle);
  EXPECT_TRUE(IsNonBlocking(made.handle));
  seam::SetNoDelay(made.handle);
  EXPECT_TRUE(SendsWithoutDelay(made.handle));
  seam::SetReceiveBufferSize(made.handle, 0x10000);
  EXPECT_EQ(ReceiveBufferSize(made.handle), ReportedBufferSize(0x10000));
  seam::SetSendBufferSize(made.handle, 0x8000);
  EXPECT_EQ(SendBufferSize(made.handle), ReportedBufferSize(0x8000));
}

TEST(Sockets, OptionsOfNoSocketAreNoFailure) {
  seam::SetNonBlocking(seam::NO_SOCKET);
  seam::SetNoDelay(seam::NO_SOCKET);
  seam::SetReceiveBufferSize(seam::NO_SOCKET, 1);
  seam::SetSendBufferSize(seam::NO_SOCKET, 1);
}

TEST(Sockets, StartAndStopMayBeRepeated) {
  seam::StartSockets();
  seam::StartSockets();
  seam::StopSockets();
  const Socket made(seam::CreateStreamSocket());
  EXPECT_NE(made.handle, seam::NO_SOCKET);
  seam::StopSockets();
}

TQ_TEST_ROLE(listSockets) {
  Say("sockets " + std::to_string(OpenSockets().size()));
  return 0;
}

TEST(Sockets, StartedProgramGetsNone) {
  const uint16_t port = FreePort();
  const Socket listener(seam::CreateStreamSocket());
  ASSERT_TRUE(seam::BindSocket(listener.handle, LoopbackArea(port).data(), 128));
  ASSERT_TRUE(seam::ListenOnSocket(listener.handle, 5));
  auto peer = RawPeer::TryConnect(port);
  ASSERT_TRUE(peer);
  std::array<uint8_t, 16> address{};
  const Socket accepted(seam::AcceptConnection(listener.handle, address.data()));
  const Socket datagram(seam::CreateDatagramSocket());
  ASSERT_EQ(OpenSockets().size(), 4u);
  ChildProcess child("listSockets");
  EXPECT_TRUE(child.ExpectLine("sockets 0"));
  EXPECT_TRUE(child.ExpectSuccess());
}

// ---- addresses ---------------------------------------------------------------------------------

TEST(Sockets, BindTakesTheWholeAreaAndTellsItsAddress) {
  const uint16_t port = FreePort();
  const Socket made(seam::CreateStreamSocket());
  ASSERT_TRUE(seam::BindSocket(made.handle, LoopbackArea(port).data(), 128));
  std::array<uint8_t, 16> address;
  address.fill(0xEE);
  int32_t length = 0;
  ASSERT_TRUE(seam::GetLocalAddress(made.handle, address.data(), &length));
  EXPECT_EQ(length, 16);
  EXPECT_TRUE(std::equal(address.begin(), address.end(), LoopbackArea(port).begin()));
}

TEST(Sockets, BindToAPortInUseFails) {
  const uint16_t port = FreePort();
  const RawListener holder(port);
  const Socket made(seam::CreateStreamSocket());
  EXPECT_FALSE(seam::BindSocket(made.handle, LoopbackArea(port).data(), 128));
}

TEST(Sockets, OperationsOnNoSocketFail) {
  const Area area = LoopbackArea(FreePort());
  std::array<uint8_t, 128> scratch{};
  int32_t length = 0;
  EXPECT_FALSE(seam::BindSocket(seam::NO_SOCKET, area.data(), 128));
  EXPECT_FALSE(seam::ListenOnSocket(seam::NO_SOCKET, 5));
  EXPECT_EQ(seam::AcceptConnection(seam::NO_SOCKET, scratch.data()), seam::NO_SOCKET);
  EXPECT_FALSE(seam::GetPeerAddress(seam::NO_SOCKET, scratch.data()));
  EXPECT_FALSE(seam::GetLocalAddress(seam::NO_SOCKET, scratch.data(), &length));
  EXPECT_EQ(seam::ConnectSocket(seam::NO_SOCKET, area.data(), 128).error, BAD_HANDLE_CODE);
  EXPECT_EQ(seam::ReceiveBytes(seam::NO_SOCKET, scratch.data(), 1).error, BAD_HANDLE_CODE);
  EXPECT_EQ(seam::SendBytes(seam::NO_SOCKET, scratch.data(), 1).error, BAD_HANDLE_CODE);
}

TEST(Sockets, ConnectionHasBothAddresses) {
  LoopbackPair pair;
  std::array<uint8_t, 16> own{};
  std::array<uint8_t, 16> peer{};
  int32_t length = 0;
  ASSERT_TRUE(seam::GetLocalAddress(pair.Near(), own.data(), &length));
  ASSERT_TRUE(seam::GetPeerAddress(pair.Near(), peer.data()));
  const Area expectedOwn = LoopbackArea(platform::LocalPort(pair.Near()));
  const Area expectedPeer = LoopbackArea(platform::LocalPort(pair.Far()));
  EXPECT_TRUE(std::equal(own.begin(), own.end(), expectedOwn.begin()));
  EXPECT_TRUE(std::equal(peer.begin(), peer.end(), expectedPeer.begin()));
}

TEST(Sockets, UnconnectedSocketHasNoPeerAddress) {
  const Socket made(seam::CreateStreamSocket());
  std::array<uint8_t, 16> address{};
  EXPECT_FALSE(seam::GetPeerAddress(made.handle, address.data()));
}

TEST(Sockets, DottedTextsAreParsed) {
  struct Case {
    const char* text;
    Bytes bytes;
  };
  const Case cases[] = {{"127.0.0.1", {127, 0, 0, 1}},
                        {"0.0.0.0", {0, 0, 0, 0}},
                        {"255.255.255.255", {255, 255, 255, 255}},
                        {"10.20.30.40", {10, 20, 30, 40}}};
  for (const Case& example : cases) {
    Bytes bytes(4, 0xEE);
    EXPECT_TRUE(seam::ParseAddressText(example.text, bytes.data())) << example.text;
    EXPECT_EQ(bytes, example.bytes) << example.text;
    char text[seam::ADDRESS_TEXT_SIZE];
    seam::FormatAddressText(bytes.data(), text);
    EXPECT_STREQ(text, example.text);
  }
}

TEST(Sockets, OtherTextsAreNoAddressAndWriteNothing) {
  const char* const texts[] = {"",          "localhost",  "127.0.0",    "127.0.0.1.1",
                               "256.0.0.1", "127.0.0.1 ", " 127.0.0.1", "0x7f.0.0.1",
                               "::1",       "127.1",      "1.2.3.4:80", "\\pipe"};
  for (const char* text : texts) {
    Bytes bytes(4, 0xEE);
    EXPECT_FALSE(seam::ParseAddressText(text, bytes.data())) << text;
    EXPECT_EQ(bytes, Bytes(4, 0xEE)) << text;
  }
}

TEST(Sockets, HostNameIsTerminatedAndNotEmpty) {
  std::array<char, 1024> name;
  name.fill('x');
  ASSERT_TRUE(seam::GetHostName(name.data(), 1024));
  EXPECT_EQ(name.back(), '\0');
  EXPECT_GT(std::strlen(name.data()), 0u);
}

// ---- connecting and accepting ------------------------------------------------------------------

TEST(Sockets, AcceptedSocketIsBlockingAndUninheritedWhateverTheListenerIs) {
  const uint16_t port = FreePort();
  const Socket listener(seam::CreateStreamSocket());
  ASSERT_TRUE(seam::BindSocket(listener.handle, LoopbackArea(port).data(), 128));
  ASSERT_TRUE(seam::ListenOnSocket(listener.handle, 5));
  EXPECT_EQ(ListenBacklog(listener.handle), 5);
  for (const bool nonBlocking : {false, true}) {
    if (nonBlocking) seam::SetNonBlocking(listener.handle);
    auto peer = RawPeer::TryConnect(port);
    ASSERT_TRUE(peer);
    std::array<uint8_t, 16> address{};
    const Socket accepted(seam::AcceptConnection(listener.handle, address.data()));
    ASSERT_NE(accepted.handle, seam::NO_SOCKET);
    EXPECT_FALSE(IsNonBlocking(accepted.handle));
    EXPECT_FALSE(IsInheritable(accepted.handle));
    const Area expected = LoopbackArea(peer->LocalPort());
    EXPECT_TRUE(std::equal(address.begin(), address.end(), expected.begin()));
  }
}

TEST(Sockets, AcceptFailsWhenNobodyWaits) {
  const Socket listener(seam::CreateStreamSocket());
  ASSERT_TRUE(seam::BindSocket(listener.handle, LoopbackArea(FreePort()).data(), 128));
  ASSERT_TRUE(seam::ListenOnSocket(listener.handle, 5));
  seam::SetNonBlocking(listener.handle);
  std::array<uint8_t, 16> address{};
  EXPECT_EQ(seam::AcceptConnection(listener.handle, address.data()), seam::NO_SOCKET);
}

TEST(Sockets, ConnectThatIsUnderWayCountsAsWouldBlock) {
  RawListener listener(FreePort());
  const Socket made(seam::CreateStreamSocket());
  seam::SetNonBlocking(made.handle);
  const auto result = seam::ConnectSocket(made.handle, LoopbackArea(listener.Port()).data(), 128);
  EXPECT_EQ(result.count, -1);
  EXPECT_EQ(result.error, WOULD_BLOCK_CODE);
  const auto wait = seam::WaitWritable(made.handle, LONG_WAIT);
  EXPECT_EQ(wait.count, 1);
  EXPECT_TRUE(wait.firstReady);
  EXPECT_TRUE(listener.Accept());
}

TEST(Sockets, BlockingConnectSucceedsAtOnce) {
  RawListener listener(FreePort());
  const Socket made(seam::CreateStreamSocket());
  const auto result = seam::ConnectSocket(made.handle, LoopbackArea(listener.Port()).data(), 128);
  EXPECT_EQ(result.count, 0);
  EXPECT_EQ(result.error, 0);
}

TEST(Sockets, RefusedConnectionFailsAtOnceOrShowsAsWritable) {
  const Socket made(seam::CreateStreamSocket());
  seam::SetNonBlocking(made.handle);
  const auto result = seam::ConnectSocket(made.handle, LoopbackArea(FreePort()).data(), 128);
  ASSERT_EQ(result.count, -1);
  if (result.error == seam::WOULD_BLOCK) {
    EXPECT_EQ(seam::WaitWritable(made.handle, LONG_WAIT).count, 1);
  }
}

// ---- transfer ----------------------------------------------------------------------------------

TEST(Sockets, BytesTravelBothWays) {
  LoopbackPair pair;
  const Bytes sent = Pattern(1000);
  EXPECT_EQ(seam::SendBytes(pair.Near(), sent.data(), 1000).count, 1000);
  ASSERT_EQ(seam::WaitReadable(pair.Far(), seam::NO_SOCKET, LONG_WAIT).count, 1);
  Bytes received(2000);
  const auto result = seam::ReceiveBytes(pair.Far(), received.data(), 2000);
  EXPECT_EQ(result.count, 1000);
  EXPECT_EQ(result.error, 0);
  EXPECT_EQ(Prefix(received, 1000), sent);
}

TEST(Sockets, ReadOfNothingWouldBlock) {
  LoopbackPair pair;
  uint8_t byte = 0;
  const auto result = seam::ReceiveBytes(pair.Near(), &byte, 1);
  EXPECT_LT(result.count, 0);
  EXPECT_EQ(result.error, seam::WOULD_BLOCK);
}

TEST(Sockets, WriteToAFullSocketWouldBlock) {
  LoopbackPair pair(4096);
  Fill(pair.Near());
  const uint8_t byte = 0;
  // What is on its way may still make room.
  EXPECT_TRUE(WaitUntil([&] {
    Fill(pair.Near());
    const auto result = seam::SendBytes(pair.Near(), &byte, 1);
    return result.count < 0 && result.error == seam::WOULD_BLOCK;
  }));
}

TEST(Sockets, ClosedPeerReadsAsZero) {
  LoopbackPair pair;
  { RawPeer far = pair.TakeFarAsPeer(); }
  ASSERT_EQ(seam::WaitReadable(pair.Near(), seam::NO_SOCKET, LONG_WAIT).count, 1);
  uint8_t byte = 0;
  const auto result = seam::ReceiveBytes(pair.Near(), &byte, 1);
  EXPECT_EQ(result.count, 0);
  EXPECT_EQ(result.error, 0);
}

TEST(Sockets, BrokenConnectionReadsAsItsCode) {
  LoopbackPair pair;
  pair.TakeFarAsPeer().Reset();
  ASSERT_EQ(seam::WaitReadable(pair.Near(), seam::NO_SOCKET, LONG_WAIT).count, 1);
  uint8_t byte = 0;
  const auto result = seam::ReceiveBytes(pair.Near(), &byte, 1);
  EXPECT_LT(result.count, 0);
  EXPECT_EQ(result.error, CONNECTION_RESET_CODE);
}

// The broken-pipe signal would end this process.
TEST(Sockets, WriteToABrokenConnectionRaisesNoSignal) {
  LoopbackPair pair;
  pair.TakeFarAsPeer().Reset();
  ASSERT_EQ(seam::WaitReadable(pair.Near(), seam::NO_SOCKET, LONG_WAIT).count, 1);
  const uint8_t byte = 0;
  EXPECT_LT(seam::SendBytes(pair.Near(), &byte, 1).count, 0);  // takes the reset
  const auto result = seam::SendBytes(pair.Near(), &byte, 1);
  EXPECT_LT(result.count, 0);
  EXPECT_EQ(result.error, BROKEN_PIPE_CODE);
  EXPECT_LT(seam::SendDatagramDirect(pair.Near(), &byte, 1).count, 0);
}

TEST(Sockets, DatagramComesWithItsSendersAddress) {
  DatagramPair pair;
  const Bytes sent = Pattern(100);
  EXPECT_EQ(seam::SendDatagramDirect(pair.left.handle, sent.data(), 100).count, 100);
  ASSERT_EQ(seam::WaitReadable(pair.right.handle, seam::NO_SOCKET, LONG_WAIT).count, 1);
  Bytes received(60);
  std::array<uint8_t, 16> sender{};
  int32_t senderLength = 0;
  // A datagram that is longer than the buffer is cut.
  const auto result =
      seam::ReceiveDatagram(pair.right.handle, received.data(), 60, sender.data(), &senderLength);
  EXPECT_EQ(result.count, 60);
  EXPECT_EQ(received, Prefix(sent, 60));
  EXPECT_EQ(senderLength, 16);
  EXPECT_EQ(sender, pair.leftAddress);
}

TEST(Sockets, ReadOfNoDatagramWouldBlock) {
  DatagramPair pair;
  uint8_t byte = 0;
  std::array<uint8_t, 16> sender{};
  int32_t senderLength = 0;
  const auto result =
      seam::ReceiveDatagram(pair.left.handle, &byte, 1, sender.data(), &senderLength);
  EXPECT_LT(result.count, 0);
  EXPECT_EQ(result.error, seam::WOULD_BLOCK);
}

// ---- waiting -----------------------------------------------------------------------------------

TEST(Sockets, WaitReadableRunsOutNotBeforeItsTime) {
  LoopbackPair pair;
  const auto start = steady_clock::now();
  const auto wait = seam::WaitReadable(pair.Near(), pair.Far(), 120 * MILLISECOND);
  EXPECT_GE(ElapsedMs(start), 120);
  EXPECT_EQ(wait.count, 0);
  EXPECT_FALSE(wait.firstReady);
  EXPECT_FALSE(wait.secondReady);
}

TEST(Sockets, WaitReadableTellsWhichSocketIsReady) {
  LoopbackPair one;
  LoopbackPair two;
  RawPeer farOne = one.TakeFarAsPeer();
  RawPeer farTwo = two.TakeFarAsPeer();
  ASSERT_TRUE(farOne.SendBytes({1}));
  auto wait = seam::WaitReadable(one.Near(), two.Near(), LONG_WAIT);
  EXPECT_EQ(wait.count, 1);
  EXPECT_TRUE(wait.firstReady);
  EXPECT_FALSE(wait.secondReady);
  wait = seam::WaitReadable(two.Near(), one.Near(), LONG_WAIT);
  EXPECT_EQ(wait.count, 1);
  EXPECT_FALSE(wait.firstReady);
  EXPECT_TRUE(wait.secondReady);
  ASSERT_TRUE(farTwo.SendBytes({1}));
  EXPECT_TRUE(
      WaitUntil([&] { return seam::WaitReadable(one.Near(), two.Near(), LONG_WAIT).count == 2; }));
}

TEST(Sockets, WaitReadableWithoutALimitLastsUntilDataComes) {
  LoopbackPair pair;
  RawPeer far = pair.TakeFarAsPeer();
  std::atomic<bool> ended{false};
  std::thread waiter([&] {
    EXPECT_EQ(seam::WaitReadable(pair.Near(), seam::NO_SOCKET, seam::NO_TIME_LIMIT).count, 1);
    ended = true;
  });
  std::this_thread::sleep_for(milliseconds{50});
  EXPECT_FALSE(ended);
  ASSERT_TRUE(far.SendBytes({1}));
  waiter.join();
}

TEST(Sockets, WaitWithNoTimeLooksOnceAndReturns) {
  LoopbackPair pair;
  EXPECT_EQ(seam::WaitReadable(pair.Near(), seam::NO_SOCKET, 0).count, 0);
  ASSERT_TRUE(pair.TakeFarAsPeer().SendBytes({1}));
  EXPECT_TRUE(
      WaitUntil([&] { return seam::WaitReadable(pair.Near(), seam::NO_SOCKET, 0).count == 1; }));
}

TEST(Sockets, ClosedAndBrokenConnectionsCountAsReadable) {
  LoopbackPair closed;
  { RawPeer far = closed.TakeFarAsPeer(); }
  EXPECT_EQ(seam::WaitReadable(closed.Near(), seam::NO_SOCKET, LONG_WAIT).count, 1);
  LoopbackPair broken;
  broken.TakeFarAsPeer().Reset();
  EXPECT_EQ(seam::WaitReadable(broken.Near(), seam::NO_SOCKET, LONG_WAIT).count, 1);
}

// A read of it does not wait: it fails.
TEST(Sockets, UnconnectedSocketCountsAsReadable) {
  const Socket made(seam::CreateStreamSocket());
  EXPECT_EQ(seam::WaitReadable(made.handle, seam::NO_SOCKET, LONG_WAIT).count, 1);
}

TEST(Sockets, WaitingConnectionCountsAsReadable) {
  const uint16_t port = FreePort();
  const Socket listener(seam::CreateStreamSocket());
  ASSERT_TRUE(seam::BindSocket(listener.handle, LoopbackArea(port).data(), 128));
  ASSERT_TRUE(seam::ListenOnSocket(listener.handle, 5));
  EXPECT_EQ(seam::WaitReadable(listener.handle, seam::NO_SOCKET, 0).count, 0);
  auto peer = RawPeer::TryConnect(port);
  ASSERT_TRUE(peer);
  EXPECT_EQ(seam::WaitReadable(listener.handle, seam::NO_SOCKET, LONG_WAIT).count, 1);
}

TEST(Sockets, WaitOnNoSocketFails) {
  const auto readable = seam::WaitReadable(seam::NO_SOCKET, seam::NO_SOCKET, LONG_WAIT);
  EXPECT_EQ(readable.count, -1);
  EXPECT_EQ(readable.error, BAD_HANDLE_CODE);
  const auto writable = seam::WaitWritable(seam::NO_SOCKET, LONG_WAIT);
  EXPECT_EQ(writable.count, -1);
  EXPECT_EQ(writable.error, BAD_HANDLE_CODE);
}

TEST(Sockets, WaitOnAClosedHandleFails) {
  const seam::SocketHandle gone = seam::CreateStreamSocket();
  seam::CloseSocket(gone);
  LoopbackPair pair;
  // The pair's sockets have taken the number; one that was never given out is free for sure.
  const seam::SocketHandle free = 1000;
  EXPECT_EQ(seam::WaitReadable(free, seam::NO_SOCKET, LONG_WAIT).count, -1);
  EXPECT_EQ(seam::WaitReadable(free, seam::NO_SOCKET, LONG_WAIT).error, BAD_HANDLE_CODE);
  EXPECT_EQ(seam::WaitReadable(pair.Near(), free, LONG_WAIT).count, -1);
  EXPECT_EQ(seam::WaitWritable(free, LONG_WAIT).count, -1);
}

TEST(Sockets, WaitWritableSucceedsWithRoomAndRunsOutWithout) {
  LoopbackPair pair(4096);
  EXPECT_EQ(seam::WaitWritable(pair.Near(), LONG_WAIT).count, 1);
  EXPECT_TRUE(WaitUntil([&] {
    Fill(pair.Near());
    const auto start = steady_clock::now();
    const auto wait = seam::WaitWritable(pair.Near(), 100 * MILLISECOND);
    return wait.count == 0 && !wait.firstReady && ElapsedMs(start) >= 100;
  }));
  RawPeer far = pair.TakeFarAsPeer();
  ASSERT_TRUE(far.ReceiveExactly(4096));
  EXPECT_EQ(seam::WaitWritable(pair.Near(), LONG_WAIT).count, 1);
}

TEST(Sockets, BrokenConnectionCountsAsWritable) {
  LoopbackPair pair(4096);
  Fill(pair.Near());
  pair.TakeFarAsPeer().Reset();
  EXPECT_EQ(seam::WaitWritable(pair.Near(), LONG_WAIT).count, 1);
}

// ---- a difficult host --------------------------------------------------------------------------

TEST(Sockets, DescriptorsAboveTheOldSetLimitWork) {
  const DescriptorsInUse used(1100);
  LoopbackPair pair;
  DatagramPair datagrams;
  ASSERT_GT(pair.Near(), 1100);
  ASSERT_GT(datagrams.left.handle, 1100);
  EXPECT_EQ(seam::WaitReadable(pair.Near(), datagrams.left.handle, 0).count, 0);
  EXPECT_EQ(seam::WaitWritable(pair.Near(), LONG_WAIT).count, 1);
  const uint8_t byte = 7;
  ASSERT_EQ(seam::SendDatagramDirect(datagrams.right.handle, &byte, 1).count, 1);
  EXPECT_TRUE(seam::WaitReadable(pair.Near(), datagrams.left.handle, LONG_WAIT).secondReady);
}

TEST(Sockets, HostSignalsNeitherEndNorProlongAWait) {
  LoopbackPair pair;
  const SignalStorm storm;
  const uint64_t before = SignalStorm::Delivered();
  const auto start = steady_clock::now();
  EXPECT_EQ(seam::WaitReadable(pair.Near(), seam::NO_SOCKET, 400 * MILLISECOND).count, 0);
  EXPECT_GE(ElapsedMs(start), 400);
  EXPECT_LT(ElapsedMs(start), 15000);
  if (SignalStorm::IsAvailable()) {
    EXPECT_GT(SignalStorm::Delivered(), before);
  }
}

TEST(Sockets, HostSignalsDoNotShowInBlockingCalls) {
  const uint16_t port = FreePort();
  const Socket listener(seam::CreateStreamSocket());
  ASSERT_TRUE(seam::BindSocket(listener.handle, LoopbackArea(port).data(), 128));
  ASSERT_TRUE(seam::ListenOnSocket(listener.handle, 5));
  const SignalStorm storm;
  std::atomic<bool> accepting{false};
  std::thread server([&] {
    std::array<uint8_t, 16> address{};
    accepting = true;
    const Socket accepted(seam::AcceptConnection(listener.handle, address.data()));
    ASSERT_NE(accepted.handle, seam::NO_SOCKET);
    uint8_t byte = 0;
    EXPECT_EQ(seam::ReceiveBytes(accepted.handle, &byte, 1).count, 1);
    EXPECT_EQ(byte, 9);
  });
  ASSERT_TRUE(WaitUntil([&] { return accepting.load(); }));
  const uint64_t before = SignalStorm::Delivered();
  EXPECT_TRUE(WaitUntil(
      [&] { return !SignalStorm::IsAvailable() || SignalStorm::Delivered() > before + 50; }));
  auto peer = RawPeer::TryConnect(port);
  ASSERT_TRUE(peer);
  const uint64_t connected = SignalStorm::Delivered();
  EXPECT_TRUE(WaitUntil(
      [&] { return !SignalStorm::IsAvailable() || SignalStorm::Delivered() > connected + 50; }));
  EXPECT_TRUE(peer->SendBytes({9}));
  server.join();
}

TEST(Sockets, SignalsOfTheHostStayAsTheyAre) {
  const SignalState before = SignalState::Current();
  LoopbackPair pair;
  pair.TakeFarAsPeer().Reset();
  const uint8_t byte = 0;
  (void)seam::WaitReadable(pair.Near(), seam::NO_SOCKET, LONG_WAIT);
  (void)seam::SendBytes(pair.Near(), &byte, 1);
  (void)seam::SendBytes(pair.Near(), &byte, 1);
  EXPECT_EQ(SignalState::Current(), before);
}

}  // namespace
}  // namespace TQ::test
