// Reading a list by every getter and holding the answers against its model.
//
//   ValueReader(random).ReadAny(held, name);   // the value of that name, or that there is none
#pragma once

#include "params/list_model.h"
#include "support/param_lists.h"
#include "support/seeded_random.h"

#include <tq/tq.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace TQ::test {

/// A list that the test holds, and its model.
struct Held {
  _tag_HTQPARAMLIST list{nullptr};  ///< borrowed from the holder
  ParamListHolder holder;
  ModelRef model;
};

/// Reads by the flat getters and by the holder's, as chance will have it.
class ValueReader final {
 public:
  explicit ValueReader(SeededRandom& source) : random(source) {}

  /// The value of that name by the getter of its type, and by one of another type.
  void ReadAny(const Held& target, size_t name) {
    const ModelValue* value = ExpectFound(target, name);
    if (value != nullptr) {
      if (value->IsArray()) {
        ExpectArray(target, *value);
      } else {
        ExpectSingle(target, *value);
      }
    }
    ExpectNoOtherType(target, ModelNames()[name].c_str(), value != nullptr ? value->type : 0);
  }

  /// The entry of that name, or that there is none; the value that the model has.
  static const ModelValue* ExpectFound(const Held& one, size_t name) {
    const ModelValue* value = one.model->Find(name);
    const char* const text = ModelNames()[name].c_str();
    const _tag_TQPARAMINFO* entry = TQParamInfo(one.list, text);
    EXPECT_EQ(entry != nullptr, value != nullptr);
    if (entry != nullptr && value != nullptr) {
      EXPECT_EQ(entry->Value()->type, value->type);
      EXPECT_STREQ(entry->name, text);
    }
    return value;
  }

  static void ExpectEntry(const _tag_TQPARAMINFO* entry, const ModelValue& value) {
    ASSERT_NE(entry, nullptr);
    EXPECT_STREQ(entry->name, value.Name().c_str());
    EXPECT_EQ(entry->Value()->type, value.type);
  }

 private:
  bool ByHolder() { return random.OneIn(2); }

  void ExpectSingle(const Held& target, const ModelValue& value) {
    const char* const name = value.Name().c_str();
    const bool byHolder = ByHolder();
    EXPECT_EQ(target.holder.GetType(name), value.type);
    switch (value.type) {
      case RAW_STRING:
        ExpectText(byHolder ? target.holder.GetString(name) : TQGetStringValue(target.list, name),
                   value.items[0]);
        break;
      case RAW_INT32:
        EXPECT_EQ(byHolder ? target.holder.GetInt32(name) : TQGetInt32Value(target.list, name),
                  value.numbers[0]);
        break;
      case RAW_INT64:
        EXPECT_EQ(byHolder ? target.holder.GetInt64(name) : TQGetInt64Value(target.list, name),
                  value.numbers[0]);
        break;
      case RAW_BINARY:
        ExpectBytes(byHolder ? target.holder.GetBinary(name) : TQGetBinaryValue(target.list, name),
                    value.items[0]);
        break;
      default: {
        const void* const list = target.model->ListOf(value.slots[0]);
        const OwnedList owned(TQGetHandleValue(target.list, name));
        EXPECT_EQ(owned.Handle().impl, list);
        EXPECT_EQ(!target.holder.GetHandle(name), list == nullptr);
        break;
      }
    }
  }

  void ExpectArray(const Held& target, const ModelValue& value) {
    const char* const name = value.Name().c_str();
    const size_t count = value.items.size() + value.numbers.size() + value.slots.size();
    EXPECT_EQ(target.holder.GetArraySize(name), count);
    EXPECT_EQ(target.holder.GetArrayType(name), value.type & ~RAW_ARRAY);
    const uint32_t first = random.Below(count + 1);
    const uint32_t maximum = random.Below(6);
    const auto given = std::min<uint32_t>(maximum, static_cast<uint32_t>(count) - first);
    switch (value.type) {
      case RAW_ARRAY | RAW_STRING: {
        const char* texts[6];
        ASSERT_EQ(TQGetStringArray(target.list, name, texts, maximum, first), given);
        for (uint32_t i = 0; i < given; ++i) ExpectText(texts[i], value.items[first + i]);
        if (given != 0) {
          EXPECT_EQ(target.holder.GetString(name, first), texts[0]);
        }
        break;
      }
      case RAW_ARRAY | RAW_BINARY: {
        const _tag_BINARYVALUE* items[6];
        ASSERT_EQ(target.holder.GetBinaryArray(name, items, maximum, first), given);
        for (uint32_t i = 0; i < given; ++i) ExpectBytes(items[i], value.items[first + i]);
        if (given != 0) {
          EXPECT_EQ(target.holder.GetBinary(name, first), items[0]);
        }
        break;
      }
      case RAW_HANDLE_ARRAY:
        ExpectLists(target, value, first, maximum, given);
        break;
      default:
        ExpectNumbers(target, value, first);
        break;
    }
  }

  static void ExpectNumbers(const Held& target, const ModelValue& value, uint32_t index) {
    const char* const name = value.Name().c_str();
    if (value.type == (RAW_ARRAY | RAW_INT32)) {
      const View<uint32_t> view = Unpacked(TQGetInt32Array(target.list, name));
      ASSERT_EQ(view.count, value.numbers.size());
      for (uint32_t i = 0; i < view.count; ++i) EXPECT_EQ(view.values[i], value.numbers[i]);
      const bool inside = index < view.count;
      EXPECT_EQ(target.holder.GetInt32(name, index), inside ? value.numbers[index] : 0);
      // The same under the other type.
      EXPECT_EQ(static_cast<const void*>(Unpacked(TQGetInt64Array(target.list, name)).values),
                static_cast<const void*>(view.values));
      return;
    }
    EXPECT_EQ(Unpacked(TQGetInt64Array(target.list, name)).count, 0u);
    // Words and not values, and only as many as there are values.
    const bool inside = index < value.numbers.size();
    const uint64_t pair = inside ? value.numbers[index / 2] : 0;
    EXPECT_EQ(target.holder.GetInt64(name, index), index % 2 == 0 ? pair & 0xFFFFFFFF : pair >> 32);
  }

  static void ExpectLists(const Held& target, const ModelValue& value, uint32_t first,
                          uint32_t maximum, uint32_t given) {
    const char* const name = value.Name().c_str();
    const View<uint32_t> view = Unpacked(TQGetHandleArray(target.list, name));
    ASSERT_EQ(view.count, value.slots.size());
    for (uint32_t i = 0; i < view.count; ++i) {
      EXPECT_EQ(view.values[i], target.model->IndexOf(value.slots[i]));
    }
    _tag_HTQPARAMLIST lists[6];
    ASSERT_EQ(target.holder.GetHandleArray(name, lists, maximum, first), given);
    for (uint32_t i = 0; i < given; ++i) {
      EXPECT_EQ(lists[i].impl, target.model->ListOf(value.slots[first + i]));
    }
    ParamListHolder holders[6];
    ASSERT_EQ(target.holder.GetHandleArray(name, holders, maximum, first), given);
    if (given != 0) {
      EXPECT_EQ(!holders[0], lists[0].impl == nullptr);
      EXPECT_EQ(!target.holder.GetHandle(name, first), lists[0].impl == nullptr);
    }
  }

  /// One getter of a type that the value does not have.
  void ExpectNoOtherType(const Held& target, const char* name, uint8_t type) {
    static constexpr uint8_t TYPES[] = {RAW_STRING,
                                        RAW_INT32,
                                        RAW_INT64,
                                        RAW_BINARY,
                                        RAW_HANDLE,
                                        RAW_ARRAY | RAW_STRING,
                                        RAW_ARRAY | RAW_INT32,
                                        RAW_HANDLE_ARRAY,
                                        RAW_ARRAY | RAW_BINARY};
    const uint8_t asked = TYPES[random.Below(std::size(TYPES))];
    if (asked == type) return;
    const char* text = nullptr;
    const _tag_BINARYVALUE* item = nullptr;
    switch (asked) {
      case RAW_STRING:
        EXPECT_EQ(TQGetStringValue(target.list, name), nullptr);
        break;
      case RAW_INT32:
        EXPECT_EQ(TQGetInt32Value(target.list, name), 0u);
        break;
      case RAW_INT64:
        EXPECT_EQ(TQGetInt64Value(target.list, name), 0u);
        break;
      case RAW_BINARY:
        EXPECT_EQ(TQGetBinaryValue(target.list, name), nullptr);
        break;
      case RAW_HANDLE:
        EXPECT_EQ(TQGetHandleValue(target.list, name).impl, nullptr);
        break;
      case RAW_ARRAY | RAW_STRING:
        EXPECT_EQ(TQGetStringArray(target.list, name, &text, 1, 0), 0u);
        break;
      case RAW_ARRAY | RAW_INT32:
        EXPECT_EQ(Unpacked(TQGetInt32Array(target.list, name)).values, nullptr);
        EXPECT_EQ(Unpacked(TQGetInt64Array(target.list, name)).values, nullptr);
        break;
      case RAW_HANDLE_ARRAY:
        EXPECT_EQ(Unpacked(TQGetHandleArray(target.list, name)).values, nullptr);
        break;
      default:
        EXPECT_EQ(TQGetBinaryArray(target.list, name, &item, 1, 0), 0u);
        break;
    }
  }

  static void ExpectText(const char* text, const Bytes& expected) {
    ASSERT_NE(text, nullptr);
    ASSERT_EQ(std::strlen(text), expected.size());
    EXPECT_TRUE(std::equal(expected.begin(), expected.end(), text));
  }

  static void ExpectBytes(const _tag_BINARYVALUE* value, const Bytes& expected) {
    ASSERT_NE(value, nullptr);
    ASSERT_EQ(value->size, expected.size());
    EXPECT_TRUE(std::equal(expected.begin(), expected.end(), value->data));
  }

  SeededRandom& random;
};

}  // namespace TQ::test
