// Lists against a model of them: random operations on lists that hold and share each other, flat
// and by the holder, with the counts, sizes and capacities compared after each of them and the
// bytes every now and then.
//
// TQ_TEST_SEED in the environment sets the seed of the first shard; the others have those behind
// it.
#include "params/list_model.h"
#include "params/list_reading.h"
#include "params/list_store.h"
#include "support/param_lists.h"
#include "support/seeded_random.h"

#include <tq/tq.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

namespace TQ::test {
namespace {

#ifdef TQ_SANITIZED  // each operation costs several times as much, and finds more
constexpr uint32_t OPERATIONS = 1'000'000;
#else
constexpr uint32_t OPERATIONS = 10'000'000;
#endif
constexpr uint32_t SHARDS = 16;
constexpr uint32_t OPERATIONS_PER_COMPARISON = 128;  ///< of one list, byte for byte
constexpr uint32_t LEVELS = 4;
constexpr uint32_t LISTS_PER_LEVEL = 2;

/// The handle of a holder's list, which a holder does not give out; borrowed.
_tag_HTQPARAMLIST HandleOf(const ParamListHolder& holder) {
  const OwnedList scratch;
  ParamListHolder::FromHandle(scratch).SetHandle("", holder);
  return TQGetHandleById(scratch, 0);
}

/// The arguments of the array setters.
struct Pointers {
  explicit Pointers(const ModelValue& value) {
    for (const Bytes& item : value.items) {
      datas.push_back(item.data());
      sizes.push_back(static_cast<uint32_t>(item.size()));
      items.push_back({sizes.back(), datas.back()});
    }
  }
  std::vector<const void*> datas;
  std::vector<uint32_t> sizes;
  std::vector<_tag_BINARYITEM> items;
};

class World final {
 public:
  explicit World(uint32_t seed) : random(seed), foreignLists(ListsAlive() - ModelList::Alive()) {
    held.resize(size_t{LEVELS} * LISTS_PER_LEVEL);
    for (uint32_t i = 0; i < held.size(); ++i) Hold(i, MakeList(i / LISTS_PER_LEVEL));
  }

  /// One operation. What it has changed is compared as far as that is cheap.
  void Step() {
    touched = random.Below(held.size());
    Held& target = held[touched];
    const uint32_t action = random.Below(1000);
    if (action < 470) {
      StoreAny(target);
    } else if (action < 720) {
      ValueReader(random).ReadAny(target, AnyName());
    } else if (action < 840) {
      RemoveByName(target, AnyName());
    } else if (action < 890) {
      RemoveByEntry(target);
    } else if (action < 920) {
      Iterate(target);
    } else if (action < 925) {
      RemoveOnTheWay(target);
    } else if (action < 928) {
      RemoveEverything(target);
    } else if (action < 970) {
      CopyAny(target);
    } else if (action < 980) {
      CloneAny(target);
    } else if (action < 992) {
      HoldNested(target);
    } else {
      Hold(touched, MakeList(target.model->Level()));
    }
    CompareCounts(held[touched]);
  }

  /// The list that the last operation changed, byte for byte.
  void CompareTouched() const { Compare(held[touched]); }

  /// How many copies were made value by value, and not left out.
  uint32_t Copies() const { return copies; }

  void CompareAll() const {
    for (const Held& one : held) {
      CompareCounts(one);
      Compare(one);
      for (size_t name = 0; name < ModelNames().size(); ++name) ValueReader::ExpectFound(one, name);
    }
  }

 private:
  static Held MakeList(uint32_t level) {
    const _tag_HTQPARAMLIST list = TQCreateParamList();
    return {list, ParamListHolder::FromRefHandle(list), std::make_shared<ModelList>(level)};
  }

  /// From here on only slots keep what stood in that place alive.
  void Hold(size_t place, Held list) {
    list.model->impl = list.list.impl;
    held[place] = std::move(list);
  }

  // ---- comparing -------------------------------------------------------------------------------

  void CompareCounts(const Held& one) const {
    EXPECT_EQ(TQGetParamCount(one.list), one.model->Values().size());
    EXPECT_EQ(TQGetHandleSize(one.list), one.model->BlockSize());
    const FastHolderImpl& store = *one.list.impl;
    EXPECT_EQ(store.BlockCapacity(), one.model->HighestSize());
    EXPECT_EQ(store.Handles().Size(), one.model->Slots().size());
    EXPECT_EQ(store.Handles().Capacity(), one.model->SlotCapacity());
    EXPECT_EQ(ListsAlive(), foreignLists + ModelList::Alive());
  }

  static void Compare(const Held& one) {
    const Bytes expected = one.model->Encoded().Block();
    const Bytes found = BlockOf(one.list);
    EXPECT_TRUE(found == expected) << ToHex(found) << "\nis not\n" << ToHex(expected);
    for (uint32_t i = 0; i < one.model->Slots().size(); ++i) {
      EXPECT_EQ(TQGetHandleById(one.list, i).impl, one.model->Slots()[i].list->impl);
    }
  }

  // ---- choosing --------------------------------------------------------------------------------

  size_t AnyName() { return random.Below(ModelNames().size()); }
  bool ByHolder() { return random.OneIn(2); }

  Bytes AnyText() { return Filled(random.Below(12), static_cast<uint8_t>('a' + random.Below(26))); }
  Bytes AnyBytes() { return Filled(random.Below(20), static_cast<uint8_t>(random.Bits())); }
  uint64_t AnyNumber(bool wide) {
    return wide ? uint64_t{random.Bits()} << 32 | random.Bits() : random.Bits();
  }

  /// A list of a lower level that is held, or one that `target` holds already, or none.
  ModelRef AnyList(const Held& target) {
    const uint32_t choice = random.Below(10);
    const size_t below = size_t{target.model->Level()} * LISTS_PER_LEVEL;
    if (choice == 0 || below == 0) return nullptr;
    const auto& slots = target.model->Slots();
    if (choice < 4 && !slots.empty()) return slots[random.Below(slots.size())].list;
    return held[random.Below(below)].model;
  }

  static _tag_HTQPARAMLIST HandleOfModel(const ModelRef& model) {
    if (!model) return {nullptr};
    return {static_cast<FastHolderImpl*>(const_cast<void*>(model->impl))};
  }

  // ---- stores ----------------------------------------------------------------------------------

  void StoreAny(Held& target) {
    static constexpr uint8_t TYPES[] = {RAW_STRING,
                                        RAW_INT32,
                                        RAW_INT64,
                                        RAW_BINARY,
                                        RAW_HANDLE,
                                        RAW_HANDLE,
                                        RAW_HANDLE,
                                        RAW_ARRAY | RAW_STRING,
                                        RAW_ARRAY | RAW_INT32,
                                        RAW_ARRAY | RAW_INT64,
                                        RAW_ARRAY | RAW_BINARY,
                                        RAW_HANDLE_ARRAY,
                                        RAW_HANDLE_ARRAY};
    ModelValue value;
    value.name = AnyName();
    value.type = TYPES[random.Below(std::size(TYPES))];
    const uint32_t count = value.IsArray() ? random.Below(5) : 1;
    const uint8_t element = value.type & ~RAW_ARRAY;
    std::vector<ModelRef> lists;
    for (uint32_t i = 0; i < count; ++i) {
      if (element == RAW_HANDLE) {
        lists.push_back(AnyList(target));
      } else if (element == RAW_STRING || element == RAW_BINARY) {
        value.items.push_back(element == RAW_STRING ? AnyText() : AnyBytes());
      } else {
        value.numbers.push_back(AnyNumber(element == RAW_INT64));
      }
    }
    _tag_TQ_ERROR result = TQ_ERR_FAILED;
    if (element == RAW_HANDLE) {
      result = StoreLists(target, value, lists);
    } else {
      result = value.IsArray() ? StoreArray(target, value) : StoreSingle(target, value);
    }
    EXPECT_EQ(result, TQ_ERR_OK);
    target.model->Store(std::move(value), lists);
  }

  _tag_TQ_ERROR StoreSingle(Held& target, const ModelValue& value) {
    const char* const name = value.Name().c_str();
    const bool byHolder = ByHolder();
    switch (value.type) {
      case RAW_STRING: {
        const std::string text = ToText(value.items[0]);
        const char* given = text.empty() && random.OneIn(2) ? nullptr : text.c_str();
        return byHolder ? target.holder.SetString(name, given)
                        : TQSetStringValue(target.list, name, given);
      }
      case RAW_INT32: {
        const auto number = static_cast<uint32_t>(value.numbers[0]);
        return byHolder ? target.holder.SetInt32(name, number)
                        : TQSetInt32Value(target.list, name, number);
      }
      case RAW_INT64:
        return byHolder ? target.holder.SetInt64(name, value.numbers[0])
                        : TQSetInt64Value(target.list, name, value.numbers[0]);
      default: {
        const _tag_BINARYITEM item = Pointers(value).items[0];
        if (byHolder) return target.holder.SetBinary(name, item.data, item.size);
        return random.OneIn(2) ? TQSetBinaryItem(target.list, name, &item)
                               : TQSetBinaryValue(target.list, name, item.data, item.size);
      }
    }
  }

  _tag_TQ_ERROR StoreArray(Held& target, const ModelValue& value) {
    const char* const name = value.Name().c_str();
    const bool byHolder = ByHolder();
    switch (value.type) {
      case RAW_ARRAY | RAW_STRING:
        return StoreTexts(target, value, byHolder);
      case RAW_ARRAY | RAW_INT32: {
        const std::vector<uint32_t> numbers(value.numbers.begin(), value.numbers.end());
        const auto count = static_cast<uint32_t>(numbers.size());
        return byHolder ? target.holder.SetInt32Array(name, count, numbers.data())
                        : TQSetInt32Array(target.list, name, count, numbers.data());
      }
      case RAW_ARRAY | RAW_INT64: {
        const auto count = static_cast<uint32_t>(value.numbers.size());
        return byHolder ? target.holder.SetInt64Array(name, count, value.numbers.data())
                        : TQSetInt64Array(target.list, name, count, value.numbers.data());
      }
      default: {
        const Pointers all(value);
        const auto count = static_cast<uint32_t>(all.items.size());
        if (random.OneIn(2)) {
          return byHolder ? target.holder.SetBinaryArray(name, count, all.items.data())
                          : TQSetBinaryItemArray(target.list, name, count, all.items.data());
        }
        return byHolder
                   ? target.holder.SetBinaryArray(name, count, all.datas.data(), all.sizes.data())
                   : TQSetBinaryArray(target.list, name, count, all.datas.data(), all.sizes.data());
      }
    }
  }

  _tag_TQ_ERROR StoreTexts(Held& target, const ModelValue& value, bool byHolder) {
    std::vector<std::string> texts;
    std::vector<const char*> pointers;
    for (const Bytes& item : value.items) texts.push_back(ToText(item));
    for (const std::string& text : texts) {
      pointers.push_back(text.empty() && random.OneIn(2) ? nullptr : text.c_str());
    }
    const auto count = static_cast<uint32_t>(pointers.size());
    const char* const name = value.Name().c_str();
    return byHolder ? target.holder.SetStringArray(name, count, pointers.data())
                    : TQSetStringArray(target.list, name, count, pointers.data());
  }

  /// The lists may live through the very value that is replaced.
  _tag_TQ_ERROR StoreLists(Held& target, const ModelValue& value,
                           const std::vector<ModelRef>& lists) {
    const char* const name = value.Name().c_str();
    const bool byHolder = ByHolder();
    std::vector<_tag_HTQPARAMLIST> handles;
    for (const ModelRef& list : lists) handles.push_back(HandleOfModel(list));
    if (value.type == RAW_HANDLE) {
      if (!byHolder) return TQSetHandleValue(target.list, name, handles[0]);
      return target.holder.SetHandle(name, ParamListHolder::FromHandle(handles[0]));
    }
    const auto count = static_cast<uint32_t>(handles.size());
    if (!byHolder) return TQSetHandleArray(target.list, name, count, handles.data());
    if (random.OneIn(2)) return target.holder.SetHandleArray(name, count, handles.data());
    std::vector<ParamListHolder> holders;
    for (const _tag_HTQPARAMLIST handle : handles) {
      holders.push_back(ParamListHolder::FromHandle(handle));
    }
    return target.holder.SetHandleArray(name, count, holders.data());
  }

  // ---- reading ---------------------------------------------------------------------------------

  void Iterate(const Held& target) {
    const auto& values = target.model->Values();
    uint32_t index = 0;
    switch (random.Below(3)) {
      case 0:
        for (auto* entry = TQGetFirstParam(target.list); entry != nullptr;
             entry = TQGetNextParam(target.list, entry)) {
          ASSERT_LT(index, values.size());
          ValueReader::ExpectEntry(entry, values[index++]);
        }
        break;
      case 1:
        for (; index < values.size(); ++index) {
          ValueReader::ExpectEntry(TQParamByIndex(target.list, index), values[index]);
        }
        EXPECT_EQ(TQParamByIndex(target.list, index), nullptr);
        break;
      default:
        for (const _tag_TQPARAMINFO& entry : target.holder) {
          ASSERT_LT(index, values.size());
          ValueReader::ExpectEntry(&entry, values[index++]);
        }
        break;
    }
    EXPECT_EQ(index, values.size());
  }

  // ---- removal ---------------------------------------------------------------------------------

  void RemoveByName(Held& target, size_t name) {
    const char* const text = ModelNames()[name].c_str();
    const bool there = target.model->Remove(name);
    switch (random.Below(3)) {
      case 0:
        EXPECT_EQ(TQRemoveValue(target.list, text), TQ_ERR_OK);
        break;
      case 1:
        EXPECT_EQ(target.holder.Remove(text), TQ_ERR_OK);
        break;
      default:
        EXPECT_EQ(target.holder.erase(text), there ? 1u : 0u);
        break;
    }
  }

  void RemoveByEntry(Held& target) {
    const auto& values = target.model->Values();
    if (values.empty()) return;
    const uint32_t index = random.Below(values.size());
    const size_t name = values[index].name;
    const _tag_TQPARAMINFO* next = nullptr;
    if (ByHolder()) {
      const auto place = target.holder.find(ModelNames()[name].c_str());
      next = target.holder.erase(place).info;
    } else {
      next = TQRemoveParamByInfo(target.list, TQParamByIndex(target.list, index));
    }
    target.model->Remove(name);
    if (index < values.size()) {
      ValueReader::ExpectEntry(next, values[index]);
    } else {
      EXPECT_EQ(next, nullptr);
    }
  }

  /// Goes through the list and removes some entries as it goes.
  void RemoveOnTheWay(Held& target) {
    const auto& values = target.model->Values();
    size_t index = 0;
    const auto* entry = TQGetFirstParam(target.list);
    while (entry != nullptr) {
      ASSERT_LT(index, values.size());
      ValueReader::ExpectEntry(entry, values[index]);
      if (random.OneIn(3)) {
        entry = TQRemoveParamByInfo(target.list, entry);
        target.model->Remove(values[index].name);
      } else {
        entry = TQGetNextParam(target.list, entry);
        ++index;
      }
    }
    EXPECT_EQ(index, values.size());
  }

  void RemoveEverything(Held& target) {
    EXPECT_EQ(ByHolder() ? target.holder.RemoveAll() : TQRemoveAllValues(target.list), TQ_ERR_OK);
    target.model->Clear();
  }

  // ---- whole lists -----------------------------------------------------------------------------

  /// Into `target`, from a list that is held or from one that it holds itself.
  void CopyAny(Held& target) {
    Held source = held[random.Below((size_t{target.model->Level()} + 1) * LISTS_PER_LEVEL)];
    const auto& slots = target.model->Slots();
    if (random.OneIn(3) && !slots.empty()) source = Share(slots[random.Below(slots.size())].list);
    const bool same = source.model == target.model;
    if (!same && !source.model->CanBeCopied()) return;
    if (same || ByHolder()) {
      if (random.OneIn(2)) {
        EXPECT_EQ(target.holder.CopyDataFrom(source.holder), !same);
      } else {
        EXPECT_FALSE(source.holder.CopyDataTo(target.holder));
      }
    } else {
      EXPECT_EQ(TQCopyHandle(source.list, target.list), TQ_ERR_OK);
    }
    if (!same) target.model->CopyFrom(*source.model);
    ++copies;
  }

  static Held Share(const ModelRef& model) {
    const _tag_HTQPARAMLIST list = HandleOfModel(model);
    return {list, ParamListHolder::FromHandle(list), model};
  }

  /// A twin takes the place of a list of the same level.
  void CloneAny(const Held& source) {
    Held clone;
    if (ByHolder()) {
      clone.holder = source.holder.Clone();
      clone.list = HandleOf(clone.holder);
    } else {
      clone.list = TQCloneHandle(source.list);
      clone.holder = ParamListHolder::FromRefHandle(clone.list);
    }
    clone.model = source.model->Clone();
    touched = size_t{source.model->Level()} * LISTS_PER_LEVEL + random.Below(LISTS_PER_LEVEL);
    Hold(touched, std::move(clone));
  }

  /// A list inside `target` takes a place of its own, and is changed from there too.
  void HoldNested(const Held& target) {
    const auto& slots = target.model->Slots();
    if (slots.empty()) return;
    const uint32_t index = random.Below(slots.size());
    const ModelRef model = slots[index].list;
    const _tag_HTQPARAMLIST list = TQReferenceHandle(TQGetHandleById(target.list, index));
    EXPECT_EQ(list.impl, model->impl);
    touched = size_t{model->Level()} * LISTS_PER_LEVEL + random.Below(LISTS_PER_LEVEL);
    Hold(touched, {list, ParamListHolder::FromRefHandle(list), model});
  }

  SeededRandom random;
  std::vector<Held> held;
  size_t touched = 0;
  const uint32_t foreignLists;
  uint32_t copies = 0;
};

/// Of the shard.
uint32_t SeedOf(uint32_t shard) {
  // NOLINTNEXTLINE(concurrency-mt-unsafe): no other thread is there
  const char* const wanted = std::getenv("TQ_TEST_SEED");
  const uint32_t first =
      wanted != nullptr ? static_cast<uint32_t>(std::strtoul(wanted, nullptr, 10)) : 1;
  return first + shard;
}

class ListModel : public testing::TestWithParam<uint32_t> {};

TEST_P(ListModel, IsWhatTheListsDo) {
  const uint32_t before = ListsAlive();
  const uint32_t seed = SeedOf(GetParam());
  {
    World world(seed);
    for (uint32_t step = 0; step < OPERATIONS / SHARDS && !HasFailure(); ++step) {
      world.Step();
      if (step % OPERATIONS_PER_COMPARISON == 0) world.CompareTouched();
      if (HasFailure()) {
        ADD_FAILURE() << "operation " << step << "; TQ_TEST_SEED=" << seed
                      << " repeats it in shard 0";
      }
    }
    world.CompareAll();
    EXPECT_GT(world.Copies(), 0u);
  }
  EXPECT_EQ(ListsAlive(), before);
  EXPECT_EQ(ModelList::Alive(), 0u);
}

INSTANTIATE_TEST_SUITE_P(Shards, ListModel, testing::Range(0u, SHARDS));

}  // namespace
}  // namespace TQ::test
