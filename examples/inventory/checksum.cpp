#include "checksum.h"

#include <bit>
#include <cstddef>
#include <string>

// Source of the algorithm, its constants and the names of its functions: FIPS 180-4, Secure Hash
// Standard, sections 4.1.2, 4.2.2, 5.1.1, 5.3.3 and 6.2.

namespace inventory {
namespace {

constexpr std::size_t BLOCK_SIZE = 64;
constexpr std::size_t LENGTH_SIZE = 8;

constexpr std::array<std::uint32_t, 64> ROUND_CONSTANTS = {
    0x428a2f98, 0x71374491, 0xb5c0fbcf, 0xe9b5dba5, 0x3956c25b, 0x59f111f1, 0x923f82a4, 0xab1c5ed5,
    0xd807aa98, 0x12835b01, 0x243185be, 0x550c7dc3, 0x72be5d74, 0x80deb1fe, 0x9bdc06a7, 0xc19bf174,
    0xe49b69c1, 0xefbe4786, 0x0fc19dc6, 0x240ca1cc, 0x2de92c6f, 0x4a7484aa, 0x5cb0a9dc, 0x76f988da,
    0x983e5152, 0xa831c66d, 0xb00327c8, 0xbf597fc7, 0xc6e00bf3, 0xd5a79147, 0x06ca6351, 0x14292967,
    0x27b70a85, 0x2e1b2138, 0x4d2c6dfc, 0x53380d13, 0x650a7354, 0x766a0abb, 0x81c2c92e, 0x92722c85,
    0xa2bfe8a1, 0xa81a664b, 0xc24b8b70, 0xc76c51a3, 0xd192e819, 0xd6990624, 0xf40e3585, 0x106aa070,
    0x19a4c116, 0x1e376c08, 0x2748774c, 0x34b0bcb5, 0x391c0cb3, 0x4ed8aa4a, 0x5b9cca4f, 0x682e6ff3,
    0x748f82ee, 0x78a5636f, 0x84c87814, 0x8cc70208, 0x90befffa, 0xa4506ceb, 0xbef9a3f7, 0xc67178f2};

using State = std::array<std::uint32_t, 8>;
using Schedule = std::array<std::uint32_t, 64>;

constexpr State INITIAL_STATE = {0x6a09e667, 0xbb67ae85, 0x3c6ef372, 0xa54ff53a,
                                 0x510e527f, 0x9b05688c, 0x1f83d9ab, 0x5be0cd19};

std::uint32_t ByteAt(std::string_view text, std::size_t offset) {
  return static_cast<unsigned char>(text[offset]);
}

Schedule ScheduleOf(std::string_view block) {
  Schedule w = {};
  for (std::size_t t = 0; t < 16; ++t) {
    const std::size_t at = 4 * t;
    w[t] = ByteAt(block, at) << 24 | ByteAt(block, at + 1) << 16 | ByteAt(block, at + 2) << 8 |
           ByteAt(block, at + 3);
  }
  for (std::size_t t = 16; t < w.size(); ++t) {
    const std::uint32_t x = w[t - 15];
    const std::uint32_t y = w[t - 2];
    const std::uint32_t sigma0 = std::rotr(x, 7) ^ std::rotr(x, 18) ^ (x >> 3);
    const std::uint32_t sigma1 = std::rotr(y, 17) ^ std::rotr(y, 19) ^ (y >> 10);
    w[t] = sigma1 + w[t - 7] + sigma0 + w[t - 16];
  }
  return w;
}

void Compress(State& state, std::string_view block) {
  const Schedule w = ScheduleOf(block);
  auto [a, b, c, d, e, f, g, h] = state;
  for (std::size_t t = 0; t < w.size(); ++t) {
    const std::uint32_t sum1 = std::rotr(e, 6) ^ std::rotr(e, 11) ^ std::rotr(e, 25);
    const std::uint32_t choice = (e & f) ^ (~e & g);
    const std::uint32_t t1 = h + sum1 + choice + ROUND_CONSTANTS[t] + w[t];
    const std::uint32_t sum0 = std::rotr(a, 2) ^ std::rotr(a, 13) ^ std::rotr(a, 22);
    const std::uint32_t majority = (a & b) ^ (a & c) ^ (b & c);
    const std::uint32_t t2 = sum0 + majority;
    h = g;
    g = f;
    f = e;
    e = d + t1;
    d = c;
    c = b;
    b = a;
    a = t1 + t2;
  }
  const State change = {a, b, c, d, e, f, g, h};
  for (std::size_t i = 0; i < state.size(); ++i) state[i] += change[i];
}

}  // namespace

Checksum Sha256(std::string_view text) {
  // The text, a one bit, zero bits, and the length in bits as 64-bit big-endian number.
  std::string padded(text);
  padded.push_back('\x80');
  while (padded.size() % BLOCK_SIZE != BLOCK_SIZE - LENGTH_SIZE) padded.push_back('\0');
  const std::uint64_t lengthBits = std::uint64_t{text.size()} * 8;
  for (int shift = 56; shift >= 0; shift -= 8)
    padded.push_back(static_cast<char>(lengthBits >> shift & 0xff));

  State state = INITIAL_STATE;
  for (std::size_t offset = 0; offset < padded.size(); offset += BLOCK_SIZE)
    Compress(state, std::string_view(padded).substr(offset, BLOCK_SIZE));

  Checksum digest = {};
  for (std::size_t i = 0; i < digest.size(); ++i)
    digest[i] = static_cast<std::uint8_t>(state[i / 4] >> (24 - 8 * (i % 4)));
  return digest;
}

}  // namespace inventory
