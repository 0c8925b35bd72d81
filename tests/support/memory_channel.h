// A channel in memory: gives out bytes that the test has laid down, keeps what is written to it,
// and can be told to fail.
//
//   MemoryChannel channel(RawList().Int32("a", 7).Stream());
//   ASSERT_GT(ReadParamList(*list, channel, {8, 0}, nullptr), 0);
//   EXPECT_EQ(channel.ReadSizes(), std::vector<uint32_t>{8});
//   EXPECT_EQ(channel.Remaining(), 0u);
//
//   channel.FailOperation(3);  // the third read or write from the beginning, and all after it
//
// Nobody has to hold a reference to it: it can stand on the stack, or be made with `new` and be
// given to a ChannelRef. A read for which there are too few bytes fails, and takes none.
//
// Threads: any.
#pragma once

#include "support/bytes.h"
#include "transport/transport_channel.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace TQ::test {

class MemoryChannel final : public ITransportChannel {
 public:
  explicit MemoryChannel(Bytes toRead = {}) : input(std::move(toRead)) {}

  // ---- for the test ----------------------------------------------------------------------------

  /// Lays down more bytes behind those that are there.
  void Feed(const Bytes& bytes) {
    const std::lock_guard<std::mutex> held(lock);
    Append(input, bytes);
  }

  /// Makes the `number`-th read or write, counted together and from 1, fail with `result`, and
  /// every one after it. 0 lets all of them work again.
  void FailOperation(size_t number, int32_t result = -1) {
    const std::lock_guard<std::mutex> held(lock);
    failFrom = number;
    failureResult = result;
  }

  /// Makes CheckValid false.
  void Invalidate() {
    const std::lock_guard<std::mutex> held(lock);
    valid = false;
  }

  /// Everything that was written, in order.
  Bytes Written() const {
    const std::lock_guard<std::mutex> held(lock);
    return output;
  }

  /// What each write was asked to write, failed ones included.
  std::vector<uint32_t> WriteSizes() const {
    const std::lock_guard<std::mutex> held(lock);
    return writeSizes;
  }

  /// What each read was asked for, failed ones included.
  std::vector<uint32_t> ReadSizes() const {
    const std::lock_guard<std::mutex> held(lock);
    return readSizes;
  }

  /// The stop flag of each read; null for one within the channel's time limit.
  std::vector<const TQ::detail::StopFlag*> ReadFlags() const {
    const std::lock_guard<std::mutex> held(lock);
    return readFlags;
  }

  /// Bytes that were not read yet.
  size_t Remaining() const {
    const std::lock_guard<std::mutex> held(lock);
    return input.size() - position;
  }

  size_t WakeupCount() const {
    const std::lock_guard<std::mutex> held(lock);
    return wakeups;
  }

  // ---- the channel -----------------------------------------------------------------------------

  bool CheckValid() const override {
    const std::lock_guard<std::mutex> held(lock);
    return valid;
  }

  int32_t Receive(void* buffer, uint32_t length, const TQ::detail::StopFlag* stopFlag) override {
    const std::lock_guard<std::mutex> held(lock);
    readSizes.push_back(length);
    readFlags.push_back(stopFlag);
    if (NextOperationFails()) return failureResult;
    if (length > input.size() - position) return -1;
    if (length != 0) std::memcpy(buffer, input.data() + position, length);
    position += length;
    return static_cast<int32_t>(length);
  }

  int32_t Receive(void* buffer, uint32_t length) override {
    return Receive(buffer, length, nullptr);
  }

  int32_t Send(const void* buffer, uint32_t length) override {
    const std::lock_guard<std::mutex> held(lock);
    writeSizes.push_back(length);
    if (NextOperationFails()) return failureResult;
    const auto* bytes = static_cast<const uint8_t*>(buffer);
    if (length != 0) output.insert(output.end(), bytes, bytes + length);
    return static_cast<int32_t>(length);
  }

  std::string GetRemoteAddress() const override { return "memory:remote"; }
  std::string GetLocalAddress() const override { return "memory:local"; }

  /// Never waits: 1 when there are bytes to read, else 0.
  int32_t WaitForData(uint32_t /*timeoutMs*/) override { return Remaining() != 0 ? 1 : 0; }
  int32_t WaitForData() override { return WaitForData(0); }

  void Wakeup() override {
    const std::lock_guard<std::mutex> held(lock);
    ++wakeups;
  }

 private:
  bool NextOperationFails() {
    ++operations;
    return failFrom != 0 && operations >= failFrom;
  }

  mutable std::mutex lock;
  // All guarded by `lock`.
  Bytes input;
  size_t position = 0;
  Bytes output;
  std::vector<uint32_t> readSizes;
  std::vector<const TQ::detail::StopFlag*> readFlags;
  std::vector<uint32_t> writeSizes;
  size_t operations = 0;
  size_t failFrom = 0;
  int32_t failureResult = -1;
  size_t wakeups = 0;
  bool valid = true;
};

}  // namespace TQ::test
