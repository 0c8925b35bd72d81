// The full name of an application: "host:port/name".
#pragma once

#include "wire/inline_buffer.h"

#include <cstdint>

namespace TQ::detail {

/// A name taken apart, with the rules of strtok: leading delimiters are skipped, and a piece that
/// is not there is null. A text without ":" is all host; of several "/" the second ends the
/// application.
///
/// One thread's own. The pieces live as long as the object.
class ParsedApplicationName {
 public:
  /// A null name counts as an empty one.
  explicit ParsedApplicationName(const char* name);

  const char* Host() const { return host; }
  int32_t Port() const { return port; }
  const char* Application() const { return application; }

 private:
  TQMemoryBufferTpl<256> text;
  char* host = nullptr;
  int32_t port = 0;
  char* application = nullptr;
};

}  // namespace TQ::detail
