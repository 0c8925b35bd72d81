// Waiting for a condition instead of sleeping.
//
//   ASSERT_TRUE(WaitUntil([&] { return recorder.CountOf("Receive failed: socket closed") == 1; }));
#pragma once

#include <chrono>
#include <thread>

namespace TQ::test {

/// Generous, so that a busy machine fails no test; a condition that holds ends the wait at once.
constexpr std::chrono::milliseconds DEFAULT_DEADLINE{20000};

/// Polls `predicate` until it is true or the deadline has passed; returns its last answer.
template <typename Predicate>
bool WaitUntil(Predicate predicate, std::chrono::milliseconds deadline = DEFAULT_DEADLINE) {
  const auto end = std::chrono::steady_clock::now() + deadline;
  std::chrono::milliseconds pause{1};
  while (!predicate()) {
    if (std::chrono::steady_clock::now() >= end) {
      return predicate();
    }
    std::this_thread::sleep_for(pause);
    if (pause < std::chrono::milliseconds{10}) {
      ++pause;
    }
  }
  return true;
}

/// True if `operation`, which is given the number of its run, takes less than `limit` in one run.
/// For what would take longer in each of them if it were wrong, such as a wait that nobody ends: a
/// busy machine slows down some runs and not all.
template <typename Operation>
bool IsQuickerOnce(std::chrono::milliseconds limit, Operation operation, int runs = 5) {
  for (int run = 0; run < runs; ++run) {
    const auto start = std::chrono::steady_clock::now();
    operation(run);
    if (std::chrono::steady_clock::now() - start < limit) {
      return true;
    }
  }
  return false;
}

}  // namespace TQ::test
