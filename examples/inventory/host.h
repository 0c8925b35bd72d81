// The library in the life of one program: start, connection, log, and a clean end.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include <tq/tq.h>

#include "report.h"

namespace inventory {

using AuthBlock = std::array<std::uint8_t, 256>;

/// Reads the block from a file of exactly 256 bytes. Throws std::runtime_error.
AuthBlock ReadAuthBlock(const std::string& path);

inline constexpr std::uint32_t EVERY_LEVEL =
    TQ_LOG_CRITICAL | TQ_LOG_ERROR | TQ_LOG_WARNING | TQ_LOG_INFO;

/// Prints the library's log lines on standard error, if they are wanted.
void StartLog(bool wanted);

/// Prints one line in that way. A program with a log callback of its own passes its lines on here.
void LogLine(std::uint32_t level, std::int32_t verbosity, const char* text);

/// Where a catalog listens and the others find it: a port of an address, or a pipe, whose name then
/// stands behind a backslash.
struct Place {
  std::string host = "127.0.0.1";
  int port = 0;

  bool IsPipe() const { return host.front() == '\\'; }
  std::string Text() const { return IsPipe() ? "pipe " + host : "port " + std::to_string(port); }
};

/// One initialisation of the library.
///
/// Made and ended by the main thread. Throws std::runtime_error if the library does not start.
class Host final {
 public:
  /// With port 0 and no pipe the program connects to others and accepts nobody.
  explicit Host(const char* name, const Place& place = {});
  ~Host() { Stop(); }
  Host(const Host&) = delete;
  Host& operator=(const Host&) = delete;

  /// Ends all sessions. No slot runs after it. The last threads of the library may still run for a
  /// moment: they complete what was unanswered, and log. Where a pipe is listened on this takes up
  /// to ten seconds, since its listener sees the stop no sooner.
  void Stop();

  /// After Stop: waits until sessions, messages and lists are as many as before the start, and adds
  /// a row to the closing table that says how many are left. False if that is not zero after ten
  /// seconds.
  bool LeftNothing(std::vector<Row>& rows) const;

 private:
  const TQObjectCounts before;
  bool running = false;
};

/// Connects to the catalog and returns its application name. A catalog that does not answer yet is
/// tried again for five seconds; over a pipe the first attempt alone may take longer. Throws
/// std::runtime_error.
std::string ConnectToCatalog(const Place& place, const std::string& authFile);

}  // namespace inventory
