// Names for clang's thread-safety attributes; other compilers see nothing.
//
// A field says what guards it, a function what it requires, and the analysis then refuses to
// compile an access without the lock.
#pragma once

#if defined(__clang__)
#define TQ_THREAD_ATTRIBUTE(x) __attribute__((x))
#else
#define TQ_THREAD_ATTRIBUTE(x)
#endif

#define TQ_CAPABILITY(name) TQ_THREAD_ATTRIBUTE(capability(name))
#define TQ_SCOPED_CAPABILITY TQ_THREAD_ATTRIBUTE(scoped_lockable)
#define TQ_GUARDED_BY(lock) TQ_THREAD_ATTRIBUTE(guarded_by(lock))
#define TQ_REQUIRES(...) TQ_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define TQ_ACQUIRE(...) TQ_THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define TQ_RELEASE(...) TQ_THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))
