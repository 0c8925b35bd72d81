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

#include "frame/little_endian.h"

#include <tq/types.h>

#include <array>
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

/// Whether `type` is the code of a value that is no array.
constexpr bool IsSingleType(uint8_t type) { return type >= PT_STRING && type <= PT_BINARY; }

/// Whether `type` is the code of an array.
constexpr bool IsArrayType(uint8_t type) {
  return type >= ArrayOf(PT_STRING) && type <= ArrayOf(PT_BINARY);
}

constexpr uint32_t TYPE_SIZE = 1;   ///< the type byte
constexpr uint32_t DWORD_SIZE = 4;  ///< counts, lengths, offsets, indices, 32-bit values
constexpr uint32_t QWORD_SIZE = 8;  ///< 64-bit values

/// StepOver in every case, byte by byte.
uint64_t StepOverSlowly(const uint8_t* entry, const uint8_t* end);

/// The size of the value at `value`, type byte included, of which `available` bytes may be read.
///
/// Throws DataDamaged for a type of no known code, and NoDataExeption where telling the size would
/// take a byte that is not there. The result may exceed `available`; the walk judges that.
uint64_t ValueSizeWithin(const uint8_t* value, uint64_t available);

/// How the size of a value's payload comes about: `fixed` bytes, and the first word times `scale`,
/// padded. With `fixed` 0 it takes a closer look.
struct StepRule {
  uint8_t fixed;
  uint8_t scale;
};

constexpr std::array<StepRule, 256> MakeStepRules() {
  std::array<StepRule, 256> rules{};
  rules[PT_INT32] = {DWORD_SIZE, 0};
  rules[PT_INT64] = {QWORD_SIZE, 0};
  rules[PT_PARAMHANDLE] = {DWORD_SIZE, 0};
  rules[PT_BINARY] = {DWORD_SIZE, 1};
  rules[ArrayOf(PT_INT32)] = {DWORD_SIZE, DWORD_SIZE};
  rules[ArrayOf(PT_INT64)] = {DWORD_SIZE, QWORD_SIZE};
  rules[ArrayOf(PT_PARAMHANDLE)] = {DWORD_SIZE, DWORD_SIZE};
  return rules;
}

inline constexpr std::array<StepRule, 256> STEP_RULES = MakeStepRules();

/// Padded size of the text at `text`, terminator included, or 0 when its end is too near to `end`
/// to be looked for in words. The first zero byte of a word is found as in "Hacker's Delight", 6-1:
/// the lowest mark is right, those above it may not be.
inline uint64_t PaddedTextSize(const uint8_t* text, const uint8_t* end) {
  const uint8_t* word = text;
  for (; static_cast<uint64_t>(end - word) >= QWORD_SIZE; word += QWORD_SIZE) {
    const uint64_t bytes = LoadQword(word);
    const uint64_t zeros = (bytes - 0x0101010101010101u) & ~bytes & 0x8080808080808080u;
    if (zeros == 0) continue;
    const auto before = static_cast<uint64_t>(word - text);
    return static_cast<uint32_t>(zeros) != 0 ? before + DWORD_SIZE : before + QWORD_SIZE;
  }
  if (static_cast<uint64_t>(end - word) < DWORD_SIZE) return 0;
  const uint32_t bytes = LoadDword(word);
  const bool hasZero = ((bytes - 0x01010101u) & ~bytes & 0x80808080u) != 0;
  return hasZero ? static_cast<uint64_t>(word - text) + DWORD_SIZE : 0;
}

/// StepOver for a head of `head` bytes. The types are told apart by branches where a table would
/// do: a processor guesses a branch and goes on, but it waits for what it looks up.
inline uint64_t StepOverBehind(uint64_t head, const uint8_t* entry, const uint8_t* end) {
  const auto available = static_cast<uint64_t>(end - entry);
  if (head + DWORD_SIZE > available) return StepOverSlowly(entry, end);
  const uint8_t* const payload = entry + head;
  const uint8_t type = payload[-1];
  if (type == PT_INT32 || type == PT_PARAMHANDLE) return head + DWORD_SIZE;
  if (type == PT_INT64 && head + QWORD_SIZE <= available) return head + QWORD_SIZE;
  uint64_t step = 0;
  if (type == PT_STRING) {
    const uint64_t textSize = PaddedTextSize(payload, end);
    if (textSize == 0) return StepOverSlowly(entry, end);
    step = head + textSize;
  } else {
    const StepRule rule = STEP_RULES[type];
    if (rule.fixed == 0) return StepOverSlowly(entry, end);
    step = head + rule.fixed + Padded(uint64_t{LoadDword(payload)} * rule.scale);
  }
  return step <= available ? step : StepOverSlowly(entry, end);
}

/// The step from `entry`, which is before `end`, to the next one. Throws as ValueSizeWithin, and
/// NoDataExeption for a step past `end`.
///
/// The heads of the commonest names are told apart by branches, too, so that the place of the next
/// entry can be guessed before this one has come from memory.
inline uint64_t StepOver(const uint8_t* entry, const uint8_t* end) {
  const uint64_t head = uint64_t{entry[0]} + TYPE_SIZE;
  if (head == 8) return StepOverBehind(8, entry, end);
  if (head == 12) return StepOverBehind(12, entry, end);
  if (head == 16) return StepOverBehind(16, entry, end);
  return StepOverBehind(head, entry, end);
}

}  // namespace TQ::detail
