#include "support/process_info.h"

#include "support/child_process.h"
#include "support/free_port.h"
#include "support/loopback_pair.h"
#include "support/wait_until.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

namespace TQ::test {
namespace {

TEST(ProcessInfo, CountsThreads) {
  // A sanitizer's own thread starts with the first thread of the program.
  std::thread([] {}).join();
  const int before = ThreadCount();
  ASSERT_GE(before, 1);
  std::mutex lock;
  std::condition_variable condition;
  bool stop = false;
  std::thread first([&] {
    std::unique_lock guard(lock);
    condition.wait(guard, [&] { return stop; });
  });
  EXPECT_EQ(ThreadCount(), before + 1);
  EXPECT_EQ(ThreadNames().size(), static_cast<size_t>(before + 1));
  {
    const std::lock_guard guard(lock);
    stop = true;
  }
  condition.notify_all();
  first.join();
  EXPECT_TRUE(WaitUntil([&] { return ThreadCount() == before; }));
}

TQ_TEST_ROLE(tellThreadNames) {
  for (const std::string& name : ThreadNames()) {
    Say(name);
  }
  return 0;
}

TEST(ProcessInfo, TellsTheNamesOfThreads) {
  ChildProcess child("tellThreadNames");
  const auto names = child.ReadRemainingLines();
  EXPECT_EQ(std::count(names.begin(), names.end(), "watchdog"), 1);
}

TEST(ProcessInfo, CountsOpenDescriptors) {
  const int before = OpenDescriptorCount();
  {
    const LoopbackPair pair;
    EXPECT_EQ(OpenDescriptorCount(), before + 2);
  }
  EXPECT_EQ(OpenDescriptorCount(), before);
}

TEST(ProcessInfo, MeasuresResidentMemory) {
  const uint64_t before = ResidentBytes();
  EXPECT_GT(before, 100u * 1024);
  std::vector<uint8_t> touched(size_t{32} * 1024 * 1024, 1);
  EXPECT_GT(ResidentBytes(), before + touched.size() / 2);
}

TEST(WaitUntil, EndsAsSoonAsThePredicateHolds) {
  int calls = 0;
  const auto start = std::chrono::steady_clock::now();
  EXPECT_TRUE(WaitUntil([&] { return ++calls == 3; }));
  EXPECT_EQ(calls, 3);
  EXPECT_LT(std::chrono::steady_clock::now() - start, DEFAULT_DEADLINE);
}

TEST(WaitUntil, GivesUpAtTheDeadline) {
  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(WaitUntil([] { return false; }, std::chrono::milliseconds{30}));
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds{30});
}

TEST(FreePort, StaysInItsRangeAndNeverRepeatsSoon) {
  std::set<uint16_t> ports;
  for (int count = 0; count < 200; ++count) {
    const uint16_t port = FreePort();
    EXPECT_GE(port, FIRST_TEST_PORT);
    EXPECT_LE(port, LAST_TEST_PORT);
    EXPECT_TRUE(ports.insert(port).second) << port;
  }
}

TEST(FreePort, GivesAPortThatCanBeListenedOn) {
  const uint16_t port = FreePort();
  const RawListener listener(port);
  EXPECT_EQ(listener.Port(), port);
  EXPECT_FALSE(platform::CanBind(port));
}

TQ_TEST_ROLE(tellFreePorts) {
  for (int count = 0; count < 100; ++count) {
    Say(std::to_string(FreePort()));
  }
  return 0;
}

TEST(FreePort, GivesParallelProcessesDifferentPorts) {
  ChildProcess first("tellFreePorts");
  ChildProcess second("tellFreePorts");
  std::set<std::string> ports;
  for (ChildProcess* child : {&first, &second}) {
    const auto lines = child->ReadRemainingLines();
    EXPECT_EQ(lines.size(), 100u);
    ports.insert(lines.begin(), lines.end());
    EXPECT_TRUE(child->ExpectSuccess());
  }
  EXPECT_EQ(ports.size(), 200u);
}

}  // namespace
}  // namespace TQ::test
