#include "support/log_recorder.h"
#include "support/param_lists.h"

#include <tq/tq.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace TQ::test {
namespace {

constexpr _tag_HTQPARAMLIST NO_LIST = {nullptr};

/// A list with one value of every type, under the type's name.
OwnedList ListOfAllTypes() {
  OwnedList list;
  const OwnedList nested;
  const uint32_t dwords[] = {1, 2};
  const uint64_t qwords[] = {3, 4};
  const char* const texts[] = {"t", "u"};
  const void* const datas[] = {"d", "ef"};
  const _tag_HTQPARAMLIST handles[] = {nested, NO_LIST};
  TQSetStringValue(list, "string", "text");
  TQSetInt32Value(list, "int32", 32);
  TQSetInt64Value(list, "int64", 64);
  TQSetBinaryValue(list, "binary", "bin", 3);
  TQSetHandleValue(list, "handle", nested);
  TQSetStringArray(list, "strings", 2, texts);
  TQSetInt32Array(list, "int32s", 2, dwords);
  TQSetInt64Array(list, "int64s", 2, qwords);
  TQSetHandleArray(list, "handles", 2, handles);
  TQSetBinaryArray(list, "binaries", 2, datas, dwords);
  return list;
}

const std::vector<std::string> ALL_NAMES = {"string",  "int32",  "int64",  "binary",  "handle",
                                            "strings", "int32s", "int64s", "handles", "binaries"};

/// The names of the getters, by the name of the value, that gave something for `name`.
std::vector<std::string> GettersThatAnswer(_tag_HTQPARAMLIST list, const char* name) {
  std::vector<std::string> answered;
  if (TQGetStringValue(list, name) != nullptr) answered.emplace_back("string");
  if (TQGetInt32Value(list, name) != 0) answered.emplace_back("int32");
  if (TQGetInt64Value(list, name) != 0) answered.emplace_back("int64");
  if (TQGetBinaryValue(list, name) != nullptr) answered.emplace_back("binary");
  const OwnedList nested(TQGetHandleValue(list, name));
  if (!nested.IsNull()) answered.emplace_back("handle");
  const char* texts[4];
  if (TQGetStringArray(list, name, texts, 4, 0) != 0) answered.emplace_back("strings");
  const _tag_BINARYVALUE* binaries[4];
  if (TQGetBinaryArray(list, name, binaries, 4, 0) != 0) answered.emplace_back("binaries");
  const auto dwords = Unpacked(TQGetInt32Array(list, name));
  EXPECT_EQ(dwords.count == 0, dwords.values == nullptr);
  if (dwords.count != 0) answered.emplace_back("int32s");
  const auto qwords = Unpacked(TQGetInt64Array(list, name));
  EXPECT_EQ(qwords.count == 0, qwords.values == nullptr);
  if (qwords.count != 0) answered.emplace_back("int32s as int64s");
  const auto handles = Unpacked(TQGetHandleArray(list, name));
  EXPECT_EQ(handles.count == 0, handles.values == nullptr);
  if (handles.count != 0) answered.emplace_back("handles");
  return answered;
}

TEST(Getters, AnswerForTheirOwnTypeAloneWithoutConversion) {
  const OwnedList list = ListOfAllTypes();
  for (const std::string& name : ALL_NAMES) {
    std::vector<std::string> expected = {name};
    if (name == "int64s") expected.clear();
    if (name == "int32s") expected.emplace_back("int32s as int64s");
    EXPECT_EQ(GettersThatAnswer(list, name.c_str()), expected) << name;
  }
}

TEST(Getters, AnswerNothingForAnAbsentName) {
  const OwnedList list = ListOfAllTypes();
  EXPECT_TRUE(GettersThatAnswer(list, "absent").empty());
  EXPECT_TRUE(GettersThatAnswer(list, "").empty());
  EXPECT_TRUE(GettersThatAnswer(list, "String").empty());
  const OwnedList empty;
  EXPECT_TRUE(GettersThatAnswer(empty, "string").empty());
}

TEST(Getters, AnswerNothingForTheNullListAndLogNothing) {
  const LogRecorder log;
  EXPECT_TRUE(GettersThatAnswer(NO_LIST, "string").empty());
  EXPECT_TRUE(GettersThatAnswer(NO_LIST, nullptr).empty());
  EXPECT_EQ(TQGetStringArray(NO_LIST, "a", nullptr, 5, 0), 0u);
  EXPECT_EQ(TQGetBinaryArray(NO_LIST, "a", nullptr, 5, 0), 0u);
  EXPECT_TRUE(log.Lines().empty());
}

TEST(Getters, GiveTheStoredValues) {
  const OwnedList list = ListOfAllTypes();
  EXPECT_STREQ(TQGetStringValue(list, "string"), "text");
  EXPECT_EQ(TQGetInt32Value(list, "int32"), 32u);
  EXPECT_EQ(TQGetInt64Value(list, "int64"), 64u);
  const _tag_BINARYVALUE* binary = TQGetBinaryValue(list, "binary");
  ASSERT_NE(binary, nullptr);
  EXPECT_EQ(binary->size, 3u);
  EXPECT_EQ(std::memcmp(reinterpret_cast<const uint8_t*>(binary) + 4, "bin", 3), 0);
  const auto dwords = Unpacked(TQGetInt32Array(list, "int32s"));
  ASSERT_EQ(dwords.count, 2u);
  EXPECT_EQ(dwords.values[0], 1u);
  EXPECT_EQ(dwords.values[1], 2u);
  const auto indices = Unpacked(TQGetHandleArray(list, "handles"));
  ASSERT_EQ(indices.count, 2u);
  EXPECT_EQ(indices.values[0], 1u);
  EXPECT_EQ(indices.values[1], NO_HANDLE_INDEX);
}

TEST(Getters, GiveValuesAtTheLimitsOfTheirTypes) {
  const OwnedList list;
  TQSetInt32Value(list, "a", 0xFFFFFFFF);
  TQSetInt64Value(list, "b", 0xFFFFFFFFFFFFFFFF);
  TQSetInt64Value(list, "c", 0x8000000000000000);
  EXPECT_EQ(TQGetInt32Value(list, "a"), 0xFFFFFFFFu);
  EXPECT_EQ(TQGetInt64Value(list, "b"), 0xFFFFFFFFFFFFFFFFull);
  EXPECT_EQ(TQGetInt64Value(list, "c"), 0x8000000000000000ull);
}

TEST(Getters, DoNotTellAStoredZeroFromAMissingValue) {
  const OwnedList list;
  TQSetInt32Value(list, "zero", 0);
  EXPECT_EQ(TQGetInt32Value(list, "zero"), 0u);
  EXPECT_EQ(TQGetInt32Value(list, "missing"), 0u);
  EXPECT_NE(TQParamInfo(list, "zero"), nullptr);
  EXPECT_EQ(TQParamInfo(list, "missing"), nullptr);
}

TEST(Getters, GiveViewsIntoTheBlock) {
  const OwnedList list = ListOfAllTypes();
  const uint8_t* begin = list.Impl().BlockData();
  const uint8_t* end = begin + list.Impl().BlockSize();
  const auto inBlock = [&](const void* pointer) { return pointer >= begin && pointer < end; };
  EXPECT_TRUE(inBlock(TQGetStringValue(list, "string")));
  EXPECT_TRUE(inBlock(TQGetBinaryValue(list, "binary")));
  EXPECT_TRUE(inBlock(TQGetInt32Array(list, "int32s").values));
  EXPECT_TRUE(inBlock(TQGetHandleArray(list, "handles").values));
  const char* texts[2];
  ASSERT_EQ(TQGetStringArray(list, "strings", texts, 2, 0), 2u);
  EXPECT_TRUE(inBlock(texts[0]));
  EXPECT_EQ(texts[0] + 4, texts[1]);
  const _tag_BINARYVALUE* binaries[2];
  ASSERT_EQ(TQGetBinaryArray(list, "binaries", binaries, 2, 0), 2u);
  EXPECT_TRUE(inBlock(binaries[0]));
  EXPECT_EQ(reinterpret_cast<const uint8_t*>(binaries[0]) + 8,
            reinterpret_cast<const uint8_t*>(binaries[1]));
}

// ---- arrays of 64-bit values --------------------------------------------------------------------

TEST(Getters, OfAn64BitArrayAnswerNothingForOne) {
  const OwnedList list;
  const uint64_t values[] = {1, 2, 3};
  TQSetInt64Array(list, "a", 3, values);
  const auto view = Unpacked(TQGetInt64Array(list, "a"));
  EXPECT_EQ(view.count, 0u);
  EXPECT_EQ(view.values, nullptr);
}

TEST(Getters, OfAn64BitArrayGiveA32BitArrayUnderTheirType) {
  const OwnedList list;
  const uint32_t values[] = {1, 2, 3};
  TQSetInt32Array(list, "a", 3, values);
  const auto dwords = Unpacked(TQGetInt32Array(list, "a"));
  const auto qwords = Unpacked(TQGetInt64Array(list, "a"));
  EXPECT_EQ(qwords.count, 3u);
  EXPECT_EQ(static_cast<const void*>(qwords.values), static_cast<const void*>(dwords.values));
}

TEST(Getters, OfAnEmptyArrayGiveItsAddressWithACountOfZero) {
  const OwnedList list;
  TQSetInt32Array(list, "a", 0, nullptr);
  TQSetInt32Value(list, "b", 1);
  const auto view = Unpacked(TQGetInt32Array(list, "a"));
  EXPECT_EQ(view.count, 0u);
  EXPECT_EQ(reinterpret_cast<const uint8_t*>(view.values), list.Impl().BlockData() + 8);
}

// ---- the fill functions -------------------------------------------------------------------------

TEST(Getters, OfStringArraysFillFromTheFirstIndexUpToTheMaximum) {
  const OwnedList list;
  const char* const texts[] = {"zero", "", "two"};
  TQSetStringArray(list, "s", 3, texts);
  struct Case {
    uint32_t maximum, first;
    std::vector<std::string> expected;
  };
  const std::vector<Case> cases = {{10, 0, {"zero", "", "two"}},
                                   {3, 0, {"zero", "", "two"}},
                                   {2, 0, {"zero", ""}},
                                   {1, 1, {""}},
                                   {10, 2, {"two"}},
                                   {0, 0, {}},
                                   {0, 2, {}},
                                   {10, 3, {}},
                                   {10, 4, {}},
                                   {10, 0xFFFFFFFF, {}},
                                   {0xFFFFFFFF, 1, {"", "two"}}};
  for (const Case& c : cases) {
    SCOPED_TRACE(std::to_string(c.maximum) + " from " + std::to_string(c.first));
    const char* const untouched = "untouched";
    std::vector<const char*> out(4, untouched);
    const uint32_t written = TQGetStringArray(list, "s", out.data(), c.maximum, c.first);
    ASSERT_EQ(written, c.expected.size());
    for (uint32_t i = 0; i < written; ++i) EXPECT_EQ(out[i], c.expected[i]);
    for (size_t i = written; i < out.size(); ++i) EXPECT_EQ(out[i], untouched);
  }
}

TEST(Getters, OfBinaryArraysFillFromTheFirstIndexUpToTheMaximum) {
  const OwnedList list;
  const void* const datas[] = {"abcde", nullptr, "xyz"};
  const uint32_t sizes[] = {5, 0, 3};
  TQSetBinaryArray(list, "b", 3, datas, sizes);
  const _tag_BINARYVALUE* out[4] = {};
  ASSERT_EQ(TQGetBinaryArray(list, "b", out, 4, 0), 3u);
  for (int i = 0; i < 3; ++i) {
    ASSERT_EQ(out[i]->size, sizes[i]);
    if (sizes[i] != 0) {
      EXPECT_EQ(std::memcmp(reinterpret_cast<const uint8_t*>(out[i]) + 4, datas[i], sizes[i]), 0);
    }
  }
  EXPECT_EQ(out[3], nullptr);
  const _tag_BINARYVALUE* last[2] = {};
  EXPECT_EQ(TQGetBinaryArray(list, "b", last, 2, 2), 1u);
  EXPECT_EQ(last[0], out[2]);
  EXPECT_EQ(last[1], nullptr);
  EXPECT_EQ(TQGetBinaryArray(list, "b", last, 0, 0), 0u);
  EXPECT_EQ(TQGetBinaryArray(list, "b", last, 2, 3), 0u);
  EXPECT_EQ(TQGetBinaryArray(list, "b", last, 2, 0xFFFFFFFF), 0u);
}

TEST(Getters, GiveElementsWhereAPeersOffsetsSay) {
  // Elements may overlap and stand in any order; the last one alone has to end the value.
  const OwnedList list = ReceivedList(RawList().Entry(
      "s", 0x81, Concat({U32(3), U32(2), U32(0), U32(4), FromHex("61 62 63 00 78 79 00 00")})));
  const char* texts[3];
  ASSERT_EQ(TQGetStringArray(list, "s", texts, 3, 0), 3u);
  EXPECT_STREQ(texts[0], "c");
  EXPECT_STREQ(texts[1], "abc");
  EXPECT_STREQ(texts[2], "xy");
}

// ---- nested lists -------------------------------------------------------------------------------

TEST(Getters, GiveANestedListWithAReferenceForTheCaller) {
  OwnedList list;
  OwnedList nested;
  TQSetInt32Value(nested, "n", 5);
  TQSetHandleValue(list, "h", nested);
  OwnedList got(TQGetHandleValue(list, "h"));
  EXPECT_EQ(got.Handle().impl, nested.Handle().impl);
  nested.Close();
  list.Close();
  EXPECT_EQ(ListsAlive(), 1u);
  EXPECT_EQ(TQGetInt32Value(got, "n"), 5u);
  got.Close();
  EXPECT_EQ(ListsAlive(), 0u);
}

TEST(Getters, GiveTheNullHandleForAValueWithoutAList) {
  const OwnedList list;
  TQSetHandleValue(list, "h", NO_LIST);
  EXPECT_EQ(TQGetHandleValue(list, "h").impl, nullptr);
  EXPECT_EQ(TQGetHandleById(list, NO_HANDLE_INDEX).impl, nullptr);
}

TEST(Getters, GiveTheNullHandleForAnIndexThatNamesNoSlot) {
  const OwnedList list = ReceivedList(RawList()
                                          .Handle("a", RawList())
                                          .HandleIndex("b", 1)
                                          .HandleIndex("c", 0xFFFFFFFE)
                                          .HandleIndex("d", 0));
  EXPECT_EQ(TQGetHandleValue(list, "b").impl, nullptr);
  EXPECT_EQ(TQGetHandleValue(list, "c").impl, nullptr);
  const OwnedList a(TQGetHandleValue(list, "a"));
  const OwnedList d(TQGetHandleValue(list, "d"));
  EXPECT_FALSE(a.IsNull());
  EXPECT_EQ(a.Handle().impl, d.Handle().impl);
}

// ---- threads ------------------------------------------------------------------------------------

TEST(Getters, MayReadOneListFromManyThreads) {
  const OwnedList list = ListOfAllTypes();
  std::vector<std::thread> threads;
  std::vector<uint32_t> failures(4, 0);
  for (size_t t = 0; t < failures.size(); ++t) {
    threads.emplace_back([&list, &failure = failures[t]] {
      for (int round = 0; round < 500; ++round) {
        for (const std::string& name : ALL_NAMES) {
          if (TQParamInfo(list, name.c_str()) == nullptr) ++failure;
        }
        if (TQGetInt32Value(list, "int32") != 32) ++failure;
        const OwnedList nested(TQGetHandleValue(list, "handle"));
        if (nested.IsNull() || TQGetParamCount(nested) != 0) ++failure;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(failures, std::vector<uint32_t>(4, 0));
  EXPECT_EQ(ListsAlive(), 2u);
}

}  // namespace
}  // namespace TQ::test
