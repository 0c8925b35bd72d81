// The challenge of the handshake, and the digest that answers it.
#pragma once

#include "frame/locks.h"
#include "frame/md5.h"
#include "frame/settings.h"

#include <array>
#include <cstdint>
#include <random>

namespace TQ::detail {

constexpr uint32_t CHALLENGE_SIZE = 1024;
using Challenge = std::array<uint8_t, CHALLENGE_SIZE>;

/// A process-wide MT19937 generator (Matsumoto and Nishimura, 1998), seeded once.
///
/// Threads: the two listeners may draw at the same time; a private lock keeps the state whole.
class RandomGenerator {
 public:
  explicit RandomGenerator(uint32_t seed) : engine(seed) {}

  void Fill(Challenge& challenge);

 private:
  uint8_t DrawByte() TQ_REQUIRES(lock);

  Mutex lock;
  std::mt19937 engine TQ_GUARDED_BY(lock);
};

/// Seeded at library load from the platform's non-deterministic source.
extern RandomGenerator randomGenerator;

/// MD5 over the 256 bytes of the block and then the 1024 of the challenge.
Md5Digest DigestOf(const AuthBlock& block, const Challenge& challenge);

}  // namespace TQ::detail
