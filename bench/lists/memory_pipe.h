// What every library of the comparison sends through: bytes copied into memory and out again.
#pragma once

#include "transport/transport_channel.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace TQ::bench {

/// A channel without locks, checks or records. What was read to the end makes room for the next.
///
/// Threads: one.
class MemoryPipe final : public ITransportChannel {
 public:
  size_t Remaining() const { return used - position; }

  /// Forgets what was not read.
  void Reset() { used = position = 0; }

  bool CheckValid() const override { return true; }

  int32_t Send(const void* buffer, uint32_t length) override {
    if (position == used) Reset();
    if (used + length > bytes.size()) bytes.resize(std::max(2 * bytes.size(), used + length));
    if (length != 0) std::memcpy(bytes.data() + used, buffer, length);
    used += length;
    return static_cast<int32_t>(length);
  }

  int32_t Receive(void* buffer, uint32_t length) override {
    if (length > Remaining()) return -1;
    if (length != 0) std::memcpy(buffer, bytes.data() + position, length);
    position += length;
    return static_cast<int32_t>(length);
  }

  int32_t Receive(void* buffer, uint32_t length, const TQ::detail::StopFlag* /*flag*/) override {
    return Receive(buffer, length);
  }

  std::string GetRemoteAddress() const override { return {}; }
  std::string GetLocalAddress() const override { return {}; }
  int32_t WaitForData(uint32_t /*timeoutMs*/) override { return Remaining() != 0 ? 1 : 0; }
  int32_t WaitForData() override { return WaitForData(0); }
  void Wakeup() override {}

 private:
  std::vector<uint8_t> bytes = std::vector<uint8_t>(4096);
  size_t used = 0;
  size_t position = 0;
};

/// For libraries whose bytes do not tell where they end: the length goes ahead.
inline void SendWithLength(MemoryPipe& pipe, const void* bytes, size_t size) {
  const auto length = static_cast<uint32_t>(size);
  pipe.Send(&length, sizeof length);
  pipe.Send(bytes, length);
}

/// Reads what SendWithLength wrote into `buffer`, which keeps its memory from message to message.
template <typename Buffer>
void ReceiveWithLength(MemoryPipe& pipe, Buffer* buffer) {
  uint32_t length = 0;
  pipe.Receive(&length, sizeof length);
  buffer->resize(length);
  pipe.Receive(buffer->data(), length);
}

}  // namespace TQ::bench
