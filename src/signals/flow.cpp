#include "signals/flow.h"

#include "params/list_store.h"

#include <tq/param_list.h>

namespace TQ::detail {

void StampFlowId(uint32_t flowId, _tag_HTQPARAMLIST params) {
  if (params.impl == nullptr) return;  // and there is nobody to tell
  // A list that came from a peer may hold the name more than once, and the setter removes only one.
  while (const _tag_TQPARAMINFO* entry = params.impl->FindParam(FLOW_ID_NAME)) {
    params.impl->RemoveParam(entry);
  }
  TQSetInt32Value(params, FLOW_ID_NAME, flowId);
}

}  // namespace TQ::detail
