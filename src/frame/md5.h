// The MD5 message digest (RFC 1321).
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace TQ::detail {

using Md5Digest = std::array<uint8_t, 16>;

/// Takes bytes in any number of pieces and gives their digest. One thread's own.
class Md5 {
 public:
  void Update(const void* bytes, std::size_t length);

  /// The digest of everything taken so far. The object is used up.
  Md5Digest Finish();

 private:
  static constexpr std::size_t BLOCK_SIZE = 64;

  void ProcessBlock(const uint8_t* block);

  std::array<uint32_t, 4> state = {0x67452301, 0xefcdab89, 0x98badcfe, 0x10325476};
  std::array<uint8_t, BLOCK_SIZE> pending{};
  uint64_t totalLength = 0;
};

}  // namespace TQ::detail
