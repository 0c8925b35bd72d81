// A channel whose other side follows a script, for tests of sessions without sockets.
//
//   auto* channel = new ScriptedChannel();
//   const ChannelRef held(channel);
//   channel->Feed(NameStringBytes("there:1/peer"));              // to be read, in order
//   channel->FeedLater([&] { return ...; });                     // made when it is to be read
//   channel->Before("send 1024", [&](const void* buffer) { ... });  // runs inside the operation
//   ...
//   EXPECT_EQ(channel->Calls(), (std::vector<std::string>{"valid", "receive 4", ...}));
//   channel->HangUp();                                           // the session's wait fails
//
// Operations are recorded as "valid", "remote", "local", "receive N", "send N" and "wakeup", each
// with the thread that called it; waits are not recorded, since a session is always waiting.
//
// Threads: any. Hooks run on the thread of the operation, without a lock.
#pragma once

#include "support/bytes.h"
#include "transport/transport_channel.h"

#include <algorithm>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace TQ::test {

class ScriptedChannel final : public ITransportChannel {
 public:
  using Hook = std::function<void(const void* buffer)>;

  static constexpr const char* LOCAL_ADDRESS = "script:local";
  static constexpr const char* REMOTE_ADDRESS = "script:remote";

  ScriptedChannel() = default;

  // ---- for the test ----------------------------------------------------------------------------

  /// Lays down bytes behind those that are there.
  void Feed(Bytes bytes) {
    FeedLater([fed = std::move(bytes)] { return fed; });
  }

  /// Lays down bytes that are made when everything before them has been read.
  void FeedLater(std::function<Bytes()> make) {
    const std::lock_guard held(lock);
    script.push_back(std::move(make));
  }

  /// Runs `hook` inside each call of `operation`, after it was recorded and before anything is
  /// done. It gets the buffer that the caller gave, or null. To be set before the channel is used.
  void Before(const std::string& operation, Hook hook) { hooks[operation] = std::move(hook); }

  /// Makes the `number`-th write, counted from 1, give `result` and write nothing.
  void FailSend(size_t number, int32_t result = -1) {
    failingSend = number;
    failingSendResult = result;
  }

  void SetValid(bool isValid) {
    const std::lock_guard held(lock);
    valid = isValid;
  }

  /// The other side is gone: waits fail from now on.
  void HangUp() {
    const std::lock_guard held(lock);
    hungUp = true;
    changed.notify_all();
  }

  /// What was called on `thread`, in order.
  std::vector<std::string> Calls(std::thread::id thread = std::this_thread::get_id()) const {
    const std::lock_guard held(lock);
    std::vector<std::string> result;
    for (const auto& [caller, text] : calls) {
      if (caller == thread) {
        result.push_back(text);
      }
    }
    return result;
  }

  /// How often `operation` was called on any thread.
  size_t CountOf(const std::string& operation) const {
    const std::lock_guard held(lock);
    return static_cast<size_t>(std::count_if(
        calls.begin(), calls.end(), [&](const auto& call) { return call.second == operation; }));
  }

  /// The bytes of each write that worked.
  std::vector<Bytes> Writes() const {
    const std::lock_guard held(lock);
    return writes;
  }

  /// Bytes that were made and not read, with those that are still to be made.
  size_t Unread() {
    const std::lock_guard held(lock);
    while (MakeMore()) {
    }
    return pending.size();
  }

  // ---- the channel -----------------------------------------------------------------------------

  bool CheckValid() const override {
    Record("valid", nullptr);
    const std::lock_guard held(lock);
    return valid;
  }

  /// Without enough bytes it takes what there is and fails, as on a connection that closes.
  int32_t Receive(void* buffer, uint32_t length, const TQ::detail::StopFlag* stopFlag) override {
    Record((stopFlag != nullptr ? "receive while live " : "receive ") + std::to_string(length),
           buffer);
    const std::lock_guard held(lock);
    while (pending.size() < length && MakeMore()) {
    }
    if (pending.size() < length) {
      pending.clear();
      return -1;
    }
    const auto end = pending.begin() + static_cast<std::ptrdiff_t>(length);
    std::copy(pending.begin(), end, static_cast<uint8_t*>(buffer));
    pending.erase(pending.begin(), end);
    return static_cast<int32_t>(length);
  }

  int32_t Receive(void* buffer, uint32_t length) override {
    return Receive(buffer, length, nullptr);
  }

  int32_t Send(const void* buffer, uint32_t length) override {
    Record("send " + std::to_string(length), buffer);
    const std::lock_guard held(lock);
    if (++sends == failingSend) {
      return failingSendResult;
    }
    const auto* bytes = static_cast<const uint8_t*>(buffer);
    writes.emplace_back(bytes, bytes + length);
    return static_cast<int32_t>(length);
  }

  std::string GetRemoteAddress() const override {
    Record("remote", nullptr);
    return REMOTE_ADDRESS;
  }

  std::string GetLocalAddress() const override {
    Record("local", nullptr);
    return LOCAL_ADDRESS;
  }

  /// Waits for a wake-up or the end, whatever the limit: a session that relies on its limit to see
  /// a stop does not get away with it here.
  int32_t WaitForData(uint32_t /*timeoutMs*/) override {
    std::unique_lock held(lock);
    changed.wait(held, [&] { return hungUp || wakeups != 0; });
    if (hungUp) {
      return -1;
    }
    --wakeups;
    return 0;
  }

  int32_t WaitForData() override { return WaitForData(0); }

  void Wakeup() override {
    Record("wakeup", nullptr);
    const std::lock_guard held(lock);
    ++wakeups;
    changed.notify_all();
  }

 private:
  void Record(const std::string& operation, const void* buffer) const {
    {
      const std::lock_guard held(lock);
      calls.emplace_back(std::this_thread::get_id(), operation);
    }
    const auto hook = hooks.find(operation);
    if (hook != hooks.end()) {
      hook->second(buffer);
    }
  }

  bool MakeMore() {
    if (script.empty()) {
      return false;
    }
    const Bytes made = script.front()();
    script.pop_front();
    pending.insert(pending.end(), made.begin(), made.end());
    return true;
  }

  // Set by the test before the channel is used.
  std::map<std::string, Hook> hooks;
  size_t failingSend = 0;
  int32_t failingSendResult = -1;

  // Recursive: a script looks at what was written.
  mutable std::recursive_mutex lock;
  mutable std::condition_variable_any changed;
  // All guarded by `lock`.
  mutable std::vector<std::pair<std::thread::id, std::string>> calls;
  std::deque<std::function<Bytes()>> script;
  std::deque<uint8_t> pending;
  std::vector<Bytes> writes;
  size_t sends = 0;
  size_t wakeups = 0;
  bool hungUp = false;
  bool valid = true;
};

}  // namespace TQ::test
