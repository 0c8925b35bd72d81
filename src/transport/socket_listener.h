// The socket listener: accepts TCP peers and runs their handshakes, one after the other.
#pragma once

namespace TQ::detail {

/// The body of the socket listener thread. Waits at its gate, listens until the library stops, and
/// serves each connection up to the end of its handshake; a peer that is in one keeps the others in
/// the backlog. Ends at once when no socket listener is defined.
///
/// Locks: none. Problems reach the host as critical and error log lines, and in no other way.
void RunSocketListener();

}  // namespace TQ::detail
