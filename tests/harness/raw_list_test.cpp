#include "support/raw_list.h"

#include "support/hex.h"

#include <gtest/gtest.h>

namespace TQ::test {
namespace {

TEST(RawList, LaysOutGoldenEntries) {
  EXPECT_EQ(ToHex(RawList().Int32("ab", 7).Block()), "07 61 62 00 00 00 00 02 07 00 00 00");
  EXPECT_EQ(ToHex(RawList().String("a", "hi").Block()), "03 61 00 01 68 69 00 00");
  EXPECT_EQ(ToHex(RawList().StringArray("s", {"a", "bcd"}).Block()),
            "03 73 00 81 02 00 00 00 00 00 00 00 04 00 00 00 61 00 00 00 62 63 64 00");
  EXPECT_EQ(ToHex(RawList().BinaryArray("b", {{1, 2, 3}}).Block()),
            "03 62 00 85 01 00 00 00 00 00 00 00 03 00 00 00 01 02 03 00");
  EXPECT_EQ(ToHex(RawList().NoHandle("h").Block()), "03 68 00 04 ff ff ff ff");
  EXPECT_EQ(ToHex(RawList().Int64("q", 0x0102030405060708).Block()),
            "03 71 00 03 08 07 06 05 04 03 02 01");
  EXPECT_EQ(ToHex(RawList().Binary("b", {9}).Block()), "03 62 00 05 01 00 00 00 09 00 00 00");
  EXPECT_EQ(ToHex(RawList().Int32Array("i", {1, 2}).Block()),
            "03 69 00 82 02 00 00 00 01 00 00 00 02 00 00 00");
  EXPECT_EQ(ToHex(RawList().Int64Array("i", {1}).Block()),
            "03 69 00 83 01 00 00 00 01 00 00 00 00 00 00 00");
}

TEST(RawList, SizesHeadsByTheLengthOfTheName) {
  EXPECT_EQ(EntryHead("", 2).size(), 4u);
  EXPECT_EQ(EntryHead("a", 2).size(), 4u);
  EXPECT_EQ(EntryHead("ab", 2).size(), 8u);
  EXPECT_EQ(EntryHead("abcde", 2).size(), 8u);
  EXPECT_EQ(EntryHead("abcdef", 2).size(), 12u);
  EXPECT_EQ(EntryHead("abcdefghi", 2).size(), 12u);
  const Bytes longest = EntryHead(std::string(253, 'n'), 2);
  EXPECT_EQ(longest.size(), 256u);
  EXPECT_EQ(longest[0], 255);
  EXPECT_EQ(longest[255], 2);
}

RawList EveryType() {
  RawList list;
  list.String("text", "some text")
      .String("empty", "")
      .Int32("n32", 0x80000001)
      .Int64("n64", 0x8000000000000001)
      .Binary("binary", {1, 2, 3, 4, 5})
      .Binary("none", {})
      .Handle("child", RawList().Int32("x", 1))
      .NoHandle("nobody")
      .StringArray("texts", {"", "abc", "abcd"})
      .StringArray("noTexts", {})
      .Int32Array("n32s", {1, 0xFFFFFFFF})
      .Int64Array("n64s", {1, 0xFFFFFFFFFFFFFFFF})
      .BinaryArray("binaries", {{}, {7, 8, 9, 10}, {11}})
      .HandleArray("children", {RawList().String("a", "b"), RawList()})
      .Int32("", 5);
  return list;
}

TEST(RawList, TakesItsOwnEntriesApart) {
  std::string problem;
  const auto values = EveryType().Values(&problem);
  ASSERT_TRUE(values) << problem;
  ASSERT_EQ(values->size(), 15u);
  EXPECT_EQ(values->at(0).text, "some text");
  EXPECT_EQ(values->at(1).text, "");
  EXPECT_EQ(values->at(2).number, 0x80000001u);
  EXPECT_EQ(values->at(3).number, 0x8000000000000001u);
  EXPECT_EQ(values->at(4).binary, (Bytes{1, 2, 3, 4, 5}));
  EXPECT_EQ(values->at(5).binary, Bytes{});
  EXPECT_EQ(values->at(6).number, 0u);
  EXPECT_EQ(values->at(7).number, RAW_NO_HANDLE);
  EXPECT_EQ(values->at(8).texts, (std::vector<std::string>{"", "abc", "abcd"}));
  EXPECT_TRUE(values->at(9).texts.empty());
  EXPECT_EQ(values->at(10).numbers, (std::vector<uint64_t>{1, 0xFFFFFFFF}));
  EXPECT_EQ(values->at(11).numbers, (std::vector<uint64_t>{1, 0xFFFFFFFFFFFFFFFF}));
  EXPECT_EQ(values->at(12).binaries, (std::vector<Bytes>{{}, {7, 8, 9, 10}, {11}}));
  EXPECT_EQ(values->at(13).numbers, (std::vector<uint64_t>{1, 2}));
  EXPECT_EQ(values->at(14).name, "");
  EXPECT_EQ(values->at(14).offset + values->at(14).size, EveryType().BlockSize());
}

TEST(RawList, FindsTheFirstEntryOfAName) {
  const RawList list = RawList().Int32("x", 1).Int32("x", 2);
  ASSERT_TRUE(list.Find("x"));
  EXPECT_EQ(list.Find("x")->number, 1u);
  EXPECT_FALSE(list.Find("X"));
  EXPECT_EQ(list.Names(), (std::vector<std::string>{"x", "x"}));
}

TEST(RawList, StreamsADescriptorBeforeEachNestedBlock) {
  const RawList c = RawList().Int32("c", 3);
  EXPECT_EQ(RawList().Handle("h", c).Stream(),
            Concat({RawList().HandleIndex("h", 0).Block(), U32(8), U32(0), c.Block()}));
}

TEST(RawList, StreamsTheTreeInDepthFirstOrder) {
  const RawList d = RawList().Int32("d", 4);
  const RawList c1 = RawList().Int32("c1", 1).Handle("d", d);
  const RawList c2 = RawList().Int32("c", 2);
  const RawList top = RawList().Handle("1", c1).Handle("2", c2);
  EXPECT_EQ(top.Stream(),
            Concat({top.Block(), U32(c1.BlockSize()), U32(1), c1.Block(), U32(d.BlockSize()),
                    U32(0), d.Block(), U32(c2.BlockSize()), U32(0), c2.Block()}));
}

TEST(RawList, DecodesWhatItStreams) {
  const RawList list = EveryType().Handle("deep", RawList().Handle("deeper", EveryType()));
  const auto decoded = DecodeListStream(list.Stream(), list.BlockSize(), list.HandleCount());
  ASSERT_TRUE(decoded);
  EXPECT_EQ(*decoded, list);
}

TEST(RawList, DecodesNoStreamThatIsCutOrTooLong) {
  const RawList list = EveryType();
  const Bytes stream = list.Stream();
  for (size_t size = 0; size < stream.size(); ++size) {
    EXPECT_FALSE(DecodeListStream(Prefix(stream, size), list.BlockSize(), list.HandleCount()));
  }
  EXPECT_FALSE(DecodeListStream(Concat({stream, {0}}), list.BlockSize(), list.HandleCount()));
}

TEST(RawList, DiffersByBlockAndByNestedList) {
  const RawList one = RawList().Int32("x", 1);
  EXPECT_NE(one, RawList().Int32("x", 2));
  EXPECT_NE(RawList().Handle("h", one), RawList().HandleIndex("h", 0));
  EXPECT_NE(RawList().Child(one), RawList().Child(RawList()));
}

TEST(RawList, RefusesEveryDamageToABlock) {
  std::string problem;
  const auto refuses = [&](const RawList& list) { return !list.Values(&problem); };
  EXPECT_TRUE(refuses(RawList().Entry("a", 6, U32(0))));
  EXPECT_EQ(problem, "at byte 4: unknown type 6");
  EXPECT_TRUE(refuses(RawList().Entry("a", 0, U32(0))));
  EXPECT_TRUE(refuses(RawList().Entry("a", 0x80, U32(0))));
  EXPECT_TRUE(refuses(RawList().Entry("a", 0x86, U32(0))));
  EXPECT_TRUE(refuses(RawList().Int32("a", 1).Truncate(7)));
  EXPECT_TRUE(refuses(RawList().Entry("a", RAW_STRING, ToBytes("abcd"))));
  EXPECT_TRUE(refuses(RawList().String("a", "b").Patch(7, {1})));
  EXPECT_TRUE(refuses(RawList().Int32("ab", 1).Patch(0, {11})));
  EXPECT_TRUE(refuses(RawList().Int32("ab", 1).Patch(0, {6})));
  EXPECT_TRUE(refuses(RawList().Int32("ab", 1).Patch(5, {1})));
  EXPECT_TRUE(refuses(RawList().StringArray("s", {"a", "b"}).Patch(12, U32(8))));
  EXPECT_TRUE(refuses(RawList().Raw({3})));
  EXPECT_FALSE(refuses(RawList()));
}

TEST(RawList, PatchesOnlyInsideTheBlock) {
  EXPECT_EQ(RawList().Int32("a", 1).Patch(4, U32(2)), RawList().Int32("a", 2));
  EXPECT_THROW(RawList().Int32("a", 1).Patch(5, U32(2)), std::out_of_range);
  EXPECT_THROW(RawList().Truncate(1), std::out_of_range);
}

}  // namespace
}  // namespace TQ::test
