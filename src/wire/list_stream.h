// A list tree on a channel: blocks in depth-first order, each announced by a descriptor.
//
// block of L | descriptor of C1 | block of C1 | descriptor of C2 | block of C2 ...
//
// Threads: the writer runs on a session's sending thread, the reader on its receiving thread; no
// lock is taken on the lists.
#pragma once

#include "params/list_store.h"
#include "transport/transport_channel.h"

#include <cstdint>

namespace TQ::detail {

/// What announces a list on the wire.
struct ListDescriptor {
  uint32_t blockSize = 0;
  uint32_t handleCount = 0;
};

/// The descriptor of `list`.
ListDescriptor DescriptorOf(const FastHolderImpl& list);

/// Writes `list` and everything below it. With `next` that descriptor follows the tree; a null one
/// ends the stream with the last block. The bytes written, or negative.
int32_t WriteParamList(const FastHolderImpl& list, ITransportChannel& channel,
                       const ListDescriptor* next);

/// Fills an empty `list` with the tree that `own` announces. With `next` the descriptor that
/// follows the tree is stored there. The bytes read, or -1 when the channel failed, the stream is
/// damaged, or the announced memory cannot be had; the list may then be partly filled.
///
/// Intended: nothing limits size, handle count or depth but the channel's own limit on one read.
/// The recursion goes one step down for each level of nesting.
int32_t ReadParamList(FastHolderImpl& list, ITransportChannel& channel, ListDescriptor own,
                      ListDescriptor* next);

}  // namespace TQ::detail
