// The heap on which lists, messages, queue nodes and the containers of a session live.
//
// Threads: safe from every thread. The heap is made at library load and never destroyed.
#pragma once

#include "platform/heap.h"

#include <tq/diagnostics.h>

#include <cstddef>
#include <new>

namespace TQ::detail {

/// The heap behind TQAllocate. Set once, at library load.
extern platform::HeapHandle g_heap;

/// Makes the heap; called by the library's load alone.
platform::HeapHandle CreatePrivateHeap();

/// As TQAllocate, with every byte zero.
void* AllocateZeroed(uint64_t size);

/// The allocator of the containers that live on the private heap.
///
/// A request for no elements is one for one element. Exhaustion is reported as std::bad_alloc, as
/// the standard containers require.
template <typename T>
class TQHeapAllocator {
 public:
  using value_type = T;

  TQHeapAllocator() = default;
  template <typename Other>
  TQHeapAllocator(const TQHeapAllocator<Other>&) {}  // NOLINT(google-explicit-constructor): rebind

  T* allocate(std::size_t count) {
    if (count == 0) count = 1;
    if (count > static_cast<std::size_t>(-1) / sizeof(T)) throw std::bad_alloc();
    void* block = TQAllocate(count * sizeof(T));
    if (block == nullptr) throw std::bad_alloc();
    return static_cast<T*>(block);
  }
  void deallocate(T* block, std::size_t) { TQFree(block); }

  friend bool operator==(const TQHeapAllocator&, const TQHeapAllocator&) { return true; }
};

/// Gives a class operator new and delete on the private heap. The result of a new expression is
/// null when the heap is exhausted, and the constructor is then skipped.
struct OnPrivateHeap {
  static void* operator new(std::size_t size) noexcept { return TQAllocate(size); }
  static void operator delete(void* block) { TQFree(block); }
};

}  // namespace TQ::detail
