#include "support/loopback_pair.h"

#include <stdexcept>
#include <string>
#include <utility>

namespace TQ::test {

// The listener lives for this one connection, and a port of the system's own choice will do.
LoopbackPair::LoopbackPair(int bufferSize) {
  const platform::Handle listener = platform::Listen(0, bufferSize);
  if (listener != platform::NO_HANDLE) {
    nearEnd = platform::Connect(platform::LocalPort(listener), DEFAULT_DEADLINE, bufferSize);
    // Another process may come in first; it is turned away.
    while (nearEnd != platform::NO_HANDLE && farEnd == platform::NO_HANDLE) {
      const platform::Handle accepted = platform::Accept(listener, DEFAULT_DEADLINE);
      if (accepted == platform::NO_HANDLE) {
        break;
      }
      if (platform::RemotePort(accepted) == platform::LocalPort(nearEnd)) {
        farEnd = accepted;
      } else {
        platform::CloseSocket(accepted);
      }
    }
    platform::CloseSocket(listener);
  }
  if (farEnd == platform::NO_HANDLE) {
    if (nearEnd != platform::NO_HANDLE) {
      platform::CloseSocket(nearEnd);
    }
    throw std::runtime_error("LoopbackPair: no connection could be made");
  }
  platform::SetBufferSizes(nearEnd, bufferSize, 0);
  platform::SetBufferSizes(farEnd, bufferSize, 0);
  nearAddress = "127.0.0.1:" + std::to_string(platform::LocalPort(nearEnd));
  farAddress = "127.0.0.1:" + std::to_string(platform::RemotePort(nearEnd));
}

LoopbackPair::~LoopbackPair() {
  if (nearEnd != platform::NO_HANDLE) {
    platform::CloseSocket(nearEnd);
  }
  if (farEnd != platform::NO_HANDLE) {
    platform::CloseSocket(farEnd);
  }
}

platform::Handle LoopbackPair::TakeNear() { return std::exchange(nearEnd, platform::NO_HANDLE); }

platform::Handle LoopbackPair::TakeFar() { return std::exchange(farEnd, platform::NO_HANDLE); }

}  // namespace TQ::test
