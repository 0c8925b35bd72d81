#include "transport/socket_channel.h"

#include <gtest/gtest.h>
#include <tq/tq.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "frame/object_counts.h"
#include "support/channel_ends.h"
#include "support/child_process.h"
#include "support/host_conditions.h"
#include "support/log_recorder.h"
#include "support/socket_state.h"
#include "support/wait_until.h"
#include "transport/channel_suite.h"

namespace TQ::test {

INSTANTIATE_TYPED_TEST_SUITE_P(Socket, TransportChannel, SocketEnds);

namespace {

using detail::StopFlag;
using std::chrono::milliseconds;
using std::chrono::steady_clock;
using Texts = std::vector<std::string>;

// All of the channel's lines have this level, those of failures too.
void ExpectOneInfoLine(const LogRecorder& log, const std::string& text) {
  ASSERT_EQ(log.Texts(), Texts{text});
  EXPECT_EQ(log.Lines()[0].level, TQ_LOG_INFO);
}

std::string CodeText(int code) { return std::to_string(code); }

std::string SilenceText(uint32_t remaining) {
  return "Receive failed: no data arrived in expected 2 seconds" + CodeText(WOULD_BLOCK_CODE) +
         ",expected=" + std::to_string(remaining);
}

// The datagram socket by which the only channel of this process is woken.
platform::Handle WakeupHandle() {
  for (const platform::Handle socket : OpenSockets()) {
    if (!IsStream(socket)) return socket;
  }
  return platform::NO_HANDLE;
}

// ---- construction and destruction --------------------------------------------------------------

TEST(SocketChannel, AddressesAreDottedWithTheirPorts) {
  SocketEnds ends;
  EXPECT_EQ(ends.Channel().GetLocalAddress(), ends.NearAddress());
  EXPECT_EQ(ends.Channel().GetRemoteAddress(), ends.FarAddress());
  EXPECT_EQ(ends.Far().LocalAddress(), ends.FarAddress());
}

TEST(SocketChannel, ConstructionLogsHandleAndAddressesWithTheLocalOneOnTheLeft) {
  LogRecorder log;
  SocketEnds ends;
  ExpectOneInfoLine(log, "Socket channel(" + std::to_string(ends.NearHandle()) + ") " +
                             ends.NearAddress() + "<->" + ends.FarAddress());
}

TEST(SocketChannel, DestructionLogsBeforeAndAfterTheClose) {
  SocketEnds ends;
  const std::string handle = std::to_string(ends.NearHandle());
  LogRecorder log;
  ends.DropChannel();
  EXPECT_EQ(log.Texts(), (Texts{"Closing socket channel(" + handle + ") " + ends.NearAddress() +
                                    "<->" + ends.FarAddress(),
                                "Socket channel has been closed " + handle}));
  EXPECT_EQ(log.CountOfLevel(TQ_LOG_INFO), 2u);
}

// What was open at each of the lines.
std::vector<std::pair<std::string, std::vector<platform::Handle>>> g_openAtLine;

void RecordOpenSockets(uint32_t, int32_t, const char* text) {
  g_openAtLine.emplace_back(text, OpenSockets());
}

TEST(SocketChannel, ClosesItsSocketBetweenTheLinesAndTheWakeupSocketBehindThem) {
  LoopbackPair pair;
  const std::vector<platform::Handle> bare = OpenSockets();
  const platform::Handle near = pair.Near();
  g_openAtLine.clear();
  TQSetLogLevel(TQ_LOG_INFO, 0, &RecordOpenSockets);
  { const detail::ChannelRef channel(new SocketChannel(pair.TakeNear())); }
  TQSetLogLevel(0, 0, nullptr);
  ASSERT_EQ(g_openAtLine.size(), 3u);
  const auto& [madeText, made] = g_openAtLine[0];
  const auto& [closingText, closing] = g_openAtLine[1];
  const auto& [closedText, closed] = g_openAtLine[2];
  EXPECT_EQ(made.size(), bare.size() + 1) << "the wake-up socket comes before the first line";
  EXPECT_EQ(closing, made);
  EXPECT_EQ(closed.size(), made.size() - 1);
  EXPECT_EQ(std::count(closed.begin(), closed.end(), near), 0);
  EXPECT_EQ(OpenSockets().size(), bare.size() - 1);
}

TEST(SocketChannel, LeavesTheOptionsOfItsSocketAlone) {
  const platform::Handle handle = UnconnectedSocket();
  const int receiveBuffer = ReceiveBufferSize(handle);
  const detail::ChannelRef channel(new SocketChannel(handle));
  EXPECT_EQ(ReceiveBufferSize(handle), receiveBuffer);
  EXPECT_FALSE(SendsWithoutDelay(handle));
  EXPECT_TRUE(IsNonBlocking(handle));
}

TEST(SocketChannel, NoDescriptorIsInherited) {
  SocketEnds ends;
  for (const platform::Handle socket : OpenSockets()) {
    EXPECT_FALSE(IsInheritable(socket)) << socket;
  }
}

TQ_TEST_ROLE(sayOpenSockets) {
  Say("sockets " + std::to_string(OpenSockets().size()));
  return AwaitCommand("end") ? 0 : 1;
}

// A program that the host starts must not keep the connection open behind the channel's back.
TEST(SocketChannel, PeerSeesTheCloseWhileAProgramOfTheHostRuns) {
  SocketEnds ends;
  ChildProcess child("sayOpenSockets");
  ASSERT_TRUE(child.ExpectLine("sockets 0"));
  ends.DropChannel();
  EXPECT_TRUE(ends.FarSeesClose());
  child.WriteLine("end");
  EXPECT_TRUE(child.ExpectSuccess());
}

// ---- a socket without a peer -------------------------------------------------------------------

TEST(SocketChannel, UnconnectedSocketHasAnEmptyRemoteAddress) {
  LogRecorder log;
  const platform::Handle handle = UnconnectedSocket();
  const std::string number = std::to_string(handle);
  detail::ChannelRef channel(new SocketChannel(handle));
  EXPECT_EQ(channel->GetRemoteAddress(), "");
  EXPECT_EQ(channel->GetLocalAddress(), "0.0.0.0:0");
  channel.Reset();
  EXPECT_EQ(log.Texts(), (Texts{"Socket channel(" + number + ") 0.0.0.0:0<->",
                                "Closing socket channel(" + number + ") 0.0.0.0:0<->",
                                "Socket channel has been closed " + number}));
}

TEST(SocketChannel, OtherErrorsFailWithTheirCodeAndWhatRemains) {
  SetLimits(60000);
  const detail::ChannelRef channel(new SocketChannel(UnconnectedSocket()));
  const StopFlag live{0};
  Bytes buffer(7);
  {
    LogRecorder log;
    EXPECT_EQ(channel->Receive(buffer.data(), 7), -1);
    ExpectOneInfoLine(log,
                      "Receive failed with code " + CodeText(NOT_CONNECTED_CODE) + ",expected=7");
  }
  {
    // Even a live session does not read on.
    LogRecorder log;
    EXPECT_EQ(channel->Receive(buffer.data(), 5, &live), -1);
    ExpectOneInfoLine(log,
                      "Receive failed with code " + CodeText(NOT_CONNECTED_CODE) + ",expected=5");
  }
  LogRecorder log;
  EXPECT_EQ(SendBytes(*channel, Pattern(3)), -1);
  ExpectOneInfoLine(log, "Send failed with " + CodeText(BROKEN_PIPE_CODE));
}

TEST(SocketChannel, HandleThatIsNoSocketHasNoAddressAtAll) {
  LogRecorder log;
  constexpr platform::Handle UNUSED = 987;
  const detail::ChannelRef channel(new SocketChannel(UNUSED));
  EXPECT_EQ(channel->GetLocalAddress(), "");
  EXPECT_EQ(log.Texts(), Texts{"Socket channel(987) <->"});
  EXPECT_LT(channel->WaitForData(20000), 0);
  EXPECT_LT(channel->WaitForData(), 0);
  log.Clear();
  uint8_t byte = 0;
  EXPECT_EQ(channel->Receive(&byte, 1), -1);
  ExpectOneInfoLine(log, "Receive failed with code " + CodeText(BAD_HANDLE_CODE) + ",expected=1");
}

// ---- reading -----------------------------------------------------------------------------------

TEST(SocketChannel, PeerThatClosesHalfwayIsOneLine) {
  SocketEnds ends;
  ASSERT_TRUE(ends.FarSend(Pattern(5)));
  ends.FarClose();
  LogRecorder log;
  Bytes buffer(10);
  EXPECT_EQ(ends.Channel().Receive(buffer.data(), 10), -1);
  EXPECT_EQ(Prefix(buffer, 5), Pattern(5));
  ExpectOneInfoLine(log, "Receive failed: socket closed");
}

TEST(SocketChannel, PeerThatOnlyEndsItsWritingCountsAsClosed) {
  SocketEnds ends;
  ends.Far().ShutdownWrite();
  LogRecorder log;
  uint8_t byte = 0;
  EXPECT_EQ(ends.Channel().Receive(&byte, 1), -1);
  ExpectOneInfoLine(log, "Receive failed: socket closed");
  EXPECT_EQ(SendBytes(ends.Channel(), Pattern(5)), 5);
  EXPECT_EQ(ends.FarReceive(5), Pattern(5));
}

TEST(SocketChannel, BrokenConnectionFailsWithItsCode) {
  SocketEnds ends;
  ends.Far().Reset();
  ASSERT_GT(ends.Channel().WaitForData(20000), 0);
  LogRecorder log;
  Bytes buffer(9);
  EXPECT_EQ(ends.Channel().Receive(buffer.data(), 9), -1);
  ExpectOneInfoLine(log,
                    "Receive failed with code " + CodeText(CONNECTION_RESET_CODE) + ",expected=9");
}

TEST(SocketChannel, SilenceIsToldInFixedWordsFollowedDirectlyByTheCode) {
  SetLimits(2000);
  SocketEnds ends;
  ASSERT_TRUE(ends.FarSend(Pattern(3)));
  LogRecorder log;
  Bytes buffer(8);
  const auto start = steady_clock::now();
  EXPECT_EQ(ends.Channel().Receive(buffer.data(), 8), -1);
  EXPECT_GE(ElapsedMs(start), 1001);
  ExpectOneInfoLine(log, SilenceText(5));
}

TEST(SocketChannel, SilenceIsToldByTheWaitEvenIfTheLimitIsOverByThen) {
  SetLimits(1);
  SocketEnds ends;
  LogRecorder log;
  Bytes buffer(8);
  const auto start = steady_clock::now();
  EXPECT_EQ(ends.Channel().Receive(buffer.data(), 8), -1);
  EXPECT_GE(ElapsedMs(start), 1001);
  ExpectOneInfoLine(log, SilenceText(8));
}

TEST(SocketChannel, WaitIsHalfTheLimitRoundedUpToSeconds) {
  SetLimits(2001);
  SocketEnds ends;
  LogRecorder log;
  Bytes buffer(8);
  const auto start = steady_clock::now();
  EXPECT_EQ(ends.Channel().Receive(buffer.data(), 8), -1);
  EXPECT_GE(ElapsedMs(start), 2001);
  ExpectOneInfoLine(log, SilenceText(8));
}

// The time runs from the start of the read and bytes do not start it anew: with a limit of 1 ms it
// is over at the first would-block behind a byte that came later than that.
TEST(SocketChannel, ReadThatIsOverTimeFailsAtItsNextWouldBlock) {
  SetLimits(1);
  const StopFlag set{1};
  for (const StopFlag* flag : {static_cast<const StopFlag*>(nullptr), &set}) {
    SocketEnds ends;
    LogRecorder log;
    std::thread sender([&] {
      std::this_thread::sleep_for(milliseconds{50});
      EXPECT_TRUE(ends.FarSend({1}));
    });
    Bytes buffer(4);
    EXPECT_EQ(ends.Channel().Receive(buffer.data(), 4, flag), -1);
    sender.join();
    ExpectOneInfoLine(log,
                      "Receive failed with code " + CodeText(WOULD_BLOCK_CODE) + ",expected=3");
  }
}

TEST(SocketChannel, ReadOfALiveSessionIsNeverOverTime) {
  SetLimits(1);
  SocketEnds ends;
  const StopFlag live{0};
  LogRecorder log;
  std::thread sender([&] {
    for (const uint8_t byte : Pattern(5)) {
      std::this_thread::sleep_for(milliseconds{20});
      EXPECT_TRUE(ends.FarSend({byte}));
    }
  });
  Bytes buffer(5);
  EXPECT_EQ(ends.Channel().Receive(buffer.data(), 5, &live), 5);
  sender.join();
  EXPECT_EQ(buffer, Pattern(5));
  EXPECT_TRUE(log.Lines().empty()) << log.Dump();
}

// The limit is compared as a signed number.
TEST(SocketChannel, LimitThatIsNegativeAsASignedNumberIsOverFromTheStart) {
  SetLimits(0xFFFFFFFF);
  SocketEnds ends;
  LogRecorder log;
  Bytes buffer(4);
  EXPECT_EQ(ends.Channel().Receive(buffer.data(), 4), -1);
  ExpectOneInfoLine(log, "Receive failed with code " + CodeText(WOULD_BLOCK_CODE) + ",expected=4");
}

TEST(SocketChannel, FlagThatIsSetDuringTheWaitIsSeenWhenTheWaitEnds) {
  SetLimits(2000);
  SocketEnds ends;
  StopFlag flag{0};
  LogRecorder log;
  std::thread stopper([&] {
    std::this_thread::sleep_for(milliseconds{100});
    flag = 1;
    ends.Channel().Wakeup();
  });
  Bytes buffer(4);
  const auto start = steady_clock::now();
  EXPECT_EQ(ends.Channel().Receive(buffer.data(), 4, &flag), -1);
  EXPECT_GE(ElapsedMs(start), 1001) << "a wake-up does not shorten a read";
  stopper.join();
  ExpectOneInfoLine(log, SilenceText(4));
}

TEST(SocketChannel, EachAttemptToReadIsCounted) {
  SetLimits(2000);
  SocketEnds ends;
  auto& counts = detail::g_objectCounts;
  const uint32_t before = counts.readCalls;
  const uint32_t writesBefore = counts.writeCalls;
  Bytes buffer(4);
  // One attempt that would block, and after the wait there is none.
  EXPECT_EQ(ends.Channel().Receive(buffer.data(), 4), -1);
  EXPECT_EQ(counts.readCalls, before + 1);
  ends.FarClose();
  ASSERT_GT(ends.Channel().WaitForData(20000), 0);
  EXPECT_EQ(ends.Channel().Receive(buffer.data(), 4), -1);
  EXPECT_EQ(counts.readCalls, before + 2);
  EXPECT_EQ(counts.writeCalls, writesBefore);
}

TEST(SocketChannel, WaitsAndWakeupsAreNotCounted) {
  SocketEnds ends;
  auto& counts = detail::g_objectCounts;
  const uint32_t reads = counts.readCalls;
  const uint32_t writes = counts.writeCalls;
  ends.Channel().Wakeup();
  EXPECT_EQ(ends.Channel().WaitForData(20000), 0);
  EXPECT_EQ(ends.Channel().WaitForData(1), 0);
  EXPECT_EQ(counts.readCalls, reads);
  EXPECT_EQ(counts.writeCalls, writes);
}

// ---- writing -----------------------------------------------------------------------------------

TEST(SocketChannel, SendToABrokenConnectionFailsWithTheCodeAndRaisesNoSignal) {
  SocketEnds ends;
  ends.Far().Reset();
  ASSERT_GT(ends.Channel().WaitForData(20000), 0);
  {
    LogRecorder log;
    EXPECT_EQ(SendBytes(ends.Channel(), Pattern(5)), -1);
    ExpectOneInfoLine(log, "Send failed with " + CodeText(CONNECTION_RESET_CODE));
  }
  LogRecorder log;
  EXPECT_EQ(SendBytes(ends.Channel(), Pattern(5)), -1);
  ExpectOneInfoLine(log, "Send failed with " + CodeText(BROKEN_PIPE_CODE));
}

TEST(SocketChannel, SendThatIsOverTimeFailsAtItsNextWouldBlock) {
  SetLimits(0xFFFFFFFF);
  SocketEnds ends(4096);
  LogRecorder log;
  EXPECT_EQ(SendBytes(ends.Channel(), Bytes(size_t{8} << 20)), -1);
  ExpectOneInfoLine(log, "Send failed with " + CodeText(WOULD_BLOCK_CODE));
}

TEST(SocketChannel, SlowProgressEndsASendWhenTheLimitIsReached) {
  SetLimits(500);
  SocketEnds ends(4096);
  LogRecorder log;
  std::atomic<bool> done{false};
  std::thread reader([&] {
    while (!done) {
      (void)ends.Far().ReceiveExactly(1024, milliseconds{5});
      std::this_thread::sleep_for(milliseconds{5});
    }
  });
  const auto start = steady_clock::now();
  EXPECT_EQ(SendBytes(ends.Channel(), Bytes(size_t{256} << 20)), -1);
  EXPECT_GE(ElapsedMs(start), 500);
  done = true;
  reader.join();
  ExpectOneInfoLine(log, "Send failed with " + CodeText(WOULD_BLOCK_CODE));
}

TEST(SocketChannel, SendGivesAPeerUpThatTakesNothingForTenSeconds) {
  SetLimits(60000);
  SocketEnds ends(4096);
  LogRecorder log;
  const auto start = steady_clock::now();
  EXPECT_EQ(SendBytes(ends.Channel(), Bytes(size_t{8} << 20)), -1);
  EXPECT_GE(ElapsedMs(start), 10001);
  ExpectOneInfoLine(log, "Send failed - write state is not available in 10 seconds");
}

// ---- waiting -----------------------------------------------------------------------------------

TEST(SocketChannel, WaitForDataRunsOutWithZeroAndNotBeforeItsTime) {
  SocketEnds ends;
  const auto start = steady_clock::now();
  EXPECT_EQ(ends.Channel().WaitForData(1150), 0);
  EXPECT_GE(ElapsedMs(start), 1150);
  EXPECT_EQ(ends.Channel().WaitForData(0), 0);
}

TEST(SocketChannel, WakeupBeforeTheWaitEndsItAtOnceAndTheNextOneWaitsNormally) {
  SocketEnds ends;
  ends.Channel().Wakeup();
  auto start = steady_clock::now();
  EXPECT_EQ(ends.Channel().WaitForData(60000), 0);
  EXPECT_LT(ElapsedMs(start), 20000);
  start = steady_clock::now();
  EXPECT_EQ(ends.Channel().WaitForData(120), 0);
  EXPECT_GE(ElapsedMs(start), 120);
}

TEST(SocketChannel, WakeupEndsAWaitOfAnotherThread) {
  SocketEnds ends;
  std::atomic<int> ended{0};
  std::thread waiter([&] {
    EXPECT_EQ(ends.Channel().WaitForData(60000), 0);
    ++ended;
    EXPECT_EQ(ends.Channel().WaitForData(), 0);
    ++ended;
  });
  std::this_thread::sleep_for(milliseconds{30});
  EXPECT_EQ(ended, 0);
  ends.Channel().Wakeup();
  EXPECT_TRUE(WaitUntil([&] { return ended == 1; }));
  std::this_thread::sleep_for(milliseconds{30});
  EXPECT_EQ(ended, 1);
  ends.Channel().Wakeup();
  waiter.join();
}

TEST(SocketChannel, EachWaitConsumesOneWakeup) {
  SocketEnds ends;
  for (int i = 0; i < 3; ++i) ends.Channel().Wakeup();
  const auto start = steady_clock::now();
  for (int i = 0; i < 3; ++i) EXPECT_EQ(ends.Channel().WaitForData(60000), 0);
  EXPECT_LT(ElapsedMs(start), 20000);
  const auto second = steady_clock::now();
  EXPECT_EQ(ends.Channel().WaitForData(120), 0);
  EXPECT_GE(ElapsedMs(second), 120);
}

TEST(SocketChannel, WakeupGoesBeforeDataThatAreThere) {
  SocketEnds ends;
  ASSERT_TRUE(ends.FarSend(Pattern(4)));
  ASSERT_EQ(ends.Channel().WaitForData(20000), 1);
  ends.Channel().Wakeup();
  EXPECT_EQ(ends.Channel().WaitForData(20000), 0);
  EXPECT_EQ(ends.Channel().WaitForData(20000), 1);
  EXPECT_EQ(ReceiveBytes(ends.Channel(), 4), Pattern(4));
}

TEST(SocketChannel, WakeupsThatFindNoRoomAreDropped) {
  SocketEnds ends;
  for (int i = 0; i < 20000; ++i) ends.Channel().Wakeup();
  ASSERT_TRUE(ends.FarSend(Pattern(4)));
  int zeros = 0;
  while (zeros < 20000 && ends.Channel().WaitForData(20000) == 0) ++zeros;
  EXPECT_GT(zeros, 0);
  EXPECT_LT(zeros, 20000);
  EXPECT_EQ(ReceiveBytes(ends.Channel(), 4), Pattern(4));
}

TEST(SocketChannel, DatagramOfSomeoneElseDoesNotEndTheWait) {
  SocketEnds ends;
  const platform::Handle wakeup = WakeupHandle();
  ASSERT_NE(wakeup, platform::NO_HANDLE);
  ASSERT_TRUE(SendDatagramTo(platform::LocalPort(wakeup), Filled(100, 0xA5)));
  const auto start = steady_clock::now();
  EXPECT_EQ(ends.Channel().WaitForData(150), 0);
  EXPECT_GE(ElapsedMs(start), 150);
  ASSERT_TRUE(SendDatagramTo(platform::LocalPort(wakeup), Filled(100, 0xA5)));
  ASSERT_TRUE(ends.FarSend({1}));
  EXPECT_EQ(ends.Channel().WaitForData(20000), 1);
}

TEST(SocketChannel, WakeupsMayComeFromManyThreads) {
  SocketEnds ends;
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&] {
      for (int j = 0; j < 20; ++j) ends.Channel().Wakeup();
    });
  }
  for (std::thread& thread : threads) thread.join();
  for (int i = 0; i < 80; ++i) ASSERT_EQ(ends.Channel().WaitForData(20000), 0) << i;
  const auto start = steady_clock::now();
  EXPECT_EQ(ends.Channel().WaitForData(100), 0);
  EXPECT_GE(ElapsedMs(start), 100);
}

// ---- a difficult host --------------------------------------------------------------------------

TEST(SocketChannel, WorksWithDescriptorsAboveTheOldSetLimit) {
  SetLimits(2000);
  const DescriptorsInUse used(1100);
  SocketEnds ends;
  ASSERT_GT(ends.NearHandle(), 1100);
  ASSERT_GT(WakeupHandle(), 1100);
  EXPECT_EQ(ends.Channel().WaitForData(1), 0);
  ends.Channel().Wakeup();
  EXPECT_EQ(ends.Channel().WaitForData(60000), 0);
  uint8_t byte = 0;
  EXPECT_EQ(ends.Channel().Receive(&byte, 1), -1);
  const Bytes large = Pattern(size_t{8} << 20);
  std::thread writer([&] { EXPECT_EQ(SendBytes(ends.Channel(), large), int32_t(large.size())); });
  EXPECT_TRUE(ends.FarReceive(large.size()) == large);
  writer.join();
}

TEST(SocketChannel, HostSignalsNeitherEndNorProlongAWait) {
  SetLimits(2000);
  SocketEnds ends;
  LogRecorder log;
  const SignalStorm storm;
  auto start = steady_clock::now();
  EXPECT_EQ(ends.Channel().WaitForData(300), 0);
  EXPECT_GE(ElapsedMs(start), 300);
  EXPECT_LT(ElapsedMs(start), 15000);
  start = steady_clock::now();
  Bytes buffer(4);
  EXPECT_EQ(ends.Channel().Receive(buffer.data(), 4), -1);
  EXPECT_GE(ElapsedMs(start), 1001);
  ExpectOneInfoLine(log, SilenceText(4));
  if (SignalStorm::IsAvailable()) {
    EXPECT_GT(SignalStorm::Delivered(), 100u);
  }
}

TEST(SocketChannel, SignalsOfTheHostStayAsTheyAre) {
  SetLimits(2000);
  const SignalState before = SignalState::Current();
  SocketEnds ends;
  ends.Channel().Wakeup();
  (void)ends.Channel().WaitForData(10);
  uint8_t byte = 0;
  (void)ends.Channel().Receive(&byte, 1);
  ends.FarClose();
  EXPECT_TRUE(WaitUntil([&] { return SendBytes(ends.Channel(), {1}) == -1; }));
  EXPECT_EQ(SignalState::Current(), before);
}

}  // namespace
}  // namespace TQ::test
