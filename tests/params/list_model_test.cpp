// The list against a model of it: random stores and removals, and after each of them the list's
// bytes, counts, slots, capacities and the number of lists alive are what the model says.
//
// The model shares no idea of storage with the library: it is a vector of named values, and a
// vector of slots, each with a number of its own by which values name it.
#include "params/list_store.h"
#include "support/param_lists.h"
#include "support/seeded_random.h"

#include <tq/tq.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace TQ::test {
namespace {

using SlotNumber = uint64_t;
constexpr SlotNumber NO_SLOT = 0;

struct ModelSlot {
  SlotNumber number;
  FastHolderImpl* list;
};

/// A value; only the fields of its type are filled.
struct ModelValue {
  std::string name;
  uint8_t type = 0;
  uint64_t number = 0;
  Bytes bytes;
  std::vector<std::string> texts;
  std::vector<uint64_t> numbers;
  std::vector<Bytes> binaries;
  std::vector<SlotNumber> slots;
};

class Model {
 public:
  void Store(ModelValue value) {
    Remove(value.name);
    values.push_back(std::move(value));
    highestSize = std::max(highestSize, Encoded().BlockSize());
  }

  /// A slot for `list`, as a store makes it; NO_SLOT for the null list.
  SlotNumber AddSlot(FastHolderImpl* list) {
    if (list == nullptr) return NO_SLOT;
    if (slots.size() == slotCapacity) GrowSlots();
    slots.push_back({++lastNumber, list});
    return lastNumber;
  }

  bool Remove(const std::string& name) {
    const auto found = std::find_if(values.begin(), values.end(),
                                    [&](const ModelValue& value) { return value.name == name; });
    if (found == values.end()) return false;
    const bool array = found->type == (RAW_ARRAY | RAW_HANDLE);
    for (const SlotNumber gone : found->slots) {
      std::erase_if(slots, [&](const ModelSlot& slot) { return slot.number == gone; });
    }
    values.erase(found);
    if (array) {
      // The vector is built anew, one by one.
      const size_t kept = slots.size();
      std::vector<ModelSlot> all;
      all.swap(slots);
      slotCapacity = 0;
      for (size_t i = 0; i < kept; ++i) {
        if (slots.size() == slotCapacity) GrowSlots();
        slots.push_back(all[i]);
      }
    }
    return true;
  }

  void Clear() {
    values.clear();
    slots.clear();
  }

  RawList Encoded() const {
    RawList raw;
    for (const ModelValue& value : values) {
      switch (value.type) {
        case RAW_STRING:
          raw.String(value.name, value.texts[0]);
          break;
        case RAW_INT32:
          raw.Int32(value.name, static_cast<uint32_t>(value.number));
          break;
        case RAW_INT64:
          raw.Int64(value.name, value.number);
          break;
        case RAW_BINARY:
          raw.Binary(value.name, value.bytes);
          break;
        case RAW_HANDLE:
          raw.HandleIndex(value.name, IndexOf(value.slots[0]));
          break;
        case RAW_ARRAY | RAW_STRING:
          raw.StringArray(value.name, value.texts);
          break;
        case RAW_ARRAY | RAW_INT32: {
          raw.Int32Array(value.name, {value.numbers.begin(), value.numbers.end()});
          break;
        }
        case RAW_ARRAY | RAW_INT64:
          raw.Int64Array(value.name, value.numbers);
          break;
        case RAW_ARRAY | RAW_BINARY:
          raw.BinaryArray(value.name, value.binaries);
          break;
        default: {
          std::vector<uint32_t> indices;
          for (const SlotNumber slot : value.slots) indices.push_back(IndexOf(slot));
          raw.HandleIndexArray(value.name, indices);
          break;
        }
      }
    }
    return raw;
  }

  const std::vector<ModelValue>& Values() const { return values; }
  const std::vector<ModelSlot>& Slots() const { return slots; }
  size_t SlotCapacity() const { return slotCapacity; }
  uint32_t HighestSize() const { return highestSize; }

 private:
  uint32_t IndexOf(SlotNumber number) const {
    for (size_t i = 0; i < slots.size(); ++i) {
      if (slots[i].number == number) return static_cast<uint32_t>(i);
    }
    return NO_HANDLE_INDEX;
  }

  void GrowSlots() { slotCapacity = std::max(slotCapacity + slotCapacity / 2, slots.size() + 1); }

  std::vector<ModelValue> values;
  std::vector<ModelSlot> slots;
  size_t slotCapacity = 0;
  SlotNumber lastNumber = NO_SLOT;
  uint32_t highestSize = 0;
};

/// One list and its model, which get the same random operations.
class Pair {
 public:
  explicit Pair(uint32_t seed) : random(seed), nested(6) {
    for (_tag_HTQPARAMLIST& one : nested) one = TQCreateParamList();
  }
  ~Pair() {
    for (const _tag_HTQPARAMLIST one : nested) TQCloseHandle(one);
  }

  void Step() {
    const std::string name = AnyName();
    const uint32_t action = random.Below(100);
    if (action < 70) {
      StoreAny(name);
    } else if (action < 85) {
      EXPECT_EQ(TQRemoveValue(list, name.c_str()), TQ_ERR_OK);
      model.Remove(name);
    } else if (action < 95) {
      RemoveByEntry();
    } else if (action < 99) {
      ReplaceNested();
    } else if (random.OneIn(4)) {
      EXPECT_EQ(TQRemoveAllValues(list), TQ_ERR_OK);
      model.Clear();
    }
  }

  /// What is cheap to compare.
  void CompareCounts() const {
    const FastHolderImpl& store = list.Impl();
    ASSERT_EQ(store.ParamCount(), model.Values().size());
    ASSERT_EQ(store.Handles().Size(), model.Slots().size());
    ASSERT_EQ(store.Handles().Capacity(), model.SlotCapacity());
    ASSERT_EQ(store.BlockCapacity(), model.HighestSize());
  }

  void CompareAll() const {
    ASSERT_EQ(ToHex(BlockOf(list)), ToHex(model.Encoded().Block()));
    std::set<const FastHolderImpl*> alive = {list.Handle().impl};
    for (const _tag_HTQPARAMLIST one : nested) alive.insert(one.impl);
    for (uint32_t i = 0; i < model.Slots().size(); ++i) {
      ASSERT_EQ(TQGetHandleById(list, i).impl, model.Slots()[i].list);
      alive.insert(model.Slots()[i].list);
    }
    ASSERT_EQ(ListsAlive(), alive.size());
    uint32_t index = 0;
    for (const ModelValue& value : model.Values()) {
      const _tag_TQPARAMINFO* entry = TQParamInfo(list, value.name.c_str());
      ASSERT_NE(entry, nullptr);
      ASSERT_EQ(entry, TQParamByIndex(list, index++));
      ASSERT_EQ(entry->Value()->type, value.type);
    }
    ASSERT_EQ(TQParamByIndex(list, index), nullptr);
  }

 private:
  std::string AnyName() {
    static const std::vector<std::string> NAMES = {
        "", "a", "ab", "abc", "abcd", "abcde", "abcdef", "A", std::string(253, 'l'), "x", "y", "z"};
    return NAMES[random.Below(NAMES.size())];
  }

  std::string AnyText() {
    return std::string(random.Below(12), static_cast<char>('a' + random.Below(26)));
  }
  Bytes AnyBytes() { return Pattern(random.Below(20), random.Bits()); }

  /// One of the nested lists, or one that the list holds already, or none.
  _tag_HTQPARAMLIST AnyList() {
    const uint32_t choice = random.Below(10);
    if (choice == 0) return {nullptr};
    if (choice < 4 && !model.Slots().empty()) {
      return TQGetHandleById(list, random.Below(model.Slots().size()));
    }
    return nested[random.Below(nested.size())];
  }

  void StoreAny(const std::string& name) {
    ModelValue value;
    value.name = name;
    const uint32_t count = random.Below(5);
    switch (random.Below(12)) {
      case 0:
        value.type = RAW_STRING;
        value.texts = {AnyText()};
        TQSetStringValue(list, name.c_str(), value.texts[0].c_str());
        break;
      case 1:
        value.type = RAW_INT32;
        value.number = random.Bits();
        TQSetInt32Value(list, name.c_str(), static_cast<uint32_t>(value.number));
        break;
      case 2:
        value.type = RAW_INT64;
        value.number = uint64_t{random.Bits()} << 32 | random.Bits();
        TQSetInt64Value(list, name.c_str(), value.number);
        break;
      case 3: {
        value.type = RAW_BINARY;
        value.bytes = AnyBytes();
        const _tag_BINARYITEM item = {static_cast<uint32_t>(value.bytes.size()),
                                      value.bytes.data()};
        if (random.OneIn(2)) {
          TQSetBinaryItem(list, name.c_str(), &item);
        } else {
          TQSetBinaryValue(list, name.c_str(), item.data, item.size);
        }
        break;
      }
      case 4:
        StoreStrings(value, count);
        break;
      case 5: {
        value.type = RAW_ARRAY | RAW_INT32;
        std::vector<uint32_t> numbers(count);
        for (uint32_t& number : numbers) number = random.Bits();
        value.numbers.assign(numbers.begin(), numbers.end());
        TQSetInt32Array(list, name.c_str(), count, numbers.data());
        break;
      }
      case 6:
        value.type = RAW_ARRAY | RAW_INT64;
        value.numbers.resize(count);
        for (uint64_t& number : value.numbers) number = uint64_t{random.Bits()} << 32;
        TQSetInt64Array(list, name.c_str(), count, value.numbers.data());
        break;
      case 7:
        StoreBinaries(value, count);
        break;
      case 8:
      case 9:
        StoreHandles(value, count);
        return;
      default:
        StoreHandle(value);
        return;
    }
    model.Store(std::move(value));
  }

  void StoreStrings(ModelValue& value, uint32_t count) {
    value.type = RAW_ARRAY | RAW_STRING;
    std::vector<const char*> pointers;
    for (uint32_t i = 0; i < count; ++i) value.texts.push_back(AnyText());
    for (const std::string& text : value.texts) {
      pointers.push_back(text.empty() && random.OneIn(2) ? nullptr : text.c_str());
    }
    TQSetStringArray(list, value.name.c_str(), count, pointers.data());
  }

  void StoreBinaries(ModelValue& value, uint32_t count) {
    value.type = RAW_ARRAY | RAW_BINARY;
    std::vector<_tag_BINARYITEM> items;
    std::vector<const void*> datas;
    std::vector<uint32_t> sizes;
    for (uint32_t i = 0; i < count; ++i) value.binaries.push_back(AnyBytes());
    for (const Bytes& bytes : value.binaries) {
      datas.push_back(bytes.data());
      sizes.push_back(static_cast<uint32_t>(bytes.size()));
      items.push_back({sizes.back(), datas.back()});
    }
    if (random.OneIn(2)) {
      TQSetBinaryArray(list, value.name.c_str(), count, datas.data(), sizes.data());
    } else {
      TQSetBinaryItemArray(list, value.name.c_str(), count, items.data());
    }
  }

  void StoreHandle(ModelValue& value) {
    value.type = RAW_HANDLE;
    const _tag_HTQPARAMLIST chosen = AnyList();
    TQSetHandleValue(list, value.name.c_str(), chosen);
    model.Remove(value.name);
    value.slots = {model.AddSlot(chosen.impl)};
    model.Store(std::move(value));
  }

  void StoreHandles(ModelValue& value, uint32_t count) {
    value.type = RAW_ARRAY | RAW_HANDLE;
    std::vector<_tag_HTQPARAMLIST> chosen(count);
    for (_tag_HTQPARAMLIST& one : chosen) one = AnyList();
    TQSetHandleArray(list, value.name.c_str(), count, chosen.data());
    model.Remove(value.name);
    for (const _tag_HTQPARAMLIST one : chosen) value.slots.push_back(model.AddSlot(one.impl));
    model.Store(std::move(value));
  }

  void RemoveByEntry() {
    if (model.Values().empty()) return;
    const uint32_t index = random.Below(model.Values().size());
    const std::string name = model.Values()[index].name;
    const auto* next = TQRemoveParamByInfo(list, TQParamByIndex(list, index));
    model.Remove(name);
    if (index < model.Values().size()) {
      ASSERT_NE(next, nullptr);
      EXPECT_EQ(next->name, model.Values()[index].name);
    } else {
      EXPECT_EQ(next, nullptr);
    }
  }

  /// From now on only slots keep the old one alive.
  void ReplaceNested() {
    _tag_HTQPARAMLIST& one = nested[random.Below(nested.size())];
    TQCloseHandle(one);
    one = TQCreateParamList();
  }

  SeededRandom random;
  std::vector<_tag_HTQPARAMLIST> nested;
  OwnedList list;
  Model model;
};

class ListModel : public testing::TestWithParam<uint32_t> {};

TEST_P(ListModel, IsWhatTheListDoes) {
  constexpr uint32_t STEPS = 40000;
  constexpr uint32_t STEPS_PER_FULL_COMPARISON = 5;
  Pair pair(GetParam());
  for (uint32_t step = 0; step < STEPS; ++step) {
    SCOPED_TRACE(testing::Message() << "seed " << GetParam() << ", step " << step);
    pair.Step();
    pair.CompareCounts();
    if (step % STEPS_PER_FULL_COMPARISON == 0) pair.CompareAll();
    if (HasFailure()) return;
  }
}

INSTANTIATE_TEST_SUITE_P(Seeds, ListModel, testing::Values(1u, 2u, 3u, 4u, 5u));

}  // namespace
}  // namespace TQ::test
