#include "session/application_name.h"

#include <cstdlib>
#include <cstring>

namespace TQ::detail {
namespace {

/// The next token of `*cursor` up to `delimiter`, terminated in place; null when nothing is left.
char* NextToken(char** cursor, char delimiter) {
  char* token = *cursor;
  while (*token == delimiter && *token != '\0') ++token;
  if (*token == '\0') {
    *cursor = token;
    return nullptr;
  }
  char* end = token;
  while (*end != '\0' && *end != delimiter) ++end;
  *cursor = *end == '\0' ? end : end + 1;
  *end = '\0';
  return token;
}

}  // namespace

ParsedApplicationName::ParsedApplicationName(const char* name) {
  const char* source = name != nullptr ? name : "";
  const std::size_t size = std::strlen(source) + 1;
  char* copy = reinterpret_cast<char*>(text.Reserve(0, size));
  std::memcpy(copy, source, size);

  char* cursor = copy;
  host = NextToken(&cursor, ':');
  const char* portText = NextToken(&cursor, '/');
  if (portText != nullptr) port = static_cast<int32_t>(std::strtoll(portText, nullptr, 10));
  application = NextToken(&cursor, '/');
}

}  // namespace TQ::detail
