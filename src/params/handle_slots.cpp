#include "params/handle_slots.h"

#include "frame/private_heap.h"
#include "params/list_store.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <utility>

namespace TQ::detail {

// Empty slots are made by zeroing memory, and slots move by copying their bytes.
static_assert(sizeof(HandleSlots::Slot) == sizeof(void*));

HandleSlots::~HandleSlots() {
  Clear();
  TQFree(slots);
}

void HandleSlots::GrowForOne() {
  const uint64_t wanted = std::max<uint64_t>(uint64_t{capacity} + capacity / 2, uint64_t{size} + 1);
  if (wanted > UINT32_MAX) throw std::bad_alloc();
  void* grown = TQAllocate(wanted * sizeof(Slot));
  if (grown == nullptr) throw std::bad_alloc();
  if (size != 0) std::memcpy(grown, static_cast<const void*>(slots), size * sizeof(Slot));
  TQFree(slots);
  slots = static_cast<Slot*>(grown);
  capacity = static_cast<uint32_t>(wanted);
}

void HandleSlots::Push(Slot list) {
  if (size == capacity) GrowForOne();
  ::new (static_cast<void*>(slots + size)) Slot(std::move(list));
  used = ++size;
}

bool HandleSlots::MakeEmptySlots(uint32_t count) {
  void* zeroed = AllocateZeroed(uint64_t{count} * sizeof(Slot));
  if (zeroed == nullptr) return false;
  Clear();
  TQFree(slots);
  slots = static_cast<Slot*>(zeroed);
  size = capacity = count;
  used = 0;
  return true;
}

void HandleSlots::Fill(uint32_t index, Slot list) {
  used = std::max(used, index + 1);
  slots[index] = std::move(list);
}

void HandleSlots::CopyFrom(const HandleSlots& other) {
  if (other.size == 0) return Clear();
  if (!MakeEmptySlots(other.size)) throw std::bad_alloc();
  for (uint32_t i = 0; i < other.used; ++i) Fill(i, other.slots[i]);
}

void HandleSlots::RotateToEnd(uint32_t index) {
  for (uint32_t i = index; i + 1 < size; ++i) std::swap(slots[i], slots[i + 1]);
}

void HandleSlots::DropLast() {
  --size;
  used = std::min(used, size);
  slots[size].Reset();
}

void HandleSlots::Clear() {
  // A peer may announce far more lists than it sends: slots that were never filled are not touched.
  for (uint32_t i = 0; i < used; ++i) slots[i].Reset();
  size = used = 0;
}

void HandleSlots::Swap(HandleSlots& other) {
  std::swap(size, other.size);
  std::swap(capacity, other.capacity);
  std::swap(used, other.used);
  std::swap(slots, other.slots);
}

}  // namespace TQ::detail
