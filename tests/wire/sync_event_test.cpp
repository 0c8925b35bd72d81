#include "wire/sync_event.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "support/host_conditions.h"
#include "support/wait_until.h"
#include "wire/message.h"

namespace TQ::test {
namespace {

using detail::WAIT_FOREVER;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

// The three have the same behaviour and share no base but the counted one.
struct Plain {
  detail::OneShot event;
  detail::OneShot* operator->() { return &event; }
};

template <typename Event>
struct Counted {
  detail::CountedRef<Event> event{new Event()};
  Event* operator->() { return event.Get(); }
};

template <typename Holder>
class SyncEvent : public testing::Test {
 protected:
  Holder event;
};

using Holders =
    testing::Types<Plain, Counted<MTObjects::ISyncEvent>, Counted<ITQMessage::ISyncEvent>>;
TYPED_TEST_SUITE(SyncEvent, Holders);

TYPED_TEST(SyncEvent, IsNotSetAtFirst) {
  EXPECT_FALSE(this->event->Wait(0));
  const auto start = steady_clock::now();
  EXPECT_FALSE(this->event->Wait(120));
  EXPECT_GE(steady_clock::now() - start, milliseconds{120});
}

TYPED_TEST(SyncEvent, StaysSetForEveryWait) {
  this->event->Set();
  for (int i = 0; i < 3; ++i) {
    EXPECT_TRUE(this->event->Wait(0));
    EXPECT_TRUE(this->event->Wait(60000));
    EXPECT_TRUE(this->event->Wait(WAIT_FOREVER));
  }
  this->event->Set();
  EXPECT_TRUE(this->event->Wait(0));
}

TYPED_TEST(SyncEvent, SetEndsAWaitBeforeItsTime) {
  std::atomic<bool> ended{false};
  std::thread waiter([&] {
    EXPECT_TRUE(this->event->Wait(60000));
    ended = true;
  });
  std::this_thread::sleep_for(milliseconds{20});
  EXPECT_FALSE(ended);
  this->event->Set();
  EXPECT_TRUE(WaitUntil([&] { return ended.load(); }));
  waiter.join();
}

TYPED_TEST(SyncEvent, SetReleasesAllWhoWait) {
  std::atomic<int> ended{0};
  std::vector<std::thread> waiters;
  for (const uint32_t limit : {WAIT_FOREVER, WAIT_FOREVER, 60000u, 60000u}) {
    waiters.emplace_back([&, limit] {
      EXPECT_TRUE(this->event->Wait(limit));
      ++ended;
    });
  }
  std::this_thread::sleep_for(milliseconds{20});
  EXPECT_EQ(ended, 0);
  this->event->Set();
  for (std::thread& waiter : waiters) waiter.join();
  EXPECT_EQ(ended, 4);
}

// One below the number that means no limit is a limit like any other, of almost fifty days.
TYPED_TEST(SyncEvent, LargestLimitDoesNotEndAtOnce) {
  std::atomic<bool> ended{false};
  std::thread waiter([&] {
    EXPECT_TRUE(this->event->Wait(0xFFFFFFFE));
    ended = true;
  });
  std::this_thread::sleep_for(milliseconds{50});
  EXPECT_FALSE(ended);
  this->event->Set();
  waiter.join();
}

TYPED_TEST(SyncEvent, WaitWithoutALimitOutlastsHostSignals) {
  const SignalStorm storm;
  std::atomic<bool> ended{false};
  std::thread waiter([&] {
    EXPECT_TRUE(this->event->Wait(WAIT_FOREVER));
    ended = true;
  });
  EXPECT_TRUE(
      WaitUntil([] { return !SignalStorm::IsAvailable() || SignalStorm::Delivered() > 50; }));
  EXPECT_FALSE(ended);
  const auto start = steady_clock::now();
  EXPECT_FALSE(this->event->Wait(100));
  EXPECT_GE(steady_clock::now() - start, milliseconds{100});
  this->event->Set();
  waiter.join();
}

}  // namespace
}  // namespace TQ::test
