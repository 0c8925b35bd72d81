// A session whose channel is in memory and whose receiving thread reads nothing, so that a test
// reads and writes its frames itself.
//
//   ParkedSession session;
//   session.Feed(RequestBytes(7, RAW_CALL, 42, list));
//   const MessageRef message = ReceiveMessage(session.Get());
//   EXPECT_EQ(session.Written(), ReplyBytes(7, answer));
//
// The session has gone through its handshake and is valid; its peer's name is NAME
// unless the test gives another.
#pragma once

#include <gtest/gtest.h>
#include <tq/tq.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

#include "session/session.h"
#include "support/bytes.h"
#include "support/memory_channel.h"
#include "support/raw_peer.h"
#include "support/wait_until.h"

namespace TQ::test {

class ParkedSession final {
 public:
  static constexpr char NAME[] = "test:1/parked";

  /// Throws std::runtime_error if the handshake fails.
  explicit ParkedSession(const std::string& name = NAME)
      : channel(new Channel()), session(new TQAPPImpl()) {
    channel->memory.Feed(
        Concat({NameStringBytes(name), Pattern(RAW_CHALLENGE_SIZE), NameStringBytes(name)}));
    if (session->ConnectHandshake(detail::ChannelRef(channel.Get()), nullptr, 0, nullptr, 0) !=
        TQ_ERR_OK) {
      throw std::runtime_error("ParkedSession: the handshake failed");
    }
    handshakeBytes = channel->memory.Written().size();
    handshakeReads = channel->memory.ReadSizes().size();
    handshakeWrites = channel->memory.WriteSizes().size();
  }

  /// Ends the session. Messages of it that are still held keep it alive, and nothing else.
  ~ParkedSession() { Stop(); }

  ParkedSession(const ParkedSession&) = delete;
  ParkedSession& operator=(const ParkedSession&) = delete;

  /// Ends both threads; the session is not valid from then on.
  void Stop() { session->StopSession(); }

  TQAPPImpl& Get() { return *session; }
  const ITQMessage::SessionRef& Ref() const { return session; }

  void Feed(const Bytes& bytes) { channel->memory.Feed(bytes); }
  size_t Remaining() const { return channel->memory.Remaining(); }

  /// Throws away what was not read.
  void Drain() {
    Bytes rest(Remaining());
    (void)channel->Receive(rest.data(), static_cast<uint32_t>(rest.size()));
  }

  /// Makes the `number`-th read or write from now on fail, and all after it.
  void FailOperation(size_t number, int32_t result = -1) {
    const size_t done = channel->memory.ReadSizes().size() + channel->memory.WriteSizes().size();
    channel->memory.FailOperation(done + number, result);
  }

  // What was done to the channel since the handshake.
  Bytes Written() const {
    const Bytes all = channel->memory.Written();
    return Bytes(all.begin() + static_cast<std::ptrdiff_t>(handshakeBytes), all.end());
  }
  std::vector<uint32_t> WriteSizes() const {
    return Behind(channel->memory.WriteSizes(), handshakeWrites);
  }
  std::vector<uint32_t> ReadSizes() const {
    return Behind(channel->memory.ReadSizes(), handshakeReads);
  }
  std::vector<const detail::StopFlag*> ReadFlags() const {
    return Behind(channel->memory.ReadFlags(), handshakeReads);
  }

 private:
  /// A channel in memory on which nobody finds data by waiting.
  struct Channel final : public ITransportChannel {
    bool CheckValid() const override { return memory.CheckValid(); }
    int32_t Receive(void* buffer, uint32_t length, const detail::StopFlag* stopFlag) override {
      return memory.Receive(buffer, length, stopFlag);
    }
    int32_t Receive(void* buffer, uint32_t length) override {
      return memory.Receive(buffer, length);
    }
    int32_t Send(const void* buffer, uint32_t length) override {
      return memory.Send(buffer, length);
    }
    std::string GetRemoteAddress() const override { return "parked:remote"; }
    std::string GetLocalAddress() const override { return "parked:local"; }
    int32_t WaitForData(uint32_t timeoutMs) override {
      std::unique_lock held(lock);
      changed.wait_for(held, std::chrono::milliseconds(timeoutMs), [this] { return woken; });
      return 0;
    }
    int32_t WaitForData() override {
      std::unique_lock held(lock);
      changed.wait(held, [this] { return woken; });
      return 0;
    }
    void Wakeup() override {
      {
        const std::lock_guard held(lock);
        woken = true;
      }
      changed.notify_all();
    }

    MemoryChannel memory;
    std::mutex lock;
    std::condition_variable changed;
    bool woken = false;  // guarded by lock
  };

  template <typename Value>
  static std::vector<Value> Behind(const std::vector<Value>& all, size_t first) {
    return std::vector<Value>(all.begin() + static_cast<std::ptrdiff_t>(first), all.end());
  }

  detail::CountedRef<Channel> channel;
  ITQMessage::SessionRef session;
  size_t handshakeBytes = 0;
  size_t handshakeReads = 0;
  size_t handshakeWrites = 0;
};

}  // namespace TQ::test
