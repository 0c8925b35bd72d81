// What every transport promises of its channel. A transport instantiates the suite with a class
// like SocketEnds of support/channel_ends.h:
//
//   INSTANTIATE_TYPED_TEST_SUITE_P(Socket, TransportChannel, SocketEnds);
//   INSTANTIATE_TYPED_TEST_SUITE_P(Pipe, TransportChannel, PipeEnds);
//
// What differs between transports (address texts, log lines, wake-ups, the exact time limits) has
// tests of its own beside each transport.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <thread>

#include "frame/object_counts.h"
#include "support/bytes.h"
#include "support/channel_ends.h"
#include "support/host_conditions.h"
#include "support/log_recorder.h"
#include "support/wait_until.h"

namespace TQ::test {

template <typename Ends>
class TransportChannel : public testing::Test {
 protected:
  using StopFlag = detail::StopFlag;
  using milliseconds = std::chrono::milliseconds;

  /// Larger than all buffers on the way together.
  static constexpr size_t LARGE = size_t{12} << 20;

  static uint32_t ReadCalls() { return detail::g_objectCounts.readCalls.load(); }
  static uint32_t WriteCalls() { return detail::g_objectCounts.writeCalls.load(); }

  ITransportChannel& Channel() { return ends.Channel(); }

  // Reads on a thread of its own, which ends with the object.
  class Reader {
   public:
    Reader(ITransportChannel& channel, uint32_t length, const StopFlag* flag)
        : bytes(length), thread([this, &channel, length, flag] {
            result = channel.Receive(bytes.data(), length, flag);
            ended = true;
          }) {}
    ~Reader() { Join(); }
    Reader(const Reader&) = delete;
    Reader& operator=(const Reader&) = delete;

    bool HasEnded() const { return ended; }
    int32_t Join() {
      if (thread.joinable()) thread.join();
      return result;
    }
    const Bytes& Result() const { return bytes; }

   private:
    Bytes bytes;
    int32_t result = 0;
    std::atomic<bool> ended{false};
    std::thread thread;
  };

  Ends ends;
};

TYPED_TEST_SUITE_P(TransportChannel);

TYPED_TEST_P(TransportChannel, IsValid) {
  EXPECT_TRUE(this->Channel().CheckValid());
  this->ends.FarClose();
  EXPECT_TRUE(this->Channel().CheckValid());
}

TYPED_TEST_P(TransportChannel, ReceiveTakesExactlyWhatItIsAskedFor) {
  ASSERT_TRUE(this->ends.FarSend(Pattern(100)));
  Bytes buffer(50, 0xEE);
  EXPECT_EQ(this->Channel().Receive(buffer.data(), 40), 40);
  EXPECT_EQ(Prefix(buffer, 40), Prefix(Pattern(100), 40));
  EXPECT_EQ(buffer[40], 0xEE);
  const typename TestFixture::StopFlag live{0};
  Bytes rest(60);
  EXPECT_EQ(this->Channel().Receive(rest.data(), 60, &live), 60);
  EXPECT_EQ(Concat({Prefix(buffer, 40), rest}), Pattern(100));
}

TYPED_TEST_P(TransportChannel, ReceiveJoinsPieces) {
  const typename TestFixture::StopFlag live{0};
  typename TestFixture::Reader reader(this->Channel(), 10, &live);
  for (const uint8_t byte : Pattern(10)) {
    EXPECT_FALSE(reader.HasEnded());
    ASSERT_TRUE(this->ends.FarSend({byte}));
    std::this_thread::sleep_for(std::chrono::milliseconds{2});
  }
  EXPECT_EQ(reader.Join(), 10);
  EXPECT_EQ(reader.Result(), Pattern(10));
}

TYPED_TEST_P(TransportChannel, ReceiveOfNothingTouchesNothing) {
  const typename TestFixture::StopFlag set{1};
  this->ends.FarClose();
  LogRecorder log;
  const uint32_t before = this->ReadCalls();
  EXPECT_EQ(this->Channel().Receive(nullptr, 0), 0);
  EXPECT_EQ(this->Channel().Receive(nullptr, 0, &set), 0);
  EXPECT_EQ(this->ReadCalls(), before);
  EXPECT_TRUE(log.Lines().empty()) << log.Dump();
}

TYPED_TEST_P(TransportChannel, ReceiveAboveTheReadLimitFailsBeforeAnythingAndWithoutALogLine) {
  SetLimits(0, 64);
  ASSERT_TRUE(this->ends.FarSend(Pattern(200)));
  const typename TestFixture::StopFlag live{0};
  Bytes buffer(65, 0xEE);
  LogRecorder log;
  const uint32_t before = this->ReadCalls();
  EXPECT_EQ(this->Channel().Receive(buffer.data(), 65), -1);
  EXPECT_EQ(this->Channel().Receive(buffer.data(), 65, &live), -1);
  EXPECT_EQ(this->Channel().Receive(buffer.data(), 0xFFFFFFFF), -1);
  EXPECT_EQ(this->ReadCalls(), before);
  EXPECT_EQ(buffer, Bytes(65, 0xEE));
  EXPECT_TRUE(log.Lines().empty()) << log.Dump();
  // The limit itself is allowed, and the stream has lost nothing.
  EXPECT_EQ(this->Channel().Receive(buffer.data(), 64), 64);
  EXPECT_EQ(Prefix(buffer, 64), Prefix(Pattern(200), 64));
}

TYPED_TEST_P(TransportChannel, ReceiveOfWhatIsThereCostsOneSystemCall) {
  ASSERT_TRUE(this->ends.FarSend(Pattern(1000)));
  ASSERT_GT(this->Channel().WaitForData(20000), 0);
  std::this_thread::sleep_for(std::chrono::milliseconds{20});
  const uint32_t before = this->ReadCalls();
  ASSERT_EQ(ReceiveBytes(this->Channel(), 10), Prefix(Pattern(1000), 10));
  EXPECT_EQ(this->ReadCalls(), before + 1);
}

TYPED_TEST_P(TransportChannel, SendDeliversEveryByte) {
  const uint32_t before = this->WriteCalls();
  EXPECT_EQ(SendBytes(this->Channel(), Pattern(1000)), 1000);
  EXPECT_EQ(this->WriteCalls(), before + 1);
  EXPECT_EQ(this->ends.FarReceive(1000), Pattern(1000));
}

TYPED_TEST_P(TransportChannel, SendOfNothingTouchesNothing) {
  const uint32_t before = this->WriteCalls();
  EXPECT_EQ(this->Channel().Send(nullptr, 0), 0);
  EXPECT_EQ(this->WriteCalls(), before);
  EXPECT_TRUE(this->ends.FarStaysSilentFor(std::chrono::milliseconds{20}));
}

TYPED_TEST_P(TransportChannel, SendHasNoUpperLimit) {
  SetLimits(0, 16);
  EXPECT_EQ(SendBytes(this->Channel(), Pattern(1000)), 1000);
  EXPECT_EQ(this->ends.FarReceive(1000), Pattern(1000));
}

TYPED_TEST_P(TransportChannel, LargeTransfersArriveWholeInBothDirectionsAtOnce) {
  constexpr size_t SIZE = TestFixture::LARGE;
  const Bytes out = Pattern(SIZE, 1);
  const Bytes in = Pattern(SIZE, 2);
  const uint32_t before = this->WriteCalls();
  const typename TestFixture::StopFlag live{0};
  typename TestFixture::Reader reader(this->Channel(), static_cast<uint32_t>(SIZE), &live);
  std::thread writer([&] { EXPECT_EQ(SendBytes(this->Channel(), out), int32_t{SIZE}); });
  std::thread farWriter([&] { EXPECT_TRUE(this->ends.FarSend(in)); });
  const std::optional<Bytes> arrived = this->ends.FarReceive(SIZE);
  writer.join();
  farWriter.join();
  EXPECT_EQ(reader.Join(), int32_t{SIZE});
  // Compared as truths: a difference would print megabytes.
  EXPECT_TRUE(arrived == out);
  EXPECT_TRUE(reader.Result() == in);
  EXPECT_GT(this->WriteCalls(), before);
}

TYPED_TEST_P(TransportChannel, ReceiveFailsWhenThePeerCloses) {
  const typename TestFixture::StopFlag live{0};
  this->ends.FarClose();
  Bytes buffer(4);
  EXPECT_EQ(this->Channel().Receive(buffer.data(), 4), -1);
  EXPECT_EQ(this->Channel().Receive(buffer.data(), 4, &live), -1);
}

TYPED_TEST_P(TransportChannel, ReceiveConsumesTheHalfThatAPeerSendsBeforeItCloses) {
  ASSERT_TRUE(this->ends.FarSend(Pattern(5)));
  this->ends.FarClose();
  Bytes buffer(10, 0xEE);
  EXPECT_EQ(this->Channel().Receive(buffer.data(), 10), -1);
  EXPECT_EQ(Prefix(buffer, 5), Pattern(5));
  EXPECT_EQ(buffer[5], 0xEE);
  EXPECT_EQ(this->Channel().Receive(buffer.data(), 1), -1);
}

TYPED_TEST_P(TransportChannel, PeersCloseEndsAReadThatWaits) {
  const typename TestFixture::StopFlag live{0};
  typename TestFixture::Reader reader(this->Channel(), 4, &live);
  std::this_thread::sleep_for(std::chrono::milliseconds{20});
  EXPECT_FALSE(reader.HasEnded());
  this->ends.FarClose();
  EXPECT_EQ(reader.Join(), -1);
}

TYPED_TEST_P(TransportChannel, SendToAPeerThatIsGoneFailsInTheEnd) {
  this->ends.FarClose();
  EXPECT_TRUE(WaitUntil([&] { return SendBytes(this->Channel(), Pattern(1000)) == -1; }));
  EXPECT_EQ(SendBytes(this->Channel(), Pattern(1)), -1);
}

TYPED_TEST_P(TransportChannel, ReceiveOfALiveSessionWaitsBeyondEveryLimit) {
  SetLimits(1);
  const typename TestFixture::StopFlag live{0};
  typename TestFixture::Reader reader(this->Channel(), 2, &live);
  // Longer than any wait that the limit leads to, before the first byte and behind it.
  std::this_thread::sleep_for(std::chrono::milliseconds{1200});
  EXPECT_FALSE(reader.HasEnded());
  ASSERT_TRUE(this->ends.FarSend({1}));
  std::this_thread::sleep_for(std::chrono::milliseconds{1200});
  EXPECT_FALSE(reader.HasEnded());
  ASSERT_TRUE(this->ends.FarSend({2}));
  EXPECT_EQ(reader.Join(), 2);
  EXPECT_EQ(reader.Result(), (Bytes{1, 2}));
}

TYPED_TEST_P(TransportChannel, ReceiveWithASetFlagTakesWhatIsThere) {
  SetLimits(1);
  const typename TestFixture::StopFlag set{1};
  ASSERT_TRUE(this->ends.FarSend(Pattern(10)));
  ASSERT_GT(this->Channel().WaitForData(20000), 0);
  Bytes buffer(10);
  EXPECT_EQ(this->Channel().Receive(buffer.data(), 10, &set), 10);
  EXPECT_EQ(buffer, Pattern(10));
}

TYPED_TEST_P(TransportChannel, FlagThatIsSetDuringTheWaitEndsTheRead) {
  SetLimits(2000);
  typename TestFixture::StopFlag flag{0};
  typename TestFixture::Reader reader(this->Channel(), 4, &flag);
  std::this_thread::sleep_for(std::chrono::milliseconds{50});
  EXPECT_FALSE(reader.HasEnded());
  flag = 1;
  EXPECT_EQ(reader.Join(), -1);
}

TYPED_TEST_P(TransportChannel, ReceiveWithoutAFlagGivesASilentPeerUp) {
  SetLimits(2000);
  Bytes buffer(4);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(this->Channel().Receive(buffer.data(), 4), -1);
  EXPECT_GE(ElapsedMs(start), TypeParam::SilenceMs(2000));
}

TYPED_TEST_P(TransportChannel, ReceiveWithANullFlagIsTheFormWithoutOne) {
  SetLimits(2000);
  Bytes buffer(4);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(this->Channel().Receive(buffer.data(), 4, nullptr), -1);
  EXPECT_GE(ElapsedMs(start), TypeParam::SilenceMs(2000));
}

TYPED_TEST_P(TransportChannel, WakeupInterruptsNeitherReadNorWrite) {
  const typename TestFixture::StopFlag live{0};
  typename TestFixture::Reader reader(this->Channel(), 4, &live);
  std::this_thread::sleep_for(std::chrono::milliseconds{20});
  this->Channel().Wakeup();
  std::this_thread::sleep_for(std::chrono::milliseconds{20});
  EXPECT_FALSE(reader.HasEnded());
  const Bytes out = Pattern(TestFixture::LARGE);
  std::thread writer([&] { EXPECT_EQ(SendBytes(this->Channel(), out), int32_t(out.size())); });
  for (int i = 0; i < 10; ++i) this->Channel().Wakeup();
  EXPECT_TRUE(this->ends.FarReceive(out.size()) == out);
  writer.join();
  ASSERT_TRUE(this->ends.FarSend(Pattern(4)));
  EXPECT_EQ(reader.Join(), 4);
  EXPECT_EQ(reader.Result(), Pattern(4));
}

TYPED_TEST_P(TransportChannel, WaitForDataIsPositiveAndLeavesTheData) {
  ASSERT_TRUE(this->ends.FarSend(Pattern(4)));
  EXPECT_GT(this->Channel().WaitForData(20000), 0);
  EXPECT_GT(this->Channel().WaitForData(), 0);
  EXPECT_EQ(ReceiveBytes(this->Channel(), 4), Pattern(4));
}

TYPED_TEST_P(TransportChannel, WaitForDataIsPositiveForAClosedPeer) {
  this->ends.FarClose();
  EXPECT_GT(this->Channel().WaitForData(20000), 0);
}

TYPED_TEST_P(TransportChannel, AddressTextsStayWhenThePeerIsGone) {
  const std::string local = this->Channel().GetLocalAddress();
  const std::string remote = this->Channel().GetRemoteAddress();
  EXPECT_FALSE(local.empty());
  EXPECT_FALSE(remote.empty());
  EXPECT_NE(local, remote);
  this->ends.FarClose();
  EXPECT_EQ(this->Channel().GetLocalAddress(), local);
  EXPECT_EQ(this->Channel().GetRemoteAddress(), remote);
}

TYPED_TEST_P(TransportChannel, PeerSeesTheCloseWhenTheLastReferenceHasGone) {
  detail::ChannelRef other = this->ends.Ref();
  this->ends.DropChannel();
  EXPECT_TRUE(this->ends.FarStaysSilentFor(std::chrono::milliseconds{50}));
  other.Reset();
  EXPECT_TRUE(this->ends.FarSeesClose());
}

TYPED_TEST_P(TransportChannel, HostSignalsNeitherEndAReadNorAWrite) {
  SetLimits(2000);
  const typename TestFixture::StopFlag live{0};
  const SignalStorm storm;
  typename TestFixture::Reader reader(this->Channel(), 4, &live);
  const Bytes out = Pattern(TestFixture::LARGE);
  std::thread writer([&] { EXPECT_EQ(SendBytes(this->Channel(), out), int32_t(out.size())); });
  EXPECT_TRUE(
      WaitUntil([] { return !SignalStorm::IsAvailable() || SignalStorm::Delivered() > 100; }));
  EXPECT_FALSE(reader.HasEnded());
  EXPECT_TRUE(this->ends.FarReceive(out.size()) == out);
  writer.join();
  ASSERT_TRUE(this->ends.FarSend(Pattern(4)));
  EXPECT_EQ(reader.Join(), 4);
}

REGISTER_TYPED_TEST_SUITE_P(
    TransportChannel, IsValid, ReceiveTakesExactlyWhatItIsAskedFor, ReceiveJoinsPieces,
    ReceiveOfNothingTouchesNothing, ReceiveAboveTheReadLimitFailsBeforeAnythingAndWithoutALogLine,
    ReceiveOfWhatIsThereCostsOneSystemCall, SendDeliversEveryByte, SendOfNothingTouchesNothing,
    SendHasNoUpperLimit, LargeTransfersArriveWholeInBothDirectionsAtOnce,
    ReceiveFailsWhenThePeerCloses, ReceiveConsumesTheHalfThatAPeerSendsBeforeItCloses,
    PeersCloseEndsAReadThatWaits, SendToAPeerThatIsGoneFailsInTheEnd,
    ReceiveOfALiveSessionWaitsBeyondEveryLimit, ReceiveWithASetFlagTakesWhatIsThere,
    FlagThatIsSetDuringTheWaitEndsTheRead, ReceiveWithoutAFlagGivesASilentPeerUp,
    ReceiveWithANullFlagIsTheFormWithoutOne, WakeupInterruptsNeitherReadNorWrite,
    WaitForDataIsPositiveAndLeavesTheData, WaitForDataIsPositiveForAClosedPeer,
    AddressTextsStayWhenThePeerIsGone, PeerSeesTheCloseWhenTheLastReferenceHasGone,
    HostSignalsNeitherEndAReadNorAWrite);

}  // namespace TQ::test
