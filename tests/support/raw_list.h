// Parameter lists as bytes, laid out and read without any code of the library.
//
//   RawList list;
//   list.String("a", "hi").Int32("ab", 7).Handle("child", RawList().Int64("n", 1));
//   EXPECT_EQ(ToHex(list.Block()), "03 61 00 01 68 69 00 00 ...");
//   Bytes body = list.Stream();           // block, descriptor of the child, block of the child
//   auto read = DecodeListStream(body, list.BlockSize(), list.HandleCount());
//   EXPECT_EQ(*read, list);
//   EXPECT_EQ(list.Find("a")->text, "hi");
//
// A list is its block and its nested lists, and two lists are equal if both are the same byte for
// byte, at every depth. Damaged lists are made with Entry, Raw, Patch, Truncate and HandleIndex.
#pragma once

#include "support/bytes.h"

#include <cstdint>
#include <functional>
#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

namespace TQ::test {

// The type codes as they stand in a block.
constexpr uint8_t RAW_STRING = 1;
constexpr uint8_t RAW_INT32 = 2;
constexpr uint8_t RAW_INT64 = 3;
constexpr uint8_t RAW_HANDLE = 4;
constexpr uint8_t RAW_BINARY = 5;
constexpr uint8_t RAW_ARRAY = 0x80;
constexpr uint32_t RAW_NO_HANDLE = 0xFFFFFFFF;

/// One entry of a block, taken apart. Only the fields of its type are filled.
struct RawValue {
  std::string name;
  uint8_t type = 0;
  uint32_t offset = 0;  ///< of the entry's first byte in the block
  uint32_t size = 0;    ///< bytes of the whole entry

  std::string text;                ///< string
  uint64_t number = 0;             ///< 32-bit and 64-bit value, index of a handle value
  Bytes binary;                    ///< binary
  std::vector<std::string> texts;  ///< array of strings
  std::vector<uint64_t> numbers;   ///< array of 32-bit or 64-bit values or of handle indices
  std::vector<Bytes> binaries;     ///< array of binaries
};

class RawList {
 public:
  // ---- well-formed values, appended at the end of the block ------------------------------------
  RawList& String(const std::string& name, const std::string& text);
  RawList& Int32(const std::string& name, uint32_t value);
  RawList& Int64(const std::string& name, uint64_t value);
  RawList& Binary(const std::string& name, const Bytes& value);
  /// The value takes the next index; `child` becomes the next nested list.
  RawList& Handle(const std::string& name, const RawList& child);
  /// A handle value that holds no list.
  RawList& NoHandle(const std::string& name);
  RawList& StringArray(const std::string& name, const std::vector<std::string>& texts);
  RawList& Int32Array(const std::string& name, const std::vector<uint32_t>& values);
  RawList& Int64Array(const std::string& name, const std::vector<uint64_t>& values);
  RawList& BinaryArray(const std::string& name, const std::vector<Bytes>& values);
  RawList& HandleArray(const std::string& name, const std::vector<RawList>& listed);

  // ---- anything else ---------------------------------------------------------------------------
  /// A handle value with this index, whatever nested lists there are.
  RawList& HandleIndex(const std::string& name, uint32_t index);
  RawList& HandleIndexArray(const std::string& name, const std::vector<uint32_t>& indices);
  /// A nested list that no value names.
  RawList& Child(const RawList& child);
  /// An entry with this type byte and exactly these payload bytes, without any filling.
  RawList& Entry(const std::string& name, uint8_t type, const Bytes& payload);
  /// Bytes as they are.
  RawList& Raw(const Bytes& bytes);
  /// Overwrites bytes of the block; they must lie inside it.
  RawList& Patch(size_t offset, const Bytes& bytes);
  /// Cuts the block after `size` bytes.
  RawList& Truncate(size_t size);

  // ---- the bytes -------------------------------------------------------------------------------
  const Bytes& Block() const { return block; }
  const std::vector<RawList>& Children() const { return children; }
  uint32_t BlockSize() const { return static_cast<uint32_t>(block.size()); }
  uint32_t HandleCount() const { return static_cast<uint32_t>(children.size()); }

  /// What follows a frame head: the blocks of the tree with the descriptors between them.
  Bytes Stream() const;

  // ---- the values ------------------------------------------------------------------------------
  /// The entries in block order. nullopt if the block is not exactly as a writer lays it out, with
  /// zeros in every filling byte; `problem` then gets the reason.
  std::optional<std::vector<RawValue>> Values(std::string* problem = nullptr) const;

  /// The first entry of this name; nullopt also for a block that Values refuses.
  std::optional<RawValue> Find(const std::string& name) const;

  /// The names in block order; empty for a block that Values refuses.
  std::vector<std::string> Names() const;

  friend bool operator==(const RawList&, const RawList&) = default;

 private:
  friend std::optional<RawList> ReadListStream(
      const std::function<std::optional<Bytes>(uint32_t)>& read, uint32_t size, uint32_t count);

  Bytes block;
  std::vector<RawList> children;
};

/// The head of an entry: offset byte, name, zeros, type byte.
Bytes EntryHead(const std::string& name, uint8_t type);

/// Reads a list tree whose top block has `size` bytes and whose top list has `count` nested lists.
/// `read` gives exactly the bytes that it is asked for, or nullopt, which ends the reading.
std::optional<RawList> ReadListStream(const std::function<std::optional<Bytes>(uint32_t)>& read,
                                      uint32_t size, uint32_t count);

/// As ReadListStream, from bytes that must be used up exactly.
std::optional<RawList> DecodeListStream(const Bytes& stream, uint32_t size, uint32_t count);

/// For the messages of failed tests.
std::ostream& operator<<(std::ostream& stream, const RawList& list);

}  // namespace TQ::test
