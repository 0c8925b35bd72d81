#include "frame/object_counts.h"

#include <tq/diagnostics.h>

TQObjectCounts DEBUG_TQObjectCount() {
  const auto& counters = TQ::detail::g_objectCounts;
  // A host that has seen the last session go may take down what its callbacks used.
  TQObjectCounts counts{};
  counts.sessions = counters.sessions.load(std::memory_order_acquire);
  counts.messages = counters.messages.load(std::memory_order_acquire);
  counts.pendingCalls = counters.pendingCalls.load(std::memory_order_acquire);
  counts.paramLists = counters.paramLists.load(std::memory_order_acquire);
  counts.writeCalls = counters.writeCalls.load(std::memory_order_acquire);
  counts.readCalls = counters.readCalls.load(std::memory_order_acquire);
  return counts;
}

// Intended: empty. Hosts call it, and it has nothing to tell.
void TQHandleUsageLog() {}
