#include "support/bytes.h"
#include "support/hex.h"
#include "support/memory_channel.h"

#include <tq/diagnostics.h>
#include <tq/memory_buffer.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <new>
#include <string>
#include <vector>

namespace TQ::test {
namespace {

using Sizes = std::vector<uint32_t>;

/// The block with its operations open, as the list has them.
class Block final : public TQMemoryBufferTpl2<0> {
 public:
  Block() = default;
  ~Block() { TQFree(data); }

  using TQMemoryBufferTpl2<0>::AppendAligned;
  using TQMemoryBufferTpl2<0>::AppendDword;
  using TQMemoryBufferTpl2<0>::AppendFromChannel;
  using TQMemoryBufferTpl2<0>::AppendName;
  using TQMemoryBufferTpl2<0>::At;
  using TQMemoryBufferTpl2<0>::Grow;
  using TQMemoryBufferTpl2<0>::WriteWithDescriptor;
  using TQMemoryBufferTpl2<0>::capacity;
  using TQMemoryBufferTpl2<0>::data;
  using TQMemoryBufferTpl2<0>::size;

  std::string Hex() const { return ToHex(data, size); }
};

// ---- in memory ----------------------------------------------------------------------------------

TEST(BlockBuffer, IsEmptyAndHasNoMemoryAtFirst) {
  const Block block;
  EXPECT_EQ(block.size, 0u);
  EXPECT_EQ(block.capacity, 0u);
  EXPECT_EQ(block.data, nullptr);
}

TEST(BlockBuffer, GrowsToExactlyWhatEachAppendNeeds) {
  Block block;
  block.AppendName("a", 2);
  EXPECT_EQ(block.size, 4u);
  EXPECT_EQ(block.capacity, 4u);
  block.AppendDword(7);
  EXPECT_EQ(block.size, 8u);
  EXPECT_EQ(block.capacity, 8u);
  block.AppendAligned("12345", 5);
  EXPECT_EQ(block.size, 16u);
  EXPECT_EQ(block.capacity, 16u);
  for (uint32_t size = 20; size < 4000; size += 4) {
    block.AppendDword(size);
    ASSERT_EQ(block.capacity, size);
  }
}

TEST(BlockBuffer, GrowsOnlyWhenTheBytesDoNotFit) {
  Block block;
  block.AppendAligned(Filled(16, 1).data(), 16);
  block.size = 8;
  block.AppendDword(2);
  EXPECT_EQ(block.capacity, 16u);
  block.AppendDword(3);
  EXPECT_EQ(block.capacity, 16u);
  block.AppendDword(4);
  EXPECT_EQ(block.capacity, 20u);
  EXPECT_EQ(block.Hex(), "01 01 01 01 01 01 01 01 02 00 00 00 03 00 00 00 04 00 00 00");
}

TEST(BlockBuffer, GrowGivesThePlaceBehindTheEndAndKeepsTheSize) {
  Block block;
  block.AppendDword(1);
  uint8_t* const place = block.Grow(10);
  EXPECT_EQ(place, block.data + 4);
  EXPECT_EQ(block.size, 4u);
  EXPECT_EQ(block.capacity, 14u);
  EXPECT_EQ(block.Grow(0), block.data + 4);
  EXPECT_EQ(block.capacity, 14u);
}

TEST(BlockBuffer, RefusesToGrowTo4GiB) {
  Block block;
  block.AppendDword(1);
  EXPECT_THROW(block.Grow(0xFFFFFFFC), std::bad_alloc);
  EXPECT_THROW(block.Grow(0xFFFFFFFF), std::bad_alloc);
  EXPECT_THROW(block.AppendAligned(nullptr, 0xFFFFFFFD), std::bad_alloc);
  EXPECT_THROW(block.AppendAligned(nullptr, 0xFFFFFFFF), std::bad_alloc);
  EXPECT_EQ(block.Hex(), "01 00 00 00");
  EXPECT_EQ(block.capacity, 4u);
}

TEST(BlockBuffer, AppendsHeadsThatEndWithTheType) {
  Block block;
  block.AppendName("", 1);
  block.AppendName("a", 0x81);
  block.AppendName("ab", 2);
  block.AppendName("abcdef", 5);
  EXPECT_EQ(block.Hex(),
            "03 00 00 01 03 61 00 81 07 61 62 00 00 00 00 02 0b 61 62 63 64 65 66 00 00 00 00 05");
}

TEST(BlockBuffer, AppendsBytesWithZerosUpToAMultipleOfFour) {
  Block block;
  block.AppendAligned("", 0);
  EXPECT_EQ(block.data, nullptr);
  block.AppendAligned(nullptr, 0);
  block.AppendAligned("\xff", 1);
  block.AppendAligned("\xff\xff\xff\xff", 4);
  block.AppendAligned("\xff\xff\xff\xff\xff\xff\xff", 7);
  EXPECT_EQ(block.Hex(), "ff 00 00 00 ff ff ff ff ff ff ff ff ff ff ff 00");
}

TEST(BlockBuffer, AppendsWordsLittleEndian) {
  Block block;
  block.AppendDword(0x01020304);
  EXPECT_EQ(block.Hex(), "04 03 02 01");
}

TEST(BlockBuffer, GivesNoBytesAtOrBeyondItsSize) {
  using NoData = TQMemoryBufferTpl2<0>::NoDataExeption;
  Block block;
  EXPECT_THROW(block.At(0, 1), NoData);
  block.AppendDword(1);
  block.AppendDword(2);
  block.size = 6;
  EXPECT_EQ(block.At(0, 6), block.data);
  EXPECT_EQ(block.At(2, 4), block.data + 2);
  EXPECT_THROW(block.At(3, 4), NoData);
  EXPECT_THROW(block.At(6, 1), NoData);
  EXPECT_THROW(block.At(7, 0), NoData);
  EXPECT_THROW(block.At(0, 7), NoData);
  EXPECT_THROW(block.At(0xFFFFFFFF, 4), NoData);
  EXPECT_THROW(block.At(4, 0xFFFFFFFF), NoData);
}

// ---- from a channel -----------------------------------------------------------------------------

TEST(BlockBuffer, ReadsBehindWhatItHasInOneRead) {
  Block block;
  MemoryChannel channel(FromHex("01 02 03 04 05 06 07"));
  EXPECT_EQ(block.AppendFromChannel(channel, 3), 3);
  EXPECT_EQ(block.Hex(), "01 02 03");
  EXPECT_EQ(block.capacity, 3u);
  EXPECT_EQ(block.AppendFromChannel(channel, 4), 4);
  EXPECT_EQ(block.Hex(), "01 02 03 04 05 06 07");
  EXPECT_EQ(block.capacity, 7u);
  EXPECT_EQ(channel.ReadSizes(), (Sizes{3, 4}));
}

TEST(BlockBuffer, ReadsWithinTheChannelsLimitAndNotTheStopFlags) {
  Block block;
  MemoryChannel channel(Filled(4, 1));
  block.AppendFromChannel(channel, 4);
  EXPECT_EQ(channel.ReadFlags(), std::vector<const TQ::detail::StopFlag*>{nullptr});
}

TEST(BlockBuffer, AFailedReadKeepsTheSizeButHasGrownTheCapacity) {
  Block block;
  block.AppendDword(1);
  MemoryChannel channel;
  EXPECT_EQ(block.AppendFromChannel(channel, 100), -1);
  EXPECT_EQ(block.Hex(), "01 00 00 00");
  EXPECT_EQ(block.capacity, 104u);
}

TEST(BlockBuffer, AReadGivesTheChannelsOwnFailure) {
  Block block;
  MemoryChannel channel(Filled(8, 1));
  channel.FailOperation(1, -7);
  EXPECT_EQ(block.AppendFromChannel(channel, 8), -7);
  EXPECT_EQ(block.size, 0u);
}

TEST(BlockBuffer, AReadForWhichItCannotGrowFailsBeforeTheChannelIsAsked) {
  Block block;
  block.AppendDword(1);
  MemoryChannel channel(Filled(8, 1));
  EXPECT_EQ(block.AppendFromChannel(channel, 0xFFFFFFFF), -1);
  EXPECT_EQ(block.Hex(), "01 00 00 00");
  EXPECT_EQ(block.capacity, 4u);
  EXPECT_TRUE(channel.ReadSizes().empty());
}

TEST(BlockBuffer, ReadsNoBytes) {
  Block block;
  MemoryChannel channel;
  EXPECT_EQ(block.AppendFromChannel(channel, 0), 0);
  EXPECT_EQ(block.size, 0u);
}

// ---- to a channel -------------------------------------------------------------------------------

TEST(BlockBuffer, WritesTheBlockAndThenTheDescriptorInTwoWrites) {
  Block block;
  block.AppendAligned("abcdefgh", 8);
  MemoryChannel channel;
  EXPECT_EQ(block.WriteWithDescriptor(channel, 0x01020304, 5), 16);
  EXPECT_EQ(ToHex(channel.Written()), "61 62 63 64 65 66 67 68 04 03 02 01 05 00 00 00");
  EXPECT_EQ(channel.WriteSizes(), (Sizes{8, 8}));
}

TEST(BlockBuffer, WritesAnEmptyBlockToo) {
  const Block block;
  MemoryChannel channel;
  EXPECT_EQ(block.WriteWithDescriptor(channel, 1, 2), 8);
  EXPECT_EQ(ToHex(channel.Written()), "01 00 00 00 02 00 00 00");
  EXPECT_EQ(channel.WriteSizes(), (Sizes{0, 8}));
}

TEST(BlockBuffer, AFailedWriteOfTheBlockGivesTheChannelsFailureAndWritesNoDescriptor) {
  Block block;
  block.AppendDword(1);
  MemoryChannel channel;
  channel.FailOperation(1, -7);
  EXPECT_EQ(block.WriteWithDescriptor(channel, 1, 2), -7);
  EXPECT_EQ(channel.WriteSizes(), Sizes{4});
}

TEST(BlockBuffer, AFailedWriteOfTheDescriptorIsMinusOne) {
  Block block;
  block.AppendDword(1);
  MemoryChannel channel;
  channel.FailOperation(2, -7);
  EXPECT_EQ(block.WriteWithDescriptor(channel, 1, 2), -1);
  EXPECT_EQ(channel.WriteSizes(), (Sizes{4, 8}));
}

/// Takes everything and says that it has taken as much as can be said.
class EndlessChannel final : public ITransportChannel {
 public:
  bool CheckValid() const override { return true; }
  int32_t Receive(void*, uint32_t, const TQ::detail::StopFlag*) override { return -1; }
  int32_t Receive(void*, uint32_t) override { return -1; }
  int32_t Send(const void*, uint32_t) override { return INT32_MAX; }
  std::string GetRemoteAddress() const override { return {}; }
  std::string GetLocalAddress() const override { return {}; }
  int32_t WaitForData(uint32_t) override { return -1; }
  int32_t WaitForData() override { return -1; }
  void Wakeup() override {}
};

TEST(BlockBuffer, AWriteOf2GiBIsNoFailure) {
  const Block block;
  EndlessChannel channel;
  EXPECT_EQ(block.WriteWithDescriptor(channel, 1, 2), INT32_MAX);
}

}  // namespace
}  // namespace TQ::test
