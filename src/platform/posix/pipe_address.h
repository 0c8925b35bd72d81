// Where a pipe is found among the abstract UNIX addresses, and who is on its other side.
#pragma once

#include <sys/socket.h>
#include <sys/un.h>

#include <string>
#include <string_view>

namespace TQ::platform {

constexpr int NO_DESCRIPTOR = -1;

/// The address of a UNIX socket with the length that the system is given.
struct PipeAddress {
  sockaddr_un bytes{};
  socklen_t length = 0;

  const sockaddr* Get() const { return reinterpret_cast<const sockaddr*>(&bytes); }
  sockaddr* Get() { return reinterpret_cast<sockaddr*>(&bytes); }

  /// The abstract name, without the zero before it; empty when there is none.
  std::string_view Name() const;
};

/// Where the pipe of this path is found. A name that would not fit stands there as its digest.
PipeAddress AddressOfPipe(const std::string& path);

/// Gives a socket of the connecting side its own address, by which the two pipes of a connection
/// are told to be one: one that the system chooses for the first pipe, and for the second one that
/// is made of it. `first` is NO_DESCRIPTOR for the first pipe itself.
bool BindAsPeer(int socket, int first);

/// Whether the peers of two accepted sockets are the two pipes of one connecting side.
bool IsCompanionOf(int second, int first);

/// The other side of a connected socket runs under this process's user or as root. It stands for
/// the default rights of a pipe. Both sides ask, so a name that another user has taken cannot stand
/// in for a service, not even towards root. Intended: root is welcome there itself and may have
/// been taken for the peer before it turns away, and that listener then waits for its second pipe.
bool MayTalkTo(int socket);

}  // namespace TQ::platform
