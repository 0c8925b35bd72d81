// The socket listener when system calls fail that a live system does not let fail.
#include <gtest/gtest.h>
#include <tq/tq.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <vector>

#include "support/listening_library.h"
#include "support/log_recorder.h"
#include "support/raw_peer.h"
#include "support/socket_state.h"
#include "support/system_faults.h"
#include "support/wait_until.h"

namespace TQ::test {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using Texts = std::vector<std::string>;

constexpr char ACCEPTING[] = "8 ConnectionThread. Accepting new connection";
constexpr char NOT_ACCEPTED[] = "2 ConnectionThread. Failed to accept incoming connection.";

std::string SelectText() {
  return "ConnectionThread. select failed with code=" + std::to_string(FAULT_CODE);
}

milliseconds Since(steady_clock::time_point start) {
  return std::chrono::duration_cast<milliseconds>(steady_clock::now() - start);
}

// The shortest one between two calls that have failed one after the other. A pause in the code
// would stand in each.
milliseconds ShortestPauseBetweenFailures() {
  const auto times = FailureTimes();
  auto shortest = milliseconds::max();
  for (size_t i = 1; i < times.size(); ++i) {
    shortest =
        std::min(shortest, std::chrono::duration_cast<milliseconds>(times[i] - times[i - 1]));
  }
  return shortest;
}

// Between the first two calls that have failed.
milliseconds PauseBetweenFailures() {
  const auto times = FailureTimes();
  return std::chrono::duration_cast<milliseconds>(times.at(1) - times.at(0));
}

TEST(SocketListenerFaults, FailedListenIsToldOnceWithoutABlankAndTriedAgain) {
  LogRecorder log;
  FailCalls(SystemCall::LISTEN, 2);
  ListeningLibrary library;
  const std::string port = std::to_string(library.Port());
  ASSERT_TRUE(log.WaitForPrefix(TQ_LOG_INFO, "listening for"));
  EXPECT_EQ(FailedCalls(SystemCall::LISTEN), 2);
  EXPECT_EQ(ListenerLog(log),
            (Texts{"8 ConnThread Startup", "1 listen to:127.0.0.1:" + port + "FAILED.",
                   "8 listening for incoming connection on :127.0.0.1:" + port}));
  EXPECT_EQ(OpenSockets().size(), 1u) << "the failed sockets are closed";
}

TEST(SocketListenerFaults, FailedBindAndFailedListenShareTheirOneLine) {
  LogRecorder log;
  ListeningLibrary library(ListeningLibrary::GATE_CLOSED);
  const std::string port = std::to_string(library.Port());
  FailCalls(SystemCall::BIND, 1);
  FailCalls(SystemCall::LISTEN, 1);
  const auto start = steady_clock::now();
  ASSERT_EQ(TQConnectionReady(), TQ_ERR_OK);
  ASSERT_TRUE(log.WaitForPrefix(TQ_LOG_INFO, "listening for"));
  EXPECT_GE(Since(start), milliseconds{2000}) << "one second behind each failure";
  EXPECT_EQ(ListenerLog(log),
            (Texts{"8 ConnThread Startup",
                   "1 bind to:127.0.0.1:" + port + " FAILED. Try to reinitialize listener",
                   "8 listening for incoming connection on :127.0.0.1:" + port}));
}

TEST(SocketListenerFaults, EachFailedAcceptIsOneLineAndThereIsNoPause) {
  LogRecorder log;
  ListeningLibrary library;
  FailCalls(SystemCall::ACCEPT, 30);
  RawPeer peer = library.Admit("test:1/raw");
  EXPECT_LT(ShortestPauseBetweenFailures(), milliseconds{1000});
  const Texts lines = ListenerLog(log);
  EXPECT_EQ(std::count(lines.begin(), lines.end(), NOT_ACCEPTED), 30);
  EXPECT_EQ(std::count(lines.begin(), lines.end(), ACCEPTING), 31);
  // Each attempt is a line of its own, and the listening socket is kept.
  for (size_t i = 2; i + 1 < 62; i += 2) {
    EXPECT_EQ(lines[i], ACCEPTING);
    EXPECT_EQ(lines[i + 1], NOT_ACCEPTED);
  }
  EXPECT_EQ(log.CountOfPrefix("listening for"), 1u);
}

TEST(SocketListenerFaults, FailedWaitIsToldWithItsCodeAndPausesForASecond) {
  LogRecorder log;
  ListeningLibrary library;
  const platform::Handle listener = ListenerOn(library.Port());
  FailCalls(SystemCall::POLL, 2);
  ASSERT_TRUE(log.WaitForCount(TQ_LOG_ERROR, SelectText(), 2));
  EXPECT_GE(PauseBetweenFailures(), milliseconds{1000});
  EXPECT_EQ(ListenerOn(library.Port()), listener) << "the listening socket is kept";
  (void)library.Admit("test:1/raw");
  EXPECT_EQ(log.CountOfPrefix("ConnectionThread. select failed"), 2u);
  EXPECT_EQ(log.CountOfPrefix("listening for"), 1u);
}

TEST(SocketListenerFaults, FailedWaitPausesAlsoWhenNothingIsLogged) {
  ListeningLibrary library;
  FailCalls(SystemCall::POLL, 2);
  ASSERT_TRUE(WaitUntil([] { return FailedCalls(SystemCall::POLL) == 2; }));
  EXPECT_GE(PauseBetweenFailures(), milliseconds{1000});
}

TEST(SocketListenerFaults, IdleListenerLooksAtTheStopFlagEveryElevenHundredMilliseconds) {
  ListeningLibrary library;
  (void)TakePollLimits();
  std::vector<int64_t> limits;
  ASSERT_TRUE(WaitUntil([&] {
    for (const int64_t limit : TakePollLimits()) limits.push_back(limit);
    return limits.size() >= 2;
  }));
  for (const int64_t limit : limits) {
    EXPECT_LE(limit, 1100000);
    EXPECT_GT(limit, 500000);
  }
}

}  // namespace
}  // namespace TQ::test
