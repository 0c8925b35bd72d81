// A message without a frame, for tests of what only holds and passes on references.
//
//   TestMessage::Events events;
//   queue.Push(TestMessage::Make(7, &events));
//   EXPECT_EQ(queue.Pop(0)->RequestId(), 7u);
//   EXPECT_EQ(events.destroyed, std::vector<uint32_t>{7});
#pragma once

#include "session/session.h"
#include "wire/message.h"

#include <cstdint>
#include <functional>
#include <mutex>
#include <utility>
#include <vector>

namespace TQ::test {

/// Threads: any, as far as the events' own lock goes.
class TestMessage final : public ITQMessage {
 public:
  /// What happened to the messages, by their ids, in order. It must outlive them.
  struct Events {
    std::mutex lock;
    std::vector<uint32_t> completed;
    std::vector<uint32_t> cancelled;
    std::vector<uint32_t> destroyed;
    std::function<void(uint32_t)> onComplete;  ///< runs inside Complete, without `lock`
  };

  static TQ::detail::MessageRef Make(uint32_t id, Events* events = nullptr,
                                     SessionRef owner = nullptr) {
    return TQ::detail::MessageRef(new TestMessage(id, events, std::move(owner)));
  }

  int32_t Serialize(uint32_t /*frameKind*/) override { return 0; }
  int32_t Deserialize(const uint64_t* /*tail*/) override { return 0; }

  void Complete(bool dropResult) override {
    if (events != nullptr) {
      {
        const std::lock_guard held(events->lock);
        (dropResult ? events->cancelled : events->completed).push_back(RequestId());
      }
      if (events->onComplete) {
        events->onComplete(RequestId());
      }
    }
    ITQMessage::Complete(dropResult);
  }

 private:
  TestMessage(uint32_t id, Events* eventLog, SessionRef owner)
      : ITQMessage(nullptr, id, TQ::detail::MSG_NOTIFY, 0, std::move(owner)), events(eventLog) {}

  ~TestMessage() override {
    if (events != nullptr) {
      const std::lock_guard held(events->lock);
      events->destroyed.push_back(RequestId());
    }
  }

  Events* const events;
};

}  // namespace TQ::test
