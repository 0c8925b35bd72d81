// What a host process may do to a library that lives in it.
//
//   const SignalStorm storm;                 // every thread's waits are interrupted all the time
//   const DescriptorsInUse used(1100);       // new descriptors have numbers above 1100
//   const SignalState before = SignalState::Current();
//   ... use the library ...
//   EXPECT_EQ(SignalState::Current(), before);
//   LimitAddressSpace(2u << 30);             // in a role: allocations above it fail
#pragma once

#include "support/platform.h"

#include <cstddef>
#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

namespace TQ::test {

/// Sends a signal with a harmless handler to each thread of this process about every millisecond,
/// without restarting the calls that it interrupts. One at a time. Where the platform has no such
/// signals it does nothing.
class SignalStorm final {
 public:
  SignalStorm() { platform::StartSignalStorm(); }
  ~SignalStorm() { platform::StopSignalStorm(); }

  SignalStorm(const SignalStorm&) = delete;
  SignalStorm& operator=(const SignalStorm&) = delete;

  /// How often the handler has run; a test checks that it grows.
  static uint64_t Delivered() { return platform::SignalStormCount(); }

  /// False where the platform has no such signals.
  static bool IsAvailable() { return platform::HAS_SIGNALS; }
};

/// Keeps all descriptors with numbers up to `highest` in use, raising this process's soft limit if
/// it must. Throws std::runtime_error if the hard limit is too low.
class DescriptorsInUse final {
 public:
  explicit DescriptorsInUse(int highest) : held(platform::OccupyDescriptors(highest)) {}
  ~DescriptorsInUse() { platform::ReleaseDescriptors(held); }

  DescriptorsInUse(const DescriptorsInUse&) = delete;
  DescriptorsInUse& operator=(const DescriptorsInUse&) = delete;

  /// Descriptors that had to be taken.
  size_t Count() const { return held.size(); }

 private:
  std::vector<platform::Handle> held;
};

/// What the process does with signals: the calling thread's mask and the process's dispositions.
struct SignalState {
  std::string blocked;
  std::string ignored;
  std::string caught;

  static SignalState Current() {
    return {platform::SignalSet("SigBlk"), platform::SignalSet("SigIgn"),
            platform::SignalSet("SigCgt")};
  }

  friend bool operator==(const SignalState&, const SignalState&) = default;
  friend std::ostream& operator<<(std::ostream& stream, const SignalState& state) {
    return stream << "blocked " << state.blocked << ", ignored " << state.ignored << ", caught "
                  << state.caught;
  }
};

/// Lets this process have no more than `bytes` of address space from now on. For roles. False if it
/// cannot be done: a sanitizer's own tables need more address space than any limit allows.
inline bool LimitAddressSpace(uint64_t bytes) { return platform::LimitAddressSpace(bytes); }

/// Lets the first thread of this process have no more than `bytes` of stack from now on. For roles.
inline bool LimitStack(uint64_t bytes) { return platform::LimitStack(bytes); }

}  // namespace TQ::test
