// The lock of the dumps on the standard error stream.
#pragma once

#include "frame/locks.h"

namespace TQ::detail {

/// Held by PrintHandleInfo for a whole dump, so that the dumps of two threads do not mix.
extern Mutex g_printMutex;

}  // namespace TQ::detail
