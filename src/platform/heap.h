// The private heap's door to the operating system.
//
// Threads: every operation may be called from any thread at any time.
// Failure: a null pointer, and nothing else; a failed reallocation leaves the old block as it was.
#pragma once

#include <cstdint>

namespace TQ::platform {

/// A heap of the operating system. 0 stands for the heap that could not be made.
using HeapHandle = std::intptr_t;

/// Makes a growable heap that is safe from every thread and is never torn down.
HeapHandle CreateHeap(uint64_t initialSize);

/// Asks for the low-fragmentation mode. Where the platform has no such mode this does nothing.
void PreferLowFragmentation(HeapHandle heap);

/// `size` may be 0: the result is then a block of its own all the same.
void* HeapAllocate(HeapHandle heap, uint64_t size);

/// As HeapAllocate, with every byte zero. Large blocks come untouched from the system, so that
/// their pages cost memory only when they are used.
void* HeapAllocateZeroed(HeapHandle heap, uint64_t size);

/// `block` must not be null. A `size` of 0 keeps a block; it does not free.
void* HeapReallocate(HeapHandle heap, void* block, uint64_t size);

/// `block` must not be null.
void HeapRelease(HeapHandle heap, void* block);

}  // namespace TQ::platform
