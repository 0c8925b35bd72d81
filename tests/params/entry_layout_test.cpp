#include "params/entry_layout.h"

#include "support/bytes.h"
#include "support/hex.h"
#include "support/seeded_random.h"

#include <tq/memory_buffer.h>
#include <tq/types.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <iterator>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace TQ::test {
namespace {

using namespace TQ::detail;
using NoData = TQMemoryBufferTpl2<0>::NoDataExeption;
using Damaged = _tag_TQPARAMVALUE::DataDamaged;

/// ValueSizeWithin over a copy that ends where the bytes end, so that a sanitizer sees a read
/// beyond them.
uint64_t SizeOf(const Bytes& value) {
  const std::unique_ptr<uint8_t[]> exact(new uint8_t[value.size()]);
  if (!value.empty()) std::memcpy(exact.get(), value.data(), value.size());
  return ValueSizeWithin(exact.get(), value.size());
}

/// What a step over an entry comes to: its length, or -1 for no data and -2 for damage.
template <typename Step>
int64_t OutcomeOf(Step step, const Bytes& block) {
  const std::unique_ptr<uint8_t[]> exact(new uint8_t[block.size()]);
  std::memcpy(exact.get(), block.data(), block.size());
  try {
    return static_cast<int64_t>(step(exact.get(), exact.get() + block.size()));
  } catch (const NoData&) {
    return -1;
  } catch (const Damaged&) {
    return -2;
  }
}

TEST(EntryLayout, QuickStepsAreTheOnesThatGoByteByByte) {
  SeededRandom random(1);
  constexpr uint8_t TYPES[] = {0, 1, 2, 3, 4, 5, 6, 0x80, 0x81, 0x82, 0x83, 0x84, 0x85, 0x86, 0xFF};
  int steps = 0;
  for (int i = 0; i < 200000; ++i) {
    Bytes block(1 + random.Below(40));
    // Small numbers and zeros, so that counts, offsets and texts often fit.
    for (uint8_t& byte : block) {
      byte = static_cast<uint8_t>(random.OneIn(2) ? 0 : random.Below(random.OneIn(4) ? 256 : 8));
    }
    const uint32_t head = random.Below(9);
    block[0] = static_cast<uint8_t>(head);
    if (head < block.size()) block[head] = TYPES[random.Below(std::size(TYPES))];
    const int64_t slow = OutcomeOf(StepOverSlowly, block);
    ASSERT_EQ(OutcomeOf(StepOver, block), slow) << ToHex(block);
    steps += slow > 0 ? 1 : 0;
  }
  EXPECT_GT(steps, 20000) << "hardly any block was one";
}

uint64_t SizeOf(const char* hex) { return SizeOf(FromHex(hex)); }

TEST(EntryLayout, PadsToMultiplesOfFourWithoutOverflow) {
  const std::vector<std::pair<uint64_t, uint64_t>> cases = {
      {0, 0}, {1, 4}, {3, 4}, {4, 4}, {5, 8}, {0xFFFFFFFD, 0x100000000}, {0xFFFFFFFF, 0x100000000}};
  for (const auto& [given, padded] : cases) EXPECT_EQ(Padded(given), padded) << given;
}

TEST(EntryLayout, HeadsHaveRoomForTheOffsetTheTerminatorAndTheType) {
  const std::vector<std::pair<uint64_t, uint64_t>> cases = {
      {0, 4}, {1, 4}, {2, 8}, {5, 8}, {6, 12}, {9, 12}, {253, 256}, {254, 260}, {257, 260}};
  for (const auto& [length, size] : cases) EXPECT_EQ(HeadSize(length), size) << length;
}

TEST(EntryLayout, ArrayCodesAreTheElementsWithTheTopBit) {
  EXPECT_EQ(ArrayOf(PT_STRING), 0x81);
  EXPECT_EQ(ArrayOf(PT_INT32), 0x82);
  EXPECT_EQ(ArrayOf(PT_INT64), 0x83);
  EXPECT_EQ(ArrayOf(PT_PARAMHANDLE), 0x84);
  EXPECT_EQ(ArrayOf(PT_BINARY), 0x85);
}

TEST(EntryLayout, ValueSizeCountsTheTypeByteAndThePayload) {
  EXPECT_EQ(SizeOf("01 00"), 1u + 4u);
  EXPECT_EQ(SizeOf("01 61 62 63 00"), 1u + 4u);
  EXPECT_EQ(SizeOf("01 61 62 63 64 00"), 1u + 8u);
  EXPECT_EQ(SizeOf("02 00 00 00 00"), 5u);
  EXPECT_EQ(SizeOf("03 00 00 00 00 00 00 00 00"), 9u);
  EXPECT_EQ(SizeOf("04 ff ff ff ff"), 5u);
  EXPECT_EQ(SizeOf("05 00 00 00 00"), 5u);
  EXPECT_EQ(SizeOf("05 01 00 00 00 aa"), 5u + 4u);
  EXPECT_EQ(SizeOf("05 04 00 00 00 aa aa aa aa"), 5u + 4u);
  EXPECT_EQ(SizeOf("05 05 00 00 00 aa aa aa aa aa"), 5u + 8u);
  EXPECT_EQ(SizeOf("81 02 00 00 00 00 00 00 00 04 00 00 00 61 00 00 00 62 63 64 00"),
            5u + 8u + 4u + 4u);
  EXPECT_EQ(SizeOf("82 02 00 00 00"), 5u + 8u);
  EXPECT_EQ(SizeOf("83 02 00 00 00"), 5u + 16u);
  EXPECT_EQ(SizeOf("84 02 00 00 00"), 5u + 8u);
  EXPECT_EQ(SizeOf("85 01 00 00 00 00 00 00 00 03 00 00 00 01 02 03 00"), 5u + 4u + 4u + 4u);
}

TEST(EntryLayout, EmptyArraysEndBehindTheirCount) {
  for (uint8_t type = 0x81; type <= 0x85; ++type) {
    EXPECT_EQ(SizeOf(Concat({Bytes{type}, U32(0)})), 5u) << int{type};
  }
}

TEST(EntryLayout, OffsetArraysAreMeasuredByTheirLastElementAlone) {
  // The first offset points far outside, the last one back to the first element.
  EXPECT_EQ(SizeOf("81 02 00 00 00 ff ff ff 7f 00 00 00 00 61 00 00 00"), 5u + 8u + 0u + 4u);
  EXPECT_EQ(SizeOf("81 01 00 00 00 08 00 00 00 01 02 03 04 05 06 07 08 61 62 63 64 00"),
            5u + 4u + 8u + 8u);
  EXPECT_EQ(SizeOf("85 02 00 00 00 ff ff ff ff 04 00 00 00 00 00 00 00 05 00 00 00"),
            5u + 8u + 4u + 4u + 8u);
}

TEST(EntryLayout, TypesOfNoKnownCodeAreDamagedData) {
  for (uint32_t type = 0; type <= 0xFF; ++type) {
    Bytes value = Filled(64, 0);
    value[0] = static_cast<uint8_t>(type);
    const uint32_t element = type & 0x7F;
    if (element >= PT_STRING && element <= PT_BINARY) {
      EXPECT_NO_THROW(SizeOf(value)) << type;
    } else {
      EXPECT_THROW(SizeOf(value), Damaged) << type;
    }
  }
}

TEST(EntryLayout, AValueThatEndsTooSoonToBeMeasuredIsNoData) {
  EXPECT_THROW(SizeOf(""), NoData);
  EXPECT_THROW(SizeOf("01"), NoData);
  EXPECT_THROW(SizeOf("01 61 62 63"), NoData);
  EXPECT_THROW(SizeOf("05"), NoData);
  EXPECT_THROW(SizeOf("05 00 00 00"), NoData);
  for (const char* type : {"81", "82", "83", "84", "85"}) {
    EXPECT_THROW(SizeOf(type), NoData) << type;
    EXPECT_THROW(SizeOf((std::string(type) + "00 00 00").c_str()), NoData) << type;
  }
  // The offset table ends too soon, or its last offset leads outside, or what stands there does.
  for (const char* type : {"81", "85"}) {
    EXPECT_THROW(SizeOf((std::string(type) + "02 00 00 00 00 00 00 00").c_str()), NoData) << type;
    EXPECT_THROW(SizeOf((std::string(type) + "01 00 00 00 04 00 00 00 00 00 00 00").c_str()),
                 NoData)
        << type;
    EXPECT_THROW(SizeOf((std::string(type) + "01 00 00 00 fc ff ff ff 00 00 00 00").c_str()),
                 NoData)
        << type;
    EXPECT_THROW(SizeOf((std::string(type) + "ff ff ff ff 00 00 00 00 00 00 00 00").c_str()),
                 NoData)
        << type;
  }
  EXPECT_THROW(SizeOf("81 01 00 00 00 00 00 00 00 61 62 63 64"), NoData);
  EXPECT_THROW(SizeOf("85 01 00 00 00 00 00 00 00 01 00 00"), NoData);
}

TEST(EntryLayout, FixedSizesAreToldWithoutReadingThePayload) {
  EXPECT_EQ(SizeOf("02"), 5u);
  EXPECT_EQ(SizeOf("03"), 9u);
  EXPECT_EQ(SizeOf("04 00"), 5u);
}

TEST(EntryLayout, LargeCountsAndLengthsAreMeasuredIn64Bits) {
  EXPECT_EQ(SizeOf("05 ff ff ff ff"), 5u + 0x100000000u);
  EXPECT_EQ(SizeOf("05 fd ff ff ff"), 5u + 0x100000000u);
  EXPECT_EQ(SizeOf("82 ff ff ff ff"), 5u + 4u * 0xFFFFFFFFull);
  EXPECT_EQ(SizeOf("82 00 00 00 40"), 5u + 0x100000000u);
  EXPECT_EQ(SizeOf("83 ff ff ff ff"), 5u + 8u * 0xFFFFFFFFull);
  EXPECT_EQ(SizeOf("83 00 00 00 20"), 5u + 0x100000000u);
  EXPECT_EQ(SizeOf("84 ff ff ff ff"), 5u + 4u * 0xFFFFFFFFull);
  EXPECT_EQ(SizeOf("85 01 00 00 00 00 00 00 00 ff ff ff ff"), 5u + 4u + 4u + 0x100000000u);
}

TEST(EntryLayout, TheRecordsOwnValueSizeTakesTheValueAtItsWord) {
  const Bytes text = FromHex("01 61 62 63 64 00");
  EXPECT_EQ(_tag_TQPARAMVALUE::ValueSize(reinterpret_cast<const _tag_TQPARAMVALUE*>(text.data())),
            9u);
  const Bytes array = FromHex("81 02 00 00 00 00 00 00 00 04 00 00 00 61 00 00 00 62 63 64 00");
  EXPECT_EQ(_tag_TQPARAMVALUE::ValueSize(reinterpret_cast<const _tag_TQPARAMVALUE*>(array.data())),
            21u);
  const Bytes unknown = FromHex("06 00 00 00 00");
  EXPECT_THROW(
      _tag_TQPARAMVALUE::ValueSize(reinterpret_cast<const _tag_TQPARAMVALUE*>(unknown.data())),
      Damaged);
}

TEST(EntryLayout, ANullValueHasNoSize) { EXPECT_EQ(_tag_TQPARAMVALUE::ValueSize(nullptr), 0u); }

}  // namespace
}  // namespace TQ::test
