// Calls of a host whose arguments, or whose ways, depend on the transport of a test.
//
//   ConnectTo(port, name, sizeof name);   // TQConnect to what listens there
//   ShutdownWhileKnocking(port);          // TQShutdown of a process that listens there
#pragma once

#include <tq/tq.h>

#include <cstdint>
#include <functional>

namespace TQ::test {

/// TQConnect to what listens on `port`, by the transport of support/transport.h.
_tag_TQ_ERROR ConnectTo(uint16_t port, char* nameOut = nullptr, uint32_t nameOutSize = 0);

/// TQShutdown of a process that listens on `port`, without the wait, for pipes of 10 seconds, after
/// which an idle listener looks for the stop.
_tag_TQ_ERROR ShutdownWhileKnocking(uint16_t port);

/// The same of one with other listeners. `knock` connects to them, over and over.
_tag_TQ_ERROR ShutdownWhile(const std::function<void()>& knock);

}  // namespace TQ::test
