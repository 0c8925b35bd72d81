// A port of its own for each listener.
//
//   const uint16_t port = FreePort();
//   ASSERT_EQ(TQInitialize("server", port, nullptr), TQ_ERR_OK);
#pragma once

#include <cstdint>

namespace TQ::test {

/// The ports lie below the range from which systems take ports for outgoing connections.
constexpr uint16_t FIRST_TEST_PORT = 20000;
constexpr uint16_t LAST_TEST_PORT = 31999;

/// A port that nothing listens on. Safe in parallel test processes of one user: a counter in a
/// locked file of the temporary folder hands each port out once, and comes back to it only after
/// all others. Throws std::runtime_error if no port can be had.
uint16_t FreePort();

}  // namespace TQ::test
