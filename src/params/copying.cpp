// Duplicating what a list holds: as a twin, and value by value into another list. Both share the
// nested lists.
#include "frame/little_endian.h"
#include "frame/private_heap.h"
#include "params/list_store.h"

#include <tq/param_list.h>

#include <cstring>
#include <vector>

using namespace TQ::detail;

namespace {

template <typename T>
using HeapVector = std::vector<T, TQHeapAllocator<T>>;

using NoData = TQMemoryBufferTpl2<0>::NoDataExeption;

/// The payload of one value, whose end is known to lie in the block.
class PayloadReader {
 public:
  PayloadReader(const uint8_t* payload, const uint8_t* payloadEnd)
      : begin(payload), end(payloadEnd) {}

  uint32_t Count() const { return LoadDword(begin); }
  const uint8_t* Elements() const { return begin + DWORD_SIZE; }

  /// Where the element of an offset array begins; at least `byteCount` bytes follow.
  const uint8_t* Element(uint32_t index, uint32_t byteCount) const {
    const uint64_t offset = LoadDword(Elements() + uint64_t{index} * DWORD_SIZE);
    const uint64_t position = DWORD_SIZE * (uint64_t{Count()} + 1) + offset;
    const auto length = static_cast<uint64_t>(end - begin);
    if (position > length || length - position < byteCount) throw NoData();
    return begin + position;
  }

  const char* Text(uint32_t index) const {
    const uint8_t* text = Element(index, 1);
    if (std::memchr(text, 0, static_cast<std::size_t>(end - text)) == nullptr) throw NoData();
    return reinterpret_cast<const char*>(text);
  }

  _tag_BINARYITEM Binary(uint32_t index) const {
    const uint8_t* item = Element(index, DWORD_SIZE);
    const uint32_t length = LoadDword(item);
    if (static_cast<uint64_t>(end - item) - DWORD_SIZE < length) throw NoData();
    return {length, item + DWORD_SIZE};
  }

 private:
  const uint8_t* begin;
  const uint8_t* end;
};

void StoreTexts(FastHolderImpl& target, const char* name, const PayloadReader& payload) {
  HeapVector<const char*> texts(payload.Count());
  for (uint32_t i = 0; i < payload.Count(); ++i) texts[i] = payload.Text(i);
  target.StoreStringArray(name, texts.data(), payload.Count());
}

void StoreBinaries(FastHolderImpl& target, const char* name, const PayloadReader& payload) {
  HeapVector<_tag_BINARYITEM> items(payload.Count());
  for (uint32_t i = 0; i < payload.Count(); ++i) items[i] = payload.Binary(i);
  target.StoreBinaryItemArray(name, items.data(), payload.Count());
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

/// An unaligned array of 64-bit values is copied as bytes by the store.
const uint64_t* AsQwords(const uint8_t* bytes) { return reinterpret_cast<const uint64_t*>(bytes); }
const uint32_t* AsDwords(const uint8_t* bytes) { return reinterpret_cast<const uint32_t*>(bytes); }

}  // namespace

FastHolderImpl* FastHolderImpl::Clone() const {
  auto* const clone = new FastHolderImpl();
  if (clone == nullptr) return nullptr;
  clone->AppendAligned(data, size);
  clone->handles.CopyFrom(handles);
  // Intended: a damaged block is copied first and raises then, and the new list is lost.
  clone->CountParams();
  return clone;
}

void FastHolderImpl::StoreAllOf(const FastHolderImpl& source) {
  uint32_t next = 0;
  for (uint32_t position = 0; position < source.size; position = next) {
    // An entry that ends outside the block raises here, before anything of it is read.
    next = source.NextPosition(position);
    const _tag_TQPARAMINFO* entry = source.EntryAt(position);
    source.RequireTerminatedName(entry);
    StoreEntryOf(source, entry, source.data + next);
  }
}

/// Stores one value under its name, in the way of its type.
void FastHolderImpl::StoreEntryOf(const FastHolderImpl& source, const _tag_TQPARAMINFO* entry,
                                  const uint8_t* entryEnd) {
  const char* name = entry->name;
  const uint8_t* value = source.ValueAt(source.PositionOf(entry));
  const uint8_t* bytes = value + TYPE_SIZE;
  const PayloadReader payload(bytes, entryEnd);
  switch (*value) {
    case PT_STRING:
      TQSetStringValue({this}, name, reinterpret_cast<const char*>(bytes));
      break;
    case PT_INT32:
      TQSetInt32Value({this}, name, LoadDword(bytes));
      break;
    case PT_INT64:
      StoreInt64(name, LoadQword(bytes));
      break;
    case PT_PARAMHANDLE:
      // Intended: the index is used as it stands.
      StoreHandle(name, source.handles[LoadDword(bytes)].Get());
      break;
    case PT_BINARY:
      StoreBinary(name, bytes + DWORD_SIZE, LoadDword(bytes));
      break;
    case ArrayOf(PT_STRING):
      StoreTexts(*this, name, payload);
      break;
    case ArrayOf(PT_INT32):
      StoreInt32Array(name, AsDwords(payload.Elements()), payload.Count());
      break;
    case ArrayOf(PT_INT64):
      StoreInt64Array(name, AsQwords(payload.Elements()), payload.Count());
      break;
    case ArrayOf(PT_PARAMHANDLE):
      StoreFirstLists(*this, name, source.handles, payload.Count());
      break;
    default:  // the walk knows no other type
      StoreBinaries(*this, name, payload);
      break;
  }
}

_tag_HTQPARAMLIST TQCloneHandle(_tag_HTQPARAMLIST source) {
  if (source.impl == nullptr) return g_nullParamList;
  return {ListRef(source.impl->Clone()).Detach()};
}

_tag_TQ_ERROR TQCopyHandle(_tag_HTQPARAMLIST source, _tag_HTQPARAMLIST destination) {
  if (source.impl == nullptr || source.impl->BlockSize() == 0) return TQ_ERR_OK;
  // Intended: the destination is not tested, neither for null nor for being the source.
  destination.impl->StoreAllOf(*source.impl);
  return TQ_ERR_OK;
}
