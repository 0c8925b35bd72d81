#include "support/transport.h"

#include <cstdlib>

namespace TQ::test {

Transport CurrentTransport() {
  static const Transport transport = [] {
    const char* name = std::getenv("TQ_TEST_TRANSPORT");
    return name != nullptr && std::string(name) == "pipe" ? Transport::PIPE : Transport::TCP;
  }();
  return transport;
}

std::string PipeName(uint16_t port) { return "tq-test-" + std::to_string(port); }

std::string HostText(uint16_t port) { return OverPipes() ? "\\" + PipeName(port) : "127.0.0.1"; }

}  // namespace TQ::test
