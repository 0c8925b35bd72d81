#include <tq/param_list_holder.h>

#include "support/log_recorder.h"
#include "support/param_lists.h"

#include <tq/tq.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

namespace TQ::test {
namespace {

using Holder = ParamListHolder;
using Iterator = Holder::param_iterator;
using Names = std::vector<std::string>;

constexpr _tag_HTQPARAMLIST NO_LIST = {nullptr};

static_assert(std::forward_iterator<Iterator>);
static_assert(!std::bidirectional_iterator<Iterator>);
static_assert(
    std::is_same_v<std::iterator_traits<Iterator>::iterator_category, std::forward_iterator_tag>);
static_assert(std::is_same_v<std::iter_reference_t<Iterator>, const _tag_TQPARAMINFO&>);
static_assert(std::is_trivially_copyable_v<Iterator>);

/// The handle that a holder is, without a reference for the test.
_tag_HTQPARAMLIST HandleOf(const Holder& holder) {
  static_assert(sizeof(Holder) == sizeof(_tag_HTQPARAMLIST));
  _tag_HTQPARAMLIST handle;
  std::memcpy(&handle, reinterpret_cast<const void*>(&holder), sizeof handle);
  return handle;
}

FastHolderImpl* ListOf(const Holder& holder) { return HandleOf(holder).impl; }

Holder NewHolder() {
  Holder holder;
  holder.NewList();
  return holder;
}

/// A holder of what a peer sent.
Holder ReceivedHolder(const RawList& raw) { return Holder::FromHandle(ReceivedList(raw)); }

Names NamesIn(const Holder& holder) {
  Names names;
  for (const _tag_TQPARAMINFO& entry : holder) names.emplace_back(entry.name);
  return names;
}

// ---- an empty holder ----------------------------------------------------------------------------

TEST(ParamListHolder, IsAHandleAndNothingElse) {
  EXPECT_EQ(sizeof(Holder), 8u);
  EXPECT_FALSE(std::is_polymorphic_v<Holder>);
  EXPECT_TRUE(std::is_standard_layout_v<Holder>);
}

TEST(ParamListHolder, HoldsNothingAtFirst) {
  const Holder holder;
  EXPECT_TRUE(!holder);
  EXPECT_TRUE(holder.empty());
  EXPECT_EQ(ListOf(holder), nullptr);
  EXPECT_EQ(ListsAlive(), 0u);
}

TEST(EmptyHolder, GivesTheNotAvailableAnswers) {
  const LogRecorder log;
  const Holder holder;
  EXPECT_FALSE(holder.Exists("a"));
  EXPECT_EQ(holder.GetCount(), 0u);
  EXPECT_EQ(holder.GetSize(), 0u);
  EXPECT_EQ(holder.GetFirst(), nullptr);
  EXPECT_EQ(holder.GetNext(nullptr), nullptr);
  EXPECT_EQ(holder.GetInfo("a"), nullptr);
  EXPECT_EQ(holder.GetType("a"), PT_UNKNOWN);
  EXPECT_EQ(holder.GetArrayType("a"), PT_UNKNOWN);
  EXPECT_EQ(holder.GetArraySize("a"), 0u);
  EXPECT_EQ(holder.GetString("a"), nullptr);
  EXPECT_EQ(holder.GetInt32("a"), 0u);
  EXPECT_EQ(holder.GetInt64("a"), 0u);
  EXPECT_EQ(holder.GetBinary("a"), nullptr);
  EXPECT_TRUE(!holder.GetHandle("a"));
  EXPECT_TRUE(!holder.GetHandle(0));
  EXPECT_TRUE(!holder.Clone());
  EXPECT_TRUE(log.Lines().empty());
}

TEST(EmptyHolder, GivesNoArraysAndNoElements) {
  const Holder holder;
  EXPECT_EQ(holder.GetStringArray("a", nullptr, 5, 0), 0u);
  EXPECT_EQ(holder.GetBinaryArray("a", nullptr, 5, 0), 0u);
  const _tag_TQDWORDARRAY dwords = holder.GetInt32Array("a");
  EXPECT_TRUE(dwords.count == 0 && dwords.values == nullptr);
  const _tag_TQQWORDARRAY qwords = holder.GetInt64Array("a");
  EXPECT_TRUE(qwords.count == 0 && qwords.values == nullptr);
  EXPECT_EQ(holder.GetHandleArray("a", static_cast<_tag_HTQPARAMLIST*>(nullptr), 5, 0), 0u);
  EXPECT_EQ(holder.GetHandleArray("a", static_cast<Holder*>(nullptr), 5, 0), 0u);
  EXPECT_EQ(holder.GetString("a", 0), nullptr);
  EXPECT_EQ(holder.GetBinary("a", 0), nullptr);
  EXPECT_EQ(holder.GetInt32("a", 0), 0u);
  EXPECT_EQ(holder.GetInt64("a", 0), 0u);
  EXPECT_TRUE(!holder.GetHandle("a", 0));
}

TEST(EmptyHolder, RefusesStoresAndRemovals) {
  Holder holder;
  EXPECT_EQ(holder.SetString("a", "b"), TQ_ERR_FAILED);
  EXPECT_EQ(holder.SetInt32("a", 1), TQ_ERR_FAILED);
  EXPECT_EQ(holder.SetInt64("a", 1), TQ_ERR_FAILED);
  EXPECT_EQ(holder.SetBinary("a", "b", 1), TQ_ERR_FAILED);
  EXPECT_EQ(holder.SetHandle("a", Holder()), TQ_ERR_FAILED);
  EXPECT_EQ(holder.SetStringArray("a", 0, nullptr), TQ_ERR_FAILED);
  EXPECT_EQ(holder.SetInt32Array("a", 0, nullptr), TQ_ERR_FAILED);
  EXPECT_EQ(holder.SetInt64Array("a", 0, nullptr), TQ_ERR_FAILED);
  EXPECT_EQ(holder.SetBinaryArray("a", 0, nullptr, nullptr), TQ_ERR_FAILED);
  EXPECT_EQ(holder.SetBinaryArray("a", 0, nullptr), TQ_ERR_FAILED);
  EXPECT_EQ(holder.SetHandleArray("a", 0, static_cast<const _tag_HTQPARAMLIST*>(nullptr)),
            TQ_ERR_FAILED);
  EXPECT_EQ(holder.SetHandleArray("a", 0, static_cast<const Holder*>(nullptr)), TQ_ERR_FAILED);
  EXPECT_EQ(holder.Remove("a"), TQ_ERR_FAILED);
  EXPECT_EQ(holder.RemoveAll(), TQ_ERR_FAILED);
  EXPECT_EQ(holder.erase("a"), 0u);
  EXPECT_TRUE(!holder);
}

TEST(EmptyHolder, HasNothingToWalk) {
  Holder holder;
  EXPECT_EQ(holder.begin(), holder.end());
  EXPECT_EQ(holder.begin().info, nullptr);
  EXPECT_EQ(holder.begin().holder, &holder);
  EXPECT_EQ(holder.end().holder, &holder);
  EXPECT_EQ(holder.find("a"), holder.end());
  EXPECT_EQ(holder.erase(holder.begin()), holder.end());
  EXPECT_TRUE(NamesIn(holder).empty());
}

// ---- whose the reference is ---------------------------------------------------------------------

TEST(ParamListHolder, FromHandleAddsAReference) {
  OwnedList list;
  {
    const Holder holder = Holder::FromHandle(list);
    EXPECT_EQ(ListOf(holder), list.Handle().impl);
  }
  EXPECT_EQ(ListsAlive(), 1u);
  EXPECT_EQ(TQSetInt32Value(list, "a", 1), TQ_ERR_OK);
  const Holder holder = Holder::FromHandle(list);
  list.Close();
  EXPECT_EQ(holder.GetInt32("a"), 1u);
}

TEST(ParamListHolder, FromRefHandleTakesTheReferenceOver) {
  {
    const Holder holder = Holder::FromRefHandle(TQCreateParamList());
    EXPECT_FALSE(!holder);
    EXPECT_EQ(ListsAlive(), 1u);
  }
  EXPECT_EQ(ListsAlive(), 0u);
}

TEST(ParamListHolder, FromTheNullHandleIsEmpty) {
  EXPECT_TRUE(!Holder::FromHandle(NO_LIST));
  EXPECT_TRUE(!Holder::FromRefHandle(NO_LIST));
}

TEST(ParamListHolder, CopiedSharesTheList) {
  Holder copy;
  {
    Holder original = NewHolder();
    original.SetInt32("a", 1);
    Holder shared(original);
    EXPECT_EQ(ListOf(shared), ListOf(original));
    copy = shared;
    shared.SetInt32("a", 2);
  }
  EXPECT_EQ(ListsAlive(), 1u);
  EXPECT_EQ(copy.GetInt32("a"), 2u);
}

TEST(ParamListHolder, MovedIntoANewOneIsEmpty) {
  Holder source = NewHolder();
  FastHolderImpl* const list = ListOf(source);
  const Holder target(std::move(source));
  EXPECT_EQ(ListOf(target), list);
  // NOLINTNEXTLINE(bugprone-use-after-move,clang-analyzer-cplusplus.Move): that is the question
  EXPECT_TRUE(!source);
  EXPECT_EQ(ListsAlive(), 1u);
}

TEST(ParamListHolder, AssignedGivesTheFormerListBack) {
  Holder a = NewHolder();
  const Holder b = NewHolder();
  EXPECT_EQ(&(a = b), &a);
  EXPECT_EQ(ListOf(a), ListOf(b));
  EXPECT_EQ(ListsAlive(), 1u);
  const Holder nothing;
  a = nothing;
  EXPECT_TRUE(!a);
  EXPECT_EQ(ListsAlive(), 1u);
}

TEST(ParamListHolder, AssignedToItselfKeepsItsList) {
  Holder holder = NewHolder();
  holder.SetInt32("a", 1);
  Holder& same = holder;
  holder = same;
  EXPECT_EQ(holder.GetInt32("a"), 1u);
  holder = std::move(same);
  EXPECT_EQ(holder.GetInt32("a"), 1u);
  EXPECT_EQ(ListsAlive(), 1u);
}

TEST(ParamListHolder, AssignedFromAHolderInItsOwnListTakesThatFirst) {
  // The list that is assigned lives only through the one that is given back.
  Holder holder = NewHolder();
  {
    Holder child = NewHolder();
    child.SetInt32("n", 5);
    holder.SetHandle("child", child);
  }
  const Holder child = holder.GetHandle("child");
  holder = child;
  EXPECT_EQ(ListsAlive(), 1u);
  EXPECT_EQ(holder.GetInt32("n"), 5u);
}

TEST(ParamListHolder, MoveAssignedExchangesTheLists) {
  Holder a = NewHolder();
  Holder b = NewHolder();
  FastHolderImpl* const formerA = ListOf(a);
  FastHolderImpl* const formerB = ListOf(b);
  EXPECT_EQ(&(a = std::move(b)), &a);
  EXPECT_EQ(ListOf(a), formerB);
  EXPECT_EQ(ListOf(b), formerA);  // NOLINT(bugprone-use-after-move): that is the question
  EXPECT_EQ(ListsAlive(), 2u);
  Holder nothing;
  a = std::move(nothing);
  EXPECT_TRUE(!a);
  EXPECT_EQ(ListOf(nothing), formerB);  // NOLINT(bugprone-use-after-move)
}

TEST(ParamListHolder, SwapsInBothForms) {
  Holder a = NewHolder();
  Holder b;
  FastHolderImpl* const list = ListOf(a);
  a.swap(b);
  EXPECT_TRUE(!a);
  EXPECT_EQ(ListOf(b), list);
  Holder::swap(a, b);
  EXPECT_EQ(ListOf(a), list);
  EXPECT_TRUE(!b);
  a.swap(a);
  EXPECT_EQ(ListOf(a), list);
  EXPECT_EQ(ListsAlive(), 1u);
}

TEST(ParamListHolder, LivesInContainers) {
  std::vector<Holder> holders;
  for (uint32_t i = 0; i < 20; ++i) {
    holders.push_back(NewHolder());
    holders.back().SetInt32("i", 19 - i);
  }
  std::sort(holders.begin(), holders.end(),
            [](const Holder& a, const Holder& b) { return a.GetInt32("i") < b.GetInt32("i"); });
  for (uint32_t i = 0; i < 20; ++i) EXPECT_EQ(holders[i].GetInt32("i"), i);
  EXPECT_EQ(ListsAlive(), 20u);
  holders.erase(holders.begin() + 3);
  EXPECT_EQ(ListsAlive(), 19u);
  holders.clear();
  EXPECT_EQ(ListsAlive(), 0u);
}

TEST(ParamListHolder, StandsOnThePrivateHeap) {
  static_assert(noexcept(Holder::operator new(8)));
  auto* holder = new Holder(NewHolder());
  EXPECT_EQ(ListsAlive(), 1u);
  delete holder;
  EXPECT_EQ(ListsAlive(), 0u);
  // Made of a block of the heap, and given back to it.
  void* block = TQAllocate(sizeof(Holder));
  Holder::operator delete(block);
  block = Holder::operator new(sizeof(Holder));
  ASSERT_NE(block, nullptr);
  TQFree(block);
}

// ---- lists that come and go ---------------------------------------------------------------------

TEST(ParamListHolder, NewListGivesTheFormerListBack) {
  Holder holder;
  EXPECT_TRUE(holder.NewList());
  holder.SetInt32("a", 1);
  const Holder former = holder;
  EXPECT_TRUE(holder.NewList());
  EXPECT_TRUE(holder.empty());
  EXPECT_NE(ListOf(holder), ListOf(former));
  EXPECT_EQ(former.GetInt32("a"), 1u);
  EXPECT_EQ(ListsAlive(), 2u);
  EXPECT_TRUE(holder.NewList());
  EXPECT_EQ(ListsAlive(), 2u);
}

TEST(ParamListHolder, ClearListDropsTheListWhereRemoveAllKeepsIt) {
  Holder holder = NewHolder();
  holder.SetInt32("a", 1);
  EXPECT_EQ(holder.RemoveAll(), TQ_ERR_OK);
  EXPECT_TRUE(holder.empty());
  EXPECT_FALSE(!holder);
  EXPECT_EQ(ListsAlive(), 1u);
  EXPECT_TRUE(holder.ClearList());
  EXPECT_TRUE(!holder);
  EXPECT_EQ(ListsAlive(), 0u);
  EXPECT_TRUE(holder.ClearList());
}

// ---- cloning and copying ------------------------------------------------------------------------

TEST(ParamListHolder, CloneOwnsTheNewList) {
  Holder source = NewHolder();
  source.SetInt32("a", 1);
  {
    Holder clone = source.Clone();
    EXPECT_EQ(clone.GetInt32("a"), 1u);
    clone.SetInt32("a", 2);
    EXPECT_EQ(ListsAlive(), 2u);
  }
  EXPECT_EQ(ListsAlive(), 1u);
  EXPECT_EQ(source.GetInt32("a"), 1u);
}

TEST(ParamListHolder, CopyDataFromAnswersTrueWhenItHasCopied) {
  Holder source = ReceivedHolder(RawList().Int32("a", 1));
  Holder target = ReceivedHolder(RawList().Int32("a", 2).Int32("b", 3));
  EXPECT_TRUE(target.CopyDataFrom(source));
  EXPECT_EQ(RawOf(HandleOf(target)), RawList().Int32("b", 3).Int32("a", 1));
  EXPECT_EQ(RawOf(HandleOf(source)), RawList().Int32("a", 1));
}

TEST(ParamListHolder, CopyDataToAnswersFalseWhenItHasCopied) {
  Holder source = ReceivedHolder(RawList().Int32("a", 1));
  Holder target = ReceivedHolder(RawList().Int32("a", 2).Int32("b", 3));
  EXPECT_FALSE(source.CopyDataTo(target));
  EXPECT_EQ(RawOf(HandleOf(target)), RawList().Int32("b", 3).Int32("a", 1));
}

TEST(ParamListHolder, CopiesMakeTheListThatIsMissing) {
  Holder source = ReceivedHolder(RawList().Int32("a", 1));
  Holder target;
  EXPECT_TRUE(target.CopyDataFrom(source));
  EXPECT_EQ(target.GetInt32("a"), 1u);
  Holder other;
  EXPECT_FALSE(source.CopyDataTo(other));
  EXPECT_EQ(other.GetInt32("a"), 1u);
  EXPECT_EQ(ListsAlive(), 3u);
}

TEST(ParamListHolder, CopiesOfAListWithoutValuesMakeTheListToo) {
  Holder source = NewHolder();
  Holder target;
  EXPECT_TRUE(target.CopyDataFrom(source));
  EXPECT_FALSE(!target);
  Holder other;
  EXPECT_FALSE(source.CopyDataTo(other));
  EXPECT_FALSE(!other);
}

TEST(ParamListHolder, CopiesFromAnEmptyHolderAreRefused) {
  Holder nothing;
  Holder target;
  EXPECT_FALSE(target.CopyDataFrom(nothing));
  EXPECT_FALSE(nothing.CopyDataTo(target));
  EXPECT_TRUE(!target) << "no list is made for nothing";
  EXPECT_FALSE(nothing.CopyDataFrom(nothing));
  target.NewList();
  target.SetInt32("a", 1);
  EXPECT_FALSE(target.CopyDataFrom(nothing));
  EXPECT_FALSE(nothing.CopyDataTo(target));
  EXPECT_EQ(target.GetCount(), 1u);
}

TEST(ParamListHolder, CopiesOfAListOntoItselfAreRefused) {
  Holder holder = ReceivedHolder(RawList().Int32("a", 1).Int32("b", 2));
  Holder same = holder;
  EXPECT_FALSE(holder.CopyDataFrom(holder));
  EXPECT_FALSE(holder.CopyDataFrom(same));
  EXPECT_FALSE(holder.CopyDataTo(same));
  EXPECT_EQ(RawOf(HandleOf(holder)), RawList().Int32("a", 1).Int32("b", 2));
}

// ---- queries ------------------------------------------------------------------------------------

/// A list with a value of each type under the type's name, and how many lists it needs.
RawList AllTypes() {
  return RawList()
      .String("string", "text")
      .Int32("int32", 32)
      .Int64("int64", 0x6400000001)
      .Binary("binary", {1, 2, 3})
      .Handle("handle", RawList().Int32("n", 10))
      .StringArray("strings", {"a", "", "ccc"})
      .Int32Array("int32s", {7, 8})
      .Int64Array("int64s", {0x0000000200000001, 0x0000000400000003})
      .HandleArray("handles", {RawList().Int32("n", 11), RawList().Int32("n", 12)})
      .BinaryArray("binaries", {{1}, {}, {2, 3}});
}

TEST(ParamListHolder, TellsTypesAndSizesOfArrays) {
  struct Case {
    const char* name;
    uint32_t type, elementType, size;
  };
  const std::vector<Case> cases = {
      {"string", 1, 0, 0},      {"int32", 2, 0, 0},     {"int64", 3, 0, 0},
      {"handle", 4, 0, 0},      {"binary", 5, 0, 0},    {"strings", 0x81, 1, 3},
      {"int32s", 0x82, 2, 2},   {"int64s", 0x83, 3, 2}, {"handles", 0x84, 4, 2},
      {"binaries", 0x85, 5, 3}, {"absent", 0, 0, 0},
  };
  const Holder holder = ReceivedHolder(AllTypes());
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(static_cast<uint32_t>(holder.GetType(c.name)), c.type);
    EXPECT_EQ(static_cast<uint32_t>(holder.GetArrayType(c.name)), c.elementType);
    EXPECT_EQ(holder.GetArraySize(c.name), c.size);
    EXPECT_EQ(holder.Exists(c.name), c.type != 0);
  }
}

TEST(ParamListHolder, TellsTheTypeByteOfADamagedEntryAsItIs) {
  const Holder holder = Holder::FromHandle(ListOfBlock(RawList().Entry("a", 6, U32(9)).Block()));
  EXPECT_EQ(static_cast<uint32_t>(holder.GetType("a")), 6u);
  EXPECT_EQ(holder.GetArrayType("a"), PT_UNKNOWN);
  EXPECT_EQ(holder.GetArraySize("a"), 0u);
  const Holder cut = Holder::FromHandle(ListOfBlock(RawList().Entry("a", 0x82, {1, 0}).Block()));
  EXPECT_THROW((void)cut.GetArraySize("a"), TQMemoryBufferTpl2<0>::NoDataExeption);
  EXPECT_THROW((void)cut.GetInt32("a", 0), TQMemoryBufferTpl2<0>::NoDataExeption);
}

TEST(ParamListHolder, TellsOfTheWholeListAsTheFlatFunctionsDo) {
  const Holder holder = ReceivedHolder(AllTypes());
  const _tag_HTQPARAMLIST list = HandleOf(holder);
  EXPECT_EQ(holder.GetCount(), 10u);
  EXPECT_EQ(holder.GetSize(), TQGetHandleSize(list));
  EXPECT_FALSE(holder.empty());
  EXPECT_EQ(holder.GetFirst(), TQGetFirstParam(list));
  EXPECT_EQ(holder.GetNext(holder.GetFirst()), TQParamByIndex(list, 1));
  EXPECT_EQ(holder.GetNext(nullptr), nullptr);
  EXPECT_EQ(holder.GetInfo("int64s"), TQParamInfo(list, "int64s"));
  EXPECT_EQ(holder.GetInfo("absent"), nullptr);
  EXPECT_TRUE(NewHolder().empty());
}

// ---- getters ------------------------------------------------------------------------------------

TEST(ParamListHolder, GivesSingleValues) {
  const Holder holder = ReceivedHolder(AllTypes());
  EXPECT_STREQ(holder.GetString("string"), "text");
  EXPECT_EQ(holder.GetInt32("int32"), 32u);
  EXPECT_EQ(holder.GetInt64("int64"), 0x6400000001u);
  ASSERT_NE(holder.GetBinary("binary"), nullptr);
  EXPECT_EQ(holder.GetBinary("binary")->size, 3u);
  EXPECT_EQ(holder.GetHandle("handle").GetInt32("n"), 10u);
  EXPECT_EQ(holder.GetInt32("int64"), 0u) << "nothing is converted";
  EXPECT_EQ(holder.GetString("strings"), nullptr);
}

TEST(ParamListHolder, GivesANestedListWithAReference) {
  Holder child;
  {
    const Holder holder = ReceivedHolder(AllTypes());
    child = holder.GetHandle("handle");
    EXPECT_EQ(ListOf(child), TQGetHandleById(HandleOf(holder), 0).impl);
  }
  EXPECT_EQ(ListsAlive(), 1u);
  EXPECT_EQ(child.GetInt32("n"), 10u);
}

TEST(ParamListHolder, GivesWholeArraysAsTheFlatFunctionsDo) {
  const Holder holder = ReceivedHolder(AllTypes());
  const char* texts[3] = {};
  EXPECT_EQ(holder.GetStringArray("strings", texts, 3, 1), 2u);
  EXPECT_STREQ(texts[1], "ccc");
  const _tag_BINARYVALUE* binaries[3] = {};
  EXPECT_EQ(holder.GetBinaryArray("binaries", binaries, 1, 2), 1u);
  EXPECT_EQ(binaries[0]->size, 2u);
  const _tag_TQDWORDARRAY dwords = holder.GetInt32Array("int32s");
  EXPECT_EQ(uint32_t{dwords.count}, 2u);
  EXPECT_EQ(dwords.values[1], 8u);
}

TEST(ParamListHolder, GivesTheViewOf64BitValuesOfA32BitArrayAlone) {
  const Holder holder = ReceivedHolder(AllTypes());
  EXPECT_EQ(uint32_t{holder.GetInt64Array("int64s").count}, 0u);
  EXPECT_EQ(uint32_t{holder.GetInt64Array("int32s").count}, 2u);
}

TEST(ParamListHolder, GivesElementsOfArrays) {
  const Holder holder = ReceivedHolder(AllTypes());
  EXPECT_STREQ(holder.GetString("strings", 0), "a");
  EXPECT_STREQ(holder.GetString("strings", 1), "");
  EXPECT_STREQ(holder.GetString("strings", 2), "ccc");
  EXPECT_EQ(holder.GetBinary("binaries", 0)->size, 1u);
  EXPECT_EQ(holder.GetBinary("binaries", 1)->size, 0u);
  EXPECT_EQ(holder.GetBinary("binaries", 2)->size, 2u);
  EXPECT_EQ(holder.GetInt32("int32s", 0), 7u);
  EXPECT_EQ(holder.GetInt32("int32s", 1), 8u);
  EXPECT_EQ(holder.GetHandle("handles", 0).GetInt32("n"), 11u);
  EXPECT_EQ(holder.GetHandle("handles", 1).GetInt32("n"), 12u);
}

TEST(ParamListHolder, GivesNoElementBeyondTheArray) {
  const Holder holder = ReceivedHolder(AllTypes());
  for (const uint32_t index : {3u, 4u, 0x7FFFFFFFu, 0xFFFFFFFFu}) {
    SCOPED_TRACE(index);
    EXPECT_EQ(holder.GetString("strings", index), nullptr);
    EXPECT_EQ(holder.GetBinary("binaries", index), nullptr);
    EXPECT_EQ(holder.GetInt32("int32s", index), 0u);
    EXPECT_EQ(holder.GetInt64("int64s", index), 0u);
    EXPECT_TRUE(!holder.GetHandle("handles", index));
  }
  EXPECT_EQ(holder.GetInt32("int32s", 2), 0u);
  EXPECT_TRUE(!holder.GetHandle("handles", 2));
}

TEST(ParamListHolder, GivesElementsOfTheirOwnArrayTypeAlone) {
  const Holder holder = ReceivedHolder(AllTypes());
  for (const std::string& name : NamesIn(holder)) {
    SCOPED_TRACE(name);
    const char* const text = name.c_str();
    EXPECT_EQ(holder.GetString(text, 0) != nullptr, name == "strings");
    EXPECT_EQ(holder.GetBinary(text, 0) != nullptr, name == "binaries");
    EXPECT_EQ(holder.GetInt32(text, 0) != 0, name == "int32s");
    EXPECT_EQ(holder.GetInt64(text, 0) != 0, name == "int64s");
    EXPECT_EQ(!holder.GetHandle(text, 0), name != "handles");
  }
  EXPECT_EQ(holder.GetString("absent", 0), nullptr);
  EXPECT_EQ(holder.GetInt32("absent", 0), 0u);
}

TEST(ParamListHolder, GivesThe32BitWordsOfA64BitArrayUpToItsCount) {
  const Holder two = ReceivedHolder(AllTypes());
  EXPECT_EQ(two.GetInt64("int64s", 0), 1u);
  EXPECT_EQ(two.GetInt64("int64s", 1), 2u);
  EXPECT_EQ(two.GetInt64("int64s", 2), 0u) << "the second element is out of reach";
  EXPECT_EQ(two.GetInt64("int64s", 3), 0u);
  const Holder one = ReceivedHolder(RawList().Int64Array("x", {0x0000000200000001}));
  EXPECT_EQ(one.GetInt64("x", 0), 1u);
  EXPECT_EQ(one.GetInt64("x", 1), 0u);
  const Holder high = ReceivedHolder(RawList().Int64Array("x", {0xFFFFFFFFFFFFFFFF, 0}));
  EXPECT_EQ(high.GetInt64("x", 1), 0xFFFFFFFFu) << "no sign is extended";
}

// ---- nested lists -------------------------------------------------------------------------------

TEST(ParamListHolder, GivesANestedListByItsIdWithAReference) {
  const Holder holder = ReceivedHolder(AllTypes());
  EXPECT_EQ(holder.GetHandle(0).GetInt32("n"), 10u);
  Holder last = holder.GetHandle(2);
  EXPECT_EQ(last.GetInt32("n"), 12u);
  last.ClearList();
  EXPECT_EQ(TQGetInt32Value(TQGetHandleById(HandleOf(holder), 2), "n"), 12u);
}

TEST(ParamListHolder, GivesNoNestedListForAnIdBeyondOrBelow) {
  const Holder holder = ReceivedHolder(AllTypes());
  for (const int id : {3, 4, -1, INT32_MIN, INT32_MAX}) EXPECT_TRUE(!holder.GetHandle(id)) << id;
}

TEST(ParamListHolder, GivesTheEmptyHolderForAnElementThatNamesNoList) {
  const Holder holder = ReceivedHolder(RawList()
                                           .HandleIndexArray("a", {1, 0, RAW_NO_HANDLE, 7})
                                           .Child(RawList())
                                           .Child(RawList().Int32("n", 1)));
  EXPECT_EQ(holder.GetHandle("a", 0).GetInt32("n"), 1u);
  EXPECT_FALSE(!holder.GetHandle("a", 1));
  EXPECT_TRUE(!holder.GetHandle("a", 2));
  EXPECT_TRUE(!holder.GetHandle("a", 3));
}

TEST(ParamListHolder, FillsBorrowedHandlesOfAnArray) {
  Holder holder = NewHolder();
  const OwnedList a;
  const OwnedList b;
  const _tag_HTQPARAMLIST stored[] = {a, NO_LIST, b};
  holder.SetHandleArray("lists", 3, stored);
  struct Case {
    uint32_t maximum, first;
    std::vector<FastHolderImpl*> expected;
  };
  FastHolderImpl* const listA = a.Handle().impl;
  FastHolderImpl* const listB = b.Handle().impl;
  const std::vector<Case> cases = {{5, 0, {listA, nullptr, listB}},
                                   {3, 0, {listA, nullptr, listB}},
                                   {2, 0, {listA, nullptr}},
                                   {1, 2, {listB}},
                                   {5, 1, {nullptr, listB}},
                                   {0xFFFFFFFF, 2, {listB}},
                                   {0, 0, {}},
                                   {5, 3, {}},
                                   {5, 0xFFFFFFFF, {}}};
  for (const Case& c : cases) {
    SCOPED_TRACE(std::to_string(c.maximum) + " from " + std::to_string(c.first));
    const OwnedList untouched;
    std::vector<_tag_HTQPARAMLIST> out(4, untouched);
    ASSERT_EQ(holder.GetHandleArray("lists", out.data(), c.maximum, c.first), c.expected.size());
    for (size_t i = 0; i < out.size(); ++i) {
      EXPECT_EQ(out[i].impl, i < c.expected.size() ? c.expected[i] : untouched.Handle().impl);
    }
  }
  EXPECT_EQ(ListsAlive(), 3u);
}

TEST(ParamListHolder, FillsHoldersWithReferencesAndReleasesWhatTheyHeld) {
  std::vector<Holder> out;
  for (int i = 0; i < 4; ++i) out.push_back(NewHolder());
  FastHolderImpl* const last = ListOf(out[3]);
  {
    const Holder holder =
        ReceivedHolder(RawList()
                           .HandleArray("a", {RawList().Int32("n", 1), RawList().Int32("n", 2)})
                           .NoHandle("b")
                           .HandleIndexArray("c", {0, RAW_NO_HANDLE, 9}));
    EXPECT_EQ(ListsAlive(), 7u);
    EXPECT_EQ(holder.GetHandleArray("c", out.data(), 4, 0), 3u);
    EXPECT_EQ(ListsAlive(), 4u);
    EXPECT_TRUE(!out[1]);
    EXPECT_TRUE(!out[2]);
    EXPECT_EQ(holder.GetHandleArray("a", out.data() + 1, 1, 1), 1u);
  }
  EXPECT_EQ(ListsAlive(), 3u);
  EXPECT_EQ(out[0].GetInt32("n"), 1u);
  EXPECT_EQ(out[1].GetInt32("n"), 2u);
  EXPECT_EQ(ListOf(out[3]), last);
}

TEST(ParamListHolder, FillsNothingFromAnotherTypeOrAnAbsentName) {
  const Holder holder = ReceivedHolder(AllTypes());
  _tag_HTQPARAMLIST handles[2] = {};
  Holder holders[2];
  for (const char* name : {"handle", "int32s", "absent"}) {
    EXPECT_EQ(holder.GetHandleArray(name, handles, 2, 0), 0u) << name;
    EXPECT_EQ(holder.GetHandleArray(name, holders, 2, 0), 0u) << name;
  }
  EXPECT_TRUE(!holders[0]);
}

TEST(ParamListHolder, ReadsAPeersUnalignedArrays) {
  // A head of five bytes, which no writer makes, moves all that follows off the boundary of four.
  const Holder holder = ReceivedHolder(RawList()
                                           .Raw(FromHex("04 6e 00 00 02"))
                                           .Raw(U32(7))
                                           .Int32Array("d", {1, 2})
                                           .Int64Array("q", {0x200000001, 3})
                                           .HandleIndexArray("h", {0})
                                           .Child(RawList().Int32("n", 5)));
  EXPECT_EQ(holder.GetInt32("d", 1), 2u);
  EXPECT_EQ(holder.GetInt64("q", 1), 2u);
  EXPECT_EQ(holder.GetHandle("h", 0).GetInt32("n"), 5u);
  EXPECT_EQ(holder.GetArraySize("q"), 2u);
  Holder filled;
  EXPECT_EQ(holder.GetHandleArray("h", &filled, 1, 0), 1u);
  EXPECT_EQ(filled.GetInt32("n"), 5u);
}

// ---- setters ------------------------------------------------------------------------------------

TEST(ParamListHolder, StoresEveryType) {
  Holder holder = NewHolder();
  Holder children[3] = {NewHolder(), NewHolder(), NewHolder()};
  for (uint32_t i = 0; i < 3; ++i) children[i].SetInt32("n", 10 + i);
  const char* const texts[] = {"a", nullptr, "ccc"};
  const uint32_t dwords[] = {7, 8};
  const uint64_t qwords[] = {0x0000000200000001, 0x0000000400000003};
  const void* const datas[] = {"\x01", "", "\x02\x03"};
  const uint32_t sizes[] = {1, 0, 2};
  EXPECT_EQ(holder.SetString("string", "text"), TQ_ERR_OK);
  EXPECT_EQ(holder.SetInt32("int32", 32), TQ_ERR_OK);
  EXPECT_EQ(holder.SetInt64("int64", 0x6400000001), TQ_ERR_OK);
  EXPECT_EQ(holder.SetBinary("binary", "\x01\x02\x03", 3), TQ_ERR_OK);
  EXPECT_EQ(holder.SetHandle("handle", children[0]), TQ_ERR_OK);
  EXPECT_EQ(holder.SetStringArray("strings", 3, texts), TQ_ERR_OK);
  EXPECT_EQ(holder.SetInt32Array("int32s", 2, dwords), TQ_ERR_OK);
  EXPECT_EQ(holder.SetInt64Array("int64s", 2, qwords), TQ_ERR_OK);
  EXPECT_EQ(holder.SetHandleArray("handles", 2, children + 1), TQ_ERR_OK);
  EXPECT_EQ(holder.SetBinaryArray("binaries", 3, datas, sizes), TQ_ERR_OK);
  EXPECT_EQ(RawOf(HandleOf(holder)), AllTypes());
}

TEST(ParamListHolder, StoresBinariesFromRecordsAndListsFromHandles) {
  Holder holder = NewHolder();
  const _tag_BINARYITEM items[] = {{2, "ab"}, {0, nullptr}};
  EXPECT_EQ(holder.SetBinaryArray("items", 2, items), TQ_ERR_OK);
  const OwnedList nested;
  const _tag_HTQPARAMLIST lists[] = {nested, NO_LIST};
  EXPECT_EQ(holder.SetHandleArray("lists", 2, lists), TQ_ERR_OK);
  EXPECT_EQ(RawOf(HandleOf(holder)), RawList()
                                         .BinaryArray("items", {ToBytes("ab"), {}})
                                         .HandleIndexArray("lists", {0, RAW_NO_HANDLE})
                                         .Child(RawList()));
}

TEST(ParamListHolder, StoresAnEmptyHolderAsNoList) {
  Holder holder = NewHolder();
  EXPECT_EQ(holder.SetHandle("none", Holder()), TQ_ERR_OK);
  const Holder both[] = {Holder(), NewHolder()};
  EXPECT_EQ(holder.SetHandleArray("both", 2, both), TQ_ERR_OK);
  EXPECT_EQ(
      RawOf(HandleOf(holder)),
      RawList().NoHandle("none").HandleIndexArray("both", {RAW_NO_HANDLE, 0}).Child(RawList()));
}

// ---- removal ------------------------------------------------------------------------------------

TEST(ParamListHolder, RemoveDoesNotTellWhetherAnythingWasThere) {
  Holder holder = ReceivedHolder(RawList().Int32("a", 1).Int32("b", 2));
  EXPECT_EQ(holder.Remove("a"), TQ_ERR_OK);
  EXPECT_EQ(holder.Remove("a"), TQ_ERR_OK);
  EXPECT_EQ(NamesIn(holder), Names{"b"});
}

TEST(ParamListHolder, EraseByNameTellsWhetherAnythingWasThere) {
  Holder holder = ReceivedHolder(RawList().Int32("a", 1).Int32("b", 2).Int32("a", 3));
  EXPECT_EQ(holder.erase("a"), 1u);
  EXPECT_EQ(holder.GetInt32("a"), 3u) << "one of a name goes at a time";
  EXPECT_EQ(holder.erase("a"), 1u);
  EXPECT_EQ(holder.erase("a"), 0u);
  EXPECT_EQ(holder.GetCount(), 1u);
  EXPECT_EQ(RawOf(HandleOf(holder)), RawList().Int32("b", 2));
}

TEST(ParamListHolder, EraseReleasesNestedLists) {
  Holder holder = ReceivedHolder(AllTypes());
  EXPECT_EQ(ListsAlive(), 4u);
  EXPECT_EQ(holder.erase("handles"), 1u);
  EXPECT_EQ(ListsAlive(), 2u);
  holder.erase(holder.find("handle"));
  EXPECT_EQ(ListsAlive(), 1u);
}

TEST(ParamListHolder, EraseGivesTheEntryThatTakesThePlace) {
  Holder holder = ReceivedHolder(RawList().Int32("a", 1).Int32("b", 2).Int32("c", 3));
  Iterator next = holder.erase(holder.find("b"));
  ASSERT_NE(next, holder.end());
  EXPECT_STREQ(next->name, "c");
  EXPECT_EQ(next.holder, &holder);
  EXPECT_EQ(NamesIn(holder), (Names{"a", "c"}));
  next = holder.erase(next);
  EXPECT_EQ(next, holder.end());
  EXPECT_EQ(next.holder, &holder);
  EXPECT_EQ(NamesIn(holder), Names{"a"});
}

TEST(ParamListHolder, EraseWorksInALoopThatRemovesAsItGoes) {
  Holder holder = ReceivedHolder(
      RawList().Int32("a", 1).Int32("b", 2).Int32("c", 3).Int32("d", 4).Int32("e", 5));
  for (Iterator i = holder.begin(); i != holder.end();) {
    if (holder.GetInt32(i->name) % 2 == 1) {
      i = holder.erase(i);
    } else {
      ++i;
    }
  }
  EXPECT_EQ(NamesIn(holder), (Names{"b", "d"}));
}

TEST(ParamListHolder, EraseTakesIteratorsOfAnotherHolderOfTheSameList) {
  Holder holder = ReceivedHolder(RawList().Int32("a", 1).Int32("b", 2));
  const Holder same = holder;
  const Iterator next = holder.erase(same.find("a"));
  EXPECT_STREQ(next->name, "b");
  EXPECT_EQ(next.holder, &holder);
  EXPECT_EQ(NamesIn(same), Names{"b"});
}

TEST(ParamListHolder, EraseRemovesNothingForAnIteratorOfAnotherList) {
  Holder holder = ReceivedHolder(RawList().Int32("a", 1));
  const Holder other = ReceivedHolder(RawList().Int32("a", 1));
  const Holder nothing;
  const Iterator next = holder.erase(other.find("a"));
  EXPECT_EQ(next, holder.end());
  EXPECT_EQ(next.holder, &holder);
  // The same entry under the name of another list.
  EXPECT_EQ(holder.erase(Iterator{&other, holder.GetFirst()}), holder.end());
  EXPECT_EQ(holder.erase(Iterator{&nothing, holder.GetFirst()}), holder.end());
  EXPECT_EQ(holder.erase(Iterator{nullptr, holder.GetFirst()}), holder.end());
  EXPECT_EQ(holder.erase(Iterator{}), holder.end());
  EXPECT_EQ(holder.GetCount(), 1u);
  EXPECT_EQ(other.GetCount(), 1u);
}

TEST(ParamListHolder, EraseRemovesNothingAtTheEnd) {
  Holder holder = ReceivedHolder(RawList().Int32("a", 1));
  EXPECT_EQ(holder.erase(holder.end()), holder.end());
  EXPECT_EQ(holder.GetCount(), 1u);
}

TEST(ParamListHolder, EraseRemovesNothingForASecondEntryOfOneName) {
  Holder holder = ReceivedHolder(RawList().Int32("a", 1).Int32("a", 2).Int32("b", 3));
  const Iterator second = std::next(holder.begin());
  EXPECT_EQ(holder.erase(second), holder.end());
  EXPECT_EQ(holder.GetCount(), 3u);
  EXPECT_STREQ(holder.erase(holder.begin())->name, "a");
  EXPECT_EQ(holder.GetInt32("a"), 2u);
}

// ---- iteration ----------------------------------------------------------------------------------

TEST(ParamIterator, WalksTheEntriesInTheirOrder) {
  Holder holder = NewHolder();
  for (const char* name : {"b", "a", "", "c", "b"}) holder.SetInt32(name, 1);
  EXPECT_EQ(NamesIn(holder), (Names{"a", "", "c", "b"}));
}

TEST(ParamIterator, StepsBeforeAndBehind) {
  const Holder holder = ReceivedHolder(RawList().Int32("a", 1).Int32("b", 2));
  Iterator i = holder.begin();
  EXPECT_EQ(&*i, holder.GetFirst());
  EXPECT_STREQ((i++)->name, "a");
  EXPECT_STREQ(i->name, "b");
  EXPECT_EQ(&++i, &i);
  EXPECT_EQ(i, holder.end());
  EXPECT_EQ(i.holder, &holder);
  EXPECT_EQ(i.info, nullptr);
}

TEST(ParamIterator, ComparesTheEntryAlone) {
  const Holder a = ReceivedHolder(RawList().Int32("a", 1));
  const Holder same = a;  // NOLINT(performance-unnecessary-copy-initialization): of one list
  const Holder other = ReceivedHolder(RawList().Int32("a", 1));
  EXPECT_TRUE(a.begin() == same.begin());
  EXPECT_FALSE(a.begin() != same.begin());
  EXPECT_TRUE(a.begin() != other.begin());
  EXPECT_TRUE(a.end() == other.end());
  EXPECT_TRUE(Iterator() == a.end());
}

TEST(ParamIterator, ServesTheAlgorithms) {
  const Holder holder = ReceivedHolder(AllTypes());
  EXPECT_EQ(std::distance(holder.begin(), holder.end()), 10);
  EXPECT_EQ(std::count_if(holder.begin(), holder.end(),
                          [](const _tag_TQPARAMINFO& entry) {
                            return (entry.Value()->type & PT_ARRAY_FLAG) != 0;
                          }),
            5);
  const auto found = std::ranges::find_if(
      holder, [](const _tag_TQPARAMINFO& entry) { return std::string(entry.name) == "int64s"; });
  EXPECT_EQ(found, holder.find("int64s"));
  EXPECT_EQ(std::next(holder.begin(), 10), holder.end());
}

TEST(ParamIterator, FindsANameOrTheEnd) {
  const Holder holder = ReceivedHolder(RawList().Int32("a", 1).Int32("b", 2));
  EXPECT_STREQ(holder.find("b")->name, "b");
  EXPECT_EQ(holder.find("b").holder, &holder);
  EXPECT_EQ(holder.find("B"), holder.end());
  EXPECT_EQ(holder.find("B").holder, &holder);
}

TEST(ParamIterator, RaisesAtDamage) {
  const Holder holder =
      Holder::FromHandle(ListOfBlock(RawList().Int32("a", 1).Entry("b", 6, U32(0)).Block()));
  Iterator i = holder.begin();
  ++i;
  EXPECT_STREQ(i->name, "b");
  EXPECT_THROW(++i, _tag_TQPARAMVALUE::DataDamaged);
  EXPECT_STREQ(i->name, "b");
}

// ---- threads ------------------------------------------------------------------------------------

TEST(ParamListHolder, MayBeReadFromManyThreads) {
  const Holder holder = ReceivedHolder(AllTypes());
  std::vector<uint32_t> failures(4, 0);
  std::vector<std::thread> threads;
  for (uint32_t& failure : failures) {
    threads.emplace_back([&holder, &failure] {
      for (int round = 0; round < 300; ++round) {
        if (NamesIn(holder).size() != 10) ++failure;
        // NOLINTNEXTLINE(performance-unnecessary-copy-initialization): counts a reference
        const Holder shared = holder;
        if (shared.GetHandle("handles", 1).GetInt32("n") != 12) ++failure;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(failures, std::vector<uint32_t>(4, 0));
  EXPECT_EQ(ListsAlive(), 4u);
}

}  // namespace
}  // namespace TQ::test
