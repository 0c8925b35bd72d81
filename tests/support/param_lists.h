// The library's lists in a test: handles that close themselves, blocks as bytes, and lists that
// hold what a peer sent. Needs the library's internals.
//
//   const OwnedList list;
//   TQSetInt32Value(list, "ab", 7);
//   EXPECT_EQ(BlockHex(list), "07 61 62 00 00 00 00 02 07 00 00 00");
//   const OwnedList received = ReceivedList(RawList().Int32("x", 1).Int32("x", 2));
//   const OwnedList damaged = ListOfBlock(RawList().Entry("x", 6, U32(1)).Block());
#pragma once

#include "params/list_store.h"
#include "support/bytes.h"
#include "support/hex.h"
#include "support/memory_channel.h"
#include "support/raw_list.h"
#include "wire/list_stream.h"

#include <tq/tq.h>

#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace TQ::test {

/// Owns one reference to a list and closes it.
class OwnedList final {
 public:
  /// A new empty list.
  OwnedList() : OwnedList(TQCreateParamList()) {}

  /// Takes over the caller's reference.
  explicit OwnedList(_tag_HTQPARAMLIST taken) : handle(taken) {}
  ~OwnedList() { TQCloseHandle(handle); }

  OwnedList(OwnedList&& other) noexcept : handle(std::exchange(other.handle, {nullptr})) {}
  OwnedList(const OwnedList&) = delete;
  OwnedList& operator=(const OwnedList&) = delete;

  /// Gives the reference back before the end of the scope.
  void Close() { TQCloseHandle(std::exchange(handle, {nullptr})); }

  _tag_HTQPARAMLIST Handle() const { return handle; }
  operator _tag_HTQPARAMLIST() const { return handle; }  // NOLINT(google-explicit-constructor)
  FastHolderImpl& Impl() const { return *handle.impl; }
  bool IsNull() const { return handle.impl == nullptr; }

 private:
  _tag_HTQPARAMLIST handle;
};

inline Bytes BlockOf(_tag_HTQPARAMLIST list) {
  const uint8_t* data = list.impl->BlockData();
  return Bytes(data, data + list.impl->BlockSize());
}

inline std::string BlockHex(_tag_HTQPARAMLIST list) { return ToHex(BlockOf(list)); }

/// The list as a tree of bytes, read from the objects themselves. Every slot must hold a list.
inline RawList RawOf(_tag_HTQPARAMLIST list) {
  RawList raw;
  raw.Raw(BlockOf(list));
  const auto& handles = list.impl->Handles();
  for (uint32_t i = 0; i < handles.Size(); ++i) raw.Child(RawOf({handles[i].Get()}));
  return raw;
}

/// A list as it comes from a peer that sends `raw`. Throws if the library refuses it.
inline OwnedList ReceivedList(const RawList& raw) {
  OwnedList list;
  MemoryChannel channel(raw.Stream());
  const TQ::detail::ListDescriptor own{raw.BlockSize(), raw.HandleCount()};
  if (TQ::detail::ReadParamList(list.Impl(), channel, own, nullptr) < 0) {
    throw std::runtime_error("the library refused the list");
  }
  return list;
}

/// A list with this block, which nobody has looked at: its entries are not counted. `slots` empty
/// lists stand behind its indices.
inline OwnedList ListOfBlock(const Bytes& block, uint32_t slots = 0) {
  OwnedList list;
  MemoryChannel channel(block);
  if (list.Impl().AppendFromChannel(channel, static_cast<uint32_t>(block.size())) < 0) {
    throw std::runtime_error("the block could not be read");
  }
  for (uint32_t i = 0; i < slots; ++i) list.Impl().Handles().Push(FastHolderImpl::Create());
  return list;
}

/// The names of the entries in the list's order.
inline std::vector<std::string> NamesOf(_tag_HTQPARAMLIST list) {
  std::vector<std::string> names;
  for (auto* entry = TQGetFirstParam(list); entry != nullptr; entry = TQGetNextParam(list, entry)) {
    names.emplace_back(entry->name);
  }
  return names;
}

/// The views are packed, and an expectation binds references, which a packed field cannot have.
template <typename Value>
struct View {
  uint32_t count;
  const Value* values;
};

inline View<uint32_t> Unpacked(const _tag_TQDWORDARRAY& packed) {
  return {packed.count, packed.values};
}
inline View<uint64_t> Unpacked(const _tag_TQQWORDARRAY& packed) {
  return {packed.count, packed.values};
}

/// Lists alive in this process.
inline uint32_t ListsAlive() { return DEBUG_TQObjectCount().paramLists; }

}  // namespace TQ::test
