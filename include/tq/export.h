/// @file
/// The export macro, the only place of the public headers that looks at the platform.
///
/// TQ_STATIC            define it to use or to build the static library on Windows.
/// TQ_BUILDING_LIBRARY  defined by the library's own build alone.
#pragma once

#if defined(_WIN32)
#if defined(TQ_STATIC)
#define TQ_API
#elif defined(TQ_BUILDING_LIBRARY)
#define TQ_API __declspec(dllexport)
#else
#define TQ_API __declspec(dllimport)
#endif
#else
#define TQ_API __attribute__((visibility("default")))
#endif
