// The library's heap over the size classes, in place of the library's own file.
#include "platform/heap.h"

#include "size_class_heap.h"

#include <algorithm>
#include <cstring>

namespace TQ::platform {

HeapHandle CreateHeap(uint64_t /*initialSize*/) { return 1; }

void PreferLowFragmentation(HeapHandle /*heap*/) {}

void* HeapAllocate(HeapHandle /*heap*/, uint64_t size) { return bench::ClassAllocate(size); }

void* HeapAllocateZeroed(HeapHandle /*heap*/, uint64_t size) {
  void* block = bench::ClassAllocate(size);
  if (block != nullptr) std::memset(block, 0, size);
  return block;
}

void* HeapReallocate(HeapHandle /*heap*/, void* block, uint64_t size) {
  return bench::ClassReallocate(block, std::max<uint64_t>(size, 1));
}

void HeapRelease(HeapHandle /*heap*/, void* block) { bench::ClassRelease(block); }

}  // namespace TQ::platform
