#include "params/list_store.h"
#include "support/child_process.h"
#include "support/log_recorder.h"
#include "support/param_lists.h"

#include <tq/tq.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace TQ::test {
namespace {

using Damaged = _tag_TQPARAMVALUE::DataDamaged;
using NoData = TQMemoryBufferTpl2<0>::NoDataExeption;
using Names = std::vector<std::string>;

constexpr _tag_HTQPARAMLIST NO_LIST = {nullptr};

/// A list with one value of every type but those with lists, as bytes.
RawList AllPlainTypes() {
  return RawList()
      .String("string", "text")
      .Int32("int32", 0xFFFFFFFF)
      .Int64("int64", 0x8000000000000001)
      .Binary("binary", {0, 10, 255})
      .StringArray("strings", {"a", "", "ccccc"})
      .Int32Array("int32s", {1, 0xFFFFFFFF})
      .Int64Array("int64s", {0x200000001, 3})
      .BinaryArray("binaries", {{1, 2, 3}, {}, {4}});
}

/// The lists in the slots, in order.
std::vector<FastHolderImpl*> SlotsOf(_tag_HTQPARAMLIST list) {
  std::vector<FastHolderImpl*> slots;
  const auto& handles = list.impl->Handles();
  for (uint32_t i = 0; i < handles.Size(); ++i) slots.push_back(handles[i].Get());
  return slots;
}

// ---- clones -------------------------------------------------------------------------------------

TEST(Clone, HasTheSameBytesAndTheSameCount) {
  const OwnedList source = ReceivedList(AllPlainTypes());
  const OwnedList clone(TQCloneHandle(source));
  ASSERT_FALSE(clone.IsNull());
  EXPECT_NE(clone.Handle().impl, source.Handle().impl);
  EXPECT_EQ(BlockOf(clone), AllPlainTypes().Block());
  EXPECT_EQ(TQGetParamCount(clone), 8u);
  EXPECT_NE(clone.Impl().BlockData(), source.Impl().BlockData());
}

TEST(Clone, HasItsBlockInOnePieceWithoutSlack) {
  const OwnedList source;
  TQSetStringValue(source, "large", std::string(1000, 'x').c_str());
  TQSetInt32Value(source, "small", 1);
  TQRemoveValue(source, "large");
  ASSERT_GT(source.Impl().BlockCapacity(), source.Impl().BlockSize());
  const OwnedList clone(TQCloneHandle(source));
  EXPECT_EQ(clone.Impl().BlockCapacity(), source.Impl().BlockSize());
  EXPECT_EQ(clone.Impl().BlockSize(), source.Impl().BlockSize());
}

TEST(Clone, OfAnEmptyListIsAnEmptyListWithoutABlock) {
  for (const bool onceFilled : {false, true}) {
    const OwnedList source;
    if (onceFilled) TQSetInt32Value(source, "a", 1);
    TQRemoveAllValues(source);
    const OwnedList clone(TQCloneHandle(source));
    ASSERT_FALSE(clone.IsNull());
    EXPECT_EQ(clone.Impl().BlockData(), nullptr);
    EXPECT_EQ(clone.Impl().BlockCapacity(), 0u);
    EXPECT_EQ(clone.Impl().Handles().Capacity(), 0u);
    EXPECT_EQ(TQGetParamCount(clone), 0u);
    EXPECT_EQ(TQSetInt32Value(clone, "b", 2), TQ_ERR_OK);
    EXPECT_EQ(TQGetParamCount(source), 0u);
  }
}

TEST(Clone, OfTheNullHandleIsTheNullHandle) {
  const LogRecorder log;
  EXPECT_EQ(TQCloneHandle(NO_LIST).impl, nullptr);
  EXPECT_EQ(ListsAlive(), 0u);
  EXPECT_TRUE(log.Lines().empty());
}

TEST(Clone, HasOneReferenceThatTheCallerGivesBack) {
  OwnedList source = ReceivedList(AllPlainTypes());
  const _tag_HTQPARAMLIST clone = TQCloneHandle(source);
  EXPECT_EQ(ListsAlive(), 2u);
  source.Close();
  EXPECT_EQ(ListsAlive(), 1u);
  EXPECT_STREQ(TQGetStringValue(clone, "string"), "text");
  TQCloseHandle(clone);
  EXPECT_EQ(ListsAlive(), 0u);
}

TEST(Clone, CanBeChangedWithoutTheSource) {
  const OwnedList source = ReceivedList(AllPlainTypes());
  const OwnedList clone(TQCloneHandle(source));
  TQSetInt32Value(clone, "int32", 1);
  TQSetInt32Value(clone, "more", 2);
  TQRemoveValue(clone, "string");
  EXPECT_EQ(BlockOf(source), AllPlainTypes().Block());
  EXPECT_EQ(TQGetParamCount(source), 8u);
}

TEST(Clone, SharesTheNestedListsInTheSameSlots) {
  OwnedList source;
  const OwnedList a;
  const OwnedList b;
  const OwnedList c;
  const _tag_HTQPARAMLIST pair[] = {c, NO_LIST, a};
  TQSetHandleValue(source, "a", a);
  TQSetHandleValue(source, "none", NO_LIST);
  TQSetHandleValue(source, "b", b);
  TQSetHandleArray(source, "pair", 3, pair);
  const OwnedList clone(TQCloneHandle(source));
  EXPECT_EQ(ListsAlive(), 5u) << "nothing nested is copied";
  EXPECT_EQ(BlockOf(clone), BlockOf(source));
  EXPECT_EQ(SlotsOf(clone), SlotsOf(source));
  EXPECT_EQ(clone.Impl().Handles().Capacity(), 4u);
  TQSetInt32Value(a, "n", 5);
  const OwnedList through(TQGetHandleValue(clone, "a"));
  EXPECT_EQ(TQGetInt32Value(through, "n"), 5u);
}

TEST(Clone, HoldsReferencesOfItsOwnToTheNestedLists) {
  OwnedList source;
  OwnedList nested;
  TQSetHandleValue(source, "a", nested);
  OwnedList clone(TQCloneHandle(source));
  nested.Close();
  source.Close();
  EXPECT_EQ(ListsAlive(), 2u);
  EXPECT_NE(TQGetHandleById(clone, 0).impl, nullptr);
  TQRemoveValue(clone, "a");
  EXPECT_EQ(ListsAlive(), 1u);
  clone.Close();
  EXPECT_EQ(ListsAlive(), 0u);
}

TEST(Clone, KeepsAValueWithoutAList) {
  const OwnedList source;
  TQSetHandleValue(source, "none", NO_LIST);
  const OwnedList clone(TQCloneHandle(source));
  ASSERT_NE(TQParamInfo(clone, "none"), nullptr);
  EXPECT_EQ(TQParamInfo(clone, "none")->Value()->type, PT_PARAMHANDLE);
  EXPECT_EQ(TQGetHandleValue(clone, "none").impl, nullptr);
  EXPECT_EQ(RawOf(clone), RawList().NoHandle("none"));
}

TEST(Clone, OfAPeersListKeepsWhatThePeerSent) {
  const RawList sent = RawList()
                           .Int32("twice", 1)
                           .Int32("twice", 2)
                           .HandleIndex("beyond", 7)
                           .Child(RawList().Int32("unnamed", 3));
  const OwnedList source = ReceivedList(sent);
  const OwnedList clone(TQCloneHandle(source));
  EXPECT_EQ(RawOf(clone), sent);
  EXPECT_EQ(TQGetParamCount(clone), 3u);
}

TEST(Clone, OfAPeersSlotsWithoutListsHasSlotsWithoutLists) {
  const OwnedList source = ListOfBlock(RawList().HandleIndex("a", 2).Block());
  ASSERT_TRUE(source.Impl().Handles().MakeEmptySlots(3));
  source.Impl().Handles().Fill(0, FastHolderImpl::Create());
  const OwnedList clone(TQCloneHandle(source));
  EXPECT_EQ(SlotsOf(clone), SlotsOf(source));
  EXPECT_EQ(TQGetHandleValue(clone, "a").impl, nullptr);
}

TEST(Clone, OfAListInItselfHoldsTheSourceAndNotItself) {
  const OwnedList source;
  TQSetHandleValue(source, "self", source);
  {
    const OwnedList clone(TQCloneHandle(source));
    EXPECT_EQ(TQGetHandleById(clone, 0).impl, source.Handle().impl);
  }
  EXPECT_EQ(ListsAlive(), 1u);
  TQRemoveValue(source, "self");
}

// ---- clones that are lost -----------------------------------------------------------------------

// A lost list is reachable from nothing, which is what a checker of leaks looks for. It is lost in
// a process that ends without the checks at an orderly end.

TQ_TEST_ROLE(loseClones) {
  const OwnedList unknownType =
      ListOfBlock(RawList().Int32("a", 1).Entry("b", 6, U32(2)).Int32("c", 3).Block());
  EXPECT_THROW((void)TQCloneHandle(unknownType), Damaged);
  EXPECT_EQ(ListsAlive(), 2u);
  const OwnedList cutOff = ListOfBlock(RawList().Entry("b", RAW_BINARY, U32(100)).Block());
  EXPECT_THROW((void)TQCloneHandle(cutOff), NoData);
  EXPECT_EQ(ListsAlive(), 4u);

  // What the lost list holds is lost with it.
  OwnedList nested;
  OwnedList parent = ListOfBlock(RawList().HandleIndex("h", 0).Entry("b", 6, {}).Block());
  parent.Impl().Handles().Push(TQ::detail::ListRef(nested.Handle().impl));
  EXPECT_THROW((void)TQCloneHandle(parent), Damaged);
  EXPECT_EQ(ListsAlive(), 7u);
  parent.Close();
  nested.Close();
  EXPECT_EQ(ListsAlive(), 6u);
  Say(testing::Test::HasFailure() ? "differs" : "lost");
  return AwaitCommand("never") ? 0 : 1;
}

TEST(Clone, OfAPeersListThatEndsAtAnOddPlaceIsExact) {
  const RawList unaligned = RawList().Raw(FromHex("04 61 00 00 02 07 00 00 00"));
  const OwnedList received = ReceivedList(unaligned);
  const OwnedList clone(TQCloneHandle(received));
  EXPECT_EQ(TQGetInt32Value(clone, "a"), 7u);
  EXPECT_EQ(RawOf(clone), unaligned);
}

TEST(Clone, OfADamagedListRaisesAndIsLost) {
  ChildProcess process("loseClones");
  EXPECT_TRUE(process.ExpectLine("lost"));
  process.Kill();
}

// ---- copies of each type ------------------------------------------------------------------------

TEST(Copy, StoresEveryTypeAsItWas) {
  const OwnedList source = ReceivedList(AllPlainTypes());
  const OwnedList destination;
  EXPECT_EQ(TQCopyHandle(source, destination), TQ_ERR_OK);
  EXPECT_EQ(RawOf(destination), AllPlainTypes());
  EXPECT_EQ(TQGetParamCount(destination), 8u);
  EXPECT_EQ(RawOf(source), AllPlainTypes());
}

TEST(Copy, StoresEmptyValues) {
  const RawList values = RawList()
                             .String("", "")
                             .Binary("binary", {})
                             .StringArray("strings", {})
                             .Int32Array("int32s", {})
                             .Int64Array("int64s", {})
                             .HandleArray("lists", {})
                             .BinaryArray("binaries", {});
  const OwnedList source = ReceivedList(values);
  const OwnedList destination;
  EXPECT_EQ(TQCopyHandle(source, destination), TQ_ERR_OK);
  EXPECT_EQ(RawOf(destination), values);
}

TEST(Copy, StoresUnderTheLongestName) {
  const std::string longest(253, 'n');
  const OwnedList source;
  TQSetInt32Value(source, longest.c_str(), 5);
  const OwnedList destination;
  EXPECT_EQ(TQCopyHandle(source, destination), TQ_ERR_OK);
  EXPECT_EQ(TQGetInt32Value(destination, longest.c_str()), 5u);
}

TEST(Copy, SharesANestedListInANewSlot) {
  OwnedList source;
  OwnedList nested;
  const OwnedList other;
  const OwnedList destination;
  TQSetInt32Value(nested, "n", 5);
  TQSetHandleValue(source, "h", nested);
  TQSetHandleValue(destination, "first", other);
  EXPECT_EQ(TQCopyHandle(source, destination), TQ_ERR_OK);
  EXPECT_EQ(ListsAlive(), 4u);
  EXPECT_EQ(SlotsOf(destination),
            (std::vector<FastHolderImpl*>{other.Handle().impl, nested.Handle().impl}));
  EXPECT_EQ(RawOf(destination),
            RawList().Handle("first", RawList()).Handle("h", RawList().Int32("n", 5)));
  source.Close();
  nested.Close();
  EXPECT_EQ(ListsAlive(), 3u);
  EXPECT_EQ(TQGetInt32Value(TQGetHandleById(destination, 1), "n"), 5u);
}

TEST(Copy, TakesAListValueByTheIndexThatItHolds) {
  const OwnedList source = ReceivedList(RawList()
                                            .HandleIndex("second", 1)
                                            .HandleIndex("first", 0)
                                            .HandleIndex("again", 1)
                                            .Child(RawList().Int32("n", 10))
                                            .Child(RawList().Int32("n", 11)));
  const OwnedList destination;
  EXPECT_EQ(TQCopyHandle(source, destination), TQ_ERR_OK);
  EXPECT_EQ(RawOf(destination), RawList()
                                    .Handle("second", RawList().Int32("n", 11))
                                    .Handle("first", RawList().Int32("n", 10))
                                    .Handle("again", RawList().Int32("n", 11)));
}

TEST(Copy, OfASlotWithoutAListStoresNoList) {
  const OwnedList source = ListOfBlock(RawList().HandleIndex("a", 1).Block());
  ASSERT_TRUE(source.Impl().Handles().MakeEmptySlots(2));
  const OwnedList destination;
  EXPECT_EQ(TQCopyHandle(source, destination), TQ_ERR_OK);
  EXPECT_EQ(RawOf(destination), RawList().NoHandle("a"));
}

// ---- copies of arrays of lists ------------------------------------------------------------------

TEST(Copy, OfAnArrayOfListsThatIsTheOnlyValueWithListsIsRight) {
  const OwnedList source;
  const OwnedList a;
  const OwnedList b;
  const _tag_HTQPARAMLIST lists[] = {a, b};
  TQSetHandleArray(source, "lists", 2, lists);
  const OwnedList destination;
  EXPECT_EQ(TQCopyHandle(source, destination), TQ_ERR_OK);
  EXPECT_EQ(SlotsOf(destination), (std::vector<FastHolderImpl*>{a.Handle().impl, b.Handle().impl}));
  EXPECT_EQ(RawOf(destination), RawList().HandleArray("lists", {RawList(), RawList()}));
}

TEST(Copy, OfAnArrayOfListsTakesTheFirstSlotsWhateverTheArrayNames) {
  const OwnedList source;
  const OwnedList p;
  const OwnedList q;
  const OwnedList r;
  const _tag_HTQPARAMLIST onlyR[] = {r};
  TQSetHandleValue(source, "p", p);
  TQSetHandleValue(source, "q", q);
  TQSetHandleArray(source, "array", 1, onlyR);
  const OwnedList destination;
  EXPECT_EQ(TQCopyHandle(source, destination), TQ_ERR_OK);
  const auto indices = TQGetHandleArray(destination, "array");
  ASSERT_EQ(uint32_t{indices.count}, 1u);
  EXPECT_EQ(TQGetHandleById(destination, indices.values[0]).impl, p.Handle().impl);
  EXPECT_EQ(SlotsOf(destination),
            (std::vector<FastHolderImpl*>{p.Handle().impl, q.Handle().impl, p.Handle().impl}));
}

TEST(Copy, OfAnArrayOfListsPutsAListInThePlaceOfNone) {
  const OwnedList source;
  const OwnedList a;
  const OwnedList b;
  const _tag_HTQPARAMLIST lists[] = {NO_LIST, a, b};
  TQSetHandleArray(source, "lists", 3, lists);
  TQSetHandleValue(source, "more", a);
  const OwnedList destination;
  EXPECT_EQ(TQCopyHandle(source, destination), TQ_ERR_OK);
  EXPECT_EQ(SlotsOf(destination), (std::vector<FastHolderImpl*>{a.Handle().impl, b.Handle().impl,
                                                                a.Handle().impl, a.Handle().impl}));
  EXPECT_EQ(TQGetParamCount(destination), 2u);
}

// ---- merging ------------------------------------------------------------------------------------

TEST(Copy, ReplacesValuesOfTheSameNameAndGoesBehindTheOthers) {
  const OwnedList source;
  const OwnedList destination;
  TQSetInt32Value(source, "a", 1);
  TQSetInt32Value(destination, "a", 10);
  TQSetInt32Value(destination, "b", 20);
  EXPECT_EQ(TQCopyHandle(source, destination), TQ_ERR_OK);
  EXPECT_EQ(RawOf(destination), RawList().Int32("b", 20).Int32("a", 1));
  EXPECT_EQ(TQGetParamCount(destination), 2u);
}

TEST(Copy, KeepsTheOrderOfBothLists) {
  const OwnedList source;
  const OwnedList destination;
  for (const char* name : {"d", "b", "e"}) TQSetInt32Value(source, name, 1);
  for (const char* name : {"a", "b", "c", "d"}) TQSetInt32Value(destination, name, 2);
  EXPECT_EQ(TQCopyHandle(source, destination), TQ_ERR_OK);
  EXPECT_EQ(NamesOf(destination), (Names{"a", "c", "d", "b", "e"}));
}

TEST(Copy, MayChangeTheTypeOfAValueAndReleasesItsLists) {
  const OwnedList source;
  const OwnedList destination;
  OwnedList nested;
  TQSetStringValue(source, "a", "text");
  TQSetHandleValue(destination, "a", nested);
  nested.Close();
  EXPECT_EQ(ListsAlive(), 3u);
  EXPECT_EQ(TQCopyHandle(source, destination), TQ_ERR_OK);
  EXPECT_EQ(ListsAlive(), 2u);
  EXPECT_EQ(RawOf(destination), RawList().String("a", "text"));
}

TEST(Copy, OfTwoEntriesOfOneNameLeavesTheSecond) {
  const OwnedList source = ReceivedList(RawList().Int32("x", 1).Int32("y", 2).Int32("x", 3));
  const OwnedList destination;
  EXPECT_EQ(TQCopyHandle(source, destination), TQ_ERR_OK);
  EXPECT_EQ(RawOf(destination), RawList().Int32("y", 2).Int32("x", 3));
}

TEST(Copy, CopiesAgainToTheSameResult) {
  const OwnedList source = ReceivedList(AllPlainTypes());
  const OwnedList destination;
  TQCopyHandle(source, destination);
  EXPECT_EQ(TQCopyHandle(source, destination), TQ_ERR_OK);
  EXPECT_EQ(RawOf(destination), AllPlainTypes());
}

TEST(Copy, OfNothingIsFineAndDoesNotLookAtTheDestination) {
  const LogRecorder log;
  const OwnedList empty;
  const OwnedList destination;
  TQSetInt32Value(destination, "a", 1);
  EXPECT_EQ(TQCopyHandle(NO_LIST, destination), TQ_ERR_OK);
  EXPECT_EQ(TQCopyHandle(empty, destination), TQ_ERR_OK);
  EXPECT_EQ(TQCopyHandle(NO_LIST, NO_LIST), TQ_ERR_OK);
  EXPECT_EQ(TQCopyHandle(empty, NO_LIST), TQ_ERR_OK);
  EXPECT_EQ(TQCopyHandle(empty, empty), TQ_ERR_OK);
  EXPECT_EQ(RawOf(destination), RawList().Int32("a", 1));
  EXPECT_TRUE(log.Lines().empty());
}

// ---- damaged sources ----------------------------------------------------------------------------

TEST(Copy, RaisesAtAnUnknownTypeWithWhatStandsAheadStored) {
  for (const int type : {0, 6, 0x7F, 0x80, 0x86, 0xFF}) {
    SCOPED_TRACE(type);
    const OwnedList source = ListOfBlock(RawList()
                                             .Int32("a", 1)
                                             .Entry("b", static_cast<uint8_t>(type), U32(2))
                                             .Int32("c", 3)
                                             .Block());
    const OwnedList destination;
    TQSetInt32Value(destination, "b", 7);
    EXPECT_THROW(TQCopyHandle(source, destination), Damaged);
    EXPECT_EQ(RawOf(destination), RawList().Int32("b", 7).Int32("a", 1));
    EXPECT_EQ(TQGetParamCount(destination), 2u);
  }
}

TEST(Copy, AsksForTheNameOfNoUnknownType) {
  const OwnedList source = ListOfBlock(FromHex("03 61 61 06 61 61 61 61"));
  const OwnedList destination;
  EXPECT_THROW(TQCopyHandle(source, destination), Damaged);
}

TEST(Copy, StoresAnEntryWhoseFillIsCutAndRaisesBehindIt) {
  const std::vector<RawList> values = {
      RawList().String("v", "text"),
      RawList().Binary("v", {1}),
      RawList().StringArray("v", {"a", "text"}),
      RawList().BinaryArray("v", {{1, 2}, {3}}),
  };
  for (const RawList& value : values) {
    SCOPED_TRACE(ToHex(value.Block()));
    RawList cut = RawList().Int32("a", 1).Raw(value.Block());
    cut.Truncate(cut.BlockSize() - 3);
    const OwnedList source = ListOfBlock(cut.Block());
    const OwnedList destination;
    EXPECT_THROW(TQCopyHandle(source, destination), NoData);
    EXPECT_EQ(RawOf(destination), RawList().Int32("a", 1).Raw(value.Block()));
    EXPECT_EQ(TQGetParamCount(destination), 2u);
  }
}

TEST(Copy, RaisesAtAnEntryThatIsCutWithWhatStandsAheadStored) {
  // Each of them is cut at every place up to the last byte that it takes to read it.
  const std::vector<std::pair<RawList, size_t>> values = {
      {RawList().String("v", "text"), 3},
      {RawList().Int32("v", 7), 0},
      {RawList().Int64("v", 7), 0},
      {RawList().Binary("v", {1}), 3},
      {RawList().StringArray("v", {"a", "text"}), 3},
      {RawList().Int32Array("v", {1, 2}), 0},
      {RawList().Int64Array("v", {1, 2}), 0},
      {RawList().HandleIndexArray("v", {0, 1}), 0},
      {RawList().HandleIndex("v", 0), 0},
      {RawList().BinaryArray("v", {{1, 2}, {3}}), 3},
  };
  for (const auto& [value, fill] : values) {
    for (size_t size = 1; size < value.Block().size() - fill; ++size) {
      const Bytes cut = Prefix(value.Block(), size);
      SCOPED_TRACE(ToHex(cut));
      const OwnedList source = ListOfBlock(RawList().Int32("a", 1).Raw(cut).Block(), 2);
      const OwnedList destination;
      TQSetInt32Value(destination, "v", 9);
      EXPECT_THROW(TQCopyHandle(source, destination), NoData);
      EXPECT_EQ(RawOf(destination), RawList().Int32("v", 9).Int32("a", 1));
    }
  }
}

TEST(Copy, RaisesAtANameThatDoesNotEndInTheBlock) {
  const OwnedList source = ListOfBlock(FromHex("03 61 61 02 61 61 61 61"));
  const OwnedList destination;
  EXPECT_THROW(TQCopyHandle(source, destination), NoData);
  EXPECT_EQ(TQGetParamCount(destination), 0u);
}

TEST(Copy, TakesElementsWhereAPeersOffsetsSay) {
  // Elements may overlap, stand in any order and lie in the next entry; the last one alone has to
  // end the value.
  const OwnedList source = ReceivedList(
      RawList()
          .Entry("s", 0x81, Concat({U32(3), U32(2), U32(8), U32(0), FromHex("61 62 63 00")}))
          .String("t", "peer")
          .Entry("b", 0x85, Concat({U32(2), U32(12), U32(0), U32(1), FromHex("09 00 00 00")}))
          .Binary("v", {5, 6}));
  const OwnedList destination;
  EXPECT_EQ(TQCopyHandle(source, destination), TQ_ERR_OK);
  EXPECT_EQ(RawOf(destination), RawList()
                                    .StringArray("s", {"c", "peer", "abc"})
                                    .String("t", "peer")
                                    .BinaryArray("b", {{5, 6}, {9}})
                                    .Binary("v", {5, 6}));
}

TEST(Copy, RaisesAtAnElementBeyondTheBlock) {
  struct Case {
    uint8_t type;
    Bytes payload;
  };
  const std::vector<Case> cases = {
      // Texts that start at the end of the block or behind it.
      {0x81, Concat({U32(2), U32(4), U32(0), FromHex("61 00 00 00")})},
      {0x81, Concat({U32(2), U32(100), U32(0), FromHex("61 00 00 00")})},
      {0x81, Concat({U32(2), U32(0xFFFFFFFF), U32(0), FromHex("61 00 00 00")})},
      // Lengths there, one that is cut, and one that is too long.
      {0x85, Concat({U32(2), U32(4), U32(0), U32(0)})},
      {0x85, Concat({U32(2), U32(100), U32(0), U32(0)})},
      {0x85, Concat({U32(2), U32(2), U32(0), U32(0)})},
      {0x85, Concat({U32(2), U32(4), U32(0), U32(4), U32(5)})},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(ToHex(c.payload));
    const OwnedList source = ReceivedList(RawList().Int32("a", 1).Entry("b", c.type, c.payload));
    const OwnedList destination;
    EXPECT_THROW(TQCopyHandle(source, destination), NoData);
    EXPECT_EQ(RawOf(destination), RawList().Int32("a", 1));
  }
}

TEST(Copy, TakesNoMemoryForACountThatCannotBeTrue) {
  for (const int type : {0x81, 0x82, 0x83, 0x84, 0x85}) {
    SCOPED_TRACE(type);
    const OwnedList source =
        ListOfBlock(RawList().Entry("a", static_cast<uint8_t>(type), U32(0xFFFFFFFF)).Block(), 1);
    const OwnedList destination;
    EXPECT_THROW(TQCopyHandle(source, destination), NoData);
    EXPECT_EQ(TQGetParamCount(destination), 0u);
  }
}

TEST(Copy, BringsAPeersUnalignedValuesIntoPlace) {
  // A head of five bytes, which no writer makes, moves all that follows off the boundary of four.
  const OwnedList source = ReceivedList(RawList()
                                            .Raw(FromHex("04 6e 00 00 03"))
                                            .Raw(U64(7))
                                            .Int32("i", 1)
                                            .Int64("q", 0x200000001)
                                            .Int32Array("is", {2, 3})
                                            .Int64Array("qs", {4, 5})
                                            .StringArray("s", {"a", "b"})
                                            .BinaryArray("b", {{6}, {}})
                                            .HandleIndex("h", 0)
                                            .HandleIndexArray("hs", {0})
                                            .Child(RawList()));
  ASSERT_EQ(source.Impl().BlockSize() % 4, 1u);
  const OwnedList destination;
  EXPECT_EQ(TQCopyHandle(source, destination), TQ_ERR_OK);
  EXPECT_EQ(RawOf(destination), RawList()
                                    .Int64("n", 7)
                                    .Int32("i", 1)
                                    .Int64("q", 0x200000001)
                                    .Int32Array("is", {2, 3})
                                    .Int64Array("qs", {4, 5})
                                    .StringArray("s", {"a", "b"})
                                    .BinaryArray("b", {{6}, {}})
                                    .Handle("h", RawList())
                                    .HandleArray("hs", {RawList()}));
}

}  // namespace
}  // namespace TQ::test
