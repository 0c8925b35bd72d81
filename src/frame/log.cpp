#include "frame/log.h"

#include <tq/diagnostics.h>

void TQSetLogLevel(uint32_t mask, int32_t verbosity, TQLogCallback callback) {
  using namespace TQ::detail;
  g_logMask.store(mask, std::memory_order_relaxed);
  g_logVerbosity.store(verbosity, std::memory_order_relaxed);
  g_logCallback.store(callback, std::memory_order_relaxed);
}
