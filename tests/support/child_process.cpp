#include "support/child_process.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <iostream>
#include <map>
#include <mutex>
#include <utility>

namespace TQ::test {

namespace {

using Clock = std::chrono::steady_clock;

std::map<std::string, RoleFunction>& Roles() {
  static std::map<std::string, RoleFunction> roles;
  return roles;
}

std::chrono::milliseconds Remaining(Clock::time_point end) {
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now());
  return left.count() > 0 ? left : std::chrono::milliseconds{0};
}

// Prints failed assertions of a role where they do not get between its lines.
class FailurePrinter final : public testing::EmptyTestEventListener {
  void OnTestPartResult(const testing::TestPartResult& result) override {
    if (result.failed()) {
      std::cerr << "role process: " << (result.file_name() != nullptr ? result.file_name() : "?")
                << ':' << result.line_number() << ": " << result.message() << std::endl;
    }
  }
};

void PrintFailuresToErrorStream() {
  auto& listeners = testing::UnitTest::GetInstance()->listeners();
  delete listeners.Release(listeners.default_result_printer());
  listeners.Append(new FailurePrinter);
}

}  // namespace

RoleRegistration::RoleRegistration(const char* name, RoleFunction function) {
  Roles()[name] = function;
}

ChildProcess::ChildProcess(const std::string& roleName, const std::vector<std::string>& args,
                           ErrorOutput errors)
    : role(roleName) {
  std::vector<std::string> arguments{"--role=" + role};
  arguments.insert(arguments.end(), args.begin(), args.end());
  if (auto started = platform::StartSelf(arguments, errors == ErrorOutput::MERGED)) {
    child = *started;
  } else {
    outputEnded = true;
    ADD_FAILURE() << "the role " << role << " could not be started";
  }
}

ChildProcess::~ChildProcess() {
  if (child.id != 0 && !status) {
    platform::KillChild(child);
    (void)Wait();
  }
  platform::ClosePipe(child.input);
  platform::ClosePipe(child.output);
  platform::ClosePipe(child.lifeline);
}

bool ChildProcess::WriteLine(const std::string& line) {
  const std::string text = line + "\n";
  const auto end = Clock::now() + DEFAULT_DEADLINE;
  size_t written = 0;
  while (child.input != platform::NO_HANDLE && written < text.size()) {
    const auto result = platform::WritePipe(child.input, text.data() + written,
                                            text.size() - written, Remaining(end));
    if (result.status != platform::IoStatus::OK) {
      return false;
    }
    written += result.count;
  }
  return written == text.size();
}

std::optional<std::string> ChildProcess::TakeLine() {
  const size_t lineEnd = buffered.find('\n');
  if (lineEnd == std::string::npos) {
    // A last line without its end counts as a line.
    if (outputEnded && !buffered.empty()) {
      return std::exchange(buffered, std::string());
    }
    return std::nullopt;
  }
  std::string line = buffered.substr(0, lineEnd);
  buffered.erase(0, lineEnd + 1);
  if (!line.empty() && line.back() == '\r') {
    line.pop_back();
  }
  return line;
}

std::optional<std::string> ChildProcess::ReadLine(std::chrono::milliseconds timeout) {
  const auto end = Clock::now() + timeout;
  for (;;) {
    if (auto line = TakeLine()) {
      return line;
    }
    if (outputEnded) {
      return std::nullopt;
    }
    char chunk[4096];
    const auto result = platform::ReadPipe(child.output, chunk, sizeof chunk, Remaining(end));
    if (result.status == platform::IoStatus::TIMED_OUT) {
      return std::nullopt;
    }
    buffered.append(chunk, result.count);
    outputEnded = result.status != platform::IoStatus::OK;
  }
}

bool ChildProcess::ExpectLine(const std::string& text, std::chrono::milliseconds timeout) {
  const auto line = ReadLine(timeout);
  if (line == text) {
    return true;
  }
  const std::string got = line          ? "got \"" + *line + "\""
                          : outputEnded ? "its output has ended"
                                        : "nothing came in time";
  ADD_FAILURE() << "role " << role << ": expected the line \"" << text << "\", " << got;
  return false;
}

std::optional<std::string> ChildProcess::ReadLineStarting(const std::string& prefix,
                                                          std::chrono::milliseconds timeout) {
  const auto end = Clock::now() + timeout;
  for (;;) {
    auto line = ReadLine(Remaining(end));
    if (!line || line->compare(0, prefix.size(), prefix) == 0) {
      return line;
    }
  }
}

std::vector<std::string> ChildProcess::ReadRemainingLines(std::chrono::milliseconds timeout) {
  const auto end = Clock::now() + timeout;
  std::vector<std::string> lines;
  while (auto line = ReadLine(Remaining(end))) {
    lines.push_back(std::move(*line));
  }
  return lines;
}

void ChildProcess::CloseInput() { platform::ClosePipe(child.input); }

std::optional<ExitStatus> ChildProcess::Wait(std::chrono::milliseconds timeout) {
  if (!status && child.id != 0) {
    status = platform::WaitChild(child, timeout);
  }
  return status;
}

bool ChildProcess::ExpectSuccess(std::chrono::milliseconds timeout) {
  const auto ended = Wait(timeout);
  if (!ended) {
    ADD_FAILURE() << "role " << role << " has not ended";
    return false;
  }
  EXPECT_TRUE(ended->Succeeded()) << "role " << role << " ended with " << *ended;
  return ended->Succeeded();
}

bool ChildProcess::IsRunning() { return child.id != 0 && !Wait(std::chrono::milliseconds{0}); }

void ChildProcess::Kill() {
  if (child.id != 0 && !status) {
    platform::KillChild(child);
  }
}

void Say(const std::string& line) {
  static std::mutex lock;
  const std::lock_guard guard(lock);
  std::fwrite(line.data(), 1, line.size(), stdout);
  std::fputc('\n', stdout);
  std::fflush(stdout);
}

std::optional<std::string> ReadCommand() {
  std::string line;
  if (!std::getline(std::cin, line)) {
    return std::nullopt;
  }
  return line;
}

bool AwaitCommand(const std::string& text) {
  while (const auto line = ReadCommand()) {
    if (*line == text) {
      return true;
    }
  }
  return false;
}

int RunRole(const std::string& name, const std::vector<std::string>& args) {
  const auto found = Roles().find(name);
  if (found == Roles().end()) {
    std::cerr << "role process: there is no role " << name << std::endl;
    return EXIT_UNKNOWN_ROLE;
  }
  platform::StartWatchdog(ROLE_TIME_LIMIT);
  PrintFailuresToErrorStream();
  const int code = found->second(args);
  const bool failed = testing::UnitTest::GetInstance()->ad_hoc_test_result().Failed();
  return code == 0 && failed ? EXIT_FAILED_CHECK : code;
}

}  // namespace TQ::test
