// Making, sharing and closing list handles.
#include "params/list_store.h"

#include <tq/param_list.h>

using TQ::detail::ListRef;

_tag_HTQPARAMLIST TQCreateParamList() { return {FastHolderImpl::Create().Detach()}; }

_tag_HTQPARAMLIST TQReferenceHandle(_tag_HTQPARAMLIST list) {
  return {ListRef(list.impl).Detach()};
}

_tag_TQ_ERROR TQCloseHandle(_tag_HTQPARAMLIST list) {
  ListRef::Adopt(list.impl).Reset();
  return TQ_ERR_OK;
}
