#include "support/log_recorder.h"

#include <tq/tq.h>

#include <gtest/gtest.h>

#include <stdexcept>
#include <thread>

namespace TQ::test {
namespace {

using std::chrono::milliseconds;

TEST(LogRecorder, RecordsLinesInOrderWithTheirThread) {
  const LogRecorder log;
  EXPECT_TRUE(log.Lines().empty());
  std::thread::id other;
  LogRecorder::Record(TQ_LOG_INFO, 0, "first");
  std::thread thread([&] {
    other = std::this_thread::get_id();
    LogRecorder::Record(TQ_LOG_ERROR, 3, "second");
  });
  thread.join();

  const auto lines = log.Lines();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0].level, static_cast<uint32_t>(TQ_LOG_INFO));
  EXPECT_EQ(lines[0].verbosity, 0);
  EXPECT_EQ(lines[0].text, "first");
  EXPECT_EQ(lines[0].thread, std::this_thread::get_id());
  EXPECT_EQ(lines[1].level, static_cast<uint32_t>(TQ_LOG_ERROR));
  EXPECT_EQ(lines[1].verbosity, 3);
  EXPECT_EQ(lines[1].thread, other);
  EXPECT_EQ(log.Texts(), (std::vector<std::string>{"first", "second"}));
  EXPECT_EQ(log.Dump(), "recorded log lines:\n  [8] first\n  [2] second\n");
}

TEST(LogRecorder, CountsByWholeTextByPrefixAndByLevel) {
  LogRecorder log;
  LogRecorder::Record(TQ_LOG_INFO, 0, "Send failed with 11");
  LogRecorder::Record(TQ_LOG_INFO, 0, "Send failed with 104");
  LogRecorder::Record(TQ_LOG_WARNING, 0, "Send failed");
  EXPECT_EQ(log.CountOf("Send failed"), 1u);
  EXPECT_EQ(log.CountOfPrefix("Send failed"), 3u);
  EXPECT_EQ(log.CountOfPrefix("send failed"), 0u);
  EXPECT_EQ(log.CountOfLevel(TQ_LOG_INFO), 2u);
  ASSERT_TRUE(log.FirstWithPrefix("Send failed with"));
  EXPECT_EQ(log.FirstWithPrefix("Send failed with")->text, "Send failed with 11");
  EXPECT_FALSE(log.FirstWithPrefix("Receive"));
  log.Clear();
  EXPECT_EQ(log.CountOfPrefix(""), 0u);
}

TEST(LogRecorder, WaitsForALineOfAnotherThread) {
  const LogRecorder log;
  EXPECT_FALSE(log.WaitFor(TQ_LOG_INFO, "late", milliseconds{10}));
  std::thread thread([] {
    std::this_thread::sleep_for(milliseconds{20});
    LogRecorder::Record(TQ_LOG_INFO, 0, "late");
    LogRecorder::Record(TQ_LOG_INFO, 0, "late");
  });
  EXPECT_TRUE(log.WaitFor(TQ_LOG_INFO, "late"));
  EXPECT_TRUE(log.WaitForPrefix(TQ_LOG_INFO, "la"));
  EXPECT_TRUE(log.WaitForCount(TQ_LOG_INFO, "late", 2));
  thread.join();
  EXPECT_FALSE(log.WaitForCount(TQ_LOG_INFO, "late", 3, milliseconds{10}));
}

TEST(LogRecorder, ComparesTheLevelWhileItWaits) {
  const LogRecorder log;
  LogRecorder::Record(TQ_LOG_WARNING, 0, "line");
  EXPECT_FALSE(log.WaitFor(TQ_LOG_INFO, "line", milliseconds{10}));
  EXPECT_FALSE(log.WaitForPrefix(TQ_LOG_INFO, "li", milliseconds{10}));
  EXPECT_TRUE(log.WaitFor(TQ_LOG_WARNING, "line"));
}

TEST(LogRecorder, StartsEmptyAndDropsLinesThatComeTooLate) {
  {
    const LogRecorder log;
    LogRecorder::Record(TQ_LOG_INFO, 0, "early");
  }
  LogRecorder::Record(TQ_LOG_INFO, 0, "between");
  const LogRecorder log;
  EXPECT_TRUE(log.Lines().empty());
}

TEST(LogRecorder, RefusesASecondOneAtTheSameTime) {
  const LogRecorder log;
  EXPECT_THROW(LogRecorder(), std::logic_error);
  LogRecorder::Record(TQ_LOG_INFO, 0, "still recording");
  EXPECT_EQ(log.CountOf("still recording"), 1u);
}

}  // namespace
}  // namespace TQ::test
