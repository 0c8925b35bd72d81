// The library in this process, initialised and listening, for tests of the listeners.
//
//   LogRecorder log;
//   ListeningLibrary library;                        // listens on a port of its own
//   RawPeer peer = library.Admit("test:1/raw");      // past the handshake
//   EXPECT_EQ(ListenerLog(log).back(), "8 ConnectionThread. Initialization of ...");
//
// The library's state is process-wide, so there is one at a time. Its end shuts the library down.
#pragma once

#include <gtest/gtest.h>
#include <tq/tq.h>

#include <chrono>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "session/application_registry.h"
#include "session/session.h"
#include "support/free_port.h"
#include "support/log_recorder.h"
#include "support/raw_peer.h"
#include "support/socket_state.h"
#include "support/wait_until.h"

namespace TQ::test {

class ListeningLibrary final {
 public:
  enum Start {
    GATE_CLOSED,          ///< initialised, and the listeners wait
    GATE_OPEN,            ///< listening
    GATE_OPEN_UNCHECKED,  ///< as GATE_OPEN, without waiting until it does
  };

  struct Limits {
    uint32_t maxConnections = 0;  ///< 0 leaves the library's default
    uint32_t ioTimeoutMs = 2000;  ///< a read of a handshake gives up after 1.001 s
  };

  ListeningLibrary() : ListeningLibrary(GATE_OPEN) {}
  explicit ListeningLibrary(Start start) : ListeningLibrary(start, Limits()) {}

  /// `listenPort` 0 takes a free one. Throws std::runtime_error if the library does not start.
  ListeningLibrary(Start start, const Limits& limits, const char* host = "127.0.0.1",
                   uint16_t listenPort = 0)
      : port(listenPort != 0 ? listenPort : FreePort()) {
    _tag_TQLIMITS record{};
    record.size = sizeof record;
    record.MAX_CONNECTIONS = limits.maxConnections;
    record.IO_TIMEOUT_MS = limits.ioTimeoutMs;
    if (TQInitializeEx(host, "listener", port, &record) != TQ_ERR_OK) {
      throw std::runtime_error("ListeningLibrary: the library cannot be initialised");
    }
    if (start != GATE_CLOSED) TQConnectionReady();
    if (start == GATE_OPEN &&
        !WaitUntil([this] { return ListenerOn(port) != platform::NO_HANDLE; })) {
      TQShutdown();
      throw std::runtime_error("ListeningLibrary: nothing listens");
    }
  }

  ~ListeningLibrary() { EXPECT_EQ(TQShutdown(), TQ_ERR_OK); }

  ListeningLibrary(const ListeningLibrary&) = delete;
  ListeningLibrary& operator=(const ListeningLibrary&) = delete;

  uint16_t Port() const { return port; }

  /// A peer past the handshake, whose session can be found by its name. Throws std::runtime_error
  /// on failure.
  RawPeer Admit(const std::string& name) const {
    auto peer = RawPeer::Connect(port);
    if (!peer) throw std::runtime_error("ListeningLibrary: no connection");
    const HandshakeResult greeting = peer->HandshakeAsConnector(name);
    if (!greeting.Completed()) throw std::runtime_error("ListeningLibrary: " + greeting.failure);
    if (!WaitUntil([&] { return detail::g_applications.Find(name.c_str()).IsValid(); })) {
      throw std::runtime_error("ListeningLibrary: no session");
    }
    return std::move(*peer);
  }

 private:
  const uint16_t port;
};

/// The lines of the socket listener's thread, each as its level, a blank and its text.
inline std::vector<std::string> ListenerLog(const LogRecorder& log) {
  std::vector<std::string> lines;
  const auto startup = log.FirstWithPrefix("ConnThread Startup");
  if (!startup) return lines;
  for (const LogLine& line : log.Lines()) {
    if (line.thread == startup->thread) {
      lines.push_back(std::to_string(line.level) + " " + line.text);
    }
  }
  return lines;
}

}  // namespace TQ::test
