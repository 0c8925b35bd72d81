#include "frame/private_heap.h"

using TQ::detail::g_heap;
namespace platform = TQ::platform;

namespace TQ::detail {

platform::HeapHandle CreatePrivateHeap() {
  constexpr uint64_t INITIAL_SIZE = 0x100000;
  const platform::HeapHandle heap = platform::CreateHeap(INITIAL_SIZE);
  platform::PreferLowFragmentation(heap);
  return heap;
}

void* AllocateZeroed(uint64_t size) { return platform::HeapAllocateZeroed(g_heap, size); }

}  // namespace TQ::detail

void* TQAllocate(uint64_t size) { return platform::HeapAllocate(g_heap, size); }

void TQFree(void* ptr) {
  if (ptr != nullptr) platform::HeapRelease(g_heap, ptr);
}

void* TQRealloc(void* ptr, uint64_t size) {
  if (ptr == nullptr) return TQAllocate(size);
  return platform::HeapReallocate(g_heap, ptr, size);
}
