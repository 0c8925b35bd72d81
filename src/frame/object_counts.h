// The counters behind DEBUG_TQObjectCount.
//
// Threads: any. Counting is an atomic read-modify-write; a snapshot is not consistent across
// fields.
#pragma once

#include <tq/types.h>

#include <atomic>
#include <cstdint>

namespace TQ::detail {

/// One word each, in the order of TQObjectCounts; the reserved words are never written.
struct ObjectCounters {
  std::atomic<uint32_t> sessions{0};      ///< sessions alive
  std::atomic<uint32_t> messages{0};      ///< messages alive
  std::atomic<uint32_t> pendingCalls{0};  ///< see AwaitingRequests
  std::atomic<uint32_t> paramLists{0};    ///< lists alive
  std::atomic<uint32_t> writeCalls{0};    ///< attempts to write to a peer
  std::atomic<uint32_t> readCalls{0};     ///< attempts to read from a peer
};

extern ObjectCounters g_objectCounts;

}  // namespace TQ::detail
