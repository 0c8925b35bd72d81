#include "support/transport.h"

#include <cstdlib>
#include <utility>

namespace TQ::test {

Transport CurrentTransport() {
  static const Transport transport = [] {
    // NOLINTNEXTLINE(concurrency-mt-unsafe): nobody changes the environment
    const char* name = std::getenv("TQ_TEST_TRANSPORT");
    return name != nullptr && std::string(name) == "pipe" ? Transport::PIPE : Transport::TCP;
  }();
  return transport;
}

std::string PipeName(uint16_t port) { return "tq-test-" + std::to_string(port); }

std::string HostText(uint16_t port) { return OverPipes() ? "\\" + PipeName(port) : "127.0.0.1"; }

std::string PipePath(const std::string& pipeName) { return R"(\\.\pipe\)" + pipeName; }

std::string ListenerLine(const std::string& text) {
  return OverPipes() ? text : "ConnectionThread. " + text;
}

std::vector<std::string> AsLogged(std::vector<std::string> lines) {
  if (OverPipes()) {
    std::erase_if(lines, [](const std::string& line) {
      for (const char* text : {"Receive failed", "Send failed", "Closing socket channel(",
                               "Socket channel has been closed "}) {
        if (line.find(text) != std::string::npos) return true;
      }
      return false;
    });
  }
  return lines;
}

}  // namespace TQ::test
