// Blocks that no writer makes: what the walk, the getters, stores and removal do with them. Each
// block ends where its memory ends, so that a sanitizer sees a read beyond it.
#include "params/list_store.h"
#include "support/param_lists.h"
#include "support/seeded_random.h"

#include <tq/tq.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace TQ::test {
namespace {

using Damaged = _tag_TQPARAMVALUE::DataDamaged;
using NoData = TQMemoryBufferTpl2<0>::NoDataExeption;
using Names = std::vector<std::string>;

enum class Outcome { FINE, DAMAGED, NO_DATA };

/// Runs `use`; any other exception is the test's failure.
Outcome OutcomeOf(const std::function<void()>& use) {
  try {
    use();
  } catch (const Damaged&) {
    return Outcome::DAMAGED;
  } catch (const NoData&) {
    return Outcome::NO_DATA;
  }
  return Outcome::FINE;
}

Outcome CountOutcome(const Bytes& block) {
  const OwnedList list = ListOfBlock(block);
  return OutcomeOf([&] { list.Impl().CountParams(); });
}

// ---- types of no known code ---------------------------------------------------------------------

TEST(HostileBlock, AnUnknownTypeIsDamageForAWalkThatStepsOverIt) {
  for (const int type : {0, 6, 0x7F, 0x80, 0x86, 0xFF}) {
    SCOPED_TRACE(type);
    const OwnedList list = ListOfBlock(RawList()
                                           .Int32("a", 1)
                                           .Entry("b", static_cast<uint8_t>(type), U32(2))
                                           .Int32("c", 3)
                                           .Block());
    const Bytes block = BlockOf(list);
    EXPECT_THROW(TQParamInfo(list, "c"), Damaged);
    EXPECT_THROW(TQGetInt32Value(list, "c"), Damaged);
    EXPECT_THROW(TQGetStringValue(list, "none"), Damaged);
    EXPECT_THROW(TQSetInt32Value(list, "c", 1), Damaged);
    EXPECT_THROW(TQRemoveValue(list, "c"), Damaged);
    EXPECT_THROW(TQParamByIndex(list, 2), Damaged);
    EXPECT_THROW(TQGetNextParam(list, TQParamInfo(list, "b")), Damaged);
    EXPECT_THROW(list.Impl().CountParams(), Damaged);
    EXPECT_EQ(BlockOf(list), block);
  }
}

TEST(HostileBlock, AnUnknownTypeIsNoDamageForAWalkThatEndsBeforeIt) {
  const OwnedList list =
      ListOfBlock(RawList().Int32("a", 1).Entry("b", 6, U32(2)).Int32("c", 3).Block());
  EXPECT_EQ(TQGetInt32Value(list, "a"), 1u);
  ASSERT_NE(TQParamInfo(list, "b"), nullptr);
  EXPECT_EQ(TQParamInfo(list, "b")->Value()->type, 6u);
  EXPECT_EQ(TQGetInt32Value(list, "b"), 0u);
  EXPECT_EQ(TQGetStringValue(list, "b"), nullptr);
  EXPECT_EQ(TQGetHandleValue(list, "b").impl, nullptr);
  EXPECT_STREQ(TQParamByIndex(list, 1)->name, "b");
  EXPECT_STREQ(TQGetNextParam(list, TQGetFirstParam(list))->name, "b");
}

TEST(HostileBlock, AnEntryOfUnknownTypeCanNeitherBeRemovedNorReplaced) {
  const OwnedList list = ListOfBlock(RawList().Entry("b", 6, U32(2)).Block());
  const Bytes block = BlockOf(list);
  EXPECT_THROW(TQRemoveValue(list, "b"), Damaged);
  EXPECT_THROW(TQSetInt32Value(list, "b", 1), Damaged);
  EXPECT_THROW(TQRemoveParamByInfo(list, TQGetFirstParam(list)), Damaged);
  EXPECT_EQ(BlockOf(list), block);
  EXPECT_EQ(TQRemoveAllValues(list), TQ_ERR_OK);
  EXPECT_EQ(TQSetInt32Value(list, "b", 1), TQ_ERR_OK);
  EXPECT_EQ(RawOf(list), RawList().Int32("b", 1));
}

// ---- steps beyond the end -----------------------------------------------------------------------

TEST(HostileBlock, AStepBeyondTheEndIsNoData) {
  const OwnedList list =
      ListOfBlock(RawList().Int32("a", 1).Entry("b", RAW_BINARY, U32(100)).Block());
  const Bytes block = BlockOf(list);
  EXPECT_THROW(TQParamInfo(list, "c"), NoData);
  EXPECT_THROW(TQSetInt32Value(list, "c", 1), NoData);
  EXPECT_THROW(TQRemoveValue(list, "c"), NoData);
  EXPECT_THROW(TQParamByIndex(list, 2), NoData);
  EXPECT_THROW(TQGetNextParam(list, TQParamInfo(list, "b")), NoData);
  EXPECT_THROW(list.Impl().CountParams(), NoData);
  EXPECT_EQ(BlockOf(list), block);
  EXPECT_EQ(TQGetInt32Value(list, "a"), 1u);
  EXPECT_EQ(TQGetBinaryValue(list, "b")->size, 100u);
}

TEST(HostileBlock, StepsAreComputedIn64BitsAndGoForward) {
  // In 32 bits each of these sizes would wrap to a small one and lead to the entry behind it, or
  // back to itself for ever.
  const std::vector<std::pair<uint8_t, uint32_t>> values = {
      {RAW_BINARY, 0xFFFFFFFF},
      {RAW_BINARY, 0xFFFFFFF8},
      {RAW_BINARY, 0xFFFFFFF4},
      {RAW_ARRAY | RAW_INT32, 0x40000000},
      {RAW_ARRAY | RAW_INT32, 0x3FFFFFFE},
      {RAW_ARRAY | RAW_INT64, 0x20000000},
      {RAW_ARRAY | RAW_INT64, 0x1FFFFFFF},
      {RAW_ARRAY | RAW_HANDLE, 0x40000000},
      {RAW_ARRAY | RAW_HANDLE, 0xFFFFFFFF},
  };
  for (const auto& [type, count] : values) {
    SCOPED_TRACE(testing::Message() << int{type} << " " << count);
    const Bytes block = RawList().Entry("a", type, U32(count)).Int32("b", 1).Block();
    EXPECT_EQ(CountOutcome(block), Outcome::NO_DATA);
    const OwnedList list = ListOfBlock(block);
    EXPECT_THROW(TQGetInt32Value(list, "b"), NoData);
  }
  const std::vector<Bytes> elements = {
      Concat({U32(1), U32(0), U32(0xFFFFFFFF)}), Concat({U32(1), U32(0), U32(0xFFFFFFF0)}),
      Concat({U32(1), U32(0xFFFFFFFC), U32(0)}), Concat({U32(0x40000000), U32(0), U32(0)}),
      Concat({U32(0x3FFFFFFF), U32(0), U32(0)}),
  };
  for (const uint8_t element : {RAW_STRING, RAW_BINARY}) {
    const auto type = static_cast<uint8_t>(RAW_ARRAY | element);
    for (size_t i = element == RAW_STRING ? 2 : 0; i < elements.size(); ++i) {
      SCOPED_TRACE(testing::Message() << int{type} << " " << ToHex(elements[i]));
      EXPECT_EQ(CountOutcome(RawList().Entry("a", type, elements[i]).Int32("b", 1).Block()),
                Outcome::NO_DATA);
    }
  }
}

TEST(HostileBlock, AnEntryThatEndsExactlyAtTheEndIsTheLast) {
  EXPECT_EQ(CountOutcome(RawList().Int32("a", 1).Binary("b", Pattern(4)).Block()), Outcome::FINE);
  EXPECT_EQ(CountOutcome(RawList().Int32("a", 1).Binary("b", Pattern(4)).Raw({0}).Block()),
            Outcome::DAMAGED);
  Bytes shorter = RawList().Int32("a", 1).Binary("b", Pattern(4)).Block();
  shorter.pop_back();
  EXPECT_EQ(CountOutcome(shorter), Outcome::NO_DATA);
}

TEST(HostileBlock, CutAnywhereButBehindAnEntryIsNoData) {
  const RawList whole = RawList()
                            .String("text", "abcdefg")
                            .Int32("a", 1)
                            .Int64("long name", 2)
                            .HandleIndex("h", 0)
                            .Binary("b", Pattern(9))
                            .StringArray("S", {"a", "bcdef", ""})
                            .Int32Array("I", {1, 2, 3})
                            .Int64Array("L", {1, 2})
                            .HandleIndexArray("H", {0, 1})
                            .BinaryArray("B", {Pattern(5), {}, Pattern(1)});
  std::vector<bool> boundary(whole.Block().size() + 1, false);
  boundary[0] = true;
  uint32_t count = 0;
  // Held by name: the loop would not keep what a temporary holds.
  const auto values = whole.Values();
  for (const RawValue& value : *values) boundary[value.offset + value.size] = true;
  for (size_t size = 0; size < boundary.size(); ++size) {
    SCOPED_TRACE(size);
    const Bytes cut = Prefix(whole.Block(), size);
    EXPECT_EQ(CountOutcome(cut), boundary[size] ? Outcome::FINE : Outcome::NO_DATA);
    if (!boundary[size]) continue;
    const OwnedList list = ListOfBlock(cut);
    list.Impl().CountParams();
    EXPECT_EQ(TQGetParamCount(list), count++);
  }
}

// ---- names, texts and tables --------------------------------------------------------------------

TEST(HostileBlock, ANameWithoutAnEndIsNotReadBeyondTheBlock) {
  // The reader takes such a list, since the walk steps over names without reading them.
  const OwnedList list = ReceivedList(RawList().Raw(FromHex("03 61 62 02 63 63 63 63")));
  EXPECT_EQ(TQGetParamCount(list), 1u);
  EXPECT_THROW(TQParamInfo(list,
                           "ab\x02"
                           "cccc"),
               NoData);
  EXPECT_THROW(TQRemoveParamByInfo(list, TQGetFirstParam(list)), NoData);
  // A name that differs before the end needs no byte behind it.
  EXPECT_EQ(TQParamInfo(list, "ab"), nullptr);
  EXPECT_EQ(TQParamInfo(list, "x"), nullptr);
}

TEST(HostileBlock, ANameNearTheEndIsComparedToItsEnd) {
  // Seven bytes, fewer than a word: an empty name in front of a number.
  const OwnedList list = ListOfBlock(FromHex("02 00 02 07 00 00 00"));
  EXPECT_EQ(TQParamInfo(list, "z"), nullptr);
  EXPECT_EQ(TQParamInfo(list, "zz"), nullptr);
  EXPECT_EQ(TQGetInt32Value(list, "zz"), 0u);
  EXPECT_EQ(TQGetInt32Value(list, ""), 7u);
}

TEST(HostileBlock, AnOffsetOfZeroIsNoEndOfTheNameBehindIt) {
  // Behind the cut stand the bytes that would make the second entry's name that of the first.
  const OwnedList list = ListOfBlock(FromHex("03 61 61 02 78 00 00 00  00 61 61 02 78 00 00 00"));
  list.Impl().CutBlock(12);
  const _tag_TQPARAMINFO* const second = TQGetNextParam(list, TQGetFirstParam(list));
  ASSERT_NE(second, nullptr);
  EXPECT_THROW(TQRemoveParamByInfo(list, second), NoData);
}

TEST(HostileBlock, ANameMayReachIntoTheValue) {
  const OwnedList list = ListOfBlock(FromHex("03 61 62 02 63 00 00 00"));
  const char* const name =
      "ab\x02"
      "c";
  ASSERT_NE(TQParamInfo(list, name), nullptr);
  EXPECT_EQ(TQGetInt32Value(list, name), 0x63u);
  EXPECT_EQ(TQRemoveValue(list, name), TQ_ERR_OK);
  EXPECT_EQ(TQGetHandleSize(list), 0u);
}

TEST(HostileBlock, AValueOutsideTheBlockIsNoData) {
  const OwnedList list = ListOfBlock(FromHex("ff 61 00 02 01 00 00 00"));
  EXPECT_THROW(TQGetInt32Value(list, "a"), NoData);
  EXPECT_THROW(TQGetStringValue(list, "a"), NoData);
  EXPECT_THROW(TQParamInfo(list, "b"), NoData);
  EXPECT_THROW(TQRemoveValue(list, "a"), NoData);
  EXPECT_THROW(TQGetNextParam(list, TQGetFirstParam(list)), NoData);
  EXPECT_EQ(CountOutcome(FromHex("08 61 00 02 01 00 00 00")), Outcome::NO_DATA);
}

TEST(HostileBlock, AnOffsetOfZeroMakesTheOffsetByteTheType) {
  EXPECT_EQ(CountOutcome(FromHex("00 61 00 02 01 00 00 00")), Outcome::DAMAGED);
}

TEST(HostileBlock, AnOffsetThatNoWriterMakesIsWalkedAsItStands) {
  // The type byte at 1, 2 and 3: entries need not begin at multiples of 4.
  const OwnedList list = ListOfBlock(FromHex("01 02 78 00 00 00  02 00 02 07 00 00 00"));
  list.Impl().CountParams();
  EXPECT_EQ(TQGetParamCount(list), 2u);
  EXPECT_EQ(TQGetInt32Value(list, ""), 7u);
  EXPECT_EQ(TQGetInt32Value(list, "\x02x"), 0x78u);
}

TEST(HostileBlock, APayloadThatEndsTooSoonIsNoDataForItsGetter) {
  const OwnedList int32 = ListOfBlock(FromHex("03 61 00 02 01 00 00"));
  EXPECT_THROW(TQGetInt32Value(int32, "a"), NoData);
  const OwnedList int64 = ListOfBlock(FromHex("03 61 00 03 01 00 00 00 00 00 00"));
  EXPECT_THROW(TQGetInt64Value(int64, "a"), NoData);
  const OwnedList handle = ListOfBlock(FromHex("03 61 00 04 00 00 00"), 1);
  EXPECT_THROW(TQGetHandleValue(handle, "a"), NoData);
  const OwnedList binary = ListOfBlock(FromHex("03 61 00 05 01 00 00"));
  EXPECT_THROW(TQGetBinaryValue(binary, "a"), NoData);
  const OwnedList string = ListOfBlock(FromHex("03 61 00 01"));
  EXPECT_THROW(TQGetStringValue(string, "a"), NoData);
  for (int type = 0x81; type <= 0x85; ++type) {
    const OwnedList array =
        ListOfBlock(Concat({FromHex("03 61 00"), Bytes{static_cast<uint8_t>(type)}, Bytes{1, 0}}));
    const char* texts[1];
    const _tag_BINARYVALUE* binaries[1];
    EXPECT_EQ(OutcomeOf([&] {
                TQGetStringArray(array, "a", texts, 1, 0);
                TQGetBinaryArray(array, "a", binaries, 1, 0);
                TQGetInt32Array(array, "a");
                TQGetHandleArray(array, "a");
              }),
              type == 0x83 ? Outcome::FINE : Outcome::NO_DATA);
  }
}

TEST(HostileBlock, ATextWithoutAnEndIsNoData) {
  EXPECT_EQ(CountOutcome(FromHex("03 61 00 01 61 62 63 64")), Outcome::NO_DATA);
  EXPECT_EQ(CountOutcome(FromHex("03 61 00 81 01 00 00 00 00 00 00 00 61 62 63 64")),
            Outcome::NO_DATA);
}

TEST(HostileBlock, ABlockMayEndAnywhereAndHasATwinThatEndsThere) {
  const OwnedList list = ReceivedList(RawList().Raw(FromHex("02 61 02 07 00 00 00")));
  ASSERT_EQ(TQGetHandleSize(list), 7u);
  const OwnedList clone(TQCloneHandle(list));
  EXPECT_EQ(BlockOf(clone), BlockOf(list));
  EXPECT_EQ(clone.Impl().BlockCapacity(), 7u);
  EXPECT_EQ(TQGetParamCount(clone), 1u);
}

TEST(HostileBlock, FillingBytesAreNotLookedAt) {
  const OwnedList list = ListOfBlock(FromHex("07 61 00 aa bb cc dd 01 68 00 ee ff"));
  list.Impl().CountParams();
  EXPECT_STREQ(TQGetStringValue(list, "a"), "h");
}

// ---- removal ------------------------------------------------------------------------------------

TEST(HostileBlock, AnEntryThatReachesBeyondTheEndIsNotCutOut) {
  const Bytes block = RawList().Int32("a", 1).Entry("b", RAW_BINARY, U32(100)).Block();
  const OwnedList list = ListOfBlock(block);
  EXPECT_THROW(list.Impl().CountParams(), NoData);
  EXPECT_EQ(TQGetParamCount(list), 2u);
  const _tag_TQPARAMINFO* entry = TQParamInfo(list, "b");
  EXPECT_EQ(TQRemoveParamByInfo(list, entry), entry);
  EXPECT_EQ(BlockOf(list), block);
  EXPECT_EQ(TQGetParamCount(list), 1u);  // counted out, though the bytes are still found

  // A store appends behind it; the first of the name is still the one that is found.
  EXPECT_EQ(TQSetInt32Value(list, "b", 7), TQ_ERR_OK);
  EXPECT_EQ(BlockOf(list), Concat({block, RawList().Int32("b", 7).Block()}));
  EXPECT_EQ(TQGetInt32Value(list, "b"), 0u);
}

TEST(HostileBlock, RemovalOfALaterEntryNeedsNoWalkableEndOfTheBlock) {
  const OwnedList list =
      ListOfBlock(RawList().Int32("a", 1).Int32("b", 2).Entry("c", 6, U32(3)).Block());
  EXPECT_EQ(TQRemoveValue(list, "a"), TQ_ERR_OK);
  EXPECT_EQ(BlockOf(list), RawList().Int32("b", 2).Entry("c", 6, U32(3)).Block());
}

TEST(HostileBlock, RemovalOfAHandleLeavesTheListAsItWasWhenItsWalkFails) {
  const std::vector<std::pair<Bytes, Outcome>> ends = {
      {RawList().Entry("z", 6, U32(0)).Block(), Outcome::DAMAGED},
      {RawList().Entry("z", RAW_BINARY, U32(100)).Block(), Outcome::NO_DATA},
  };
  for (const auto& [end, outcome] : ends) {
    const OwnedList list = ListOfBlock(RawList()
                                           .HandleIndex("a", 0)
                                           .HandleIndex("b", 1)
                                           .HandleIndexArray("c", {2})
                                           .Raw(end)
                                           .Block(),
                                       3);
    const Bytes block = BlockOf(list);
    std::vector<FastHolderImpl*> slots;
    for (uint32_t i = 0; i < 3; ++i) slots.push_back(TQGetHandleById(list, i).impl);
    const auto expectUnchanged = [&] {
      EXPECT_EQ(ToHex(BlockOf(list)), ToHex(block));
      ASSERT_EQ(list.Impl().Handles().Size(), 3u);
      for (uint32_t i = 0; i < 3; ++i) EXPECT_EQ(TQGetHandleById(list, i).impl, slots[i]) << i;
      EXPECT_EQ(ListsAlive(), 4u);
    };
    EXPECT_EQ(OutcomeOf([&] { TQRemoveValue(list, "a"); }), outcome);
    expectUnchanged();
    EXPECT_EQ(OutcomeOf([&] { TQSetInt32Value(list, "b", 1); }), outcome);
    expectUnchanged();
    EXPECT_EQ(OutcomeOf([&] { TQRemoveValue(list, "c"); }), outcome);
    expectUnchanged();
  }
}

TEST(HostileBlock, RemovalOfTheLastSlotsHandleNeedsNoWalk) {
  const OwnedList list =
      ListOfBlock(RawList().HandleIndex("a", 0).HandleIndex("b", 1).Entry("z", 6, {}).Block(), 2);
  EXPECT_EQ(TQRemoveValue(list, "b"), TQ_ERR_OK);
  EXPECT_EQ(BlockOf(list), RawList().HandleIndex("a", 0).Entry("z", 6, {}).Block());
  EXPECT_EQ(ListsAlive(), 2u);
}

TEST(HostileBlock, AHandleArrayThatReachesBeyondTheEndReleasesNothing) {
  for (const uint32_t count : {3u, 0x3FFFFFFFu, 0x40000000u, 0xFFFFFFFFu}) {
    SCOPED_TRACE(count);
    const Bytes block =
        RawList().Entry("a", RAW_ARRAY | RAW_HANDLE, Concat({U32(count), U32(0), U32(1)})).Block();
    const OwnedList list = ListOfBlock(block, 2);
    EXPECT_THROW(TQRemoveValue(list, "a"), NoData);
    EXPECT_EQ(BlockOf(list), block);
    EXPECT_EQ(ListsAlive(), 3u);
    EXPECT_NE(TQGetHandleById(list, 0).impl, nullptr);
    EXPECT_NE(TQGetHandleById(list, 1).impl, nullptr);
  }
}

TEST(HostileBlock, AHandleWithoutItsIndexReleasesNothing) {
  const OwnedList list = ListOfBlock(FromHex("03 61 00 04 00 00 00"), 2);
  EXPECT_THROW(TQRemoveValue(list, "a"), NoData);
  EXPECT_EQ(ListsAlive(), 3u);
}

TEST(HostileBlock, AnEntryPointerFromElsewhereIsNoData) {
  const OwnedList list = ListOfBlock(RawList().Int32("a", 1).Block());
  const Bytes foreign = RawList().Int32("a", 1).Block();
  const auto* entry = reinterpret_cast<const _tag_TQPARAMINFO*>(foreign.data());
  EXPECT_THROW(TQGetNextParam(list, entry), NoData);
  EXPECT_EQ(BlockOf(list), foreign);
}

// ---- damage of every kind -----------------------------------------------------------------------

class DamagedBlocks : public testing::TestWithParam<uint32_t> {};

/// A block of all types with a few bytes or words changed, or cut.
Bytes DamagedBlock(SeededRandom& random) {
  static const Bytes WHOLE = RawList()
                                 .HandleIndex("h", 0)
                                 .String("text", "abcdefg")
                                 .Int32("a", 1)
                                 .HandleIndexArray("H", {1, 2, NO_HANDLE_INDEX})
                                 .Int64("n", 2)
                                 .Binary("b", Pattern(9))
                                 .StringArray("S", {"a", "bcdef", ""})
                                 .HandleIndex("g", 3)
                                 .Int32Array("I", {1, 2, 3})
                                 .Int64Array("L", {1, 2})
                                 .BinaryArray("B", {Pattern(5), {}, Pattern(1)})
                                 .Block();
  static const uint32_t WORDS[] = {0,          1,          2,          4,          0x7FFFFFFF,
                                   0x80000000, 0xFFFFFFFF, 0xFFFFFFFE, 0x3FFFFFFF, 0x40000000,
                                   0x20000000, 0xFFFFFFFC, 200,        100};
  Bytes block = WHOLE;
  for (uint32_t changes = 1 + random.Below(3); changes != 0; --changes) {
    const size_t at = random.Below(block.size());
    switch (random.Below(4)) {
      case 0:
        block[at] = static_cast<uint8_t>(random.Bits());
        break;
      case 1:
        block[at] = static_cast<uint8_t>(block[at] + 1);
        break;
      case 2: {
        const Bytes word = U32(WORDS[random.Below(std::size(WORDS))]);
        for (size_t i = 0; i < 4 && at / 4 * 4 + i < block.size(); ++i) {
          block[at / 4 * 4 + i] = word[i];
        }
        break;
      }
      default:
        if (random.OneIn(4)) block.resize(at + 1);
        break;
    }
  }
  return block;
}

TEST_P(DamagedBlocks, LeadToTheTwoExceptionsAndLeaveTheListAsItWas) {
  SCOPED_TRACE(testing::Message() << "seed " << GetParam());
  SeededRandom random(GetParam());
  const Names names = {"h", "text", "a", "H", "n", "b", "S", "g", "I", "L", "B", "none", ""};
  uint32_t failures = 0;
  for (int round = 0; round < 4000; ++round) {
    const Bytes damaged = DamagedBlock(random);
    const bool walkable = CountOutcome(damaged) == Outcome::FINE;
    const OwnedList list = ListOfBlock(damaged, 4);
    const uint32_t alive = ListsAlive();
    const std::string& name = names[random.Below(names.size())];
    const char* const texts[] = {"new"};
    const _tag_HTQPARAMLIST handles[] = {TQGetHandleById(list, random.Below(4))};
    const uint32_t action = random.Below(9);
    const Outcome outcome = OutcomeOf([&] {
      switch (action) {
        case 0:
          TQRemoveValue(list, name.c_str());
          break;
        case 1:
          TQSetInt32Value(list, name.c_str(), 1);
          break;
        case 2:
          TQSetHandleValue(list, name.c_str(), handles[0]);
          break;
        case 3:
          TQSetHandleArray(list, name.c_str(), 1, handles);
          break;
        case 4:
          TQSetStringArray(list, name.c_str(), 1, texts);
          break;
        case 5:
          TQRemoveParamByInfo(list, TQParamByIndex(list, random.Below(6)));
          break;
        case 6:
          // Names may lack their end, so they are not read here.
          for (auto* entry = TQGetFirstParam(list); entry != nullptr;) {
            entry = TQGetNextParam(list, entry);
          }
          break;
        case 7: {
          const OwnedList nested(TQGetHandleValue(list, name.c_str()));
          TQGetInt32Value(list, name.c_str());
          TQGetInt64Value(list, name.c_str());
          TQGetBinaryValue(list, name.c_str());
          break;
        }
        default: {
          if (!walkable) break;  // only lists that were walked reach a host
          const char* out[8];
          TQGetStringArray(list, name.c_str(), out, 8, random.Below(3));
          const _tag_BINARYVALUE* values[8];
          TQGetBinaryArray(list, name.c_str(), values, 8, random.Below(3));
          const char* text = TQGetStringValue(list, name.c_str());
          EXPECT_LT(std::string(text != nullptr ? text : "").size(), damaged.size());
          break;
        }
      }
    });
    if (outcome == Outcome::FINE) continue;
    ++failures;
    EXPECT_EQ(BlockOf(list), damaged) << "round " << round << ", action " << action;
    EXPECT_EQ(ListsAlive(), alive) << "round " << round << ", action " << action;
    EXPECT_FALSE(walkable) << "round " << round << ", action " << action;
    if (HasFailure()) return;
  }
  // Most blocks are damaged, or this test would say nothing.
  EXPECT_GT(failures, 200u);
}

INSTANTIATE_TEST_SUITE_P(HostileBlock, DamagedBlocks, testing::Values(1u, 2u, 3u, 4u));

}  // namespace
}  // namespace TQ::test
