#include "support/md5.h"

#include <array>
#include <bit>
#include <cmath>
#include <cstdint>

namespace TQ::test {

namespace {

struct State {
  uint32_t a = 0x67452301;
  uint32_t b = 0xefcdab89;
  uint32_t c = 0x98badcfe;
  uint32_t d = 0x10325476;
};

// Section 3.4: element i is the integer part of 4294967296 times abs(sin(i)), i from 1 to 64.
std::array<uint32_t, 64> MakeSineTable() {
  std::array<uint32_t, 64> table{};
  for (size_t index = 0; index < table.size(); ++index) {
    const double sine = std::fabs(std::sin(static_cast<double>(index + 1)));
    table[index] = static_cast<uint32_t>(std::floor(sine * 4294967296.0));
  }
  return table;
}

// Section 3.4: the four functions, the order in which the words of a block are used, the shifts.
void AddBlock(State& state, const uint8_t* block) {
  static const std::array<uint32_t, 64> SINES = MakeSineTable();
  static constexpr int SHIFTS[4][4] = {
      {7, 12, 17, 22}, {5, 9, 14, 20}, {4, 11, 16, 23}, {6, 10, 15, 21}};
  State work = state;
  for (uint32_t step = 0; step < 64; ++step) {
    uint32_t mixed = 0;
    uint32_t word = 0;
    switch (step / 16) {
      case 0:
        mixed = (work.b & work.c) | (~work.b & work.d);
        word = step;
        break;
      case 1:
        mixed = (work.b & work.d) | (work.c & ~work.d);
        word = (5 * step + 1) % 16;
        break;
      case 2:
        mixed = work.b ^ work.c ^ work.d;
        word = (3 * step + 5) % 16;
        break;
      default:
        mixed = work.c ^ (work.b | ~work.d);
        word = (7 * step) % 16;
        break;
    }
    const uint32_t sum = work.a + mixed + ReadU32(block + size_t{4} * word) + SINES[step];
    const uint32_t rotated = std::rotl(sum, SHIFTS[step / 16][step % 4]);
    work = State{work.d, work.b + rotated, work.b, work.c};
  }
  state.a += work.a;
  state.b += work.b;
  state.c += work.c;
  state.d += work.d;
}

}  // namespace

Bytes Md5(const Bytes& message) {
  // Sections 3.1 and 3.2: a one bit, zeros up to 56 bytes into a block, the length in bits.
  Bytes padded = message;
  padded.push_back(0x80);
  while (padded.size() % 64 != 56) {
    padded.push_back(0);
  }
  AppendU64(padded, static_cast<uint64_t>(message.size()) * 8);

  State state;
  for (size_t offset = 0; offset < padded.size(); offset += 64) {
    AddBlock(state, padded.data() + offset);
  }
  return Concat({U32(state.a), U32(state.b), U32(state.c), U32(state.d)});
}

}  // namespace TQ::test
