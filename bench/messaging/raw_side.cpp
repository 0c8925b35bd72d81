#include "raw_side.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
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

void SetNoDelay(int socket) {
  const int on = 1;
  setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

sockaddr_in Loopback(uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

}  // namespace

RawSide::RawSide(const Exchange& exchange)
    : server({"--serve-raw", std::to_string(exchange.requestBytes),
              std::to_string(exchange.replyBytes)}) {
  const sockaddr_in address = Loopback(static_cast<uint16_t>(std::stoi(server.Greeting())));
  socket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
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

int ServeRaw(uint32_t requestBytes, uint32_t replyBytes) {
  const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address = Loopback(0);
  socklen_t length = sizeof address;
  if (bind(listener, reinterpret_cast<const sockaddr*>(&address), length) != 0 ||
      listen(listener, 1) != 0 ||
      getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    return 1;
  }
  std::thread worker([&] {
    const int peer = accept(listener, nullptr, nullptr);
    SetNoDelay(peer);
    std::vector<char> request(requestBytes);
    const std::vector<char> reply(replyBytes);
    while (ReadAll(peer, request) && WriteAll(peer, reply)) {
    }
    close(peer);
  });
  GreetAndWait(std::to_string(ntohs(address.sin_port)));
  worker.join();
  close(listener);
  return 0;
}

}  // namespace TQ::bench
