// Byte strings and the little-endian helpers of the tests. They share nothing with the library, so
// that a mistake in the library's own helpers cannot hide in a comparison.
//
//   Bytes head = Concat({U32(7), U32(1), U32(slotId)});
//   EXPECT_EQ(ReadU32(head.data() + 4), 1u);
#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

namespace TQ::test {

using Bytes = std::vector<uint8_t>;

inline void Append(Bytes& out, const Bytes& more) {
  out.insert(out.end(), more.begin(), more.end());
}

inline void AppendU32(Bytes& out, uint32_t value) {
  for (int shift = 0; shift < 32; shift += 8) {
    out.push_back(static_cast<uint8_t>((value >> shift) & 0xFF));
  }
}

inline void AppendU64(Bytes& out, uint64_t value) {
  AppendU32(out, static_cast<uint32_t>(value & 0xFFFFFFFF));
  AppendU32(out, static_cast<uint32_t>(value >> 32));
}

inline Bytes U32(uint32_t value) {
  Bytes out;
  AppendU32(out, value);
  return out;
}

inline Bytes U64(uint64_t value) {
  Bytes out;
  AppendU64(out, value);
  return out;
}

inline uint32_t ReadU32(const uint8_t* from) {
  uint32_t value = 0;
  for (int index = 3; index >= 0; --index) {
    value = (value << 8) | from[index];
  }
  return value;
}

inline uint64_t ReadU64(const uint8_t* from) {
  return (static_cast<uint64_t>(ReadU32(from + 4)) << 32) | ReadU32(from);
}

inline Bytes ToBytes(std::string_view text) { return Bytes(text.begin(), text.end()); }

inline std::string ToText(const Bytes& bytes) { return std::string(bytes.begin(), bytes.end()); }

inline Bytes Concat(std::initializer_list<Bytes> parts) {
  Bytes out;
  for (const Bytes& part : parts) {
    Append(out, part);
  }
  return out;
}

inline Bytes Filled(size_t count, uint8_t value) { return Bytes(count, value); }

/// `count` bytes that differ from their neighbours, so that lost or moved bytes are seen.
inline Bytes Pattern(size_t count, uint32_t seed = 1) {
  Bytes out(count);
  uint32_t state = seed * 2654435761u + 12345u;
  for (uint8_t& byte : out) {
    state = state * 1664525u + 1013904223u;
    byte = static_cast<uint8_t>(state >> 24);
  }
  return out;
}

/// The first `count` bytes, or all if there are fewer.
inline Bytes Prefix(const Bytes& bytes, size_t count) {
  return Bytes(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(
                                                  count < bytes.size() ? count : bytes.size()));
}

}  // namespace TQ::test
