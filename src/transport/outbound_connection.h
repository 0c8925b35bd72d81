// Reaching out: from a target text to a connected channel.
#pragma once

#include "transport/transport_channel.h"

#include <cstdint>
#include <string>

namespace TQ::detail {

/// Connects to a dotted IPv4 address. Null for port 0, any other text, or when the peer cannot be
/// reached within two waits of two seconds. Writes nothing to the log; blocks the caller.
ChannelRef ConnectSocket(const char* target, uint16_t port);

/// Connects to the pipes of `name`, which is the target as it stands, leading backslash included.
/// Null if either pipe is not to be had within 10 seconds. Blocks the caller.
ChannelRef ConnectPipe(const std::string& name);

}  // namespace TQ::detail
