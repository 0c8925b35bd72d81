#include "transport/pipe_listener.h"

#include <gtest/gtest.h>
#include <tq/tq.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "support/log_recorder.h"
#include "support/process_info.h"
#include "support/wait_until.h"

namespace TQ::test {
namespace {

bool HasThread(const std::string& name) {
  const std::vector<std::string> names = ThreadNames();
  return std::count(names.begin(), names.end(), name) != 0;
}

TEST(PipeListener, WaitsAtItsGate) {
  LogRecorder log;
  ASSERT_EQ(TQInitialize("pipes", 0, nullptr), TQ_ERR_OK);
  ASSERT_TRUE(WaitUntil([] { return HasThread("tq-listen-pipe"); }));
  std::this_thread::sleep_for(std::chrono::milliseconds{50});
  EXPECT_EQ(log.CountOfPrefix("ConnThread Pipe"), 0u) << log.Dump();
  EXPECT_TRUE(HasThread("tq-listen-pipe"));
  TQShutdown();
}

TEST(PipeListener, EndsBehindItsGateWhenNoPipesAreDefined) {
  LogRecorder log;
  ASSERT_EQ(TQInitialize("pipes", 0, nullptr), TQ_ERR_OK);
  ASSERT_EQ(TQConnectionReady(), TQ_ERR_OK);
  ASSERT_TRUE(log.WaitFor(TQ_LOG_INFO, "ConnThread Pipe stopped - pipes are not defined"));
  EXPECT_TRUE(WaitUntil([] { return !HasThread("tq-listen-pipe"); }));
  TQShutdown();
  std::vector<std::string> texts;
  const auto startup = log.FirstWithPrefix("ConnThread Pipe Startup");
  ASSERT_TRUE(startup);
  for (const LogLine& line : log.Lines()) {
    if (line.thread == startup->thread) texts.push_back(line.text);
  }
  EXPECT_EQ(texts, (std::vector<std::string>{"ConnThread Pipe Startup",
                                             "ConnThread Pipe stopped - pipes are not defined"}));
  EXPECT_EQ(startup->level, TQ_LOG_INFO);
}

TEST(PipeListener, ShutdownLetsItThroughTheGate) {
  LogRecorder log;
  ASSERT_EQ(TQInitialize("pipes", 0, nullptr), TQ_ERR_OK);
  ASSERT_EQ(TQShutdown(), TQ_ERR_OK);
  EXPECT_EQ(log.CountOf("ConnThread Pipe Startup"), 1u);
  EXPECT_EQ(log.CountOf("ConnThread Pipe stopped - pipes are not defined"), 1u);
  EXPECT_FALSE(HasThread("tq-listen-pipe"));
}

}  // namespace
}  // namespace TQ::test
