// The two slots that every process serves itself: peers connect to its signals and disconnect.
#pragma once

#include <tq/types.h>

namespace TQ::detail {

/// Slot CONNECT_SIGNAL_SLOT: subscribes the calling peer. Runs on the dispatcher.
int ServeConnectSignal(_tag_HTQPARAMLIST params, _tag_HTQPARAMLIST result,
                       const TQSlotCallInfo* info);

/// Slot DISCONNECT_SIGNAL_SLOT: ends one subscription of the calling peer. Runs on the dispatcher.
int ServeDisconnectSignal(_tag_HTQPARAMLIST params, _tag_HTQPARAMLIST result,
                          const TQSlotCallInfo* info);

/// Puts both into the slot table, with the signal table as their context, which they do not look
/// at.
void RegisterInternalSlots();

}  // namespace TQ::detail
