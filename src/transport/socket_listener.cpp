#include "transport/socket_listener.h"

#include "frame/log.h"
#include "frame/settings.h"
#include "platform/sockets.h"
#include "platform/threads.h"
#include "session/application_registry.h"
#include "session/session.h"
#include "transport/listener_settings.h"
#include "transport/socket_channel.h"
#include "transport/socket_options.h"

#include <array>
#include <chrono>
#include <thread>

namespace TQ::detail {
namespace {

constexpr int32_t BACKLOG = 5;
constexpr int64_t ACCEPT_WAIT_MICROSECONDS = 1100000;
constexpr std::chrono::milliseconds RETRY_PAUSE{1000};

/// The listener's socket, and what it has told of its troubles.
class SocketListener {
 public:
  explicit SocketListener(CountedRef<ConnThreadInfo> settings) : info(std::move(settings)) {}
  ~SocketListener() {
    if (listener != platform::NO_SOCKET) platform::CloseSocket(listener);
  }
  SocketListener(const SocketListener&) = delete;
  SocketListener& operator=(const SocketListener&) = delete;

  void RunOnce() {
    if (listening || StartListening()) AwaitConnection();
  }

 private:
  bool StartListening();
  bool Bind(const SocketAddressArea& address);
  bool Listen(const SocketAddressArea& address);
  bool FirstFailure() { return !std::exchange(bindFailureReported, true); }
  void AwaitConnection();
  void AcceptOne();
  static bool OverLimit();
  static void Serve(platform::SocketHandle socket);

  const CountedRef<ConnThreadInfo> info;
  platform::SocketHandle listener = platform::NO_SOCKET;
  bool listening = false;
  bool bindFailureReported = false;  ///< shared by both kinds of failure
};

/// One attempt. A failure is told once and tried again for as long as the process runs.
bool SocketListener::StartListening() {
  const SocketAddressArea address = info->ListenAddress();
  // Intended: no option is set. Above all the address is not made reusable, so a port in use is
  // waited for.
  listener = platform::CreateStreamSocket();
  listening = Bind(address) && Listen(address);
  if (listening) {
    bindFailureReported = false;
    Log(TQ_LOG_INFO, "listening for incoming connection on :", HostText{address.data()}, ":",
        PortOf(address.data()));
    return true;
  }
  if (listener != platform::NO_SOCKET) platform::CloseSocket(listener);
  listener = platform::NO_SOCKET;
  std::this_thread::sleep_for(RETRY_PAUSE);
  return false;
}

bool SocketListener::Bind(const SocketAddressArea& address) {
  if (platform::BindSocket(listener, address.data(), platform::SOCKET_ADDRESS_AREA_SIZE)) {
    return true;
  }
  if (!FirstFailure()) return false;
  if (FamilyOf(address.data()) == platform::ADDRESS_FAMILY_IPV4) {
    Log(TQ_LOG_CRITICAL, "bind to:", HostText{address.data()}, ":", PortOf(address.data()),
        " FAILED. Try to reinitialize listener");
  } else {
    Log(TQ_LOG_CRITICAL, "Cannot create listening channel");
  }
  return false;
}

bool SocketListener::Listen(const SocketAddressArea& address) {
  if (platform::ListenOnSocket(listener, BACKLOG)) return true;
  if (!FirstFailure()) return false;
  if (FamilyOf(address.data()) == platform::ADDRESS_FAMILY_IPV4) {
    // Intended: no blank before the word, other than in the line about binding.
    Log(TQ_LOG_CRITICAL, "listen to:", HostText{address.data()}, ":", PortOf(address.data()),
        "FAILED.");
  } else {
    Log(TQ_LOG_CRITICAL, "listen to FAILED on UNIX socket");
  }
  return false;
}

void SocketListener::AwaitConnection() {
  const auto wait = platform::WaitReadable(listener, platform::NO_SOCKET, ACCEPT_WAIT_MICROSECONDS);
  if (wait.count == 0) return;
  if (wait.count < 0) {
    Log(TQ_LOG_ERROR, "ConnectionThread. select failed with code=", wait.error);
    std::this_thread::sleep_for(RETRY_PAUSE);
    return;
  }
  if (!StopAllRequested()) AcceptOne();
}

void SocketListener::AcceptOne() {
  Log(TQ_LOG_INFO, "ConnectionThread. Accepting new connection");
  std::array<uint8_t, platform::SOCKET_ADDRESS_SIZE> peer{};
  const platform::SocketHandle socket = platform::AcceptConnection(listener, peer.data());
  if (socket == platform::NO_SOCKET) {
    // Intended: no pause, other than after a failed wait. While connections cannot be accepted, for
    // want of descriptors above all, this line is told over and over.
    Log(TQ_LOG_ERROR, "ConnectionThread. Failed to accept incoming connection.");
    return;
  }
  Log(TQ_LOG_INFO, "ConnectionThread. Connection from: '", HostText{peer.data()},
      "' has been accepted");
  if (OverLimit()) {
    platform::CloseSocket(socket);
    return;
  }
  Serve(socket);
}

bool SocketListener::OverLimit() {
  const uint32_t sessions = g_applications.Size();
  const uint32_t limit = limits.MaxConnections();
  // Intended: strict. With a limit of 100 a connection is admitted while 100 sessions exist.
  if (sessions <= limit) return false;
  Log(TQ_LOG_CRITICAL,
      "ConnectionThread. Connection limit reached. Closing connection. g_applications.size()=",
      sessions, ". limits.MAX_CONNECTIONS = ", limit);
  return true;
}

void SocketListener::Serve(platform::SocketHandle socket) {
  Log(TQ_LOG_INFO, "ConnectionThread. Configuring new socket.");
  ConfigureStreamSocket(socket);
  Log(TQ_LOG_INFO, "ConnectionThread. Starting new application");
  {
    const SessionRef session(new TQAPPImpl());
    if (!session) {
      // Intended: the socket has no owner yet, and stays open.
      Log(TQ_LOG_ERROR, "ConnectionThread. Cannot create application object");
    } else {
      const ChannelRef channel(new SocketChannel(socket));
      if (!session->AcceptHandshake(channel)) {
        Log(TQ_LOG_ERROR, "ConnectionThread. Application start failed");
      }
    }
  }
  Log(TQ_LOG_INFO, "ConnectionThread. Initialization of new connection is completed.");
}

}  // namespace

void RunSocketListener() {
  platform::SetCurrentThreadName("tq-listen");
  socketListenerGate->Wait(WAIT_FOREVER);
  Log(TQ_LOG_INFO, "ConnThread Startup");
  const CountedRef<ConnThreadInfo> info = connThreadInfo;
  if (!info->Enabled()) {
    Log(TQ_LOG_INFO, "Socket connection listener stopped. No socket listeners defined");
    return;
  }
  {
    SocketListener listener(info);
    while (!StopAllRequested()) listener.RunOnce();
  }
  Log(TQ_LOG_INFO, "ConnectionThread. Shutdown");
}

}  // namespace TQ::detail
