// What the standard thread library does not offer.
#pragma once

namespace TQ::platform {

/// Names the calling thread for debuggers and process viewers. At most 15 characters are shown.
/// A platform that cannot do it does nothing.
void SetCurrentThreadName(const char* name);

}  // namespace TQ::platform
