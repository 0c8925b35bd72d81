#include "params/entry_layout.h"

#include <tq/memory_buffer.h>

#include <cstring>
#include <limits>

namespace TQ::detail {
namespace {

using NoData = TQMemoryBufferTpl2<0>::NoDataExeption;

/// The bytes behind a value's type byte, as far as they may be read.
class PayloadView {
 public:
  PayloadView(const uint8_t* payload, uint64_t available) : bytes(payload), count(available) {}

  uint32_t Dword(uint64_t offset) const {
    if (offset > count || count - offset < DWORD_SIZE) throw NoData();
    return LoadDword(bytes + offset);
  }

  /// Length of the text at `offset`, without its terminator.
  uint64_t TextLength(uint64_t offset) const {
    if (offset >= count) throw NoData();
    const void* terminator =
        std::memchr(bytes + offset, 0, static_cast<std::size_t>(count - offset));
    if (terminator == nullptr) throw NoData();
    return static_cast<uint64_t>(static_cast<const uint8_t*>(terminator) - (bytes + offset));
  }

 private:
  const uint8_t* bytes;
  uint64_t count;
};

/// Where the last element of an offset array begins, and so where its text or length stands.
uint64_t LastElement(const PayloadView& payload, uint32_t count) {
  const uint64_t tableEnd = DWORD_SIZE + uint64_t{DWORD_SIZE} * count;
  return tableEnd + payload.Dword(tableEnd - DWORD_SIZE);
}

uint64_t StringArraySize(const PayloadView& payload) {
  const uint32_t count = payload.Dword(0);
  if (count == 0) return DWORD_SIZE;
  const uint64_t last = LastElement(payload, count);
  return last + Padded(payload.TextLength(last) + 1);
}

uint64_t BinaryArraySize(const PayloadView& payload) {
  const uint32_t count = payload.Dword(0);
  if (count == 0) return DWORD_SIZE;
  const uint64_t last = LastElement(payload, count);
  return last + DWORD_SIZE + Padded(payload.Dword(last));
}

uint64_t PayloadSize(uint8_t type, const PayloadView& payload) {
  switch (type) {
    case PT_STRING:
      return Padded(payload.TextLength(0) + 1);
    case PT_INT32:
    case PT_PARAMHANDLE:
      return DWORD_SIZE;
    case PT_INT64:
      return QWORD_SIZE;
    case PT_BINARY:
      return DWORD_SIZE + Padded(payload.Dword(0));
    case ArrayOf(PT_STRING):
      return StringArraySize(payload);
    case ArrayOf(PT_INT32):
    case ArrayOf(PT_PARAMHANDLE):
      return DWORD_SIZE + uint64_t{DWORD_SIZE} * payload.Dword(0);
    case ArrayOf(PT_INT64):
      return DWORD_SIZE + uint64_t{QWORD_SIZE} * payload.Dword(0);
    case ArrayOf(PT_BINARY):
      return BinaryArraySize(payload);
    default:
      throw _tag_TQPARAMVALUE::DataDamaged();
  }
}

}  // namespace

uint64_t StepOverSlowly(const uint8_t* entry, const uint8_t* end) {
  const auto available = static_cast<uint64_t>(end - entry);
  const uint64_t offset = entry[0];
  if (offset >= available) throw NoData();
  const uint64_t step = offset + ValueSizeWithin(entry + offset, available - offset);
  if (step > available) throw NoData();
  return step;
}

uint64_t ValueSizeWithin(const uint8_t* value, uint64_t available) {
  if (available < TYPE_SIZE) throw NoData();
  return TYPE_SIZE + PayloadSize(value[0], PayloadView(value + TYPE_SIZE, available - TYPE_SIZE));
}

}  // namespace TQ::detail

uint32_t _tag_TQPARAMVALUE::ValueSize(const _tag_TQPARAMVALUE* value) {
  if (value == nullptr) return 0;
  // The caller vouches for the value, so nothing but the address space bounds it.
  constexpr uint64_t UNBOUNDED = std::numeric_limits<std::ptrdiff_t>::max();
  return static_cast<uint32_t>(
      TQ::detail::ValueSizeWithin(reinterpret_cast<const uint8_t*>(value), UNBOUNDED));
}
