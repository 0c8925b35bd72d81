// The socket channel when system calls fail that a live system does not let fail, and the exact
// time limits that it waits with.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "frame/object_counts.h"
#include "platform/sockets.h"
#include "support/channel_ends.h"
#include "support/log_recorder.h"
#include "support/loopback_pair.h"
#include "support/socket_state.h"
#include "support/system_faults.h"
#include "support/wait_until.h"
#include "transport/socket_channel.h"

namespace TQ::test {
namespace {

using detail::StopFlag;
using Texts = std::vector<std::string>;

// A wait is handed what remains of its limit, which is a little less than all of it.
void ExpectOneWaitOf(int64_t microseconds) {
  const std::vector<int64_t> limits = TakePollLimits();
  ASSERT_EQ(limits.size(), 1u);
  EXPECT_LE(limits[0], microseconds);
  EXPECT_GT(limits[0], microseconds - 900000);
}

std::string SilenceText(uint32_t remaining) {
  return "Receive failed: no data arrived in expected 2 seconds" +
         std::to_string(WOULD_BLOCK_CODE) + ",expected=" + std::to_string(remaining);
}

// ---- sending -----------------------------------------------------------------------------------

TEST(SocketChannelFaults, SendThatTakesNothingIsNoFailure) {
  SocketEnds ends;
  LogRecorder log;
  const uint32_t before = detail::g_objectCounts.writeCalls;
  SendNothing(3);
  EXPECT_EQ(SendBytes(ends.Channel(), Pattern(10)), 10);
  EXPECT_EQ(EmptySendsLeft(), 0);
  EXPECT_EQ(detail::g_objectCounts.writeCalls, before + 4);
  EXPECT_EQ(ends.FarReceive(10), Pattern(10));
  EXPECT_TRUE(log.Lines().empty()) << log.Dump();
}

TEST(SocketChannelFaults, FailedWaitEndsASendAfterItsFixedLimitWasAskedFor) {
  SetLimits(2000);
  SocketEnds ends(4096);
  LogRecorder log;
  (void)TakePollLimits();
  FailCalls(SystemCall::POLL, 1);
  EXPECT_EQ(SendBytes(ends.Channel(), Bytes(size_t{8} << 20)), -1);
  ExpectOneWaitOf(10001000);
  EXPECT_EQ(log.Texts(), Texts{"Send failed - write state is not available in 10 seconds"});
}

// ---- receiving ---------------------------------------------------------------------------------

TEST(SocketChannelFaults, ReadWaitsHalfTheLimitRoundedUpToSecondsAndOneMillisecond) {
  struct Case {
    uint32_t limitMs;
    int64_t waitMicroseconds;
  };
  for (const Case& example : {Case{60000, 30001000}, Case{1, 1001000}, Case{2000, 1001000},
                              Case{2001, 2001000}, Case{4000, 2001000}, Case{59999, 30001000}}) {
    SetLimits(example.limitMs);
    SocketEnds ends;
    LogRecorder log;
    (void)TakePollLimits();
    FailCalls(SystemCall::POLL, 1);
    Bytes buffer(6);
    // On a slow machine a limit of 1 ms may be over before the wait.
    const int32_t result = ends.Channel().Receive(buffer.data(), 6);
    EXPECT_EQ(result, -1);
    if (example.limitMs == 1 && FailedCalls(SystemCall::POLL) == 0) continue;
    ExpectOneWaitOf(example.waitMicroseconds);
    EXPECT_EQ(log.Texts(), Texts{SilenceText(6)}) << example.limitMs;
  }
}

TEST(SocketChannelFaults, LibraryStartsWithALimitOfSixtySeconds) {
  SocketEnds ends;
  FailCalls(SystemCall::POLL, 1);
  (void)TakePollLimits();
  uint8_t byte = 0;
  EXPECT_EQ(ends.Channel().Receive(&byte, 1), -1);
  ExpectOneWaitOf(30001000);
}

// The sum wraps in 32 bits, so the wait is none at all but for its margin.
TEST(SocketChannelFaults, LimitNearTheTopLeavesALiveSessionAWaitOfOneMillisecond) {
  SetLimits(0xFFFFFFFF);
  SocketEnds ends;
  const StopFlag live{0};
  (void)TakePollLimits();
  FailCalls(SystemCall::POLL, 1);
  std::thread sender([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds{20});
    EXPECT_TRUE(ends.FarSend({5}));
  });
  uint8_t byte = 0;
  EXPECT_EQ(ends.Channel().Receive(&byte, 1, &live), 1);
  sender.join();
  for (const int64_t limit : TakePollLimits()) EXPECT_LE(limit, 1000);
}

TEST(SocketChannelFaults, FailedWaitIsIgnoredWhileTheSessionLives) {
  SetLimits(2000);
  SocketEnds ends;
  const StopFlag live{0};
  LogRecorder log;
  FailCalls(SystemCall::POLL, 50);
  std::thread sender([&] {
    while (FailedCalls(SystemCall::POLL) < 50) std::this_thread::yield();
    EXPECT_TRUE(ends.FarSend({5}));
  });
  uint8_t byte = 0;
  EXPECT_EQ(ends.Channel().Receive(&byte, 1, &live), 1);
  EXPECT_EQ(byte, 5);
  sender.join();
  EXPECT_TRUE(log.Lines().empty()) << log.Dump();
}

TEST(SocketChannelFaults, FailedWaitEndsAReadOfAStoppedSession) {
  SetLimits(2000);
  SocketEnds ends;
  const StopFlag set{1};
  LogRecorder log;
  FailCalls(SystemCall::POLL, 1);
  Bytes buffer(3);
  EXPECT_EQ(ends.Channel().Receive(buffer.data(), 3, &set), -1);
  EXPECT_EQ(log.Texts(), Texts{SilenceText(3)});
}

// ---- waiting -----------------------------------------------------------------------------------

TEST(SocketChannelFaults, WaitForDataTakesItsLimitInMilliseconds) {
  SocketEnds ends;
  for (const uint32_t limitMs : {0u, 1u, 1500u, 5000u, 0xFFFFFFFFu}) {
    (void)TakePollLimits();
    FailCalls(SystemCall::POLL, 1);
    EXPECT_LT(ends.Channel().WaitForData(limitMs), 0);
    const std::vector<int64_t> limits = TakePollLimits();
    ASSERT_EQ(limits.size(), 1u);
    EXPECT_LE(limits[0], int64_t{limitMs} * 1000);
    EXPECT_GE(limits[0], std::max<int64_t>(0, int64_t{limitMs} * 1000 - 900000));
  }
}

TEST(SocketChannelFaults, WaitForDataWithoutALimitHasNone) {
  SocketEnds ends;
  (void)TakePollLimits();
  FailCalls(SystemCall::POLL, 1);
  EXPECT_LT(ends.Channel().WaitForData(), 0);
  EXPECT_EQ(TakePollLimits(), std::vector<int64_t>{-1});
}

TEST(SocketChannelFaults, FailedWaitForDataLogsNothing) {
  SocketEnds ends;
  LogRecorder log;
  FailCalls(SystemCall::POLL, 1);
  EXPECT_LT(ends.Channel().WaitForData(20000), 0);
  EXPECT_TRUE(log.Lines().empty()) << log.Dump();
}

// ---- the wake-up socket ------------------------------------------------------------------------

class WakeupSteps : public testing::TestWithParam<SystemCall> {};

// The pair is there before the step fails; its own calls are over.
TEST_P(WakeupSteps, FailureLeavesAChannelWithoutAWakeupSocketAndLogsNothing) {
  LoopbackPair pair;
  RawPeer far = pair.TakeFarAsPeer();
  LogRecorder log;
  FailCalls(GetParam(), 1);
  const detail::ChannelRef channel(new SocketChannel(pair.TakeNear()));
  EXPECT_EQ(FailedCalls(GetParam()), 1);
  for (const platform::Handle socket : OpenSockets()) EXPECT_TRUE(IsStream(socket));
  EXPECT_EQ(log.Lines().size(), 1u) << log.Dump();
  EXPECT_EQ(log.CountOfPrefix("Socket channel("), 1u);
  channel->Wakeup();
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(channel->WaitForData(100), 0);
  EXPECT_GE(ElapsedMs(start), 100);
  ASSERT_TRUE(far.SendBytes(Pattern(4)));
  EXPECT_EQ(channel->WaitForData(20000), 1);
  EXPECT_EQ(channel->WaitForData(), 1);
  EXPECT_EQ(ReceiveBytes(*channel, 4), Pattern(4));
  EXPECT_EQ(SendBytes(*channel, Pattern(4)), 4);
  EXPECT_EQ(far.ReceiveExactly(4), Pattern(4));
}

INSTANTIATE_TEST_SUITE_P(SocketChannelFaults, WakeupSteps,
                         testing::Values(SystemCall::SOCKET, SystemCall::BIND,
                                         SystemCall::GET_SOCKET_NAME, SystemCall::CONNECT));

// Before it is connected to itself the socket takes in what anybody sends.
void SendBeforeConnect(const Bytes& datagram) {
  BeforeConnect([datagram](int socket) {
    if (!IsStream(socket)) {
      EXPECT_TRUE(SendDatagramTo(platform::LocalPort(socket), datagram));
    }
  });
}

TEST(SocketChannelFaults, ForeignDatagramIsReadAndDoesNotCount) {
  LoopbackPair pair;
  RawPeer far = pair.TakeFarAsPeer();
  SendBeforeConnect(Filled(100, 0xA5));
  const detail::ChannelRef channel(new SocketChannel(pair.TakeNear()));
  // Taken out alone it leaves nothing of the wait's result.
  EXPECT_EQ(channel->WaitForData(60000), 0);
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(channel->WaitForData(100), 0);
  EXPECT_GE(ElapsedMs(start), 100);
}

TEST(SocketChannelFaults, ForeignDatagramBesideDataLeavesTheData) {
  for (const Bytes& datagram : {Filled(100, 0xA5), Bytes{}}) {
    LoopbackPair pair;
    RawPeer far = pair.TakeFarAsPeer();
    SendBeforeConnect(datagram);
    const detail::ChannelRef channel(new SocketChannel(pair.TakeNear()));
    ASSERT_TRUE(far.SendBytes(Pattern(4)));
    platform::Handle stream = platform::NO_HANDLE;
    for (const platform::Handle socket : OpenSockets()) {
      if (IsStream(socket) && platform::RemotePort(socket) == far.LocalPort()) stream = socket;
    }
    ASSERT_TRUE(WaitUntil(
        [&] { return TQ::platform::WaitReadable(stream, TQ::platform::NO_SOCKET, 0).count == 1; }));
    EXPECT_EQ(channel->WaitForData(20000), 1);
    EXPECT_EQ(ReceiveBytes(*channel, 4), Pattern(4));
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(channel->WaitForData(100), 0);
    EXPECT_GE(ElapsedMs(start), 100);
  }
}

}  // namespace
}  // namespace TQ::test
