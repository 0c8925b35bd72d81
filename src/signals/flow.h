// The flow id: an ordinary value of the list that goes out with a message.
#pragma once

#include <tq/types.h>

#include <cstdint>

namespace TQ::detail {

/// The name under which the flow id travels. Nothing in the library reads it.
constexpr const char* FLOW_ID_NAME = "...FlowID";

/// Puts `flowId` at the end of `params`, replacing an earlier one; the list stays changed. A null
/// list drops the flow id without comment.
void StampFlowId(uint32_t flowId, _tag_HTQPARAMLIST params);

}  // namespace TQ::detail
