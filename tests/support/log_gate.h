// Stops the threads that log a certain line until the test lets them go on.
//
//   LogRecorder log;
//   LogGate gate("Removing application there:1/peer");
//   ... something that ends the session ...
//   ASSERT_TRUE(gate.WaitUntilReached());
//   ... the session's sending thread stands at this line ...
//   gate.Open();
//
// A gate stands in front of the LogRecorder that exists already: the line is recorded, and then the
// thread waits. One gate at a time; its destruction opens it. A gate that is never opened opens by
// itself after DEFAULT_DEADLINE, so that a failed test ends.
//
// Threads: any.
#pragma once

#include <tq/diagnostics.h>

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <utility>

#include "support/log_recorder.h"
#include "support/wait_until.h"

namespace TQ::test {

class LogGate final {
 public:
  explicit LogGate(std::string line) {
    {
      const std::lock_guard held(TheState().lock);
      TheState().line = std::move(line);
      TheState().open = false;
      TheState().reached = 0;
    }
    TQSetLogLevel(ALL_LOG_LEVELS, 0, &Pass);
  }

  ~LogGate() { Open(); }

  LogGate(const LogGate&) = delete;
  LogGate& operator=(const LogGate&) = delete;

  /// True once `count` threads have logged the line.
  bool WaitUntilReached(int count = 1) const {
    std::unique_lock held(TheState().lock);
    return TheState().changed.wait_for(held, DEFAULT_DEADLINE,
                                       [&] { return TheState().reached >= count; });
  }

  void Open() {
    const std::lock_guard held(TheState().lock);
    TheState().open = true;
    TheState().changed.notify_all();
  }

 private:
  struct State {
    std::mutex lock;
    std::condition_variable changed;
    std::string line;
    bool open = true;
    int reached = 0;
  };

  // Never destroyed: a library thread may log while the process ends.
  static State& TheState() {
    static State* const state = new State;
    return *state;
  }

  static void Pass(uint32_t level, int32_t verbosity, const char* text) {
    LogRecorder::Record(level, verbosity, text);
    State& state = TheState();
    std::unique_lock held(state.lock);
    if (state.open || state.line != text) {
      return;
    }
    ++state.reached;
    state.changed.notify_all();
    state.changed.wait_for(held, DEFAULT_DEADLINE, [&] { return state.open; });
  }
};

}  // namespace TQ::test
