#include "params/dump.h"

#include "support/child_process.h"
#include "support/host_conditions.h"
#include "support/log_recorder.h"
#include "support/param_lists.h"

#include <tq/tq.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <iomanip>
#include <iostream>
#include <locale>
#include <mutex>
#include <ostream>
#include <set>
#include <sstream>
#include <streambuf>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace TQ::test {
namespace {

using Damaged = _tag_TQPARAMVALUE::DataDamaged;
using NoData = TQMemoryBufferTpl2<0>::NoDataExeption;

constexpr _tag_HTQPARAMLIST NO_LIST = {nullptr};

/// The entries of a list alone.
std::string Entries(_tag_HTQPARAMLIST list, bool withTypes = true, int32_t depth = 0) {
  std::ostringstream stream;
  PrintHandleInfoRecurse(stream, list, withTypes, depth);
  return stream.str();
}

std::string EntriesOf(const RawList& raw, bool withTypes = true) {
  return Entries(ReceivedList(raw), withTypes);
}

/// What is left in the stream by a dump of the block that raises `Error`.
template <typename Error>
std::string PartialEntries(const Bytes& block) {
  const OwnedList list = ListOfBlock(block);
  std::ostringstream stream;
  EXPECT_THROW(PrintHandleInfoRecurse(stream, list, true, 0), Error);
  return stream.str();
}

std::string AddressOf(_tag_HTQPARAMLIST list) {
  std::ostringstream stream;
  stream << static_cast<const void*>(list.impl);
  return stream.str();
}

/// A whole dump with this between its first line and its last.
std::string Framed(_tag_HTQPARAMLIST list, const std::string& entries) {
  return "=====[" + AddressOf(list) + "]\n" + entries + std::string(33, '=') + "\n";
}

/// PrintHandleInfoToBuffer into exactly `size` bytes, as text up to the first zero.
std::string Buffered(_tag_HTQPARAMLIST list, bool withTypes = true, uint32_t size = 4096) {
  std::vector<char> memory(size, 'x');
  PrintHandleInfoToBuffer(list, withTypes, memory.data(), size);
  EXPECT_EQ(memory.back(), '\0');
  return std::string(memory.data());
}

/// Keeps what is written, and how often it was flushed. Gives the processor away at each write, so
/// that writers which do not exclude each other get mixed.
class Recorder final : public std::streambuf {
 public:
  std::string Text() const {
    const std::lock_guard<std::mutex> held(lock);
    return text;
  }
  int Flushes() const {
    const std::lock_guard<std::mutex> held(lock);
    return flushes;
  }

 protected:
  int_type overflow(int_type character) override {
    const char one = traits_type::to_char_type(character);
    xsputn(&one, 1);
    return character;
  }
  std::streamsize xsputn(const char* characters, std::streamsize count) override {
    {
      const std::lock_guard<std::mutex> held(lock);
      text.append(characters, static_cast<size_t>(count));
    }
    std::this_thread::yield();
    return count;
  }
  int sync() override {
    const std::lock_guard<std::mutex> held(lock);
    ++flushes;
    return 0;
  }

 private:
  mutable std::mutex lock;
  std::string text;
  int flushes = 0;
};

/// Puts the standard error stream's output into another buffer for a scope, and the stream back to
/// decimal and to its locale.
class ErrorStreamInto final {
 public:
  explicit ErrorStreamInto(std::streambuf* buffer)
      : former(std::cerr.rdbuf(buffer)), formerLocale(std::cerr.getloc()) {}
  ~ErrorStreamInto() {
    std::cerr.rdbuf(former);
    std::cerr.imbue(formerLocale);
    std::cerr << std::dec;
  }
  ErrorStreamInto(const ErrorStreamInto&) = delete;
  ErrorStreamInto& operator=(const ErrorStreamInto&) = delete;

 private:
  std::streambuf* const former;
  const std::locale formerLocale;
};

/// Digits in groups of three, as many a host's locale has them.
class Grouping final : public std::numpunct<char> {
 protected:
  char do_thousands_sep() const override { return '.'; }
  std::string do_grouping() const override { return "\3"; }
};

std::locale GroupingLocale() { return {std::locale::classic(), new Grouping}; }

// ---- the lines around a dump --------------------------------------------------------------------

TEST(Dump, OfTheNullHandleIsTheTwoLinesAround) {
  EXPECT_EQ(Buffered(NO_LIST), "=====[0]\n=================================\n");
  EXPECT_EQ(Entries(NO_LIST), "");
}

TEST(Dump, OfAnEmptyListIsTheTwoLinesWithItsAddress) {
  for (const bool onceFilled : {false, true}) {
    const OwnedList list;
    if (onceFilled) TQSetInt32Value(list, "a", 1);
    TQRemoveAllValues(list);
    EXPECT_EQ(Buffered(list), Framed(list, ""));
    EXPECT_EQ(Buffered(list).rfind("=====[0x", 0), 0u);
    EXPECT_EQ(Entries(list), "");
  }
}

TEST(Dump, HasTheEntriesBetweenItsLines) {
  const OwnedList list = ReceivedList(RawList().Int32("a", 1).String("b", "text"));
  EXPECT_EQ(Buffered(list), Framed(list, "a[PT_INT32]=1\nb[PT_STRING]=text\n"));
  EXPECT_EQ(Buffered(list, false), Framed(list, "a=1\nb=text\n"));
}

TEST(Dump, ChangesNothingAndLogsNothing) {
  const LogRecorder log;
  const RawList raw = RawList().Int32("a", 1).Handle("h", RawList().Int32("n", 2));
  const OwnedList list = ReceivedList(raw);
  (void)Buffered(list);
  EXPECT_EQ(RawOf(list), raw);
  EXPECT_EQ(ListsAlive(), 2u);
  EXPECT_TRUE(log.Lines().empty());
}

// ---- single values ------------------------------------------------------------------------------

TEST(Dump, LabelsEachSingleValueWithItsTypeOrNot) {
  struct Case {
    RawList list;
    std::string withTypes, withoutTypes;
  };
  const std::vector<Case> cases = {
      {RawList().String("a", "x y"), "a[PT_STRING]=x y\n", "a=x y\n"},
      {RawList().String("a", ""), "a[PT_STRING]=\n", "a=\n"},
      {RawList().String("a", "two\nlines"), "a[PT_STRING]=two\nlines\n", "a=two\nlines\n"},
      {RawList().Int32("a", 0), "a[PT_INT32]=0\n", "a=0\n"},
      {RawList().Int32("a", 0xFFFFFFFF), "a[PT_INT32]=4294967295\n", "a=4294967295\n"},
      {RawList().Int64("a", 0xFFFFFFFFFFFFFFFF), "a[PT_INT64]=18446744073709551615\n",
       "a=18446744073709551615\n"},
      {RawList().Binary("a", {0, 10, 255}), "a[PT_BINARY]= 0 aff\n", "a= 0 aff\n"},
      {RawList().Binary("a", {}), "a[PT_BINARY]=\n", "a=\n"},
      {RawList().Handle("a", RawList()), "a[PT_PARAMHANDLE]=\n", "a=\n"},
      {RawList().NoHandle("a"), "a[PT_PARAMHANDLE]=\n", "a=\n"},
      {RawList().String("", "unnamed"), "[PT_STRING]=unnamed\n", "=unnamed\n"},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(EntriesOf(c.list, true), c.withTypes);
    EXPECT_EQ(EntriesOf(c.list, false), c.withoutTypes);
  }
}

TEST(Dump, HasEveryEntryInTheOrderOfTheList) {
  EXPECT_EQ(EntriesOf(RawList().Int32("b", 1).Int32("a", 2).Int32("b", 3), false),
            "b=1\na=2\nb=3\n");
}

TEST(Dump, IndentsByItsDepth) {
  const OwnedList list = ReceivedList(
      RawList().Int32("a", 1).StringArray("b", {"x"}).Handle("h", RawList().Int32("n", 2)));
  EXPECT_EQ(Entries(list, false, 2), "    a=1\n    b=ARRAY\n      [0]=x\n\n    h=\n      n=2\n");
  EXPECT_EQ(Entries(list, false, -3), "a=1\nb=ARRAY\n[0]=x\n\nh=\nn=2\n");
}

// ---- arrays -------------------------------------------------------------------------------------

TEST(Dump, HasAnEmptyLineBehindEachTextAndNumberOfAnArray) {
  const RawList list = RawList()
                           .StringArray("s", {"x", "", "y"})
                           .Int32Array("i", {5, 0xFFFFFFFF})
                           .Int64Array("q", {0xFFFFFFFFFFFFFFFF, 1});
  const std::string expected =
      "s=ARRAY\n  [0]=x\n\n  [1]=\n\n  [2]=y\n\n"
      "i=ARRAY\n  [0]=5\n\n  [1]=4294967295\n\n"
      "q=ARRAY\n  [0]=18446744073709551615\n\n  [1]=1\n\n";
  EXPECT_EQ(EntriesOf(list, true), expected);
  EXPECT_EQ(EntriesOf(list, false), expected) << "arrays look the same without types";
}

TEST(Dump, OfANumberAndAnArrayIsFourLines) {
  EXPECT_EQ(EntriesOf(RawList().Int32("a", 5).StringArray("b", {"x"})),
            "a[PT_INT32]=5\nb=ARRAY\n  [0]=x\n\n");
}

TEST(Dump, HasNoEmptyLineBehindTheBinariesOfAnArray) {
  EXPECT_EQ(EntriesOf(RawList().BinaryArray("b", {{0, 10, 255}, {}, {1}})),
            "b=ARRAY\n  [0]= 0 aff\n  [1]=\n  [2]= 1\n");
}

TEST(Dump, OfArraysWithoutElementsIsTheirLineAlone) {
  EXPECT_EQ(EntriesOf(RawList()
                          .StringArray("s", {})
                          .Int32Array("i", {})
                          .Int64Array("q", {})
                          .HandleArray("h", {})
                          .BinaryArray("b", {})),
            "s=ARRAY\ni=ARRAY\nq=ARRAY\nh=ARRAY\nb=ARRAY\n");
}

TEST(Dump, TakesElementsWhereAPeersOffsetsSay) {
  // Elements may overlap, stand in any order and lie in the next entry.
  EXPECT_EQ(
      EntriesOf(
          RawList()
              .Entry("s", 0x81, Concat({U32(3), U32(2), U32(8), U32(0), FromHex("61 62 63 00")}))
              .String("t", "peer")
              .Entry("b", 0x85, Concat({U32(2), U32(12), U32(0), U32(1), FromHex("09 00 00 00")}))
              .Binary("v", {5, 6}),
          false),
      "s=ARRAY\n  [0]=c\n\n  [1]=peer\n\n  [2]=abc\n\nt=peer\n"
      "b=ARRAY\n  [0]= 5 6\n  [1]= 9\nv= 5 6\n");
}

// ---- nested lists -------------------------------------------------------------------------------

TEST(Dump, HasANestedListOnItsOwnLinesTwoBlanksDeeper) {
  EXPECT_EQ(EntriesOf(RawList()
                          .Handle("h", RawList().Int32("a", 1).Handle("i", RawList().Int32("b", 2)))
                          .Int32("c", 3)),
            "h[PT_PARAMHANDLE]=\n  a[PT_INT32]=1\n  i[PT_PARAMHANDLE]=\n    b[PT_INT32]=2\n"
            "c[PT_INT32]=3\n");
}

TEST(Dump, StartsANestedListOfAnArrayOnTheLineOfItsItem) {
  EXPECT_EQ(EntriesOf(RawList().HandleArray(
                "h", {RawList().Int32("a", 1).Int32("b", 2), RawList(), RawList().Int32("c", 3)})),
            "h=ARRAY\n  [0]=    a[PT_INT32]=1\n    b[PT_INT32]=2\n\n  [1]=\n"
            "  [2]=    c[PT_INT32]=3\n\n");
}

TEST(Dump, GoesDownThroughArraysInLists) {
  const RawList inner = RawList().HandleArray("deep", {RawList().StringArray("s", {"x"})});
  EXPECT_EQ(EntriesOf(RawList().Handle("h", inner), false),
            "h=\n  deep=ARRAY\n    [0]=      s=ARRAY\n        [0]=x\n\n\n");
}

TEST(Dump, OfAnIndexThatNamesNoListHasNothingForIt) {
  EXPECT_EQ(EntriesOf(RawList()
                          .HandleIndex("a", 1)
                          .NoHandle("b")
                          .HandleIndexArray("c", {RAW_NO_HANDLE, 0, 9})
                          .HandleIndex("d", 0)
                          .Child(RawList().Int32("n", 1)),
                      false),
            "a=\nb=\nc=ARRAY\n  [0]=\n  [1]=    n=1\n\n  [2]=\nd=\n  n=1\n");
}

TEST(Dump, OfASlotWithoutAListHasNothingForIt) {
  const OwnedList list = ListOfBlock(RawList().HandleIndex("a", 0).Block());
  ASSERT_TRUE(list.Impl().Handles().MakeEmptySlots(1));
  EXPECT_EQ(Entries(list), "a[PT_PARAMHANDLE]=\n");
}

TEST(Dump, GoesDownAThousandLevels) {
  _tag_HTQPARAMLIST top = TQCreateParamList();
  for (int i = 0; i < 1000; ++i) {
    const _tag_HTQPARAMLIST parent = TQCreateParamList();
    TQSetHandleValue(parent, "h", top);
    TQCloseHandle(top);
    top = parent;
  }
  const OwnedList owned(top);
  std::string expected;
  for (size_t i = 0; i < 1000; ++i) expected += std::string(2 * i, ' ') + "h=\n";
  EXPECT_EQ(Entries(owned, false), expected);
}

// ---- numbers behind an array of binaries --------------------------------------------------------

TEST(Dump, StaysHexadecimalBehindAnArrayOfBinaries) {
  EXPECT_EQ(EntriesOf(RawList()
                          .Int32("before", 255)
                          .BinaryArray("b", {{171}})
                          .Int32("i", 255)
                          .Int64("q", 0xFFFFFFFFFFFFFFFF)
                          .Int32Array("is", {16})
                          .Int64Array("qs", {17})
                          .Handle("h", RawList().Int32("n", 18)),
                      false),
            "before=255\nb=ARRAY\n  [0]=ab\ni=ff\nq=ffffffffffffffff\n"
            "is=ARRAY\n  [0]=10\n\nqs=ARRAY\n  [0]=11\n\nh=\n  n=12\n");
}

TEST(Dump, NumbersTheElementsBehindTheFirstBinaryInHexadecimal) {
  const OwnedList list = ReceivedList(RawList()
                                          .BinaryArray("b", std::vector<Bytes>(18, {7}))
                                          .StringArray("s", std::vector<std::string>(11, "x")));
  const std::string dump = Entries(list);
  EXPECT_NE(dump.find("  [9]= 7\n  [a]= 7\n"), std::string::npos) << dump;
  EXPECT_NE(dump.find("  [f]= 7\n  [10]= 7\n  [11]= 7\ns=ARRAY\n"), std::string::npos) << dump;
  EXPECT_NE(dump.find("  [9]=x\n\n  [a]=x\n\n"), std::string::npos) << dump;
}

TEST(Dump, NumbersTheElementsInDecimalUntilThereIsAByte) {
  const OwnedList empties = ReceivedList(RawList().BinaryArray("b", std::vector<Bytes>(12)));
  EXPECT_NE(Entries(empties).find("  [10]=\n  [11]=\n"), std::string::npos) << Entries(empties);
  std::vector<Bytes> late(12);
  late[10] = {1};
  const OwnedList list = ReceivedList(RawList().BinaryArray("b", late));
  EXPECT_NE(Entries(list).find("  [10]= 1\n  [b]=\n"), std::string::npos) << Entries(list);
}

TEST(Dump, IsDecimalAgainBehindASingleBinary) {
  EXPECT_EQ(EntriesOf(RawList()
                          .BinaryArray("b", {{1}})
                          .Int32("x", 16)
                          .Binary("single", {10, 11})
                          .Int32("y", 16),
                      false),
            "b=ARRAY\n  [0]= 1\nx=10\nsingle= a b\ny=16\n");
  EXPECT_EQ(EntriesOf(RawList().BinaryArray("b", {{1}}).Binary("empty", {}).Int32("y", 16), false),
            "b=ARRAY\n  [0]= 1\nempty=\ny=16\n");
}

TEST(Dump, CarriesTheBaseIntoNestedListsAndOutOfThem) {
  EXPECT_EQ(EntriesOf(RawList()
                          .Handle("h", RawList().BinaryArray("b", {{1}}))
                          .Int32("x", 16)
                          .Handle("i", RawList().Binary("single", {2}))
                          .Int32("y", 16),
                      false),
            "h=\n  b=ARRAY\n    [0]= 1\nx=10\ni=\n  single= 2\ny=16\n");
}

TEST(Dump, LeavesACallersStreamInItsBase) {
  const OwnedList sticky = ReceivedList(RawList().BinaryArray("b", {{1}}));
  const OwnedList number = ReceivedList(RawList().Int32("n", 16));
  std::ostringstream stream;
  PrintHandleInfoRecurse(stream, sticky, true, 0);
  stream << 16 << "\n";
  PrintHandleInfoRecurse(stream, number, false, 0);
  stream << std::dec;
  PrintHandleInfoRecurse(stream, number, false, 0);
  EXPECT_EQ(stream.str(), "b=ARRAY\n  [0]= 1\n10\nn=10\nn=16\n");
}

TEST(Dump, UsesTheFillOfACallersStream) {
  std::ostringstream stream;
  stream << std::setfill('0');
  PrintHandleInfoRecurse(stream, ReceivedList(RawList().Binary("b", {0, 10})), false, 0);
  EXPECT_EQ(stream.str(), "b=000a\n");
}

TEST(Dump, IntoMemoryIsDecimalEachTime) {
  const OwnedList list = ReceivedList(RawList().Int32("n", 16).BinaryArray("b", {{1}}));
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(Buffered(list, false), Framed(list, "n=16\nb=ARRAY\n  [0]= 1\n"));
  }
}

// ---- damaged lists ------------------------------------------------------------------------------

TEST(Dump, OfAnUnknownTypeHasItsNameAndRaises) {
  const RawList before = RawList().Int32("a", 1);
  for (const int type : {6, 0x7F, 0x80, 0x86, 0xFF}) {
    SCOPED_TRACE(type);
    const Bytes block =
        RawList(before).Entry("b", static_cast<uint8_t>(type), U32(1)).Int32("c", 2).Block();
    EXPECT_EQ(PartialEntries<Damaged>(block), "a[PT_INT32]=1\nb");
  }
}

TEST(Dump, OfTypeZeroHasAQuestionMarkAndRaises) {
  const Bytes block = RawList().Int32("a", 1).Entry("b", 0, U32(1)).Int32("c", 2).Block();
  EXPECT_EQ(PartialEntries<Damaged>(block), "a[PT_INT32]=1\nb[PT_UNKNOWN]=?\n");
  std::ostringstream stream;
  const OwnedList list = ListOfBlock(block);
  EXPECT_THROW(PrintHandleInfoRecurse(stream, list, false, 0), Damaged);
  EXPECT_EQ(stream.str(), "a=1\nb=?\n");
}

TEST(Dump, OfAnEntryWhoseFillIsCutHasTheEntryAndRaises) {
  RawList cut = RawList().Int32("a", 1).String("b", "text");
  cut.Truncate(cut.BlockSize() - 3);
  EXPECT_EQ(PartialEntries<NoData>(cut.Block()), "a[PT_INT32]=1\nb[PT_STRING]=text\n");
}

TEST(Dump, OfAnEntryThatIsCutRaisesWithoutReadingOn) {
  struct Case {
    uint8_t type;
    Bytes payload;
    std::string left;
  };
  const std::vector<Case> cases = {
      {RAW_STRING, ToBytes("text"), "b[PT_STRING]="},
      {RAW_STRING, {}, "b[PT_STRING]="},
      {RAW_INT32, {1, 2, 3}, "b[PT_INT32]="},
      {RAW_INT64, {1, 2, 3, 4, 5, 6, 7}, "b[PT_INT64]="},
      {RAW_HANDLE, {1, 2, 3}, "b[PT_PARAMHANDLE]=\n"},
      {RAW_BINARY, {1, 2, 3}, "b[PT_BINARY]="},
      {RAW_BINARY, Concat({U32(3), {1, 2}}), "b[PT_BINARY]="},
      {RAW_BINARY, U32(0xFFFFFFFF), "b[PT_BINARY]="},
      {0x81, {1, 2, 3}, "b=ARRAY\n"},
      {0x81, U32(1), "b=ARRAY\n  [0]="},
      {0x81, Concat({U32(1), U32(0)}), "b=ARRAY\n  [0]="},
      {0x81, Concat({U32(1), U32(0), ToBytes("x")}), "b=ARRAY\n  [0]="},
      {0x81, Concat({U32(2), U32(0), U32(9), ToBytes("x"), {0}}), "b=ARRAY\n  [0]=x\n\n  [1]="},
      {0x81, Concat({U32(2), U32(0), U32(0xFFFFFFFF), ToBytes("x"), {0}}),
       "b=ARRAY\n  [0]=x\n\n  [1]="},
      {0x82, Concat({U32(2), U32(7), {1, 2, 3}}), "b=ARRAY\n  [0]=7\n\n  [1]="},
      {0x83, Concat({U32(2), U64(7), U32(1)}), "b=ARRAY\n  [0]=7\n\n  [1]="},
      {0x84, Concat({U32(2), U32(7), {1, 2, 3}}), "b=ARRAY\n  [0]=\n  [1]="},
      {0x85, Concat({U32(1), U32(0), {1, 2, 3}}), "b=ARRAY\n  [0]="},
      {0x85, Concat({U32(1), U32(0), U32(2), {1}}), "b=ARRAY\n  [0]="},
      {0x85, Concat({U32(2), U32(0), U32(8), U32(1), {1}}), "b=ARRAY\n  [0]= 1\n  [1]="},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << int{c.type} << " " << ToHex(c.payload));
    EXPECT_EQ(PartialEntries<NoData>(RawList().Entry("b", c.type, c.payload).Block()), c.left);
  }
}

TEST(Dump, OfANameThatDoesNotEndInTheBlockRaises) {
  EXPECT_EQ(PartialEntries<NoData>(FromHex("03 61 61 02 61 61 61 61")), "");
}

TEST(Dump, RaisesFromANestedListToo) {
  const OwnedList list = ReceivedList(RawList().Handle("h", RawList().Int32("n", 1)).Int32("a", 2));
  const OwnedList damaged = ListOfBlock(RawList().Int32("n", 1).Entry("b", 6, {}).Block());
  list.Impl().Handles()[0] = TQ::detail::ListRef(damaged.Handle().impl);
  std::ostringstream stream;
  EXPECT_THROW(PrintHandleInfoRecurse(stream, list, false, 0), Damaged);
  EXPECT_EQ(stream.str(), "h=\n  n=1\n  b");
}

TEST(Dump, OfADamagedListIntoMemoryLeavesTheMemoryAsItWas) {
  const OwnedList list = ListOfBlock(RawList().Int32("a", 1).Entry("b", 6, {}).Block());
  std::vector<char> memory(100, 'x');
  EXPECT_THROW(PrintHandleInfoToBuffer(list, true, memory.data(), 100), Damaged);
  EXPECT_EQ(memory, std::vector<char>(100, 'x'));
}

// ---- into memory --------------------------------------------------------------------------------

TEST(DumpIntoMemory, IsCutAtItsSize) {
  const OwnedList list = ReceivedList(RawList().String("a", "a text of some length"));
  const std::string whole = Framed(list, "a[PT_STRING]=a text of some length\n");
  for (uint32_t size = 2; size <= whole.size(); ++size) {
    EXPECT_EQ(Buffered(list, true, size), whole.substr(0, size - 1));
  }
}

TEST(DumpIntoMemory, FitsWithItsZeroAndIsFollowedByZeros) {
  const OwnedList list = ReceivedList(RawList().Int32("a", 1));
  const std::string whole = Framed(list, "a[PT_INT32]=1\n");
  for (const size_t more : {size_t{1}, size_t{2}, size_t{50}}) {
    std::vector<char> memory(whole.size() + more, 'x');
    PrintHandleInfoToBuffer(list, true, memory.data(), static_cast<uint32_t>(memory.size()));
    std::string expected = whole;
    expected.resize(whole.size() + more, '\0');
    EXPECT_EQ(std::string(memory.begin(), memory.end()), expected);
  }
}

TEST(DumpIntoMemory, OfOneByteIsAZero) {
  const OwnedList list = ReceivedList(RawList().Int32("a", 1));
  for (const _tag_HTQPARAMLIST dumped : {list.Handle(), NO_LIST}) {
    char memory[2] = {'x', 'y'};
    PrintHandleInfoToBuffer(dumped, true, memory, 1);
    EXPECT_EQ(memory[0], '\0');
    EXPECT_EQ(memory[1], 'y');
  }
}

// ---- locales and streams ------------------------------------------------------------------------

TEST(DumpIntoMemory, IsInTheClassicLocaleWhateverTheHostHasSet) {
  const OwnedList list = ReceivedList(RawList().Int32("n", 1234567).Int32Array("i", {7654321}));
  const std::string expected = Framed(list, "n=1234567\ni=ARRAY\n  [0]=7654321\n\n");
  const std::locale former = std::locale::global(GroupingLocale());
  std::ostringstream control;
  control << 1234567;
  const std::string dump = Buffered(list, false);
  std::locale::global(former);
  EXPECT_EQ(control.str(), "1.234.567") << "the locale is in force";
  EXPECT_EQ(dump, expected);
}

TEST(Dump, IsInTheLocaleOfACallersStream) {
  const OwnedList list = ReceivedList(RawList().Int32("n", 1234567));
  std::ostringstream stream;
  stream.imbue(GroupingLocale());
  PrintHandleInfoRecurse(stream, list, false, 0);
  EXPECT_EQ(stream.str(), "n=1.234.567\n");
  EXPECT_TRUE(std::has_facet<std::numpunct<char>>(stream.getloc()));
  stream << 1000;
  EXPECT_EQ(stream.str(), "n=1.234.567\n1.000") << "the stream keeps its locale";
}

TEST(DumpOnTheErrorStream, IsInItsOwnLocale) {
  const OwnedList list = ReceivedList(RawList().Int32("n", 1234567));
  Recorder recorder;
  {
    const ErrorStreamInto redirected(&recorder);
    std::cerr.imbue(GroupingLocale());
    PrintHandleInfo(list, false);
  }
  EXPECT_NE(recorder.Text().find("\nn=1.234.567\n"), std::string::npos) << recorder.Text();
}

TEST(Dump, FlushesAtEachLineEnd) {
  const OwnedList list = ReceivedList(RawList()
                                          .Int32("a", 1)
                                          .StringArray("s", {"x"})
                                          .BinaryArray("b", {{1}})
                                          .Binary("c", {2})
                                          .Handle("h", RawList().Int32("n", 1)));
  Recorder recorder;
  std::ostream stream(&recorder);
  PrintHandleInfoRecurse(stream, list, true, 0);
  const std::string text = recorder.Text();
  EXPECT_EQ(recorder.Flushes(), std::count(text.begin(), text.end(), '\n'));
  EXPECT_EQ(recorder.Flushes(), 9);
}

TEST(DumpOnTheErrorStream, IsTheSameTextAsInMemory) {
  const OwnedList list = ReceivedList(
      RawList().Int32("a", 1).BinaryArray("b", {{1}, {2}}).Handle("h", RawList().Int32("n", 17)));
  for (const bool withTypes : {true, false}) {
    Recorder recorder;
    {
      const ErrorStreamInto redirected(&recorder);
      PrintHandleInfo(list, withTypes);
    }
    EXPECT_EQ(recorder.Text(), Buffered(list, withTypes));
  }
}

TEST(DumpOnTheErrorStream, StartsDecimalAfterADumpThatLeftItHexadecimal) {
  const OwnedList list = ReceivedList(RawList().Int32("n", 16).BinaryArray("b", {{1}}));
  const std::string once = Framed(list, "n=16\nb=ARRAY\n  [0]= 1\n");
  Recorder recorder;
  {
    const ErrorStreamInto redirected(&recorder);
    PrintHandleInfo(list, false);
    std::cerr << 16 << "\n";
    PrintHandleInfo(list, false);
    PrintHandleInfo(NO_LIST, false);
    std::cerr << 16 << "\n";
  }
  EXPECT_EQ(recorder.Text(), once + "10\n" + once + Framed(NO_LIST, "") + "16\n");
}

// ---- the lock -----------------------------------------------------------------------------------

TEST(DumpOnTheErrorStream, IsNotMixedWithThoseOfOtherThreads) {
  constexpr int ROUNDS = 30;
  std::vector<OwnedList> lists;
  std::set<std::string> whole;
  for (uint32_t i = 0; i < 4; ++i) {
    lists.push_back(ReceivedList(
        RawList().Int32("n", i).StringArray("s", {"x", "y"}).Handle("h", RawList().Int32("m", i))));
    whole.insert(Buffered(lists.back()));
  }
  Recorder recorder;
  {
    const ErrorStreamInto redirected(&recorder);
    std::vector<std::thread> threads;
    for (const OwnedList& list : lists) {
      threads.emplace_back([&list] {
        for (int round = 0; round < ROUNDS; ++round) PrintHandleInfo(list, true);
      });
    }
    for (std::thread& thread : threads) thread.join();
  }
  std::string rest = recorder.Text();
  const std::string lastLine = "\n" + std::string(33, '=') + "\n";
  int dumps = 0;
  while (!rest.empty()) {
    const size_t end = rest.find(lastLine);
    ASSERT_NE(end, std::string::npos) << rest;
    const std::string dump = rest.substr(0, end + lastLine.size());
    ASSERT_EQ(whole.count(dump), 1u) << dump;
    rest.erase(0, dump.size());
    ++dumps;
  }
  EXPECT_EQ(dumps, 4 * ROUNDS);
}

/// Does something else at the first flush.
class Interrupted final : public std::streambuf {
 public:
  explicit Interrupted(void (*toDo)()) : action(toDo) {}

 protected:
  int_type overflow(int_type character) override { return character; }
  std::streamsize xsputn(const char*, std::streamsize count) override { return count; }
  int sync() override {
    if (void (*once)() = std::exchange(action, nullptr)) once();
    return 0;
  }

 private:
  void (*action)();
};

TEST(DumpIntoMemory, TakesNoLockAndSoWorksWithinADumpOnTheErrorStream) {
  static std::string inner;
  Interrupted buffer([] {
    const OwnedList other = ReceivedList(RawList().Int32("inner", 1));
    inner = Entries(other, false);
    EXPECT_EQ(Buffered(other, false), Framed(other, "inner=1\n"));
  });
  const ErrorStreamInto redirected(&buffer);
  PrintHandleInfo(ReceivedList(RawList().Int32("outer", 1)), true);
  EXPECT_EQ(inner, "inner=1\n");
}

TEST(DumpOnTheErrorStream, LetsItsLockGoWhenItRaises) {
  const OwnedList damaged = ListOfBlock(RawList().Int32("a", 1).Entry("b", 6, {}).Block());
  Recorder recorder;
  {
    const ErrorStreamInto redirected(&recorder);
    EXPECT_THROW(PrintHandleInfo(damaged, false), Damaged);
    PrintHandleInfo(NO_LIST, false);
    TQ::detail::g_printMutex.Lock();
    TQ::detail::g_printMutex.Unlock();
  }
  EXPECT_EQ(recorder.Text(), "=====[" + AddressOf(damaged) + "]\na=1\nb" + Framed(NO_LIST, ""));
}

TEST(Dump, MayReadOneListFromManyThreads) {
  const OwnedList list = ReceivedList(
      RawList().Int32("a", 1).HandleArray("h", {RawList().StringArray("s", {"x", "y"})}));
  const std::string expected = Buffered(list);
  std::vector<uint32_t> failures(4, 0);
  std::vector<std::thread> threads;
  for (uint32_t& failure : failures) {
    threads.emplace_back([&list, &expected, &failure] {
      for (int round = 0; round < 100; ++round) {
        if (Buffered(list) != expected) ++failure;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(failures, std::vector<uint32_t>(4, 0));
}

// ---- a list in itself ---------------------------------------------------------------------------

/// Throws everything away, and says every hundredth line end.
class LineCounter final : public std::streambuf {
 protected:
  int_type overflow(int_type character) override { return character; }
  std::streamsize xsputn(const char*, std::streamsize count) override { return count; }
  int sync() override {
    if (++lines % 100 == 0) Say("level " + std::to_string(lines));
    return 0;
  }

 private:
  int lines = 0;
};

TQ_TEST_ROLE(dumpAListInItself) {
  // The end of the stack is to end this process, and no sanitizer's report of it is wanted.
  std::signal(SIGSEGV, SIG_DFL);
  EXPECT_TRUE(LimitStack(uint64_t{512} << 10));
  const _tag_HTQPARAMLIST list = TQCreateParamList();
  TQSetHandleValue(list, "self", list);
  LineCounter counter;
  std::ostream stream(&counter);
  PrintHandleInfoRecurse(stream, list, true, 0);
  Say("result");
  return 0;
}

TEST(Dump, OfAListInItselfGoesOnUntilTheStackEnds) {
  ChildProcess child("dumpAListInItself", {}, ErrorOutput::MERGED);
  const auto status = child.Wait(std::chrono::milliseconds{40000});
  ASSERT_TRUE(status);
  EXPECT_FALSE(status->Succeeded()) << *status;
  uint32_t levels = 0;
  for (const std::string& line : child.ReadRemainingLines()) {
    EXPECT_NE(line, "result");
    if (line.rfind("level ", 0) == 0) ++levels;
  }
  EXPECT_GE(levels, 5u) << "at least five hundred levels";
}

}  // namespace
}  // namespace TQ::test
