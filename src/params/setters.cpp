// The typed setters: a null test each, and the store operation.
#include "params/list_store.h"

#include <tq/param_list.h>

#include <cstring>
#include <vector>

using TQ::detail::ListRef;

namespace {

/// Runs `store` on the list, unless there is none.
template <typename Store>
_tag_TQ_ERROR StoreInto(_tag_HTQPARAMLIST list, Store store) {
  if (list.impl == nullptr) return TQ_ERR_FAILED;
  store(*list.impl);
  return TQ_ERR_OK;
}

}  // namespace

_tag_TQ_ERROR TQSetStringValue(_tag_HTQPARAMLIST list, const char* name, const char* value) {
  return StoreInto(list, [&](FastHolderImpl& store) {
    const char* text = value != nullptr ? value : "";
    const uint64_t length = uint64_t{std::strlen(text)} + 1;
    store.BeginStore(name, PT_STRING, length);
    store.AppendAligned(text, static_cast<uint32_t>(length));
    store.FinishStore();
  });
}

_tag_TQ_ERROR TQSetInt32Value(_tag_HTQPARAMLIST list, const char* name, uint32_t value) {
  return StoreInto(list, [&](FastHolderImpl& store) {
    store.BeginStore(name, PT_INT32, sizeof value);
    store.AppendDword(value);
    store.FinishStore();
  });
}

_tag_TQ_ERROR TQSetInt64Value(_tag_HTQPARAMLIST list, const char* name, uint64_t value) {
  return StoreInto(list, [&](FastHolderImpl& store) { store.StoreInt64(name, value); });
}

_tag_TQ_ERROR TQSetBinaryValue(_tag_HTQPARAMLIST list, const char* name, const void* data,
                               uint32_t size) {
  return StoreInto(list, [&](FastHolderImpl& store) { store.StoreBinary(name, data, size); });
}

_tag_TQ_ERROR TQSetBinaryItem(_tag_HTQPARAMLIST list, const char* name,
                              const _tag_BINARYITEM* item) {
  return StoreInto(list,
                   [&](FastHolderImpl& store) { store.StoreBinary(name, item->data, item->size); });
}

_tag_TQ_ERROR TQSetHandleValue(_tag_HTQPARAMLIST list, const char* name, _tag_HTQPARAMLIST value) {
  return StoreInto(list, [&](FastHolderImpl& store) {
    // Keeps a list alive that lives only through the value being replaced.
    const ListRef kept(value.impl);
    store.StoreHandle(name, value.impl);
  });
}

_tag_TQ_ERROR TQSetStringArray(_tag_HTQPARAMLIST list, const char* name, uint32_t count,
                               const char* const* values) {
  return StoreInto(list,
                   [&](FastHolderImpl& store) { store.StoreStringArray(name, values, count); });
}

_tag_TQ_ERROR TQSetInt32Array(_tag_HTQPARAMLIST list, const char* name, uint32_t count,
                              const uint32_t* values) {
  return StoreInto(list,
                   [&](FastHolderImpl& store) { store.StoreInt32Array(name, values, count); });
}

_tag_TQ_ERROR TQSetInt64Array(_tag_HTQPARAMLIST list, const char* name, uint32_t count,
                              const uint64_t* values) {
  return StoreInto(list,
                   [&](FastHolderImpl& store) { store.StoreInt64Array(name, values, count); });
}

_tag_TQ_ERROR TQSetHandleArray(_tag_HTQPARAMLIST list, const char* name, uint32_t count,
                               const _tag_HTQPARAMLIST* values) {
  return StoreInto(list, [&](FastHolderImpl& store) {
    // As for a single handle: the replaced value may hold the last reference to some of them.
    std::vector<ListRef> kept;
    kept.reserve(count);
    for (uint32_t i = 0; i < count; ++i) kept.emplace_back(values[i].impl);
    store.StoreHandleArray(name, values, count);
  });
}

_tag_TQ_ERROR TQSetBinaryArray(_tag_HTQPARAMLIST list, const char* name, uint32_t count,
                               const void* const* datas, const uint32_t* sizes) {
  return StoreInto(
      list, [&](FastHolderImpl& store) { store.StoreBinaryArray(name, datas, sizes, count); });
}

_tag_TQ_ERROR TQSetBinaryItemArray(_tag_HTQPARAMLIST list, const char* name, uint32_t count,
                                   const _tag_BINARYITEM* items) {
  return StoreInto(list,
                   [&](FastHolderImpl& store) { store.StoreBinaryItemArray(name, items, count); });
}
