// The nested lists of a list, by index.
//
// Threads: as the list that owns the slots; there is no lock.
#pragma once

#include "frame/counted_ref.h"

#include <cstdint>

class FastHolderImpl;

namespace TQ::detail {

/// A vector of references to lists on the private heap, with the growth steps of the list store:
/// from empty the capacities are 1, 2, 3, 4, 6, 9, 13.
class HandleSlots {
 public:
  using Slot = CountedRef<FastHolderImpl>;

  HandleSlots() = default;
  ~HandleSlots();
  HandleSlots(const HandleSlots&) = delete;
  HandleSlots& operator=(const HandleSlots&) = delete;

  uint32_t Size() const { return size; }
  uint32_t Capacity() const { return capacity; }
  bool Empty() const { return size == 0; }

  /// `index` must be below Size. The slot may be empty.
  Slot& operator[](uint32_t index) { return slots[index]; }
  const Slot& operator[](uint32_t index) const { return slots[index]; }

  /// Throws std::bad_alloc when the private heap is exhausted.
  void Push(Slot list);

  /// Makes `count` empty slots at once, for a vector that has none. False, with nothing changed,
  /// when the memory cannot be had. Memory of slots that are never filled is never touched.
  bool MakeEmptySlots(uint32_t count);

  /// Fills a slot that MakeEmptySlots made. Slots are filled from the first on.
  void Fill(uint32_t index, Slot list);

  /// Takes references to the lists of `other`, slot by slot, in place of its own. Throws
  /// std::bad_alloc.
  void CopyFrom(const HandleSlots& other);

  /// Moves slot `index` to the end; the others keep their order.
  void RotateToEnd(uint32_t index);

  /// Releases the last slot. There must be one.
  void DropLast();

  /// Releases every slot and keeps the storage.
  void Clear();

  void Swap(HandleSlots& other);

 private:
  void GrowForOne();

  uint32_t size = 0;
  uint32_t capacity = 0;
  uint32_t used = 0;  ///< slots from here on have never been filled
  Slot* slots = nullptr;
};

}  // namespace TQ::detail
