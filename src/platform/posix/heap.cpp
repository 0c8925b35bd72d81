// The private heap over the C library's allocator, which already is one growable heap with locks
// of its own. The handle only tells that the heap exists.
#include "platform/heap.h"

#include <algorithm>
#include <cstdlib>
#include <limits>

namespace TQ::platform {
namespace {

constexpr HeapHandle PROCESS_HEAP = 1;

/// A request that the address type cannot express must fail instead of wrapping around.
bool Fits(uint64_t size) { return size <= std::numeric_limits<std::ptrdiff_t>::max(); }

}  // namespace

HeapHandle CreateHeap(uint64_t /*initialSize*/) { return PROCESS_HEAP; }

void PreferLowFragmentation(HeapHandle /*heap*/) {}

void* HeapAllocate(HeapHandle /*heap*/, uint64_t size) {
  return Fits(size) ? std::malloc(static_cast<std::size_t>(size)) : nullptr;
}

void* HeapAllocateZeroed(HeapHandle /*heap*/, uint64_t size) {
  return Fits(size) ? std::calloc(1, static_cast<std::size_t>(size)) : nullptr;
}

void* HeapReallocate(HeapHandle /*heap*/, void* block, uint64_t size) {
  if (!Fits(size)) return nullptr;
  // realloc(block, 0) frees the block; the contract here keeps one.
  return std::realloc(block, static_cast<std::size_t>(std::max<uint64_t>(size, 1)));
}

void HeapRelease(HeapHandle /*heap*/, void* block) { std::free(block); }

}  // namespace TQ::platform
