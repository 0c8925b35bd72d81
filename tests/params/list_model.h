// What a list should hold, by a model of it that shares no idea of storage with the library: a
// vector of named values in their order, and a vector of slots, each with a number of its own by
// which values name it. No index is ever renumbered here, and no block is ever moved.
//
//   const ModelRef model = std::make_shared<ModelList>(level);
//   model->Store(value);                      // what TQSet... does
//   EXPECT_EQ(BlockOf(list), model->Encoded().Block());
//
// A list has a level, and only lists of lower levels are put into it: so no list ends up in itself,
// and every one dies with its last reference, in the library as well as here.
#pragma once

#include "support/bytes.h"
#include "support/raw_list.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace TQ::test {

class ModelList;
using ModelRef = std::shared_ptr<ModelList>;

using SlotNumber = uint64_t;
constexpr SlotNumber NO_SLOT = 0;

constexpr uint8_t RAW_HANDLE_ARRAY = RAW_ARRAY | RAW_HANDLE;

/// The names that are used, from the empty one to the longest that there is.
inline const std::vector<std::string>& ModelNames() {
  static const std::vector<std::string> NAMES = {
      "", "a", "ab", "abc", "abcd", "abcde", "abcdef", "A", std::string(253, 'l'), "x", "y", "z"};
  return NAMES;
}

/// A value; only the fields of its type are filled.
struct ModelValue {
  size_t name = 0;  ///< index in ModelNames
  uint8_t type = 0;
  std::vector<uint64_t> numbers;  ///< the number, or those of an array
  std::vector<Bytes> items;       ///< the text, the bytes, or those of an array
  std::vector<SlotNumber> slots;  ///< the list, or those of an array

  const std::string& Name() const { return ModelNames()[name]; }
  bool IsArray() const { return (type & RAW_ARRAY) != 0; }

  /// Bytes of the entry.
  uint32_t Size() const {
    size_t size = (Name().size() + 6) / 4 * 4 + (IsArray() ? 4 : 0);
    const bool wide = (type & ~RAW_ARRAY) == RAW_INT64;
    size += numbers.size() * (wide ? 8 : 4) + slots.size() * 4;
    const bool binary = (type & ~RAW_ARRAY) == RAW_BINARY;
    for (const Bytes& item : items) {
      size += (IsArray() ? 4 : 0) + (binary ? 4 : 0) + (item.size() + (binary ? 0 : 1) + 3) / 4 * 4;
    }
    return static_cast<uint32_t>(size);
  }
};

class ModelList final {
 public:
  explicit ModelList(uint32_t ownLevel) : level(ownLevel) { ++alive; }
  ~ModelList() { --alive; }
  ModelList(const ModelList&) = delete;
  ModelList& operator=(const ModelList&) = delete;

  struct Slot {
    SlotNumber number;
    ModelRef list;
  };

  // ---- changes ---------------------------------------------------------------------------------

  /// The value goes to the end. `lists` are those of a list value or of an array of lists, null
  /// where an element holds none.
  void Store(ModelValue value, const std::vector<ModelRef>& lists = {}) {
    Remove(value.name);
    for (const ModelRef& list : lists) value.slots.push_back(AddSlot(list));
    blockSize += value.Size();
    highestSize = std::max(highestSize, blockSize);
    values.push_back(std::move(value));
  }

  bool Remove(size_t name) {
    const auto found = std::find_if(values.begin(), values.end(),
                                    [name](const ModelValue& value) { return value.name == name; });
    if (found == values.end()) return false;
    for (const SlotNumber gone : found->slots) {
      if (gone == NO_SLOT) continue;
      std::erase_if(slots, [gone](const Slot& slot) { return slot.number == gone; });
    }
    if (found->type == RAW_HANDLE_ARRAY) RebuildSlots();
    blockSize -= found->Size();
    values.erase(found);
    return true;
  }

  /// The memory stays.
  void Clear() {
    values.clear();
    slots.clear();
    blockSize = 0;
  }

  /// Whether `source` may be copied value by value: every list value holds a list, and no array
  /// has more elements than there are lists.
  bool CanBeCopied() const {
    return std::all_of(values.begin(), values.end(), [this](const ModelValue& value) {
      if (value.type == RAW_HANDLE) return value.slots[0] != NO_SLOT;
      return value.type != RAW_HANDLE_ARRAY || value.slots.size() <= slots.size();
    });
  }

  void CopyFrom(const ModelList& source) {
    for (const ModelValue& value : source.values) {
      ModelValue copy = value;
      copy.slots.clear();
      std::vector<ModelRef> lists;
      for (size_t i = 0; i < value.slots.size(); ++i) {
        // Of an array the first lists that there are, whatever it holds.
        const bool array = value.type == RAW_HANDLE_ARRAY;
        lists.push_back(source.slots[array ? i : source.IndexOf(value.slots[i])].list);
      }
      Store(std::move(copy), lists);
    }
  }

  ModelRef Clone() const {
    auto clone = std::make_shared<ModelList>(level);
    clone->values = values;
    clone->slots = slots;
    clone->lastNumber = lastNumber;
    clone->slotCapacity = slots.size();
    clone->blockSize = clone->highestSize = blockSize;
    return clone;
  }

  // ---- queries ---------------------------------------------------------------------------------

  const ModelValue* Find(size_t name) const {
    for (const ModelValue& value : values) {
      if (value.name == name) return &value;
    }
    return nullptr;
  }

  RawList Encoded() const;

  /// The list that the slot number stands for; null for NO_SLOT.
  const void* ListOf(SlotNumber number) const {
    return number == NO_SLOT ? nullptr : slots[IndexOf(number)].list->impl;
  }

  /// The place of the slot, as it stands in the block.
  uint32_t IndexOf(SlotNumber number) const {
    for (size_t i = 0; i < slots.size(); ++i) {
      if (slots[i].number == number) return static_cast<uint32_t>(i);
    }
    return RAW_NO_HANDLE;
  }

  uint32_t Level() const { return level; }
  const std::vector<ModelValue>& Values() const { return values; }
  const std::vector<Slot>& Slots() const { return slots; }
  size_t SlotCapacity() const { return slotCapacity; }
  uint32_t BlockSize() const { return blockSize; }
  uint32_t HighestSize() const { return highestSize; }

  static uint32_t Alive() { return alive; }

  const void* impl = nullptr;  ///< the library's list that this one stands for

 private:
  SlotNumber AddSlot(const ModelRef& list) {
    if (!list) return NO_SLOT;
    GrowSlotsFor(slots.size() + 1);
    slots.push_back({++lastNumber, list});
    return lastNumber;
  }

  void GrowSlotsFor(size_t count) {
    if (count > slotCapacity) slotCapacity = std::max(slotCapacity + slotCapacity / 2, count);
  }

  /// The removal of an array builds the vector anew, one by one.
  void RebuildSlots() {
    slotCapacity = 0;
    for (size_t count = 1; count <= slots.size(); ++count) GrowSlotsFor(count);
  }

  static inline uint32_t alive = 0;

  const uint32_t level;
  std::vector<ModelValue> values;
  std::vector<Slot> slots;
  size_t slotCapacity = 0;
  SlotNumber lastNumber = NO_SLOT;
  uint32_t blockSize = 0;
  uint32_t highestSize = 0;
};

inline RawList ModelList::Encoded() const {
  RawList raw;
  for (const ModelValue& value : values) {
    std::vector<std::string> texts;
    if ((value.type & ~RAW_ARRAY) == RAW_STRING) {
      for (const Bytes& item : value.items) texts.push_back(ToText(item));
    }
    std::vector<uint32_t> indices;
    for (const SlotNumber slot : value.slots) indices.push_back(IndexOf(slot));
    switch (value.type) {
      case RAW_STRING:
        raw.String(value.Name(), texts[0]);
        break;
      case RAW_INT32:
        raw.Int32(value.Name(), static_cast<uint32_t>(value.numbers[0]));
        break;
      case RAW_INT64:
        raw.Int64(value.Name(), value.numbers[0]);
        break;
      case RAW_BINARY:
        raw.Binary(value.Name(), value.items[0]);
        break;
      case RAW_HANDLE:
        raw.HandleIndex(value.Name(), indices[0]);
        break;
      case RAW_ARRAY | RAW_STRING:
        raw.StringArray(value.Name(), texts);
        break;
      case RAW_ARRAY | RAW_INT32:
        raw.Int32Array(value.Name(), {value.numbers.begin(), value.numbers.end()});
        break;
      case RAW_ARRAY | RAW_INT64:
        raw.Int64Array(value.Name(), value.numbers);
        break;
      case RAW_ARRAY | RAW_BINARY:
        raw.BinaryArray(value.Name(), value.items);
        break;
      default:
        raw.HandleIndexArray(value.Name(), indices);
        break;
    }
  }
  return raw;
}

}  // namespace TQ::test
