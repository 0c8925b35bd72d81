/// @file
/// The private heap, the log and the object counts.
#pragma once

#include <tq/export.h>
#include <tq/types.h>

#ifdef __cplusplus
extern "C" {
#endif

TQ_API void* TQAllocate(uint64_t size);
TQ_API void TQFree(void* ptr);
TQ_API void* TQRealloc(void* ptr, uint64_t size);
TQ_API void TQSetLogLevel(uint32_t mask, int32_t verbosity, TQLogCallback callback);
TQ_API void TQHandleUsageLog(void);
TQ_API TQObjectCounts DEBUG_TQObjectCount(void);

#ifdef __cplusplus
} // extern "C"
#endif
