#include "transport/pipe_channel.h"

#include <gtest/gtest.h>
#include <tq/tq.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "frame/object_counts.h"
#include "support/channel_ends.h"
#include "support/host_conditions.h"
#include "support/log_recorder.h"
#include "support/platform.h"
#include "support/process_info.h"
#include "support/socket_state.h"
#include "support/system_faults.h"
#include "support/wait_until.h"
#include "transport/channel_suite.h"

namespace TQ::test {

INSTANTIATE_TYPED_TEST_SUITE_P(Pipe, TransportChannel, PipeEnds);

namespace {

using detail::StopFlag;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr int64_t SLICE_MICROSECONDS = 1000000;

/// Larger than all buffers on the way together.
constexpr size_t LARGE = size_t{4} << 20;

uint32_t ReadCalls() { return detail::g_objectCounts.readCalls.load(); }
uint32_t WriteCalls() { return detail::g_objectCounts.writeCalls.load(); }

// A wait is handed what remains of its limit, which is a little less than all of it.
void ExpectWaitOf(int64_t limit, int64_t microseconds) {
  EXPECT_LE(limit, microseconds);
  EXPECT_GT(limit, microseconds - 900000);
}

/// Runs `action` with the number of the wait before each wait of a read, while it lives.
class AtEachWait final {
 public:
  template <typename Action>
  explicit AtEachWait(Action action) {
    (void)TakePollLimits();
    BeforePoll([action, number = 0]() mutable { action(++number); });
  }
  ~AtEachWait() { BeforePoll(nullptr); }
  AtEachWait(const AtEachWait&) = delete;
  AtEachWait& operator=(const AtEachWait&) = delete;
};

// ---- construction and destruction --------------------------------------------------------------

TEST(PipeChannel, AddressesAreThePipesNamesAndTheLocalOneIsThatWhichIsRead) {
  PipeEnds ends;
  EXPECT_EQ(ends.Channel().GetLocalAddress(), "\\" + ends.Name() + "_out");
  EXPECT_EQ(ends.Channel().GetRemoteAddress(), "\\" + ends.Name() + "_in");
}

TEST(PipeChannel, NamesAreTakenAsTheyAreGiven) {
  const detail::ChannelRef channel(new PipeChannel({}, {}, "read \\here\\", "write there"));
  EXPECT_EQ(channel->GetLocalAddress(), "read \\here\\");
  EXPECT_EQ(channel->GetRemoteAddress(), "write there");
}

TEST(PipeChannel, DestructionClosesBothEnds) {
  const std::vector<platform::Handle> before = platform::OpenPipeEnds();
  PipeEnds ends;
  EXPECT_EQ(platform::OpenPipeEnds().size(), before.size() + 4);
  ends.DropChannel();
  const std::vector<platform::Handle> after = platform::OpenPipeEnds();
  EXPECT_EQ(after.size(), before.size() + 2);
  for (const platform::Handle end : after) {
    EXPECT_NE(end, ends.ReadHandle());
    EXPECT_NE(end, ends.WriteHandle());
  }
  EXPECT_TRUE(ends.FarSeesClose());
  EXPECT_FALSE(ends.FarSend(Pattern(1)));
}

TEST(PipeChannel, DestructionWithoutPipesIsHarmless) {
  const int before = OpenDescriptorCount();
  { const detail::ChannelRef channel(new PipeChannel({}, {}, "a", "b")); }
  EXPECT_EQ(OpenDescriptorCount(), before);
}

TEST(PipeChannel, WhatWasSentIsReadBehindTheClose) {
  PipeEnds ends;
  ASSERT_EQ(SendBytes(ends.Channel(), Pattern(1000)), 1000);
  ends.DropChannel();
  EXPECT_EQ(ends.FarReceive(1000), Pattern(1000));
  EXPECT_TRUE(ends.FarSeesClose());
}

TEST(PipeChannel, WritesNothingToTheLog) {
  SetLimits(1);
  LogRecorder log;
  {
    PipeEnds ends;
    ASSERT_TRUE(ends.FarSend(Pattern(10)));
    EXPECT_EQ(ReceiveBytes(ends.Channel(), 10), Pattern(10));
    EXPECT_EQ(SendBytes(ends.Channel(), Pattern(10)), 10);
    const StopFlag set{1};
    uint8_t byte = 0;
    EXPECT_EQ(ends.Channel().Receive(&byte, 1), -1) << "silent";
    EXPECT_EQ(ends.Channel().Receive(&byte, 1, &set), -1) << "silent, and told to stop";
    FailCalls(SystemCall::POLL, 1);
    EXPECT_EQ(ends.Channel().Receive(&byte, 1), -1) << "the wait fails";
    ends.FarClose();
    EXPECT_EQ(ends.Channel().Receive(&byte, 1), -1) << "closed";
    EXPECT_TRUE(WaitUntil([&] { return SendBytes(ends.Channel(), Pattern(1)) == -1; }));
    ends.Channel().Wakeup();
    (void)ends.Channel().WaitForData(1);
  }
  EXPECT_TRUE(log.Lines().empty()) << log.Dump();
}

// ---- waiting for data --------------------------------------------------------------------------

TEST(PipeChannel, WaitForDataIsOneAtOnceForASilentPeerToo) {
  PipeEnds ends;
  (void)TakePollLimits();
  EXPECT_EQ(ends.Channel().WaitForData(0), 1);
  EXPECT_EQ(ends.Channel().WaitForData(5000), 1);
  EXPECT_EQ(ends.Channel().WaitForData(0xFFFFFFFF), 1);
  EXPECT_EQ(ends.Channel().WaitForData(), 1);
  ASSERT_TRUE(ends.FarSend(Pattern(4)));
  EXPECT_EQ(ends.Channel().WaitForData(5000), 1);
  ends.FarClose();
  EXPECT_EQ(ends.Channel().WaitForData(5000), 1);
  EXPECT_EQ(ends.Channel().WaitForData(), 1);
  EXPECT_TRUE(TakePollLimits().empty()) << "it looks at nothing";
  EXPECT_EQ(ReceiveBytes(ends.Channel(), 4), Pattern(4));
}

TEST(PipeChannel, WakeupDoesNothing) {
  PipeEnds ends;
  const int before = SocketsMade();
  for (int i = 0; i < 100; ++i) ends.Channel().Wakeup();
  EXPECT_EQ(SocketsMade(), before);
  EXPECT_EQ(ends.Channel().WaitForData(1), 1) << "no wake-up is left to be consumed";
  EXPECT_TRUE(ends.FarStaysSilentFor(milliseconds{20}));
  ASSERT_TRUE(ends.FarSend(Pattern(4)));
  EXPECT_EQ(ReceiveBytes(ends.Channel(), 4), Pattern(4));
}

// ---- reading with a flag -----------------------------------------------------------------------

TEST(PipeChannel, FlagIsLookedAtOnlyWhenASecondHasRunOut) {
  SetLimits(1);
  PipeEnds ends;
  const StopFlag set{1};
  (void)TakePollLimits();
  uint8_t byte = 0;
  const auto start = steady_clock::now();
  EXPECT_EQ(ends.Channel().Receive(&byte, 1, &set), -1);
  EXPECT_GE(ElapsedMs(start), 1000);
  const std::vector<int64_t> limits = TakePollLimits();
  ASSERT_EQ(limits.size(), 1u);
  ExpectWaitOf(limits[0], SLICE_MICROSECONDS);
}

TEST(PipeChannel, FlagThatIsSetDuringAWaitEndsTheReadAtTheEndOfThatWait) {
  PipeEnds ends;
  StopFlag flag{0};
  const AtEachWait hook([&](int number) {
    if (number == 2) flag = 1;
  });
  uint8_t byte = 0xEE;
  const auto start = steady_clock::now();
  EXPECT_EQ(ends.Channel().Receive(&byte, 1, &flag), -1);
  EXPECT_GE(ElapsedMs(start), 2000);
  const std::vector<int64_t> limits = TakePollLimits();
  ASSERT_EQ(limits.size(), 2u);
  for (const int64_t limit : limits) ExpectWaitOf(limit, SLICE_MICROSECONDS);
  EXPECT_EQ(byte, 0xEE);
}

TEST(PipeChannel, WaitsAreOfOneSecondWhateverTheTimeLimit) {
  for (const uint32_t ioTimeoutMs : {1u, 60000u}) {
    SetLimits(ioTimeoutMs);
    PipeEnds ends;
    const StopFlag live{0};
    const AtEachWait hook([&](int number) {
      if (number == 2) (void)ends.FarSend({7});
    });
    uint8_t byte = 0;
    EXPECT_EQ(ends.Channel().Receive(&byte, 1, &live), 1);
    EXPECT_EQ(byte, 7);
    const std::vector<int64_t> limits = TakePollLimits();
    ASSERT_EQ(limits.size(), 2u);
    for (const int64_t limit : limits) ExpectWaitOf(limit, SLICE_MICROSECONDS);
  }
}

TEST(PipeChannel, DataThatComeDuringAWaitAreReadWhateverTheFlagSays) {
  PipeEnds ends;
  const StopFlag set{1};
  const AtEachWait hook([&](int number) { ASSERT_TRUE(ends.FarSend({uint8_t(number)})); });
  Bytes buffer(3);
  EXPECT_EQ(ends.Channel().Receive(buffer.data(), 3, &set), 3);
  EXPECT_EQ(buffer, (Bytes{1, 2, 3}));
  EXPECT_EQ(TakePollLimits().size(), 3u);
}

TEST(PipeChannel, SetFlagEndsAReadBehindItsFirstHalf) {
  PipeEnds ends;
  const StopFlag set{1};
  ASSERT_TRUE(ends.FarSend(Pattern(5)));
  Bytes buffer(10, 0xEE);
  EXPECT_EQ(ends.Channel().Receive(buffer.data(), 10, &set), -1);
  EXPECT_EQ(buffer, Concat({Pattern(5), Bytes(5, 0xEE)}));
}

TEST(PipeChannel, FailedWaitEndsTheReadOfALiveSession) {
  PipeEnds ends;
  const StopFlag live{0};
  uint8_t byte = 0;
  FailCalls(SystemCall::POLL, 1);
  EXPECT_EQ(ends.Channel().Receive(&byte, 1, &live), -1);
  FailCalls(SystemCall::POLL, 1);
  EXPECT_EQ(ends.Channel().Receive(&byte, 1), -1);
  EXPECT_EQ(FailedCalls(SystemCall::POLL), 2);
}

// ---- reading without a flag --------------------------------------------------------------------

TEST(PipeChannel, SilentPeerIsGivenUpAfterOneWaitOfTheTimeLimit) {
  SetLimits(1500);
  PipeEnds ends;
  (void)TakePollLimits();
  uint8_t byte = 0;
  const auto start = steady_clock::now();
  EXPECT_EQ(ends.Channel().Receive(&byte, 1), -1);
  EXPECT_GE(ElapsedMs(start), 1500);
  const std::vector<int64_t> limits = TakePollLimits();
  ASSERT_EQ(limits.size(), 1u);
  ExpectWaitOf(limits[0], 1500000);
}

TEST(PipeChannel, DefaultTimeLimitIsAMinute) {
  PipeEnds ends;
  const AtEachWait hook([&](int) { ends.FarClose(); });
  uint8_t byte = 0;
  EXPECT_EQ(ends.Channel().Receive(&byte, 1), -1);
  const std::vector<int64_t> limits = TakePollLimits();
  ASSERT_EQ(limits.size(), 1u);
  ExpectWaitOf(limits[0], 60000000);
}

TEST(PipeChannel, LargestTimeLimitIsNone) {
  SetLimits(0xFFFFFFFF);
  PipeEnds ends;
  const AtEachWait hook([&](int) { (void)ends.FarSend({7}); });
  EXPECT_EQ(ReceiveBytes(ends.Channel(), 1), Bytes{7});
  EXPECT_EQ(TakePollLimits(), std::vector<int64_t>{-1});
}

// The pieces come after the time limit of the whole, and within that of each read.
TEST(PipeChannel, EachReadOfTheSystemHasATimeLimitOfItsOwn) {
  SetLimits(1000);
  PipeEnds ends;
  const AtEachWait hook([&](int number) {
    std::this_thread::sleep_for(milliseconds{400});
    ASSERT_TRUE(ends.FarSend({uint8_t(number)}));
  });
  const uint32_t before = ReadCalls();
  const auto start = steady_clock::now();
  EXPECT_EQ(ReceiveBytes(ends.Channel(), 4), (Bytes{1, 2, 3, 4}));
  EXPECT_GE(ElapsedMs(start), 1600);
  const std::vector<int64_t> limits = TakePollLimits();
  ASSERT_EQ(limits.size(), 4u);
  for (const int64_t limit : limits) ExpectWaitOf(limit, 1000000);
  EXPECT_EQ(ReadCalls(), before + 4);
}

// It binds CancelPipeOperation where the system itself puts what arrives into the buffer of a read
// under way: without a cancellation the four bytes would go there, and not to the second read.
// Where a read takes bytes only in calls of its own it cannot fail.
TEST(PipeChannel, ReadThatWasGivenUpTakesNothingLater) {
  SetLimits(1);
  PipeEnds ends;
  Bytes buffer(4, 0xEE);
  EXPECT_EQ(ends.Channel().Receive(buffer.data(), 4), -1);
  ASSERT_TRUE(ends.FarSend(Pattern(4)));
  std::this_thread::sleep_for(milliseconds{20});
  EXPECT_EQ(buffer, Bytes(4, 0xEE));
  EXPECT_EQ(ReceiveBytes(ends.Channel(), 4), Pattern(4));
}

// ---- counting ----------------------------------------------------------------------------------

TEST(PipeChannel, EveryReadOfTheSystemIsCountedAlsoOneThatFails) {
  SetLimits(1);
  PipeEnds ends;
  uint8_t byte = 0;
  const uint32_t before = ReadCalls();
  EXPECT_EQ(ends.Channel().Receive(&byte, 1), -1);
  EXPECT_EQ(ReadCalls(), before + 1) << "one that waits is one read";
  ASSERT_TRUE(ends.FarSend(Pattern(5)));
  ends.FarClose();
  Bytes buffer(10);
  EXPECT_EQ(ends.Channel().Receive(buffer.data(), 10), -1);
  EXPECT_EQ(ReadCalls(), before + 3) << "the half, and the end";
  EXPECT_EQ(WriteCalls(), 0u);
}

TEST(PipeChannel, EveryWriteOfTheSystemIsCountedAlsoOneThatFails) {
  PipeEnds ends;
  SendNothing(3);
  EXPECT_EQ(SendBytes(ends.Channel(), Pattern(10)), 10);
  EXPECT_EQ(EmptySendsLeft(), 0);
  EXPECT_EQ(WriteCalls(), 4u);
  EXPECT_EQ(ends.FarReceive(10), Pattern(10));
  ends.FarClose();
  EXPECT_EQ(SendBytes(ends.Channel(), Pattern(10)), -1);
  EXPECT_EQ(WriteCalls(), 5u);
  EXPECT_EQ(ReadCalls(), 0u);
}

// ---- writing -----------------------------------------------------------------------------------

/// Sends on a thread of its own more than fits on the way.
class LargeSend final {
 public:
  explicit LargeSend(ITransportChannel& channel)
      : thread([this, &channel] {
          result = SendBytes(channel, Pattern(LARGE));
          ended = true;
        }) {}
  ~LargeSend() { (void)Join(); }
  LargeSend(const LargeSend&) = delete;
  LargeSend& operator=(const LargeSend&) = delete;

  bool HasEnded() const { return ended; }
  int32_t Join() {
    if (thread.joinable()) thread.join();
    return result;
  }

 private:
  int32_t result = 0;
  std::atomic<bool> ended{false};
  std::thread thread;
};

TEST(PipeChannel, SendWaitsWithoutAnyLimitUntilThePeerReads) {
  SetLimits(1);
  PipeEnds ends;
  ASSERT_TRUE(ends.FarSend({1}));
  (void)TakePollLimits();
  LargeSend send(ends.Channel());
  ASSERT_TRUE(WaitUntil([] { return WriteCalls() != 0; }));
  std::this_thread::sleep_for(milliseconds{1500});
  EXPECT_FALSE(send.HasEnded());
  EXPECT_FALSE(IsNonBlocking(ends.WriteHandle()));
  EXPECT_EQ(SendTimeLimitMs(ends.WriteHandle()), 0);
  EXPECT_TRUE(TakePollLimits().empty()) << "the system's write is what waits";
  EXPECT_TRUE(ends.FarReceive(LARGE) == Pattern(LARGE));
  EXPECT_EQ(send.Join(), int32_t{LARGE});
}

TEST(PipeChannel, SendThatWaitsFailsWhenThePeerCloses) {
  PipeEnds ends;
  LargeSend send(ends.Channel());
  ASSERT_TRUE(WaitUntil([] { return WriteCalls() != 0; }));
  std::this_thread::sleep_for(milliseconds{50});
  EXPECT_FALSE(send.HasEnded());
  ends.FarClose();
  EXPECT_EQ(send.Join(), -1);
}

TEST(PipeChannel, DirectionsAreIndependent) {
  PipeEnds ends;
  LargeSend send(ends.Channel());
  ASSERT_TRUE(WaitUntil([] { return WriteCalls() != 0; }));
  ASSERT_TRUE(ends.FarSend(Pattern(100)));
  EXPECT_EQ(ReceiveBytes(ends.Channel(), 100), Pattern(100));
  EXPECT_TRUE(ends.FarReceive(LARGE) == Pattern(LARGE));
  EXPECT_EQ(send.Join(), int32_t{LARGE});
  // One that is closed leaves the other.
  ends.Far().ShutdownWrite();
  uint8_t byte = 0;
  EXPECT_EQ(ends.Channel().Receive(&byte, 1), -1);
  EXPECT_EQ(SendBytes(ends.Channel(), Pattern(10)), 10);
  EXPECT_EQ(ends.FarReceive(10), Pattern(10));
}

// ---- a difficult host --------------------------------------------------------------------------

// A wait that began anew behind each signal would have no end.
TEST(PipeChannel, HostSignalsNeitherEndNorProlongAWait) {
  SetLimits(1200);
  PipeEnds ends;
  const StopFlag set{1};
  const SignalStorm storm;
  uint8_t byte = 0;
  auto start = steady_clock::now();
  EXPECT_EQ(ends.Channel().Receive(&byte, 1), -1);
  EXPECT_GE(ElapsedMs(start), 1200);
  start = steady_clock::now();
  EXPECT_EQ(ends.Channel().Receive(&byte, 1, &set), -1);
  EXPECT_GE(ElapsedMs(start), 1000);
  if (SignalStorm::IsAvailable()) {
    EXPECT_GT(SignalStorm::Delivered(), 100u);
  }
}

TEST(PipeChannel, SignalsOfTheHostStayAsTheyAre) {
  SetLimits(1);
  const SignalState before = SignalState::Current();
  PipeEnds ends;
  uint8_t byte = 0;
  (void)ends.Channel().Receive(&byte, 1);
  ends.FarClose();
  EXPECT_EQ(SendBytes(ends.Channel(), {1}), -1);
  EXPECT_EQ(SignalState::Current(), before);
}

TEST(PipeChannel, WorksWithDescriptorsAboveTheOldSetLimit) {
  SetLimits(1);
  const DescriptorsInUse used(1100);
  PipeEnds ends;
  ASSERT_GT(ends.ReadHandle(), 1100);
  ASSERT_GT(ends.WriteHandle(), 1100);
  uint8_t byte = 0;
  EXPECT_EQ(ends.Channel().Receive(&byte, 1), -1);
  ASSERT_TRUE(ends.FarSend(Pattern(10)));
  EXPECT_EQ(ReceiveBytes(ends.Channel(), 10), Pattern(10));
  EXPECT_EQ(SendBytes(ends.Channel(), Pattern(10)), 10);
  EXPECT_EQ(ends.FarReceive(10), Pattern(10));
}

}  // namespace
}  // namespace TQ::test
