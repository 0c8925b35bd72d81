#include "params/list_store.h"

#include "support/param_lists.h"

#include <tq/tq.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <new>
#include <string>
#include <utility>
#include <vector>

namespace TQ::test {
namespace {

using Names = std::vector<std::string>;

// ---- the bytes of an entry ----------------------------------------------------------------------

TEST(ListStore, AnInt32HasItsFourBytesBehindAPaddedHead) {
  const OwnedList list;
  TQSetInt32Value(list, "ab", 7);
  EXPECT_EQ(BlockHex(list), "07 61 62 00 00 00 00 02 07 00 00 00");
}

TEST(ListStore, AStringHasItsTerminatorAndPadding) {
  const OwnedList list;
  TQSetStringValue(list, "a", "hi");
  EXPECT_EQ(BlockHex(list), "03 61 00 01 68 69 00 00");
}

TEST(ListStore, AStringOfThreeBytesTakesFourAndNoPadding) {
  const OwnedList list;
  TQSetStringValue(list, "a", "xyz");
  EXPECT_EQ(BlockHex(list), "03 61 00 01 78 79 7a 00");
}

TEST(ListStore, AStringOfFourBytesTakesEight) {
  const OwnedList list;
  TQSetStringValue(list, "a", "wxyz");
  EXPECT_EQ(BlockHex(list), "03 61 00 01 77 78 79 7a 00 00 00 00");
}

TEST(ListStore, AnInt64HasEightBytesOnAFourByteBoundary) {
  const OwnedList list;
  TQSetInt64Value(list, "a", 0x0102030405060708);
  EXPECT_EQ(BlockHex(list), "03 61 00 03 08 07 06 05 04 03 02 01");
}

TEST(ListStore, ABinaryHasItsLengthAndItsPaddedBytes) {
  const OwnedList list;
  const uint8_t bytes[] = {1, 2, 3, 4, 5};
  TQSetBinaryValue(list, "a", bytes, sizeof bytes);
  EXPECT_EQ(BlockHex(list), "03 61 00 05 05 00 00 00 01 02 03 04 05 00 00 00");
}

TEST(ListStore, AnEmptyBinaryHasItsLengthAlone) {
  const OwnedList list;
  TQSetBinaryValue(list, "a", nullptr, 0);
  EXPECT_EQ(BlockHex(list), "03 61 00 05 00 00 00 00");
}

TEST(ListStore, AHandleWithoutAListHoldsNoHandleIndex) {
  const OwnedList list;
  TQSetHandleValue(list, "h", {nullptr});
  EXPECT_EQ(BlockHex(list), "03 68 00 04 ff ff ff ff");
  EXPECT_EQ(list.Impl().Handles().Size(), 0u);
  EXPECT_EQ(TQGetParamCount(list), 1u);
}

TEST(ListStore, AHandleHoldsTheIndexOfItsSlot) {
  const OwnedList list;
  const OwnedList first;
  const OwnedList second;
  TQSetHandleValue(list, "a", first);
  TQSetHandleValue(list, "b", second);
  EXPECT_EQ(BlockHex(list), "03 61 00 04 00 00 00 00 03 62 00 04 01 00 00 00");
  ASSERT_EQ(list.Impl().Handles().Size(), 2u);
  EXPECT_EQ(list.Impl().Handles()[0].Get(), first.Handle().impl);
  EXPECT_EQ(list.Impl().Handles()[1].Get(), second.Handle().impl);
}

TEST(ListStore, AStringArrayHasOffsetsFromTheEndOfItsTable) {
  const OwnedList list;
  const char* const texts[] = {"a", "bcd"};
  TQSetStringArray(list, "s", 2, texts);
  EXPECT_EQ(BlockHex(list),
            "03 73 00 81 02 00 00 00 00 00 00 00 04 00 00 00 61 00 00 00 62 63 64 00");
}

TEST(ListStore, ABinaryArrayHasOffsetsLengthsAndPaddedItems) {
  const OwnedList list;
  const uint8_t bytes[] = {1, 2, 3};
  const void* const datas[] = {bytes};
  const uint32_t sizes[] = {3};
  TQSetBinaryArray(list, "b", 1, datas, sizes);
  EXPECT_EQ(BlockHex(list), "03 62 00 85 01 00 00 00 00 00 00 00 03 00 00 00 01 02 03 00");
}

TEST(ListStore, ABinaryArrayOfRecordsHasTheSameBytes) {
  const OwnedList list;
  const uint8_t bytes[] = {1, 2, 3, 4, 5};
  const _tag_BINARYITEM items[] = {{3, bytes}, {0, nullptr}, {2, bytes + 3}};
  TQSetBinaryItemArray(list, "b", 3, items);
  EXPECT_EQ(BlockHex(list),
            "03 62 00 85 03 00 00 00 "
            "00 00 00 00 08 00 00 00 0c 00 00 00 "
            "03 00 00 00 01 02 03 00 00 00 00 00 02 00 00 00 04 05 00 00");
}

TEST(ListStore, AnInt32ArrayHasItsCountAndValues) {
  const OwnedList list;
  const uint32_t values[] = {1, 0xFFFFFFFE};
  TQSetInt32Array(list, "n", 2, values);
  EXPECT_EQ(BlockHex(list), "03 6e 00 82 02 00 00 00 01 00 00 00 fe ff ff ff");
}

TEST(ListStore, AnInt64ArrayHasItsCountAndValuesWithoutAGap) {
  const OwnedList list;
  const uint64_t values[] = {1, 0xFFFFFFFFFFFFFFFE};
  TQSetInt64Array(list, "n", 2, values);
  EXPECT_EQ(BlockHex(list),
            "03 6e 00 83 02 00 00 00 01 00 00 00 00 00 00 00 fe ff ff ff ff ff ff ff");
}

TEST(ListStore, AHandleArrayHasItsCountAndTheIndicesOfItsSlots) {
  const OwnedList list;
  const OwnedList first;
  const OwnedList second;
  const _tag_HTQPARAMLIST values[] = {first, {nullptr}, second};
  TQSetHandleArray(list, "h", 3, values);
  EXPECT_EQ(BlockHex(list), "03 68 00 84 03 00 00 00 00 00 00 00 ff ff ff ff 01 00 00 00");
  EXPECT_EQ(list.Impl().Handles().Size(), 2u);
}

TEST(ListStore, EmptyArraysEndBehindTheirCount) {
  const OwnedList list;
  TQSetStringArray(list, "1", 0, nullptr);
  TQSetInt32Array(list, "2", 0, nullptr);
  TQSetInt64Array(list, "3", 0, nullptr);
  TQSetHandleArray(list, "4", 0, nullptr);
  TQSetBinaryArray(list, "5", 0, nullptr, nullptr);
  TQSetBinaryItemArray(list, "6", 0, nullptr);
  EXPECT_EQ(BlockHex(list),
            "03 31 00 81 00 00 00 00 03 32 00 82 00 00 00 00 03 33 00 83 00 00 00 00 "
            "03 34 00 84 00 00 00 00 03 35 00 85 00 00 00 00 03 36 00 85 00 00 00 00");
  EXPECT_EQ(TQGetParamCount(list), 6u);
}

// ---- names --------------------------------------------------------------------------------------

TEST(ListStore, TheHeadIsAMultipleOfFourWithTheTypeAsItsLastByte) {
  // The name's length and the size of the head: length + 6, brought down to a multiple of 4.
  const std::vector<std::pair<uint32_t, uint32_t>> heads = {
      {0, 4},  {1, 4},   {2, 8},   {3, 8},   {4, 8},     {5, 8},     {6, 12},
      {9, 12}, {10, 16}, {13, 16}, {14, 20}, {249, 252}, {250, 256}, {253, 256}};
  for (const auto& [length, headSize] : heads) {
    SCOPED_TRACE(length);
    const OwnedList list;
    const std::string name(length, 'n');
    TQSetInt32Value(list, name.c_str(), 0x01020304);
    const Bytes block = BlockOf(list);
    ASSERT_EQ(block.size(), headSize + 4);
    EXPECT_EQ(block[0], headSize - 1);
    EXPECT_EQ(std::string(block.begin() + 1, block.begin() + 1 + length), name);
    for (uint32_t i = 1 + length; i < headSize - 1; ++i) EXPECT_EQ(block[i], 0u);
    EXPECT_EQ(block[headSize - 1], 2u);
    EXPECT_EQ(ReadU32(block.data() + headSize), 0x01020304u);
  }
}

TEST(ListStore, TheEmptyNameIsANameLikeAnyOther) {
  const OwnedList list;
  TQSetInt32Value(list, "", 5);
  TQSetInt32Value(list, "a", 6);
  EXPECT_EQ(BlockHex(list), "03 00 00 02 05 00 00 00 03 61 00 02 06 00 00 00");
  EXPECT_EQ(TQGetInt32Value(list, ""), 5u);
  TQSetInt32Value(list, "", 7);
  EXPECT_EQ(TQGetParamCount(list), 2u);
  EXPECT_EQ(TQGetInt32Value(list, ""), 7u);
  EXPECT_EQ(TQRemoveValue(list, ""), TQ_ERR_OK);
  EXPECT_EQ(NamesOf(list), Names{"a"});
}

TEST(ListStore, NamesOf253BytesReadBack) {
  const OwnedList list;
  const std::string first = std::string(252, 'x') + "1";
  const std::string second = std::string(252, 'x') + "2";
  TQSetInt32Value(list, first.c_str(), 1);
  TQSetStringValue(list, second.c_str(), "two");
  TQSetInt32Value(list, "z", 3);
  EXPECT_EQ(TQGetInt32Value(list, first.c_str()), 1u);
  EXPECT_STREQ(TQGetStringValue(list, second.c_str()), "two");
  EXPECT_EQ(TQGetInt32Value(list, "z"), 3u);
  EXPECT_EQ(NamesOf(list), (Names{first, second, "z"}));
}

TEST(ListStore, ANameOf254BytesIsStoredAndKeepsTheLowByteOfItsOffsetAlone) {
  const OwnedList list;
  const std::string name(254, 'n');
  EXPECT_EQ(TQSetInt32Value(list, name.c_str(), 7), TQ_ERR_OK);
  EXPECT_EQ(TQGetParamCount(list), 1u);
  const Bytes block = BlockOf(list);
  ASSERT_EQ(block.size(), 264u);
  EXPECT_EQ(block[0], 259 & 0xFF);
  EXPECT_EQ(std::string(block.begin() + 1, block.begin() + 255), name);
  EXPECT_EQ(block[259], 2u);

  // From there on the list reads back wrong: the type is looked for inside the name.
  EXPECT_EQ(TQGetInt32Value(list, name.c_str()), 0u);
  EXPECT_THROW(TQGetInt32Value(list, "other"), _tag_TQPARAMVALUE::DataDamaged);
  EXPECT_THROW(TQSetInt32Value(list, "other", 1), _tag_TQPARAMVALUE::DataDamaged);
  EXPECT_EQ(BlockOf(list), block);
  EXPECT_EQ(TQGetParamCount(list), 1u);
}

TEST(ListStore, ALongNameIsStoredWhole) {
  const OwnedList list;
  const std::string name(1000, 'n');
  EXPECT_EQ(TQSetInt32Value(list, name.c_str(), 7), TQ_ERR_OK);
  const Bytes block = BlockOf(list);
  ASSERT_EQ(block.size(), 1004u + 4u);
  EXPECT_EQ(block[0], 1003 & 0xFF);
  EXPECT_EQ(block[1003], 2u);
}

TEST(ListStore, NamesAreComparedWholeAndByCase) {
  const OwnedList list;
  TQSetInt32Value(list, "ab", 1);
  TQSetInt32Value(list, "Ab", 2);
  TQSetInt32Value(list, "abc", 3);
  TQSetInt32Value(list, "a", 4);
  EXPECT_EQ(TQGetParamCount(list), 4u);
  EXPECT_EQ(TQGetInt32Value(list, "ab"), 1u);
  EXPECT_EQ(TQGetInt32Value(list, "Ab"), 2u);
  EXPECT_EQ(TQGetInt32Value(list, "abc"), 3u);
  EXPECT_EQ(TQGetInt32Value(list, "a"), 4u);
  EXPECT_EQ(TQParamInfo(list, "AB"), nullptr);
  EXPECT_EQ(TQParamInfo(list, "abcd"), nullptr);
  EXPECT_EQ(TQParamInfo(list, ""), nullptr);
}

TEST(ListStore, NamesMayHoldAnyByteButZero) {
  const OwnedList list;
  const std::string name = "\x80\xff\x01 \n";
  TQSetInt32Value(list, name.c_str(), 9);
  EXPECT_EQ(TQGetInt32Value(list, name.c_str()), 9u);
  EXPECT_EQ(NamesOf(list), Names{name});
}

// ---- storing ------------------------------------------------------------------------------------

TEST(ListStore, AStoreUnderAnExistingNameMovesTheEntryToTheEnd) {
  const OwnedList list;
  TQSetInt32Value(list, "x", 1);
  TQSetInt32Value(list, "y", 2);
  TQSetInt32Value(list, "x", 3);
  EXPECT_EQ(BlockHex(list), "03 79 00 02 02 00 00 00 03 78 00 02 03 00 00 00");
  EXPECT_EQ(TQGetParamCount(list), 2u);
}

TEST(ListStore, AStoreOfTheSameValueMovesTheEntryTooForEveryType) {
  const OwnedList nested;
  const char* const texts[] = {"t"};
  const uint32_t dwords[] = {1};
  const uint64_t qwords[] = {1};
  const _tag_HTQPARAMLIST handles[] = {nested};
  const void* const datas[] = {"d"};
  const _tag_BINARYITEM items[] = {{1, "d"}};
  const auto setters = std::vector<std::function<void(_tag_HTQPARAMLIST)>>{
      [](_tag_HTQPARAMLIST l) { TQSetStringValue(l, "x", "s"); },
      [](_tag_HTQPARAMLIST l) { TQSetInt32Value(l, "x", 1); },
      [](_tag_HTQPARAMLIST l) { TQSetInt64Value(l, "x", 1); },
      [](_tag_HTQPARAMLIST l) { TQSetBinaryValue(l, "x", "d", 1); },
      [&](_tag_HTQPARAMLIST l) { TQSetBinaryItem(l, "x", items); },
      [&](_tag_HTQPARAMLIST l) { TQSetHandleValue(l, "x", nested); },
      [&](_tag_HTQPARAMLIST l) { TQSetStringArray(l, "x", 1, texts); },
      [&](_tag_HTQPARAMLIST l) { TQSetInt32Array(l, "x", 1, dwords); },
      [&](_tag_HTQPARAMLIST l) { TQSetInt64Array(l, "x", 1, qwords); },
      [&](_tag_HTQPARAMLIST l) { TQSetHandleArray(l, "x", 1, handles); },
      [&](_tag_HTQPARAMLIST l) { TQSetBinaryArray(l, "x", 1, datas, dwords); },
      [&](_tag_HTQPARAMLIST l) { TQSetBinaryItemArray(l, "x", 1, items); },
  };
  for (size_t i = 0; i < setters.size(); ++i) {
    SCOPED_TRACE(i);
    const OwnedList list;
    setters[i](list);
    TQSetInt32Value(list, "y", 2);
    setters[i](list);
    EXPECT_EQ(NamesOf(list), (Names{"y", "x"}));
    EXPECT_EQ(TQGetParamCount(list), 2u);
  }
}

TEST(ListStore, AStoreMayChangeTheTypeOfAName) {
  const OwnedList list;
  TQSetInt32Value(list, "x", 1);
  TQSetStringValue(list, "x", "text");
  EXPECT_EQ(TQGetParamCount(list), 1u);
  EXPECT_EQ(TQGetInt32Value(list, "x"), 0u);
  EXPECT_STREQ(TQGetStringValue(list, "x"), "text");
  EXPECT_EQ(BlockHex(list), "03 78 00 01 74 65 78 74 00 00 00 00");
}

TEST(ListStore, PaddingBytesAreZeroAlsoWhereOtherBytesStoodBefore) {
  const OwnedList list;
  const Bytes fill = Filled(64, 0xEE);
  TQSetBinaryValue(list, "x", fill.data(), 64);
  TQRemoveAllValues(list);
  TQSetStringValue(list, "ab", "h");
  TQSetBinaryValue(list, "c", "123", 1);
  EXPECT_EQ(BlockHex(list),
            "07 61 62 00 00 00 00 01 68 00 00 00 03 63 00 05 01 00 00 00 31 00 00 00");
}

// ---- growth of the block ------------------------------------------------------------------------

TEST(ListStore, ANewListHasNoBlock) {
  const OwnedList list;
  EXPECT_EQ(list.Impl().BlockData(), nullptr);
  EXPECT_EQ(list.Impl().BlockSize(), 0u);
  EXPECT_EQ(list.Impl().BlockCapacity(), 0u);
  EXPECT_EQ(list.Impl().ParamCount(), 0u);
  EXPECT_EQ(list.Impl().Handles().Size(), 0u);
  EXPECT_EQ(list.Impl().Handles().Capacity(), 0u);
}

TEST(ListStore, TheBlockGrowsToExactlyWhatIsNeeded) {
  const OwnedList list;
  const OwnedList nested;
  const char* const texts[] = {"one", "three", ""};
  const uint64_t qwords[] = {1, 2, 3};
  const _tag_HTQPARAMLIST handles[] = {nested, nested};
  uint32_t expected = 0;
  const auto check = [&](uint32_t added) {
    expected += added;
    EXPECT_EQ(list.Impl().BlockSize(), expected);
    EXPECT_EQ(list.Impl().BlockCapacity(), expected);
  };
  TQSetInt32Value(list, "a", 1);
  check(8);
  TQSetStringValue(list, "b", "12345678");
  check(4 + 12);
  TQSetInt64Value(list, "c", 1);
  check(4 + 8);
  TQSetBinaryValue(list, "d", "12345", 5);
  check(4 + 4 + 8);
  TQSetHandleValue(list, "e", nested);
  check(4 + 4);
  TQSetStringArray(list, "f", 3, texts);
  check(4 + 4 + 12 + 4 + 8 + 4);
  TQSetInt64Array(list, "g", 3, qwords);
  check(4 + 4 + 24);
  TQSetHandleArray(list, "h", 2, handles);
  check(4 + 4 + 8);
  for (int i = 0; i < 100; ++i) {
    TQSetInt32Value(list, ("name" + std::to_string(i)).c_str(), 1);
    check(i < 10 ? 12 : 16);
  }
}

TEST(ListStore, TheBlockNeverShrinks) {
  const OwnedList list;
  TQSetBinaryValue(list, "a", Filled(100, 1).data(), 100);
  TQSetInt32Value(list, "b", 2);
  const uint32_t capacity = list.Impl().BlockCapacity();
  const uint8_t* data = list.Impl().BlockData();
  TQRemoveValue(list, "a");
  EXPECT_EQ(list.Impl().BlockSize(), 8u);
  EXPECT_EQ(list.Impl().BlockCapacity(), capacity);
  EXPECT_EQ(list.Impl().BlockData(), data);
}

TEST(ListStore, AReplacementFreesItsRoomBeforeItGrows) {
  const OwnedList list;
  TQSetBinaryValue(list, "a", Filled(100, 1).data(), 100);
  const uint8_t* data = list.Impl().BlockData();
  EXPECT_EQ(list.Impl().BlockCapacity(), 108u);
  TQSetBinaryValue(list, "a", Filled(100, 2).data(), 100);
  EXPECT_EQ(list.Impl().BlockCapacity(), 108u);
  EXPECT_EQ(list.Impl().BlockData(), data);
  TQSetBinaryValue(list, "a", Filled(104, 3).data(), 104);
  EXPECT_EQ(list.Impl().BlockCapacity(), 112u);
}

TEST(ListStore, EveryEntryStartsAtAMultipleOfFour) {
  const OwnedList list;
  for (uint32_t length = 0; length < 40; ++length) {
    const std::string name(length, 'a');
    TQSetStringValue(list, name.c_str(), name.c_str());
  }
  uint32_t entries = 0;
  for (auto* entry = TQGetFirstParam(list); entry != nullptr; entry = TQGetNextParam(list, entry)) {
    const auto position = reinterpret_cast<const uint8_t*>(entry) - list.Impl().BlockData();
    EXPECT_EQ(position % 4, 0);
    EXPECT_EQ(entry->valueOffset % 4, 3);
    ++entries;
  }
  EXPECT_EQ(entries, 40u);
}

// ---- removal ------------------------------------------------------------------------------------

TEST(ListStore, RemovalKeepsTheOrderOfTheOthers) {
  const OwnedList list;
  for (const char* name : {"a", "b", "c", "d"}) TQSetStringValue(list, name, name);
  TQRemoveValue(list, "b");
  EXPECT_EQ(NamesOf(list), (Names{"a", "c", "d"}));
  TQRemoveValue(list, "d");
  EXPECT_EQ(NamesOf(list), (Names{"a", "c"}));
  TQRemoveValue(list, "a");
  EXPECT_EQ(BlockHex(list), "03 63 00 01 63 00 00 00");
  TQRemoveValue(list, "c");
  EXPECT_EQ(TQGetHandleSize(list), 0u);
  EXPECT_EQ(TQGetParamCount(list), 0u);
}

TEST(ListStore, RemovingAMissingNameChangesNothing) {
  const OwnedList list;
  EXPECT_EQ(TQRemoveValue(list, "x"), TQ_ERR_OK);
  TQSetInt32Value(list, "a", 1);
  EXPECT_EQ(TQRemoveValue(list, "x"), TQ_ERR_OK);
  EXPECT_EQ(BlockHex(list), "03 61 00 02 01 00 00 00");
  EXPECT_EQ(TQGetParamCount(list), 1u);
}

TEST(ListStore, RemoveParamGivesTheEntryThatNowStandsThere) {
  const OwnedList list;
  for (const char* name : {"a", "b", "c"}) TQSetInt32Value(list, name, 1);
  FastHolderImpl& store = list.Impl();
  const _tag_TQPARAMINFO* next = store.RemoveParam(store.FindParam("a"));
  ASSERT_NE(next, nullptr);
  EXPECT_STREQ(next->name, "b");
  EXPECT_EQ(next, store.FirstParam());
  EXPECT_EQ(store.RemoveParam(store.FindParam("c")), nullptr);
  EXPECT_EQ(store.RemoveParam(nullptr), nullptr);
  EXPECT_EQ(store.ParamCount(), 1u);
}

TEST(ListStore, RemovingAllKeepsTheMemory) {
  const OwnedList list;
  const OwnedList nested;
  for (const char* name : {"a", "b", "c"}) TQSetHandleValue(list, name, nested);
  TQSetStringValue(list, "d", "some longer text");
  const uint32_t capacity = list.Impl().BlockCapacity();
  const uint8_t* data = list.Impl().BlockData();
  EXPECT_EQ(TQRemoveAllValues(list), TQ_ERR_OK);
  EXPECT_EQ(TQGetParamCount(list), 0u);
  EXPECT_EQ(TQGetHandleSize(list), 0u);
  EXPECT_EQ(TQGetFirstParam(list), nullptr);
  EXPECT_EQ(list.Impl().Handles().Size(), 0u);
  EXPECT_EQ(list.Impl().Handles().Capacity(), 3u);
  EXPECT_EQ(list.Impl().BlockCapacity(), capacity);
  EXPECT_EQ(list.Impl().BlockData(), data);

  // What fits the old memory needs no new one.
  TQSetHandleValue(list, "x", nested);
  TQSetStringValue(list, "y", "text");
  EXPECT_EQ(list.Impl().BlockData(), data);
  EXPECT_EQ(list.Impl().BlockCapacity(), capacity);
  EXPECT_EQ(list.Impl().Handles().Capacity(), 3u);
  EXPECT_EQ(BlockHex(list), "03 78 00 04 00 00 00 00 03 79 00 01 74 65 78 74 00 00 00 00");
}

TEST(ListStore, RemovingAllReleasesTheNestedLists) {
  const uint32_t before = ListsAlive();
  const OwnedList list;
  {
    const OwnedList nested;
    TQSetHandleValue(list, "a", nested);
    TQSetHandleValue(list, "b", nested);
  }
  EXPECT_EQ(ListsAlive(), before + 2);
  TQRemoveAllValues(list);
  EXPECT_EQ(ListsAlive(), before + 1);
}

// ---- what is looked at
// ---------------------------------------------------------------------------

TEST(ListStore, OfTwoEntriesOfOneNameTheFirstIsFoundReplacedAndRemoved) {
  const OwnedList list =
      ReceivedList(RawList().Int32("x", 1).Int32("y", 2).Int32("x", 3).Int32("x", 4));
  EXPECT_EQ(TQGetParamCount(list), 4u);
  EXPECT_EQ(TQGetInt32Value(list, "x"), 1u);
  TQSetInt32Value(list, "x", 5);
  EXPECT_EQ(RawOf(list), RawList().Int32("y", 2).Int32("x", 3).Int32("x", 4).Int32("x", 5));
  EXPECT_EQ(TQGetInt32Value(list, "x"), 3u);
  TQRemoveValue(list, "x");
  EXPECT_EQ(RawOf(list), RawList().Int32("y", 2).Int32("x", 4).Int32("x", 5));
  EXPECT_EQ(TQGetParamCount(list), 3u);
}

TEST(ListStore, CountParamsAddsToTheCount) {
  const OwnedList list;
  TQSetInt32Value(list, "a", 1);
  TQSetInt32Value(list, "b", 1);
  list.Impl().CountParams();
  EXPECT_EQ(TQGetParamCount(list), 4u);
}

TEST(ListStore, ReadingChangesNothing) {
  const OwnedList list;
  const OwnedList nested;
  TQSetInt32Value(list, "a", 1);
  TQSetHandleValue(list, "h", nested);
  const Bytes block = BlockOf(list);
  const uint8_t* data = list.Impl().BlockData();
  TQGetInt32Value(list, "a");
  TQCloseHandle(TQGetHandleValue(list, "h"));
  TQGetHandleById(list, 0);
  TQParamByIndex(list, 1);
  NamesOf(list);
  EXPECT_EQ(BlockOf(list), block);
  EXPECT_EQ(list.Impl().BlockData(), data);
  EXPECT_EQ(TQGetParamCount(list), 2u);
}

// ---- exhaustion ---------------------------------------------------------------------------------

TEST(ListStore, ASizeThatNoBlockCanHoldIsBadAlloc) {
  // The list of a failed store can only be closed, so each store has a list of its own.
  EXPECT_THROW(TQSetBinaryValue(OwnedList(), "a", nullptr, 0xFFFFFFFF), std::bad_alloc);
  EXPECT_THROW(TQSetInt32Array(OwnedList(), "a", 0xFFFFFFFF, nullptr), std::bad_alloc);
  EXPECT_THROW(TQSetInt64Array(OwnedList(), "a", 0x80000000, nullptr), std::bad_alloc);
  EXPECT_THROW(TQSetStringArray(OwnedList(), "a", 0xFFFFFFFF, nullptr), std::bad_alloc);
  EXPECT_THROW(TQSetBinaryArray(OwnedList(), "a", 0xFFFFFFFF, nullptr, nullptr), std::bad_alloc);
  EXPECT_THROW(TQSetBinaryItemArray(OwnedList(), "a", 0xFFFFFFFF, nullptr), std::bad_alloc);
  EXPECT_EQ(ListsAlive(), 0u);
}

TEST(ListStore, ACountThatWouldWrapIn32BitsIsBadAllocAndNoShortArray) {
  // In 32 bits these sizes are 0 bytes, or so few that they would be had.
  EXPECT_THROW(TQSetInt64Array(OwnedList(), "a", 0x20000000, nullptr), std::bad_alloc);
  EXPECT_THROW(TQSetInt32Array(OwnedList(), "a", 0x40000000, nullptr), std::bad_alloc);
  EXPECT_THROW(TQSetStringArray(OwnedList(), "a", 0x40000001, nullptr), std::bad_alloc);
  EXPECT_THROW(TQSetBinaryArray(OwnedList(), "a", 0x40000001, nullptr, nullptr), std::bad_alloc);
}

TEST(ListStore, AListWhoseStoreFailedKeepsItsOtherValuesAndCanBeClosed) {
  OwnedList list;
  TQSetHandleValue(list, "h", OwnedList());
  TQSetStringValue(list, "a", "text");
  EXPECT_THROW(TQSetBinaryValue(list, "b", nullptr, 0xFFFFFFFF), std::bad_alloc);
  EXPECT_STREQ(TQGetStringValue(list, "a"), "text");
  EXPECT_EQ(TQGetParamCount(list), 2u);
  list.Close();
  EXPECT_EQ(ListsAlive(), 0u);
}

}  // namespace
}  // namespace TQ::test
