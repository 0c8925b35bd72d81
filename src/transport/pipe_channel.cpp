#include "transport/pipe_channel.h"

#include "frame/object_counts.h"

#include <utility>

using namespace TQ::detail;
namespace platform = TQ::platform;

namespace {

/// How long a read waits before it looks at its stop flag.
constexpr uint32_t STOP_POLL_MS = 1000;

}  // namespace

PipeChannel::PipeChannel(platform::PipeEnd readEnd, platform::PipeEnd writeEnd,
                         std::string localPipe, std::string remotePipe)
    : readHandle(std::move(readEnd)),
      writeHandle(std::move(writeEnd)),
      remoteName(std::move(remotePipe)),
      localName(std::move(localPipe)) {}

PipeChannel::~PipeChannel() {
  readHandle.Close();
  writeHandle.Close();
}

/// Waits for a read that is under way: false when it is to be given up.
bool PipeChannel::AwaitRead(const StopFlag* stopFlag) {
  if (stopFlag == nullptr) {
    return platform::WaitPipeEvent(readEvent, limits.IoTimeoutMs()) ==
           platform::PipeWait::SIGNALLED;
  }
  for (;;) {
    const platform::PipeWait wait = platform::WaitPipeEvent(readEvent, STOP_POLL_MS);
    if (wait != platform::PipeWait::TIMED_OUT) return wait == platform::PipeWait::SIGNALLED;
    // Intended: a flag that was set before is seen here and not earlier, so what has arrived is
    // read whatever the flag says.
    if (stopFlag->load(std::memory_order_relaxed) != 0) return false;
  }
}

int32_t PipeChannel::Receive(void* buffer, uint32_t length, const StopFlag* stopFlag) {
  if (length > limits.MaxReadSize()) return -1;
  auto* cursor = static_cast<uint8_t*>(buffer);
  uint32_t remaining = length;
  while (remaining > 0) {
    g_objectCounts.readCalls.fetch_add(1);
    const auto started = platform::StartPipeRead(readHandle, readEvent, cursor, remaining);
    if (started == platform::PipeStatus::FAILED) return -1;
    if (started == platform::PipeStatus::PENDING && !AwaitRead(stopFlag)) {
      platform::CancelPipeOperation(readHandle, readEvent);
      return -1;
    }
    uint32_t count = 0;
    if (!platform::FinishPipeRead(readEvent, &count)) return -1;
    cursor += count;
    remaining -= count;
  }
  return static_cast<int32_t>(length);
}

int32_t PipeChannel::Receive(void* buffer, uint32_t length) {
  return Receive(buffer, length, nullptr);
}

int32_t PipeChannel::Send(const void* buffer, uint32_t length) {
  const auto* cursor = static_cast<const uint8_t*>(buffer);
  uint32_t remaining = length;
  while (remaining > 0) {
    g_objectCounts.writeCalls.fetch_add(1);
    uint32_t count = 0;
    if (!platform::WritePipe(writeHandle, cursor, remaining, &count)) return -1;
    cursor += count;
    remaining -= count;
  }
  return static_cast<int32_t>(length);
}
