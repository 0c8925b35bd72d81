// Named pipes over abstract UNIX stream sockets.
//
// Each pipe is a socket of its own, made anew for each peer and used in one direction. Abstract
// names leave no files behind and go with their process, however it ends.
//
// The accepting side takes one peer. Others may have connected to the name by then, and the system
// tells them nothing; so the one that was taken gets a byte, the grant, before all data, and then
// the name is closed. Whoever sees the end of the stream before its grant tries
// again.
//
// The two pipes of a connection are held together by the connecting side's own address: its first
// socket has one that the system chose, and its second is bound to a name made of that. So a peer
// that is late, from an accepting side that died meanwhile, cannot take another's second pipe.
#include "platform/pipes.h"

#include "platform/posix/pipe_address.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <iterator>
#include <thread>

namespace TQ::platform {

/// What is under way on which descriptor.
struct PipeEvent::Operation {
  enum class Kind { NONE, CONNECT, READ };

  Kind kind = Kind::NONE;
  int descriptor = -1;
  void* buffer = nullptr;
  uint32_t length = 0;
  uint32_t transferred = 0;
  bool done = false;
};

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;
using Kind = PipeEvent::Operation::Kind;

constexpr milliseconds NAME_LIMIT{100};
constexpr milliseconds NAME_PAUSE{10};
constexpr milliseconds OPEN_PAUSE{20};
constexpr char GRANT = 'g';

/// A transfer call moves at most this much, so that its count fits the result.
constexpr uint32_t MAX_TRANSFER = 0x7FFFF000;

int Descriptor(const PipeEnd& pipe) { return static_cast<int>(pipe.Handle()); }

template <typename Call>
auto Uninterrupted(Call call) {
  auto result = call();
  while (result < 0 && errno == EINTR) result = call();
  return result;
}

// ---- waiting -----------------------------------------------------------------------------------

/// A point in time, or none.
class Deadline {
 public:
  explicit Deadline(uint32_t limitMs)
      : limited(limitMs != NO_PIPE_TIME_LIMIT), end(Clock::now() + milliseconds(limitMs)) {}

  bool HasPassed() const { return limited && Clock::now() >= end; }

  /// The time that remains as ppoll takes it, null for no limit.
  const timespec* Remaining(timespec* storage) const {
    if (!limited) return nullptr;
    const auto left =
        std::chrono::duration_cast<std::chrono::nanoseconds>(end - Clock::now()).count();
    *storage = {left > 0 ? left / 1000000000 : 0, left > 0 ? left % 1000000000 : 0};
    return storage;
  }

 private:
  const bool limited;
  const Clock::time_point end;
};

/// Waits until the socket can be read, a closed one included.
PipeWait AwaitReadable(int socket, const Deadline& deadline) {
  pollfd entry = {socket, POLLIN, 0};
  const int ready = Uninterrupted([&] {
    timespec storage{};
    return ::ppoll(&entry, 1, deadline.Remaining(&storage), nullptr);
  });
  if (ready == 0) return PipeWait::TIMED_OUT;
  return ready < 0 || (entry.revents & POLLNVAL) != 0 ? PipeWait::FAILED : PipeWait::SIGNALLED;
}

bool IsHungUp(int socket) {
  pollfd entry = {socket, 0, 0};
  const timespec atOnce{};
  return Uninterrupted([&] { return ::ppoll(&entry, 1, &atOnce, nullptr); }) != 0;
}

// ---- the accepting side ------------------------------------------------------------------------

int CreateListener(const PipeAddress& address) {
  const int socket = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (socket < 0) return -1;
  if (::bind(socket, address.Get(), address.length) == 0 && ::listen(socket, 0) == 0) {
    return socket;
  }
  (void)::close(socket);
  return -1;
}

bool Grant(int socket) {
  return Uninterrupted([&] { return ::send(socket, &GRANT, 1, MSG_NOSIGNAL); }) == 1;
}

/// Takes the next peer and makes `listener` its stream, which closes the name. PENDING when nobody
/// is there, or one that may not come in or has gone again: that one is passed over.
PipeStatus Admit(int listener, int companion) {
  const int peer =
      Uninterrupted([&] { return ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC); });
  if (peer < 0) return errno == EAGAIN ? PipeStatus::PENDING : PipeStatus::FAILED;
  const bool welcome =
      MayTalkTo(peer) && (companion < 0 || IsCompanionOf(peer, companion)) && Grant(peer);
  const bool failed =
      welcome && Uninterrupted([&] { return ::dup3(peer, listener, O_CLOEXEC); }) < 0;
  (void)::close(peer);
  if (!welcome) return PipeStatus::PENDING;
  return failed ? PipeStatus::FAILED : PipeStatus::DONE;
}

PipeStatus AwaitPeer(int listener, int companion, const Deadline& deadline) {
  for (;;) {
    const PipeStatus status = Admit(listener, companion);
    if (status != PipeStatus::PENDING) return status;
    // Asked for here, too: strangers that come without end do not prolong the wait.
    if (deadline.HasPassed()) return PipeStatus::PENDING;
    const PipeWait wait = AwaitReadable(listener, deadline);
    if (wait == PipeWait::FAILED) return PipeStatus::FAILED;
    if (wait == PipeWait::TIMED_OUT) return PipeStatus::PENDING;
  }
}

// ---- the connecting side -----------------------------------------------------------------------

bool TakeGrant(int socket) {
  char grant = 0;
  return Uninterrupted([&] { return ::recv(socket, &grant, 1, 0); }) == 1;
}

/// False at once when the other pipe of the connection hangs up: the name may have another owner by
/// then, whose queue this one stands in for nothing.
bool AwaitGrant(int socket, const PipeEnd* companion, const Deadline& deadline) {
  const int other = companion == nullptr ? -1 : Descriptor(*companion);  // -1 is passed over
  pollfd entries[] = {{socket, POLLIN, 0}, {other, 0, 0}};
  const int ready = Uninterrupted([&] {
    timespec storage{};
    return ::ppoll(entries, std::size(entries), deadline.Remaining(&storage), nullptr);
  });
  if (ready > 0 && TakeGrant(socket)) return true;
  if (companion != nullptr) return false;
  // The accepting side that has granted the first pipe waits for the second one for good, so
  // whoever gives up makes sure that it was not taken: no grant arrives behind this, and the pipe
  // is only written.
  (void)::shutdown(socket, SHUT_RD);
  return TakeGrant(socket);
}

/// One attempt: a blocking stream, or -1.
int TryOpen(const PipeAddress& address, const PipeEnd* companion, const Deadline& deadline) {
  const int socket = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (socket < 0) return -1;
  int off = 0;
  const int first = companion == nullptr ? NO_DESCRIPTOR : Descriptor(*companion);
  if (BindAsPeer(socket, first) &&
      Uninterrupted([&] { return ::connect(socket, address.Get(), address.length); }) == 0 &&
      MayTalkTo(socket) && AwaitGrant(socket, companion, deadline) &&
      ::ioctl(socket, FIONBIO, &off) == 0) {
    return socket;
  }
  (void)::close(socket);
  return -1;
}

// ---- transfers ---------------------------------------------------------------------------------

/// Reads what is there, or waits for something with no `flags`.
PipeStatus ReadInto(PipeEvent::Operation* operation, int flags) {
  const ssize_t count = Uninterrupted(
      [&] { return ::recv(operation->descriptor, operation->buffer, operation->length, flags); });
  if (count < 0 && errno == EAGAIN) return PipeStatus::PENDING;
  if (count <= 0) return PipeStatus::FAILED;  // 0: the peer has closed
  operation->transferred = static_cast<uint32_t>(count);
  operation->done = true;
  return PipeStatus::DONE;
}

}  // namespace

void PipeEnd::Close() {
  // Not retried when interrupted: the descriptor is free by then.
  if (IsOpen()) (void)::close(Descriptor(*this));
  handle = NO_PIPE;
}

PipeEvent::PipeEvent() : operation(std::make_unique<Operation>()) {}
PipeEvent::~PipeEvent() = default;

void PipeEvent::LeaveOpen() {}  // there is no such object here

PipeEnd CreatePipeEnd(const std::string& path, PipeAccess /*access*/, uint32_t /*bufferSize*/) {
  // The size is not applied: counted with the system's own overhead it would hold a few frames.
  const PipeAddress address = AddressOfPipe(path);
  const Deadline deadline(static_cast<uint32_t>(NAME_LIMIT.count()));
  for (;;) {
    const int socket = CreateListener(address);
    if (socket >= 0) return PipeEnd(socket);
    // A caller that tries again without a pause does not keep a processor busy by it.
    if (deadline.HasPassed()) return {};
    std::this_thread::sleep_for(NAME_PAUSE);
  }
}

PipeStatus StartPipeConnect(PipeEnd& pipe, PipeEvent& event) {
  event.Current() = {Kind::CONNECT, Descriptor(pipe), nullptr, 0, 0, false};
  return Admit(Descriptor(pipe), -1);
}

bool AwaitPipePeer(PipeEnd& pipe, const PipeEnd& companion) {
  const Deadline none(NO_PIPE_TIME_LIMIT);
  return AwaitPeer(Descriptor(pipe), Descriptor(companion), none) == PipeStatus::DONE;
}

bool WaitForPipeName(const std::string& /*path*/, uint32_t /*limitMs*/) {
  return true;  // a connection made for trial would use up the one peer that the name waits for
}

PipeEnd OpenPipeEnd(const std::string& path, PipeAccess /*access*/, const PipeEnd* companion) {
  const PipeAddress address = AddressOfPipe(path);
  const Deadline deadline(PIPE_OPEN_LIMIT_MS);
  for (;;) {
    const int socket = TryOpen(address, companion, deadline);
    if (socket >= 0) return PipeEnd(socket);
    // Without the other pipe nobody will ever take this one.
    const bool alone = companion != nullptr && IsHungUp(Descriptor(*companion));
    if (alone || deadline.HasPassed()) return {};
    std::this_thread::sleep_for(OPEN_PAUSE);
  }
}

PipeStatus StartPipeRead(const PipeEnd& pipe, PipeEvent& event, void* buffer, uint32_t length) {
  const uint32_t part = length < MAX_TRANSFER ? length : MAX_TRANSFER;
  event.Current() = {Kind::READ, Descriptor(pipe), buffer, part, 0, false};
  return ReadInto(&event.Current(), MSG_DONTWAIT);
}

PipeWait WaitPipeEvent(PipeEvent& event, uint32_t limitMs) {
  const PipeEvent::Operation& operation = event.Current();
  const Deadline deadline(limitMs);
  if (operation.kind == Kind::READ) return AwaitReadable(operation.descriptor, deadline);
  if (operation.kind == Kind::NONE) return PipeWait::FAILED;
  switch (AwaitPeer(operation.descriptor, -1, deadline)) {
    case PipeStatus::DONE:
      return PipeWait::SIGNALLED;
    case PipeStatus::PENDING:
      return PipeWait::TIMED_OUT;
    default:
      return PipeWait::FAILED;
  }
}

bool FinishPipeRead(PipeEvent& event, uint32_t* count) {
  PipeEvent::Operation& operation = event.Current();
  if (operation.kind != Kind::READ) return false;
  if (!operation.done && ReadInto(&operation, 0) != PipeStatus::DONE) return false;
  operation.kind = Kind::NONE;
  *count = operation.transferred;
  return true;
}

void CancelPipeOperation(const PipeEnd& /*pipe*/, PipeEvent& event) {
  event.Current().kind = Kind::NONE;  // the system holds nothing of it
}

bool WritePipe(const PipeEnd& pipe, const void* buffer, uint32_t length, uint32_t* count) {
  const uint32_t part = length < MAX_TRANSFER ? length : MAX_TRANSFER;
  const ssize_t written =
      Uninterrupted([&] { return ::send(Descriptor(pipe), buffer, part, MSG_NOSIGNAL); });
  if (written < 0) return false;
  *count = static_cast<uint32_t>(written);
  return true;
}

}  // namespace TQ::platform
