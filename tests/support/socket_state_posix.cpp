#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>

#include "support/socket_state.h"

namespace TQ::test {

const int WOULD_BLOCK_CODE = EAGAIN;
const int NOT_CONNECTED_CODE = ENOTCONN;
const int CONNECTION_RESET_CODE = ECONNRESET;
const int BROKEN_PIPE_CODE = EPIPE;
const int BAD_HANDLE_CODE = EBADF;
const int NO_BUFFER_SPACE_CODE = ENOBUFS;

namespace {

int Descriptor(platform::Handle socket) { return static_cast<int>(socket); }

int Option(platform::Handle socket, int level, int option) {
  int value = 0;
  socklen_t size = sizeof value;
  if (getsockopt(Descriptor(socket), level, option, &value, &size) != 0) {
    throw std::runtime_error("socket option cannot be read");
  }
  return value;
}

tcp_info ConnectionInfo(platform::Handle socket) {
  tcp_info info{};
  socklen_t size = sizeof info;
  if (getsockopt(Descriptor(socket), IPPROTO_TCP, TCP_INFO, &info, &size) != 0) {
    throw std::runtime_error("connection information cannot be read");
  }
  return info;
}

}  // namespace

bool IsInheritable(platform::Handle socket) {
  return (fcntl(Descriptor(socket), F_GETFD) & FD_CLOEXEC) == 0;
}

bool IsNonBlocking(platform::Handle socket) {
  return (fcntl(Descriptor(socket), F_GETFL) & O_NONBLOCK) != 0;
}

// These two are asked of every socket that is found open. One that another thread of the process
// has closed meanwhile is none.
bool IsStream(platform::Handle socket) {
  int type = 0;
  socklen_t size = sizeof type;
  return getsockopt(Descriptor(socket), SOL_SOCKET, SO_TYPE, &type, &size) == 0 &&
         type == SOCK_STREAM;
}

bool IsListening(platform::Handle socket) {
  int listening = 0;
  socklen_t size = sizeof listening;
  return getsockopt(Descriptor(socket), SOL_SOCKET, SO_ACCEPTCONN, &listening, &size) == 0 &&
         listening != 0;
}

// Of a listening socket these two fields tell about the queue.
int ListenBacklog(platform::Handle listener) {
  return static_cast<int>(ConnectionInfo(listener).tcpi_sacked);
}

int WaitingConnections(platform::Handle listener) {
  return static_cast<int>(ConnectionInfo(listener).tcpi_unacked);
}

bool HasWaitingPeer(platform::Handle pipe) {
  pollfd entry{Descriptor(pipe), POLLIN, 0};
  return poll(&entry, 1, 0) == 1;
}

bool ReusesAddress(platform::Handle socket) {
  return Option(socket, SOL_SOCKET, SO_REUSEADDR) != 0;
}

bool ReusesPort(platform::Handle socket) { return Option(socket, SOL_SOCKET, SO_REUSEPORT) != 0; }

bool SendsWithoutDelay(platform::Handle socket) {
  return Option(socket, IPPROTO_TCP, TCP_NODELAY) != 0;
}

int ReceiveBufferSize(platform::Handle socket) { return Option(socket, SOL_SOCKET, SO_RCVBUF); }

int SendBufferSize(platform::Handle socket) { return Option(socket, SOL_SOCKET, SO_SNDBUF); }

// Linux doubles what it is asked for, to leave room for its own records.
int ReportedBufferSize(int asked) { return 2 * asked; }

int64_t SendTimeLimitMs(platform::Handle socket) {
  timeval limit{};
  socklen_t size = sizeof limit;
  if (getsockopt(Descriptor(socket), SOL_SOCKET, SO_SNDTIMEO, &limit, &size) != 0) {
    throw std::runtime_error("socket option cannot be read");
  }
  return int64_t{limit.tv_sec} * 1000 + limit.tv_usec / 1000;
}

std::string OwnAddress(platform::Handle socket) {
  sockaddr_in address{};
  socklen_t size = sizeof address;
  char text[INET_ADDRSTRLEN] = "";
  if (getsockname(Descriptor(socket), reinterpret_cast<sockaddr*>(&address), &size) != 0 ||
      inet_ntop(AF_INET, &address.sin_addr, text, sizeof text) == nullptr) {
    return "none";
  }
  return std::string(text) + ":" + std::to_string(ntohs(address.sin_port));
}

std::vector<platform::Handle> OpenSockets() {
  std::vector<platform::Handle> sockets;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    const int descriptor = std::atoi(entry.path().filename().c_str());
    sockaddr_in address{};
    socklen_t size = sizeof address;
    // What is no socket has no such address, and sockets of another family are none of ours.
    if (getsockname(descriptor, reinterpret_cast<sockaddr*>(&address), &size) == 0 &&
        address.sin_family == AF_INET) {
      sockets.push_back(descriptor);
    }
  }
  std::sort(sockets.begin(), sockets.end());
  return sockets;
}

platform::Handle ListenerOn(uint16_t port) {
  platform::Handle found = platform::NO_HANDLE;
  for (const platform::Handle socket : OpenSockets()) {
    if (IsStream(socket) && IsListening(socket) && platform::LocalPort(socket) == port) {
      if (found != platform::NO_HANDLE) {
        return platform::NO_HANDLE;
      }
      found = socket;
    }
  }
  return found;
}

platform::Handle UnconnectedSocket() {
  return socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, IPPROTO_TCP);
}

// Numbers below the limit that are free are taken first; a limit below a number in use is allowed.
NoMoreDescriptors::NoMoreDescriptors() {
  const int highest = fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 0);
  rlimit limit{};
  if (highest < 0 || getrlimit(RLIMIT_NOFILE, &limit) != 0) {
    throw std::runtime_error("NoMoreDescriptors: the limit cannot be read");
  }
  held.push_back(highest);
  limitBefore = limit.rlim_cur;
  limit.rlim_cur = static_cast<rlim_t>(highest) + 1;
  if (setrlimit(RLIMIT_NOFILE, &limit) != 0) {
    throw std::runtime_error("NoMoreDescriptors: the limit cannot be set");
  }
}

NoMoreDescriptors::~NoMoreDescriptors() {
  rlimit limit{};
  (void)getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = limitBefore;
  (void)setrlimit(RLIMIT_NOFILE, &limit);
  platform::ReleaseDescriptors(held);
}

}  // namespace TQ::test
