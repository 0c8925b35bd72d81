// The transport by which the processes of a test reach each other. A test executable whose cases
// hold for every transport is run once with each; the environment says which.
//
//   const uint16_t port = FreePort();
//   TQInitializeEx(HostText(port).c_str(), "server", port, nullptr);   // listens
//   TQConnect(HostText(port).c_str(), port, ...);                      // reaches it
//
// A port stands for a pipe of its own, too, so that FreePort serves both.
//
// Suites whose names end in "OverTcp" or "OverPipes" hold for the one transport only and are not
// run with the other.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace TQ::test {

enum class Transport { TCP, PIPE };

/// TCP, unless TQ_TEST_TRANSPORT is "pipe". Child processes inherit it.
Transport CurrentTransport();

inline bool OverPipes() { return CurrentTransport() == Transport::PIPE; }

/// The base name of the pipes that stand for the port, without a backslash.
std::string PipeName(uint16_t port);

/// What a listener on the port is given as its host, and a connecting side as its target.
std::string HostText(uint16_t port);

// ---- what the library logs ---------------------------------------------------------------------

/// The pipe of this name with the system's prefix, as log lines have it.
std::string PipePath(const std::string& pipeName);

/// A line of the listener about a connection, which names its thread in those of sockets alone.
std::string ListenerLine(const std::string& text);

/// The lines, or the texts, as they come with this transport: without those of a socket's channel,
/// since a pipe's channel logs nothing.
std::vector<std::string> AsLogged(std::vector<std::string> lines);

/// How often a line comes that only a socket's channel logs.
inline size_t TimesOfASocket(size_t times) { return OverPipes() ? 0 : times; }

}  // namespace TQ::test
