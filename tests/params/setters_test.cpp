#include "support/log_recorder.h"
#include "support/param_lists.h"

#include <tq/tq.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace TQ::test {
namespace {

constexpr _tag_HTQPARAMLIST NO_LIST = {nullptr};

TEST(Setters, FailOnTheNullListAndLogNothing) {
  const LogRecorder log;
  const uint32_t dwords[] = {1};
  const uint64_t qwords[] = {1};
  const char* const texts[] = {"t"};
  const void* const datas[] = {"d"};
  const _tag_BINARYITEM items[] = {{1, "d"}};
  const _tag_HTQPARAMLIST handles[] = {NO_LIST};
  EXPECT_EQ(TQSetStringValue(NO_LIST, "a", "x"), TQ_ERR_FAILED);
  EXPECT_EQ(TQSetInt32Value(NO_LIST, "a", 1), TQ_ERR_FAILED);
  EXPECT_EQ(TQSetInt64Value(NO_LIST, "a", 1), TQ_ERR_FAILED);
  EXPECT_EQ(TQSetBinaryValue(NO_LIST, "a", "x", 1), TQ_ERR_FAILED);
  EXPECT_EQ(TQSetBinaryItem(NO_LIST, "a", items), TQ_ERR_FAILED);
  EXPECT_EQ(TQSetHandleValue(NO_LIST, "a", NO_LIST), TQ_ERR_FAILED);
  EXPECT_EQ(TQSetStringArray(NO_LIST, "a", 1, texts), TQ_ERR_FAILED);
  EXPECT_EQ(TQSetInt32Array(NO_LIST, "a", 1, dwords), TQ_ERR_FAILED);
  EXPECT_EQ(TQSetInt64Array(NO_LIST, "a", 1, qwords), TQ_ERR_FAILED);
  EXPECT_EQ(TQSetHandleArray(NO_LIST, "a", 1, handles), TQ_ERR_FAILED);
  EXPECT_EQ(TQSetBinaryArray(NO_LIST, "a", 1, datas, dwords), TQ_ERR_FAILED);
  EXPECT_EQ(TQSetBinaryItemArray(NO_LIST, "a", 1, items), TQ_ERR_FAILED);
  EXPECT_EQ(TQ_ERR_FAILED, -1);
  EXPECT_TRUE(log.Lines().empty());
}

TEST(Setters, FailOnTheNullListBeforeTheyLookAtAnything) {
  EXPECT_EQ(TQSetStringValue(NO_LIST, nullptr, nullptr), TQ_ERR_FAILED);
  EXPECT_EQ(TQSetBinaryItem(NO_LIST, nullptr, nullptr), TQ_ERR_FAILED);
  EXPECT_EQ(TQSetStringArray(NO_LIST, nullptr, 5, nullptr), TQ_ERR_FAILED);
  EXPECT_EQ(TQSetHandleArray(NO_LIST, nullptr, 5, nullptr), TQ_ERR_FAILED);
  EXPECT_EQ(TQSetBinaryArray(NO_LIST, nullptr, 5, nullptr, nullptr), TQ_ERR_FAILED);
  EXPECT_EQ(TQSetBinaryItemArray(NO_LIST, nullptr, 5, nullptr), TQ_ERR_FAILED);

  // A list that is not there takes no reference.
  const OwnedList nested;
  EXPECT_EQ(TQSetHandleValue(NO_LIST, nullptr, nested), TQ_ERR_FAILED);
}

TEST(Setters, StoreEveryTypeUnderItsCode) {
  const OwnedList list;
  const OwnedList nested;
  const uint32_t dwords[] = {1, 2};
  const uint64_t qwords[] = {3};
  const char* const texts[] = {"t", "u"};
  const void* const datas[] = {"d", "e"};
  const _tag_BINARYITEM items[] = {{1, "d"}};
  const _tag_HTQPARAMLIST handles[] = {nested};
  EXPECT_EQ(TQSetStringValue(list, "string", "text"), TQ_ERR_OK);
  EXPECT_EQ(TQSetInt32Value(list, "int32", 0xFFFFFFFF), TQ_ERR_OK);
  EXPECT_EQ(TQSetInt64Value(list, "int64", 0x8000000000000001), TQ_ERR_OK);
  EXPECT_EQ(TQSetBinaryValue(list, "binary", "bin", 3), TQ_ERR_OK);
  EXPECT_EQ(TQSetBinaryItem(list, "item", items), TQ_ERR_OK);
  EXPECT_EQ(TQSetHandleValue(list, "handle", nested), TQ_ERR_OK);
  EXPECT_EQ(TQSetStringArray(list, "strings", 2, texts), TQ_ERR_OK);
  EXPECT_EQ(TQSetInt32Array(list, "int32s", 2, dwords), TQ_ERR_OK);
  EXPECT_EQ(TQSetInt64Array(list, "int64s", 1, qwords), TQ_ERR_OK);
  EXPECT_EQ(TQSetHandleArray(list, "handles", 1, handles), TQ_ERR_OK);
  EXPECT_EQ(TQSetBinaryArray(list, "binaries", 2, datas, dwords), TQ_ERR_OK);
  EXPECT_EQ(TQSetBinaryItemArray(list, "items", 1, items), TQ_ERR_OK);

  EXPECT_EQ(RawOf(list), RawList()
                             .String("string", "text")
                             .Int32("int32", 0xFFFFFFFF)
                             .Int64("int64", 0x8000000000000001)
                             .Binary("binary", ToBytes("bin"))
                             .Binary("item", ToBytes("d"))
                             .Handle("handle", RawList())
                             .StringArray("strings", {"t", "u"})
                             .Int32Array("int32s", {1, 2})
                             .Int64Array("int64s", {3})
                             .HandleArray("handles", {RawList()})
                             .BinaryArray("binaries", {ToBytes("d"), Bytes{'e', 0}})
                             .BinaryArray("items", {ToBytes("d")}));
  EXPECT_EQ(TQGetParamCount(list), 12u);
}

TEST(Setters, StoreANullTextAsTheEmptyText) {
  const OwnedList list;
  TQSetStringValue(list, "a", nullptr);
  EXPECT_EQ(BlockHex(list), "03 61 00 01 00 00 00 00");
  EXPECT_STREQ(TQGetStringValue(list, "a"), "");
}

TEST(Setters, StoreANullTextInAnArrayAsTheEmptyText) {
  const OwnedList list;
  const char* const texts[] = {"a", nullptr, "b"};
  TQSetStringArray(list, "s", 3, texts);
  EXPECT_EQ(RawOf(list), RawList().StringArray("s", {"a", "", "b"}));
}

TEST(Setters, StoreBinariesWithZerosAndEmptyOnes) {
  const OwnedList list;
  const uint8_t zeros[] = {0, 0, 7, 0};
  const void* const datas[] = {zeros, nullptr, zeros + 2};
  const uint32_t sizes[] = {4, 0, 2};
  TQSetBinaryArray(list, "b", 3, datas, sizes);
  EXPECT_EQ(RawOf(list), RawList().BinaryArray("b", {{0, 0, 7, 0}, {}, {7, 0}}));
}

TEST(Setters, CopyWhatTheyAreGiven) {
  const OwnedList list;
  std::string name = "name";
  std::string text = "text";
  std::vector<uint32_t> values = {1, 2};
  TQSetStringValue(list, name.c_str(), text.c_str());
  TQSetInt32Array(list, "n", 2, values.data());
  name.assign("xxxx");
  text.assign("yyyy");
  values.assign({3, 4});
  EXPECT_EQ(RawOf(list), RawList().String("name", "text").Int32Array("n", {1, 2}));
}

TEST(Setters, ReplaceAValueOfAnyTypeByOneOfAnyOther) {
  const OwnedList nested;
  const char* const texts[] = {"t"};
  const uint64_t qwords[] = {1, 2};
  const _tag_HTQPARAMLIST handles[] = {nested, nested};
  const void* const datas[] = {"d"};
  const uint32_t sizes[] = {1};
  const std::vector<std::function<void(_tag_HTQPARAMLIST)>> setters = {
      [](_tag_HTQPARAMLIST l) { TQSetStringValue(l, "x", "some text"); },
      [](_tag_HTQPARAMLIST l) { TQSetInt32Value(l, "x", 1); },
      [](_tag_HTQPARAMLIST l) { TQSetInt64Value(l, "x", 1); },
      [](_tag_HTQPARAMLIST l) { TQSetBinaryValue(l, "x", "bytes", 5); },
      [&](_tag_HTQPARAMLIST l) { TQSetHandleValue(l, "x", nested); },
      [&](_tag_HTQPARAMLIST l) { TQSetStringArray(l, "x", 1, texts); },
      [&](_tag_HTQPARAMLIST l) { TQSetInt32Array(l, "x", 1, sizes); },
      [&](_tag_HTQPARAMLIST l) { TQSetInt64Array(l, "x", 2, qwords); },
      [&](_tag_HTQPARAMLIST l) { TQSetHandleArray(l, "x", 2, handles); },
      [&](_tag_HTQPARAMLIST l) { TQSetBinaryArray(l, "x", 1, datas, sizes); },
  };
  for (const auto& first : setters) {
    for (const auto& second : setters) {
      const OwnedList list;
      const OwnedList fresh;
      TQSetInt32Value(list, "before", 1);
      TQSetInt32Value(fresh, "before", 1);
      TQSetInt32Value(fresh, "behind", 2);
      first(list);
      TQSetInt32Value(list, "behind", 2);
      second(list);
      second(fresh);
      EXPECT_EQ(RawOf(list), RawOf(fresh));
      EXPECT_EQ(TQGetParamCount(list), 3u);
    }
  }
}

// ---- references ---------------------------------------------------------------------------------

TEST(Setters, TakeAReferenceOfTheirOwnForTheListThatTheyStore) {
  OwnedList list;
  OwnedList nested;
  TQSetHandleValue(list, "h", nested);
  nested.Close();
  EXPECT_EQ(ListsAlive(), 2u);
  list.Close();
  EXPECT_EQ(ListsAlive(), 0u);
}

TEST(Setters, LeaveTheCallersReferenceToTheCaller) {
  OwnedList list;
  const OwnedList nested;
  TQSetInt32Value(nested, "a", 7);
  TQSetHandleValue(list, "h", nested);
  const _tag_HTQPARAMLIST twice[] = {nested, nested};
  TQSetHandleArray(list, "hs", 2, twice);
  list.Close();
  EXPECT_EQ(ListsAlive(), 1u);
  EXPECT_EQ(TQGetInt32Value(nested, "a"), 7u);
}

TEST(Setters, GiveTheReferenceUpWhenTheValueIsReplacedOrRemoved) {
  const OwnedList list;
  TQSetHandleValue(list, "a", OwnedList());
  TQSetHandleValue(list, "b", OwnedList());
  TQSetHandleValue(list, "c", OwnedList());
  EXPECT_EQ(ListsAlive(), 4u);
  TQSetInt32Value(list, "a", 1);
  EXPECT_EQ(ListsAlive(), 3u);
  TQSetHandleValue(list, "b", NO_LIST);
  EXPECT_EQ(ListsAlive(), 2u);
  TQRemoveValue(list, "c");
  EXPECT_EQ(ListsAlive(), 1u);
}

TEST(Setters, KeepAListThatLivesOnlyThroughTheReplacedValue) {
  const OwnedList list;
  {
    const OwnedList nested;
    TQSetInt32Value(nested, "a", 7);
    TQSetHandleValue(list, "h", nested);
  }
  const _tag_HTQPARAMLIST borrowed = TQGetHandleById(list, 0);
  EXPECT_EQ(TQSetHandleValue(list, "h", borrowed), TQ_ERR_OK);
  EXPECT_EQ(ListsAlive(), 2u);
  EXPECT_EQ(TQGetHandleById(list, 0).impl, borrowed.impl);
  EXPECT_EQ(RawOf(list), RawList().Handle("h", RawList().Int32("a", 7)));
  TQRemoveValue(list, "h");
  EXPECT_EQ(ListsAlive(), 1u);
}

TEST(Setters, KeepListsThatLiveOnlyThroughTheReplacedArray) {
  const OwnedList list;
  {
    const OwnedList one;
    const OwnedList two;
    TQSetInt32Value(one, "n", 1);
    TQSetInt32Value(two, "n", 2);
    const _tag_HTQPARAMLIST values[] = {one, two};
    TQSetHandleArray(list, "h", 2, values);
  }
  const _tag_HTQPARAMLIST swapped[] = {TQGetHandleById(list, 1), NO_LIST, TQGetHandleById(list, 0)};
  EXPECT_EQ(TQSetHandleArray(list, "h", 3, swapped), TQ_ERR_OK);
  EXPECT_EQ(ListsAlive(), 3u);
  EXPECT_EQ(RawOf(list), RawList()
                             .HandleIndexArray("h", {0, NO_HANDLE_INDEX, 1})
                             .Child(RawList().Int32("n", 2))
                             .Child(RawList().Int32("n", 1)));

  // A single value that is replaced by an array, and the other way round.
  const _tag_HTQPARAMLIST first[] = {TQGetHandleById(list, 0)};
  TQSetHandleValue(list, "h", first[0]);
  EXPECT_EQ(ListsAlive(), 2u);
  const _tag_HTQPARAMLIST again[] = {TQGetHandleById(list, 0)};
  TQSetHandleArray(list, "h", 1, again);
  EXPECT_EQ(ListsAlive(), 2u);
  EXPECT_EQ(RawOf(list), RawList().HandleArray("h", {RawList().Int32("n", 2)}));
}

TEST(Setters, MayStoreOneListInManyLists) {
  OwnedList one;
  OwnedList two;
  {
    const OwnedList shared;
    TQSetInt32Value(shared, "n", 1);
    TQSetHandleValue(one, "h", shared);
    TQSetHandleValue(two, "h", shared);
  }
  EXPECT_EQ(TQGetHandleById(one, 0).impl, TQGetHandleById(two, 0).impl);
  TQSetInt32Value(TQGetHandleById(one, 0), "n", 2);
  EXPECT_EQ(RawOf(two), RawList().Handle("h", RawList().Int32("n", 2)));
  one.Close();
  EXPECT_EQ(RawOf(two), RawList().Handle("h", RawList().Int32("n", 2)));
  two.Close();
  EXPECT_EQ(ListsAlive(), 0u);
}

}  // namespace
}  // namespace TQ::test
