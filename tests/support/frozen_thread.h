// Stops one thread of this process where it is, so that a test decides who comes first.
//
//   FrozenThread frozen("tq-receive");   // the only thread of this name stands still
//   ...
//   frozen.Thaw();
//
// One at a time. The thread must not hold a lock that the test needs.
#pragma once

#include <string>

namespace TQ::test {

class FrozenThread final {
 public:
  /// Waits until there is a thread of this name, and until it stands. Throws std::runtime_error if
  /// that does not come about.
  explicit FrozenThread(const std::string& name);

  /// Thaws.
  ~FrozenThread() { Thaw(); }

  FrozenThread(const FrozenThread&) = delete;
  FrozenThread& operator=(const FrozenThread&) = delete;

  /// Lets the thread go on.
  void Thaw();
};

}  // namespace TQ::test
