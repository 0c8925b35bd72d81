// Initialisation and shutdown of the library as a whole.
#include "frame/globals.h"
#include "frame/locks.h"
#include "frame/log.h"
#include "frame/never_destroyed.h"
#include "frame/settings.h"
#include "platform/sockets.h"
#include "session/application_registry.h"
#include "session/dispatcher.h"
#include "session/session.h"
#include "signals/signal_connections.h"
#include "transport/listener_settings.h"
#include "transport/pipe_listener.h"
#include "transport/socket_listener.h"

#include <tq/application.h>

#include <array>
#include <atomic>
#include <thread>
#include <vector>

using namespace TQ::detail;
namespace platform = TQ::platform;

namespace {

constexpr const char* DEFAULT_HOST = "127.0.0.1";

// Held through initialisation and through all the joins of a shutdown. Recursive: a host's log
// callback or listener may come back in on the thread that holds it.
NeverDestroyed<RecursiveMutex> initLockStorage;
RecursiveMutex& initLock = *initLockStorage;

/// Initialisations that were not shut down yet.
std::atomic<int32_t> initCount{0};

constexpr uint32_t HOST_NAME_SIZE = 1024;
std::array<char, HOST_NAME_SIZE> hostNameBuffer TQ_GUARDED_BY(initLock){};

bool NamesPipe(const char* host) { return host[0] == '\\'; }

/// A record of any other size counts for nothing.
void ApplyLimits(const _tag_TQLIMITS* record) {
  limits.CopyFrom(defaultLimits);
  if (record != nullptr && record->size == sizeof(_tag_TQLIMITS)) limits.Override(*record);
}

/// With port 0 and no pipe this process only connects out.
void RecordListenAddress(const char* host, int32_t port) {
  if (NamesPipe(host)) {
    connPipeThreadInfo->pipeName.Set(host + 1);
  } else if (port != 0) {
    connThreadInfo->Define(host, static_cast<uint16_t>(port));
  }
}

/// What the first initialisation does once the name is known. The order of the three threads and
/// the listen address is fixed: at a second life the gates are open already, and the listeners may
/// run before the address is there.
void StartLibrary(const std::string& applicationName, const char* host, int32_t port) {
  localApplicationName.Set(applicationName);
  RegisterInternalSlots();
  connThreadInfo->Clear();
  pipeListenerThread = std::thread(RunPipeListener);
  socketListenerThread = std::thread(RunSocketListener);
  RecordListenAddress(host, port);
  dispatcherThread = std::thread(RunDispatcher);
}

_tag_TQ_ERROR Initialize(const char* host, const char* name, int32_t port,
                         const _tag_TQLIMITS* record) {
  LockScope held(initLock);
  const int32_t count = initCount.fetch_add(1) + 1;
  if (count == 1) {
    platform::StartSockets();
    ApplyLimits(record);
  }
  // Intended: nothing below undoes the count. Every call needs its shutdown, a failed one too.
  if (!platform::GetHostName(hostNameBuffer.data(), HOST_NAME_SIZE)) {
    Log(TQ_LOG_INFO, "Cannot obtain host name");
    return TQ_ERR_FAILED;
  }
  const std::string applicationName = ComposeApplicationName(hostNameBuffer.data(), port, name);
  Log(TQ_LOG_INFO, "Application=", applicationName);
  stopAll.store(0, std::memory_order_relaxed);
  if (count != 1) {
    return applicationName == localApplicationName.Copy() ? TQ_ERR_OK : TQ_ERR_NAME_REJECTED;
  }
  StartLibrary(applicationName, host, port);
  return TQ_ERR_OK;
}

void JoinIfHeld(std::thread& thread) {
  if (thread.joinable()) thread.join();
}

void StopSessions(const std::vector<SessionRef>& sessions) {
  for (const SessionRef& session : sessions) {
    if (session.IsValid()) session->StopSession();
  }
}

/// Intended: no pause. A session that is not valid any more is looked at again and again until its
/// sending thread has erased it.
void StopAllSessions() {
  while (g_applications.Size() != 0) {
    const SessionRef session = g_applications.First();
    if (session.IsValid()) session->StopSession();
    std::this_thread::yield();
  }
}

}  // namespace

_tag_TQ_ERROR TQInitialize(const char* name, int32_t port, const _tag_TQLIMITS* record) {
  return TQInitializeEx(DEFAULT_HOST, name, port, record);
}

_tag_TQ_ERROR TQInitializeEx(const char* host, const char* name, int32_t port,
                             const _tag_TQLIMITS* record) {
  Log(TQ_LOG_INFO, "Initializing with: host=", host != nullptr ? host : "<NULL>", " port=", port);
  const bool given = host != nullptr && host[0] != '\0';
  return Initialize(given ? host : DEFAULT_HOST, name, port, record);
}

_tag_TQ_ERROR TQConnectionReady() {
  OpenListenerGates();
  return TQ_ERR_OK;
}

_tag_TQ_ERROR TQStartListeners(void* /*unused*/, const char* host, uint16_t port) {
  if (NamesPipe(host)) {
    connThreadInfo->Clear();
    connPipeThreadInfo->pipeName.Set(host + 1);
  } else {
    // A pipe name recorded earlier stays: both listeners then run.
    connThreadInfo->Define(host, port);
  }
  OpenListenerGates();
  return TQ_ERR_OK;
}

_tag_TQ_ERROR TQShutdown() {
  LockScope held(initLock);
  if (initCount.load() == 0) return TQ_ERR_OK;
  if (initCount.fetch_sub(1) != 1) return TQ_ERR_OK;
  // A session's sending thread may see the stop before this function comes to the session, and then
  // takes the name away. Its receiving thread is joined all the same, by the reference from here.
  // Nobody joins that of a session that had lost its name before: it ends by itself, over a pipe
  // when its peer closes or sends and over a socket within a wait.
  std::vector<SessionRef> connected = g_applications.All();
  stopAll.store(1, std::memory_order_relaxed);
  // One that was admitted meanwhile has seen no stop yet. The ones admitted from here on see it.
  for (SessionRef& session : g_applications.All()) connected.push_back(std::move(session));
  OpenListenerGates();
  // A join of the calling thread raises std::system_error, which is the host's to see.
  JoinIfHeld(pipeListenerThread);
  JoinIfHeld(socketListenerThread);
  StopSessions(connected);
  connected.clear();
  StopAllSessions();
  g_dispatchQueue.Push(nullptr);
  // Intended: not tested for a thread. After an initialisation that failed this raises.
  dispatcherThread.join();
  platform::StopSockets();
  return TQ_ERR_OK;
}
