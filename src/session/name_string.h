// Names on the wire during the handshake.
//
//   0  padded length, 32 bits little-endian: (L + 4) with its two low bits cleared
//   4  the L bytes of the name, then 1 to 4 zero bytes
#pragma once

#include "transport/transport_channel.h"

#include <cstdint>
#include <string>

namespace TQ::detail {

/// A reader takes no text field above this, so the longest name that gets through has 255 bytes.
constexpr uint32_t MAX_PADDED_NAME = 256;

/// Reads one name within the channel's time limit, up to its first zero byte. Any failure gives the
/// empty string: a name that is too long, whose bytes then stay unread, just as a dead channel.
std::string ReadNameString(ITransportChannel& channel);

/// Sends this process's name in a single write and gives the write's result. A writer sends names
/// of any length.
int32_t WriteLocalName(ITransportChannel& channel);

}  // namespace TQ::detail
