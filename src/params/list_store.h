// FastHolderImpl: the list behind a handle.
#pragma once

#include "params/entry_layout.h"
#include "params/handle_slots.h"

#include <tq/counted_base.h>
#include <tq/memory_buffer.h>
#include <tq/types.h>

#include <cstddef>
#include <cstdint>

/// An ordered set of named, typed values in one contiguous block, whose image is the wire image.
/// Intended: a list may be stored in itself, directly or through others. That is a cycle of
/// references which nothing breaks.
///
/// Made by: Create, and by whoever reads a list from a channel. Referenced by: handles of the host,
/// slots of other lists, messages. May die on any thread, with the nested lists that it held last.
/// Threads: no lock. Any number of readers, or one thread that changes it; the reference count
/// alone is atomic. Pointers into the block are invalid after any store or removal. Errors: walking
/// a damaged block throws DataDamaged (a type of no known code) or NoDataExeption (a step, text,
/// count or table that would pass the end); the list then stays as it is. Exhaustion of the private
/// heap throws std::bad_alloc: a removal has changed nothing then, a store may have removed the old
/// value and written a part of the new one.
class FastHolderImpl final : public MTObjects::MTReferencedTypeBase, public TQMemoryBufferTpl2<0> {
 public:
  FastHolderImpl();

  static void* operator new(std::size_t size) noexcept;
  static void operator delete(void* block);

  /// A new empty list, or an empty reference when the private heap is exhausted.
  static TQ::detail::CountedRef<FastHolderImpl> Create();

  uint32_t ParamCount() const { return paramCount; }
  uint32_t BlockSize() const { return size; }
  uint32_t BlockCapacity() const { return capacity; }
  const uint8_t* BlockData() const { return data; }
  TQ::detail::HandleSlots& Handles() { return handles; }
  const TQ::detail::HandleSlots& Handles() const { return handles; }

  /// The entry of that name, the first where a peer sent several, or null.
  const _tag_TQPARAMINFO* FindParam(const char* name) const;

  /// The same for a name whose length is known.
  const _tag_TQPARAMINFO* FindParam(const char* name, std::size_t nameLength) const;

  /// The entry at the start of the block, or null.
  const _tag_TQPARAMINFO* FirstParam() const;

  /// The entry behind `entry`, or null at the end of the block.
  const _tag_TQPARAMINFO* NextParam(const _tag_TQPARAMINFO* entry) const;

  /// The type byte of `entry`'s value.
  uint8_t ValueType(const _tag_TQPARAMINFO* entry) const;

  /// The payload of `entry`'s value, of which `byteCount` bytes are known to be in the block.
  const uint8_t* Payload(const _tag_TQPARAMINFO* entry, uint32_t byteCount) const;

  /// True when `entry` points into the block, at whatever stands there.
  bool Holds(const _tag_TQPARAMINFO* entry) const;

  /// Throws NoDataExeption unless `entry`'s name ends inside the block.
  void RequireTerminatedName(const _tag_TQPARAMINFO* entry) const;

  /// Takes `entry` out, with the nested lists that it names, and gives the entry that now stands in
  /// its place, or null. A null entry removes nothing. Intended: of a damaged entry that reaches
  /// beyond the block the bytes stay in their place, so that it is the result itself; it is counted
  /// out and has lost its nested lists, with no exception.
  const _tag_TQPARAMINFO* RemoveParam(const _tag_TQPARAMINFO* entry);

  /// Empties the list and keeps its memory.
  void RemoveAll();

  /// Adds the entries of the block to ParamCount, walking all of it.
  void CountParams();

  // A store removes the value of that name and appends the new one: the entry moves to the end of
  // the block. Intended: nothing is ever updated in place, whatever type and size it has.
  // `payloadSize` bytes, padded, are known to follow: room for them is made with that of the head,
  // so that a value costs one growth.
  void BeginStore(const char* name, uint8_t type, uint64_t payloadSize);
  void FinishStore() { ++paramCount; }

  void StoreHandle(const char* name, FastHolderImpl* list);
  void StoreBinary(const char* name, const void* bytes, uint32_t length);
  void StoreInt64(const char* name, uint64_t value);
  void StoreInt32Array(const char* name, const uint32_t* values, uint32_t count);
  void StoreInt64Array(const char* name, const uint64_t* values, uint32_t count);
  void StoreHandleArray(const char* name, const _tag_HTQPARAMLIST* values, uint32_t count);
  void StoreStringArray(const char* name, const char* const* values, uint32_t count);
  void StoreBinaryArray(const char* name, const void* const* datas, const uint32_t* sizes,
                        uint32_t count);
  void StoreBinaryItemArray(const char* name, const _tag_BINARYITEM* items, uint32_t count);

  /// A list with the same block and the same nested lists, or an empty reference when the private
  /// heap is exhausted. A damaged block raises, and the memory of the new list is lost.
  TQ::detail::CountedRef<FastHolderImpl> Clone() const;

  /// Stores every value of `source`, in its order, under its name. The nested lists are shared.
  /// `source` must be another list; its list values must name lists. Damage raises where the walk
  /// meets it, with the values ahead of it stored.
  void StoreAllOf(const FastHolderImpl& source);

  using TQMemoryBufferTpl2<0>::AppendAligned;
  using TQMemoryBufferTpl2<0>::AppendDword;
  using TQMemoryBufferTpl2<0>::AppendFromChannel;
  using TQMemoryBufferTpl2<0>::At;
  using TQMemoryBufferTpl2<0>::WriteWithDescriptor;

  /// Cuts the block to its first `newSize` bytes. Entries are not looked at.
  void CutBlock(uint32_t newSize) { size = newSize; }

 private:
  ~FastHolderImpl() override;
  bool CheckValid() const override { return true; }

  uint32_t PositionOf(const _tag_TQPARAMINFO* entry) const;
  const _tag_TQPARAMINFO* EntryAt(uint32_t position) const;
  const uint8_t* ValueAt(uint32_t position) const;
  uint64_t EntryLength(uint32_t position) const;
  uint32_t NextPosition(uint32_t position) const;
  void RequireWalkable() const;

  uint32_t PushHandle(FastHolderImpl* list);
  void StoreDwords(const char* name, uint8_t type, const void* values, uint32_t count,
                   uint32_t elementSize);
  template <typename SizeOf, typename Append>
  void StoreOffsetArray(const char* name, uint8_t type, uint32_t count, SizeOf sizeOf,
                        Append append);
  void AppendBinary(const void* bytes, uint32_t length);

  void ReleaseHandleSlots(uint32_t position);
  void ReleaseSingleSlot(uint32_t index);
  void ReleaseArraySlots(uint32_t position);
  template <typename Change>
  void ForEachHandleIndex(uint32_t exceptPosition, Change change);

  // One thread's own while it changes the list, read by any number otherwise.
  uint32_t paramCount = 0;
  // The list whose block the store operations append to. Always this one; the pointer belongs to
  // the kept layout of a list.
  FastHolderImpl* const owner = this;
  TQ::detail::HandleSlots handles;
};

namespace TQ::detail {

using ListRef = CountedRef<FastHolderImpl>;

/// What every result that means "no list" is copied from.
extern const _tag_HTQPARAMLIST g_nullParamList;

}  // namespace TQ::detail
