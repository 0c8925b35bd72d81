#include "support/host_conditions.h"

#include "support/child_process.h"
#include "support/loopback_pair.h"
#include "support/process_info.h"
#include "support/wait_until.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <thread>

namespace TQ::test {
namespace {

using std::chrono::milliseconds;

TEST(SignalStorm, ReachesThreadsAndLeavesTheDispositionsAsTheyWere) {
  const SignalState before = SignalState::Current();
  EXPECT_NE(before.caught, "unknown");
  {
    const SignalStorm storm;
    EXPECT_NE(SignalState::Current(), before);
    EXPECT_TRUE(WaitUntil([] { return SignalStorm::Delivered() >= 20; }));
  }
  EXPECT_EQ(SignalState::Current(), before);
}

TEST(SignalStorm, DoesNotShowInThePeersOwnCalls) {
  LoopbackPair pair;
  RawPeer left(pair.TakeNear());
  RawPeer right(pair.TakeFar());
  const SignalStorm storm;
  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(right.ReceiveExactly(1, milliseconds{100}));
  EXPECT_GE(std::chrono::steady_clock::now() - start, milliseconds{100});
  std::thread sender([&] { EXPECT_TRUE(left.SendBytes(Pattern(1000000))); });
  EXPECT_EQ(right.ReceiveExactly(1000000), Pattern(1000000));
  sender.join();
  EXPECT_GT(SignalStorm::Delivered(), 0u);
}

TEST(DescriptorsInUse, PushesNewDescriptorsAboveTheNumber) {
  const int before = OpenDescriptorCount();
  {
    const DescriptorsInUse used(1100);
    EXPECT_GT(used.Count(), 1000u);
    LoopbackPair pair;
    EXPECT_GT(pair.Near(), 1100);
    EXPECT_GT(pair.Far(), 1100);
    ASSERT_TRUE(RawPeer(pair.TakeNear()).SendBytes({1}));
    EXPECT_EQ(pair.TakeFarAsPeer().ReceiveExactly(1), (Bytes{1}));
  }
  EXPECT_EQ(OpenDescriptorCount(), before);
}

TQ_TEST_ROLE(allocateUnderALimit) {
  const bool limited = LimitAddressSpace(uint64_t{1} << 30);
  void* const large = limited ? std::malloc(size_t{2} << 30) : nullptr;
  void* const small = std::malloc(1 << 20);
  Say(std::string(limited ? "limited" : "not limited") + (large != nullptr ? ", large" : "") +
      (small != nullptr ? ", small" : ""));
  std::free(large);
  std::free(small);
  return 0;
}

TEST(LimitAddressSpace, MakesLargeAllocationsFailAndNoSmallOnes) {
  ChildProcess child("allocateUnderALimit");
  const auto line = child.ReadLine();
  ASSERT_TRUE(line);
  EXPECT_TRUE(*line == "limited, small" || *line == "not limited, small") << *line;
  EXPECT_TRUE(child.ExpectSuccess());
}

}  // namespace
}  // namespace TQ::test
