// The transport by which the processes of a test reach each other. A test executable whose cases
// hold for every transport is run once with each; the environment says which.
//
//   const uint16_t port = FreePort();
//   TQInitializeEx(HostText(port).c_str(), "server", port, nullptr);   // listens
//   TQConnect(HostText(port).c_str(), port, ...);                      // reaches it
//
// A port stands for a pipe of its own, too, so that FreePort serves both.
#pragma once

#include <cstdint>
#include <string>

namespace TQ::test {

enum class Transport { TCP, PIPE };

/// TCP, unless TQ_TEST_TRANSPORT is "pipe". Child processes inherit it.
Transport CurrentTransport();

inline bool OverPipes() { return CurrentTransport() == Transport::PIPE; }

/// The base name of the pipes that stand for the port, without a backslash.
std::string PipeName(uint16_t port);

/// What a listener on the port is given as its host, and a connecting side as its target.
std::string HostText(uint16_t port);

}  // namespace TQ::test
