// What the operating system says about this process.
//
//   const int before = ThreadCount();
//   ...
//   EXPECT_TRUE(WaitUntil([&] { return ThreadCount() == before; }));
//
// A role process (support/child_process.h) has one more thread than its role makes: its watchdog,
// named "watchdog". A sanitizer may keep a thread of its own, which starts with the first thread of
// the program: start and join one before the first count, and compare counts with counts.
#pragma once

#include "support/platform.h"

#include <cstdint>
#include <string>
#include <vector>

namespace TQ::test {

/// Threads of this process, the calling one included; -1 if it cannot be told.
inline int ThreadCount() { return platform::ThreadCount(); }

/// The names of the threads, in no particular order; at most 15 characters of each are kept.
inline std::vector<std::string> ThreadNames() { return platform::ThreadNames(); }

/// Open descriptors (handles) of this process; -1 if it cannot be told.
inline int OpenDescriptorCount() { return platform::OpenDescriptorCount(); }

/// Bytes of memory that are resident; 0 if it cannot be told.
inline uint64_t ResidentBytes() { return platform::ResidentBytes(); }

}  // namespace TQ::test
