// The draw of the challenge against a generator of the tests' own, and the digest over block and
// challenge.
#include "session/challenge.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "support/bytes.h"
#include "support/child_process.h"
#include "support/hex.h"
#include "support/md5.h"

namespace TQ::test {
namespace {

using detail::AuthBlock;
using detail::Challenge;
using detail::DigestOf;
using detail::RandomGenerator;

// MT19937 as Matsumoto and Nishimura published it, one output at a time.
class ReferenceGenerator {
 public:
  explicit ReferenceGenerator(uint32_t seed) {
    state[0] = seed;
    for (uint32_t i = 1; i < SIZE; ++i) {
      state[i] = 1812433253u * (state[i - 1] ^ (state[i - 1] >> 30)) + i;
    }
  }

  uint32_t Next() {
    const size_t i = position;
    position = (position + 1) % SIZE;
    const uint32_t joined = (state[i] & 0x80000000u) | (state[position] & 0x7fffffffu);
    state[i] = state[(i + 397) % SIZE] ^ (joined >> 1) ^ ((joined & 1u) != 0 ? 0x9908b0dfu : 0u);
    uint32_t y = state[i];
    y ^= y >> 11;
    y ^= (y << 7) & 0x9d2c5680u;
    y ^= (y << 15) & 0xefc60000u;
    return y ^ (y >> 18);
  }

 private:
  static constexpr size_t SIZE = 624;

  std::array<uint32_t, SIZE> state{};
  size_t position = 0;
};

// An integer from 0 to 256 by rejection, of which the low 8 bits are kept.
uint8_t ReferenceByte(ReferenceGenerator& generator) {
  uint64_t product = 0;
  do {
    product = uint64_t{generator.Next()} * 257u;
  } while ((product & 0xFFFFFFFFu) == 0);
  return static_cast<uint8_t>((product >> 32) & 0xFF);
}

Challenge ReferenceChallenge(ReferenceGenerator& generator) {
  Challenge challenge;
  for (uint8_t& byte : challenge) {
    byte = ReferenceByte(generator);
  }
  return challenge;
}

Bytes ToBytes(const Challenge& challenge) { return Bytes(challenge.begin(), challenge.end()); }

TEST(ReferenceGenerator, GivesThePublishedTenThousandthOutput) {
  ReferenceGenerator generator(5489);
  uint32_t output = 0;
  for (int i = 0; i < 10000; ++i) {
    output = generator.Next();
  }
  EXPECT_EQ(output, 4123659995u);
}

TEST(Challenge, IsDrawnByteByByteFromTheSeededGenerator) {
  for (const uint32_t seed : {0u, 1u, 5489u, 0x80000000u, 0xFFFFFFFFu}) {
    RandomGenerator generator(seed);
    ReferenceGenerator reference(seed);
    // Several in a row, so that the state goes on from one to the next.
    for (int round = 0; round < 4; ++round) {
      Challenge challenge{};
      generator.Fill(challenge);
      EXPECT_EQ(ToBytes(challenge), ToBytes(ReferenceChallenge(reference)))
          << "seed " << seed << ", challenge " << round;
    }
  }
}

TEST(Challenge, DrawsAgainWhenTheProductHasNoLowBits) {
  // The first seed in counting order whose generator gives a zero among its first 227 outputs.
  constexpr uint32_t SEED = 7603642;
  constexpr size_t ZERO_OUTPUT = 141;
  ReferenceGenerator outputs(SEED);
  for (size_t i = 0; i < ZERO_OUTPUT; ++i) {
    ASSERT_NE(outputs.Next(), 0u);
  }
  ASSERT_EQ(outputs.Next(), 0u);
  const auto following = static_cast<uint8_t>((uint64_t{outputs.Next()} * 257u) >> 32);

  RandomGenerator generator(SEED);
  Challenge challenge{};
  generator.Fill(challenge);
  EXPECT_EQ(challenge[ZERO_OUTPUT], following);
  ReferenceGenerator reference(SEED);
  EXPECT_EQ(ToBytes(challenge), ToBytes(ReferenceChallenge(reference)));
}

TEST(Challenge, KeepsTheLowBitsOfAnIntegerUpTo256) {
  // Of the 257 values 0 and 256 give the same byte. The largest output gives 256.
  EXPECT_EQ((uint64_t{0xFFFFFFFFu} * 257u) >> 32, 256u);
  RandomGenerator generator(1);
  ReferenceGenerator reference(1);
  size_t drawnAs256 = 0;
  for (int round = 0; round < 8; ++round) {
    Challenge challenge{};
    generator.Fill(challenge);
    for (const uint8_t byte : challenge) {
      const uint64_t product = uint64_t{reference.Next()} * 257u;
      ASSERT_NE(product & 0xFFFFFFFFu, 0u);
      if (product >> 32 == 256) {
        ++drawnAs256;
        EXPECT_EQ(byte, 0u);
      }
    }
  }
  EXPECT_GT(drawnAs256, 0u);
}

TEST(Challenge, CanBeDrawnByTwoListenersAtATime) {
  RandomGenerator generator(3);
  std::vector<Challenge> drawn(64);
  const auto fillHalf = [&](size_t first) {
    for (size_t i = first; i < drawn.size(); i += 2) {
      generator.Fill(drawn[i]);
    }
  };
  std::thread other([&] { fillHalf(1); });
  fillHalf(0);
  other.join();
  // Whatever the order of the two was, each challenge is one stretch of the generator's outputs.
  std::set<Bytes> expected;
  ReferenceGenerator reference(3);
  for (size_t i = 0; i < drawn.size(); ++i) {
    expected.insert(ToBytes(ReferenceChallenge(reference)));
  }
  std::set<Bytes> got;
  for (const Challenge& challenge : drawn) {
    got.insert(ToBytes(challenge));
  }
  EXPECT_EQ(got, expected);
}

TQ_TEST_ROLE(drawChallenge) {
  Challenge challenge{};
  detail::randomGenerator.Fill(challenge);
  Say(ToHex(challenge.data(), challenge.size(), ""));
  return 0;
}

TEST(Challenge, DiffersFromProcessToProcess) {
  std::set<std::string> drawn;
  for (int i = 0; i < 3; ++i) {
    ChildProcess process("drawChallenge");
    const auto line = process.ReadLine();
    ASSERT_TRUE(line);
    EXPECT_EQ(line->size(), 2 * detail::CHALLENGE_SIZE);
    drawn.insert(*line);
    EXPECT_TRUE(process.ExpectSuccess());
  }
  EXPECT_EQ(drawn.size(), 3u);
}

TEST(Challenge, DiffersFromOneToTheNext) {
  Challenge first{};
  Challenge second{};
  detail::randomGenerator.Fill(first);
  detail::randomGenerator.Fill(second);
  EXPECT_NE(ToBytes(first), ToBytes(second));
}

Bytes DigestBytesOf(const Bytes& block, const Bytes& challengeBytes) {
  AuthBlock authBlock{};
  std::copy(block.begin(), block.end(), authBlock.begin());
  Challenge challenge{};
  std::copy(challengeBytes.begin(), challengeBytes.end(), challenge.begin());
  const auto digest = DigestOf(authBlock, challenge);
  return Bytes(digest.begin(), digest.end());
}

TEST(Digest, CoversTheBlockAndThenTheChallenge) {
  const Bytes block = Pattern(256, 4);
  const Bytes challenge = Pattern(1024, 5);
  EXPECT_EQ(DigestBytesOf(block, challenge), Md5(Concat({block, challenge})));
  EXPECT_NE(DigestBytesOf(block, challenge), Md5(Concat({challenge, block})));
}

TEST(Digest, OfZerosIsFixed) {
  EXPECT_EQ(ToHex(DigestBytesOf({}, {}), ""), "a5058431022ad56a091a49521b5cb35b");
}

TEST(Digest, DependsOnTheLastByteOfBoth) {
  Bytes block(256);
  Bytes challenge(1024);
  block.back() = 1;
  EXPECT_EQ(DigestBytesOf(block, challenge), Md5(Concat({block, challenge})));
  const Bytes withBlock = DigestBytesOf(block, challenge);
  challenge.back() = 1;
  EXPECT_EQ(DigestBytesOf(block, challenge), Md5(Concat({block, challenge})));
  EXPECT_NE(DigestBytesOf(block, challenge), withBlock);
}

}  // namespace
}  // namespace TQ::test
