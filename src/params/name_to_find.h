// Comparing the names of entries with one that is looked for.
#pragma once

#include "frame/little_endian.h"
#include "params/entry_layout.h"

#include <tq/memory_buffer.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace TQ::detail {

constexpr uint32_t NAME_OFFSET = 1;  ///< the name stands behind the valueOffset byte

/// A name that is looked for among entries. Most entries differ in their first bytes, so these are
/// compared as one word, next to the valueOffset byte that they share it with. What follows in a
/// name of usual length is compared as a second word, which ends with the name.
class NameToFind {
 public:
  NameToFind(const char* text, std::size_t length)
      : name(text), sizeWithZero(length + 1), wordWanted(FirstBytes() << (8 * NAME_OFFSET)) {
    constexpr uint64_t ALL = ~uint64_t{0};
    const std::size_t inWord = std::min<std::size_t>(sizeWithZero, IN_WORD);
    wordMask = (ALL >> (8 * (IN_WORD - inWord))) & (ALL << (8 * NAME_OFFSET));
    if (sizeWithZero > IN_WORD) tailWanted = LoadQword(name + sizeWithZero - QWORD_SIZE);
  }

  /// Whether `entry` has the name. Its end comes from the block, which a peer may have sent: it is
  /// looked for before `end` only.
  bool IsOf(const uint8_t* entry, const uint8_t* end) const {
    const auto available = static_cast<std::size_t>(end - entry);
    const bool whole = available >= NAME_OFFSET + sizeWithZero;
    if (available >= QWORD_SIZE) {
      if (((LoadQword(entry) ^ wordWanted) & wordMask) != 0) return false;
      if (whole) return HasRest(entry);
    }
    if (whole) return std::memcmp(entry + NAME_OFFSET, name, sizeWithZero) == 0;
    if (std::memcmp(entry + NAME_OFFSET, name, available - NAME_OFFSET) != 0) return false;
    throw TQMemoryBufferTpl2<0>::NoDataExeption();
  }

 private:
  static constexpr std::size_t IN_WORD = QWORD_SIZE - NAME_OFFSET;

  /// The name's first bytes, its zero included; of a name that goes on, one too many.
  uint64_t FirstBytes() const {
    if (sizeWithZero > IN_WORD) return LoadQword(name);
    if (sizeWithZero >= DWORD_SIZE) {
      const std::size_t rest = sizeWithZero - DWORD_SIZE;
      return LoadDword(name) | uint64_t{LoadDword(name + rest)} << (8 * rest);
    }
    uint64_t bytes = 0;
    for (std::size_t i = 0; i < sizeWithZero; ++i) {
      bytes |= uint64_t{static_cast<uint8_t>(name[i])} << (8 * i);
    }
    return bytes;
  }

  bool HasRest(const uint8_t* entry) const {
    if (sizeWithZero <= IN_WORD) return true;
    if (sizeWithZero <= IN_WORD + QWORD_SIZE) {
      return LoadQword(entry + NAME_OFFSET + sizeWithZero - QWORD_SIZE) == tailWanted;
    }
    return std::memcmp(entry + NAME_OFFSET, name, sizeWithZero) == 0;
  }

  const char* name;
  std::size_t sizeWithZero;
  uint64_t wordWanted;
  uint64_t wordMask = 0;
  uint64_t tailWanted = 0;
};

}  // namespace TQ::detail
