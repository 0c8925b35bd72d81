// A second process for a test: the same test executable, started in a role.
//
//   TQ_TEST_ROLE(echoServer) {
//     Say("ready " + args.at(0));
//     while (auto command = ReadCommand()) {
//       Say("got " + *command);
//     }
//     return 0;
//   }
//
//   TEST(Something, Works) {
//     ChildProcess server("echoServer", {std::to_string(port)});
//     ASSERT_TRUE(server.ExpectLine("ready 20001"));
//     server.WriteLine("hello");
//     ASSERT_TRUE(server.ExpectLine("got hello"));
//     server.CloseInput();
//     EXPECT_TRUE(server.ExpectSuccess());
//   }
//
// A role runs in the process's main thread before any test. The googletest assertions may be used
// in it: a failed one is printed to standard error and turns a result of 0 into EXIT_FAILED_CHECK.
// A role must say everything through Say; its standard output is the line to the test.
//
// Nothing stays behind: a role process ends when its ChildProcess is destroyed, when the process
// that started it ends in whatever way, and after ROLE_TIME_LIMIT.
#pragma once

#include "support/platform.h"
#include "support/wait_until.h"

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace TQ::test {

using RoleFunction = int (*)(const std::vector<std::string>& args);

/// Registers a role under its name; made by TQ_TEST_ROLE at start-up.
struct RoleRegistration {
  RoleRegistration(const char* name, RoleFunction function);
};

/// Defines the role `name`: the body that follows is the function, with `args` as its arguments.
#define TQ_TEST_ROLE(name)                                                                     \
  static int tqTestRole_##name([[maybe_unused]] const std::vector<std::string>& args);         \
  static const ::TQ::test::RoleRegistration tqTestRoleRegistration_##name(#name,               \
                                                                          &tqTestRole_##name); \
  static int tqTestRole_##name([[maybe_unused]] const std::vector<std::string>& args)

constexpr std::chrono::milliseconds ROLE_TIME_LIMIT{50000};

constexpr int EXIT_FAILED_CHECK = 96;
constexpr int EXIT_UNKNOWN_ROLE = 99;

/// Where a child's standard error goes: to the test's own, or into the lines that the test reads.
enum class ErrorOutput { INHERITED, MERGED };

/// Threads: one at a time.
class ChildProcess final {
 public:
  /// Starts the role. A start that fails makes every other operation fail.
  explicit ChildProcess(const std::string& roleName, const std::vector<std::string>& args = {},
                        ErrorOutput errors = ErrorOutput::INHERITED);

  /// Ends the process if it still runs, and reaps it.
  ~ChildProcess();

  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  /// Sends a line to ReadCommand of the role. False if the child reads no more.
  bool WriteLine(const std::string& line);

  /// The next line without its end; nullopt at the end of the output (AtEnd) or of the time.
  std::optional<std::string> ReadLine(std::chrono::milliseconds timeout = DEFAULT_DEADLINE);

  /// Reads one line and compares; a difference is a failure of the running test.
  bool ExpectLine(const std::string& text, std::chrono::milliseconds timeout = DEFAULT_DEADLINE);

  /// Reads lines up to one that begins with `prefix` and returns it; nullopt as ReadLine. The
  /// lines before it are dropped.
  std::optional<std::string> ReadLineStarting(const std::string& prefix,
                                              std::chrono::milliseconds timeout = DEFAULT_DEADLINE);

  /// All lines up to the end of the output or of the time.
  std::vector<std::string> ReadRemainingLines(std::chrono::milliseconds timeout = DEFAULT_DEADLINE);

  /// True once the child has closed its output and everything was read.
  bool AtEnd() const { return outputEnded; }

  /// Ends the role's input: its ReadCommand gives nullopt.
  void CloseInput();

  /// How the child ended; nullopt if it still runs after `timeout`. May be called again.
  std::optional<ExitStatus> Wait(std::chrono::milliseconds timeout = DEFAULT_DEADLINE);

  /// Waits for the end; anything but exit code 0 is a failure of the running test.
  bool ExpectSuccess(std::chrono::milliseconds timeout = DEFAULT_DEADLINE);

  /// True while the child runs.
  bool IsRunning();

  /// Ends the child at once, without any goodbye. Wait then tells its status.
  void Kill();

  /// 0 if the start failed.
  int64_t Pid() const { return child.id; }

 private:
  std::optional<std::string> TakeLine();

  std::string role;
  platform::Child child;
  std::optional<ExitStatus> status;
  std::string buffered;
  bool outputEnded = false;
};

// ---- for the role ------------------------------------------------------------------------------

/// Writes one line to the test at once. Threads: any.
void Say(const std::string& line);

/// The next line from the test; nullopt when the test has closed the input. Threads: one at a time.
std::optional<std::string> ReadCommand();

/// Reads lines until `text` comes. False if the input ends before.
bool AwaitCommand(const std::string& text);

/// For main(): runs a role and returns the process's exit code.
int RunRole(const std::string& name, const std::vector<std::string>& args);

}  // namespace TQ::test
