// The table of the requests that wait for their reply.
#include "session/awaiting_requests.h"

#include <gtest/gtest.h>
#include <tq/tq.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "support/test_message.h"
#include "support/wait_until.h"

namespace TQ::test {
namespace {

using detail::AwaitingRequests;
using Ids = std::vector<uint32_t>;

uint32_t PendingCalls() { return DEBUG_TQObjectCount().pendingCalls; }

uint32_t MessagesAlive() { return DEBUG_TQObjectCount().messages; }

TEST(AwaitingRequests, GivesBackTheRequestOfAnId) {
  AwaitingRequests requests;
  const auto first = TestMessage::Make(1);
  const auto second = TestMessage::Make(2);
  requests.Insert(first);
  requests.Insert(second);
  EXPECT_EQ(requests.Take(2).Get(), second.Get());
  EXPECT_EQ(requests.Take(1).Get(), first.Get());
}

TEST(AwaitingRequests, GivesARequestOnce) {
  AwaitingRequests requests;
  requests.Insert(TestMessage::Make(1));
  EXPECT_TRUE(requests.Take(1));
  EXPECT_FALSE(requests.Take(1));
}

TEST(AwaitingRequests, GivesNothingForAnUnknownId) {
  AwaitingRequests requests;
  EXPECT_FALSE(requests.Take(0));
  requests.Insert(TestMessage::Make(5));
  EXPECT_FALSE(requests.Take(4));
  EXPECT_FALSE(requests.Take(6));
  EXPECT_FALSE(requests.Take(0xFFFFFFFF));
  EXPECT_TRUE(requests.Take(5));
}

TEST(AwaitingRequests, HoldsAReferenceUntilTheRequestIsTaken) {
  AwaitingRequests requests;
  TestMessage::Events events;
  requests.Insert(TestMessage::Make(3, &events));
  EXPECT_EQ(MessagesAlive(), 1u);
  EXPECT_TRUE(events.destroyed.empty());
  requests.Take(3).Reset();
  EXPECT_EQ(events.destroyed, Ids{3});
  EXPECT_EQ(MessagesAlive(), 0u);
}

TEST(AwaitingRequests, ReplacesAndReleasesTheRequestOfTheSameIdUncompleted) {
  AwaitingRequests requests;
  TestMessage::Events older;
  TestMessage::Events newer;
  requests.Insert(TestMessage::Make(3, &older));
  requests.Insert(TestMessage::Make(3, &newer));
  EXPECT_EQ(older.destroyed, Ids{3});
  EXPECT_TRUE(older.completed.empty());
  EXPECT_TRUE(older.cancelled.empty());
  EXPECT_EQ(PendingCalls(), 1u);
  requests.Take(3).Reset();
  EXPECT_EQ(newer.destroyed, Ids{3});
}

TEST(AwaitingRequests, CountsItselfWhenARequestGoesInAndWhenNoneIsFound) {
  AwaitingRequests requests;
  requests.Insert(TestMessage::Make(1));
  EXPECT_EQ(PendingCalls(), 1u);
  requests.Insert(TestMessage::Make(2));
  EXPECT_EQ(PendingCalls(), 2u);
  // Taking one out leaves the counter as it is.
  EXPECT_TRUE(requests.Take(1));
  EXPECT_EQ(PendingCalls(), 2u);
  EXPECT_FALSE(requests.Take(1));
  EXPECT_EQ(PendingCalls(), 1u);
}

TEST(AwaitingRequests, CountsTheTableThatWasTouchedLast) {
  AwaitingRequests one;
  AwaitingRequests other;
  one.Insert(TestMessage::Make(1));
  one.Insert(TestMessage::Make(2));
  other.Insert(TestMessage::Make(3));
  EXPECT_EQ(PendingCalls(), 1u);
  EXPECT_FALSE(one.Take(9));
  EXPECT_EQ(PendingCalls(), 2u);
}

TEST(AwaitingRequests, CancelsInTheOrderOfUnsignedIds) {
  AwaitingRequests requests;
  TestMessage::Events events;
  for (const uint32_t id : {0x80000000u, 5u, 0xFFFFFFFFu, 0u, 0x7FFFFFFFu, 6u}) {
    requests.Insert(TestMessage::Make(id, &events));
  }
  requests.CancelAll();
  EXPECT_EQ(events.cancelled, (Ids{0, 5, 6, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFF}));
  EXPECT_TRUE(events.completed.empty());
  requests.Clear();
}

TEST(AwaitingRequests, KeepsWhatItHasCancelled) {
  AwaitingRequests requests;
  TestMessage::Events events;
  requests.Insert(TestMessage::Make(1, &events));
  requests.Insert(TestMessage::Make(2, &events));
  requests.CancelAll();
  EXPECT_TRUE(events.destroyed.empty());
  EXPECT_EQ(MessagesAlive(), 2u);
  EXPECT_TRUE(requests.Take(1));
  EXPECT_TRUE(requests.Take(2));
}

TEST(AwaitingRequests, LetsACancelledRequestComeBackOnItsThread) {
  AwaitingRequests requests;
  TestMessage::Events events;
  bool found = true;
  events.onComplete = [&](uint32_t) { found = static_cast<bool>(requests.Take(77)); };
  requests.Insert(TestMessage::Make(1, &events));
  requests.CancelAll();
  EXPECT_FALSE(found);
  requests.Clear();
}

TEST(AwaitingRequests, StaysLockedWhileItCancels) {
  AwaitingRequests requests;
  TestMessage::Events events;
  std::atomic<bool> begun{false};
  std::atomic<bool> taken{false};
  std::thread other;
  events.onComplete = [&](uint32_t) {
    other = std::thread([&] {
      begun = true;
      (void)requests.Take(77);
      taken = true;
    });
    EXPECT_TRUE(WaitUntil([&] { return begun.load(); }));
    // Time for the other thread to get through, if nothing held it.
    EXPECT_FALSE(WaitUntil([&] { return taken.load(); }, std::chrono::milliseconds{50}));
  };
  requests.Insert(TestMessage::Make(1, &events));
  requests.CancelAll();
  EXPECT_TRUE(WaitUntil([&] { return taken.load(); }));
  other.join();
  requests.Clear();
}

TEST(AwaitingRequests, ReleasesEverythingWhenCleared) {
  AwaitingRequests requests;
  TestMessage::Events events;
  requests.Insert(TestMessage::Make(2, &events));
  requests.Insert(TestMessage::Make(1, &events));
  requests.Clear();
  EXPECT_EQ(events.destroyed.size(), 2u);
  EXPECT_TRUE(events.completed.empty());
  EXPECT_TRUE(events.cancelled.empty());
  EXPECT_EQ(MessagesAlive(), 0u);
  EXPECT_FALSE(requests.Take(1));
}

TEST(AwaitingRequests, ServesTwoThreadsAtATime) {
  constexpr uint32_t COUNT = 20000;
  AwaitingRequests requests;
  std::atomic<uint32_t> inserted{0};
  std::thread sender([&] {
    for (uint32_t id = 1; id <= COUNT; ++id) {
      requests.Insert(TestMessage::Make(id));
      inserted.store(id);
    }
  });
  uint32_t wrong = 0;
  for (uint32_t id = 1; id <= COUNT; ++id) {
    ASSERT_TRUE(WaitUntil([&] { return inserted.load() >= id; }));
    const auto request = requests.Take(id);
    wrong += request && request->RequestId() == id ? 0 : 1;
  }
  sender.join();
  EXPECT_EQ(wrong, 0u);
  EXPECT_EQ(MessagesAlive(), 0u);
}

}  // namespace
}  // namespace TQ::test
