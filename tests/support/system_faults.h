// Makes a socket call of the operating system fail, or do nothing, where no test can bring it to
// that by other means.
//
//   FailCalls(SystemCall::LISTEN, 1);      // the next listen fails, the ones after it work
//   FailCalls(SystemCall::POLL, 3, 2);     // two polls work, the three behind them fail
//   SendNothing(2);                        // two sends take no byte, which is no failure
//
// This header defines the calls themselves, which then go on to the system's. It stands for a whole
// test executable, so exactly one of its sources includes it.
//
// Threads: any.
#pragma once

#include <dlfcn.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <functional>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace TQ::test {

enum class SystemCall {
  SOCKET,
  LISTEN,
  ACCEPT,
  POLL,
  BIND,
  CONNECT,
  GET_SOCKET_NAME,
  GET_PEER_NAME,
  GET_OPTION,
  DUPLICATE,
  COUNT
};

/// The code with which a call fails.
constexpr int FAULT_CODE = ENOBUFS;

namespace faults {

struct Fault {
  std::atomic<int> skipped{0};
  std::atomic<int> count{0};
  std::atomic<int> failed{0};
};

inline std::array<Fault, static_cast<size_t>(SystemCall::COUNT)> g_faults;
inline std::atomic<int> g_emptySends{0};
inline std::mutex g_failureLock;
inline std::vector<std::chrono::steady_clock::time_point>
    g_failureTimes;  // guarded by g_failureLock
inline std::mutex g_pollLock;
inline std::vector<int64_t> g_pollLimits;  // guarded by g_pollLock
inline std::atomic<int> g_expiredPolls{0};
inline std::function<void(int)> g_beforeConnect;
inline std::function<void(int)> g_beforeAccept;
inline std::function<void()> g_beforePoll;
inline std::atomic<int> g_socketsMade{0};
inline std::mutex g_nameLock;
inline std::vector<std::string> g_boundNames;  // guarded by g_nameLock
inline std::atomic<unsigned> g_peerUser{0};
inline std::atomic<int> g_peerUserAnswers{0};

inline Fault& FaultOf(SystemCall call) { return g_faults[static_cast<size_t>(call)]; }

/// Takes one off a counter that is above zero.
inline bool TakeOne(std::atomic<int>& counter) {
  int value = counter.load();
  while (value > 0 && !counter.compare_exchange_weak(value, value - 1)) {
  }
  return value > 0;
}

inline bool Fails(SystemCall call) {
  Fault& fault = FaultOf(call);
  if (TakeOne(fault.skipped) || !TakeOne(fault.count)) {
    return false;
  }
  {
    const std::lock_guard guard(g_failureLock);
    g_failureTimes.push_back(std::chrono::steady_clock::now());
  }
  fault.failed.fetch_add(1);
  errno = FAULT_CODE;
  return true;
}

/// The definition behind ours.
template <typename Function>
Function* Next(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

/// Notes an abstract name.
inline void NoteBoundName(const sockaddr* address, socklen_t size) {
  constexpr socklen_t BEFORE = offsetof(sockaddr_un, sun_path) + 1;
  const auto* local = reinterpret_cast<const sockaddr_un*>(address);
  if (address->sa_family != AF_UNIX || size <= BEFORE || local->sun_path[0] != 0) {
    return;
  }
  const std::lock_guard guard(g_nameLock);
  g_boundNames.emplace_back(local->sun_path + 1, size - BEFORE);
}

inline int Poll(pollfd* entries, nfds_t count, const timespec* limit, const sigset_t* mask) {
  {
    const std::lock_guard guard(g_pollLock);
    g_pollLimits.push_back(
        limit == nullptr ? -1 : int64_t{limit->tv_sec} * 1000000 + limit->tv_nsec / 1000);
  }
  if (g_beforePoll) {
    g_beforePoll();
  }
  if (Fails(SystemCall::POLL)) {
    return -1;
  }
  static auto* const next = Next<int(pollfd*, nfds_t, const timespec*, const sigset_t*)>("ppoll");
  const int ready = next(entries, count, limit, mask);
  if (ready == 0) {
    g_expiredPolls.fetch_add(1);
  }
  return ready;
}

}  // namespace faults

/// The next `skipped` calls work, the `count` behind them fail with FAULT_CODE.
inline void FailCalls(SystemCall call, int count, int skipped = 0) {
  faults::FaultOf(call).skipped.store(skipped);
  faults::FaultOf(call).count.store(count);
}

/// How many calls have failed by it.
inline int FailedCalls(SystemCall call) { return faults::FaultOf(call).failed.load(); }

/// When calls have failed by it, of whatever kind.
inline std::vector<std::chrono::steady_clock::time_point> FailureTimes() {
  const std::lock_guard guard(faults::g_failureLock);
  return faults::g_failureTimes;
}

/// The next `count` sends take nothing.
inline void SendNothing(int count) { faults::g_emptySends.store(count); }

/// Sends that are still to take nothing.
inline int EmptySendsLeft() { return faults::g_emptySends.load(); }

/// The time limits of the polls since the last call, in microseconds, -1 for none.
inline std::vector<int64_t> TakePollLimits() {
  const std::lock_guard guard(faults::g_pollLock);
  return std::exchange(faults::g_pollLimits, {});
}

/// How many polls have run out their time so far.
inline int ExpiredPolls() { return faults::g_expiredPolls.load(); }

/// How many sockets this process has asked for so far.
inline int SocketsMade() { return faults::g_socketsMade.load(); }

/// Runs before each connect that does not fail, with its socket. Set it before other threads start.
inline void BeforeConnect(std::function<void(int socket)> hook) {
  faults::g_beforeConnect = std::move(hook);
}

/// Runs before each accept that does not fail, with the listening socket, and before each poll. Set
/// them before other threads start.
inline void BeforeAccept(std::function<void(int socket)> hook) {
  faults::g_beforeAccept = std::move(hook);
}
inline void BeforePoll(std::function<void()> hook) { faults::g_beforePoll = std::move(hook); }

/// For the next `count` questions the process at the other end of a local socket is one of `user`.
inline void PeersBelongTo(unsigned user, int count) {
  faults::g_peerUser.store(user);
  faults::g_peerUserAnswers.store(count);
}

/// Questions that are still to get that answer.
inline int PeerAnswersLeft() { return faults::g_peerUserAnswers.load(); }

/// The user of this process.
inline unsigned OwnUser() { return geteuid(); }

/// The abstract names that were bound since the last call, in order.
inline std::vector<std::string> TakeBoundNames() {
  const std::lock_guard guard(faults::g_nameLock);
  return std::exchange(faults::g_boundNames, {});
}

}  // namespace TQ::test

extern "C" {

int socket(int family, int type, int protocol) noexcept {
  TQ::test::faults::g_socketsMade.fetch_add(1);
  if (TQ::test::faults::Fails(TQ::test::SystemCall::SOCKET)) {
    return -1;
  }
  static auto* const next = TQ::test::faults::Next<int(int, int, int)>("socket");
  return next(family, type, protocol);
}

int listen(int socket, int backlog) noexcept {
  if (TQ::test::faults::Fails(TQ::test::SystemCall::LISTEN)) {
    return -1;
  }
  static auto* const next = TQ::test::faults::Next<int(int, int)>("listen");
  return next(socket, backlog);
}

int accept4(int socket, sockaddr* address, socklen_t* size, int flags) {
  if (TQ::test::faults::Fails(TQ::test::SystemCall::ACCEPT)) {
    return -1;
  }
  if (TQ::test::faults::g_beforeAccept) {
    TQ::test::faults::g_beforeAccept(socket);
  }
  static auto* const next = TQ::test::faults::Next<int(int, sockaddr*, socklen_t*, int)>("accept4");
  return next(socket, address, size, flags);
}

int bind(int socket, const sockaddr* address, socklen_t size) noexcept {
  if (TQ::test::faults::Fails(TQ::test::SystemCall::BIND)) {
    return -1;
  }
  TQ::test::faults::NoteBoundName(address, size);
  static auto* const next = TQ::test::faults::Next<int(int, const sockaddr*, socklen_t)>("bind");
  return next(socket, address, size);
}

int connect(int socket, const sockaddr* address, socklen_t size) {
  if (TQ::test::faults::Fails(TQ::test::SystemCall::CONNECT)) {
    return -1;
  }
  if (TQ::test::faults::g_beforeConnect) {
    TQ::test::faults::g_beforeConnect(socket);
  }
  static auto* const next = TQ::test::faults::Next<int(int, const sockaddr*, socklen_t)>("connect");
  return next(socket, address, size);
}

int getsockname(int socket, sockaddr* address, socklen_t* size) noexcept {
  if (TQ::test::faults::Fails(TQ::test::SystemCall::GET_SOCKET_NAME)) {
    return -1;
  }
  static auto* const next = TQ::test::faults::Next<int(int, sockaddr*, socklen_t*)>("getsockname");
  return next(socket, address, size);
}

int getpeername(int socket, sockaddr* address, socklen_t* size) noexcept {
  if (TQ::test::faults::Fails(TQ::test::SystemCall::GET_PEER_NAME)) {
    return -1;
  }
  static auto* const next = TQ::test::faults::Next<int(int, sockaddr*, socklen_t*)>("getpeername");
  return next(socket, address, size);
}

int getsockopt(int socket, int level, int option, void* value, socklen_t* size) noexcept {
  if (TQ::test::faults::Fails(TQ::test::SystemCall::GET_OPTION)) {
    return -1;
  }
  static auto* const next =
      TQ::test::faults::Next<int(int, int, int, void*, socklen_t*)>("getsockopt");
  const int result = next(socket, level, option, value, size);
  if (result == 0 && level == SOL_SOCKET && option == SO_PEERCRED &&
      TQ::test::faults::TakeOne(TQ::test::faults::g_peerUserAnswers)) {
    static_cast<ucred*>(value)->uid = TQ::test::faults::g_peerUser.load();
  }
  return result;
}

int dup3(int descriptor, int target, int flags) noexcept {
  if (TQ::test::faults::Fails(TQ::test::SystemCall::DUPLICATE)) {
    return -1;
  }
  static auto* const next = TQ::test::faults::Next<int(int, int, int)>("dup3");
  return next(descriptor, target, flags);
}

ssize_t send(int socket, const void* bytes, size_t size, int flags) {
  if (TQ::test::faults::TakeOne(TQ::test::faults::g_emptySends)) {
    return 0;
  }
  static auto* const next = TQ::test::faults::Next<ssize_t(int, const void*, size_t, int)>("send");
  return next(socket, bytes, size, flags);
}

int ppoll(pollfd* entries, nfds_t count, const timespec* limit, const sigset_t* mask) {
  return TQ::test::faults::Poll(entries, count, limit, mask);
}

// What a build with checked calls uses instead.
int __ppoll_chk(pollfd* entries, nfds_t count, const timespec* limit, const sigset_t* mask,
                size_t) {
  return TQ::test::faults::Poll(entries, count, limit, mask);
}

}  // extern "C"
