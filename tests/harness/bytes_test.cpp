#include "support/bytes.h"

#include "support/hex.h"
#include "support/md5.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace TQ::test {
namespace {

TEST(Hex, WritesTwoDigitsForEachByte) {
  EXPECT_EQ(ToHex({0x00, 0x0F, 0xA5, 0xFF}), "00 0f a5 ff");
  EXPECT_EQ(ToHex({0x01, 0x02}, ""), "0102");
  EXPECT_EQ(ToHex(Bytes{}), "");
}

TEST(Hex, ReadsWhatItWrites) {
  const Bytes bytes = Pattern(300);
  EXPECT_EQ(FromHex(ToHex(bytes)), bytes);
  EXPECT_EQ(FromHex("07616200 00000002,\n0A0b"),
            (Bytes{0x07, 0x61, 0x62, 0, 0, 0, 0, 2, 0x0A, 0x0B}));
}

TEST(Hex, RefusesWhatIsNoByte) {
  EXPECT_THROW(FromHex("0"), std::invalid_argument);
  EXPECT_THROW(FromHex("0g"), std::invalid_argument);
  EXPECT_THROW(FromHex("0 1"), std::invalid_argument);
}

TEST(LittleEndian, PutsTheLowestByteFirst) {
  EXPECT_EQ(U32(0x01020304), (Bytes{4, 3, 2, 1}));
  EXPECT_EQ(U64(0x0102030405060708), (Bytes{8, 7, 6, 5, 4, 3, 2, 1}));
  EXPECT_EQ(ReadU32(U32(0xFFFFFFFE).data()), 0xFFFFFFFEu);
  EXPECT_EQ(ReadU64(U64(0xFEDCBA9876543210).data()), 0xFEDCBA9876543210u);
}

TEST(Pattern, DependsOnTheSeedAlone) {
  EXPECT_EQ(Pattern(1024, 3), Pattern(1024, 3));
  EXPECT_NE(Pattern(1024, 3), Pattern(1024, 4));
  EXPECT_EQ(Prefix(Pattern(1024, 3), 10), Pattern(10, 3));
  EXPECT_EQ(Prefix(Pattern(4), 10), Pattern(4));
}

std::string DigestOf(const std::string& text) { return ToHex(Md5(ToBytes(text)), ""); }

// The test suite of RFC 1321, appendix A.5.
TEST(TestMd5, GivesTheDigestsOfTheRfc) {
  EXPECT_EQ(DigestOf(""), "d41d8cd98f00b204e9800998ecf8427e");
  EXPECT_EQ(DigestOf("a"), "0cc175b9c0f1b6a831c399e269772661");
  EXPECT_EQ(DigestOf("abc"), "900150983cd24fb0d6963f7d28e17f72");
  EXPECT_EQ(DigestOf("message digest"), "f96b697d7cb7938d525a2f31aaf161d0");
  EXPECT_EQ(DigestOf("abcdefghijklmnopqrstuvwxyz"), "c3fcd3d76192e4007dfb496cca67e13b");
  EXPECT_EQ(DigestOf("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789"),
            "d174ab98d277d9f5a5611c2c9f419d9f");
  EXPECT_EQ(DigestOf("1234567890123456789012345678901234567890"
                     "1234567890123456789012345678901234567890"),
            "57edf4a22be3c955ac49da2e2107b67a");
}

TEST(TestMd5, DigestsAnEmptyBlockAndAnEmptyChallenge) {
  EXPECT_EQ(ToHex(Md5(Bytes(1280)), ""), "a5058431022ad56a091a49521b5cb35b");
}

}  // namespace
}  // namespace TQ::test
