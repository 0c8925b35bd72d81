#include "params/list_store.h"

#include "frame/little_endian.h"
#include "frame/object_counts.h"
#include "frame/private_heap.h"
#include "params/name_to_find.h"

#include <cstring>
#include <new>
#include <vector>

using namespace TQ::detail;

namespace TQ::detail {

const _tag_HTQPARAMLIST g_nullParamList = {nullptr};

}  // namespace TQ::detail

namespace {

constexpr uint32_t NO_POSITION = UINT32_MAX;

uint32_t CheckedSize(uint64_t byteCount) {
  if (byteCount > UINT32_MAX) throw std::bad_alloc();
  return static_cast<uint32_t>(byteCount);
}

const char* TextOrEmpty(const char* text) { return text != nullptr ? text : ""; }

}  // namespace

FastHolderImpl::FastHolderImpl() { g_objectCounts.paramLists.fetch_add(1); }

FastHolderImpl::~FastHolderImpl() {
  g_objectCounts.paramLists.fetch_sub(1);
  handles.Clear();
  TQFree(data);
}

void* FastHolderImpl::operator new(std::size_t size) noexcept { return TQAllocate(size); }

void FastHolderImpl::operator delete(void* block) { TQFree(block); }

ListRef FastHolderImpl::Create() { return ListRef(new FastHolderImpl()); }

// --- the walk ------------------------------------------------------------------------------------

bool FastHolderImpl::Holds(const _tag_TQPARAMINFO* entry) const {
  return reinterpret_cast<uintptr_t>(entry) - reinterpret_cast<uintptr_t>(data) < size;
}

uint32_t FastHolderImpl::PositionOf(const _tag_TQPARAMINFO* entry) const {
  if (!Holds(entry)) throw NoDataExeption();
  return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(entry) -
                               reinterpret_cast<uintptr_t>(data));
}

const _tag_TQPARAMINFO* FastHolderImpl::EntryAt(uint32_t position) const {
  return reinterpret_cast<const _tag_TQPARAMINFO*>(data + position);
}

const uint8_t* FastHolderImpl::ValueAt(uint32_t position) const {
  const uint64_t valuePosition = uint64_t{position} + data[position];
  if (valuePosition >= size) throw NoDataExeption();
  return data + valuePosition;
}

uint64_t FastHolderImpl::EntryLength(uint32_t position) const {
  const uint8_t* value = ValueAt(position);
  const auto available = static_cast<uint64_t>(data + size - value);
  return data[position] + ValueSizeWithin(value, available);
}

uint32_t FastHolderImpl::NextPosition(uint32_t position) const {
  return position + static_cast<uint32_t>(StepOver(data + position, data + size));
}

const _tag_TQPARAMINFO* FastHolderImpl::FindParam(const char* name) const {
  return size != 0 ? FindParam(name, std::strlen(name)) : nullptr;
}

/// One pass over the block, by contract: there is no index.
const _tag_TQPARAMINFO* FastHolderImpl::FindParam(const char* name, std::size_t nameLength) const {
  const NameToFind wanted(name, nameLength);
  const uint8_t* const end = data + size;
  for (const uint8_t* entry = data; entry != end; entry += StepOver(entry, end)) {
    if (wanted.IsOf(entry, end)) return reinterpret_cast<const _tag_TQPARAMINFO*>(entry);
  }
  return nullptr;
}

const _tag_TQPARAMINFO* FastHolderImpl::FirstParam() const {
  return size != 0 ? EntryAt(0) : nullptr;
}

const _tag_TQPARAMINFO* FastHolderImpl::NextParam(const _tag_TQPARAMINFO* entry) const {
  const uint32_t next = NextPosition(PositionOf(entry));
  return next < size ? EntryAt(next) : nullptr;
}

uint8_t FastHolderImpl::ValueType(const _tag_TQPARAMINFO* entry) const {
  return *ValueAt(PositionOf(entry));
}

const uint8_t* FastHolderImpl::Payload(const _tag_TQPARAMINFO* entry, uint32_t byteCount) const {
  const uint8_t* payload = ValueAt(PositionOf(entry)) + TYPE_SIZE;
  if (static_cast<uint64_t>(data + size - payload) < byteCount) throw NoDataExeption();
  return payload;
}

void FastHolderImpl::RequireTerminatedName(const _tag_TQPARAMINFO* entry) const {
  const uint64_t name = uint64_t{PositionOf(entry)} + NAME_OFFSET;
  if (name >= size || std::memchr(data + name, 0, size - name) == nullptr) throw NoDataExeption();
}

void FastHolderImpl::RequireWalkable() const {
  for (uint32_t position = 0; position < size; position = NextPosition(position)) {
  }
}

void FastHolderImpl::CountParams() {
  for (uint32_t position = 0; position < size; position = NextPosition(position)) ++paramCount;
}

// --- removal -------------------------------------------------------------------------------------

const _tag_TQPARAMINFO* FastHolderImpl::RemoveParam(const _tag_TQPARAMINFO* entry) {
  if (entry == nullptr) return nullptr;
  const uint32_t position = PositionOf(entry);
  const uint64_t length = EntryLength(position);
  ReleaseHandleSlots(position);  // needs the entry in its place
  // Intended: of an entry that reaches beyond the block, which only a peer can send, the bytes stay
  // and are found again. Its nested lists and its place in the count are gone all the same.
  if (position + length <= size) {
    const auto end = static_cast<uint32_t>(position + length);
    std::memmove(data + position, data + end, size - end);
    size -= static_cast<uint32_t>(length);
  }
  --paramCount;
  return position < size ? EntryAt(position) : nullptr;
}

void FastHolderImpl::RemoveAll() {
  paramCount = 0;
  handles.Clear();
  size = 0;
}

/// Gives every handle index in the block to `change`, which may replace it; NO_HANDLE_INDEX and the
/// entry at `exceptPosition` are left out. The block must be walkable.
template <typename Change>
void FastHolderImpl::ForEachHandleIndex(uint32_t exceptPosition, Change change) {
  const auto apply = [&change](uint8_t* word) {
    const uint32_t index = LoadDword(word);
    if (index != NO_HANDLE_INDEX) StoreDword(word, change(index));
  };
  uint32_t next = 0;
  for (uint32_t position = 0; position < size; position = next) {
    next = NextPosition(position);
    if (position == exceptPosition) continue;
    const uint32_t typePosition = position + data[position];
    const uint8_t type = data[typePosition];
    uint8_t* payload = data + typePosition + TYPE_SIZE;
    if (type == PT_PARAMHANDLE) apply(payload);
    if (type == ArrayOf(PT_PARAMHANDLE)) {
      const uint32_t count = LoadDword(payload);
      for (uint32_t i = 0; i < count; ++i) apply(payload + DWORD_SIZE * (uint64_t{i} + 1));
    }
  }
}

void FastHolderImpl::ReleaseHandleSlots(uint32_t position) {
  const uint8_t* value = ValueAt(position);
  if (*value == PT_PARAMHANDLE) {
    ReleaseSingleSlot(LoadDword(At(position + data[position] + TYPE_SIZE, DWORD_SIZE)));
  }
  if (*value == ArrayOf(PT_PARAMHANDLE)) ReleaseArraySlots(position);
}

void FastHolderImpl::ReleaseSingleSlot(uint32_t index) {
  if (index == NO_HANDLE_INDEX || handles.Empty()) return;
  if (index < handles.Size() - 1) {
    RequireWalkable();  // or a damaged block would be left with half of its indices changed
    ForEachHandleIndex(NO_POSITION,
                       [index](uint32_t other) { return other > index ? other - 1 : other; });
  }
  // Intended: an index that names no slot, which only a peer can send, drops the last slot.
  if (index < handles.Size()) handles.RotateToEnd(index);
  handles.DropLast();
}

void FastHolderImpl::ReleaseArraySlots(uint32_t position) {
  // All that can fail comes first: the array lies in the block, every index can be changed, and the
  // memory of the new vector is there.
  RequireWalkable();
  const uint32_t payloadPosition = position + data[position] + TYPE_SIZE;
  const uint32_t count = LoadDword(At(payloadPosition, DWORD_SIZE));
  std::vector<uint32_t, TQHeapAllocator<uint32_t>> remap(handles.Size(), 0);
  constexpr uint32_t TAKEN_AWAY = NO_HANDLE_INDEX;
  for (uint32_t i = 0; i < count; ++i) {
    const uint32_t index = LoadDword(At(payloadPosition + DWORD_SIZE * (i + 1), DWORD_SIZE));
    // A peer may name a slot that is not there, or one slot twice.
    if (index < remap.size()) remap[index] = TAKEN_AWAY;
  }
  HandleSlots kept;
  for (uint32_t i = 0; i < handles.Size(); ++i) {
    const bool stays = remap[i] != TAKEN_AWAY && handles[i].IsValid();
    remap[i] = stays ? kept.Size() : 0;
    if (stays) kept.Push(handles[i]);
  }
  handles.Swap(kept);

  ForEachHandleIndex(
      position, [&remap](uint32_t index) { return index < remap.size() ? remap[index] : index; });
}

// --- stores --------------------------------------------------------------------------------------

void FastHolderImpl::BeginStore(const char* name, uint8_t type, uint64_t payloadSize) {
  const std::size_t nameLength = std::strlen(name);
  RemoveParam(FindParam(name, nameLength));
  Grow(CheckedSize(HeadSize(nameLength) + Padded(payloadSize)));
  owner->AppendName(name, nameLength, type);
}

uint32_t FastHolderImpl::PushHandle(FastHolderImpl* list) {
  ListRef reference(list);
  if (!reference.IsValid()) return NO_HANDLE_INDEX;
  handles.Push(std::move(reference));
  return handles.Size() - 1;
}

void FastHolderImpl::AppendBinary(const void* bytes, uint32_t length) {
  owner->AppendDword(length);
  owner->AppendAligned(bytes, length);
}

void FastHolderImpl::StoreHandle(const char* name, FastHolderImpl* list) {
  BeginStore(name, PT_PARAMHANDLE, DWORD_SIZE);
  owner->AppendDword(PushHandle(list));
  FinishStore();
}

void FastHolderImpl::StoreBinary(const char* name, const void* bytes, uint32_t length) {
  BeginStore(name, PT_BINARY, uint64_t{DWORD_SIZE} + length);
  AppendBinary(bytes, length);
  FinishStore();
}

void FastHolderImpl::StoreInt64(const char* name, uint64_t value) {
  BeginStore(name, PT_INT64, QWORD_SIZE);
  owner->AppendAligned(&value, QWORD_SIZE);
  FinishStore();
}

void FastHolderImpl::StoreDwords(const char* name, uint8_t type, const void* values, uint32_t count,
                                 uint32_t elementSize) {
  BeginStore(name, type, DWORD_SIZE + uint64_t{count} * elementSize);
  owner->AppendDword(count);
  owner->AppendAligned(values, CheckedSize(uint64_t{count} * elementSize));
  FinishStore();
}

void FastHolderImpl::StoreInt32Array(const char* name, const uint32_t* values, uint32_t count) {
  StoreDwords(name, ArrayOf(PT_INT32), values, count, DWORD_SIZE);
}

void FastHolderImpl::StoreInt64Array(const char* name, const uint64_t* values, uint32_t count) {
  StoreDwords(name, ArrayOf(PT_INT64), values, count, QWORD_SIZE);
}

void FastHolderImpl::StoreHandleArray(const char* name, const _tag_HTQPARAMLIST* values,
                                      uint32_t count) {
  BeginStore(name, ArrayOf(PT_PARAMHANDLE), DWORD_SIZE * (uint64_t{count} + 1));
  owner->AppendDword(count);
  const uint32_t table = size;
  const uint32_t tableSize = CheckedSize(uint64_t{count} * DWORD_SIZE);
  Grow(tableSize);
  size += tableSize;
  for (uint32_t i = 0; i < count; ++i) {
    StoreDword(At(table + i * DWORD_SIZE, DWORD_SIZE), PushHandle(values[i].impl));
  }
  FinishStore();
}

/// The count, a table of offsets from the end of that table, and the elements in order: `sizeOf`
/// tells what element i takes, padding left out, and `append` appends it.
template <typename SizeOf, typename Append>
void FastHolderImpl::StoreOffsetArray(const char* name, uint8_t type, uint32_t count, SizeOf sizeOf,
                                      Append append) {
  BeginStore(name, type, DWORD_SIZE * (uint64_t{count} + 1));
  owner->AppendDword(count);
  const uint32_t table = size;
  const uint32_t tableSize = CheckedSize(uint64_t{count} * DWORD_SIZE);
  Grow(tableSize);
  size += tableSize;
  const uint32_t elements = size;
  uint64_t elementsSize = 0;
  for (uint32_t i = 0; i < count; ++i) elementsSize += Padded(sizeOf(i));
  Grow(CheckedSize(elementsSize));
  for (uint32_t i = 0; i < count; ++i) {
    StoreDword(At(table + i * DWORD_SIZE, DWORD_SIZE), size - elements);
    append(i);
  }
  FinishStore();
}

void FastHolderImpl::StoreStringArray(const char* name, const char* const* values, uint32_t count) {
  const auto sizeOf = [values](uint32_t i) {
    return uint64_t{std::strlen(TextOrEmpty(values[i]))} + 1;
  };
  StoreOffsetArray(name, ArrayOf(PT_STRING), count, sizeOf, [this, values, &sizeOf](uint32_t i) {
    owner->AppendAligned(TextOrEmpty(values[i]), CheckedSize(sizeOf(i)));
  });
}

void FastHolderImpl::StoreBinaryArray(const char* name, const void* const* datas,
                                      const uint32_t* sizes, uint32_t count) {
  StoreOffsetArray(
      name, ArrayOf(PT_BINARY), count,
      [sizes](uint32_t i) { return uint64_t{DWORD_SIZE} + sizes[i]; },
      [this, datas, sizes](uint32_t i) { AppendBinary(datas[i], sizes[i]); });
}

void FastHolderImpl::StoreBinaryItemArray(const char* name, const _tag_BINARYITEM* items,
                                          uint32_t count) {
  StoreOffsetArray(
      name, ArrayOf(PT_BINARY), count,
      [items](uint32_t i) { return uint64_t{DWORD_SIZE} + items[i].size; },
      [this, items](uint32_t i) { AppendBinary(items[i].data, items[i].size); });
}
