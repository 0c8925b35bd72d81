#include "support/host_calls.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "frame/settings.h"
#include "support/raw_peer.h"
#include "support/transport.h"

namespace TQ::test {

_tag_TQ_ERROR ConnectTo(uint16_t port, char* nameOut, uint32_t nameOutSize) {
  return TQConnect(HostText(port).c_str(), port, nameOut, nameOutSize, nullptr, 0);
}

_tag_TQ_ERROR ShutdownWhileKnocking(uint16_t port) {
  return ShutdownWhile([port] { (void)RawPeer::TryConnect(port); });
}

_tag_TQ_ERROR ShutdownWhile(const std::function<void()>& knock) {
  std::atomic<bool> over{false};
  std::thread knocker([&] {
    while (!over) {
      if (detail::StopAllRequested()) {
        knock();
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
  });
  const _tag_TQ_ERROR code = TQShutdown();
  over = true;
  knocker.join();
  EXPECT_EQ(code, TQ_ERR_OK);
  return code;
}

}  // namespace TQ::test
