// The bytes of an entry in a list's block.
//
//   byte 0            valueOffset: from the entry's first byte to its type byte
//   byte 1 ...        the name, at least one zero byte, zero fill
//   byte H - 1        type (the first byte of the value)
//   byte H ...        payload, padded to a multiple of 4
//
// H is a multiple of 4, so every payload begins on a 4-byte boundary of the block. All words are
// little-endian.
#pragma once

#include <tq/types.h>

#include <cstddef>
#include <cstdint>

namespace TQ::detail {

/// The byte count brought up to a multiple of 4, without overflow.
constexpr uint64_t Padded(uint64_t byteCount) { return (byteCount + 3) & ~uint64_t{3}; }

/// H: the bytes of an entry's head, type byte included, for a name of `nameLength` bytes.
constexpr uint64_t HeadSize(uint64_t nameLength) { return (nameLength + 6) & ~uint64_t{3}; }

/// The code of an array of `element`.
constexpr uint8_t ArrayOf(_tag_PARAM_TYPES element) {
  return static_cast<uint8_t>(PT_ARRAY_FLAG | element);
}

constexpr uint32_t TYPE_SIZE = 1;   ///< the type byte
constexpr uint32_t DWORD_SIZE = 4;  ///< counts, lengths, offsets, indices, 32-bit values
constexpr uint32_t QWORD_SIZE = 8;  ///< 64-bit values

/// The size of the value at `value`, type byte included, of which `available` bytes may be read.
///
/// Throws DataDamaged for a type of no known code, and NoDataExeption where telling the size would
/// take a byte that is not there. The result may exceed `available`; the walk judges that.
uint64_t ValueSizeWithin(const uint8_t* value, uint64_t available);

}  // namespace TQ::detail
