#include <tq/param_list_holder.h>

#include "frame/little_endian.h"
#include "params/list_store.h"

#include <tq/diagnostics.h>
#include <tq/param_list.h>

#include <utility>

using namespace TQ::detail;

namespace TQ {
namespace {

bool SameList(_tag_HTQPARAMLIST a, _tag_HTQPARAMLIST b) { return a.impl == b.impl; }

bool IsArray(_tag_PARAM_TYPES type) { return (type & PT_ARRAY_FLAG) != 0; }

/// Count and values of an array, null when there is none of that type under the name.
const uint8_t* FindArray(_tag_HTQPARAMLIST list, const char* name, uint8_t type) {
  const _tag_TQPARAMINFO* entry = TQParamInfo(list, name);
  if (entry == nullptr || list.impl->ValueType(entry) != type) return nullptr;
  return list.impl->Payload(entry, DWORD_SIZE);
}

/// The 32-bit word number `index` behind the count. A peer's array may be unaligned.
uint32_t ArrayDword(const uint8_t* array, uint32_t index) {
  return LoadDword(array + DWORD_SIZE * (uint64_t{index} + 1));
}

/// Gives up to `maximum` lists of the array, from element `first` on, to `take`.
template <typename Take>
uint32_t ForEachList(_tag_HTQPARAMLIST list, const char* name, uint32_t maximum, uint32_t first,
                     Take take) {
  const uint8_t* array = FindArray(list, name, ArrayOf(PT_PARAMHANDLE));
  const uint32_t count = array != nullptr ? LoadDword(array) : 0;
  uint32_t written = 0;
  for (uint32_t i = first; written < maximum && i < count; ++i, ++written) {
    take(written, TQGetHandleById(list, ArrayDword(array, i)));
  }
  return written;
}

}  // namespace

// ---- the reference -----------------------------------------------------------------------------

ParamListHolder::ParamListHolder() : handle{nullptr} {}

ParamListHolder::ParamListHolder(_tag_HTQPARAMLIST ownedHandle) : handle(ownedHandle) {}

ParamListHolder::ParamListHolder(const ParamListHolder& other)
    : handle(TQReferenceHandle(other.handle)) {}

// NOLINTNEXTLINE(performance-noexcept-move-constructor): no exported function is noexcept
ParamListHolder::ParamListHolder(ParamListHolder&& other)
    : handle(std::exchange(other.handle, g_nullParamList)) {}

ParamListHolder::~ParamListHolder() { TQCloseHandle(handle); }

// NOLINTNEXTLINE(bugprone-unhandled-self-assignment): the reference is added first
ParamListHolder& ParamListHolder::operator=(const ParamListHolder& other) {
  return *this = other.handle;
}

ParamListHolder& ParamListHolder::operator=(const _tag_HTQPARAMLIST& other) {
  TQCloseHandle(std::exchange(handle, TQReferenceHandle(other)));
  return *this;
}

// Intended: an exchange. The former list stays alive in `other`.
// NOLINTNEXTLINE(performance-noexcept-move-constructor)
ParamListHolder& ParamListHolder::operator=(ParamListHolder&& other) {
  swap(other);
  return *this;
}

void ParamListHolder::swap(ParamListHolder& other) { std::swap(handle, other.handle); }

void ParamListHolder::swap(ParamListHolder& a, ParamListHolder& b) { a.swap(b); }

bool ParamListHolder::operator!() const { return handle.impl == nullptr; }

void* ParamListHolder::operator new(std::size_t size) noexcept { return TQAllocate(size); }

void ParamListHolder::operator delete(void* ptr) { TQFree(ptr); }

ParamListHolder ParamListHolder::FromHandle(_tag_HTQPARAMLIST handle) {
  return {TQReferenceHandle(handle)};
}

ParamListHolder ParamListHolder::FromRefHandle(_tag_HTQPARAMLIST handle) { return {handle}; }

bool ParamListHolder::NewList() {
  ClearList();
  handle = TQCreateParamList();
  return handle.impl != nullptr;
}

bool ParamListHolder::ClearList() {
  TQCloseHandle(std::exchange(handle, g_nullParamList));
  return true;
}

ParamListHolder ParamListHolder::Clone() const { return {TQCloneHandle(handle)}; }

bool ParamListHolder::CopyDataFrom(ParamListHolder& other) {
  if (!other || SameList(handle, other.handle)) return false;
  if (!*this && !NewList()) return false;
  return TQCopyHandle(other.handle, handle) == TQ_ERR_OK;
}

// Intended: the sense is turned round, so a copy that was made answers false.
bool ParamListHolder::CopyDataTo(ParamListHolder& other) {
  if (!*this || SameList(handle, other.handle)) return false;
  if (!other && !other.NewList()) return false;
  return TQCopyHandle(handle, other.handle) != TQ_ERR_OK;
}

// ---- queries -----------------------------------------------------------------------------------

bool ParamListHolder::Exists(const char* name) const {
  return TQParamInfo(handle, name) != nullptr;
}

uint32_t ParamListHolder::GetCount() const { return TQGetParamCount(handle); }

uint32_t ParamListHolder::GetSize() const { return TQGetHandleSize(handle); }

bool ParamListHolder::empty() const { return GetCount() == 0; }

const _tag_TQPARAMINFO* ParamListHolder::GetFirst() const { return TQGetFirstParam(handle); }

const _tag_TQPARAMINFO* ParamListHolder::GetNext(const _tag_TQPARAMINFO* info) const {
  return TQGetNextParam(handle, info);
}

const _tag_TQPARAMINFO* ParamListHolder::GetInfo(const char* name) const {
  return TQParamInfo(handle, name);
}

_tag_PARAM_TYPES ParamListHolder::GetType(const char* name) const {
  const _tag_TQPARAMINFO* entry = GetInfo(name);
  if (entry == nullptr) return PT_UNKNOWN;
  return static_cast<_tag_PARAM_TYPES>(handle.impl->ValueType(entry));
}

_tag_PARAM_TYPES ParamListHolder::GetArrayType(const char* name) const {
  const _tag_PARAM_TYPES type = GetType(name);
  return IsArray(type) ? static_cast<_tag_PARAM_TYPES>(type & ~PT_ARRAY_FLAG) : PT_UNKNOWN;
}

uint32_t ParamListHolder::GetArraySize(const char* name) const {
  const _tag_TQPARAMINFO* entry = GetInfo(name);
  if (entry == nullptr || (handle.impl->ValueType(entry) & PT_ARRAY_FLAG) == 0) return 0;
  return LoadDword(handle.impl->Payload(entry, DWORD_SIZE));
}

// ---- getters -----------------------------------------------------------------------------------

const char* ParamListHolder::GetString(const char* name) const {
  return TQGetStringValue(handle, name);
}

uint32_t ParamListHolder::GetInt32(const char* name) const { return TQGetInt32Value(handle, name); }

uint64_t ParamListHolder::GetInt64(const char* name) const { return TQGetInt64Value(handle, name); }

const _tag_BINARYVALUE* ParamListHolder::GetBinary(const char* name) const {
  return TQGetBinaryValue(handle, name);
}

uint32_t ParamListHolder::GetStringArray(const char* name, const char** out, uint32_t maximum,
                                         uint32_t first) const {
  return TQGetStringArray(handle, name, out, maximum, first);
}

uint32_t ParamListHolder::GetBinaryArray(const char* name, const _tag_BINARYVALUE** out,
                                         uint32_t maximum, uint32_t first) const {
  return TQGetBinaryArray(handle, name, out, maximum, first);
}

_tag_TQDWORDARRAY ParamListHolder::GetInt32Array(const char* name) const {
  return TQGetInt32Array(handle, name);
}

_tag_TQQWORDARRAY ParamListHolder::GetInt64Array(const char* name) const {
  return TQGetInt64Array(handle, name);
}

ParamListHolder ParamListHolder::GetHandle(const char* name) const {
  return {TQGetHandleValue(handle, name)};
}

const char* ParamListHolder::GetString(const char* name, uint32_t index) const {
  const char* text = nullptr;
  TQGetStringArray(handle, name, &text, 1, index);
  return text;
}

const _tag_BINARYVALUE* ParamListHolder::GetBinary(const char* name, uint32_t index) const {
  const _tag_BINARYVALUE* item = nullptr;
  TQGetBinaryArray(handle, name, &item, 1, index);
  return item;
}

uint32_t ParamListHolder::GetInt32(const char* name, uint32_t index) const {
  const uint8_t* array = FindArray(handle, name, ArrayOf(PT_INT32));
  if (array == nullptr || index >= LoadDword(array)) return 0;
  return ArrayDword(array, index);
}

uint64_t ParamListHolder::GetInt64(const char* name, uint32_t index) const {
  const uint8_t* array = FindArray(handle, name, ArrayOf(PT_INT64));
  if (array == nullptr || index >= LoadDword(array)) return 0;
  // Intended: steps by 32 bits and reads as many, though the elements have 64.
  return ArrayDword(array, index);
}

ParamListHolder ParamListHolder::GetHandle(const char* name, uint32_t index) const {
  _tag_HTQPARAMLIST element = g_nullParamList;
  GetHandleArray(name, &element, 1, index);
  return FromHandle(element);
}

ParamListHolder ParamListHolder::GetHandle(int id) const {
  return FromHandle(TQGetHandleById(handle, static_cast<uint32_t>(id)));
}

uint32_t ParamListHolder::GetHandleArray(const char* name, _tag_HTQPARAMLIST* out, uint32_t maximum,
                                         uint32_t first) const {
  return ForEachList(handle, name, maximum, first,
                     [out](uint32_t i, _tag_HTQPARAMLIST list) { out[i] = list; });
}

uint32_t ParamListHolder::GetHandleArray(const char* name, ParamListHolder* out, uint32_t maximum,
                                         uint32_t first) const {
  return ForEachList(handle, name, maximum, first,
                     [out](uint32_t i, _tag_HTQPARAMLIST list) { out[i] = list; });
}

// ---- setters -----------------------------------------------------------------------------------

_tag_TQ_ERROR ParamListHolder::SetString(const char* name, const char* value) {
  return TQSetStringValue(handle, name, value);
}

_tag_TQ_ERROR ParamListHolder::SetInt32(const char* name, uint32_t value) {
  return TQSetInt32Value(handle, name, value);
}

_tag_TQ_ERROR ParamListHolder::SetInt64(const char* name, uint64_t value) {
  return TQSetInt64Value(handle, name, value);
}

_tag_TQ_ERROR ParamListHolder::SetBinary(const char* name, const void* data, uint32_t size) {
  return TQSetBinaryValue(handle, name, data, size);
}

_tag_TQ_ERROR ParamListHolder::SetHandle(const char* name, const ParamListHolder& value) {
  return TQSetHandleValue(handle, name, value.handle);
}

_tag_TQ_ERROR ParamListHolder::SetStringArray(const char* name, uint32_t count,
                                              const char* const* values) {
  return TQSetStringArray(handle, name, count, values);
}

_tag_TQ_ERROR ParamListHolder::SetInt32Array(const char* name, uint32_t count,
                                             const uint32_t* values) {
  return TQSetInt32Array(handle, name, count, values);
}

_tag_TQ_ERROR ParamListHolder::SetInt64Array(const char* name, uint32_t count,
                                             const uint64_t* values) {
  return TQSetInt64Array(handle, name, count, values);
}

_tag_TQ_ERROR ParamListHolder::SetBinaryArray(const char* name, uint32_t count,
                                              const void* const* datas, const uint32_t* sizes) {
  return TQSetBinaryArray(handle, name, count, datas, sizes);
}

_tag_TQ_ERROR ParamListHolder::SetBinaryArray(const char* name, uint32_t count,
                                              const _tag_BINARYITEM* items) {
  return TQSetBinaryItemArray(handle, name, count, items);
}

_tag_TQ_ERROR ParamListHolder::SetHandleArray(const char* name, uint32_t count,
                                              const _tag_HTQPARAMLIST* values) {
  return TQSetHandleArray(handle, name, count, values);
}

_tag_TQ_ERROR ParamListHolder::SetHandleArray(const char* name, uint32_t count,
                                              const ParamListHolder* values) {
  // A holder is one handle and nothing else.
  return TQSetHandleArray(handle, name, count, reinterpret_cast<const _tag_HTQPARAMLIST*>(values));
}

// ---- removal and iteration ---------------------------------------------------------------------

_tag_TQ_ERROR ParamListHolder::Remove(const char* name) { return TQRemoveValue(handle, name); }

_tag_TQ_ERROR ParamListHolder::RemoveAll() { return TQRemoveAllValues(handle); }

ParamListHolder::param_iterator ParamListHolder::begin() const { return {this, GetFirst()}; }

ParamListHolder::param_iterator ParamListHolder::end() const { return {this, nullptr}; }

ParamListHolder::param_iterator ParamListHolder::find(const char* name) const {
  return {this, GetInfo(name)};
}

ParamListHolder::param_iterator ParamListHolder::erase(param_iterator position) {
  const bool ours = position.holder != nullptr && SameList(handle, position.holder->handle);
  return {this, ours ? TQRemoveParamByInfo(handle, position.info) : nullptr};
}

uint32_t ParamListHolder::erase(const char* name) {
  const _tag_TQPARAMINFO* entry = GetInfo(name);
  if (entry == nullptr) return 0;
  handle.impl->RemoveParam(entry);
  return 1;
}

}  // namespace TQ
