// Records the library's log lines, which are results like any other.
//
//   LogRecorder log;
//   ... something that logs ...
//   EXPECT_TRUE(log.WaitFor(TQ_LOG_INFO, "Receive failed: socket closed"));
//   EXPECT_EQ(log.CountOfPrefix("Send failed"), 0u);
//   EXPECT_EQ(log.CountOf("...") , 1u) << log.Dump();
//
// One recorder at a time: it takes the library's one log callback from its construction to its
// destruction, and starts empty. A line of a library thread that comes too late is dropped.
//
// Threads: any.
#pragma once

#include "support/wait_until.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace TQ::test {

/// Every level.
constexpr uint32_t ALL_LOG_LEVELS = 15;

struct LogLine {
  uint32_t level = 0;
  int32_t verbosity = 0;
  std::string text;
  std::thread::id thread;
};

class LogRecorder final {
 public:
  explicit LogRecorder(uint32_t mask = ALL_LOG_LEVELS, int32_t verbosity = 0);
  ~LogRecorder();

  LogRecorder(const LogRecorder&) = delete;
  LogRecorder& operator=(const LogRecorder&) = delete;

  /// What was recorded so far, in order.
  std::vector<LogLine> Lines() const;
  std::vector<std::string> Texts() const;

  /// Waits for a line with exactly this level and text. A line that is there already counts.
  bool WaitFor(uint32_t level, const std::string& text,
               std::chrono::milliseconds deadline = DEFAULT_DEADLINE) const;

  /// Waits for a line of this level that begins with `prefix`.
  bool WaitForPrefix(uint32_t level, const std::string& prefix,
                     std::chrono::milliseconds deadline = DEFAULT_DEADLINE) const;

  /// Waits until at least `count` lines have this level and text.
  bool WaitForCount(uint32_t level, const std::string& text, size_t count,
                    std::chrono::milliseconds deadline = DEFAULT_DEADLINE) const;

  /// The first line that begins with `prefix`; nullopt if there is none now.
  std::optional<LogLine> FirstWithPrefix(const std::string& prefix) const;

  size_t CountOf(const std::string& text) const;
  size_t CountOfPrefix(const std::string& prefix) const;
  size_t CountOfLevel(uint32_t level) const;

  /// The callback that the library gets. Tests of the recorder call it themselves.
  static void Record(uint32_t level, int32_t verbosity, const char* text);

  /// Forgets what was recorded so far.
  void Clear();

  /// The recorded lines as one text, for the messages of failed tests.
  std::string Dump() const;
};

}  // namespace TQ::test
