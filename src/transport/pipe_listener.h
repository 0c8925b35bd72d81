// The pipe listener: waits for local peers.
#pragma once

#include "transport/transport_channel.h"

#include <string>

namespace TQ::detail {

/// The names of the two pipes, without the system's prefix: the one that this side reads and the
/// one that it writes. Intended: they outlive a shutdown, and a listener that is given no name goes
/// on to use them.
///
/// Threads: the listener's own.
extern std::string inboundPipeName;
extern std::string outboundPipeName;

/// The body of the pipe listener thread. Waits at its gate, then admits one peer after another,
/// each with the whole of its handshake, until stopAll is set. While nobody comes the pipes are
/// made anew every 10 seconds, and only then is stopAll seen.
void RunPipeListener();

/// Makes the two pipes and waits for a peer: 10 seconds on the first, and on the second, intended,
/// for as long as it takes. Null if no peer came or a pipe cannot be had.
ChannelRef AcceptPipe();

}  // namespace TQ::detail
