// A message that a test puts into a queue of the library to see what is done with it.
//
//   ProbeLog seen;
//   session->Outgoing().Push(Probe(seen, session, 77, MSG_CALL));
//   ...
//   EXPECT_EQ(seen.Texts(), (std::vector<std::string>{"serialize 77 as 1", "complete 77"}));
#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "session/session.h"
#include "support/wait_until.h"
#include "wire/message.h"

namespace TQ::test {

/// What was done with probes, in order.
///
/// Threads: any. It must outlive the probes.
class ProbeLog final {
 public:
  struct Event {
    std::string text;
    std::thread::id thread;
  };

  void Add(const std::string& text) {
    const std::lock_guard guard(lock);
    events.push_back({text, std::this_thread::get_id()});
  }

  std::vector<Event> Events() const {
    const std::lock_guard guard(lock);
    return events;
  }

  std::vector<std::string> Texts() const {
    std::vector<std::string> texts;
    for (Event& event : Events()) texts.push_back(std::move(event.text));
    return texts;
  }

  bool WaitForCount(size_t count) const {
    return WaitUntil([&] { return Events().size() >= count; });
  }

 private:
  mutable std::mutex lock;
  std::vector<Event> events;  // guarded by lock
};

class ProbeMessage final : public ITQMessage {
 public:
  ProbeMessage(ProbeLog& probeLog, SessionRef owner, uint32_t id, uint32_t messageKind)
      : ITQMessage(nullptr, id, messageKind, 0, std::move(owner)), log(probeLog) {}

  int32_t Serialize(uint32_t frameKind) override {
    log.Add("serialize " + std::to_string(requestId) + " as " + std::to_string(frameKind));
    if (duringSerialize) duringSerialize();
    return serializeResult;
  }
  int32_t Deserialize(const uint64_t*) override { return -1; }
  void Complete(bool dropResult) override {
    log.Add("complete " + std::to_string(requestId) + (dropResult ? " dropped" : "") + " kind " +
            std::to_string(Kind()));
    if (duringComplete) duringComplete();
  }

  // Set before the message is pushed.
  bool valid = true;
  int32_t serializeResult = 0;
  std::function<void()> duringSerialize;
  std::function<void()> duringComplete;

 private:
  ~ProbeMessage() override { log.Add("destroy " + std::to_string(requestId)); }
  bool CheckValid() const override { return valid; }

  ProbeLog& log;
};

using ProbeRef = detail::CountedRef<ProbeMessage>;

inline ProbeRef Probe(ProbeLog& log, const detail::SessionRef& session, uint32_t id,
                      uint32_t kind) {
  return ProbeRef(new ProbeMessage(log, session, id, kind));
}

/// The reference that a queue takes.
inline detail::MessageRef AsMessage(const ProbeRef& probe) {
  return detail::MessageRef(probe.Get());
}

}  // namespace TQ::test
