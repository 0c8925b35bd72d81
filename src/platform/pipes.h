// The door to the operating system's named pipes: one-way byte streams between processes of one
// machine.
//
// A connection is a pair of pipes, one for each direction. Its accepting side creates both, then
// waits for a peer on the one that it reads from, then on the other; its connecting side opens them
// in the same order. A path is the prefix PIPE_PREFIX and a name. Backslashes between the prefix
// and the rest of the name mean nothing.
//
// Waiting follows one pattern: an operation is started, and if it is then under way, the event that
// it was given is waited for, as long as the caller likes; after that it is finished, or cancelled.
//
// Threads: every operation may be called from any thread, but an end of a pipe and an event belong
// to one thread at a time.
// Signals: as in platform/sockets.h.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <utility>

namespace TQ::platform {

constexpr const char* PIPE_PREFIX = R"(\\.\pipe\)";

/// A native pipe handle.
using PipeHandle = std::intptr_t;

/// The handle of no pipe.
constexpr PipeHandle NO_PIPE = -1;

/// A time limit in milliseconds that never runs out.
constexpr uint32_t NO_PIPE_TIME_LIMIT = 0xFFFFFFFF;

/// Owns one end of a pipe, or none.
class PipeEnd {
 public:
  PipeEnd() = default;
  explicit PipeEnd(PipeHandle ownedHandle) : handle(ownedHandle) {}
  PipeEnd(PipeEnd&& other) noexcept : handle(std::exchange(other.handle, NO_PIPE)) {}
  PipeEnd& operator=(PipeEnd&& other) noexcept {
    std::swap(handle, other.handle);
    return *this;
  }
  ~PipeEnd() { Close(); }

  /// Nothing is flushed, and the other side is not told first.
  void Close();

  bool IsOpen() const { return handle != NO_PIPE; }
  PipeHandle Handle() const { return handle; }

 private:
  PipeHandle handle = NO_PIPE;
};

/// What an operation that may take its time has come to.
enum class PipeStatus { DONE, PENDING, FAILED };

/// How the wait for an event has ended.
enum class PipeWait { SIGNALLED, TIMED_OUT, FAILED };

/// What tells that an operation has ended, with the record of the operation that is under way.
class PipeEvent {
 public:
  struct Operation;  ///< the platform's own

  PipeEvent();
  ~PipeEvent();
  PipeEvent(const PipeEvent&) = delete;
  PipeEvent& operator=(const PipeEvent&) = delete;

  /// The system's event, where there is such an object, stays open until the process ends.
  void LeaveOpen();

  Operation& Current() const { return *operation; }

 private:
  std::unique_ptr<Operation> operation;
};

/// Which way the bytes go at this end.
enum class PipeAccess { READ, WRITE };

// ---- the accepting side ------------------------------------------------------------------------

/// Creates a pipe to which one peer can connect. `bufferSize` in bytes is a wish. Where a name
/// belongs to one process at a time, a name that is taken is tried for a tenth of a second.
PipeEnd CreatePipeEnd(const std::string& path, PipeAccess access, uint32_t bufferSize);

/// Starts to wait for a peer. DONE means that one was there first.
PipeStatus StartPipeConnect(PipeEnd& pipe, PipeEvent& event);

/// Waits for the peer that has connected to `companion` before, as long as it takes; false on
/// failure. Where the platform can tell, no other peer gets in.
bool AwaitPipePeer(PipeEnd& pipe, const PipeEnd& companion);

// ---- the connecting side -----------------------------------------------------------------------

/// Waits until a peer can be connected to; false if there is none by then. Where that cannot be
/// seen without connecting, true at once.
bool WaitForPipeName(const std::string& path, uint32_t limitMs);

/// Connects to a pipe. `companion` is the end of the same connection that was opened before, null
/// for the first one. Where WaitForPipeName cannot wait, this does, for PIPE_OPEN_LIMIT_MS.
PipeEnd OpenPipeEnd(const std::string& path, PipeAccess access, const PipeEnd* companion);

constexpr uint32_t PIPE_OPEN_LIMIT_MS = 10000;

// ---- transfers ---------------------------------------------------------------------------------

/// Starts to read at most `length` bytes. What comes is put into `buffer` at the latest by
/// FinishPipeRead, and never after CancelPipeOperation has returned. Where the system goes on
/// writing after a cancel, it reads into memory of the event's own.
PipeStatus StartPipeRead(const PipeEnd& pipe, PipeEvent& event, void* buffer, uint32_t length);

/// Waits for the end of the operation under way.
PipeWait WaitPipeEvent(PipeEvent& event, uint32_t limitMs);

/// Takes the result of a read, waiting for its end where it has not come yet: false if it failed,
/// also because the peer has closed.
bool FinishPipeRead(PipeEvent& event, uint32_t* count);

/// Gives the operation under way up, without waiting for anything.
void CancelPipeOperation(const PipeEnd& pipe, PipeEvent& event);

/// Writes at most `length` bytes, waiting for room as long as it takes; false on failure.
bool WritePipe(const PipeEnd& pipe, const void* buffer, uint32_t length, uint32_t* count);

}  // namespace TQ::platform
