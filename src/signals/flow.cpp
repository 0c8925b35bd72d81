#include "signals/flow.h"

#include <tq/param_list.h>

namespace TQ::detail {

void StampFlowId(uint32_t flowId, _tag_HTQPARAMLIST params) {
  // A null list is refused by the setter, and there is nobody to tell.
  (void)TQSetInt32Value(params, FLOW_ID_NAME, flowId);
}

}  // namespace TQ::detail
