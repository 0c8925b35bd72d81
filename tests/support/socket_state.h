// What the operating system says about a socket, and sockets in states that a peer cannot bring
// about.
//
//   EXPECT_FALSE(IsInheritable(handle));
//   EXPECT_EQ(ListenBacklog(handle), 5);
//   const NoMoreDescriptors none;         // every new socket fails from here on
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "support/platform.h"

namespace TQ::test {

// The system's error codes as they stand in log lines.
extern const int WOULD_BLOCK_CODE;
extern const int NOT_CONNECTED_CODE;
extern const int CONNECTION_RESET_CODE;
extern const int BROKEN_PIPE_CODE;
extern const int BAD_HANDLE_CODE;
extern const int NO_BUFFER_SPACE_CODE;

/// True if a program that this process starts would get the handle.
bool IsInheritable(platform::Handle socket);

bool IsNonBlocking(platform::Handle socket);

/// True for a stream socket, false for a datagram socket.
bool IsStream(platform::Handle socket);

bool IsListening(platform::Handle socket);

/// How many connections may wait to be accepted, and how many do.
int ListenBacklog(platform::Handle listener);
int WaitingConnections(platform::Handle listener);

/// True if a peer has connected to a pipe that waits and was not taken yet.
bool HasWaitingPeer(platform::Handle pipe);

bool ReusesAddress(platform::Handle socket);
bool ReusesPort(platform::Handle socket);
bool SendsWithoutDelay(platform::Handle socket);

/// The sizes that the system reports when it was asked for `asked`, and those in force.
int ReceiveBufferSize(platform::Handle socket);
int SendBufferSize(platform::Handle socket);
int ReportedBufferSize(int asked);

/// After how many milliseconds the system gives a write up, 0 for never.
int64_t SendTimeLimitMs(platform::Handle socket);

/// The socket's own address as text, "0.0.0.0:80".
std::string OwnAddress(platform::Handle socket);

/// The sockets of this process, in the order of their numbers.
std::vector<platform::Handle> OpenSockets();

/// The one socket of this process that listens on `port`; NO_HANDLE if there is none or several.
platform::Handle ListenerOn(uint16_t port);

/// A stream socket that was never connected, nonblocking; the caller closes it.
platform::Handle UnconnectedSocket();

/// Lets the process open no further descriptor while it lives. One at a time.
class NoMoreDescriptors final {
 public:
  NoMoreDescriptors();
  ~NoMoreDescriptors();

  NoMoreDescriptors(const NoMoreDescriptors&) = delete;
  NoMoreDescriptors& operator=(const NoMoreDescriptors&) = delete;

 private:
  uint64_t limitBefore = 0;
  std::vector<platform::Handle> held;
};

}  // namespace TQ::test
