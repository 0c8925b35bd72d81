// Lists that hold every type, every way of damaging their blocks, and which of them a reader takes.
//
//   for (const DamageableList& one : DamageableLists()) {
//     ForEachDamage(one.list.Block(), [&](const Bytes& damaged, const std::string& what) {
//       EXPECT_EQ(Accepts(damaged), CanBeWalked(damaged)) << what;
//     });
//   }
#pragma once

#include "support/bytes.h"
#include "support/raw_list.h"

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <ostream>
#include <set>
#include <string>
#include <vector>

namespace TQ::test {

struct DamageableList {
  std::string name;  ///< of the list, for the names of tests
  RawList list;

  friend void PrintTo(const DamageableList& one, std::ostream* stream) { *stream << one.name; }
};

/// One list for each type, with a value before and behind it, and some with values of many types.
inline std::vector<DamageableList> DamageableLists() {
  const RawList child = RawList().Int32("n", 1).String("t", "in");
  const auto before = [] { return RawList().Int32("a", 1); };
  const auto behind = [](RawList list) { return list.Int32("z", 2); };
  return {
      {"String", behind(before().String("v", "text"))},
      {"Int32", behind(before().Int32("v", 0x01020304))},
      {"Int64", behind(before().Int64("v", 0x0102030405060708))},
      {"Binary", behind(before().Binary("v", Pattern(6)))},
      {"Handle", behind(before().Handle("v", child).NoHandle("w").Handle("x", RawList()))},
      {"StringArray", behind(before().StringArray("v", {"a", "bcdef", ""}))},
      {"Int32Array", behind(before().Int32Array("v", {1, 2, 3}))},
      {"Int64Array", behind(before().Int64Array("v", {1, 2}))},
      {"HandleArray", behind(before().HandleArray("v", {child, RawList()}).Handle("w", child))},
      {"BinaryArray", behind(before().BinaryArray("v", {Pattern(5), {}, Pattern(1)}))},
      {"EmptyArrays", behind(before()
                                 .StringArray("S", {})
                                 .Int32Array("I", {})
                                 .Int64Array("L", {})
                                 .HandleArray("H", {})
                                 .BinaryArray("B", {}))},
      {"Names", RawList().Int32("", 1).Int32("ab", 2).String("abcdef", "x").Int32("ab", 3)},
      {"Misaligned", RawList()
                         // Seven bytes: what follows stands at odd places, which no writer does.
                         .Raw({2, 0, RAW_INT32, 7, 0, 0, 0})
                         .HandleArray("H", {child, RawList()})
                         .Int32Array("I", {1, 2})
                         .Int64Array("L", {1})
                         .BinaryArray("B", {Pattern(5), {}})
                         .Int64("n", 2)
                         .Handle("h", RawList())},
      {"Everything", RawList()
                         .Handle("h", child)
                         .String("text", "abcdefg")
                         .HandleArray("H", {RawList(), RawList()})
                         .Int64("n", 2)
                         .Binary("b", Pattern(2))
                         .StringArray("S", {"a", "bcdef"})
                         .Int32Array("I", {1, 2})
                         .Int64Array("L", {1})
                         .BinaryArray("B", {Pattern(5), {}})},
  };
}

/// Gives `take` the block with each of its bits turned over, with each of its bytes set to some
/// values, and cut at each length, the whole one included.
template <typename Take>
void ForEachDamage(const Bytes& block, Take take) {
  constexpr uint8_t VALUES[] = {0x00, 0x03, 0x06, 0x7F, 0x85, 0xFF};
  for (size_t at = 0; at < block.size(); ++at) {
    std::set<uint8_t> bytes(std::begin(VALUES), std::end(VALUES));
    for (uint32_t bit = 0; bit < 8; ++bit) {
      bytes.insert(static_cast<uint8_t>(block[at] ^ (1u << bit)));
    }
    bytes.erase(block[at]);
    for (const uint8_t byte : bytes) {
      Bytes damaged = block;
      damaged[at] = byte;
      take(damaged, "byte " + std::to_string(at) + " is " + std::to_string(byte));
    }
  }
  for (size_t size = 0; size <= block.size(); ++size) {
    take(Prefix(block, size), "cut after " + std::to_string(size));
  }
}

/// Whether the entries of a block lead from one to the next and exactly to its end, which is all
/// that a reader looks at.
class BlockWalk final {
 public:
  explicit BlockWalk(const Bytes& walked) : block(walked) {}

  bool Succeeds() const {
    for (uint64_t position = 0; position != block.size();) {
      const uint64_t next = EndOfEntry(position);
      if (next > block.size()) return false;
      position = next;
    }
    return true;
  }

 private:
  static constexpr uint64_t NOWHERE = UINT64_MAX;
  static constexpr uint64_t Padded(uint64_t size) { return (size + 3) / 4 * 4; }

  bool HasWord(uint64_t at) const { return at + 4 <= block.size(); }
  uint64_t Word(uint64_t at) const { return ReadU32(block.data() + at); }

  uint64_t EndOfText(uint64_t at) const {
    for (uint64_t end = at; end < block.size(); ++end) {
      if (block[end] == 0) return at + Padded(end - at + 1);
    }
    return NOWHERE;
  }

  uint64_t EndOfBinary(uint64_t at) const {
    return HasWord(at) ? at + 4 + Padded(Word(at)) : NOWHERE;
  }

  uint64_t EndOfEntry(uint64_t position) const {
    const uint64_t type = position + block[position];
    if (type >= block.size()) return NOWHERE;
    const uint64_t value = type + 1;
    switch (block[type]) {
      case RAW_STRING:
        return EndOfText(value);
      case RAW_INT32:
      case RAW_HANDLE:
        return value + 4;
      case RAW_INT64:
        return value + 8;
      case RAW_BINARY:
        return EndOfBinary(value);
      default:
        return EndOfArray(block[type], value);
    }
  }

  uint64_t EndOfArray(uint8_t type, uint64_t value) const {
    const uint8_t element = type & ~RAW_ARRAY;
    if (type <= RAW_ARRAY || element > RAW_BINARY || !HasWord(value)) return NOWHERE;
    const uint64_t count = Word(value);
    if (element == RAW_INT64) return value + 4 + 8 * count;
    const uint64_t table = value + 4 + 4 * count;
    if (element == RAW_INT32 || element == RAW_HANDLE || count == 0) return table;
    if (table > block.size()) return NOWHERE;
    const uint64_t last = table + Word(table - 4);
    return element == RAW_STRING ? EndOfText(last) : EndOfBinary(last);
  }

  const Bytes& block;
};

inline bool CanBeWalked(const Bytes& block) { return BlockWalk(block).Succeeds(); }

/// The list with another block and the same nested lists.
inline RawList WithBlock(const RawList& list, const Bytes& block) {
  RawList damaged = RawList().Raw(block);
  for (const RawList& child : list.Children()) damaged.Child(child);
  return damaged;
}

}  // namespace TQ::test
