#include "frame/md5.h"

#include "frame/little_endian.h"

#include <algorithm>
#include <bit>

namespace TQ::detail {
namespace {

/// Left rotations of the four rounds, four steps each in turn (RFC 1321, section 3.4).
constexpr uint8_t ROTATIONS[4][4] = {
    {7, 12, 17, 22}, {5, 9, 14, 20}, {4, 11, 16, 23}, {6, 10, 15, 21}};

/// The integer part of 4294967296 times abs(sin(i + 1)), i in radians (RFC 1321, section 3.4).
constexpr uint32_t SINES[64] = {
    0xd76aa478, 0xe8c7b756, 0x242070db, 0xc1bdceee, 0xf57c0faf, 0x4787c62a, 0xa8304613, 0xfd469501,
    0x698098d8, 0x8b44f7af, 0xffff5bb1, 0x895cd7be, 0x6b901122, 0xfd987193, 0xa679438e, 0x49b40821,
    0xf61e2562, 0xc040b340, 0x265e5a51, 0xe9b6c7aa, 0xd62f105d, 0x02441453, 0xd8a1e681, 0xe7d3fbc8,
    0x21e1cde6, 0xc33707d6, 0xf4d50d87, 0x455a14ed, 0xa9e3e905, 0xfcefa3f8, 0x676f02d9, 0x8d2a4c8a,
    0xfffa3942, 0x8771f681, 0x6d9d6122, 0xfde5380c, 0xa4beea44, 0x4bdecfa9, 0xf6bb4b60, 0xbebfbc70,
    0x289b7ec6, 0xeaa127fa, 0xd4ef3085, 0x04881d05, 0xd9d4d039, 0xe6db99e5, 0x1fa27cf8, 0xc4ac5665,
    0xf4292244, 0x432aff97, 0xab9423a7, 0xfc93a039, 0x655b59c3, 0x8f0ccc92, 0xffeff47d, 0x85845dd1,
    0x6fa87e4f, 0xfe2ce6e0, 0xa3014314, 0x4e0811a1, 0xf7537e82, 0xbd3af235, 0x2ad7d2bb, 0xeb86d391};

/// The round's function of the state and the word that it takes in this step.
struct Step {
  uint32_t mixed;
  uint32_t word;
};

Step StepOf(uint32_t step, uint32_t b, uint32_t c, uint32_t d) {
  switch (step / 16) {
    case 0:
      return {(b & c) | (~b & d), step};
    case 1:
      return {(b & d) | (c & ~d), (5 * step + 1) % 16};
    case 2:
      return {b ^ c ^ d, (3 * step + 5) % 16};
    default:
      return {c ^ (b | ~d), (7 * step) % 16};
  }
}

}  // namespace

void Md5::ProcessBlock(const uint8_t* block) {
  auto [a, b, c, d] = state;
  for (uint32_t step = 0; step < 64; ++step) {
    const auto [mixed, word] = StepOf(step, b, c, d);
    const uint32_t sum = a + mixed + LoadDword(block + std::size_t{word} * 4) + SINES[step];
    a = d;
    d = c;
    c = b;
    b += std::rotl(sum, ROTATIONS[step / 16][step % 4]);
  }
  state[0] += a;
  state[1] += b;
  state[2] += c;
  state[3] += d;
}

void Md5::Update(const void* bytes, std::size_t length) {
  const auto* source = static_cast<const uint8_t*>(bytes);
  while (length > 0) {
    const std::size_t used = static_cast<std::size_t>(totalLength % BLOCK_SIZE);
    const std::size_t part = std::min(BLOCK_SIZE - used, length);
    std::copy_n(source, part, pending.begin() + static_cast<std::ptrdiff_t>(used));
    totalLength += part;
    source += part;
    length -= part;
    if (used + part == BLOCK_SIZE) ProcessBlock(pending.data());
  }
}

Md5Digest Md5::Finish() {
  constexpr std::size_t LENGTH_SIZE = 8;
  const uint64_t lengthBits = totalLength * 8;
  const uint8_t marker = 0x80;
  const uint8_t zero = 0;
  Update(&marker, 1);
  while (totalLength % BLOCK_SIZE != BLOCK_SIZE - LENGTH_SIZE) Update(&zero, 1);
  uint8_t lengthBytes[LENGTH_SIZE];
  StoreQword(lengthBytes, lengthBits);
  Update(lengthBytes, LENGTH_SIZE);

  Md5Digest digest;
  for (std::size_t i = 0; i < state.size(); ++i) StoreDword(&digest[i * 4], state[i]);
  return digest;
}

}  // namespace TQ::detail
