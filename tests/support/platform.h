// The tests' only door to the operating system. Everything else in tests/support is portable, so a
// port to another platform is a second implementation of this header and nothing more.
//
// Nothing here raises a signal in the process or lets an interrupted call show. All handles are
// kept from child processes unless an operation says otherwise.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

namespace TQ::test {

/// How a child process ended.
struct ExitStatus {
  bool exited = false;  ///< by a return from main or by an exit call
  int code = 0;         ///< the exit code, if `exited`
  int signal = 0;       ///< the signal that ended it, if not `exited`

  bool Succeeded() const { return exited && code == 0; }

  /// True if the process ended through abort(), as it does after std::terminate.
  bool Aborted() const;
};

std::ostream& operator<<(std::ostream& stream, const ExitStatus& status);

}  // namespace TQ::test

namespace TQ::test::platform {

/// A native handle in the integer form in which the library's channels take it.
using Handle = std::intptr_t;
constexpr Handle NO_HANDLE = -1;

enum class IoStatus {
  OK,         ///< `count` bytes were moved, at least one
  TIMED_OUT,  ///< nothing could be moved in time
  CLOSED,     ///< the other side has closed in order
  RESET,      ///< the other side has broken the connection
  FAILED,     ///< anything else
};

struct IoResult {
  IoStatus status;
  size_t count;
};

// ---- sockets -----------------------------------------------------------------------------------
// IPv4 on 127.0.0.1 only. All stream sockets are nonblocking and send small pieces at once.

/// A listening socket, NO_HANDLE on failure. `port` 0 takes any. A `receiveBuffer` above 0 is given
/// to the accepted sockets.
Handle Listen(uint16_t port, int receiveBuffer = 0);

/// A connection that has come in, NO_HANDLE if none came in time.
Handle Accept(Handle listener, std::chrono::milliseconds timeout);

/// One attempt to connect, NO_HANDLE if it failed.
Handle Connect(uint16_t port, std::chrono::milliseconds timeout, int receiveBuffer = 0);

/// Waits until at least one byte is there, then takes up to `size`.
IoResult ReceiveSome(Handle socket, uint8_t* data, size_t size, std::chrono::milliseconds timeout);

/// Waits until at least one byte can be written, then writes what fits.
IoResult SendSome(Handle socket, const uint8_t* data, size_t size,
                  std::chrono::milliseconds timeout);

void ShutdownWrite(Handle socket);

/// Closes; the peer then sees an error instead of an orderly end.
void CloseWithReset(Handle socket);

/// Does nothing with NO_HANDLE.
void CloseSocket(Handle socket);

/// Sizes of 0 leave a buffer as it is.
void SetBufferSizes(Handle socket, int sendBuffer, int receiveBuffer);

/// 0 if it cannot be told.
uint16_t LocalPort(Handle socket);
uint16_t RemotePort(Handle socket);

/// True if a socket could be bound to the port at this moment, without address reuse.
bool CanBind(uint16_t port);

/// Sends one UDP datagram to the port.
bool SendDatagram(uint16_t port, const uint8_t* data, size_t size);

// ---- named pipes -------------------------------------------------------------------------------
// Each end is nonblocking and used with ReceiveSome, SendSome and CloseSocket. Names are without
// the system's prefix.

/// A pipe that waits for its peer, NO_HANDLE if the name cannot be had.
Handle ListenPipe(const std::string& pipeName);

/// The peer of a pipe that waits, NO_HANDLE if none came in time. The waiting end stays open, and
/// its closing frees the name. Without `granted` the peer is not told that it was taken.
Handle AcceptPipe(Handle listener, std::chrono::milliseconds timeout, bool granted = true);

/// The address of this end of a pipe as the system has it; empty if it cannot be told.
std::vector<uint8_t> PipeAddress(Handle pipe);

/// One attempt to open a pipe, NO_HANDLE if it failed. `companion` is the pipe of the same
/// connection that was opened before.
Handle OpenPipe(const std::string& pipeName, Handle companion, std::chrono::milliseconds timeout);

/// True while the pipe waits for its peer. Unlike an attempt to open it this disturbs nobody.
bool PipeListens(const std::string& pipeName);
/// The names under which pipes wait anywhere on this machine, as the system shows them, as far as
/// they contain `part`.
std::vector<std::string> WaitingPipes(const std::string& part);

/// The ends that this process holds, of pipes that wait and of connected ones, in the order of
/// their numbers.
std::vector<Handle> OpenPipeEnds();

/// The files whose names contain `part`, in the folders where programs leave such files.
std::vector<std::string> FilesNamed(const std::string& part);

// ---- processes ---------------------------------------------------------------------------------

/// A child that runs this process's own executable.
struct Child {
  int64_t id = 0;
  Handle process = NO_HANDLE;   ///< where the platform has such a handle
  Handle input = NO_HANDLE;     ///< writes to the child's standard input
  Handle output = NO_HANDLE;    ///< reads the child's standard output
  Handle lifeline = NO_HANDLE;  ///< its closing, also by the end of this process, ends the child
};

/// Starts the executable of this process again. The child finds out through StartWatchdog when
/// this process is gone. With `mergeErrors` the child's standard error goes to its output.
std::optional<Child> StartSelf(const std::vector<std::string>& arguments, bool mergeErrors);

IoResult ReadPipe(Handle pipe, char* data, size_t size, std::chrono::milliseconds timeout);
IoResult WritePipe(Handle pipe, const char* data, size_t size, std::chrono::milliseconds timeout);

/// Closes and sets NO_HANDLE; does nothing with NO_HANDLE.
void ClosePipe(Handle& pipe);

/// Waits for the end of the child and reaps it; nullopt if it still runs. Call it once only after
/// it gave a status.
std::optional<ExitStatus> WaitChild(Child& child, std::chrono::milliseconds timeout);

/// Ends the child at once. It must not have been reaped.
void KillChild(Child& child);

/// Makes this process one of another user, without any rights. For roles. False if it may not.
bool BecomeOtherUser();

/// True while the process runs, also if it is not a child of this one.
bool ProcessExists(int64_t id);

constexpr int EXIT_TIME_LIMIT = 97;
constexpr int EXIT_PARENT_GONE = 98;

/// For the child: starts a thread that ends this process with EXIT_TIME_LIMIT after `limit`, or
/// with EXIT_PARENT_GONE as soon as the process that started it has closed the lifeline.
void StartWatchdog(std::chrono::milliseconds limit);

// ---- files -------------------------------------------------------------------------------------

/// Replaces a small file's text by what `update` makes of it, alone among all processes that do so.
/// A file that is not there counts as empty. False if the file cannot be used.
bool UpdateLockedFile(const std::string& path,
                      const std::function<std::string(const std::string&)>& update);

/// A text that tells this user's files in a shared folder from those of others.
std::string UserTag();

int64_t ProcessId();

// ---- the host's conditions, see support/host_conditions.h --------------------------------------

extern const bool HAS_SIGNALS;
void StartSignalStorm();
void StopSignalStorm();
uint64_t SignalStormCount();

/// The set of signals that the system shows under this name, as its own text.
std::string SignalSet(const std::string& name);

std::vector<Handle> OccupyDescriptors(int highest);
void ReleaseDescriptors(const std::vector<Handle>& held);

bool LimitAddressSpace(uint64_t bytes);
bool LimitStack(uint64_t bytes);

// ---- process information -----------------------------------------------------------------------

int ThreadCount();
std::vector<std::string> ThreadNames();
int OpenDescriptorCount();
uint64_t ResidentBytes();

}  // namespace TQ::test::platform
