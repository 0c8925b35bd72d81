/// @file
/// The version of these headers, for tests at compile time.
///
/// Semantic versions. While the first number is 0 the second one counts changes that callers must
/// look at, and the third one all others.
#pragma once

#define TQ_VERSION_MAJOR 0
#define TQ_VERSION_MINOR 1
#define TQ_VERSION_PATCH 0

/// The three numbers as text, "major.minor.patch".
#define TQ_VERSION_STRING "0.1.0"
