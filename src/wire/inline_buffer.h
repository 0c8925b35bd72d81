// TQMemoryBufferTpl: a byte buffer that needs the heap only when it outgrows its inline storage.
#pragma once

#include "frame/private_heap.h"
#include "params/entry_layout.h"

#include <cstdint>
#include <cstring>
#include <new>

/// A buffer with N bytes of inline storage, and a block on the private heap beyond that.
///
/// One thread's own. It never shrinks. Reading at or beyond `size` throws NoDataExeption,
/// exhaustion of the heap std::bad_alloc.
///
/// Only AppendAligned moves `size`. What is written into reserved room without it can be read
/// through Data, but does not survive the next growth, which takes `size` bytes along.
template <unsigned N>
class TQMemoryBufferTpl {
 public:
  struct NoDataExeption {};

  TQMemoryBufferTpl() = default;
  ~TQMemoryBufferTpl() {
    if (data != inlineStorage) TQFree(data);
  }
  TQMemoryBufferTpl(const TQMemoryBufferTpl&) = delete;
  TQMemoryBufferTpl& operator=(const TQMemoryBufferTpl&) = delete;

  uint64_t Size() const { return size; }
  uint64_t Capacity() const { return capacity; }
  const uint8_t* Data() const { return data; }

  /// Makes room for `byteCount` bytes at `position` and gives the buffer's first byte. A grown
  /// buffer has N bytes to spare.
  uint8_t* Reserve(uint64_t position, uint64_t byteCount) {
    if (position + byteCount <= capacity) return data;
    const uint64_t wanted = position + byteCount + N;
    const bool wasInline = data == inlineStorage;
    void* grown = TQRealloc(wasInline ? nullptr : data, wanted);
    if (grown == nullptr) throw std::bad_alloc();
    if (wasInline) std::memcpy(grown, inlineStorage, static_cast<std::size_t>(size));
    data = static_cast<uint8_t*>(grown);
    capacity = wanted;
    return data;
  }

  /// Appends the bytes, and zero bytes up to a multiple of 4.
  void AppendAligned(const void* source, uint32_t length) {
    const uint64_t padded = TQ::detail::Padded(length);
    uint8_t* place = Reserve(size, padded) + size;
    if (length != 0) std::memcpy(place, source, length);
    std::memset(place + length, 0, static_cast<std::size_t>(padded - length));
    size += padded;
  }

  /// The 32-bit word at `position`.
  uint32_t DwordAt(uint64_t position) const {
    if (position >= size || size - position < sizeof(uint32_t)) throw NoDataExeption();
    uint32_t value;
    std::memcpy(&value, data + position, sizeof value);
    return value;
  }

 private:
  uint64_t size = 0;
  uint64_t capacity = N;
  uint8_t inlineStorage[N];
  uint8_t* data = inlineStorage;
};
