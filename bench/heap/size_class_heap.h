// A heap of size classes, to measure whether the private heap should be one. It is no part of the
// library.
//
// Sizes up to 32 KiB are rounded up to a class: multiples of 16 up to 128, then four classes to
// each doubling. A range of addresses is reserved once, and spans of 64 KiB are taken from it; a
// span belongs to one class, so that a block's class follows from its address. Free blocks wait in
// shards, of which each thread uses one, with a lock a class. A block that grows within its class
// stays where it is. Larger blocks come from the C library.
//
// Threads: any. No thread has anything to clean up when it ends.
#pragma once

#include <cstddef>

namespace TQ::bench {

void* ClassAllocate(size_t size);
void* ClassReallocate(void* block, size_t size);
void ClassRelease(void* block);

}  // namespace TQ::bench
