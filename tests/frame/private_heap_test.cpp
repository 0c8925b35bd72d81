#include "frame/private_heap.h"

#include <tq/diagnostics.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <deque>
#include <functional>
#include <map>
#include <new>
#include <thread>
#include <utility>
#include <vector>

namespace TQ::detail {
namespace {

constexpr uint64_t TOO_MUCH = uint64_t{1} << 62;

TEST(PrivateHeap, ExistsFromTheMomentOfLoading) { EXPECT_NE(g_heap, 0); }

TEST(PrivateHeap, AllocatesBlocksThatCanBeUsedWhole) {
  for (const uint64_t size : {1u, 4u, 7u, 100u, 4096u, 0x100000u, 0x400000u}) {
    auto* block = static_cast<uint8_t*>(TQAllocate(size));
    ASSERT_NE(block, nullptr) << size;
    std::memset(block, 0xA5, size);
    EXPECT_EQ(block[size - 1], 0xA5);
    TQFree(block);
  }
}

TEST(PrivateHeap, GivesABlockOfItsOwnForNoBytes) {
  void* const one = TQAllocate(0);
  void* const other = TQAllocate(0);
  EXPECT_NE(one, nullptr);
  EXPECT_NE(other, nullptr);
  EXPECT_NE(one, other);
  TQFree(one);
  TQFree(other);
}

TEST(PrivateHeap, AlignsBlocksForEveryType) {
  for (uint64_t size = 1; size < 64; ++size) {
    void* const block = TQAllocate(size);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(block) % alignof(std::max_align_t), 0u) << size;
    TQFree(block);
  }
}

TEST(PrivateHeap, IsNullWhenItIsExhausted) {
  EXPECT_EQ(TQAllocate(TOO_MUCH), nullptr);
  EXPECT_EQ(TQAllocate(0xFFFFFFFFFFFFFFFF), nullptr);
  EXPECT_EQ(TQRealloc(nullptr, TOO_MUCH), nullptr);
  EXPECT_EQ(AllocateZeroed(TOO_MUCH), nullptr);
}

TEST(PrivateHeap, IgnoresNullWhenItFrees) { TQFree(nullptr); }

TEST(PrivateHeap, ReallocationOfNullAllocates) {
  auto* block = static_cast<uint8_t*>(TQRealloc(nullptr, 16));
  ASSERT_NE(block, nullptr);
  std::memset(block, 1, 16);
  TQFree(block);
  void* const empty = TQRealloc(nullptr, 0);
  EXPECT_NE(empty, nullptr);
  TQFree(empty);
}

TEST(PrivateHeap, ReallocationKeepsTheContents) {
  auto* block = static_cast<uint8_t*>(TQAllocate(4));
  std::copy_n("abcd", 4, block);
  block = static_cast<uint8_t*>(TQRealloc(block, 0x100000));
  ASSERT_NE(block, nullptr);
  EXPECT_EQ(std::memcmp(block, "abcd", 4), 0);
  block[0xFFFFF] = 1;
  block = static_cast<uint8_t*>(TQRealloc(block, 2));
  ASSERT_NE(block, nullptr);
  EXPECT_EQ(std::memcmp(block, "ab", 2), 0);
  TQFree(block);
}

TEST(PrivateHeap, ReallocationToNoBytesFreesNothing) {
  void* const block = TQAllocate(100);
  void* const shrunk = TQRealloc(block, 0);
  ASSERT_NE(shrunk, nullptr);
  // The block can grow again, and is freed once.
  void* const grown = TQRealloc(shrunk, 100);
  ASSERT_NE(grown, nullptr);
  std::memset(grown, 0, 100);
  TQFree(grown);
}

TEST(PrivateHeap, AFailedReallocationLeavesTheBlockAsItWas) {
  auto* block = static_cast<uint8_t*>(TQAllocate(4));
  std::copy_n("abcd", 4, block);
  EXPECT_EQ(TQRealloc(block, TOO_MUCH), nullptr);
  EXPECT_EQ(TQRealloc(block, 0xFFFFFFFFFFFFFFFF), nullptr);
  EXPECT_EQ(std::memcmp(block, "abcd", 4), 0);
  TQFree(block);
}

TEST(PrivateHeap, ZeroedMemoryIsZeroAlsoWhereOtherBytesStood) {
  for (int round = 0; round < 10; ++round) {
    auto* block = static_cast<uint8_t*>(AllocateZeroed(1000));
    ASSERT_NE(block, nullptr);
    for (int i = 0; i < 1000; ++i) ASSERT_EQ(block[i], 0u);
    std::memset(block, 0xFF, 1000);
    TQFree(block);
  }
  void* const empty = AllocateZeroed(0);
  EXPECT_NE(empty, nullptr);
  TQFree(empty);
}

TEST(PrivateHeap, IsSafeFromAllThreads) {
  // Blocks are freed on other threads than those that made them.
  std::vector<std::thread> threads;
  std::vector<std::vector<uint8_t*>> made(4);
  for (size_t t = 0; t < made.size(); ++t) {
    threads.emplace_back([&mine = made[t], t] {
      for (uint64_t i = 0; i < 1000; ++i) {
        const uint64_t size = 1 + (i * 37 + t) % 500;
        auto* block = static_cast<uint8_t*>(TQAllocate(size));
        std::memset(block, static_cast<int>(t), size);
        block = static_cast<uint8_t*>(TQRealloc(block, size * 2));
        mine.push_back(block);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  threads.clear();
  std::vector<uint32_t> wrong(made.size(), 0);
  for (size_t t = 0; t < made.size(); ++t) {
    threads.emplace_back([&others = made[(t + 1) % made.size()], &failures = wrong[t],
                          value = (t + 1) % made.size()] {
      for (uint8_t* block : others) {
        if (block[0] != value) ++failures;
        TQFree(block);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(wrong, std::vector<uint32_t>(4, 0));
}

// ---- containers and classes on the heap ---------------------------------------------------------

TEST(PrivateHeap, ItsAllocatorServesTheContainers) {
  std::vector<uint32_t, TQHeapAllocator<uint32_t>> vector;
  for (uint32_t i = 0; i < 1000; ++i) vector.push_back(i);
  EXPECT_EQ(vector[999], 999u);
  std::map<int, int, std::less<>, TQHeapAllocator<std::pair<const int, int>>> map;
  for (int i = 0; i < 100; ++i) map[i] = i;
  EXPECT_EQ(map.at(99), 99);
  std::deque<int, TQHeapAllocator<int>> deque(1000, 7);
  EXPECT_EQ(deque.back(), 7);
}

TEST(PrivateHeap, ItsAllocatorGivesOneElementForNone) {
  TQHeapAllocator<uint64_t> allocator;
  uint64_t* const one = allocator.allocate(0);
  ASSERT_NE(one, nullptr);
  *one = 0x0123456789ABCDEF;  // a sanitizer sees it if there is no room
  EXPECT_EQ(*one, 0x0123456789ABCDEFu);
  allocator.deallocate(one, 0);
}

TEST(PrivateHeap, ItsAllocatorThrowsWhenTheHeapIsExhausted) {
  TQHeapAllocator<uint64_t> allocator;
  EXPECT_THROW(allocator.allocate(TOO_MUCH), std::bad_alloc);
  EXPECT_THROW(allocator.allocate(TOO_MUCH / sizeof(uint64_t)), std::bad_alloc);
  // In 64 bits this number of bytes is 8.
  EXPECT_THROW(allocator.allocate((uint64_t{1} << 61) + 1), std::bad_alloc);
}

TEST(PrivateHeap, ItsAllocatorsAreAllTheSame) {
  const TQHeapAllocator<int> one;
  const TQHeapAllocator<int> other(TQHeapAllocator<char>{});
  EXPECT_TRUE(one == other);
}

uint32_t g_constructed = 0;

struct Small : OnPrivateHeap {
  Small() { ++g_constructed; }
  uint32_t value = 7;
};

/// Too large for any memory.
struct Huge : OnPrivateHeap {
  Huge() { ++g_constructed; }
  uint8_t bytes[size_t{1} << 47];
};

TEST(PrivateHeap, ClassesOnItAreMadeAndFreedThere) {
  const uint32_t before = g_constructed;
  auto* small = new Small();
  EXPECT_EQ(small->value, 7u);
  EXPECT_EQ(g_constructed, before + 1);
  delete small;
}

TEST(PrivateHeap, ClassesOnItAreNullAndNotConstructedWhenItIsExhausted) {
  const uint32_t before = g_constructed;
  EXPECT_EQ(new Huge(), nullptr);
  EXPECT_EQ(g_constructed, before);
  EXPECT_EQ(OnPrivateHeap::operator new(TOO_MUCH), nullptr);
}

}  // namespace
}  // namespace TQ::detail
