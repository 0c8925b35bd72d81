#include "wire/inline_buffer.h"

#include "support/bytes.h"
#include "support/hex.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <new>
#include <string>

namespace TQ::test {
namespace {

using HeadBuffer = TQMemoryBufferTpl<128>;
using NameBuffer = TQMemoryBufferTpl<256>;

template <unsigned N>
std::string Hex(const TQMemoryBufferTpl<N>& buffer) {
  return ToHex(buffer.Data(), buffer.Size());
}

/// The data lies inside the buffer itself.
template <unsigned N>
bool IsInline(const TQMemoryBufferTpl<N>& buffer) {
  const auto data = reinterpret_cast<uintptr_t>(buffer.Data());
  const auto begin = reinterpret_cast<uintptr_t>(&buffer);
  return data >= begin && data < begin + sizeof buffer;
}

TEST(InlineBuffer, StartsEmptyInItsInlineStorage) {
  HeadBuffer head;
  EXPECT_EQ(head.Size(), 0u);
  EXPECT_EQ(head.Capacity(), 128u);
  EXPECT_TRUE(IsInline(head));
  NameBuffer name;
  EXPECT_EQ(name.Capacity(), 256u);
  EXPECT_TRUE(IsInline(name));
}

TEST(InlineBuffer, NeedsNoHeapForWhatFits) {
  HeadBuffer buffer;
  EXPECT_EQ(buffer.Reserve(0, 128), buffer.Data());
  EXPECT_EQ(buffer.Reserve(100, 28), buffer.Data());
  buffer.AppendAligned(Filled(128, 7).data(), 128);
  EXPECT_EQ(buffer.Size(), 128u);
  EXPECT_EQ(buffer.Capacity(), 128u);
  EXPECT_TRUE(IsInline(buffer));
}

TEST(InlineBuffer, GrowsToWhatIsNeededWithNBytesToSpare) {
  HeadBuffer buffer;
  buffer.Reserve(0, 129);
  EXPECT_EQ(buffer.Capacity(), 129u + 128u);
  EXPECT_FALSE(IsInline(buffer));
  buffer.Reserve(200, 57);
  EXPECT_EQ(buffer.Capacity(), 257u);
  buffer.Reserve(200, 58);
  EXPECT_EQ(buffer.Capacity(), 258u + 128u);
  EXPECT_EQ(buffer.Size(), 0u);

  NameBuffer name;
  name.Reserve(250, 7);
  EXPECT_EQ(name.Capacity(), 257u + 256u);
}

TEST(InlineBuffer, KeepsItsBytesWhenItLeavesTheInlineStorageAndWhenItGrowsAgain) {
  HeadBuffer buffer;
  const Bytes first = Pattern(100, 1);
  const Bytes second = Pattern(500, 2);
  const Bytes third = Pattern(5000, 3);
  buffer.AppendAligned(first.data(), 100);
  buffer.AppendAligned(second.data(), 500);
  EXPECT_EQ(buffer.Capacity(), 600u + 128u);
  buffer.AppendAligned(third.data(), 5000);
  EXPECT_EQ(buffer.Capacity(), 5600u + 128u);
  EXPECT_EQ(Hex(buffer), ToHex(Concat({first, second, third})));
}

TEST(InlineBuffer, NeverShrinks) {
  HeadBuffer buffer;
  buffer.Reserve(0, 1000);
  const uint8_t* const data = buffer.Data();
  EXPECT_EQ(buffer.Reserve(0, 1), data);
  EXPECT_EQ(buffer.Capacity(), 1128u);
}

TEST(InlineBuffer, AppendsBytesWithZerosUpToAMultipleOfFour) {
  HeadBuffer buffer;
  std::memset(buffer.Reserve(0, 128), 0xEE, 128);
  buffer.AppendAligned(nullptr, 0);
  EXPECT_EQ(buffer.Size(), 0u);
  buffer.AppendAligned("\x01", 1);
  buffer.AppendAligned("\x02\x03\x04\x05", 4);
  buffer.AppendAligned("\x06\x07\x08\x09\x0a\x0b", 6);
  EXPECT_EQ(Hex(buffer), "01 00 00 00 02 03 04 05 06 07 08 09 0a 0b 00 00");
}

TEST(InlineBuffer, PadsAlsoWhereTheHeapBlockIsNew) {
  HeadBuffer buffer;
  buffer.AppendAligned(Filled(128, 1).data(), 128);
  buffer.AppendAligned("\x02", 1);
  EXPECT_EQ(buffer.Size(), 132u);
  EXPECT_EQ(ToHex(buffer.Data() + 128, 4), "02 00 00 00");
}

TEST(InlineBuffer, ReadsWordsLittleEndianAtAnyPosition) {
  HeadBuffer buffer;
  buffer.AppendAligned("\x01\x02\x03\x04\x05\x06\x07\x08", 8);
  EXPECT_EQ(buffer.DwordAt(0), 0x04030201u);
  EXPECT_EQ(buffer.DwordAt(3), 0x07060504u);
  EXPECT_EQ(buffer.DwordAt(4), 0x08070605u);
}

TEST(InlineBuffer, HasNoWordAtOrBeyondItsSize) {
  HeadBuffer buffer;
  EXPECT_THROW(buffer.DwordAt(0), HeadBuffer::NoDataExeption);
  buffer.AppendAligned("\x01\x02\x03\x04\x05\x06\x07\x08", 8);
  for (const uint64_t position : {uint64_t{5}, uint64_t{7}, uint64_t{8}, uint64_t{9}, uint64_t{100},
                                  uint64_t{0xFFFFFFFFFFFFFFFF}}) {
    EXPECT_THROW(buffer.DwordAt(position), HeadBuffer::NoDataExeption) << position;
  }
}

TEST(InlineBuffer, EachInstanceHasAnExceptionOfItsOwn) {
  NameBuffer name;
  bool caughtOther = false;
  try {
    name.DwordAt(0);
  } catch (const HeadBuffer::NoDataExeption&) {
    caughtOther = true;
  } catch (const NameBuffer::NoDataExeption&) {
  }
  EXPECT_FALSE(caughtOther);
}

TEST(InlineBuffer, StaysAsItWasWhenTheHeapIsExhausted) {
  HeadBuffer buffer;
  buffer.AppendAligned("\x01\x02\x03\x04", 4);
  EXPECT_THROW(buffer.Reserve(4, uint64_t{1} << 62), std::bad_alloc);
  EXPECT_TRUE(IsInline(buffer));
  EXPECT_EQ(buffer.Capacity(), 128u);
  EXPECT_EQ(Hex(buffer), "01 02 03 04");

  buffer.AppendAligned(Filled(200, 5).data(), 200);
  const std::string before = Hex(buffer);
  EXPECT_THROW(buffer.Reserve(204, uint64_t{1} << 62), std::bad_alloc);
  EXPECT_EQ(Hex(buffer), before);
  EXPECT_EQ(buffer.Capacity(), 204u + 128u);
}

}  // namespace
}  // namespace TQ::test
