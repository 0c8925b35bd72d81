#include "support/every_list_function.h"

#include "support/param_lists.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace TQ::test {

namespace {

using Damaged = _tag_TQPARAMVALUE::DataDamaged;
using NoData = TQMemoryBufferTpl2<0>::NoDataExeption;

/// What is taken from an array at once.
constexpr uint32_t MAXIMUM = 5;

class Runner final {
 public:
  Runner(_tag_HTQPARAMLIST tested, FunctionResults& counts)
      : list(tested), holder(ParamListHolder::FromHandle(tested)), results(counts) {
    begin = reinterpret_cast<const uint8_t*>(TQGetFirstParam(list));
    end = begin + TQGetHandleSize(list);
  }

  void Run() {
    const Bytes before = BlockOf(list);
    Walk();
    CountSlots();
    for (const std::string& name : names) RunGetters(name.c_str());
    RunOnHandles();
    RunWhole();
    RunDumps(list);
    for (size_t i = 0; i < entries.size(); ++i) RunRemovals(i);
    RunStores();
    RunClearing();
    RunCopies();
    EXPECT_EQ(ToHex(BlockOf(list)), ToHex(before)) << "reading has changed the list";
  }

 private:
  /// Whether a function may throw NoDataExeption on this list.
  enum class Refusal { MAY_THROW, ONLY_FOR_NAMES };

  template <typename Use>
  void Try(Refusal refusal, Use use) {
    try {
      use();
      ++results.answers;
    } catch (const NoData&) {
      ++results.refusals;
      EXPECT_TRUE(refusal == Refusal::MAY_THROW || !namesEndInHeads);
    } catch (const Damaged&) {
      // The reader has seen all types, and nothing changes one.
      ADD_FAILURE() << "a type of no known code";
    }
  }

  template <typename Use>
  void Try(Use use) {
    Try(Refusal::ONLY_FOR_NAMES, use);
  }

  // ---- where things are ------------------------------------------------------------------------

  uint64_t Available(const void* place) const {
    const auto address = reinterpret_cast<uintptr_t>(place);
    const auto first = reinterpret_cast<uintptr_t>(begin);
    const auto last = reinterpret_cast<uintptr_t>(end);
    return address >= first && address < last ? last - address : 0;
  }

  static const void* TerminatorOf(const void* place, uint64_t available) {
    return std::memchr(place, 0, static_cast<size_t>(available));
  }

  static uint32_t WordAt(const void* place) {
    uint32_t word = 0;
    std::memcpy(&word, place, sizeof word);
    return word;
  }

  // ---- the entries -----------------------------------------------------------------------------

  struct Entry {
    const _tag_TQPARAMINFO* info;
    uint8_t type;
    uint32_t word;  ///< the first of the payload
  };

  /// No walk over an accepted list throws.
  void Walk() {
    names = {"", "none", std::string(300, 'n')};
    for (auto* info = TQGetFirstParam(list); info != nullptr; info = TQGetNextParam(list, info)) {
      Look(info);
    }
    ASSERT_EQ(TQGetParamCount(list), entries.size());
    EXPECT_EQ(holder.GetCount(), entries.size());
    EXPECT_EQ(holder.GetSize(), TQGetHandleSize(list));
    EXPECT_EQ(holder.empty(), entries.empty());
    EXPECT_EQ(holder.GetFirst(), entries.empty() ? nullptr : entries[0].info);
    size_t count = 0;
    for (const _tag_TQPARAMINFO& info : holder) {
      ASSERT_LT(count, entries.size());
      EXPECT_EQ(&info, entries[count].info);
      EXPECT_EQ(TQParamByIndex(list, static_cast<uint32_t>(count)), &info);
      ++count;
    }
    EXPECT_EQ(count, entries.size());
    EXPECT_EQ(TQParamByIndex(list, static_cast<uint32_t>(count)), nullptr);
    EXPECT_EQ(TQParamByIndex(list, UINT32_MAX), nullptr);
  }

  void Look(const _tag_TQPARAMINFO* info) {
    const uint64_t available = Available(info);
    ASSERT_GT(available, uint64_t{info->valueOffset});
    const void* const value = info->Value();
    const uint64_t payload = Available(value) - 1;
    const auto* bytes = static_cast<const uint8_t*>(value);
    entries.push_back({info, *bytes, payload >= 4 ? WordAt(bytes + 1) : 0});
    const void* const terminator = TerminatorOf(info->name, available - 1);
    const uint64_t length =
        terminator != nullptr
            ? static_cast<uint64_t>(static_cast<const char*>(terminator) - info->name)
            : available - 1;
    namesEndInHeads = namesEndInHeads && terminator != nullptr && terminator < value;
    // For a name without an end this is one that runs to the end of the block.
    names.emplace(info->name, static_cast<size_t>(length));
  }

  void CountSlots() {
    while (TQGetHandleById(list, slotCount).impl != nullptr) ++slotCount;
    EXPECT_EQ(TQGetHandleById(list, slotCount + 1).impl, nullptr);
    EXPECT_EQ(TQGetHandleById(list, NO_HANDLE_INDEX).impl, nullptr);
  }

  // ---- getters ---------------------------------------------------------------------------------

  void RunGetters(const char* name) {
    Try([&] { CheckInfo(name); });
    Try([&] { CheckText(TQGetStringValue(list, name)); });
    Try([&] { EXPECT_EQ(holder.GetString(name), TQGetStringValue(list, name)); });
    Try([&] { EXPECT_EQ(holder.GetInt32(name), TQGetInt32Value(list, name)); });
    Try([&] { EXPECT_EQ(holder.GetInt64(name), TQGetInt64Value(list, name)); });
    Try([&] { CheckBinary(TQGetBinaryValue(list, name)); });
    Try([&] { EXPECT_EQ(holder.GetBinary(name), TQGetBinaryValue(list, name)); });
    Try([&] {
      const OwnedList nested(TQGetHandleValue(list, name));
      EXPECT_EQ(!holder.GetHandle(name), nested.IsNull());
    });
    Try([&] { CheckViews(name); });
    for (const uint32_t first : {0u, 1u, 2u, 100u, UINT32_MAX}) {
      Try([&] { CheckTexts(name, first); });
      Try([&] { CheckBinaries(name, first); });
      Try([&] { CheckElements(name, first); });
      Try([&] { CheckHandles(name, first); });
    }
  }

  void CheckInfo(const char* name) {
    const _tag_TQPARAMINFO* info = TQParamInfo(list, name);
    EXPECT_EQ(holder.GetInfo(name), info);
    EXPECT_EQ(holder.Exists(name), info != nullptr);
    EXPECT_EQ(holder.find(name).info, info);
    const uint8_t type = info != nullptr ? info->Value()->type : 0;
    EXPECT_EQ(holder.GetType(name), type);
    const bool array = (type & PT_ARRAY_FLAG) != 0;
    EXPECT_EQ(holder.GetArrayType(name), array ? type & ~PT_ARRAY_FLAG : PT_UNKNOWN);
    EXPECT_EQ(holder.GetArraySize(name), array ? WordAt(&info->Value()->type + 1) : 0);
  }

  /// The walk has seen the end of every single text.
  void CheckText(const char* text) {
    if (text == nullptr) return;
    const uint64_t available = Available(text);
    ASSERT_GT(available, 0u);
    EXPECT_NE(TerminatorOf(text, available), nullptr);
  }

  void CheckBinary(const _tag_BINARYVALUE* value) {
    if (value == nullptr) return;
    const uint64_t available = Available(value);
    ASSERT_GE(available, 4u);
    EXPECT_GE(available - 4, WordAt(value));
  }

  void CheckViews(const char* name) {
    const View<uint32_t> numbers = Unpacked(TQGetInt32Array(list, name));
    CheckView(numbers.count, numbers.values);
    const View<uint64_t> same = Unpacked(TQGetInt64Array(list, name));
    EXPECT_EQ(same.count, numbers.count);
    EXPECT_EQ(static_cast<const void*>(same.values), static_cast<const void*>(numbers.values));
    EXPECT_EQ(Unpacked(holder.GetInt32Array(name)).count, numbers.count);
    EXPECT_EQ(Unpacked(holder.GetInt64Array(name)).count, numbers.count);
    const View<uint32_t> indices = Unpacked(TQGetHandleArray(list, name));
    CheckView(indices.count, indices.values);
    const auto* words = reinterpret_cast<const uint8_t*>(indices.values);
    for (uint32_t i = 0; i < indices.count; ++i) {
      const uint32_t index = WordAt(words + size_t{i} * 4);
      EXPECT_EQ(TQGetHandleById(list, index).impl != nullptr, index < slotCount);
    }
  }

  void CheckView(uint32_t count, const void* values) {
    if (count != 0) {
      EXPECT_GE(Available(values), uint64_t{count} * 4);
    }
  }

  /// Only the last offset has been looked at: what the others point at is read only if it is there.
  void CheckTexts(const char* name, uint32_t first) {
    const char* texts[MAXIMUM];
    const uint32_t count = TQGetStringArray(list, name, texts, MAXIMUM, first);
    ASSERT_LE(count, MAXIMUM);
    EXPECT_EQ(TQGetStringArray(list, name, texts, 0, first), 0u);
    for (uint32_t i = 0; i < count; ++i) {
      const uint64_t available = Available(texts[i]);
      if (available != 0) textBytes += TerminatorOf(texts[i], available) != nullptr ? 1 : 0;
    }
    const char* others[MAXIMUM];
    EXPECT_EQ(holder.GetStringArray(name, others, MAXIMUM, first), count);
    EXPECT_EQ(holder.GetString(name, first), count != 0 ? texts[0] : nullptr);
  }

  void CheckBinaries(const char* name, uint32_t first) {
    const _tag_BINARYVALUE* items[MAXIMUM];
    const uint32_t count = TQGetBinaryArray(list, name, items, MAXIMUM, first);
    ASSERT_LE(count, MAXIMUM);
    for (uint32_t i = 0; i < count; ++i) {
      if (Available(items[i]) >= 4) textBytes += WordAt(items[i]);
    }
    const _tag_BINARYVALUE* others[MAXIMUM];
    EXPECT_EQ(holder.GetBinaryArray(name, others, MAXIMUM, first), count);
    EXPECT_EQ(holder.GetBinary(name, first), count != 0 ? items[0] : nullptr);
  }

  void CheckElements(const char* name, uint32_t index) {
    const View<uint32_t> numbers = Unpacked(TQGetInt32Array(list, name));
    const auto* words = reinterpret_cast<const uint8_t*>(numbers.values);
    const bool inside = index < numbers.count;
    EXPECT_EQ(holder.GetInt32(name, index), inside ? WordAt(words + size_t{index} * 4) : 0);
    const bool wide = holder.GetType(name) == (PT_ARRAY_FLAG | PT_INT64);
    const uint64_t word = holder.GetInt64(name, index);
    if (!wide || index >= holder.GetArraySize(name)) {
      EXPECT_EQ(word, 0u);
    }
  }

  void CheckHandles(const char* name, uint32_t first) {
    _tag_HTQPARAMLIST lists[MAXIMUM];
    const uint32_t count = holder.GetHandleArray(name, lists, MAXIMUM, first);
    ASSERT_LE(count, MAXIMUM);
    ParamListHolder holders[MAXIMUM];
    EXPECT_EQ(holder.GetHandleArray(name, holders, MAXIMUM, first), count);
    for (uint32_t i = 0; i < count; ++i) EXPECT_EQ(!holders[i], lists[i].impl == nullptr);
    EXPECT_EQ(!holder.GetHandle(name, first), count == 0 || lists[0].impl == nullptr);
  }

  void RunOnHandles() {
    for (uint32_t i = 0; i < slotCount; ++i) {
      EXPECT_FALSE(!holder.GetHandle(static_cast<int>(i)));
      Runner(TQGetHandleById(list, i), results).Run();
    }
    EXPECT_TRUE(!holder.GetHandle(static_cast<int>(slotCount)));
    EXPECT_TRUE(!holder.GetHandle(-1));
  }

  // ---- the list as a whole ---------------------------------------------------------------------

  void RunWhole() {
    const OwnedList reference(TQReferenceHandle(list));
    EXPECT_EQ(reference.Handle().impl, list.impl);
    const OwnedList clone(TQCloneHandle(list));
    ASSERT_FALSE(clone.IsNull());
    const RawList image = RawOf(list);
    EXPECT_EQ(RawOf(clone), image);
    EXPECT_EQ(TQGetParamCount(clone), entries.size());
    const ParamListHolder twin = holder.Clone();
    EXPECT_EQ(twin.GetSize(), holder.GetSize());
    EXPECT_EQ(twin.GetCount(), holder.GetCount());
    // On its way again.
    EXPECT_EQ(RawOf(ReceivedList(image)), image);
    RunHolderLife();
  }

  void RunHolderLife() {
    ParamListHolder first(holder);
    ParamListHolder second(std::move(first));
    first = second;
    ParamListHolder third;
    third = std::move(second);
    // NOLINTBEGIN(bugprone-use-after-move,clang-analyzer-cplusplus.Move): what moves leave is meant
    EXPECT_TRUE(!second);
    second.swap(third);
    ParamListHolder::swap(first, third);
    EXPECT_EQ(second.GetCount(), holder.GetCount());
    // NOLINTEND(bugprone-use-after-move,clang-analyzer-cplusplus.Move)
    const auto heaped =
        std::make_unique<ParamListHolder>(ParamListHolder::FromRefHandle(TQReferenceHandle(list)));
    EXPECT_FALSE(!*heaped);
  }

  /// Dumps read the elements of arrays, which may lie anywhere.
  void RunDumps(_tag_HTQPARAMLIST dumped) {
    for (const bool withTypes : {false, true}) {
      std::string one;
      Try(Refusal::MAY_THROW, [&] {
        std::ostringstream stream;
        PrintHandleInfoRecurse(stream, dumped, withTypes, 1);
        one = stream.str();
      });
      for (const uint32_t size : {1u, 50u, 2000u}) {
        Try(Refusal::MAY_THROW, [&] {
          // On the heap and of that very size, so that a sanitizer sees a write beyond it.
          std::vector<char> buffer(size, 'x');
          PrintHandleInfoToBuffer(dumped, withTypes, buffer.data(), size);
          EXPECT_EQ(buffer.back(), '\0');
        });
      }
      Try(Refusal::MAY_THROW, [&] { PrintHandleInfo(dumped, withTypes); });
    }
  }

  // ---- changes, on clones ----------------------------------------------------------------------

  /// What was left by a change can be walked, found by name and dumped.
  void LookThrough(_tag_HTQPARAMLIST changed) {
    const RawList image = RawOf(changed);
    if (image == lookedThrough) return;  // as another way of the same removal has left it
    lookedThrough = image;
    Try([&] {
      uint32_t count = 0;
      for (auto* info = TQGetFirstParam(changed); info != nullptr;
           info = TQGetNextParam(changed, info)) {
        ++count;
      }
      EXPECT_EQ(TQGetParamCount(changed), count);
    });
    for (const std::string& name : names) {
      Try([&] { TQCloseHandle(TQGetHandleValue(changed, name.c_str())); });
      Try([&] { TQGetHandleArray(changed, name.c_str()); });
    }
    Try(Refusal::MAY_THROW, [&] {
      std::ostringstream stream;
      PrintHandleInfoRecurse(stream, changed, true, 0);
    });
    EXPECT_EQ(RawOf(ReceivedList(image)), image);
  }

  /// Removes entry `index` in each way there is.
  void RunRemovals(size_t index) {
    const auto place = static_cast<uint32_t>(index);
    for (int way = 0; way < 4; ++way) {
      const OwnedList clone(TQCloneHandle(list));
      ParamListHolder changed = ParamListHolder::FromHandle(clone);
      const _tag_TQPARAMINFO* info = TQParamByIndex(clone, place);
      const uint64_t available = Available(entries[index].info);
      const bool terminated = TerminatorOf(entries[index].info, available) != nullptr;
      Try([&] {
        if (way == 0) TQRemoveParamByInfo(clone, info);
        if (way == 1) changed.erase(ParamListHolder::param_iterator{&changed, info});
        if (way == 2 && terminated) TQRemoveValue(clone, info->name);
        if (way == 3 && terminated) changed.erase(info->name);
      });
      EXPECT_LE(TQGetParamCount(clone) + 1, entries.size() + 1);
      LookThrough(clone);
    }
    if (index == 0) RunRemovalOnTheWay();
  }

  /// Every entry in turn; the second of a name stays.
  void RunRemovalOnTheWay() {
    const OwnedList clone(TQCloneHandle(list));
    Try([&] {
      const _tag_TQPARAMINFO* info = TQGetFirstParam(clone);
      while (info != nullptr) {
        const uint32_t count = TQGetParamCount(clone);
        const _tag_TQPARAMINFO* next = TQRemoveParamByInfo(clone, info);
        if (TQGetParamCount(clone) == count) next = TQGetNextParam(clone, info);
        info = next;
      }
    });
    LookThrough(clone);
  }

  /// A third of the setters under each name, one after the other; the next name gets the next ones.
  void RunStores() {
    uint32_t setter = 0;
    for (const std::string& name : names) {
      if (name.size() > 253) continue;
      const OwnedList clone(TQCloneHandle(list));
      for (uint32_t i = 0; i < SETTERS / 3; ++i) {
        Try([&] { EXPECT_EQ(StoreBy(setter, clone, name.c_str()), TQ_ERR_OK); });
        setter = (setter + 1) % SETTERS;
        if (i == 0) LookThrough(clone);
      }
    }
  }

  static constexpr uint32_t SETTERS = 24;

  /// The flat setters and the holder's.
  _tag_TQ_ERROR StoreBy(uint32_t setter, _tag_HTQPARAMLIST target, const char* name) {
    static const char* const TEXTS[] = {"one", nullptr};
    static constexpr uint32_t NUMBERS[] = {1, 2};
    static constexpr uint64_t WIDE[] = {3, 4};
    static const void* const DATAS[] = {"ab", "cde"};
    static constexpr uint32_t SIZES[] = {2, 3};
    const _tag_BINARYITEM items[] = {{2, DATAS[0]}, {3, DATAS[1]}};
    const OwnedList one;
    const _tag_HTQPARAMLIST lists[] = {one, {nullptr}};
    const ParamListHolder holders[] = {ParamListHolder::FromHandle(one), ParamListHolder()};
    ParamListHolder other = ParamListHolder::FromHandle(target);
    switch (setter) {
      case 0:
        return TQSetStringValue(target, name, "new");
      case 1:
        return TQSetInt32Value(target, name, 1);
      case 2:
        return TQSetInt64Value(target, name, 1);
      case 3:
        return TQSetBinaryValue(target, name, "ab", 2);
      case 4:
        return TQSetBinaryItem(target, name, items);
      case 5:
        return TQSetHandleValue(target, name, one);
      case 6:
        return TQSetStringArray(target, name, 2, TEXTS);
      case 7:
        return TQSetInt32Array(target, name, 2, NUMBERS);
      case 8:
        return TQSetInt64Array(target, name, 2, WIDE);
      case 9:
        return TQSetHandleArray(target, name, 2, lists);
      case 10:
        return TQSetBinaryArray(target, name, 2, DATAS, SIZES);
      case 11:
        return TQSetBinaryItemArray(target, name, 2, items);
      case 12:
        return other.SetString(name, "new");
      case 13:
        return other.SetInt32(name, 1);
      case 14:
        return other.SetInt64(name, 1);
      case 15:
        return other.SetBinary(name, "ab", 2);
      case 16:
        return other.SetHandle(name, holders[0]);
      case 17:
        return other.SetStringArray(name, 2, TEXTS);
      case 18:
        return other.SetInt32Array(name, 2, NUMBERS);
      case 19:
        return other.SetInt64Array(name, 2, WIDE);
      case 20:
        return other.SetHandleArray(name, 2, lists);
      case 21:
        return other.SetHandleArray(name, 2, holders);
      case 22:
        return other.SetBinaryArray(name, 2, DATAS, SIZES);
      default:
        return other.SetBinaryArray(name, 2, items);
    }
  }

  void RunClearing() {
    for (const bool flat : {true, false}) {
      const OwnedList clone(TQCloneHandle(list));
      ParamListHolder changed = ParamListHolder::FromHandle(clone);
      if (flat) {
        EXPECT_EQ(TQRemoveAllValues(clone), TQ_ERR_OK);
      } else {
        EXPECT_EQ(changed.RemoveAll(), TQ_ERR_OK);
      }
      EXPECT_EQ(TQGetParamCount(clone), 0u);
      EXPECT_EQ(TQGetHandleById(clone, 0).impl, nullptr);
      Try([&] { EXPECT_EQ(changed.Remove("none"), TQ_ERR_OK); });
      EXPECT_TRUE(changed.NewList());
      EXPECT_TRUE(changed.ClearList());
    }
  }

  /// Copies are defined only if every list value names a list and no array is longer than the list
  /// has slots.
  bool CanBeCopied() const {
    return std::all_of(entries.begin(), entries.end(), [this](const Entry& entry) {
      if (entry.type == PT_PARAMHANDLE) return entry.word < slotCount;
      return entry.type != (PT_ARRAY_FLAG | PT_PARAMHANDLE) || entry.word <= slotCount;
    });
  }

  void RunCopies() {
    if (!CanBeCopied()) return;
    const OwnedList fresh;
    // Copies read texts and items where the offsets say.
    const Refusal refusal = Refusal::MAY_THROW;
    Try(refusal, [&] { EXPECT_EQ(TQCopyHandle(list, fresh), TQ_ERR_OK); });
    LookThroughWritten(fresh);
    const OwnedList clone(TQCloneHandle(list));
    Try(refusal, [&] { EXPECT_EQ(TQCopyHandle(list, clone), TQ_ERR_OK); });
    LookThrough(clone);
    ParamListHolder taken;
    Try(refusal, [&] { EXPECT_TRUE(taken.CopyDataFrom(holder)); });
    ParamListHolder given;
    Try(refusal, [&] { EXPECT_FALSE(holder.CopyDataTo(given)); });
    EXPECT_EQ(given.GetSize(), taken.GetSize());
    EXPECT_EQ(given.GetSize(), TQGetHandleSize(fresh));
    EXPECT_FALSE(holder.CopyDataFrom(holder));
    EXPECT_FALSE(holder.CopyDataTo(holder));
  }

  /// What a copy has stored is as a writer lays it out, unless it was stopped within an entry.
  void LookThroughWritten(_tag_HTQPARAMLIST copied) {
    Try(Refusal::MAY_THROW, [&] {
      for (const std::string& name : names) TQParamInfo(copied, name.c_str());
    });
  }

  const _tag_HTQPARAMLIST list;
  ParamListHolder holder;
  FunctionResults& results;
  const uint8_t* begin = nullptr;
  const uint8_t* end = nullptr;
  std::vector<Entry> entries;
  std::set<std::string> names;
  bool namesEndInHeads = true;  ///< every name ends before the value of its entry
  uint32_t slotCount = 0;
  uint64_t textBytes = 0;
  RawList lookedThrough;
};

}  // namespace

FunctionResults RunEveryListFunction(_tag_HTQPARAMLIST list) {
  FunctionResults results;
  Runner(list, results).Run();
  return results;
}

}  // namespace TQ::test
