// Little-endian words at any address: the byte order of lists and of the wire.
#pragma once

#include <bit>
#include <cstdint>
#include <cstring>

namespace TQ::detail {

static_assert(
    std::endian::native == std::endian::little,
    "the list image is the wire image, so a big-endian build would speak another protocol");

inline uint32_t LoadDword(const void* source) {
  uint32_t value;
  std::memcpy(&value, source, sizeof value);
  return value;
}

inline uint64_t LoadQword(const void* source) {
  uint64_t value;
  std::memcpy(&value, source, sizeof value);
  return value;
}

inline void StoreDword(void* destination, uint32_t value) {
  std::memcpy(destination, &value, sizeof value);
}

inline void StoreQword(void* destination, uint64_t value) {
  std::memcpy(destination, &value, sizeof value);
}

}  // namespace TQ::detail
