// The log facility: plain text lines through the host's callback.
//
// Threads: any; the callback runs on the thread that logs, at the same time as itself on others.
// A change of the settings takes effect for each statement whenever its thread sees it.
#pragma once

#include <tq/types.h>

#include <atomic>
#include <cstdint>
#include <locale>
#include <sstream>
#include <string>

namespace TQ::detail {

extern std::atomic<uint32_t> g_logMask;
extern std::atomic<int32_t> g_logVerbosity;
extern std::atomic<TQLogCallback> g_logCallback;

/// The verbosity of every statement of the library.
constexpr int32_t LOG_VERBOSITY = 0;

/// The callback when a statement of `level` is on, else null. Three tests and nothing more.
inline TQLogCallback LogTarget(_tag_TQ_LOG_LEVEL level) {
  const TQLogCallback callback = g_logCallback.load(std::memory_order_relaxed);
  if (callback == nullptr) return nullptr;
  if ((g_logMask.load(std::memory_order_relaxed) & level) == 0) return nullptr;
  if (g_logVerbosity.load(std::memory_order_relaxed) < LOG_VERBOSITY) return nullptr;
  return callback;
}

/// Logs the pieces as one line: tests first, composes only then, and calls back synchronously.
///
/// The stream has the classic locale, since a host's global locale would put separators into the
/// numbers. An exception of the callback passes through.
template <typename... Pieces>
void Log(_tag_TQ_LOG_LEVEL level, const Pieces&... pieces) {
  const TQLogCallback callback = LogTarget(level);
  if (callback == nullptr) return;
  std::ostringstream stream;
  stream.imbue(std::locale::classic());
  (stream << ... << pieces);
  const std::string text = stream.str();
  callback(level, LOG_VERBOSITY, text.c_str());
}

}  // namespace TQ::detail
