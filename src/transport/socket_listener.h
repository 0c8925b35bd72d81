// The socket listener: accepts TCP peers and runs their handshakes, one after the other.
#pragma once

namespace TQ::detail {

/// The body of the socket listener thread. Waits at its gate, listens until the library stops, and
/// serves each connection up to the end of its handshake. Intended: here and one after the other; a
/// peer that is in a handshake keeps the others in the backlog. Ends at once when no socket
/// listener is defined.
///
/// Intended: a session whose threads cannot be made throws here, where nobody catches it, and so
/// ends the process.
///
/// Locks: none. Other problems reach the host as critical and error log lines, and in no other way.
void RunSocketListener();

}  // namespace TQ::detail
