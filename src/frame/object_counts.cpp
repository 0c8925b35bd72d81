#include "frame/object_counts.h"

#include <tq/diagnostics.h>

TQObjectCounts DEBUG_TQObjectCount() {
  const auto& counters = TQ::detail::g_objectCounts;
  TQObjectCounts counts{};
  counts.sessions = counters.sessions.load(std::memory_order_relaxed);
  counts.messages = counters.messages.load(std::memory_order_relaxed);
  counts.pendingCalls = counters.pendingCalls.load(std::memory_order_relaxed);
  counts.paramLists = counters.paramLists.load(std::memory_order_relaxed);
  counts.writeCalls = counters.writeCalls.load(std::memory_order_relaxed);
  counts.readCalls = counters.readCalls.load(std::memory_order_relaxed);
  return counts;
}

// Intended: empty. Hosts call it, and it has nothing to tell.
void TQHandleUsageLog() {}
