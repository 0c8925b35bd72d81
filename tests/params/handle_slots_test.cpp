#include "params/handle_slots.h"

#include "params/list_store.h"
#include "support/child_process.h"
#include "support/host_conditions.h"
#include "support/param_lists.h"
#include "support/process_info.h"

#include <tq/tq.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <new>
#include <string>
#include <vector>

namespace TQ::test {
namespace {

using TQ::detail::HandleSlots;
using TQ::detail::ListRef;

/// The nested lists of `list` by the number that MarkedList gave them.
std::vector<uint32_t> Marks(_tag_HTQPARAMLIST list) {
  std::vector<uint32_t> marks;
  const HandleSlots& handles = list.impl->Handles();
  for (uint32_t i = 0; i < handles.Size(); ++i) {
    marks.push_back(TQGetInt32Value({handles[i].Get()}, "mark"));
  }
  return marks;
}

/// A list that can be told from others.
OwnedList MarkedList(uint32_t mark) {
  OwnedList list;
  TQSetInt32Value(list, "mark", mark);
  return list;
}

RawList MarkedRaw(uint32_t mark) { return RawList().Int32("mark", mark); }

void StoreMarked(_tag_HTQPARAMLIST list, const char* name, uint32_t mark) {
  TQSetHandleValue(list, name, MarkedList(mark));
}

/// 0 in `marks` stands for no list.
void StoreMarkedArray(_tag_HTQPARAMLIST list, const char* name,
                      const std::vector<uint32_t>& marks) {
  std::vector<OwnedList> owned;
  std::vector<_tag_HTQPARAMLIST> values;
  for (const uint32_t mark : marks) {
    owned.push_back(mark != 0 ? MarkedList(mark) : OwnedList({nullptr}));
    values.push_back(owned.back());
  }
  TQSetHandleArray(list, name, static_cast<uint32_t>(values.size()), values.data());
}

uint32_t IndexOf(_tag_HTQPARAMLIST list, const char* name) {
  const _tag_TQPARAMINFO* entry = TQParamInfo(list, name);
  return ReadU32(reinterpret_cast<const uint8_t*>(entry) + entry->valueOffset + 1);
}

std::vector<uint32_t> IndicesOf(_tag_HTQPARAMLIST list, const char* name) {
  const _tag_TQDWORDARRAY view = TQGetHandleArray(list, name);
  const uint32_t* values = view.values;
  return std::vector<uint32_t>(values, values + view.count);
}

/// The mark of the list that the value of that name holds; 0 for none.
uint32_t MarkOf(_tag_HTQPARAMLIST list, const char* name) {
  const OwnedList nested(TQGetHandleValue(list, name));
  return TQGetInt32Value(nested, "mark");
}

using Numbers = std::vector<uint32_t>;

// ---- the vector ---------------------------------------------------------------------------------

TEST(HandleSlots, GrowInTheirOwnSteps) {
  HandleSlots slots;
  Numbers capacities;
  for (int i = 0; i < 20; ++i) {
    slots.Push(FastHolderImpl::Create());
    if (capacities.empty() || capacities.back() != slots.Capacity()) {
      capacities.push_back(slots.Capacity());
    }
  }
  EXPECT_EQ(capacities, (Numbers{1, 2, 3, 4, 6, 9, 13, 19, 28}));
  EXPECT_EQ(slots.Size(), 20u);
}

TEST(HandleSlots, OfAListGrowInTheSameSteps) {
  const OwnedList list;
  const OwnedList nested;
  Numbers capacities;
  for (int i = 0; i < 13; ++i) {
    TQSetHandleValue(list, std::to_string(i).c_str(), nested);
    capacities.push_back(list.Impl().Handles().Capacity());
  }
  EXPECT_EQ(capacities, (Numbers{1, 2, 3, 4, 6, 6, 9, 9, 9, 13, 13, 13, 13}));
}

TEST(HandleSlots, OfAReceivedListGrowFromTheAnnouncedCount) {
  RawList raw;
  for (uint32_t i = 0; i < 5; ++i) raw.Handle(std::to_string(i), MarkedRaw(i));
  const OwnedList list = ReceivedList(raw);
  EXPECT_EQ(list.Impl().Handles().Capacity(), 5u);
  TQSetHandleValue(list, "more", OwnedList());
  EXPECT_EQ(list.Impl().Handles().Capacity(), 7u);
}

TEST(HandleSlots, KeepTheirListsWhenTheyGrow) {
  HandleSlots slots;
  std::vector<FastHolderImpl*> pushed;
  for (int i = 0; i < 50; ++i) {
    const ListRef list = FastHolderImpl::Create();
    pushed.push_back(list.Get());
    slots.Push(list);
  }
  for (uint32_t i = 0; i < 50; ++i) EXPECT_EQ(slots[i].Get(), pushed[i]);
  EXPECT_EQ(ListsAlive(), 50u);
  slots.Clear();
  EXPECT_EQ(ListsAlive(), 0u);
}

TEST(HandleSlots, RotateOneToTheEndAndKeepTheOrderOfTheOthers) {
  HandleSlots slots;
  std::vector<FastHolderImpl*> pushed;
  for (int i = 0; i < 5; ++i) {
    slots.Push(FastHolderImpl::Create());
    pushed.push_back(slots[slots.Size() - 1].Get());
  }
  slots.RotateToEnd(1);
  const size_t order[] = {0, 2, 3, 4, 1};
  for (uint32_t i = 0; i < 5; ++i) EXPECT_EQ(slots[i].Get(), pushed[order[i]]);
  slots.RotateToEnd(4);
  for (uint32_t i = 0; i < 5; ++i) EXPECT_EQ(slots[i].Get(), pushed[order[i]]);
  EXPECT_EQ(ListsAlive(), 5u);
}

TEST(HandleSlots, ReleaseTheLastOneWhenItIsDropped) {
  HandleSlots slots;
  slots.Push(FastHolderImpl::Create());
  slots.Push(FastHolderImpl::Create());
  FastHolderImpl* const first = slots[0].Get();
  slots.DropLast();
  EXPECT_EQ(slots.Size(), 1u);
  EXPECT_EQ(slots[0].Get(), first);
  EXPECT_EQ(slots.Capacity(), 2u);
  EXPECT_EQ(ListsAlive(), 1u);
  slots.DropLast();
  EXPECT_TRUE(slots.Empty());
  EXPECT_EQ(ListsAlive(), 0u);
}

TEST(HandleSlots, KeepTheirStorageWhenTheyAreCleared) {
  HandleSlots slots;
  for (int i = 0; i < 3; ++i) slots.Push(FastHolderImpl::Create());
  slots.Clear();
  EXPECT_EQ(slots.Size(), 0u);
  EXPECT_EQ(slots.Capacity(), 3u);
  EXPECT_EQ(ListsAlive(), 0u);
}

TEST(HandleSlots, MadeEmptyAreFilledOneByOne) {
  HandleSlots slots;
  ASSERT_TRUE(slots.MakeEmptySlots(3));
  EXPECT_EQ(slots.Size(), 3u);
  for (uint32_t i = 0; i < 3; ++i) EXPECT_FALSE(slots[i]);
  slots.Fill(0, FastHolderImpl::Create());
  slots.Fill(0, FastHolderImpl::Create());
  EXPECT_EQ(ListsAlive(), 1u);
  slots.Fill(1, FastHolderImpl::Create());
  EXPECT_FALSE(slots[2]);
  slots.Clear();
  EXPECT_EQ(ListsAlive(), 0u);
}

TEST(HandleSlots, MadeEmptyCanBeDroppedAndPushedTo) {
  HandleSlots slots;
  ASSERT_TRUE(slots.MakeEmptySlots(3));
  slots.Fill(0, FastHolderImpl::Create());
  slots.DropLast();
  slots.Push(FastHolderImpl::Create());
  EXPECT_EQ(slots.Size(), 3u);
  EXPECT_FALSE(slots[1]);
  EXPECT_TRUE(slots[2]);
  slots.Clear();
  EXPECT_EQ(ListsAlive(), 0u);
}

TEST(HandleSlots, ThatAreNeverFilledCostNoMemory) {
  // 512 MiB, as a peer can announce them with four bytes.
  constexpr uint32_t COUNT = 0x04000000;
  HandleSlots slots;
  ASSERT_TRUE(slots.MakeEmptySlots(COUNT));
  EXPECT_EQ(slots.Size(), COUNT);
  EXPECT_EQ(slots.Capacity(), COUNT);
  const uint64_t before = ResidentBytes();
  ASSERT_NE(before, 0u);
  slots.Fill(0, FastHolderImpl::Create());
  slots.Clear();
  EXPECT_LT(ResidentBytes(), before + (uint64_t{64} << 20));
  EXPECT_EQ(ListsAlive(), 0u);
}

TQ_TEST_ROLE(makeSlotsWithoutMemory) {
  if (!LimitAddressSpace(uint64_t{512} << 20)) {
    Say("not limited");
    return 0;
  }
  HandleSlots slots;
  slots.Push(FastHolderImpl::Create());
  const FastHolderImpl* const list = slots[0].Get();
  const bool made = slots.MakeEmptySlots(0x20000000);
  const bool unchanged = slots.Size() == 1 && slots.Capacity() == 1 && slots[0].Get() == list;
  Say(std::string(made ? "made" : "refused") + (unchanged ? ", unchanged" : ", changed"));
  return 0;
}

TEST(HandleSlots, AreRefusedWhenTheirMemoryCannotBeHad) {
  ChildProcess child("makeSlotsWithoutMemory");
  const auto line = child.ReadLine();
  ASSERT_TRUE(line);
  // A sanitizer's process cannot be limited.
  EXPECT_TRUE(*line == "refused, unchanged" || *line == "not limited") << *line;
  EXPECT_TRUE(child.ExpectSuccess());
}

TQ_TEST_ROLE(removeAnArrayWithoutMemory) {
  if (!LimitAddressSpace(uint64_t{1} << 30)) {
    Say("not limited");
    return 0;
  }
  // The slots take 768 MiB. A new index for each of them would take half as much again.
  constexpr uint32_t COUNT = 0x6000000;
  const Bytes block = RawList().HandleIndexArray("x", {0}).HandleIndex("y", 1).Block();
  const OwnedList list = ListOfBlock(block);
  HandleSlots& handles = list.Impl().Handles();
  if (!handles.MakeEmptySlots(COUNT)) return 1;
  handles.Fill(0, FastHolderImpl::Create());
  handles.Fill(1, FastHolderImpl::Create());
  const FastHolderImpl* const first = handles[0].Get();
  bool thrown = false;
  try {
    TQRemoveValue(list, "x");
  } catch (const std::bad_alloc&) {
    thrown = true;
  }
  const bool unchanged = handles.Size() == COUNT && handles[0].Get() == first &&
                         handles[1].IsValid() && BlockOf(list) == block && ListsAlive() == 3;
  Say(std::string(thrown ? "bad_alloc" : "removed") + (unchanged ? ", unchanged" : ", changed"));
  return 0;
}

TEST(HandleSlots, StayAsTheyAreWhenThereIsNoMemoryToRemoveAnArray) {
  ChildProcess child("removeAnArrayWithoutMemory");
  const auto line = child.ReadLine();
  ASSERT_TRUE(line);
  // A sanitizer's process cannot be limited.
  EXPECT_TRUE(*line == "bad_alloc, unchanged" || *line == "not limited") << *line;
  EXPECT_TRUE(child.ExpectSuccess());
}

TEST(HandleSlots, SwapTheirContents) {
  HandleSlots one;
  HandleSlots other;
  one.Push(FastHolderImpl::Create());
  FastHolderImpl* const list = one[0].Get();
  one.Swap(other);
  EXPECT_TRUE(one.Empty());
  EXPECT_EQ(one.Capacity(), 0u);
  ASSERT_EQ(other.Size(), 1u);
  EXPECT_EQ(other[0].Get(), list);
}

// ---- slots of values ----------------------------------------------------------------------------

TEST(HandleSlots, AreNeverSharedByTwoValues) {
  const OwnedList list;
  OwnedList nested = MarkedList(1);
  TQSetHandleValue(list, "a", nested);
  TQSetHandleValue(list, "b", nested);
  const _tag_HTQPARAMLIST twice[] = {nested, nested};
  TQSetHandleArray(list, "c", 2, twice);
  EXPECT_EQ(Marks(list), (Numbers{1, 1, 1, 1}));
  EXPECT_EQ(IndexOf(list, "a"), 0u);
  EXPECT_EQ(IndexOf(list, "b"), 1u);
  EXPECT_EQ(IndicesOf(list, "c"), (Numbers{2, 3}));

  // Each slot has a reference of its own: the list lives until the last of them is gone.
  nested.Close();
  TQRemoveValue(list, "a");
  TQRemoveValue(list, "c");
  EXPECT_EQ(ListsAlive(), 2u);
  EXPECT_EQ(MarkOf(list, "b"), 1u);
  TQRemoveValue(list, "b");
  EXPECT_EQ(ListsAlive(), 1u);
}

TEST(HandleSlots, BehindARemovedValueMoveUp) {
  const OwnedList list;
  StoreMarked(list, "a", 1);
  StoreMarked(list, "b", 2);
  StoreMarked(list, "c", 3);
  TQRemoveValue(list, "b");
  EXPECT_EQ(IndexOf(list, "a"), 0u);
  EXPECT_EQ(IndexOf(list, "c"), 1u);
  EXPECT_EQ(Marks(list), (Numbers{1, 3}));
  EXPECT_EQ(ListsAlive(), 3u);
}

TEST(HandleSlots, RemovalOfTheFirstRenumbersAllOthers) {
  const OwnedList list;
  StoreMarked(list, "a", 1);
  StoreMarkedArray(list, "b", {2, 0, 3});
  StoreMarked(list, "c", 4);
  TQSetHandleValue(list, "none", {nullptr});
  TQRemoveValue(list, "a");
  EXPECT_EQ(IndicesOf(list, "b"), (Numbers{0, NO_HANDLE_INDEX, 1}));
  EXPECT_EQ(IndexOf(list, "c"), 2u);
  EXPECT_EQ(IndexOf(list, "none"), NO_HANDLE_INDEX);
  EXPECT_EQ(Marks(list), (Numbers{2, 3, 4}));
}

TEST(HandleSlots, RemovalOfTheLastRenumbersNothing) {
  const OwnedList list;
  StoreMarked(list, "a", 1);
  StoreMarked(list, "b", 2);
  StoreMarked(list, "c", 3);
  TQRemoveValue(list, "c");
  EXPECT_EQ(IndexOf(list, "a"), 0u);
  EXPECT_EQ(IndexOf(list, "b"), 1u);
  EXPECT_EQ(Marks(list), (Numbers{1, 2}));
}

TEST(HandleSlots, RemovalOfAValueWithoutAListTouchesNoSlot) {
  const OwnedList list;
  TQSetHandleValue(list, "none", {nullptr});
  StoreMarked(list, "a", 1);
  StoreMarked(list, "b", 2);
  TQRemoveValue(list, "none");
  EXPECT_EQ(IndexOf(list, "a"), 0u);
  EXPECT_EQ(IndexOf(list, "b"), 1u);
  EXPECT_EQ(Marks(list), (Numbers{1, 2}));
}

TEST(HandleSlots, ReplacementMovesTheValueToTheLastSlot) {
  const OwnedList list;
  StoreMarked(list, "a", 1);
  StoreMarked(list, "b", 2);
  StoreMarked(list, "c", 3);
  StoreMarked(list, "a", 4);
  EXPECT_EQ(Marks(list), (Numbers{2, 3, 4}));
  EXPECT_EQ(IndexOf(list, "b"), 0u);
  EXPECT_EQ(IndexOf(list, "c"), 1u);
  EXPECT_EQ(IndexOf(list, "a"), 2u);
  TQSetInt32Value(list, "b", 0);
  EXPECT_EQ(Marks(list), (Numbers{3, 4}));
  EXPECT_EQ(MarkOf(list, "c"), 3u);
  EXPECT_EQ(MarkOf(list, "a"), 4u);
}

TEST(HandleSlots, RemovalOfAnArrayRenumbersAllOtherValues) {
  const OwnedList list;
  StoreMarked(list, "s", 1);
  StoreMarkedArray(list, "x", {2, 0, 3});
  StoreMarked(list, "t", 4);
  StoreMarkedArray(list, "y", {5, 0, 6});
  StoreMarked(list, "u", 7);
  TQSetHandleValue(list, "none", {nullptr});
  EXPECT_EQ(Marks(list), (Numbers{1, 2, 3, 4, 5, 6, 7}));

  TQRemoveValue(list, "x");
  EXPECT_EQ(Marks(list), (Numbers{1, 4, 5, 6, 7}));
  EXPECT_EQ(IndexOf(list, "s"), 0u);
  EXPECT_EQ(IndexOf(list, "t"), 1u);
  EXPECT_EQ(IndicesOf(list, "y"), (Numbers{2, NO_HANDLE_INDEX, 3}));
  EXPECT_EQ(IndexOf(list, "u"), 4u);
  EXPECT_EQ(IndexOf(list, "none"), NO_HANDLE_INDEX);
  EXPECT_EQ(ListsAlive(), 6u);
  EXPECT_EQ(TQGetParamCount(list), 5u);
}

TEST(HandleSlots, RemovalOfAnArrayMakesANewVector) {
  const OwnedList list;
  StoreMarkedArray(list, "x", {1, 2, 3});
  StoreMarkedArray(list, "y", {4, 5, 6, 7, 8});
  EXPECT_EQ(list.Impl().Handles().Capacity(), 9u);
  TQRemoveValue(list, "x");
  EXPECT_EQ(list.Impl().Handles().Size(), 5u);
  EXPECT_EQ(list.Impl().Handles().Capacity(), 6u);
  TQRemoveValue(list, "y");
  EXPECT_EQ(list.Impl().Handles().Size(), 0u);
  EXPECT_EQ(list.Impl().Handles().Capacity(), 0u);
}

TEST(HandleSlots, RemovalOfAnArrayWithoutListsChangesNothing) {
  const OwnedList list;
  StoreMarked(list, "a", 1);
  StoreMarkedArray(list, "empty", {});
  StoreMarkedArray(list, "nulls", {0, 0});
  StoreMarked(list, "b", 2);
  TQRemoveValue(list, "empty");
  TQRemoveValue(list, "nulls");
  EXPECT_EQ(Marks(list), (Numbers{1, 2}));
  EXPECT_EQ(MarkOf(list, "a"), 1u);
  EXPECT_EQ(MarkOf(list, "b"), 2u);
}

TEST(HandleSlots, RemovalRenumbersEntriesInFrontOfTheRemovedOneToo) {
  // Stored again, "a" stands in front of "b" in the slots' order and behind it in the block's.
  const OwnedList list;
  StoreMarked(list, "a", 1);
  StoreMarkedArray(list, "b", {2, 3});
  StoreMarked(list, "c", 4);
  StoreMarked(list, "a", 5);
  StoreMarkedArray(list, "b", {6, 7});
  EXPECT_EQ(NamesOf(list), (std::vector<std::string>{"c", "a", "b"}));
  EXPECT_EQ(Marks(list), (Numbers{4, 5, 6, 7}));
  TQRemoveValue(list, "a");
  EXPECT_EQ(IndexOf(list, "c"), 0u);
  EXPECT_EQ(IndicesOf(list, "b"), (Numbers{1, 2}));
  TQRemoveValue(list, "c");
  EXPECT_EQ(IndicesOf(list, "b"), (Numbers{0, 1}));
  EXPECT_EQ(Marks(list), (Numbers{6, 7}));
}

// ---- slots as a peer names them -----------------------------------------------------------------

TEST(HandleSlots, ThatNoValueNamesStayWhenOthersGo) {
  const OwnedList list = ReceivedList(
      RawList().Child(MarkedRaw(1)).HandleIndex("a", 1).Child(MarkedRaw(2)).Child(MarkedRaw(3)));
  TQRemoveValue(list, "a");
  EXPECT_EQ(Marks(list), (Numbers{1, 3}));
}

TEST(HandleSlots, SharedByTwoSingleValuesPassToTheNextListWhenOneOfThemGoes) {
  const OwnedList list = ReceivedList(RawList()
                                          .Child(MarkedRaw(1))
                                          .Child(MarkedRaw(2))
                                          .HandleIndex("a", 0)
                                          .HandleIndex("b", 0)
                                          .HandleIndex("c", 1));
  TQRemoveValue(list, "a");
  EXPECT_EQ(Marks(list), Numbers{2});
  EXPECT_EQ(IndexOf(list, "b"), 0u);
  EXPECT_EQ(IndexOf(list, "c"), 0u);
  TQRemoveValue(list, "b");
  EXPECT_EQ(list.Impl().Handles().Size(), 0u);
  EXPECT_EQ(IndexOf(list, "c"), 0u);
  EXPECT_EQ(MarkOf(list, "c"), 0u);
  EXPECT_EQ(ListsAlive(), 1u);
}

TEST(HandleSlots, NamedByAnIndexThatIsTooLargeLoseTheirLastOne) {
  const OwnedList list = ReceivedList(RawList()
                                          .Handle("a", MarkedRaw(1))
                                          .Handle("b", MarkedRaw(2))
                                          .HandleIndex("wrong", 2)
                                          .HandleIndex("far", 0xFFFFFFFE));
  TQRemoveValue(list, "wrong");
  EXPECT_EQ(Marks(list), Numbers{1});
  EXPECT_EQ(IndexOf(list, "a"), 0u);
  EXPECT_EQ(IndexOf(list, "b"), 1u);
  EXPECT_EQ(MarkOf(list, "b"), 0u);
  TQRemoveValue(list, "far");
  EXPECT_EQ(list.Impl().Handles().Size(), 0u);
  EXPECT_EQ(MarkOf(list, "a"), 0u);
  EXPECT_EQ(ListsAlive(), 1u);
}

TEST(HandleSlots, ThatAreNotThereCanBeNamedByARemovedValue) {
  for (const uint32_t index : {0u, 1u, 0x7FFFFFFFu, 0xFFFFFFFEu}) {
    SCOPED_TRACE(index);
    const OwnedList list = ReceivedList(RawList().HandleIndex("a", index).Int32("b", 1));
    EXPECT_EQ(TQRemoveValue(list, "a"), TQ_ERR_OK);
    EXPECT_EQ(list.Impl().Handles().Size(), 0u);
    EXPECT_EQ(RawOf(list), RawList().Int32("b", 1));
  }
}

TEST(HandleSlots, NamedTwiceInARemovedArrayAreReleasedOnce) {
  const OwnedList list = ReceivedList(RawList()
                                          .Child(MarkedRaw(1))
                                          .Child(MarkedRaw(2))
                                          .Child(MarkedRaw(3))
                                          .HandleIndexArray("x", {1, 1, 0, 1})
                                          .HandleIndex("y", 2));
  TQRemoveValue(list, "x");
  EXPECT_EQ(Marks(list), Numbers{3});
  EXPECT_EQ(IndexOf(list, "y"), 0u);
  EXPECT_EQ(MarkOf(list, "y"), 3u);
  EXPECT_EQ(ListsAlive(), 2u);
}

TEST(HandleSlots, ThatARemovedArrayTookAwayAreTheFirstOneForOthersThatNamedThem) {
  const OwnedList list = ReceivedList(RawList()
                                          .Child(MarkedRaw(1))
                                          .Child(MarkedRaw(2))
                                          .HandleIndexArray("x", {1})
                                          .HandleIndex("y", 1)
                                          .HandleIndexArray("z", {1, 0}));
  TQRemoveValue(list, "x");
  EXPECT_EQ(Marks(list), Numbers{1});
  EXPECT_EQ(IndexOf(list, "y"), 0u);
  EXPECT_EQ(IndicesOf(list, "z"), (Numbers{0, 0}));
}

TEST(HandleSlots, OfARemovedArraysIndicesThatAreTooLargeAreNotTouched) {
  const OwnedList list = ReceivedList(RawList()
                                          .Child(MarkedRaw(1))
                                          .Child(MarkedRaw(2))
                                          .HandleIndexArray("x", {2, 0, 0xFFFFFFFE, 0x80000000})
                                          .HandleIndexArray("y", {1, 7, 0xFFFFFFFE}));
  TQRemoveValue(list, "x");
  EXPECT_EQ(Marks(list), Numbers{2});
  EXPECT_EQ(IndicesOf(list, "y"), (Numbers{0, 7, 0xFFFFFFFE}));
}

TEST(HandleSlots, ThatWereNeverFilledAreLeftOutOfTheNewVector) {
  const OwnedList list =
      ListOfBlock(RawList().HandleIndexArray("x", {1}).HandleIndex("y", 2).Block());
  ASSERT_TRUE(list.Impl().Handles().MakeEmptySlots(3));
  list.Impl().Handles().Fill(1, FastHolderImpl::Create());
  EXPECT_EQ(TQGetHandleValue(list, "y").impl, nullptr);
  TQRemoveValue(list, "x");
  EXPECT_EQ(list.Impl().Handles().Size(), 0u);
  EXPECT_EQ(ListsAlive(), 1u);
}

TEST(HandleSlots, EmptySlotsReleaseWhatWasThere) {
  const uint32_t before = ListsAlive();
  HandleSlots slots;
  slots.Push(FastHolderImpl::Create());
  slots.Push(FastHolderImpl::Create());
  ASSERT_TRUE(slots.MakeEmptySlots(1));
  EXPECT_EQ(ListsAlive(), before);
  EXPECT_EQ(slots.Size(), 1u);
  EXPECT_FALSE(slots[0]);
}

}  // namespace
}  // namespace TQ::test
