// The queue of messages: order, sleeping and waking, ends.
#include "session/message_queue.h"

#include <gtest/gtest.h>
#include <tq/tq.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <thread>
#include <vector>

#include "support/test_message.h"
#include "support/wait_until.h"

namespace TQ::test {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

using detail::MessageQueue;
using detail::MessageRef;
using detail::WAIT_FOREVER;
using Ids = std::vector<uint32_t>;

// Long enough that a wait that should end at once and does not is seen; never waited for else.
constexpr uint32_t LONG_WAIT_MS = 60000;

uint32_t MessagesAlive() { return DEBUG_TQObjectCount().messages; }

Ids PopAll(MessageQueue& queue) {
  Ids ids;
  while (const MessageRef message = queue.Pop(0)) {
    ids.push_back(message->RequestId());
  }
  return ids;
}

// A consumer in a thread of its own that takes one message.
struct SleepingConsumer {
  SleepingConsumer(MessageQueue& queue, uint32_t timeoutMs)
      : thread([this, &queue, timeoutMs] {
          message = queue.Pop(timeoutMs);
          returned = true;
        }) {}
  ~SleepingConsumer() { thread.join(); }

  bool Returned(milliseconds deadline = DEFAULT_DEADLINE) {
    return WaitUntil([&] { return returned.load(); }, deadline);
  }

  MessageRef message;
  std::atomic<bool> returned{false};
  std::thread thread;
};

TEST(MessageQueue, GivesNothingAtOnceWhenEmptyAndNotToldToWait) {
  MessageQueue queue;
  SleepingConsumer consumer(queue, 0);
  ASSERT_TRUE(consumer.Returned());
  EXPECT_FALSE(consumer.message);
}

TEST(MessageQueue, GivesMessagesInTheOrderInWhichTheyCame) {
  MessageQueue queue;
  for (uint32_t id = 1; id <= 5; ++id) {
    EXPECT_TRUE(queue.Push(TestMessage::Make(id)));
  }
  EXPECT_EQ(PopAll(queue), (Ids{1, 2, 3, 4, 5}));
  EXPECT_FALSE(queue.Pop(0));
}

TEST(MessageQueue, KeepsTheOrderWhenPushesAndPopsAlternate) {
  MessageQueue queue;
  Ids popped;
  uint32_t next = 1;
  // Pops that take a part of what is there, so that a rest meets new messages again and again.
  for (int round = 0; round < 50; ++round) {
    for (int i = 0; i < 3; ++i) {
      queue.Push(TestMessage::Make(next++));
    }
    for (int i = 0; i < 2; ++i) {
      popped.push_back(queue.Pop(0)->RequestId());
    }
  }
  for (const uint32_t id : PopAll(queue)) {
    popped.push_back(id);
  }
  ASSERT_EQ(popped.size(), 150u);
  for (uint32_t i = 0; i < popped.size(); ++i) {
    EXPECT_EQ(popped[i], i + 1);
  }
}

TEST(MessageQueue, HandsItsReferenceToWhoPops) {
  MessageQueue queue;
  TestMessage::Events events;
  queue.Push(TestMessage::Make(1, &events));
  EXPECT_EQ(MessagesAlive(), 1u);
  MessageRef message = queue.Pop(0);
  EXPECT_TRUE(events.destroyed.empty());
  message.Reset();
  EXPECT_EQ(events.destroyed, Ids{1});
  EXPECT_TRUE(events.completed.empty());
  EXPECT_TRUE(events.cancelled.empty());
}

TEST(MessageQueue, HoldsAReferenceOfItsOwn) {
  MessageQueue queue;
  const MessageRef message = TestMessage::Make(1);
  queue.Push(message);
  queue.Push(message);
  EXPECT_EQ(queue.Pop(0).Get(), message.Get());
  EXPECT_EQ(queue.Pop(0).Get(), message.Get());
  EXPECT_EQ(MessagesAlive(), 1u);
}

TEST(MessageQueue, KeepsTheOrderOfEachOfFourProducers) {
  constexpr uint32_t PRODUCERS = 4;
  constexpr uint32_t COUNT = 100000;
  MessageQueue queue;
  std::vector<std::thread> producers;
  for (uint32_t producer = 0; producer < PRODUCERS; ++producer) {
    producers.emplace_back([&queue, producer] {
      for (uint32_t i = 0; i < COUNT; ++i) {
        queue.Push(TestMessage::Make(producer * COUNT + i));
      }
    });
  }
  std::vector<uint32_t> next(PRODUCERS, 0);
  uint32_t outOfOrder = 0;
  for (uint32_t received = 0; received < PRODUCERS * COUNT; ++received) {
    const MessageRef message = queue.Pop(LONG_WAIT_MS);
    if (!message) {
      ADD_FAILURE() << "nothing came after " << received << " messages";
      break;
    }
    uint32_t& expected = next[message->RequestId() / COUNT];
    outOfOrder += message->RequestId() % COUNT == expected ? 0 : 1;
    ++expected;
  }
  for (std::thread& producer : producers) {
    producer.join();
  }
  EXPECT_EQ(outOfOrder, 0u);
  EXPECT_EQ(next, std::vector<uint32_t>(PRODUCERS, COUNT));
  EXPECT_FALSE(queue.Pop(0));
  EXPECT_EQ(MessagesAlive(), 0u);
}

TEST(MessageQueue, WaitsForTheLimitAndThenGivesNothing) {
  MessageQueue queue;
  const auto start = Clock::now();
  EXPECT_FALSE(queue.Pop(30));
  EXPECT_GE(Clock::now() - start, milliseconds{30});
}

TEST(MessageQueue, WakesASleepingPopForAMessage) {
  for (const uint32_t timeoutMs : {LONG_WAIT_MS, WAIT_FOREVER}) {
    MessageQueue queue;
    SleepingConsumer consumer(queue, timeoutMs);
    EXPECT_FALSE(consumer.Returned(milliseconds{30}));
    queue.Push(TestMessage::Make(1));
    ASSERT_TRUE(consumer.Returned());
    ASSERT_TRUE(consumer.message);
    EXPECT_EQ(consumer.message->RequestId(), 1u);
  }
}

TEST(MessageQueue, TakesALimitNearTheTopForALongWait) {
  MessageQueue queue;
  SleepingConsumer consumer(queue, WAIT_FOREVER - 1);
  EXPECT_FALSE(consumer.Returned(milliseconds{50}));
  queue.Push(TestMessage::Make(1));
  ASSERT_TRUE(consumer.Returned());
  EXPECT_TRUE(consumer.message);
}

TEST(MessageQueue, ReturnsEmptyHandedFromASleepThatIsWoken) {
  for (const uint32_t timeoutMs : {LONG_WAIT_MS, WAIT_FOREVER}) {
    MessageQueue queue;
    SleepingConsumer consumer(queue, timeoutMs);
    EXPECT_FALSE(consumer.Returned(milliseconds{30}));
    queue.Wake(false);
    ASSERT_TRUE(consumer.Returned());
    EXPECT_FALSE(consumer.message);
  }
}

TEST(MessageQueue, RemembersAWakeForTheNextSleepOnce) {
  MessageQueue queue;
  queue.Wake(false);
  queue.Wake(false);
  {
    SleepingConsumer consumer(queue, LONG_WAIT_MS);
    ASSERT_TRUE(consumer.Returned());
    EXPECT_FALSE(consumer.message);
  }
  const auto second = Clock::now();
  EXPECT_FALSE(queue.Pop(30));
  EXPECT_GE(Clock::now() - second, milliseconds{30});
}

TEST(MessageQueue, RemembersAWakeForASleepWithoutALimit) {
  MessageQueue queue;
  queue.Wake(false);
  SleepingConsumer consumer(queue, WAIT_FOREVER);
  const bool returned = consumer.Returned();
  EXPECT_TRUE(returned);
  EXPECT_FALSE(consumer.message);
  if (!returned) queue.Wake(false);
}

TEST(MessageQueue, KeepsAWakeWhileItHasMessagesOrDoesNotSleep) {
  MessageQueue queue;
  queue.Wake(false);
  EXPECT_FALSE(queue.Pop(0));
  queue.Push(TestMessage::Make(1));
  queue.Push(TestMessage::Make(2));
  EXPECT_EQ(queue.Pop(LONG_WAIT_MS)->RequestId(), 1u);
  EXPECT_EQ(queue.Pop(LONG_WAIT_MS)->RequestId(), 2u);
  SleepingConsumer consumer(queue, LONG_WAIT_MS);
  ASSERT_TRUE(consumer.Returned());
  EXPECT_FALSE(consumer.message);
}

TEST(MessageQueue, PassesNullMessagesOnInTheirPlace) {
  MessageQueue queue;
  EXPECT_TRUE(queue.Push(TestMessage::Make(1)));
  EXPECT_TRUE(queue.Push(nullptr));
  EXPECT_TRUE(queue.Push(TestMessage::Make(2)));
  EXPECT_EQ(queue.Pop(LONG_WAIT_MS)->RequestId(), 1u);
  EXPECT_FALSE(queue.Pop(LONG_WAIT_MS));
  EXPECT_EQ(queue.Pop(LONG_WAIT_MS)->RequestId(), 2u);
}

TEST(MessageQueue, WakesASleepingPopForANullMessage) {
  MessageQueue queue;
  SleepingConsumer consumer(queue, WAIT_FOREVER);
  EXPECT_FALSE(consumer.Returned(milliseconds{30}));
  queue.Push(nullptr);
  ASSERT_TRUE(consumer.Returned());
  EXPECT_FALSE(consumer.message);
}

TEST(MessageQueue, RefusesMessagesWhenClosed) {
  MessageQueue queue;
  EXPECT_FALSE(queue.IsClosed());
  queue.Push(TestMessage::Make(1));
  queue.Wake(true);
  EXPECT_TRUE(queue.IsClosed());
  TestMessage::Events events;
  EXPECT_FALSE(queue.Push(TestMessage::Make(2, &events)));
  EXPECT_EQ(events.destroyed, Ids{2});
  EXPECT_FALSE(queue.Push(nullptr));
  // What was queued before is still given out.
  EXPECT_EQ(PopAll(queue), Ids{1});
}

TEST(MessageQueue, TakesMessagesAgainAfterAWakeThatDoesNotClose) {
  MessageQueue queue;
  queue.Wake(true);
  EXPECT_FALSE(queue.Push(TestMessage::Make(1)));
  queue.Wake(false);
  EXPECT_FALSE(queue.IsClosed());
  EXPECT_TRUE(queue.Push(TestMessage::Make(2)));
  EXPECT_EQ(PopAll(queue), Ids{2});
}

TEST(MessageQueue, ClosingWakesASleepingPop) {
  MessageQueue queue;
  SleepingConsumer consumer(queue, WAIT_FOREVER);
  EXPECT_FALSE(consumer.Returned(milliseconds{30}));
  queue.Wake(true);
  ASSERT_TRUE(consumer.Returned());
  EXPECT_FALSE(consumer.message);
}

TEST(MessageQueue, ReleasesWhatIsLeftWithoutCompletingIt) {
  TestMessage::Events events;
  {
    MessageQueue queue;
    for (uint32_t id = 1; id <= 3; ++id) {
      queue.Push(TestMessage::Make(id, &events));
    }
    // The consumer has taken over the first three, and two more have come after that.
    EXPECT_EQ(queue.Pop(0)->RequestId(), 1u);
    queue.Push(TestMessage::Make(4, &events));
    queue.Push(nullptr);
    queue.Push(TestMessage::Make(5, &events));
    EXPECT_EQ(events.destroyed, Ids{1});
  }
  EXPECT_EQ(events.destroyed.size(), 5u);
  EXPECT_TRUE(events.completed.empty());
  EXPECT_TRUE(events.cancelled.empty());
  EXPECT_EQ(MessagesAlive(), 0u);
}

TEST(MessageQueue, CanBeUsedAfterEverythingWasReleased) {
  MessageQueue queue;
  queue.Push(TestMessage::Make(1));
  queue.Push(TestMessage::Make(2));
  EXPECT_EQ(queue.Pop(0)->RequestId(), 1u);
  queue.ReleaseAll();
  EXPECT_EQ(MessagesAlive(), 0u);
  EXPECT_FALSE(queue.Pop(0));
  queue.Push(TestMessage::Make(3));
  EXPECT_EQ(PopAll(queue), Ids{3});
}

TEST(MessageQueue, WakesTheConsumerForEachOfManySingleMessages) {
  // One message at a time, so that the consumer goes to sleep before each of them.
  constexpr uint32_t ROUNDS = 20000;
  MessageQueue queue;
  MessageQueue answers;
  std::thread consumer([&] {
    for (uint32_t round = 0; round < ROUNDS; ++round) {
      answers.Push(queue.Pop(LONG_WAIT_MS));
    }
  });
  uint32_t lost = 0;
  for (uint32_t round = 0; round < ROUNDS; ++round) {
    queue.Push(TestMessage::Make(round));
    const MessageRef answer = answers.Pop(LONG_WAIT_MS);
    lost += answer && answer->RequestId() == round ? 0 : 1;
  }
  consumer.join();
  EXPECT_EQ(lost, 0u);
}

TEST(MessageQueue, LosesNoWakeUpBetweenAnEmptyLookAndTheSleep) {
  // Each message comes a little while after the consumer has begun to look for it, a different one
  // each time, so that many come just before it falls asleep. It has no time limit that could cover
  // a lost wake-up up.
  constexpr uint32_t ROUNDS = 100000;
  constexpr uint32_t MAX_DELAY = 512;
  MessageQueue queue;
  std::atomic<uint32_t> looking{0};
  std::thread consumer([&] {
    for (uint32_t round = 1; round <= ROUNDS; ++round) {
      looking.store(round);
      if (!queue.Pop(WAIT_FOREVER)) return;
    }
    looking.store(ROUNDS + 1);
  });
  const auto end = Clock::now() + milliseconds{LONG_WAIT_MS / 20};
  uint32_t random = 1;
  uint32_t round = 1;
  bool lost = false;
  for (; round <= ROUNDS && !lost && Clock::now() < end; ++round) {
    while (looking.load() < round && !lost) {
      lost = Clock::now() > end + DEFAULT_DEADLINE;
    }
    random = random * 1664525u + 1013904223u;
    for (uint32_t delay = (random >> 16) % MAX_DELAY; delay > 0; --delay) {
      std::atomic_signal_fence(std::memory_order_seq_cst);  // keeps the empty loop
    }
    queue.Push(TestMessage::Make(round));
  }
  EXPECT_TRUE(WaitUntil([&] { return looking.load() >= round; })) << "in round " << round;
  queue.Wake(false);  // for a consumer that sleeps
  consumer.join();
}

TEST(MessageQueue, LosesNoMessageWhenWakesComeInBetween) {
  constexpr uint32_t COUNT = 50000;
  MessageQueue queue;
  std::atomic<bool> done{false};
  std::thread waker([&] {
    while (!done) {
      queue.Wake(false);
      std::this_thread::yield();
    }
  });
  std::thread producer([&] {
    for (uint32_t i = 0; i < COUNT; ++i) {
      queue.Push(TestMessage::Make(i));
    }
  });
  uint32_t next = 0;
  const auto end = Clock::now() + milliseconds{LONG_WAIT_MS / 2};
  while (next < COUNT && Clock::now() < end) {
    if (const MessageRef message = queue.Pop(LONG_WAIT_MS)) {
      ASSERT_EQ(message->RequestId(), next);
      ++next;
    }
  }
  done = true;
  waker.join();
  producer.join();
  EXPECT_EQ(next, COUNT);
}

}  // namespace
}  // namespace TQ::test
