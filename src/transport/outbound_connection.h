// Reaching out: from a target text to a connected channel.
#pragma once

#include "transport/transport_channel.h"

#include <cstdint>

namespace TQ::detail {

/// Connects to a dotted IPv4 address. Null for port 0, any other text, or when the peer cannot be
/// reached within two waits of two seconds. Writes nothing to the log; blocks the caller.
ChannelRef ConnectSocket(const char* target, uint16_t port);

}  // namespace TQ::detail
