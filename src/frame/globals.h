// The library's background threads, between the first initialisation and the last shutdown.
#pragma once

#include <thread>

namespace TQ::detail {

// Guarded by initLock in lifecycle.cpp.
extern std::thread pipeListenerThread;
extern std::thread socketListenerThread;
extern std::thread dispatcherThread;

}  // namespace TQ::detail
