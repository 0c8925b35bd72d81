#include "size_class_heap.h"

#include <sys/mman.h>

#include <array>
#include <atomic>
#include <bit>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>
#include <thread>

namespace TQ::bench {
namespace {

constexpr size_t RANGE_SIZE = size_t{1} << 34;  // of addresses; pages are taken as they are touched
constexpr size_t SPAN_SIZE = 64 * 1024;
constexpr size_t SPAN_COUNT = RANGE_SIZE / SPAN_SIZE;
constexpr size_t LARGEST = 32 * 1024;
constexpr size_t SMALL_STEP = 16;
constexpr size_t SMALL_LIMIT = 128;
constexpr size_t SMALL_CLASSES = SMALL_LIMIT / SMALL_STEP;
constexpr size_t CLASS_COUNT = SMALL_CLASSES + 4 * 8;  // 128 to 32 KiB are eight doublings
constexpr size_t SHARD_COUNT = 16;

size_t ClassOf(size_t size) {
  if (size <= SMALL_LIMIT) return size == 0 ? 0 : (size - 1) / SMALL_STEP;
  const auto doubling = static_cast<size_t>(std::bit_width(size - 1)) - 8;  // 0 for 129 to 256
  const size_t quarter = (size - 1 - (SMALL_LIMIT << doubling)) >> (doubling + 5);
  return SMALL_CLASSES + 4 * doubling + quarter;
}

size_t SizeOf(size_t sizeClass) {
  if (sizeClass < SMALL_CLASSES) return (sizeClass + 1) * SMALL_STEP;
  const size_t doubling = (sizeClass - SMALL_CLASSES) / 4;
  const size_t quarter = (sizeClass - SMALL_CLASSES) % 4;
  return (SMALL_LIMIT << doubling) + ((quarter + 1) << (doubling + 5));
}

struct FreeBlock {
  FreeBlock* next;
};

class SpinLock {
 public:
  void Lock() {
    while (taken.exchange(true, std::memory_order_acquire)) {
      while (taken.load(std::memory_order_relaxed)) std::this_thread::yield();
    }
  }
  void Unlock() { taken.store(false, std::memory_order_release); }

 private:
  std::atomic<bool> taken = false;
};

/// The free blocks of one class in one shard, and what of its span was never given out.
struct Bin {
  SpinLock lock;
  FreeBlock* free = nullptr;
  uint8_t* fresh = nullptr;
  uint8_t* freshEnd = nullptr;
};

struct alignas(64) Shard {
  std::array<Bin, CLASS_COUNT> bins;
};

Shard g_shards[SHARD_COUNT];
uint8_t g_spanClasses[SPAN_COUNT];
std::atomic<size_t> g_spansTaken = 0;
std::atomic<uint32_t> g_threads = 0;
constinit thread_local uint32_t t_shard = UINT32_MAX;

uint8_t* ReserveRange() {
  void* range = mmap(nullptr, RANGE_SIZE, PROT_READ | PROT_WRITE,
                     MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (range == MAP_FAILED) std::abort();
  return static_cast<uint8_t*>(range);
}

uint8_t* Range() {
  static uint8_t* const range = ReserveRange();
  return range;
}

// Set before the first block is given out, and read by whoever has one.
uint8_t* const g_range = Range();

bool InRange(const void* block) {
  return reinterpret_cast<uintptr_t>(block) - reinterpret_cast<uintptr_t>(g_range) < RANGE_SIZE;
}

size_t ClassOfBlock(const void* block) {
  return g_spanClasses[static_cast<size_t>(static_cast<const uint8_t*>(block) - g_range) /
                       SPAN_SIZE];
}

Shard& OwnShard() {
  if (t_shard == UINT32_MAX) t_shard = g_threads.fetch_add(1) % SHARD_COUNT;
  return g_shards[t_shard];
}

bool TakeSpan(Bin& bin, size_t sizeClass) {
  const size_t span = g_spansTaken.fetch_add(1);
  if (span >= SPAN_COUNT) return false;
  g_spanClasses[span] = static_cast<uint8_t>(sizeClass);
  bin.fresh = g_range + span * SPAN_SIZE;
  bin.freshEnd = bin.fresh + SPAN_SIZE / SizeOf(sizeClass) * SizeOf(sizeClass);
  return true;
}

void* TakeFresh(Bin& bin, size_t sizeClass) {
  if (bin.fresh == bin.freshEnd && !TakeSpan(bin, sizeClass)) return nullptr;
  void* block = bin.fresh;
  bin.fresh += SizeOf(sizeClass);
  return block;
}

}  // namespace

void* ClassAllocate(size_t size) {
  if (size > LARGEST) return std::malloc(size);
  const size_t sizeClass = ClassOf(size);
  Bin& bin = OwnShard().bins[sizeClass];
  bin.lock.Lock();
  void* block = bin.free;
  if (block != nullptr) {
    bin.free = bin.free->next;
  } else {
    block = TakeFresh(bin, sizeClass);
  }
  bin.lock.Unlock();
  return block;
}

void ClassRelease(void* block) {
  if (!InRange(block)) return std::free(block);
  Bin& bin = OwnShard().bins[ClassOfBlock(block)];
  auto* const freed = ::new (block) FreeBlock;
  bin.lock.Lock();
  freed->next = bin.free;
  bin.free = freed;
  bin.lock.Unlock();
}

void* ClassReallocate(void* block, size_t size) {
  if (!InRange(block)) return std::realloc(block, size);
  const size_t room = SizeOf(ClassOfBlock(block));
  if (size <= room && (size == room || ClassOf(size) == ClassOf(room))) return block;
  void* moved = ClassAllocate(size);
  if (moved == nullptr) return nullptr;
  std::memcpy(moved, block, size < room ? size : room);
  ClassRelease(block);
  return moved;
}

}  // namespace TQ::bench
