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

/// One initialisation of the library.
///
/// Made and ended by the main thread. Throws std::runtime_error if the library does not start.
class Host final {
 public:
  /// With port 0 the program connects to others and accepts nobody.
  Host(const char* name, int port);
  ~Host() { Stop(); }
  Host(const Host&) = delete;
  Host& operator=(const Host&) = delete;

  /// Ends all sessions. No slot runs after it. The last threads of the library may still run for a
  /// moment: they complete what was unanswered, and log.
  void Stop();

  /// After Stop: waits until sessions, messages and lists are as many as before the start, and adds
  /// a row to the closing table that says how many are left. False if that is not zero after ten
  /// seconds.
  bool LeftNothing(std::vector<Row>& rows) const;

 private:
  const TQObjectCounts before;
  bool running = false;
};

/// Connects to the catalog on 127.0.0.1 and returns its application name. A catalog that does not
/// answer yet is tried again for five seconds. Throws std::runtime_error.
std::string ConnectToCatalog(int port, const std::string& authFile);

}  // namespace inventory
