#include "platform/threads.h"

#include <pthread.h>

namespace TQ::platform {

void SetCurrentThreadName(const char* name) {
  // A name that the system refuses is no reason to fail a thread.
  (void)pthread_setname_np(pthread_self(), name);
}

}  // namespace TQ::platform
