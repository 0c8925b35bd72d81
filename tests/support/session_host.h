// This process as an application that raw peers reach, for tests of sessions.
//
//   SessionHost host;                           // initialised, listening, its log recorded
//   ScopedSlot slot(7, [](const SlotCall& call) { TQSetInt32Value(call.result, "x", 1); });
//   RawPeer peer = host.Admit("test:1/raw");    // past the handshake, found by its name
//   peer.SendRequest(1, RAW_CALL, 7);
//   ...
//   peer.Close();
//   EXPECT_EQ(host.ReceivingThreadLog("test:1/raw"), (std::vector<std::string>{...}));
//
// The state of the library is process-wide, so there is one SessionHost in a process. What library
// threads use to their end (recorders, gates) is made before it, and slots are made after it.
#pragma once

#include <tq/tq.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "support/host_calls.h"
#include "support/log_recorder.h"
#include "support/raw_peer.h"
#include "support/wait_until.h"

namespace TQ::test {

/// Opens once and for all.
///
/// Threads: any.
class Gate final {
 public:
  void Open();
  bool IsOpen() const;
  /// False if the gate is still closed after `timeout`.
  bool Wait(std::chrono::milliseconds timeout = DEFAULT_DEADLINE) const;

 private:
  mutable std::mutex lock;
  mutable std::condition_variable opened;
  bool open = false;  // guarded by lock
};

/// What the receiving thread of the session `name` has logged, each line as its level, a blank and
/// its text: from the connection to the last line of the thread, or to where it is now.
std::vector<std::string> ReceivingThreadLog(const LogRecorder& log, const std::string& name);

/// The same for the sending thread, from where it takes the session out of the registry.
std::vector<std::string> SendingThreadLog(const LogRecorder& log, const std::string& name);

/// Waits until both threads of the session have logged their last lines.
bool WaitForSessionEnd(const LogRecorder& log, const std::string& name);

/// The library in this process, initialised under the name "host" and listening.
class SessionHost final {
 public:
  /// Throws std::runtime_error if the library does not start.
  SessionHost();

  /// Shuts the library down. Sessions or messages that are left after that fail the running test.
  ~SessionHost();

  SessionHost(const SessionHost&) = delete;
  SessionHost& operator=(const SessionHost&) = delete;

  /// Connects a peer and takes it through the handshake; on return the session has been started
  /// under `name`. A `receiveBuffer` as for RawPeer::Connect. Throws std::runtime_error on failure.
  RawPeer Admit(const std::string& name, int receiveBuffer = 0);

  /// Connects with TQConnect to a listener of this name, whose end of the connection is returned.
  /// Throws std::runtime_error on failure.
  RawPeer ConnectOut(RawListener& listener, const std::string& name);

  /// Limits, from now on. The defaults are those of the library, so that a machine that is busy
  /// fails no handshake; a test in which a limit is to run out sets it when its peers are admitted.
  static void SetIoTimeout(uint32_t milliseconds);
  static void SetMaxReadSize(uint32_t bytes);

  uint16_t Port() const { return port; }
  LogRecorder& Log() { return log; }

  std::vector<std::string> ReceivingThreadLog(const std::string& name) const {
    return test::ReceivingThreadLog(log, name);
  }
  std::vector<std::string> SendingThreadLog(const std::string& name) const {
    return test::SendingThreadLog(log, name);
  }

  /// Waits for the last line of the listener about the admission of the peer. After it only the
  /// session's threads have something to say, if no other peer comes.
  bool WaitForAdmission(const std::string& name) const;

  /// The threads of the session by what they have logged; the default id if they have not.
  std::thread::id ReceivingThread(const std::string& name) const;
  std::thread::id SendingThread(const std::string& name) const;

  /// Waits until the sending or receiving thread of the session has logged its last line.
  bool WaitForReceivingEnd(const std::string& name) const;
  bool WaitForSendingEnd(const std::string& name) const;
  bool WaitForEnd(const std::string& name) const { return WaitForSessionEnd(log, name); }

  /// Waits until this many sessions are left.
  static bool WaitForSessions(uint32_t count);

  /// Shuts down before the destructor does.
  void Shutdown();

 private:
  LogRecorder log;
  uint16_t port = 0;
  bool running = false;
};

/// The line of a log as ReceivingThreadLog gives it.
inline std::string InfoLine(const std::string& text) {
  return std::to_string(TQ_LOG_INFO) + " " + text;
}

// ---- callbacks ---------------------------------------------------------------------------------

struct SlotCall {
  _tag_HTQPARAMLIST params;
  _tag_HTQPARAMLIST result;
  std::string applicationName;
};

/// A slot of this process for as long as the object lives. Its destructor waits for a running call.
class ScopedSlot final {
 public:
  using Function = std::function<void(const SlotCall& call)>;

  ScopedSlot(uint32_t slotId, Function slotFunction);
  ~ScopedSlot();

  ScopedSlot(const ScopedSlot&) = delete;
  ScopedSlot& operator=(const ScopedSlot&) = delete;

  /// Calls that have begun.
  uint32_t Calls() const { return calls.load(); }

 private:
  static int Run(_tag_HTQPARAMLIST params, _tag_HTQPARAMLIST result, const TQSlotCallInfo* info);

  const uint32_t id;
  const Function function;
  std::atomic<uint32_t> calls{0};
};

/// Records the calls of a completion callback.
///
/// Threads: any. It must outlive the requests that were given it: make it before the SessionHost.
class CompletionRecorder final {
 public:
  CompletionRecorder() = default;
  /// Waits for callbacks that are running.
  ~CompletionRecorder();
  CompletionRecorder(const CompletionRecorder&) = delete;
  CompletionRecorder& operator=(const CompletionRecorder&) = delete;

  struct Call {
    std::optional<std::string> applicationName;  ///< nullopt for a null pointer
    uint32_t slotId = 0;
    const void* params = nullptr;
    bool resultIsNull = false;
    uint32_t resultCount = 0;  ///< values in the result
    uint32_t resultX = 0;      ///< the 32-bit value "x" of the result
    std::thread::id thread;
  };

  /// Runs inside each callback, after it was recorded.
  std::function<void(const Call& call)> hook;

  static _tag_TQ_ERROR Record(const char* applicationName, unsigned slotId,
                              _tag_HTQPARAMLIST params, _tag_HTQPARAMLIST result, void* context);

  /// As the arguments of TQNotify and TQEmit.
  TQNotifyCallback Callback() const { return &Record; }

  std::vector<Call> Calls() const;
  size_t Count() const { return Calls().size(); }
  bool WaitForCount(size_t count) const;

 private:
  mutable std::mutex lock;
  mutable std::condition_variable added;
  std::vector<Call> calls;  // guarded by lock
  std::atomic<int> running{0};
};

/// The connect and the disconnect listener of this process while the object lives. The hooks run
/// inside the listeners, after the call was recorded, and must be set before the first session.
class ListenerRecorder final {
 public:
  struct ConnectCall {
    std::string localAddress, remoteAddress, applicationName, host, application;
    int32_t port = 0;
    std::thread::id thread;
  };
  struct DisconnectCall {
    std::string applicationName, host, application;
    int32_t port = 0;
    std::thread::id thread;
  };

  ListenerRecorder();
  ~ListenerRecorder();

  ListenerRecorder(const ListenerRecorder&) = delete;
  ListenerRecorder& operator=(const ListenerRecorder&) = delete;

  std::function<void(const ConnectCall& call)> onConnect;
  std::function<void(const DisconnectCall& call)> onDisconnect;

  std::vector<ConnectCall> Connects() const;
  std::vector<DisconnectCall> Disconnects() const;
  bool WaitForConnects(size_t count) const;
  bool WaitForDisconnects(size_t count) const;

 private:
  static void OnConnect(const char* localAddress, const char* remoteAddress,
                        const char* applicationName, const char* host, int32_t port,
                        const char* application);
  static void OnDisconnect(const char* applicationName, const char* host, int32_t port,
                           const char* application);

  mutable std::mutex lock;
  std::vector<ConnectCall> connects;        // guarded by lock
  std::vector<DisconnectCall> disconnects;  // guarded by lock
};

// ---- requests ----------------------------------------------------------------------------------

/// A TQCall on a thread of its own. The destructor waits for its return and closes the result.
class CallInThread final {
 public:
  /// `params` is the caller's and must stay until the call has returned.
  CallInThread(const std::string& applicationName, uint32_t slotId,
               _tag_HTQPARAMLIST params = {nullptr});
  ~CallInThread();

  CallInThread(const CallInThread&) = delete;
  CallInThread& operator=(const CallInThread&) = delete;

  bool HasReturned() const { return returned.IsOpen(); }
  bool WaitReturned(std::chrono::milliseconds timeout = DEFAULT_DEADLINE) const {
    return returned.Wait(timeout);
  }
  /// Only after the return.
  _tag_HTQPARAMLIST Result() const { return result; }

 private:
  _tag_HTQPARAMLIST result = {nullptr};
  Gate returned;
  std::thread thread;
};

/// An owned handle.
class ScopedList final {
 public:
  ScopedList() : handle(TQCreateParamList()) {}
  ~ScopedList() { TQCloseHandle(handle); }
  ScopedList(const ScopedList&) = delete;
  ScopedList& operator=(const ScopedList&) = delete;

  ScopedList& Int32(const char* name, uint32_t value) {
    TQSetInt32Value(handle, name, value);
    return *this;
  }
  ScopedList& Binary(const char* name, const Bytes& bytes) {
    TQSetBinaryValue(handle, name, bytes.data(), static_cast<uint32_t>(bytes.size()));
    return *this;
  }

  _tag_HTQPARAMLIST Get() const { return handle; }

 private:
  _tag_HTQPARAMLIST handle;
};

/// An IO_TIMEOUT_MS with which a read that may give up does so after 1.001 s.
constexpr uint32_t SHORT_READS = 2000;

/// An IO_TIMEOUT_MS with which a write that is held up for longer fails.
constexpr uint32_t SHORT_WRITES = 100;

/// More bytes than the buffers between two ends of a connection hold, whatever their sizes.
constexpr size_t MORE_THAN_BUFFERS = size_t{8} << 20;

/// A receive buffer with which a peer that does not read stops its writer soon.
constexpr int SMALL_RECEIVE_BUFFER = 4096;

}  // namespace TQ::test
