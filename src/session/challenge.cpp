#include "session/challenge.h"

namespace TQ::detail {

uint8_t RandomGenerator::DrawByte() {
  // A rejection draw of an integer from 0 to 256, of which the low 8 bits are kept: 256 falls
  // together with 0. The distribution is fixed, so no class of the standard library draws here.
  for (;;) {
    const uint64_t product = uint64_t{static_cast<uint32_t>(engine())} * 257;
    if (static_cast<uint32_t>(product) != 0) return static_cast<uint8_t>(product >> 32);
  }
}

void RandomGenerator::Fill(Challenge& challenge) {
  LockScope held(lock);
  for (uint8_t& byte : challenge) byte = DrawByte();
}

Md5Digest DigestOf(const AuthBlock& block, const Challenge& challenge) {
  Md5 md5;
  md5.Update(block.data(), block.size());
  md5.Update(challenge.data(), challenge.size());
  return md5.Finish();
}

}  // namespace TQ::detail
