/// @file
/// The export macro: the only place of the public headers that looks at the platform.
///
/// Everything marked TQ_API can be used by a host; everything else in the headers that has no body
/// is the library's own. On Windows a host that links the static library defines TQ_STATIC;
/// TQ_BUILDING_LIBRARY is defined by the library's own build alone. Elsewhere neither matters.
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
