// Whole-list queries, iteration and removal.
#include "params/list_store.h"

#include <tq/param_list.h>

using namespace TQ::detail;

uint32_t TQGetParamCount(_tag_HTQPARAMLIST list) {
  return list.impl != nullptr ? list.impl->ParamCount() : 0;
}

uint32_t TQGetHandleSize(_tag_HTQPARAMLIST list) {
  return list.impl != nullptr ? list.impl->BlockSize() : 0;
}

const _tag_TQPARAMINFO* TQGetFirstParam(_tag_HTQPARAMLIST list) {
  return list.impl != nullptr ? list.impl->FirstParam() : nullptr;
}

const _tag_TQPARAMINFO* TQGetNextParam(_tag_HTQPARAMLIST list, const _tag_TQPARAMINFO* info) {
  if (list.impl == nullptr || info == nullptr) return nullptr;
  return list.impl->NextParam(info);
}

const _tag_TQPARAMINFO* TQParamByIndex(_tag_HTQPARAMLIST list, uint32_t index) {
  const _tag_TQPARAMINFO* entry = TQGetFirstParam(list);
  for (uint32_t i = 0; entry != nullptr && i < index; ++i) entry = list.impl->NextParam(entry);
  return entry;
}

const _tag_TQPARAMINFO* TQParamInfo(_tag_HTQPARAMLIST list, const char* name) {
  return list.impl != nullptr ? list.impl->FindParam(name) : nullptr;
}

_tag_HTQPARAMLIST TQGetHandleById(_tag_HTQPARAMLIST list, uint32_t index) {
  if (list.impl == nullptr || index >= list.impl->Handles().Size()) return g_nullParamList;
  // Intended: no reference is added; the slot's own keeps the list alive.
  return {list.impl->Handles()[index].Get()};
}

_tag_TQ_ERROR TQRemoveValue(_tag_HTQPARAMLIST list, const char* name) {
  if (list.impl == nullptr) return TQ_ERR_FAILED;
  list.impl->RemoveParam(list.impl->FindParam(name));
  return TQ_ERR_OK;
}

const _tag_TQPARAMINFO* TQRemoveParamByInfo(_tag_HTQPARAMLIST list, const _tag_TQPARAMINFO* info) {
  if (list.impl == nullptr || info == nullptr) return nullptr;
  if (!list.impl->Holds(info)) return nullptr;  // another list's entry, or one that was removed
  list.impl->RequireTerminatedName(info);
  // Intended: a second entry of one name, which only a peer can send, is not the one that its name
  // finds, and stays.
  if (list.impl->FindParam(info->name) != info) return nullptr;
  return list.impl->RemoveParam(info);
}

_tag_TQ_ERROR TQRemoveAllValues(_tag_HTQPARAMLIST list) {
  if (list.impl == nullptr) return TQ_ERR_FAILED;
  list.impl->RemoveAll();
  return TQ_ERR_OK;
}
