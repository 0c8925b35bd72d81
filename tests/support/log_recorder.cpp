#include "support/log_recorder.h"

#include <tq/tq.h>

#include <algorithm>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <stdexcept>

namespace TQ::test {

namespace {

// Never destroyed: a library thread may log while the process ends.
struct Recording {
  std::mutex lock;
  std::condition_variable changed;
  bool active = false;         // guarded by lock
  std::vector<LogLine> lines;  // guarded by lock
};

Recording& TheRecording() {
  static Recording* const recording = new Recording;
  return *recording;
}

bool HasPrefix(const LogLine& line, const std::string& prefix) {
  return line.text.compare(0, prefix.size(), prefix) == 0;
}

size_t CountIf(const std::function<bool(const LogLine&)>& matches) {
  Recording& recording = TheRecording();
  const std::lock_guard guard(recording.lock);
  return static_cast<size_t>(
      std::count_if(recording.lines.begin(), recording.lines.end(), matches));
}

bool WaitForLines(size_t count, std::chrono::milliseconds deadline,
                  const std::function<bool(const LogLine&)>& matches) {
  Recording& recording = TheRecording();
  std::unique_lock guard(recording.lock);
  return recording.changed.wait_for(guard, deadline, [&] {
    return static_cast<size_t>(
               std::count_if(recording.lines.begin(), recording.lines.end(), matches)) >= count;
  });
}

}  // namespace

LogRecorder::LogRecorder(uint32_t mask, int32_t verbosity) {
  {
    Recording& recording = TheRecording();
    const std::lock_guard guard(recording.lock);
    if (recording.active) {
      throw std::logic_error("LogRecorder: there is one already");
    }
    recording.active = true;
    recording.lines.clear();
  }
  TQSetLogLevel(mask, verbosity, &Record);
}

LogRecorder::~LogRecorder() {
  TQSetLogLevel(0, 0, nullptr);
  Recording& recording = TheRecording();
  const std::lock_guard guard(recording.lock);
  recording.active = false;
}

void LogRecorder::Record(uint32_t level, int32_t verbosity, const char* text) {
  Recording& recording = TheRecording();
  const std::lock_guard guard(recording.lock);
  if (recording.active) {
    recording.lines.push_back(
        {level, verbosity, text != nullptr ? text : "", std::this_thread::get_id()});
    recording.changed.notify_all();
  }
}

std::vector<LogLine> LogRecorder::Lines() const {
  Recording& recording = TheRecording();
  const std::lock_guard guard(recording.lock);
  return recording.lines;
}

std::vector<std::string> LogRecorder::Texts() const {
  std::vector<std::string> texts;
  for (LogLine& line : Lines()) {
    texts.push_back(std::move(line.text));
  }
  return texts;
}

bool LogRecorder::WaitFor(uint32_t level, const std::string& text,
                          std::chrono::milliseconds deadline) const {
  return WaitForCount(level, text, 1, deadline);
}

bool LogRecorder::WaitForPrefix(uint32_t level, const std::string& prefix,
                                std::chrono::milliseconds deadline) const {
  return WaitForLines(1, deadline, [&](const LogLine& line) {
    return line.level == level && HasPrefix(line, prefix);
  });
}

bool LogRecorder::WaitForCount(uint32_t level, const std::string& text, size_t count,
                               std::chrono::milliseconds deadline) const {
  return WaitForLines(count, deadline, [&](const LogLine& line) {
    return line.level == level && line.text == text;
  });
}

std::optional<LogLine> LogRecorder::FirstWithPrefix(const std::string& prefix) const {
  for (LogLine& line : Lines()) {
    if (HasPrefix(line, prefix)) {
      return std::move(line);
    }
  }
  return std::nullopt;
}

size_t LogRecorder::CountOf(const std::string& text) const {
  return CountIf([&](const LogLine& line) { return line.text == text; });
}

size_t LogRecorder::CountOfPrefix(const std::string& prefix) const {
  return CountIf([&](const LogLine& line) { return HasPrefix(line, prefix); });
}

size_t LogRecorder::CountOfLevel(uint32_t level) const {
  return CountIf([&](const LogLine& line) { return line.level == level; });
}

void LogRecorder::Clear() {
  Recording& recording = TheRecording();
  const std::lock_guard guard(recording.lock);
  recording.lines.clear();
}

std::string LogRecorder::Dump() const {
  std::string out = "recorded log lines:\n";
  for (const LogLine& line : Lines()) {
    out += "  [" + std::to_string(line.level) + "] " + line.text + "\n";
  }
  return out;
}

}  // namespace TQ::test
