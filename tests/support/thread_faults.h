// Lets a process run out of threads, where no test can bring it to that by other means.
//
//   g_threadsLeft = 1;    // one more thread can be made, the ones behind it cannot
//   g_threadsLeft = -1;   // any number again
//
// This header defines the system's call itself, which then goes on to the system's. It stands for a
// whole test executable, so exactly one of its sources includes it.
//
// Threads: any.
#pragma once

#include <dlfcn.h>
#include <pthread.h>

#include <atomic>
#include <cerrno>

namespace TQ::test {

/// How many threads can still be made; negative for any number.
inline std::atomic<int> g_threadsLeft{-1};

}  // namespace TQ::test

// NOLINTNEXTLINE(misc-definitions-in-headers): one source of an executable includes it, see above
extern "C" int pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                              void* (*body)(void*), void* argument) noexcept {
  using Create = int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
  static const auto create = reinterpret_cast<Create>(dlsym(RTLD_NEXT, "pthread_create"));
  auto& left = TQ::test::g_threadsLeft;
  if (left == 0) {
    return EAGAIN;
  }
  if (left > 0) {
    --left;
  }
  return create(thread, attributes, body, argument);
}
