#include "support/session_host.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <utility>

#include "frame/settings.h"
#include "support/free_port.h"
#include "support/transport.h"

namespace TQ::test {

namespace {

std::string AsLine(const LogLine& line) { return std::to_string(line.level) + " " + line.text; }

bool StartsWith(const std::string& text, const std::string& prefix) {
  return text.compare(0, prefix.size(), prefix) == 0;
}

// The lines of one thread from `first` to the line that begins with `lastPrefix`. Other sessions'
// threads may have the same id earlier or later.
std::vector<std::string> LinesOfThread(const LogRecorder& log, const std::string& first,
                                       const std::string& lastPrefix) {
  std::vector<std::string> texts;
  std::thread::id thread;
  for (const LogLine& line : log.Lines()) {
    if (texts.empty()) {
      if (line.text != first) {
        continue;
      }
      thread = line.thread;
    }
    if (line.thread != thread) {
      continue;
    }
    texts.push_back(AsLine(line));
    if (StartsWith(line.text, lastPrefix)) {
      break;
    }
  }
  return texts;
}

std::thread::id ThreadOfLine(const LogRecorder& log, const std::string& text) {
  const auto line = log.FirstWithPrefix(text);
  return line ? line->thread : std::thread::id();
}

// A zero leaves a limit as it is, and the block too is none.
void Override(const _tag_TQLIMITS& record) { detail::limits.Override(record); }

std::string ConnectedLine(const std::string& name) { return "Application connected:" + name; }
std::string RemovingLine(const std::string& name) { return "Removing application " + name; }
std::string ReceivingEnd(const std::string& name) {
  return "Receiving thread finished for " + name + ":";
}
std::string SendingEnd(const std::string& name) {
  return "Sending thread finished for " + name + ":";
}

// The socket listener's last line about a peer. The pipe listener has none.
constexpr const char* LISTENER_DONE =
    "ConnectionThread. Initialization of new connection is completed.";

}  // namespace

std::vector<std::string> ReceivingThreadLog(const LogRecorder& log, const std::string& name) {
  return LinesOfThread(log, ConnectedLine(name), ReceivingEnd(name));
}

std::vector<std::string> SendingThreadLog(const LogRecorder& log, const std::string& name) {
  return LinesOfThread(log, RemovingLine(name), SendingEnd(name));
}

bool WaitForSessionEnd(const LogRecorder& log, const std::string& name) {
  return log.WaitForPrefix(TQ_LOG_INFO, ReceivingEnd(name)) &&
         log.WaitForPrefix(TQ_LOG_INFO, SendingEnd(name));
}

// ---- Gate --------------------------------------------------------------------------------------

void Gate::Open() {
  const std::lock_guard guard(lock);
  open = true;
  opened.notify_all();
}

bool Gate::IsOpen() const {
  const std::lock_guard guard(lock);
  return open;
}

bool Gate::Wait(std::chrono::milliseconds timeout) const {
  std::unique_lock guard(lock);
  return opened.wait_for(guard, timeout, [this] { return open; });
}

// ---- SessionHost -------------------------------------------------------------------------------

SessionHost::SessionHost() : port(FreePort()) {
  if (TQInitializeEx(HostText(port).c_str(), "host", port, nullptr) != TQ_ERR_OK) {
    throw std::runtime_error("SessionHost: no initialisation");
  }
  running = true;
  TQConnectionReady();
  const std::vector<const char*> started =
      OverPipes()
          ? std::vector{"ConnThread Pipe Startup", "Socket connection listener stopped"}
          : std::vector{"ConnThread Pipe stopped", "listening for incoming connection on :"};
  if (!log.WaitForPrefix(TQ_LOG_INFO, started[0]) || !log.WaitForPrefix(TQ_LOG_INFO, started[1])) {
    throw std::runtime_error("SessionHost: the library does not listen");
  }
}

SessionHost::~SessionHost() {
  Shutdown();
  EXPECT_TRUE(WaitForSessions(0)) << log.Dump();
  EXPECT_TRUE(WaitUntil([] { return DEBUG_TQObjectCount().messages == 0; }))
      << DEBUG_TQObjectCount().messages << " messages are left";
}

void SessionHost::SetIoTimeout(uint32_t milliseconds) {
  _tag_TQLIMITS record = {};
  record.IO_TIMEOUT_MS = milliseconds;
  Override(record);
}

void SessionHost::SetMaxReadSize(uint32_t bytes) {
  _tag_TQLIMITS record = {};
  record.MAX_READ_SIZE = bytes;
  Override(record);
}

void SessionHost::Shutdown() {
  if (std::exchange(running, false)) {
    ShutdownWhileKnocking(port);
  }
}

RawPeer SessionHost::Admit(const std::string& name, int receiveBuffer) {
  const size_t before = log.CountOf(LISTENER_DONE);
  auto peer = RawPeer::Connect(port, DEFAULT_DEADLINE, receiveBuffer);
  if (!peer) {
    throw std::runtime_error("SessionHost: no connection for " + name);
  }
  const HandshakeResult handshake = peer->HandshakeAsConnector(name);
  if (!handshake.Completed()) {
    throw std::runtime_error("SessionHost: " + name + ": " + handshake.failure);
  }
  if (!log.WaitFor(TQ_LOG_INFO, "Startup completed for " + name) ||
      !log.WaitFor(TQ_LOG_INFO, ConnectedLine(name)) ||
      !log.WaitForCount(TQ_LOG_INFO, LISTENER_DONE, before + TimesOfASocket(1))) {
    throw std::runtime_error("SessionHost: the session of " + name + " does not start");
  }
  return std::move(*peer);
}

RawPeer SessionHost::ConnectOut(RawListener& listener, const std::string& name) {
  std::atomic<int> result{1};
  std::thread connector([&] { result = ConnectTo(listener.Port()); });
  auto peer = listener.Accept();
  HandshakeResult handshake;
  if (peer) {
    handshake = peer->HandshakeAsAcceptor(name);
  }
  connector.join();
  if (!handshake.Completed() || result != TQ_ERR_OK) {
    throw std::runtime_error("SessionHost: no way to " + name + ": " + handshake.failure);
  }
  return std::move(*peer);
}

bool SessionHost::WaitForAdmission(const std::string& name) const {
  return log.WaitFor(TQ_LOG_INFO, "Startup completed for " + name) &&
         log.WaitForCount(TQ_LOG_INFO, LISTENER_DONE,
                          log.CountOf("ConnectionThread. Accepting new connection"));
}

std::thread::id SessionHost::ReceivingThread(const std::string& name) const {
  return ThreadOfLine(log, ConnectedLine(name));
}

std::thread::id SessionHost::SendingThread(const std::string& name) const {
  return ThreadOfLine(log, RemovingLine(name));
}

bool SessionHost::WaitForReceivingEnd(const std::string& name) const {
  return log.WaitForPrefix(TQ_LOG_INFO, ReceivingEnd(name));
}

bool SessionHost::WaitForSendingEnd(const std::string& name) const {
  return log.WaitForPrefix(TQ_LOG_INFO, SendingEnd(name));
}

bool SessionHost::WaitForSessions(uint32_t count) {
  return WaitUntil([count] { return DEBUG_TQObjectCount().sessions == count; });
}

// ---- callbacks ---------------------------------------------------------------------------------

ScopedSlot::ScopedSlot(uint32_t slotId, Function slotFunction)
    : id(slotId), function(std::move(slotFunction)) {
  TQRegisterSlot(id, &Run, this);
}

ScopedSlot::~ScopedSlot() { TQUnregisterSlot(id); }

int ScopedSlot::Run(_tag_HTQPARAMLIST params, _tag_HTQPARAMLIST result,
                    const TQSlotCallInfo* info) {
  auto* self = static_cast<ScopedSlot*>(info->context);
  ++self->calls;
  self->function({params, result, info->applicationName});
  return 0;
}

_tag_TQ_ERROR CompletionRecorder::Record(const char* applicationName, unsigned slotId,
                                         _tag_HTQPARAMLIST params, _tag_HTQPARAMLIST result,
                                         void* context) {
  auto* self = static_cast<CompletionRecorder*>(context);
  ++self->running;
  Call call;
  if (applicationName != nullptr) {
    call.applicationName = applicationName;
  }
  call.slotId = slotId;
  call.params = params.impl;
  call.resultIsNull = result.impl == nullptr;
  call.resultCount = TQGetParamCount(result);
  call.resultX = TQGetInt32Value(result, "x");
  call.thread = std::this_thread::get_id();
  {
    const std::lock_guard guard(self->lock);
    self->calls.push_back(call);
    self->added.notify_all();
  }
  if (self->hook) {
    self->hook(call);
  }
  --self->running;  // the last touch: the recorder may be gone after it
  return TQ_ERR_FAILED;
}

CompletionRecorder::~CompletionRecorder() {
  EXPECT_TRUE(WaitUntil([this] { return running == 0; })) << "a callback does not return";
}

std::vector<CompletionRecorder::Call> CompletionRecorder::Calls() const {
  const std::lock_guard guard(lock);
  return calls;
}

bool CompletionRecorder::WaitForCount(size_t count) const {
  std::unique_lock guard(lock);
  return added.wait_for(guard, DEFAULT_DEADLINE, [&] { return calls.size() >= count; });
}

namespace {

std::atomic<ListenerRecorder*> currentListeners{nullptr};

}  // namespace

ListenerRecorder::ListenerRecorder() {
  currentListeners = this;
  TQSetConnectListener(&OnConnect);
  TQSetDisconnectListener(&OnDisconnect);
}

ListenerRecorder::~ListenerRecorder() {
  TQSetConnectListener(nullptr);
  TQSetDisconnectListener(nullptr);
  currentListeners = nullptr;
}

void ListenerRecorder::OnConnect(const char* localAddress, const char* remoteAddress,
                                 const char* applicationName, const char* host, int32_t port,
                                 const char* application) {
  ListenerRecorder& self = *currentListeners;
  const ConnectCall call{localAddress, remoteAddress, applicationName,           host,
                         application,  port,          std::this_thread::get_id()};
  {
    const std::lock_guard guard(self.lock);
    self.connects.push_back(call);
  }
  if (self.onConnect) {
    self.onConnect(call);
  }
}

void ListenerRecorder::OnDisconnect(const char* applicationName, const char* host, int32_t port,
                                    const char* application) {
  ListenerRecorder& self = *currentListeners;
  const DisconnectCall call{applicationName, host, application, port, std::this_thread::get_id()};
  {
    const std::lock_guard guard(self.lock);
    self.disconnects.push_back(call);
  }
  if (self.onDisconnect) {
    self.onDisconnect(call);
  }
}

std::vector<ListenerRecorder::ConnectCall> ListenerRecorder::Connects() const {
  const std::lock_guard guard(lock);
  return connects;
}

std::vector<ListenerRecorder::DisconnectCall> ListenerRecorder::Disconnects() const {
  const std::lock_guard guard(lock);
  return disconnects;
}

bool ListenerRecorder::WaitForConnects(size_t count) const {
  return WaitUntil([&] { return Connects().size() >= count; });
}

bool ListenerRecorder::WaitForDisconnects(size_t count) const {
  return WaitUntil([&] { return Disconnects().size() >= count; });
}

// ---- requests ----------------------------------------------------------------------------------

CallInThread::CallInThread(const std::string& applicationName, uint32_t slotId,
                           _tag_HTQPARAMLIST params)
    : thread([this, applicationName, slotId, params] {
        result = TQCall(applicationName.c_str(), slotId, params);
        returned.Open();
      }) {}

CallInThread::~CallInThread() {
  thread.join();
  TQCloseHandle(result);
}

}  // namespace TQ::test
