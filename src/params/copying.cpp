// Duplicating what a list holds: as a twin, and value by value into another list. Both share the
// nested lists.
#include "frame/private_heap.h"
#include "params/block_reader.h"
#include "params/list_store.h"

#include <tq/param_list.h>

#include <cstdint>
#include <cstring>
#include <vector>

using namespace TQ::detail;

namespace {

template <typename T>
using HeapVector = std::vector<T, TQHeapAllocator<T>>;

void StoreTexts(FastHolderImpl& target, const char* name, const BlockReader& array) {
  const uint32_t count = array.Dword(0);
  array.Elements(count, DWORD_SIZE);  // the table, before memory is taken for its size
  HeapVector<const char*> texts(count);
  for (uint32_t i = 0; i < count; ++i) texts[i] = array.Element(count, i).Text();
  target.StoreStringArray(name, texts.data(), count);
}

void StoreBinaries(FastHolderImpl& target, const char* name, const BlockReader& array) {
  const uint32_t count = array.Dword(0);
  array.Elements(count, DWORD_SIZE);
  HeapVector<_tag_BINARYITEM> items(count);
  for (uint32_t i = 0; i < count; ++i) {
    const BlockReader item = array.Element(count, i);
    const uint32_t length = item.Dword(0);
    items[i] = {length, item.Bytes(DWORD_SIZE, length)};
  }
  target.StoreBinaryItemArray(name, items.data(), count);
}

/// Intended: element i is the list in slot i, whatever index the array holds there, and slots are
/// not counted. An array that is the only value with lists comes out right.
void StoreFirstLists(FastHolderImpl& target, const char* name, const HandleSlots& slots,
                     uint32_t count) {
  HeapVector<ListRef> kept(count);
  HeapVector<_tag_HTQPARAMLIST> lists(count);
  for (uint32_t i = 0; i < count; ++i) {
    kept[i] = slots[i];
    lists[i] = {kept[i].Get()};
  }
  target.StoreHandleArray(name, lists.data(), count);
}

void StoreSingle(FastHolderImpl& target, const char* name, uint8_t type, const HandleSlots& slots,
                 const BlockReader& payload) {
  switch (type) {
    case PT_STRING:
      TQSetStringValue({&target}, name, payload.Text());
      break;
    case PT_INT32:
      TQSetInt32Value({&target}, name, payload.Dword(0));
      break;
    case PT_INT64:
      target.StoreInt64(name, payload.Qword(0));
      break;
    case PT_PARAMHANDLE:
      // Intended: the index is used as it stands.
      target.StoreHandle(name, slots[payload.Dword(0)].Get());
      break;
    default:
      target.StoreBinary(name, payload.Bytes(DWORD_SIZE, payload.Dword(0)), payload.Dword(0));
      break;
  }
}

void StoreArray(FastHolderImpl& target, const char* name, uint8_t type, const HandleSlots& slots,
                const BlockReader& payload) {
  const uint32_t count = payload.Dword(0);
  switch (type) {
    case ArrayOf(PT_STRING):
      StoreTexts(target, name, payload);
      break;
    case ArrayOf(PT_INT32):
      target.StoreInt32Array(
          name, reinterpret_cast<const uint32_t*>(payload.Elements(count, DWORD_SIZE)), count);
      break;
    case ArrayOf(PT_INT64):
      // Unaligned: the store copies bytes.
      target.StoreInt64Array(
          name, reinterpret_cast<const uint64_t*>(payload.Elements(count, QWORD_SIZE)), count);
      break;
    case ArrayOf(PT_PARAMHANDLE):
      payload.Elements(count, DWORD_SIZE);
      StoreFirstLists(target, name, slots, count);
      break;
    default:
      StoreBinaries(target, name, payload);
      break;
  }
}

/// Stores one value of `source` under its name, in the way of its type.
void StoreValueOf(FastHolderImpl& target, const FastHolderImpl& source,
                  const _tag_TQPARAMINFO* entry) {
  const uint8_t type = source.ValueType(entry);
  if (!IsSingleType(type) && !IsArrayType(type)) return;  // the walk raises behind it
  source.RequireTerminatedName(entry);
  const BlockReader payload(source.Payload(entry, 0), source.BlockData() + source.BlockSize());
  if (IsArrayType(type)) {
    StoreArray(target, entry->name, type, source.Handles(), payload);
  } else {
    StoreSingle(target, entry->name, type, source.Handles(), payload);
  }
}

}  // namespace

ListRef FastHolderImpl::Clone() const {
  ListRef clone = Create();
  if (!clone) return clone;
  // To the byte: a list from a peer may end anywhere, and filling bytes would be read as an entry.
  if (size != 0) std::memcpy(clone->Grow(size), data, size);
  clone->size = size;
  clone->handles.CopyFrom(handles);
  // Intended: nobody holds the new list while its entries are counted. A damaged block raises only
  // there, and the list is lost.
  FastHolderImpl* const counted = clone.Detach();
  counted->CountParams();
  return ListRef::Adopt(counted);
}

void FastHolderImpl::StoreAllOf(const FastHolderImpl& source) {
  for (const auto* entry = source.FirstParam(); entry != nullptr; entry = source.NextParam(entry)) {
    StoreValueOf(*this, source, entry);
  }
}

_tag_HTQPARAMLIST TQCloneHandle(_tag_HTQPARAMLIST source) {
  if (source.impl == nullptr) return g_nullParamList;
  return {source.impl->Clone().Detach()};
}

_tag_TQ_ERROR TQCopyHandle(_tag_HTQPARAMLIST source, _tag_HTQPARAMLIST destination) {
  if (source.impl == nullptr || source.impl->BlockSize() == 0) return TQ_ERR_OK;
  // Intended: the destination is not tested, neither for null nor for being the source.
  destination.impl->StoreAllOf(*source.impl);
  return TQ_ERR_OK;
}
