#include "raw_side.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstddef>
#include <cstring>
#include <semaphore>
#include <stdexcept>
#include <thread>

namespace TQ::bench {
namespace {

using Clock = std::chrono::steady_clock;

bool WriteAll(int socket, const std::vector<char>& bytes) {
  std::size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t sent = send(socket, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
    if (sent <= 0) return false;
    done += static_cast<std::size_t>(sent);
  }
  return true;
}

bool ReadAll(int socket, std::vector<char>& bytes) {
  std::size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t received = recv(socket, bytes.data() + done, bytes.size() - done, 0);
    if (received <= 0) return false;
    done += static_cast<std::size_t>(received);
  }
  return true;
}

/// For sockets of the other kind it has no effect, and needs none.
void SetNoDelay(int socket) {
  const int on = 1;
  setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

/// Where the server listens, and the text by which it tells its peer.
struct Address {
  union {
    sockaddr any;
    sockaddr_in tcp;
    sockaddr_un local;
  };
  socklen_t length;

  /// One that the system chooses when it is bound.
  explicit Address(Transport transport) : local{} {
    if (transport == Transport::TCP) {
      tcp.sin_family = AF_INET;
      tcp.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
      length = sizeof tcp;
    } else {
      local.sun_family = AF_UNIX;
      length = sizeof local.sun_family;
    }
  }

  Address(Transport transport, const std::string& text) : Address(transport) {
    if (transport == Transport::TCP) {
      tcp.sin_port = htons(static_cast<uint16_t>(std::stoi(text)));
    } else {
      std::memcpy(local.sun_path + 1, text.data(), text.size());
      length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + text.size());
    }
  }

  std::string Text() const {
    if (any.sa_family == AF_INET) return std::to_string(ntohs(tcp.sin_port));
    return {local.sun_path + 1, length - offsetof(sockaddr_un, sun_path) - 1};
  }

  /// Puts the address that the system has chosen here.
  bool Listen(int socket) {
    if (bind(socket, &any, length) != 0 || listen(socket, 1) != 0) return false;
    length = sizeof local;
    return getsockname(socket, &any, &length) == 0;
  }
};

}  // namespace

RawSide::RawSide(Transport transport, const Exchange& exchange)
    : server({"--serve-raw", NameOf(transport), std::to_string(exchange.requestBytes),
              std::to_string(exchange.replyBytes)}) {
  const Address address(transport, server.Greeting());
  socket = ::socket(address.any.sa_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (connect(socket, &address.any, address.length) != 0) {
    throw std::runtime_error("cannot connect to the raw server");
  }
  SetNoDelay(socket);
}

RawSide::~RawSide() { close(socket); }

std::vector<double> RawSide::RoundTrips(const Exchange& exchange, uint32_t count) {
  const std::vector<char> request(exchange.requestBytes);
  std::vector<char> reply(exchange.replyBytes);
  std::vector<double> times;
  times.reserve(count);
  for (uint32_t i = 0; i < count; ++i) {
    const auto start = Clock::now();
    if (!WriteAll(socket, request) || !ReadAll(socket, reply)) {
      throw std::runtime_error("the raw connection broke");
    }
    times.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
  }
  return times;
}

double RawSide::Throughput(const Exchange& exchange, uint32_t count, uint32_t inFlight) {
  std::counting_semaphore<> window(inFlight);
  bool whole = true;
  const auto start = Clock::now();
  std::thread reader([&] {
    std::vector<char> reply(exchange.replyBytes);
    for (uint32_t i = 0; i < count; ++i) {
      whole = whole && ReadAll(socket, reply);
      window.release();
    }
  });
  const std::vector<char> request(exchange.requestBytes);
  for (uint32_t i = 0; i < count; ++i) {
    window.acquire();
    WriteAll(socket, request);
  }
  reader.join();
  if (!whole) throw std::runtime_error("the raw connection broke");
  return count / std::chrono::duration<double>(Clock::now() - start).count();
}

int ServeRaw(Transport transport, uint32_t requestBytes, uint32_t replyBytes) {
  Address address(transport);
  const int listener = socket(address.any.sa_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (!address.Listen(listener)) return 1;
  std::thread worker([&] {
    const int peer = accept(listener, nullptr, nullptr);
    SetNoDelay(peer);
    std::vector<char> request(requestBytes);
    const std::vector<char> reply(replyBytes);
    while (ReadAll(peer, request) && WriteAll(peer, reply)) {
    }
    close(peer);
  });
  GreetAndWait(address.Text());
  worker.join();
  close(listener);
  return 0;
}

}  // namespace TQ::bench
