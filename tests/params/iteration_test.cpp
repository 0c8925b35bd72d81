#include "support/log_recorder.h"
#include "support/param_lists.h"

#include <tq/tq.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

namespace TQ::test {
namespace {

using Names = std::vector<std::string>;
constexpr _tag_HTQPARAMLIST NO_LIST = {nullptr};

OwnedList ListOf(const Names& names) {
  OwnedList list;
  for (const std::string& name : names) TQSetStringValue(list, name.c_str(), name.c_str());
  return list;
}

TEST(Iteration, OfTheNullListGivesNothingAndLogsNothing) {
  const LogRecorder log;
  const OwnedList list = ListOf({"a"});
  const _tag_TQPARAMINFO* entry = TQGetFirstParam(list);
  EXPECT_EQ(TQGetParamCount(NO_LIST), 0u);
  EXPECT_EQ(TQGetHandleSize(NO_LIST), 0u);
  EXPECT_EQ(TQGetFirstParam(NO_LIST), nullptr);
  EXPECT_EQ(TQGetNextParam(NO_LIST, entry), nullptr);
  EXPECT_EQ(TQGetNextParam(NO_LIST, nullptr), nullptr);
  EXPECT_EQ(TQParamByIndex(NO_LIST, 0), nullptr);
  EXPECT_EQ(TQParamInfo(NO_LIST, "a"), nullptr);
  EXPECT_EQ(TQParamInfo(NO_LIST, nullptr), nullptr);
  EXPECT_EQ(TQGetHandleById(NO_LIST, 0).impl, nullptr);
  EXPECT_EQ(TQRemoveValue(NO_LIST, "a"), TQ_ERR_FAILED);
  EXPECT_EQ(TQRemoveParamByInfo(NO_LIST, entry), nullptr);
  EXPECT_EQ(TQRemoveAllValues(NO_LIST), TQ_ERR_FAILED);
  EXPECT_TRUE(log.Lines().empty());
}

TEST(Iteration, OfAnEmptyListGivesNothing) {
  const OwnedList list;
  EXPECT_EQ(TQGetParamCount(list), 0u);
  EXPECT_EQ(TQGetHandleSize(list), 0u);
  EXPECT_EQ(TQGetFirstParam(list), nullptr);
  EXPECT_EQ(TQGetNextParam(list, nullptr), nullptr);
  EXPECT_EQ(TQParamByIndex(list, 0), nullptr);
  EXPECT_EQ(TQParamInfo(list, ""), nullptr);
  EXPECT_EQ(TQGetHandleById(list, 0).impl, nullptr);
  EXPECT_EQ(TQRemoveAllValues(list), TQ_ERR_OK);
}

TEST(Iteration, OfAListThatWasEmptiedGivesNothing) {
  const OwnedList list = ListOf({"a", "b"});
  TQRemoveValue(list, "a");
  TQRemoveValue(list, "b");
  EXPECT_EQ(TQGetFirstParam(list), nullptr);
  EXPECT_EQ(TQParamByIndex(list, 0), nullptr);
  TQSetInt32Value(list, "c", 1);
  EXPECT_EQ(NamesOf(list), Names{"c"});
}

TEST(Iteration, StepsThroughTheEntriesInTheOrderOfLastStores) {
  const OwnedList list = ListOf({"c", "a", "b"});
  TQSetInt32Value(list, "a", 1);
  EXPECT_EQ(NamesOf(list), (Names{"c", "b", "a"}));
  EXPECT_EQ(TQGetNextParam(list, TQParamInfo(list, "a")), nullptr);
}

TEST(Iteration, StepsOverEveryType) {
  const OwnedList list = ReceivedList(RawList()
                                          .String("s", "text")
                                          .Int32("i", 1)
                                          .Int64("l", 2)
                                          .Handle("h", RawList().Int32("inner", 1))
                                          .NoHandle("n")
                                          .Binary("b", Pattern(7))
                                          .StringArray("S", {"a", "bcdef", ""})
                                          .Int32Array("I", {1, 2, 3})
                                          .Int64Array("L", {1, 2, 3})
                                          .HandleArray("H", {RawList(), RawList()})
                                          .BinaryArray("B", {Pattern(5), {}, Pattern(1)})
                                          .StringArray("e", {}));
  EXPECT_EQ(NamesOf(list), (Names{"s", "i", "l", "h", "n", "b", "S", "I", "L", "H", "B", "e"}));
  EXPECT_EQ(TQGetParamCount(list), 12u);
}

TEST(Iteration, TellsNameTypeAndValueOfAnEntry) {
  const OwnedList list;
  TQSetInt32Value(list, "number", 0x01020304);
  TQSetStringArray(list, "texts", 0, nullptr);
  const _tag_TQPARAMINFO* entry = TQGetFirstParam(list);
  ASSERT_NE(entry, nullptr);
  EXPECT_STREQ(entry->name, "number");
  EXPECT_EQ(entry->Value()->type, PT_INT32);
  EXPECT_EQ(ReadU32(reinterpret_cast<const uint8_t*>(entry->Value()) + 1), 0x01020304u);
  entry = TQGetNextParam(list, entry);
  ASSERT_NE(entry, nullptr);
  EXPECT_EQ(entry->Value()->type, PT_ARRAY_FLAG | PT_STRING);
}

TEST(Iteration, ByIndexGivesTheEntryAtThatPlace) {
  const OwnedList list = ListOf({"a", "b", "c"});
  EXPECT_EQ(TQParamByIndex(list, 0), TQGetFirstParam(list));
  EXPECT_EQ(reinterpret_cast<const uint8_t*>(TQParamByIndex(list, 0)), list.Impl().BlockData());
  EXPECT_STREQ(TQParamByIndex(list, 1)->name, "b");
  EXPECT_EQ(TQParamByIndex(list, 2), TQParamInfo(list, "c"));
  EXPECT_EQ(TQParamByIndex(list, 3), nullptr);
  EXPECT_EQ(TQParamByIndex(list, 0xFFFFFFFF), nullptr);
}

TEST(Iteration, SizeCountsTheListsOwnBytesAlone) {
  const OwnedList list;
  EXPECT_EQ(TQGetHandleSize(list), 0u);
  TQSetInt32Value(list, "a", 1);
  EXPECT_EQ(TQGetHandleSize(list), 8u);
  const OwnedList nested = ListOf({"x", "y", "z"});
  TQSetHandleValue(list, "h", nested);
  EXPECT_EQ(TQGetHandleSize(list), 16u);
}

TEST(Iteration, ByIdGivesABorrowedHandle) {
  const OwnedList list;
  const OwnedList nested;
  TQSetHandleValue(list, "h", nested);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(TQGetHandleById(list, 0).impl, nested.Handle().impl);
  EXPECT_EQ(TQGetHandleById(list, 1).impl, nullptr);
  EXPECT_EQ(TQGetHandleById(list, NO_HANDLE_INDEX).impl, nullptr);
  EXPECT_EQ(ListsAlive(), 2u);
}

TEST(Iteration, ClosingABorrowedHandleTakesTheListsOwnReference) {
  OwnedList list;
  const _tag_HTQPARAMLIST nested = TQCreateParamList();
  TQSetHandleValue(list, "h", nested);
  // Two references are left, this test's and the list's. The list will give back the one that is
  // left after this.
  TQCloseHandle(TQGetHandleById(list, 0));
  EXPECT_EQ(ListsAlive(), 2u);
  list.Close();
  EXPECT_EQ(ListsAlive(), 0u);
}

// ---- removal ------------------------------------------------------------------------------------

TEST(Iteration, RemovalByNameSucceedsWhetherThereIsOneOrNot) {
  const OwnedList list = ListOf({"a", "b"});
  EXPECT_EQ(TQRemoveValue(list, "a"), TQ_ERR_OK);
  EXPECT_EQ(TQRemoveValue(list, "a"), TQ_ERR_OK);
  EXPECT_EQ(NamesOf(list), Names{"b"});
  EXPECT_EQ(TQGetParamCount(list), 1u);
}

TEST(Iteration, RemovalByEntryGivesTheFollowingEntry) {
  const OwnedList list = ListOf({"a", "b", "c"});
  const _tag_TQPARAMINFO* next = TQRemoveParamByInfo(list, TQParamInfo(list, "b"));
  ASSERT_NE(next, nullptr);
  EXPECT_STREQ(next->name, "c");
  EXPECT_EQ(TQRemoveParamByInfo(list, next), nullptr);
  EXPECT_EQ(NamesOf(list), Names{"a"});
  EXPECT_EQ(TQRemoveParamByInfo(list, TQGetFirstParam(list)), nullptr);
  EXPECT_EQ(TQGetParamCount(list), 0u);
}

TEST(Iteration, MayRemoveAsItGoes) {
  const OwnedList list = ListOf({"a", "b", "c", "d", "e"});
  bool remove = true;
  for (auto* entry = TQGetFirstParam(list); entry != nullptr; remove = !remove) {
    entry = remove ? TQRemoveParamByInfo(list, entry) : TQGetNextParam(list, entry);
  }
  EXPECT_EQ(NamesOf(list), (Names{"b", "d"}));
  for (auto* entry = TQGetFirstParam(list); entry != nullptr;) {
    entry = TQRemoveParamByInfo(list, entry);
  }
  EXPECT_EQ(TQGetParamCount(list), 0u);
}

TEST(Iteration, RemovalByASecondEntryOfANameRemovesNothing) {
  const RawList raw = RawList().Int32("x", 1).Int32("y", 2).Int32("x", 3);
  const OwnedList list = ReceivedList(raw);
  EXPECT_EQ(TQRemoveParamByInfo(list, TQParamByIndex(list, 2)), nullptr);
  EXPECT_EQ(RawOf(list), raw);
  EXPECT_EQ(TQGetParamCount(list), 3u);
  const _tag_TQPARAMINFO* next = TQRemoveParamByInfo(list, TQParamByIndex(list, 0));
  ASSERT_NE(next, nullptr);
  EXPECT_STREQ(next->name, "y");
  EXPECT_EQ(TQRemoveParamByInfo(list, TQParamByIndex(list, 1)), nullptr);
  EXPECT_EQ(RawOf(list), RawList().Int32("y", 2));
}

TEST(Iteration, RemovalByEntryReleasesItsNestedLists) {
  const OwnedList list;
  TQSetHandleValue(list, "a", OwnedList());
  TQSetHandleValue(list, "b", OwnedList());
  const _tag_TQPARAMINFO* next = TQRemoveParamByInfo(list, TQGetFirstParam(list));
  EXPECT_EQ(ListsAlive(), 2u);
  EXPECT_EQ(ReadU32(reinterpret_cast<const uint8_t*>(next->Value()) + 1), 0u);
}

TEST(Iteration, RemovalByAnEntryOfAnotherListRemovesNothing) {
  const OwnedList list = ListOf({"x"});
  const OwnedList other = ListOf({"x"});
  EXPECT_EQ(TQRemoveParamByInfo(list, TQGetFirstParam(other)), nullptr);
  EXPECT_EQ(TQGetParamCount(list), 1u);
  EXPECT_EQ(TQGetParamCount(other), 1u);
}

TEST(Iteration, RemovalByAnEntryThatWasRemovedRemovesNothing) {
  const OwnedList list = ListOf({"a", "b"});
  const _tag_TQPARAMINFO* last = TQParamByIndex(list, 1);
  EXPECT_EQ(TQRemoveParamByInfo(list, last), nullptr);
  EXPECT_EQ(TQGetParamCount(list), 1u);
  EXPECT_EQ(TQRemoveParamByInfo(list, last), nullptr);
  EXPECT_EQ(TQGetParamCount(list), 1u);

  const _tag_TQPARAMINFO* first = TQGetFirstParam(list);
  TQRemoveAllValues(list);
  EXPECT_EQ(TQRemoveParamByInfo(list, first), nullptr);
}

}  // namespace
}  // namespace TQ::test
