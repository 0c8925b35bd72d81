#include "support/platform.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <grp.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <pthread.h>
#include <spawn.h>
#include <sys/file.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <utility>

namespace TQ::test {

bool ExitStatus::Aborted() const { return !exited && signal == SIGABRT; }

std::ostream& operator<<(std::ostream& stream, const ExitStatus& status) {
  if (status.exited) {
    return stream << "exit code " << status.code;
  }
  return stream << "signal " << status.signal;
}

}  // namespace TQ::test

namespace TQ::test::platform {

namespace {

using Clock = std::chrono::steady_clock;
using Milliseconds = std::chrono::milliseconds;

// The descriptor under which a child finds the lifeline's reading end.
constexpr int LIFELINE_DESCRIPTOR = 3;

// Descriptors that a child gets are first moved up here, out of the way of those they become.
constexpr int FIRST_MOVED_DESCRIPTOR = 16;

int Descriptor(Handle handle) { return static_cast<int>(handle); }

int RemainingMs(Clock::time_point end) {
  const auto left = std::chrono::ceil<Milliseconds>(end - Clock::now()).count();
  return left <= 0 ? 0 : static_cast<int>(left < 3600000 ? left : 3600000);
}

// Waits for `events` or an error on the descriptor. False when the time ran out.
bool WaitFor(int descriptor, short events, Clock::time_point end) {
  for (;;) {
    pollfd entry{descriptor, events, 0};
    const int ready = poll(&entry, 1, RemainingMs(end));
    if (ready > 0) {
      return true;
    }
    if (ready == 0 || errno != EINTR) {
      return false;
    }
  }
}

bool WouldBlock(int error) { return error == EAGAIN || error == EWOULDBLOCK; }

IoResult FailureOf(int error) {
  const bool broken = error == ECONNRESET || error == EPIPE || error == ECONNABORTED;
  return {broken ? IoStatus::RESET : IoStatus::FAILED, 0};
}

// Repeats `transfer` until it moves something, fails or the time is over. A first attempt is made
// even if there is no time at all.
template <typename Operation>
IoResult Transfer(int descriptor, short events, Milliseconds timeout, Operation transfer) {
  const auto end = Clock::now() + timeout;
  for (;;) {
    const ssize_t count = transfer();
    if (count > 0) {
      return {IoStatus::OK, static_cast<size_t>(count)};
    }
    if (count == 0) {
      return {IoStatus::CLOSED, 0};
    }
    const int error = errno;
    if (error == EINTR) {
      continue;
    }
    if (!WouldBlock(error)) {
      return FailureOf(error);
    }
    if (!WaitFor(descriptor, events, end)) {
      return {IoStatus::TIMED_OUT, 0};
    }
  }
}

sockaddr_in LoopbackAddress(uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

int MakeStreamSocket(int receiveBuffer) {
  const int made = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, IPPROTO_TCP);
  if (made >= 0) {
    SetBufferSizes(made, 0, receiveBuffer);
  }
  return made;
}

void SendWithoutDelay(int descriptor) {
  const int on = 1;
  (void)setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

bool BindTo(int descriptor, in_addr_t hostOrderAddress, uint16_t port) {
  sockaddr_in address = LoopbackAddress(port);
  address.sin_addr.s_addr = htonl(hostOrderAddress);
  return bind(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

bool CanBindAddress(in_addr_t hostOrderAddress, uint16_t port) {
  const int probe = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, IPPROTO_TCP);
  if (probe < 0) {
    return false;
  }
  const bool bound = BindTo(probe, hostOrderAddress, port);
  close(probe);
  return bound;
}

// Both ends of a pipe, kept from children.
struct PipeEnds {
  int read = -1;
  int write = -1;

  bool Open() {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
      return false;
    }
    read = ends[0];
    write = ends[1];
    return true;
  }

  // Moves an end above the descriptors that a child's standard streams and lifeline get.
  static bool MoveUp(int& end) {
    const int moved = fcntl(end, F_DUPFD_CLOEXEC, FIRST_MOVED_DESCRIPTOR);
    if (moved < 0) {
      return false;
    }
    close(end);
    end = moved;
    return true;
  }

  static int Take(int& end) { return std::exchange(end, -1); }

  ~PipeEnds() {
    if (read >= 0) {
      close(read);
    }
    if (write >= 0) {
      close(write);
    }
  }
};

void MakeNonblocking(int descriptor) {
  const int flags = fcntl(descriptor, F_GETFL);
  (void)fcntl(descriptor, F_SETFL, flags | O_NONBLOCK);
}

// Keeps the signal of a write to a pipe without readers from the process, without changing what
// the process does with signals: it is blocked for this thread alone and taken back if it came.
class BrokenPipeGuard {
 public:
  BrokenPipeGuard() {
    sigemptyset(&brokenPipe);
    sigaddset(&brokenPipe, SIGPIPE);
    sigset_t pending;
    sigpending(&pending);
    wasPending = sigismember(&pending, SIGPIPE) == 1;
    pthread_sigmask(SIG_BLOCK, &brokenPipe, &before);
  }

  ~BrokenPipeGuard() {
    if (!wasPending) {
      const timespec none{};
      while (sigtimedwait(&brokenPipe, nullptr, &none) < 0 && errno == EINTR) {
      }
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
  }

  BrokenPipeGuard(const BrokenPipeGuard&) = delete;
  BrokenPipeGuard& operator=(const BrokenPipeGuard&) = delete;

 private:
  sigset_t brokenPipe;
  sigset_t before;
  bool wasPending;
};

std::string OwnExecutable() {
  std::error_code error;
  const auto path = std::filesystem::read_symlink("/proc/self/exe", error);
  return error ? std::string() : path.string();
}

// Starts `path` with the three child ends as standard input, standard output and lifeline.
int64_t Spawn(const std::string& path, const std::vector<std::string>& arguments, int input,
              int output, int lifeline, bool mergeErrors) {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, input, STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, lifeline, LIFELINE_DESCRIPTOR);
  if (mergeErrors) {
    posix_spawn_file_actions_adddup2(&actions, output, STDERR_FILENO);
  }

  std::vector<char*> argumentPointers;
  argumentPointers.push_back(const_cast<char*>(path.c_str()));
  for (const std::string& argument : arguments) {
    argumentPointers.push_back(const_cast<char*>(argument.c_str()));
  }
  argumentPointers.push_back(nullptr);

  pid_t id = 0;
  const int error =
      posix_spawn(&id, path.c_str(), &actions, nullptr, argumentPointers.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  return error == 0 ? id : 0;
}

std::optional<std::string> ReadWholeFile(const std::string& path) {
  std::ifstream file(path);
  if (!file) {
    return std::nullopt;
  }
  return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

}  // namespace

// ---- sockets -----------------------------------------------------------------------------------

Handle Listen(uint16_t port, int receiveBuffer) {
  const int listener = MakeStreamSocket(receiveBuffer);
  if (listener < 0) {
    return NO_HANDLE;
  }
  if (!BindTo(listener, INADDR_LOOPBACK, port) || listen(listener, 64) != 0) {
    close(listener);
    return NO_HANDLE;
  }
  return listener;
}

Handle Accept(Handle listener, Milliseconds timeout) {
  const auto end = Clock::now() + timeout;
  for (;;) {
    const int accepted =
        accept4(Descriptor(listener), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (accepted >= 0) {
      SendWithoutDelay(accepted);
      return accepted;
    }
    const int error = errno;
    if (error == EINTR || error == ECONNABORTED) {
      continue;
    }
    if (!WouldBlock(error) || !WaitFor(Descriptor(listener), POLLIN, end)) {
      return NO_HANDLE;
    }
  }
}

Handle Connect(uint16_t port, Milliseconds timeout, int receiveBuffer) {
  const auto end = Clock::now() + timeout;
  const int made = MakeStreamSocket(receiveBuffer);
  if (made < 0) {
    return NO_HANDLE;
  }
  SendWithoutDelay(made);
  const sockaddr_in address = LoopbackAddress(port);
  int error = 0;
  if (connect(made, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    error = errno;
    if (error == EINPROGRESS || error == EINTR) {
      socklen_t size = sizeof error;
      if (!WaitFor(made, POLLOUT, end)) {
        error = ETIMEDOUT;
      } else if (getsockopt(made, SOL_SOCKET, SO_ERROR, &error, &size) != 0) {
        error = errno;
      }
    }
  }
  if (error != 0) {
    close(made);
    return NO_HANDLE;
  }
  return made;
}

IoResult ReceiveSome(Handle socket, uint8_t* data, size_t size, Milliseconds timeout) {
  const int descriptor = Descriptor(socket);
  return Transfer(descriptor, POLLIN, timeout, [=] { return recv(descriptor, data, size, 0); });
}

IoResult SendSome(Handle socket, const uint8_t* data, size_t size, Milliseconds timeout) {
  const int descriptor = Descriptor(socket);
  return Transfer(descriptor, POLLOUT, timeout,
                  [=] { return send(descriptor, data, size, MSG_NOSIGNAL); });
}

void ShutdownWrite(Handle socket) { (void)shutdown(Descriptor(socket), SHUT_WR); }

void CloseWithReset(Handle socket) {
  const linger atOnce{1, 0};
  (void)setsockopt(Descriptor(socket), SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
  close(Descriptor(socket));
}

void CloseSocket(Handle socket) {
  if (socket != NO_HANDLE) {
    close(Descriptor(socket));
  }
}

void SetBufferSizes(Handle socket, int sendBuffer, int receiveBuffer) {
  if (sendBuffer > 0) {
    (void)setsockopt(Descriptor(socket), SOL_SOCKET, SO_SNDBUF, &sendBuffer, sizeof sendBuffer);
  }
  if (receiveBuffer > 0) {
    (void)setsockopt(Descriptor(socket), SOL_SOCKET, SO_RCVBUF, &receiveBuffer,
                     sizeof receiveBuffer);
  }
}

uint16_t LocalPort(Handle socket) {
  sockaddr_in address{};
  socklen_t size = sizeof address;
  if (getsockname(Descriptor(socket), reinterpret_cast<sockaddr*>(&address), &size) != 0) {
    return 0;
  }
  return ntohs(address.sin_port);
}

uint16_t RemotePort(Handle socket) {
  sockaddr_in address{};
  socklen_t size = sizeof address;
  if (getpeername(Descriptor(socket), reinterpret_cast<sockaddr*>(&address), &size) != 0) {
    return 0;
  }
  return ntohs(address.sin_port);
}

// A listener may be bound to one address or to all of them, so both must be free.
bool CanBind(uint16_t port) {
  return CanBindAddress(INADDR_LOOPBACK, port) && CanBindAddress(INADDR_ANY, port);
}

bool SendDatagram(uint16_t port, const uint8_t* data, size_t size) {
  const int sender = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, IPPROTO_UDP);
  if (sender < 0) {
    return false;
  }
  const sockaddr_in address = LoopbackAddress(port);
  const ssize_t sent = sendto(sender, data, size, MSG_NOSIGNAL,
                              reinterpret_cast<const sockaddr*>(&address), sizeof address);
  close(sender);
  return sent == static_cast<ssize_t>(size);
}

// ---- processes ---------------------------------------------------------------------------------

// A signal for the parent's death would come already when the thread that made the child ends, so
// a pipe serves instead: nothing is ever written to it, and the kernel closes it with the parent.
std::optional<Child> StartSelf(const std::vector<std::string>& arguments, bool mergeErrors) {
  PipeEnds input;
  PipeEnds output;
  PipeEnds lifeline;
  if (!input.Open() || !output.Open() || !lifeline.Open() || !PipeEnds::MoveUp(input.read) ||
      !PipeEnds::MoveUp(output.write) || !PipeEnds::MoveUp(lifeline.read)) {
    return std::nullopt;
  }
  const std::string path = OwnExecutable();
  const int64_t id = Spawn(path, arguments, input.read, output.write, lifeline.read, mergeErrors);
  if (id == 0) {
    return std::nullopt;
  }
  MakeNonblocking(input.write);
  MakeNonblocking(output.read);
  Child child;
  child.id = id;
  child.input = PipeEnds::Take(input.write);
  child.output = PipeEnds::Take(output.read);
  child.lifeline = PipeEnds::Take(lifeline.write);
  return child;
}

IoResult ReadPipe(Handle pipe, char* data, size_t size, Milliseconds timeout) {
  const int descriptor = Descriptor(pipe);
  return Transfer(descriptor, POLLIN, timeout, [=] { return read(descriptor, data, size); });
}

IoResult WritePipe(Handle pipe, const char* data, size_t size, Milliseconds timeout) {
  const BrokenPipeGuard guard;
  const int descriptor = Descriptor(pipe);
  return Transfer(descriptor, POLLOUT, timeout, [=] { return write(descriptor, data, size); });
}

void ClosePipe(Handle& pipe) {
  if (pipe != NO_HANDLE) {
    close(Descriptor(pipe));
    pipe = NO_HANDLE;
  }
}

std::optional<ExitStatus> WaitChild(Child& child, Milliseconds timeout) {
  const auto end = Clock::now() + timeout;
  for (;;) {
    int status = 0;
    const pid_t reaped = waitpid(static_cast<pid_t>(child.id), &status, WNOHANG);
    if (reaped > 0) {
      ExitStatus result;
      result.exited = WIFEXITED(status);
      result.code = result.exited ? WEXITSTATUS(status) : 0;
      result.signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
      return result;
    }
    if ((reaped < 0 && errno != EINTR) || Clock::now() >= end) {
      return std::nullopt;
    }
    std::this_thread::sleep_for(Milliseconds(2));
  }
}

void KillChild(Child& child) { (void)kill(static_cast<pid_t>(child.id), SIGKILL); }

// A process that has ended but whose parent does not ask counts as gone: its state is Z.
// A process that changes its user loses the right to look at itself, which the leak checker needs.
bool BecomeOtherUser() {
  constexpr uid_t OTHER_USER = 65534;
  return setgroups(0, nullptr) == 0 && setgid(OTHER_USER) == 0 && setuid(OTHER_USER) == 0 &&
         prctl(PR_SET_DUMPABLE, 1) == 0;
}

bool ProcessExists(int64_t id) {
  const auto text = ReadWholeFile("/proc/" + std::to_string(id) + "/stat");
  if (!text) {
    return false;
  }
  const size_t nameEnd = text->rfind(')');
  return nameEnd != std::string::npos && nameEnd + 2 < text->size() && (*text)[nameEnd + 2] != 'Z';
}

void StartWatchdog(Milliseconds limit) {
  // Processes that the role itself starts must not hold the lifeline's reading end.
  (void)fcntl(LIFELINE_DESCRIPTOR, F_SETFD, FD_CLOEXEC);
  const auto end = Clock::now() + limit;
  // The role's signals belong to the role's threads.
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  std::thread watchdog([end] {
    if (WaitFor(LIFELINE_DESCRIPTOR, POLLIN, end)) {
      _exit(EXIT_PARENT_GONE);
    }
    (void)std::fputs("role process: time limit reached\n", stderr);
    _exit(EXIT_TIME_LIMIT);
  });
  (void)pthread_setname_np(watchdog.native_handle(), "watchdog");
  watchdog.detach();
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

// ---- files -------------------------------------------------------------------------------------

bool UpdateLockedFile(const std::string& path,
                      const std::function<std::string(const std::string&)>& update) {
  const int file = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (file < 0) {
    return false;
  }
  int locked = -1;
  while ((locked = flock(file, LOCK_EX)) != 0 && errno == EINTR) {
  }
  bool done = false;
  if (locked == 0) {
    char buffer[256];
    const ssize_t size = pread(file, buffer, sizeof buffer, 0);
    if (size >= 0) {
      const std::string text = update(std::string(buffer, static_cast<size_t>(size)));
      done = ftruncate(file, 0) == 0 &&
             pwrite(file, text.data(), text.size(), 0) == static_cast<ssize_t>(text.size());
    }
  }
  close(file);
  return done;
}

std::string UserTag() { return std::to_string(getuid()); }

// ---- the host's conditions ---------------------------------------------------------------------

const bool HAS_SIGNALS = true;

namespace {

constexpr int STORM_SIGNAL = SIGUSR2;

std::atomic<uint64_t> g_stormCount{0};
std::atomic<bool> g_stormStop{false};
std::thread* g_stormThread = nullptr;
struct sigaction g_beforeStorm;

void CountStormSignal(int) { g_stormCount.fetch_add(1, std::memory_order_relaxed); }

void SignalEveryOtherThread() {
  const pid_t self = gettid();
  std::error_code error;
  for (auto entry = std::filesystem::directory_iterator("/proc/self/task", error);
       !error && entry != std::filesystem::directory_iterator(); entry.increment(error)) {
    const int thread = std::atoi(entry->path().filename().c_str());
    // A thread that has just ended is no failure.
    if (thread > 0 && thread != self) {
      (void)syscall(SYS_tgkill, getpid(), thread, STORM_SIGNAL);
    }
  }
}

}  // namespace

void StartSignalStorm() {
  struct sigaction action {};
  action.sa_handler = &CountStormSignal;
  sigemptyset(&action.sa_mask);
  sigaction(STORM_SIGNAL, &action, &g_beforeStorm);
  g_stormCount.store(0);
  g_stormStop.store(false);
  g_stormThread = new std::thread([] {
    while (!g_stormStop.load()) {
      SignalEveryOtherThread();
      std::this_thread::sleep_for(Milliseconds(1));
    }
  });
}

void StopSignalStorm() {
  g_stormStop.store(true);
  g_stormThread->join();
  delete std::exchange(g_stormThread, nullptr);
  // Ignoring the signal first throws away what is still on its way to a thread. The disposition
  // from before may be the default one, which would end the process.
  struct sigaction ignore {};
  ignore.sa_handler = SIG_IGN;
  sigaction(STORM_SIGNAL, &ignore, nullptr);
  sigaction(STORM_SIGNAL, &g_beforeStorm, nullptr);
}

uint64_t SignalStormCount() { return g_stormCount.load(); }

// The C library takes the signals 32 and 33 for itself when the first thread starts.
std::string SignalSet(const std::string& name) {
  constexpr uint64_t OF_C_LIBRARY = uint64_t{3} << 31;
  std::ifstream status("/proc/thread-self/status");
  std::string word;
  while (status >> word) {
    if (word == name + ":") {
      uint64_t signals = 0;
      status >> std::hex >> signals;
      std::ostringstream text;
      text << std::hex << (signals & ~OF_C_LIBRARY);
      return text.str();
    }
  }
  return "unknown";
}

std::vector<Handle> OccupyDescriptors(int highest) {
  rlimit limit{};
  const auto needed = static_cast<rlim_t>(highest) + 256;
  if (getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < needed) {
    limit.rlim_cur = std::min(needed, limit.rlim_max);
    (void)setrlimit(RLIMIT_NOFILE, &limit);
  }
  std::vector<Handle> held;
  for (;;) {
    const int taken = open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (taken > highest) {
      close(taken);
      return held;
    }
    if (taken < 0) {
      ReleaseDescriptors(held);
      throw std::runtime_error("OccupyDescriptors: the limit of this process is too low");
    }
    held.push_back(taken);
  }
}

void ReleaseDescriptors(const std::vector<Handle>& held) {
  for (const Handle handle : held) {
    close(Descriptor(handle));
  }
}

bool LimitAddressSpace([[maybe_unused]] uint64_t bytes) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  return false;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
  return false;
#endif
#endif
  const rlimit limit{static_cast<rlim_t>(bytes), static_cast<rlim_t>(bytes)};
  return setrlimit(RLIMIT_AS, &limit) == 0;
}

// The first thread's stack grows as it is used, up to the limit of the moment.
bool LimitStack(uint64_t bytes) {
  rlimit limit{};
  if (getrlimit(RLIMIT_STACK, &limit) != 0) {
    return false;
  }
  limit.rlim_cur = static_cast<rlim_t>(bytes);
  return setrlimit(RLIMIT_STACK, &limit) == 0;
}

// ---- process information -----------------------------------------------------------------------

int64_t ProcessId() { return getpid(); }

int ThreadCount() {
  int count = 0;
  std::error_code error;
  for (auto entry = std::filesystem::directory_iterator("/proc/self/task", error);
       !error && entry != std::filesystem::directory_iterator(); entry.increment(error)) {
    ++count;
  }
  return error ? -1 : count;
}

std::vector<std::string> ThreadNames() {
  std::vector<std::string> names;
  std::error_code error;
  for (auto entry = std::filesystem::directory_iterator("/proc/self/task", error);
       !error && entry != std::filesystem::directory_iterator(); entry.increment(error)) {
    std::optional<std::string> name = ReadWholeFile(entry->path() / "comm");
    if (name && !name->empty()) {
      name->pop_back();
      names.push_back(*name);
    }
  }
  return names;
}

int OpenDescriptorCount() {
  int count = 0;
  std::error_code error;
  for (auto entry = std::filesystem::directory_iterator("/proc/self/fd", error);
       !error && entry != std::filesystem::directory_iterator(); entry.increment(error)) {
    ++count;
  }
  // The walk itself holds the folder open.
  return error ? -1 : count - 1;
}

uint64_t ResidentBytes() {
  std::ifstream status("/proc/self/status");
  std::string word;
  while (status >> word) {
    if (word == "VmRSS:") {
      uint64_t kibibytes = 0;
      status >> kibibytes;
      return kibibytes * 1024;
    }
  }
  return 0;
}

}  // namespace TQ::test::platform
