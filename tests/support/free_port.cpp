#include "support/free_port.h"

#include "support/platform.h"

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>

namespace TQ::test {

namespace {

constexpr uint32_t PORT_COUNT = LAST_TEST_PORT - FIRST_TEST_PORT + 1;

// The text of the counter file is the number of ports handed out so far. Without one the start
// depends on the process, so that a lost file does not bring back the ports of a moment ago.
uint32_t NextTicket() {
  static const std::string path =
      (std::filesystem::temp_directory_path() / ("tq-test-ports-" + platform::UserTag())).string();
  uint32_t ticket = 0;
  const bool done = platform::UpdateLockedFile(path, [&ticket](const std::string& text) {
    const auto start = static_cast<uint32_t>(platform::ProcessId()) * 37u;
    ticket =
        (text.empty() ? start : static_cast<uint32_t>(std::strtoul(text.c_str(), nullptr, 10))) %
        PORT_COUNT;
    return std::to_string((ticket + 1) % PORT_COUNT) + "\n";
  });
  if (!done) {
    throw std::runtime_error("FreePort: the counter file " + path + " cannot be used");
  }
  return ticket;
}

}  // namespace

uint16_t FreePort() {
  for (uint32_t attempt = 0; attempt < PORT_COUNT; ++attempt) {
    const auto port = static_cast<uint16_t>(FIRST_TEST_PORT + NextTicket());
    if (platform::CanBind(port)) {
      return port;
    }
  }
  throw std::runtime_error("FreePort: every port of the range is in use");
}

}  // namespace TQ::test
