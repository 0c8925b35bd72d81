// The name strings of the handshake: what is written, and what a reader makes of every kind of
// bytes.
#include "session/name_string.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "frame/settings.h"
#include "support/bytes.h"
#include "support/hex.h"
#include "support/memory_channel.h"

namespace TQ::test {
namespace {

using detail::ReadNameString;
using detail::WriteLocalName;

struct Written {
  int32_t result = 0;
  Bytes bytes;
  std::vector<uint32_t> sizes;
};

Written WriteName(const std::string& name) {
  detail::localApplicationName.Set(name);
  MemoryChannel channel;
  Written written;
  written.result = WriteLocalName(channel);
  written.bytes = channel.Written();
  written.sizes = channel.WriteSizes();
  EXPECT_TRUE(channel.ReadSizes().empty());
  return written;
}

TEST(WriteLocalName, PadsTheTextAndItsTerminatorToFour) {
  EXPECT_EQ(ToHex(WriteName("abc").bytes), "04 00 00 00 61 62 63 00");
  EXPECT_EQ(ToHex(WriteName("abcd").bytes), "08 00 00 00 61 62 63 64 00 00 00 00");
  EXPECT_EQ(ToHex(WriteName("abcde").bytes), "08 00 00 00 61 62 63 64 65 00 00 00");
  EXPECT_EQ(ToHex(WriteName("abcdef").bytes), "08 00 00 00 61 62 63 64 65 66 00 00");
  EXPECT_EQ(ToHex(WriteName("abcdefg").bytes), "08 00 00 00 61 62 63 64 65 66 67 00");
}

TEST(WriteLocalName, SendsTheEmptyNameAsFourZeroBytes) {
  EXPECT_EQ(ToHex(WriteName("").bytes), "04 00 00 00 00 00 00 00");
}

TEST(WriteLocalName, SendsNamesOfAnyLength) {
  for (const size_t length : {1u, 2u, 254u, 255u, 256u, 257u, 1000u, 70001u}) {
    const std::string name(length, 'n');
    const Written written = WriteName(name);
    const size_t padded = (length + 4) / 4 * 4;
    ASSERT_EQ(written.bytes.size(), 4 + padded) << length;
    EXPECT_EQ(ReadU32(written.bytes.data()), padded);
    Bytes expected = ToBytes(name);
    expected.resize(padded);
    EXPECT_EQ(Bytes(written.bytes.begin() + 4, written.bytes.end()), expected) << length;
  }
}

TEST(WriteLocalName, AnnouncesAtMostWhatAReaderTakesUpTo255Bytes) {
  EXPECT_EQ(ReadU32(WriteName(std::string(255, 'n')).bytes.data()), 256u);
  EXPECT_EQ(ReadU32(WriteName(std::string(256, 'n')).bytes.data()), 260u);
}

TEST(WriteLocalName, UsesOneWriteAndGivesItsResult) {
  for (const size_t length : {0u, 3u, 4u, 255u, 5000u}) {
    const Written written = WriteName(std::string(length, 'n'));
    const auto size = static_cast<uint32_t>(4 + (length + 4) / 4 * 4);
    EXPECT_EQ(written.sizes, std::vector<uint32_t>{size});
    EXPECT_EQ(written.result, static_cast<int32_t>(size));
  }
}

TEST(WriteLocalName, GivesTheFailureOfTheWrite) {
  detail::localApplicationName.Set("here:1/app");
  MemoryChannel channel;
  channel.FailOperation(1, -1);
  EXPECT_EQ(WriteLocalName(channel), -1);
  EXPECT_EQ(channel.WriteSizes().size(), 1u);
}

struct Read {
  std::string name;
  size_t unread = 0;
  std::vector<uint32_t> sizes;
};

Read ReadName(const Bytes& bytes) {
  MemoryChannel channel(bytes);
  Read read;
  read.name = ReadNameString(channel);
  read.unread = channel.Remaining();
  read.sizes = channel.ReadSizes();
  EXPECT_TRUE(channel.WriteSizes().empty());
  for (const auto* flag : channel.ReadFlags()) {
    EXPECT_EQ(flag, nullptr) << "the handshake's reads have a time limit";
  }
  return read;
}

Bytes Announced(uint32_t paddedLength, const Bytes& text) {
  return Concat({U32(paddedLength), text});
}

TEST(ReadNameString, TakesTheLengthAndThenThatManyBytes) {
  const Read read =
      ReadName(Concat({Announced(8, ToBytes(std::string("host\0\0\0\0", 8))), Filled(3, 9)}));
  EXPECT_EQ(read.name, "host");
  EXPECT_EQ(read.sizes, (std::vector<uint32_t>{4, 8}));
  EXPECT_EQ(read.unread, 3u);
}

TEST(ReadNameString, KeepsTheTextUpToItsFirstZero) {
  EXPECT_EQ(ReadName(Announced(12, ToBytes(std::string("ab\0cd\0efghij", 12)))).name, "ab");
}

TEST(ReadNameString, GivesNothingWhenTheTextBeginsWithAZero) {
  const Read read = ReadName(Announced(8, ToBytes(std::string("\0bcdefgh", 8))));
  EXPECT_EQ(read.name, "");
  EXPECT_EQ(read.unread, 0u);
}

TEST(ReadNameString, TakesLengthsThatAreNoMultipleOfFour) {
  for (const uint32_t length : {1u, 2u, 3u, 5u, 255u}) {
    EXPECT_EQ(ReadName(Announced(length, Filled(length, 'x'))).name, std::string(length, 'x'));
  }
}

TEST(ReadNameString, GivesNothingForALengthOfZero) {
  const Read read = ReadName(Announced(0, ToBytes("abcd")));
  EXPECT_EQ(read.name, "");
  EXPECT_EQ(read.unread, 4u);
}

TEST(ReadNameString, TakesANameOf255Bytes) {
  const std::string name(255, 'n');
  Bytes text = ToBytes(name);
  text.push_back(0);
  const Read read = ReadName(Announced(256, text));
  EXPECT_EQ(read.name, name);
  EXPECT_EQ(read.unread, 0u);
}

TEST(ReadNameString, TakesATextOf256BytesWithoutAZeroAsANameOf256) {
  const Read read = ReadName(Announced(256, Filled(256, 'n')));
  EXPECT_EQ(read.name, std::string(256, 'n'));
  EXPECT_EQ(read.unread, 0u);
}

TEST(ReadNameString, GivesNothingAboveALengthOf256AndLeavesTheBytesUnread) {
  for (const uint32_t length : {257u, 260u, 0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFFu}) {
    const Read read = ReadName(Announced(length, Filled(260, 'n')));
    EXPECT_EQ(read.name, "") << length;
    EXPECT_EQ(read.unread, 260u) << length;
    EXPECT_EQ(read.sizes, std::vector<uint32_t>{4}) << length;
  }
}

TEST(ReadNameString, GivesNothingForANameThatIsWrittenWith256Bytes) {
  MemoryChannel channel(WriteName(std::string(256, 'n')).bytes);
  EXPECT_EQ(ReadNameString(channel), "");
  EXPECT_EQ(channel.Remaining(), 260u);
}

TEST(ReadNameString, ReadsBackEveryNameThatIsWrittenWithUpTo255Bytes) {
  for (size_t length = 0; length <= 255; ++length) {
    const std::string name(length, 'n');
    MemoryChannel channel(WriteName(name).bytes);
    EXPECT_EQ(ReadNameString(channel), name);
    EXPECT_EQ(channel.Remaining(), 0u);
  }
}

TEST(ReadNameString, GivesNothingWhenTheLengthCannotBeRead) {
  for (size_t bytes = 0; bytes < 4; ++bytes) {
    const Read read = ReadName(Filled(bytes, 4));
    EXPECT_EQ(read.name, "") << bytes;
    EXPECT_EQ(read.sizes, std::vector<uint32_t>{4}) << bytes;
  }
}

TEST(ReadNameString, GivesNothingWhenTheTextCannotBeRead) {
  for (size_t bytes = 0; bytes < 8; ++bytes) {
    EXPECT_EQ(ReadName(Announced(8, Filled(bytes, 'x'))).name, "") << bytes;
  }
}

TEST(ReadNameString, GivesNothingWhenTheReadFailsHalfway) {
  MemoryChannel channel(Announced(4, ToBytes(std::string("abc\0", 4))));
  channel.FailOperation(2, -1);
  EXPECT_EQ(ReadNameString(channel), "");
}

TEST(ReadNameString, KeepsBytesOfAnyValue) {
  const std::string name = "\x01\x7f\x80\xff:\xc3\xa4/";
  Bytes text = ToBytes(name);
  text.resize(12);
  EXPECT_EQ(ReadName(Announced(12, text)).name, name);
}

}  // namespace
}  // namespace TQ::test
