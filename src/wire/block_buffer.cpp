// The growing block of a list: exact growth, entry heads, and the way onto a channel and off it.
#include "frame/little_endian.h"
#include "params/entry_layout.h"
#include "transport/transport_channel.h"
#include "wire/frame_layout.h"

#include <tq/diagnostics.h>
#include <tq/memory_buffer.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <new>

using namespace TQ::detail;

namespace {

/// Copies as memcpy does, but names and short texts by words that may overlap, without a call.
void CopyBytes(uint8_t* target, const void* source, std::size_t count) {
  const auto* from = static_cast<const uint8_t*>(source);
  if (count > std::size_t{2} * QWORD_SIZE) {
    std::memcpy(target, from, count);
  } else if (count >= QWORD_SIZE) {
    const uint64_t last = LoadQword(from + count - QWORD_SIZE);
    StoreQword(target, LoadQword(from));
    StoreQword(target + count - QWORD_SIZE, last);
  } else if (count >= DWORD_SIZE) {
    const uint32_t last = LoadDword(from + count - DWORD_SIZE);
    StoreDword(target, LoadDword(from));
    StoreDword(target + count - DWORD_SIZE, last);
  } else {
    for (std::size_t i = 0; i < count; ++i) target[i] = from[i];
  }
}

}  // namespace

/// Makes room for `byteCount` more bytes and gives the place where they begin; the size stays.
///
/// Intended: the capacity becomes exactly what is needed, with no slack, so that a list costs the
/// memory of its image and nothing more.
template <unsigned N>
uint8_t* TQMemoryBufferTpl2<N>::Grow(uint32_t byteCount) {
  const uint64_t needed = uint64_t{size} + byteCount;
  if (needed > UINT32_MAX) throw std::bad_alloc();
  if (needed > capacity) {
    void* grown = TQRealloc(data, needed);
    if (grown == nullptr) throw std::bad_alloc();
    data = static_cast<uint8_t*>(grown);
    capacity = static_cast<uint32_t>(needed);
  }
  return data + size;
}

/// The place of `byteCount` bytes that all lie in the block.
template <unsigned N>
uint8_t* TQMemoryBufferTpl2<N>::At(uint32_t position, uint32_t byteCount) {
  if (uint64_t{position} + byteCount > size) throw NoDataExeption();
  return data + position;
}

template <unsigned N>
void TQMemoryBufferTpl2<N>::AppendName(const char* name, uint8_t type) {
  AppendName(name, std::strlen(name), type);
}

template <unsigned N>
void TQMemoryBufferTpl2<N>::AppendName(const char* name, uint64_t nameLength, uint8_t type) {
  const uint64_t headSize = HeadSize(nameLength);
  if (headSize > UINT32_MAX) throw std::bad_alloc();
  uint8_t* head = Grow(static_cast<uint32_t>(headSize));
  // The zeros are at most four bytes in front of the type: the name then covers what is too much.
  if (headSize >= QWORD_SIZE) {
    StoreQword(head + headSize - QWORD_SIZE, uint64_t{type} << 56);
  } else {
    StoreDword(head, uint32_t{type} << 24);
  }
  // Intended: the offset is one byte wide and nothing checks it. A name above 253 bytes keeps the
  // low byte alone, and its list reads back wrong from there on.
  head[0] = static_cast<uint8_t>(headSize - 1);
  CopyBytes(head + 1, name, static_cast<std::size_t>(nameLength));
  size += static_cast<uint32_t>(headSize);
}

template <unsigned N>
void TQMemoryBufferTpl2<N>::AppendAligned(const void* source, uint32_t length) {
  const uint64_t padded = Padded(length);
  if (padded > UINT32_MAX) throw std::bad_alloc();
  if (padded == 0) return;
  uint8_t* place = Grow(static_cast<uint32_t>(padded));
  StoreDword(place + padded - DWORD_SIZE, 0);
  CopyBytes(place, source, length);
  size += static_cast<uint32_t>(padded);
}

template <unsigned N>
void TQMemoryBufferTpl2<N>::AppendDword(uint32_t value) {
  StoreDword(Grow(DWORD_SIZE), value);
  size += DWORD_SIZE;
}

/// Reads exactly `count` bytes behind the block's end and gives the channel's result. The block
/// grows before the read, so a failed read leaves the larger capacity; a block that cannot grow so
/// far is a failed read.
template <unsigned N>
int32_t TQMemoryBufferTpl2<N>::AppendFromChannel(ITransportChannel& channel, uint32_t count) {
  uint8_t* place = nullptr;
  try {
    place = Grow(count);
  } catch (const std::bad_alloc&) {
    return -1;
  }
  const int32_t result = channel.Receive(place, count);
  if (result >= 0) size += count;
  return result;
}

/// Writes the whole block, then the descriptor of the next one: the bytes written, or negative. A
/// sum that 31 bits cannot hold stays at the largest, since a negative one would be a failure, as
/// the channel's result for a block of 2 GiB and more is.
template <unsigned N>
int32_t TQMemoryBufferTpl2<N>::WriteWithDescriptor(ITransportChannel& channel, uint32_t nextSize,
                                                   uint32_t nextCount) const {
  const int32_t blockResult = channel.Send(data, size);
  if (blockResult < 0) return blockResult;
  uint8_t descriptor[DESCRIPTOR_SIZE];
  StoreDword(descriptor + DESCRIPTOR_BLOCK_SIZE, nextSize);
  StoreDword(descriptor + DESCRIPTOR_HANDLE_COUNT, nextCount);
  if (channel.Send(descriptor, DESCRIPTOR_SIZE) < 0) return -1;
  const int64_t written = int64_t{blockResult} + DESCRIPTOR_SIZE;
  return static_cast<int32_t>(std::min<int64_t>(written, INT32_MAX));
}

template class TQMemoryBufferTpl2<0>;
