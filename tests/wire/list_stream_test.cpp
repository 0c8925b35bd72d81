#include "wire/list_stream.h"

#include <gtest/gtest.h>
#include <tq/tq.h>

#include <csignal>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "params/list_store.h"
#include "support/bytes.h"
#include "support/channel_ends.h"
#include "support/child_process.h"
#include "support/hex.h"
#include "support/host_conditions.h"
#include "support/log_recorder.h"
#include "support/memory_channel.h"
#include "support/process_info.h"
#include "support/raw_list.h"

namespace TQ::test {
namespace {

using detail::DescriptorOf;
using detail::ListDescriptor;
using detail::ListRef;
using detail::ReadParamList;
using detail::WriteParamList;
using Sizes = std::vector<uint32_t>;

ListDescriptor DescriptorOfRaw(const RawList& list) {
  return {list.BlockSize(), list.HandleCount()};
}

_tag_HTQPARAMLIST HandleOf(const ListRef& list) { return {list.Get()}; }

// A list of the library with this content, made by its own functions and by no stream.
ListRef MakeList(const char* name, uint32_t value) {
  ListRef list = FastHolderImpl::Create();
  EXPECT_EQ(TQSetInt32Value(HandleOf(list), name, value), TQ_ERR_OK);
  return list;
}

// The nested list under a name, null if there is none.
ListRef NestedOf(const ListRef& list, const char* name) {
  return ListRef::Adopt(TQGetHandleValue(HandleOf(list), name).impl);
}

void Nest(const ListRef& parent, const char* name, const ListRef& child) {
  EXPECT_EQ(TQSetHandleValue(HandleOf(parent), name, HandleOf(child)), TQ_ERR_OK);
}

Bytes BlockOf(const FastHolderImpl& list) {
  return Bytes(list.BlockData(), list.BlockData() + list.BlockSize());
}

// Compares a list with its raw image, at every depth.
void ExpectEqual(const FastHolderImpl& list, const RawList& raw) {
  EXPECT_EQ(ToHex(BlockOf(list)), ToHex(raw.Block()));
  ASSERT_EQ(list.Handles().Size(), raw.HandleCount());
  for (uint32_t i = 0; i < raw.HandleCount(); ++i) {
    ASSERT_TRUE(list.Handles()[i]) << i;
    ExpectEqual(*list.Handles()[i], raw.Children()[i]);
  }
}

// L with C1, which holds D, and C2.
RawList RawTree() {
  const RawList d = RawList().Int32("d", 4);
  const RawList c1 = RawList().Handle("d", d).Int32("c1", 2);
  const RawList c2 = RawList().String("c2", "x");
  return RawList().Int32("l", 1).Handle("c1", c1).Handle("c2", c2);
}

ListRef Tree() {
  const ListRef c1 = FastHolderImpl::Create();
  Nest(c1, "d", MakeList("d", 4));
  EXPECT_EQ(TQSetInt32Value(HandleOf(c1), "c1", 2), TQ_ERR_OK);
  const ListRef c2 = FastHolderImpl::Create();
  EXPECT_EQ(TQSetStringValue(HandleOf(c2), "c2", "x"), TQ_ERR_OK);
  const ListRef list = MakeList("l", 1);
  Nest(list, "c1", c1);
  Nest(list, "c2", c2);
  return list;
}

// Reads `stream` into a new list; the channel must be used up.
struct ReadResult {
  explicit ReadResult(const Bytes& stream, ListDescriptor own, bool withNext = false)
      : channel(stream), list(FastHolderImpl::Create()) {
    total = ReadParamList(*list, channel, own, withNext ? &next : nullptr);
  }
  explicit ReadResult(const RawList& raw) : ReadResult(raw.Stream(), DescriptorOfRaw(raw)) {}

  MemoryChannel channel;
  ListRef list;
  ListDescriptor next;
  int32_t total = 0;
};

// ---- writing -----------------------------------------------------------------------------------

TEST(ListStream, ListWithoutNestedOnesIsItsBlockInOneWrite) {
  const ListRef list = MakeList("a", 1);
  MemoryChannel channel;
  EXPECT_EQ(WriteParamList(*list, channel, nullptr), 8);
  EXPECT_EQ(ToHex(channel.Written()), "03 61 00 02 01 00 00 00");
  EXPECT_EQ(channel.WriteSizes(), Sizes{8});
}

TEST(ListStream, EmptyListIsNothing) {
  const ListRef list = FastHolderImpl::Create();
  MemoryChannel channel;
  EXPECT_EQ(WriteParamList(*list, channel, nullptr), 0);
  EXPECT_TRUE(channel.Written().empty());
  EXPECT_EQ(DescriptorOf(*list).blockSize, 0u);
  EXPECT_EQ(DescriptorOf(*list).handleCount, 0u);
}

TEST(ListStream, ObligationOfTheCallerFollowsTheBlock) {
  const ListRef list = MakeList("a", 1);
  MemoryChannel channel;
  const ListDescriptor next{0x01020304, 5};
  EXPECT_EQ(WriteParamList(*list, channel, &next), 16);
  EXPECT_EQ(ToHex(channel.Written()), "03 61 00 02 01 00 00 00 04 03 02 01 05 00 00 00");
  EXPECT_EQ(channel.WriteSizes(), (Sizes{8, 8}));
}

TEST(ListStream, OneNestedListIsBlockDescriptorBlock) {
  const ListRef list = FastHolderImpl::Create();
  Nest(list, "c", MakeList("a", 1));
  MemoryChannel channel;
  EXPECT_EQ(WriteParamList(*list, channel, nullptr), 24);
  EXPECT_EQ(ToHex(channel.Written()),
            "03 63 00 04 00 00 00 00 "
            "08 00 00 00 00 00 00 00 "
            "03 61 00 02 01 00 00 00");
  EXPECT_EQ(channel.WriteSizes(), (Sizes{8, 8, 8}));
}

TEST(ListStream, NestedEmptyListEndsWithItsDescriptor) {
  const ListRef list = FastHolderImpl::Create();
  Nest(list, "c", FastHolderImpl::Create());
  MemoryChannel channel;
  EXPECT_EQ(WriteParamList(*list, channel, nullptr), 16);
  EXPECT_EQ(ToHex(channel.Written()), "03 63 00 04 00 00 00 00 00 00 00 00 00 00 00 00");
}

TEST(ListStream, TreeGoesOutInDepthFirstOrder) {
  const ListRef list = Tree();
  MemoryChannel channel;
  const int32_t total = WriteParamList(*list, channel, nullptr);
  EXPECT_EQ(ToHex(channel.Written()),
            // L: l = 1, c1 is list 0, c2 is list 1
            "03 6c 00 02 01 00 00 00 "
            "07 63 31 00 00 00 00 04 00 00 00 00 "
            "07 63 32 00 00 00 00 04 01 00 00 00 "
            // C1 has 20 bytes and one nested list
            "14 00 00 00 01 00 00 00 "
            "03 64 00 04 00 00 00 00 "
            "07 63 31 00 00 00 00 02 02 00 00 00 "
            // D
            "08 00 00 00 00 00 00 00 "
            "03 64 00 02 04 00 00 00 "
            // C2
            "0c 00 00 00 00 00 00 00 "
            "07 63 32 00 00 00 00 01 78 00 00 00");
  EXPECT_EQ(total, static_cast<int32_t>(channel.Written().size()));
  EXPECT_EQ(channel.Written(), RawTree().Stream());
  EXPECT_EQ(channel.WriteSizes(), (Sizes{32, 8, 20, 8, 8, 8, 12}));
}

TEST(ListStream, LastNestedListInheritsTheObligation) {
  const ListRef list = Tree();
  MemoryChannel channel;
  const ListDescriptor next{7, 9};
  const int32_t total = WriteParamList(*list, channel, &next);
  EXPECT_EQ(channel.Written(), Concat({RawTree().Stream(), U32(7), U32(9)}));
  EXPECT_EQ(total, static_cast<int32_t>(channel.Written().size()));
}

TEST(ListStream, WritingChangesNothingInTheList) {
  const ListRef list = Tree();
  MemoryChannel once;
  MemoryChannel twice;
  (void)WriteParamList(*list, once, nullptr);
  (void)WriteParamList(*list, twice, nullptr);
  EXPECT_EQ(once.Written(), twice.Written());
  EXPECT_EQ(list->ParamCount(), 3u);
  ExpectEqual(*list, RawTree());
}

TEST(ListStream, ListThatIsNestedTwiceIsWrittenTwice) {
  const ListRef shared = MakeList("a", 1);
  const ListRef list = FastHolderImpl::Create();
  Nest(list, "x", shared);
  Nest(list, "y", shared);
  MemoryChannel channel;
  (void)WriteParamList(*list, channel, nullptr);
  const RawList child = RawList().Int32("a", 1);
  EXPECT_EQ(channel.Written(), RawList().Handle("x", child).Handle("y", child).Stream());
}

// The tree takes seven writes. The first block's result comes back as it is; whatever fails behind
// it is -1, but the first descriptor too.
TEST(ListStream, EveryFailedWriteEndsTheWritingThere) {
  const ListRef list = Tree();
  for (size_t failing = 1; failing <= 7; ++failing) {
    MemoryChannel channel;
    channel.FailOperation(failing, -7);
    EXPECT_EQ(WriteParamList(*list, channel, nullptr), failing == 1 ? -7 : -1) << failing;
    EXPECT_EQ(channel.WriteSizes().size(), failing) << "nothing follows a failure";
    const Bytes all = RawTree().Stream();
    EXPECT_EQ(channel.Written(), Prefix(all, channel.Written().size()));
  }
}

TEST(ListStream, FailedWriteOfALoneBlockGivesTheChannelsResult) {
  const ListRef list = MakeList("a", 1);
  MemoryChannel channel;
  channel.FailOperation(1, -7);
  EXPECT_EQ(WriteParamList(*list, channel, nullptr), -7);
}

// ---- reading -----------------------------------------------------------------------------------

TEST(ListStream, BlockIsReadInOneReadOfItsSize) {
  const RawList raw = RawList().Int32("a", 1).String("ab", "hello");
  const ReadResult read(raw);
  EXPECT_EQ(read.total, static_cast<int32_t>(raw.BlockSize()));
  EXPECT_EQ(read.channel.ReadSizes(), Sizes{raw.BlockSize()});
  EXPECT_EQ(read.channel.ReadFlags(), std::vector<const detail::StopFlag*>{nullptr});
  EXPECT_EQ(read.list->ParamCount(), 2u);
  EXPECT_EQ(TQGetInt32Value(HandleOf(read.list), "a"), 1u);
  EXPECT_STREQ(TQGetStringValue(HandleOf(read.list), "ab"), "hello");
}

TEST(ListStream, EmptyListReadsNothing) {
  const ReadResult read({}, {0, 0});
  EXPECT_EQ(read.total, 0);
  EXPECT_EQ(read.list->ParamCount(), 0u);
  EXPECT_EQ(read.list->BlockSize(), 0u);
}

TEST(ListStream, OneNestedListIsRead) {
  const ReadResult read(RawList().Handle("c", RawList().Int32("a", 1)));
  EXPECT_EQ(read.total, 24);
  EXPECT_EQ(read.channel.ReadSizes(), (Sizes{16, 8}));
  EXPECT_EQ(read.list->BlockSize(), 8u) << "the descriptor is cut off again";
  const ListRef nested = NestedOf(read.list, "c");
  EXPECT_EQ(TQGetInt32Value(HandleOf(nested), "a"), 1u);
  EXPECT_EQ(TQGetParamCount(HandleOf(nested)), 1u);
}

TEST(ListStream, NestedEmptyListIsRead) {
  const ReadResult read(RawList().Handle("c", RawList()));
  EXPECT_EQ(read.total, 16);
  EXPECT_EQ(read.channel.Remaining(), 0u);
  ASSERT_EQ(read.list->Handles().Size(), 1u);
  EXPECT_EQ(read.list->Handles()[0]->BlockSize(), 0u);
  EXPECT_TRUE(NestedOf(read.list, "c"));
}

TEST(ListStream, TreeIsReadInVectorOrderAtEveryDepth) {
  const ReadResult read(RawTree());
  EXPECT_EQ(read.total, static_cast<int32_t>(RawTree().Stream().size()));
  EXPECT_EQ(read.channel.Remaining(), 0u);
  EXPECT_EQ(read.channel.ReadSizes(), (Sizes{40, 28, 16, 12}));
  ExpectEqual(*read.list, RawTree());
  const ListRef c1 = NestedOf(read.list, "c1");
  EXPECT_EQ(TQGetInt32Value(HandleOf(c1), "c1"), 2u);
  EXPECT_EQ(TQGetInt32Value(HandleOf(NestedOf(c1, "d")), "d"), 4u);
  EXPECT_STREQ(TQGetStringValue(HandleOf(NestedOf(read.list, "c2")), "c2"), "x");
  EXPECT_EQ(TQGetParamCount(HandleOf(read.list)), 3u);
}

TEST(ListStream, DescriptorBehindTheTreeGoesToTheCaller) {
  const RawList flat = RawList().Int32("a", 1);
  const ReadResult one(Concat({flat.Stream(), U32(11), U32(12)}), DescriptorOfRaw(flat), true);
  EXPECT_EQ(one.total, 16);
  EXPECT_EQ(one.next.blockSize, 11u);
  EXPECT_EQ(one.next.handleCount, 12u);
  EXPECT_EQ(one.channel.ReadSizes(), Sizes{16});
  EXPECT_EQ(one.list->BlockSize(), 8u) << "a block of exactly 8 bytes keeps all of them";
  EXPECT_EQ(TQGetInt32Value(HandleOf(one.list), "a"), 1u);

  const ReadResult tree(Concat({RawTree().Stream(), U32(13), U32(14)}), DescriptorOfRaw(RawTree()),
                        true);
  EXPECT_EQ(tree.total, static_cast<int32_t>(RawTree().Stream().size()) + 8);
  EXPECT_EQ(tree.next.blockSize, 13u);
  EXPECT_EQ(tree.next.handleCount, 14u);
  ExpectEqual(*tree.list, RawTree());
}

TEST(ListStream, EmptyBlockWithADescriptorIsReadAndCutToNothing) {
  const ReadResult read(Concat({U32(3), U32(4)}), {0, 0}, true);
  EXPECT_EQ(read.total, 8);
  EXPECT_EQ(read.next.blockSize, 3u);
  EXPECT_EQ(read.next.handleCount, 4u);
  EXPECT_EQ(read.list->BlockSize(), 0u);
  EXPECT_EQ(read.list->ParamCount(), 0u);
}

TEST(ListStream, ListsThatNoValueNamesTravelLikeAnyOther) {
  const RawList raw = RawList().Child(RawList().Int32("a", 1)).Child(RawList());
  const ReadResult read(raw);
  EXPECT_EQ(read.total, static_cast<int32_t>(raw.Stream().size()));
  ExpectEqual(*read.list, raw);
  MemoryChannel channel;
  (void)WriteParamList(*read.list, channel, nullptr);
  EXPECT_EQ(channel.Written(), raw.Stream());
}

TEST(ListStream, EveryTypeSurvivesTheRoundTrip) {
  const RawList child = RawList().Int64("n", 0x0102030405060708);
  const RawList raw = RawList()
                          .String("s", "text")
                          .String("", "no name")
                          .Int32("i", 7)
                          .Int64("q", 8)
                          .Binary("b", Pattern(13))
                          .Binary("b0", {})
                          .NoHandle("none")
                          .StringArray("sa", {"a", "", "bcd"})
                          .Int32Array("ia", {1, 2, 3})
                          .Int64Array("qa", {4, 5})
                          .BinaryArray("ba", {{1, 2, 3}, {}, Pattern(9)})
                          .HandleArray("ha", {child, RawList(), child})
                          .Handle("h", child)
                          .StringArray("sa0", {});
  const ReadResult read(raw);
  EXPECT_EQ(read.total, static_cast<int32_t>(raw.Stream().size()));
  EXPECT_EQ(read.list->ParamCount(), 14u);
  ExpectEqual(*read.list, raw);
  MemoryChannel channel;
  EXPECT_EQ(WriteParamList(*read.list, channel, nullptr), read.total);
  EXPECT_TRUE(channel.Written() == raw.Stream());
}

TEST(ListStream, WideTreesSurviveTheRoundTrip) {
  RawList raw;
  for (uint32_t i = 0; i < 300; ++i) {
    RawList child = RawList().Int32("i", i);
    if (i % 3 == 0) child.Handle("x", RawList().Int32("deep", i)).Handle("y", RawList());
    raw.Handle("h" + std::to_string(i), child);
  }
  const ReadResult read(raw);
  EXPECT_EQ(read.total, static_cast<int32_t>(raw.Stream().size()));
  ExpectEqual(*read.list, raw);
  for (const uint32_t i : {0u, 1u, 150u, 299u}) {
    const ListRef nested = NestedOf(read.list, ("h" + std::to_string(i)).c_str());
    EXPECT_EQ(TQGetInt32Value(HandleOf(nested), "i"), i);
  }
}

// The total is that of the block, so what was there before counts. Its entry is counted again: the
// reader adds the whole block's entries to what the list had.
TEST(ListStream, ReaderAppendsToABlockThatIsThere) {
  const ListRef list = MakeList("a", 1);
  MemoryChannel channel(RawList().Int32("b", 2).Stream());
  EXPECT_EQ(ReadParamList(*list, channel, {8, 0}, nullptr), 16);
  EXPECT_EQ(list->ParamCount(), 3u);
  EXPECT_EQ(TQGetInt32Value(HandleOf(list), "a"), 1u);
  EXPECT_EQ(TQGetInt32Value(HandleOf(list), "b"), 2u);
}

// Nothing limits how many lists a list may hold; eight bytes announce an empty one.
TEST(ListStream, TwoHundredThousandEmptyNestedListsAreRead) {
  constexpr uint32_t COUNT = 200000;
  const Bytes stream = Concat({RawList().HandleIndex("last", COUNT - 1).Block(), Bytes(8 * COUNT)});
  const uint32_t before = DEBUG_TQObjectCount().paramLists;
  {
    const ReadResult read(stream, {12, COUNT});
    EXPECT_EQ(read.total, static_cast<int32_t>(stream.size()));
    EXPECT_EQ(read.channel.Remaining(), 0u);
    ASSERT_EQ(read.list->Handles().Size(), COUNT);
    EXPECT_EQ(DEBUG_TQObjectCount().paramLists, before + 1 + COUNT);
    const ListRef last = NestedOf(read.list, "last");
    ASSERT_TRUE(last);
    EXPECT_EQ(last.Get(), read.list->Handles()[COUNT - 1].Get());
    EXPECT_EQ(last->BlockSize(), 0u);
    MemoryChannel channel;
    EXPECT_EQ(WriteParamList(*read.list, channel, nullptr), read.total);
    EXPECT_TRUE(channel.Written() == stream);
  }
  EXPECT_EQ(DEBUG_TQObjectCount().paramLists, before);
}

TEST(ListStream, NestedListsAreReferencedByTheirSlotsAlone) {
  const uint32_t before = DEBUG_TQObjectCount().paramLists;
  {
    const ReadResult read(RawTree());
    EXPECT_EQ(DEBUG_TQObjectCount().paramLists, before + 4);
  }
  EXPECT_EQ(DEBUG_TQObjectCount().paramLists, before);
}

// ---- what a reader lets through ----------------------------------------------------------------

TEST(ListStream, IndexAboveTheHandleCountSurvivesAndNamesNoList) {
  const RawList raw = RawList()
                          .Handle("good", RawList())
                          .HandleIndex("bad", 1)
                          .HandleIndex("worse", 0xFFFFFFFE)
                          .HandleIndexArray("array", {0, 5, 0xFFFFFFFF});
  const ReadResult read(raw);
  ASSERT_GT(read.total, 0);
  EXPECT_TRUE(NestedOf(read.list, "good"));
  EXPECT_FALSE(NestedOf(read.list, "bad"));
  EXPECT_FALSE(NestedOf(read.list, "worse"));
}

TEST(ListStream, OfTwoEntriesOfOneNameTheFirstIsFound) {
  const ReadResult read(RawList().Int32("a", 1).Int32("a", 2));
  EXPECT_EQ(read.total, 16);
  EXPECT_EQ(TQGetParamCount(HandleOf(read.list)), 2u);
  EXPECT_EQ(TQGetInt32Value(HandleOf(read.list), "a"), 1u);
}

TEST(ListStream, OnlyTheLastOffsetOfAnArrayIsLookedAt) {
  // Two strings, of which the first one's offset points far away.
  const RawList raw = RawList().StringArray("s", {"a", "b"}).Patch(8, U32(0x7FFFFFFF));
  EXPECT_GT(ReadResult(raw).total, 0);
}

// ---- damage ------------------------------------------------------------------------------------

struct Damage {
  const char* name;
  RawList list;
};

std::vector<Damage> Damages() {
  return {
      {"type 0", RawList().Entry("a", 0, U32(1))},
      {"type 6", RawList().Entry("a", 6, U32(1))},
      {"type 0x80", RawList().Entry("a", 0x80, U32(1))},
      {"type 0x86", RawList().Entry("a", 0x86, U32(1))},
      {"type 0xff behind a good entry", RawList().Int32("x", 1).Entry("a", 0xFF, U32(1))},
      {"cut integer", RawList().Int32("a", 1).Truncate(7)},
      {"cut long integer", RawList().Int64("a", 1).Truncate(8)},
      {"cut index", RawList().NoHandle("a").Truncate(6)},
      {"text without an end", RawList().Entry("a", 1, Filled(4, 'x'))},
      {"cut text", RawList().String("a", "hello").Truncate(10)},
      {"binary beyond the end", RawList().Entry("a", 5, U32(100))},
      {"binary of four gigabytes", RawList().Entry("a", 5, U32(0xFFFFFFFF))},
      {"binary without its length", RawList().Entry("a", 5, {})},
      {"array beyond the end", RawList().Entry("a", 0x82, Concat({U32(3), U32(1)}))},
      {"array count that wraps", RawList().Entry("a", 0x82, Concat({U32(0x40000000), U32(1)}))},
      {"long array count that wraps", RawList().Entry("a", 0x83, U32(0x20000000))},
      {"handle array beyond the end", RawList().Entry("a", 0x84, U32(2))},
      {"string table beyond the end", RawList().Entry("a", 0x81, Concat({U32(9), U32(0)}))},
      {"last string beyond the end",
       RawList().Entry("a", 0x81, Concat({U32(1), U32(0x100), Filled(4, 0)}))},
      {"last item beyond the end", RawList().Entry("a", 0x85, Concat({U32(1), U32(0x100)}))},
      {"last item longer than the block",
       RawList().Entry("a", 0x85, Concat({U32(1), U32(0), U32(0x1000)}))},
      {"value offset beyond the end", RawList().Int32("a", 1).Patch(0, {0xFF})},
      {"value offset at the end", RawList().Int32("a", 1).Patch(0, {8})},
      {"lone byte", RawList().Raw({0x03})},
  };
}

TEST(ListStream, DamagedBlocksAreNotRead) {
  for (const Damage& damage : Damages()) {
    EXPECT_EQ(ReadResult(damage.list).total, -1) << damage.name;
  }
}

// A parent never gets to counting its own entries.
TEST(ListStream, DamageInANestedListEndsTheReading) {
  for (const Damage& damage : Damages()) {
    const ReadResult last(RawList().Int32("x", 1).Handle("c", damage.list));
    EXPECT_EQ(last.total, -1) << damage.name;
    EXPECT_EQ(last.list->ParamCount(), 0u) << damage.name;
    const ReadResult first(RawList().Handle("c", damage.list).Handle("d", RawList().Int32("a", 1)));
    EXPECT_EQ(first.total, -1) << damage.name;
    EXPECT_EQ(first.list->ParamCount(), 0u) << damage.name;
  }
}

TEST(ListStream, DamageInAParentIsFoundBehindItsGoodNestedLists) {
  const RawList raw = RawList().Child(RawList().Int32("a", 1)).Entry("x", 6, U32(1));
  const ReadResult read(raw);
  EXPECT_EQ(read.total, -1);
  EXPECT_EQ(read.channel.Remaining(), 0u);
}

// What was read stays where it is: the nested lists in their slots, and behind the parent's block
// the descriptor of the first of them, which is cut off only after the last.
TEST(ListStream, DamageInANestedListLeavesWhatWasReadBeforeIt) {
  const RawList good = RawList().Int32("x", 7).String("text", "whole");
  const RawList damaged = RawList().Int32("y", 8).Entry("z", 6, U32(1));
  const RawList raw = RawList().Handle("a", good).Handle("b", damaged);
  const ReadResult read(raw);
  EXPECT_EQ(read.total, -1);

  EXPECT_EQ(ToHex(BlockOf(*read.list)),
            ToHex(Concat({raw.Block(), U32(good.BlockSize()), U32(good.HandleCount())})));
  EXPECT_EQ(read.list->ParamCount(), 0u) << "nobody has counted the parent's entries";
  ASSERT_EQ(read.list->Handles().Size(), 2u);
  ASSERT_TRUE(read.list->Handles()[0] && read.list->Handles()[1]);

  ExpectEqual(*read.list->Handles()[0], good);
  const ListRef first = NestedOf(read.list, "a");
  EXPECT_EQ(first.Get(), read.list->Handles()[0].Get());
  EXPECT_EQ(TQGetParamCount(HandleOf(first)), 2u);
  EXPECT_EQ(TQGetInt32Value(HandleOf(first), "x"), 7u);
  EXPECT_STREQ(TQGetStringValue(HandleOf(first), "text"), "whole");

  ExpectEqual(*read.list->Handles()[1], damaged);
}

TEST(ListStream, LostChannelLeavesTheListThatItWasReadingAndEmptySlotsBehindIt) {
  const RawList child = RawList().Int32("x", 7);
  const RawList raw = RawList().Child(child).Child(child).Child(child);
  MemoryChannel channel(raw.Stream());
  channel.FailOperation(3);  // the parent, the first child, the second
  const ListRef list = FastHolderImpl::Create();
  EXPECT_EQ(ReadParamList(*list, channel, DescriptorOfRaw(raw), nullptr), -1);
  EXPECT_EQ(ToHex(BlockOf(*list)), ToHex(Concat({U32(child.BlockSize()), U32(0)})));
  ASSERT_EQ(list->Handles().Size(), 3u);
  ASSERT_TRUE(list->Handles()[0] && list->Handles()[1]);
  ExpectEqual(*list->Handles()[0], child);
  EXPECT_EQ(list->Handles()[0]->ParamCount(), 1u);
  EXPECT_EQ(list->Handles()[1]->BlockSize(), 0u);
  EXPECT_FALSE(list->Handles()[2]);
}

TEST(ListStream, StreamCutAtAnyByteIsNotRead) {
  const RawList raw = RawTree().HandleArray("more", {RawList(), RawList().Binary("b", Pattern(9))});
  const Bytes whole = raw.Stream();
  ASSERT_EQ(ReadResult(whole, DescriptorOfRaw(raw)).total, static_cast<int32_t>(whole.size()));
  for (size_t size = 0; size < whole.size(); ++size) {
    EXPECT_EQ(ReadResult(Prefix(whole, size), DescriptorOfRaw(raw)).total, -1) << size;
  }
}

TEST(ListStream, EveryFailedReadEndsTheReadingThere) {
  for (size_t failing = 1; failing <= 4; ++failing) {
    MemoryChannel channel(RawTree().Stream());
    channel.FailOperation(failing, -9);
    const ListRef list = FastHolderImpl::Create();
    EXPECT_EQ(ReadParamList(*list, channel, DescriptorOfRaw(RawTree()), nullptr), -1) << failing;
    EXPECT_EQ(channel.ReadSizes().size(), failing);
  }
}

// Random bytes behind a head that announces them. Any outcome but a crash is good.
TEST(ListStream, RandomBlocksLeaveTheProcessWhole) {
  for (uint32_t seed = 1; seed <= 3000; ++seed) {
    Bytes block = Pattern(4 + seed % 60, seed);
    block[0] = static_cast<uint8_t>(3 + seed % 8);
    const uint32_t size = static_cast<uint32_t>(block.size());
    Append(block, Concat({U32(0), U32(0)}));
    const ReadResult read(block, {size, seed % 2});
    EXPECT_TRUE(read.total == -1 || read.total > 0);
  }
}

// ---- sizes near the top ------------------------------------------------------------------------

TEST(ListStream, SizesThatWrapAreAFailedRead) {
  for (uint32_t size = 0xFFFFFFF8; size != 0; ++size) {
    const Bytes plenty(64);
    const ReadResult withNested(plenty, {size, 1});
    EXPECT_EQ(withNested.total, -1) << size;
    EXPECT_EQ(withNested.channel.ReadSizes(), Sizes{size + 8}) << "the sum wraps to a short read";
    const ReadResult withDescriptor(plenty, {size, 0}, true);
    EXPECT_EQ(withDescriptor.total, -1) << size;
  }
}

TEST(ListStream, SizesThatWrapInANestedListAreAFailedRead) {
  for (uint32_t size = 0xFFFFFFF8; size != 0; ++size) {
    // Two nested lists: the first has a descriptor behind it.
    const Bytes two = Concat({U32(size), U32(0), Bytes(64)});
    EXPECT_EQ(ReadResult(two, {0, 2}).total, -1) << size;
    // One with a list of its own.
    const Bytes one = Concat({U32(size), U32(1), Bytes(64)});
    EXPECT_EQ(ReadResult(one, {0, 1}).total, -1) << size;
  }
}

TEST(ListStream, SizeAboveTheReadLimitFailsWithTheCapacityAlreadyGrown) {
  SetLimits(2000, 64);
  SocketEnds ends;
  ASSERT_TRUE(ends.FarSend(Bytes(200)));
  LogRecorder log;
  const ListRef list = FastHolderImpl::Create();
  EXPECT_EQ(ReadParamList(*list, ends.Channel(), {65, 0}, nullptr), -1);
  EXPECT_EQ(list->BlockCapacity(), 65u);
  EXPECT_EQ(list->BlockSize(), 0u);
  // The descriptor belongs to the same read.
  const ListRef nested = FastHolderImpl::Create();
  EXPECT_EQ(ReadParamList(*nested, ends.Channel(), {57, 1}, nullptr), -1);
  EXPECT_EQ(nested->BlockCapacity(), 65u);
  EXPECT_TRUE(log.Lines().empty()) << log.Dump();
}

TEST(ListStream, FailedReadLeavesTheLargerCapacity) {
  const ReadResult read(Bytes(10), {1000, 0});
  EXPECT_EQ(read.total, -1);
  EXPECT_EQ(read.list->BlockCapacity(), 1000u);
  EXPECT_EQ(read.list->BlockSize(), 0u);
}

// A sanitizer needs more address space than any limit leaves, and pays for large blocks.
bool RunsUnderASanitizer() { return !LimitAddressSpace(uint64_t{1} << 45); }

TQ_TEST_ROLE(announceALargeBlock) {
  const bool limited = LimitAddressSpace(uint64_t{1} << 30);
  const ReadResult read(Bytes(10), {0xFFFFFFF0, 0});
  EXPECT_EQ(read.total, -1);
  if (limited) {
    EXPECT_EQ(read.list->BlockCapacity(), 0u);
    EXPECT_TRUE(read.channel.ReadSizes().empty());
  }
  Say("done");
  return 0;
}

TEST(ListStream, BlockThatCannotBeGrownIsAFailedReadAndKeepsItsCapacity) {
  ChildProcess child("announceALargeBlock");
  EXPECT_TRUE(child.ExpectLine("done"));
  EXPECT_TRUE(child.ExpectSuccess());
}

TQ_TEST_ROLE(announceManyLists) {
  const uint32_t count = RunsUnderASanitizer() ? 0x00040000 : 0x40000000;
  const uint64_t before = ResidentBytes();
  const Bytes stream = Concat({RawList().Int32("a", 1).Block(), U32(100), U32(0)});
  {
    const ReadResult read(stream, {8, count});
    EXPECT_EQ(read.total, -1);
    if (!RunsUnderASanitizer()) {
      EXPECT_LT(ResidentBytes(), before + (uint64_t{32} << 20));
    }
  }
  EXPECT_EQ(DEBUG_TQObjectCount().paramLists, 0u);
  Say("done");
  return 0;
}

TEST(ListStream, AnnouncedListsThatNeverComeCostNoMemory) {
  ChildProcess child("announceManyLists");
  EXPECT_TRUE(child.ExpectLine("done"));
  EXPECT_TRUE(child.ExpectSuccess());
}

TQ_TEST_ROLE(announceMoreListsThanMemory) {
  const bool limited = LimitAddressSpace(uint64_t{1} << 30);
  const uint32_t count = limited ? 0xFFFFFFFF : 0x00010000;
  const ReadResult read(Concat({RawList().Int32("a", 1).Block(), U32(0), U32(0)}), {8, count});
  // The lists are empty and need no further byte, but for their descriptors.
  EXPECT_EQ(read.total, -1);
  if (limited) {
    EXPECT_EQ(read.list->Handles().Size(), 0u);
  }
  Say("done");
  return 0;
}

TEST(ListStream, SlotsThatCannotBeHadAreAFailedRead) {
  ChildProcess child("announceMoreListsThanMemory");
  EXPECT_TRUE(child.ExpectLine("done"));
  EXPECT_TRUE(child.ExpectSuccess());
}

// ---- depth -------------------------------------------------------------------------------------

// The stream of `depth` lists, each inside the one before it and holding nothing else.
Bytes DeepStream(uint32_t depth) {
  const Bytes block = RawList().HandleIndex("c", 0).Block();
  const auto size = static_cast<uint32_t>(block.size());
  Bytes stream;
  for (uint32_t i = 0; i < depth; ++i) {
    const bool last = i + 1 == depth;
    Append(stream, Concat({block, U32(last ? 0 : size), U32(last ? 0 : 1)}));
  }
  return stream;
}

TEST(ListStream, AThousandLevelsAreReadAndWritten) {
  const Bytes stream = DeepStream(1000);
  const ReadResult read(stream, {8, 1});
  ASSERT_EQ(read.total, static_cast<int32_t>(stream.size()));
  const FastHolderImpl* list = read.list.Get();
  uint32_t levels = 0;
  for (; list->Handles().Size() != 0; list = list->Handles()[0].Get()) ++levels;
  EXPECT_EQ(levels, 1000u);
  EXPECT_EQ(list->BlockSize(), 0u);
  MemoryChannel channel;
  EXPECT_EQ(WriteParamList(*read.list, channel, nullptr), read.total);
  EXPECT_TRUE(channel.Written() == stream);
}

// Gives out nested lists for ever, each in one read with the descriptor of the next, and takes as
// many, each in two writes.
class BottomlessChannel final : public ITransportChannel {
 public:
  bool CheckValid() const override { return true; }
  int32_t Receive(void* buffer, uint32_t length, const detail::StopFlag* /*flag*/) override {
    const Bytes level = Concat({RawList().HandleIndex("c", 0).Block(), U32(8), U32(1)});
    if (length != level.size()) return -1;
    std::copy(level.begin(), level.end(), static_cast<uint8_t*>(buffer));
    if (++levels % 100 == 0) Say("level " + std::to_string(levels));
    return static_cast<int32_t>(length);
  }
  int32_t Receive(void* buffer, uint32_t length) override {
    return Receive(buffer, length, nullptr);
  }
  int32_t Send(const void* /*buffer*/, uint32_t length) override {
    if (++writes % 200 == 0) Say("level " + std::to_string(writes / 2));
    return static_cast<int32_t>(length);
  }
  std::string GetRemoteAddress() const override { return ""; }
  std::string GetLocalAddress() const override { return ""; }
  int32_t WaitForData(uint32_t /*timeoutMs*/) override { return 1; }
  int32_t WaitForData() override { return 1; }
  void Wakeup() override {}

 private:
  uint32_t levels = 0;
  uint32_t writes = 0;
};

// The end of the stack is to end this process, and no sanitizer's report of it is wanted.
void LetASmallStackEndTheProcess() {
  std::signal(SIGSEGV, SIG_DFL);
  EXPECT_TRUE(LimitStack(uint64_t{512} << 10));
}

// The role's process went down the levels, and came to its end before it came back with a result.
void ExpectTheStackToEndIt(ChildProcess& child) {
  const auto status = child.Wait(std::chrono::milliseconds{40000});
  ASSERT_TRUE(status);
  EXPECT_FALSE(status->Succeeded()) << *status;
  uint32_t levels = 0;
  for (const std::string& line : child.ReadRemainingLines()) {
    EXPECT_NE(line.rfind("result ", 0), 0u) << line;
    if (line.rfind("level ", 0) == 0) ++levels;
  }
  EXPECT_GE(levels, 5u) << "at least five hundred levels";
}

TQ_TEST_ROLE(readBottomlessStream) {
  LetASmallStackEndTheProcess();
  BottomlessChannel channel;
  const ListRef list = FastHolderImpl::Create();
  const int32_t result = ReadParamList(*list, channel, {8, 1}, nullptr);
  Say("result " + std::to_string(result));
  return 0;
}

// Required: nothing but the stack limits the depth, so a peer can end the process by it.
TEST(ListStream, DepthIsLimitedByTheStackAlone) {
  ChildProcess child("readBottomlessStream", {}, ErrorOutput::MERGED);
  ExpectTheStackToEndIt(child);
}

TQ_TEST_ROLE(writeAListThatHoldsItself) {
  LetASmallStackEndTheProcess();
  BottomlessChannel channel;
  const ListRef list = FastHolderImpl::Create();
  Nest(list, "c", list);
  const int32_t result = WriteParamList(*list, channel, nullptr);
  Say("result " + std::to_string(result));
  return 0;
}

// Required: a list may be stored in itself, nothing looks for that, and the writer never ends.
TEST(ListStream, ListThatHoldsItselfIsWrittenUntilTheStackEnds) {
  ChildProcess child("writeAListThatHoldsItself", {}, ErrorOutput::MERGED);
  ExpectTheStackToEndIt(child);
}

}  // namespace
}  // namespace TQ::test
