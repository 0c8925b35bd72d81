// The library's MD5 against the vectors of RFC 1321 and against the tests' own implementation.
#include "frame/md5.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <string_view>

#include "support/bytes.h"
#include "support/hex.h"
#include "support/md5.h"

namespace TQ::test {
namespace {

std::string HexOf(const detail::Md5Digest& digest) {
  return ToHex(digest.data(), digest.size(), "");
}

std::string HexDigest(const void* bytes, size_t length) {
  detail::Md5 md5;
  md5.Update(bytes, length);
  return HexOf(md5.Finish());
}

std::string HexDigest(std::string_view text) { return HexDigest(text.data(), text.size()); }

std::string HexDigest(const Bytes& bytes) { return HexDigest(bytes.data(), bytes.size()); }

TEST(Md5, GivesTheDigestsOfTheRfcTestSuite) {
  EXPECT_EQ(HexDigest(""), "d41d8cd98f00b204e9800998ecf8427e");
  EXPECT_EQ(HexDigest("a"), "0cc175b9c0f1b6a831c399e269772661");
  EXPECT_EQ(HexDigest("abc"), "900150983cd24fb0d6963f7d28e17f72");
  EXPECT_EQ(HexDigest("message digest"), "f96b697d7cb7938d525a2f31aaf161d0");
  EXPECT_EQ(HexDigest("abcdefghijklmnopqrstuvwxyz"), "c3fcd3d76192e4007dfb496cca67e13b");
  EXPECT_EQ(HexDigest("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789"),
            "d174ab98d277d9f5a5611c2c9f419d9f");
  EXPECT_EQ(HexDigest("12345678901234567890123456789012345678901234567890123456789012345678901234"
                      "567890"),
            "57edf4a22be3c955ac49da2e2107b67a");
}

TEST(Md5, GivesTheDigestOfAnEmptyBlockAndAnEmptyChallenge) {
  EXPECT_EQ(HexDigest(Bytes(1280)), "a5058431022ad56a091a49521b5cb35b");
}

TEST(Md5, AgreesWithAnotherImplementationAtEveryLengthAroundTheBlockSize) {
  for (size_t length = 0; length <= 200; ++length) {
    const Bytes bytes = Pattern(length, static_cast<uint32_t>(length));
    EXPECT_EQ(HexDigest(bytes), ToHex(Md5(bytes), "")) << length << " bytes";
  }
}

TEST(Md5, DoesNotDependOnThePiecesInWhichTheBytesCome) {
  const Bytes bytes = Pattern(200);
  const std::string whole = HexDigest(bytes);
  for (size_t cut = 0; cut <= bytes.size(); ++cut) {
    detail::Md5 md5;
    md5.Update(bytes.data(), cut);
    md5.Update(bytes.data() + cut, bytes.size() - cut);
    EXPECT_EQ(HexOf(md5.Finish()), whole) << "cut at " << cut;
  }
  for (size_t piece = 1; piece <= 70; ++piece) {
    detail::Md5 md5;
    for (size_t start = 0; start < bytes.size(); start += piece) {
      md5.Update(bytes.data() + start, std::min(piece, bytes.size() - start));
    }
    EXPECT_EQ(HexOf(md5.Finish()), whole) << "pieces of " << piece;
  }
}

TEST(Md5, TakesEmptyPiecesWithoutEffect) {
  detail::Md5 md5;
  md5.Update(nullptr, 0);
  md5.Update("abc", 3);
  md5.Update("x", 0);
  EXPECT_EQ(HexOf(md5.Finish()), "900150983cd24fb0d6963f7d28e17f72");
}

}  // namespace
}  // namespace TQ::test
