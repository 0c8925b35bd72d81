// Reading a value that a peer may have sent.
//
// Threads: as the list that holds the block.
#pragma once

#include "frame/little_endian.h"
#include "params/entry_layout.h"

#include <tq/memory_buffer.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace TQ::detail {

/// The bytes of a value behind its type byte, up to the end of the block. A text, length, count or
/// table that passes that end throws NoDataExeption. Where the value itself ends is not asked.
class BlockReader {
 public:
  BlockReader(const uint8_t* start, const uint8_t* blockEnd) : begin(start), end(blockEnd) {}

  BlockReader From(uint64_t offset) const { return {Bytes(offset, 0), end}; }

  const uint8_t* Bytes(uint64_t offset, uint64_t count) const {
    const auto available = static_cast<uint64_t>(end - begin);
    if (offset > available || available - offset < count) {
      throw TQMemoryBufferTpl2<0>::NoDataExeption();
    }
    return begin + offset;
  }

  uint32_t Dword(uint64_t offset) const { return LoadDword(Bytes(offset, DWORD_SIZE)); }
  uint64_t Qword(uint64_t offset) const { return LoadQword(Bytes(offset, QWORD_SIZE)); }

  const char* Text() const {
    const auto available = static_cast<std::size_t>(end - begin);
    if (std::memchr(begin, 0, available) == nullptr) throw TQMemoryBufferTpl2<0>::NoDataExeption();
    return reinterpret_cast<const char*>(begin);
  }

  /// What an array has behind its count: `count` elements of `elementSize` bytes.
  const uint8_t* Elements(uint32_t count, uint32_t elementSize) const {
    return Bytes(DWORD_SIZE, uint64_t{count} * elementSize);
  }

  /// From element `index` of an offset array of `count` elements on.
  BlockReader Element(uint32_t count, uint32_t index) const {
    const uint64_t tableEnd = DWORD_SIZE * (uint64_t{count} + 1);
    return From(tableEnd + Dword(DWORD_SIZE * (uint64_t{index} + 1)));
  }

 private:
  const uint8_t* begin;
  const uint8_t* end;
};

}  // namespace TQ::detail
