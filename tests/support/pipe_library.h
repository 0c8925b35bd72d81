// The library in this process, initialised and listening on a pair of pipes.
//
//   LogRecorder log;
//   PipeLibrary library;                             // listens on pipes of its own
//   RawPeer peer = library.Admit("test:1/raw");      // past the handshake
//   EXPECT_EQ(PipeListenerLog(log).back(), "8 Startup completed for test:1/raw");
//
// The library's state is process-wide, so there is one at a time. Its end shuts the library down,
// with peers that come and go so that the listener need not run out its wait.
#pragma once

#include <gtest/gtest.h>
#include <tq/tq.h>

#include <atomic>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "session/application_registry.h"
#include "session/session.h"
#include "support/free_port.h"
#include "support/log_recorder.h"
#include "support/raw_peer.h"
#include "support/transport.h"
#include "support/wait_until.h"

namespace TQ::test {

/// A peer that has opened both pipes; nullopt if nobody listens in time.
inline std::optional<RawPeer> ConnectToPipes(const std::string& name) {
  std::optional<RawPeer> peer;
  (void)WaitUntil([&] {
    peer = RawPeer::TryConnectPipes(name);
    return peer.has_value();
  });
  return peer;
}

/// Shuts the library down while peers come and go at the pipes.
inline void ShutDownWithVisitors(const std::string& name) {
  std::atomic<bool> done{false};
  std::thread visitors([&] {
    while (!done) {
      (void)RawPeer::TryConnectPipes(name);
      std::this_thread::sleep_for(std::chrono::milliseconds{5});
    }
  });
  EXPECT_EQ(TQShutdown(), TQ_ERR_OK);
  done = true;
  visitors.join();
}

class PipeLibrary final {
 public:
  enum Gate { CLOSED, OPEN };

  PipeLibrary() : PipeLibrary(OPEN) {}
  /// `maxConnections` 0 leaves the library's default. `host` stands before the name.
  explicit PipeLibrary(Gate gate, uint32_t maxConnections = 0, const std::string& host = "\\")
      : name(PipeName(FreePort())) {
    _tag_TQLIMITS record{};
    record.size = sizeof record;
    record.MAX_CONNECTIONS = maxConnections;
    if (TQInitializeEx((host + name).c_str(), "listener", 0, &record) != TQ_ERR_OK) {
      throw std::runtime_error("PipeLibrary: the library cannot be initialised");
    }
    if (gate == OPEN) TQConnectionReady();
  }
  ~PipeLibrary() { ShutDownWithVisitors(name); }

  PipeLibrary(const PipeLibrary&) = delete;
  PipeLibrary& operator=(const PipeLibrary&) = delete;

  const std::string& Name() const { return name; }

  /// A peer past the handshake, whose session can be found by its name. Throws std::runtime_error
  /// on failure.
  RawPeer Admit(const std::string& peerName) const { return AdmitTo(name, peerName); }

  static RawPeer AdmitTo(const std::string& pipes, const std::string& peerName) {
    auto peer = ConnectToPipes(pipes);
    if (!peer) throw std::runtime_error("PipeLibrary: no connection");
    const HandshakeResult greeting = peer->HandshakeAsConnector(peerName);
    if (!greeting.Completed()) throw std::runtime_error("PipeLibrary: " + greeting.failure);
    if (!WaitUntil([&] { return detail::g_applications.Find(peerName.c_str()).IsValid(); })) {
      throw std::runtime_error("PipeLibrary: no session");
    }
    return std::move(*peer);
  }

 private:
  const std::string name;
};

/// The lines of the pipe listener's thread, each as its level, a blank and its text.
inline std::vector<std::string> PipeListenerLog(const LogRecorder& log) {
  std::vector<std::string> lines;
  const auto startup = log.FirstWithPrefix("ConnThread Pipe Startup");
  if (!startup) return lines;
  for (const LogLine& line : log.Lines()) {
    if (line.thread == startup->thread) {
      lines.push_back(std::to_string(line.level) + " " + line.text);
    }
  }
  return lines;
}

}  // namespace TQ::test
