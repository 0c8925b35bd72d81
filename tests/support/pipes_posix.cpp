// Named pipes as a peer sees them on the wire of this platform, without any code of the library.
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <thread>

#include "support/bytes.h"
#include "support/md5.h"
#include "support/platform.h"

namespace TQ::test::platform {

namespace {

using Clock = std::chrono::steady_clock;
using Milliseconds = std::chrono::milliseconds;

struct Address {
  sockaddr_un bytes{};
  socklen_t length = sizeof(sockaddr_un);

  Address() = default;
  explicit Address(const std::string& abstractName) {
    bytes.sun_family = AF_UNIX;
    std::memcpy(bytes.sun_path + 1, abstractName.data(), abstractName.size());
    length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + abstractName.size());
  }

  sockaddr* Get() { return reinterpret_cast<sockaddr*>(&bytes); }
  std::string Name() const {
    constexpr size_t BEFORE = offsetof(sockaddr_un, sun_path) + 1;
    return length > BEFORE ? std::string(bytes.sun_path + 1, length - BEFORE) : std::string();
  }
};

std::string AbstractName(const std::string& pipeName) {
  const size_t begin = pipeName.find_first_not_of('\\');
  const std::string key = begin == std::string::npos ? std::string() : pipeName.substr(begin);
  if (key.size() <= 99) {
    return "tq.pipe:" + key;
  }
  std::string hex;
  for (const uint8_t byte : Md5(ToBytes(key))) {
    hex += "0123456789abcdef"[byte / 16];
    hex += "0123456789abcdef"[byte % 16];
  }
  return "tq.pipe#" + hex;
}

int MakeSocket() { return socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0); }

bool WaitReadable(int descriptor, Clock::time_point end) {
  for (;;) {
    const auto left = std::chrono::ceil<Milliseconds>(end - Clock::now()).count();
    pollfd entry{descriptor, POLLIN, 0};
    const int ready = poll(&entry, 1, left > 0 ? static_cast<int>(left) : 0);
    if (ready > 0) {
      return true;
    }
    if (ready == 0 || errno != EINTR) {
      return false;
    }
  }
}

bool BindAsPeer(int descriptor, Handle companion) {
  Address own;
  if (companion == NO_HANDLE) {
    own.bytes.sun_family = AF_UNIX;
    own.length = sizeof(sa_family_t);
  } else {
    Address first;
    if (getsockname(static_cast<int>(companion), first.Get(), &first.length) != 0) {
      return false;
    }
    own = Address("tq.peer:" + first.Name());
  }
  return bind(descriptor, own.Get(), own.length) == 0;
}

}  // namespace

Handle ListenPipe(const std::string& pipeName) {
  const int made = MakeSocket();
  Address address(AbstractName(pipeName));
  if (made >= 0 && bind(made, address.Get(), address.length) == 0 && listen(made, 0) == 0) {
    return made;
  }
  close(made);
  return NO_HANDLE;
}

Handle AcceptPipe(Handle listener, Milliseconds timeout, bool granted) {
  const auto end = Clock::now() + timeout;
  for (;;) {
    const int accepted =
        accept4(static_cast<int>(listener), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (accepted >= 0) {
      if (!granted || send(accepted, "g", 1, MSG_NOSIGNAL) == 1) {
        return accepted;
      }
      close(accepted);
    } else if (errno != EINTR && !WaitReadable(static_cast<int>(listener), end)) {
      return NO_HANDLE;
    }
  }
}

bool PipeListens(const std::string& pipeName) {
  // Each line has the flags of a socket, of which this one stands for listening, and its name last.
  const std::string name = " @" + AbstractName(pipeName);
  std::ifstream table("/proc/self/net/unix");
  for (std::string line; std::getline(table, line);) {
    const bool named = line.size() > name.size() &&
                       line.compare(line.size() - name.size(), name.size(), name) == 0;
    if (named && line.find(" 00010000 ") != std::string::npos) {
      return true;
    }
  }
  return false;
}

std::vector<uint8_t> PipeAddress(Handle pipe) {
  Address own;
  if (getsockname(static_cast<int>(pipe), own.Get(), &own.length) != 0) {
    return {};
  }
  return ToBytes(std::string(1, '\0') + own.Name());
}

Handle OpenPipe(const std::string& pipeName, Handle companion, Milliseconds timeout) {
  const auto end = Clock::now() + timeout;
  const int made = MakeSocket();
  Address address(AbstractName(pipeName));
  char grant = 0;
  if (made >= 0 && BindAsPeer(made, companion) &&
      connect(made, address.Get(), address.length) == 0 && WaitReadable(made, end) &&
      recv(made, &grant, 1, 0) == 1) {
    return made;
  }
  close(made);
  return NO_HANDLE;
}

std::vector<std::string> WaitingPipes(const std::string& part) {
  std::vector<std::string> names;
  std::ifstream table("/proc/net/unix");
  std::string line;
  while (std::getline(table, line)) {
    // The name is the last column and begins with the sign that stands for the zero. The flag is
    // the one of a socket that listens.
    const size_t begin = line.find(" @");
    if (begin != std::string::npos && line.find(" 00010000 ") < begin &&
        line.find(part, begin + 2) != std::string::npos) {
      names.push_back(line.substr(begin + 2));
    }
  }
  return names;
}

std::vector<Handle> OpenPipeEnds() {
  std::vector<Handle> ends;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    const int descriptor = std::atoi(entry.path().filename().c_str());
    Address own;
    if (getsockname(descriptor, own.Get(), &own.length) == 0 && own.bytes.sun_family == AF_UNIX) {
      ends.push_back(descriptor);
    }
  }
  std::sort(ends.begin(), ends.end());
  return ends;
}

std::vector<std::string> FilesNamed(const std::string& part) {
  using Path = std::filesystem::path;
  std::vector<std::string> files;
  for (const Path& folder :
       {std::filesystem::current_path(), std::filesystem::temp_directory_path(), Path("/dev/shm"),
        Path("/run"), Path("/")}) {
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(folder, error)) {
      if (entry.path().filename().string().find(part) != std::string::npos) {
        files.push_back(entry.path().string());
      }
    }
  }
  return files;
}

}  // namespace TQ::test::platform
