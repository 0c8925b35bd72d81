// Random numbers that are the same in every run with the same seed, on every platform.
//
//   SeededRandom random(GetParam());
//   SCOPED_TRACE(testing::Message() << "seed " << GetParam());
//   const std::string& name = names[random.Below(names.size())];
#pragma once

#include <cstddef>
#include <cstdint>
#include <random>

namespace TQ::test {

class SeededRandom final {
 public:
  explicit SeededRandom(uint32_t seed) : engine(seed) {}

  /// From 0 up to `bound` - 1; `bound` is above 0.
  uint32_t Below(size_t bound) { return static_cast<uint32_t>(engine() % bound); }

  /// Any 32 bits.
  uint32_t Bits() { return static_cast<uint32_t>(engine()); }

  /// True once in `times`.
  bool OneIn(uint32_t times) { return Below(times) == 0; }

 private:
  std::mt19937 engine;
};

}  // namespace TQ::test
