#include "platform/heap.h"

#include "support/process_info.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>

namespace TQ::platform {
namespace {

constexpr uint64_t BEYOND_ADDRESSES = uint64_t{1} << 63;

HeapHandle MakeHeap() {
  const HeapHandle heap = CreateHeap(0x100000);
  PreferLowFragmentation(heap);
  return heap;
}

TEST(Heap, CanBeMade) { EXPECT_NE(MakeHeap(), 0); }

TEST(Heap, GivesDifferentBlocksAlsoForNoBytes) {
  const HeapHandle heap = MakeHeap();
  void* const one = HeapAllocate(heap, 0);
  void* const other = HeapAllocate(heap, 0);
  void* const zeroed = HeapAllocateZeroed(heap, 0);
  EXPECT_NE(one, nullptr);
  EXPECT_NE(other, nullptr);
  EXPECT_NE(zeroed, nullptr);
  EXPECT_NE(one, other);
  HeapRelease(heap, one);
  HeapRelease(heap, other);
  HeapRelease(heap, zeroed);
}

TEST(Heap, KeepsABlockThatIsReallocatedToNoBytes) {
  const HeapHandle heap = MakeHeap();
  void* const block = HeapReallocate(heap, HeapAllocate(heap, 64), 0);
  ASSERT_NE(block, nullptr);
  HeapRelease(heap, block);
}

TEST(Heap, KeepsTheContentsUpToTheSmallerSize) {
  const HeapHandle heap = MakeHeap();
  void* block = HeapAllocate(heap, 8);
  std::memcpy(block, "12345678", 8);
  for (const uint64_t size : {uint64_t{9}, uint64_t{0x200000}, uint64_t{8}}) {
    block = HeapReallocate(heap, block, size);
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(std::memcmp(block, "12345678", 8), 0);
  }
  HeapRelease(heap, block);
}

TEST(Heap, RefusesWhatNoAddressCanReach) {
  const HeapHandle heap = MakeHeap();
  for (const uint64_t size :
       {BEYOND_ADDRESSES, BEYOND_ADDRESSES + 1, std::numeric_limits<uint64_t>::max()}) {
    EXPECT_EQ(HeapAllocate(heap, size), nullptr);
    EXPECT_EQ(HeapAllocateZeroed(heap, size), nullptr);
    void* const block = HeapAllocate(heap, 4);
    std::memcpy(block, "abcd", 4);
    EXPECT_EQ(HeapReallocate(heap, block, size), nullptr);
    EXPECT_EQ(std::memcmp(block, "abcd", 4), 0);
    HeapRelease(heap, block);
  }
}

constexpr uint64_t LARGE = uint64_t{1} << 30;

/// Memory that becomes resident when `allocate` makes a block and `release` has not freed it yet.
template <typename Allocate, typename Release>
uint64_t ResidentCost(Allocate allocate, Release release) {
  const uint64_t before = test::ResidentBytes();
  EXPECT_NE(before, 0u);
  void* const block = allocate();
  EXPECT_NE(block, nullptr);
  const uint64_t after = test::ResidentBytes();
  if (block != nullptr) {
    const auto* bytes = static_cast<const uint8_t*>(block);
    EXPECT_EQ(bytes[0] + bytes[LARGE / 2] + bytes[LARGE - 1], 0);
    release(block);
  }
  return after > before ? after - before : 0;
}

TEST(Heap, LargeZeroedBlocksCostNoMemoryBeforeTheyAreUsed) {
  const HeapHandle heap = MakeHeap();
  // Nothing, unless a sanitizer's allocator writes the zeros itself.
  const uint64_t unavoidable =
      ResidentCost([] { return std::calloc(1, LARGE); }, [](void* block) { std::free(block); });
  const uint64_t cost = ResidentCost([&] { return HeapAllocateZeroed(heap, LARGE); },
                                     [&](void* block) { HeapRelease(heap, block); });
  EXPECT_LT(cost, unavoidable + LARGE / 4);
}

}  // namespace
}  // namespace TQ::platform
