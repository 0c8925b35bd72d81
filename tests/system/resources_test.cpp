// What sessions and calls cost a process: threads, descriptors, memory, system calls, allocations.
#include <gtest/gtest.h>

#include <tq/tq.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <map>
#include <new>
#include <sstream>
#include <string>
#include <vector>

#include "session/session.h"
#include "support/child_process.h"
#include "support/free_port.h"
#include "support/host_calls.h"
#include "support/log_recorder.h"
#include "support/platform.h"
#include "support/process_info.h"
#include "support/raw_peer.h"
#include "support/transport.h"
#include "support/wait_until.h"

using namespace TQ::test;

// The linker leads the library's allocations here (see tests/CMakeLists.txt).
extern "C" {
void* __real_malloc(std::size_t size);
void* __real_calloc(std::size_t count, std::size_t size);
void* __real_realloc(void* block, std::size_t size);
}

namespace {

constexpr unsigned SLOT = 7;

/// Allocations from the private heap and the process heap since the start, by all threads.
std::atomic<uint64_t> g_heapBlocks{0};
std::atomic<uint64_t> g_regrownBlocks{0};

/// No memory for a session.
std::atomic<bool> g_sessionsRefused{false};

/// How many of this thread's next allocations fail.
thread_local int g_refusedBlocks = 0;

int AnswerEmpty(HTQPARAMLIST, HTQPARAMLIST, const TQSlotCallInfo*) { return 0; }

/// Initialises this process with a raised limit, and waits until it listens.
uint16_t StartHost(const LogRecorder& log) {
  TQRegisterSlot(SLOT, AnswerEmpty, nullptr);
  _tag_TQLIMITS record{};
  record.size = sizeof record;
  record.MAX_CONNECTIONS = 2000;
  const uint16_t port = FreePort();
  EXPECT_EQ(TQInitializeEx(HostText(port).c_str(), "host", port, &record), TQ_ERR_OK);
  TQConnectionReady();
  EXPECT_TRUE(log.WaitForPrefix(TQ_LOG_INFO, OverPipes()
                                                 ? "ConnThread Pipe Startup"
                                                 : "listening for incoming connection on :"));
  return port;
}

/// What a listener holds that waits for a peer is there.
bool WaitUntilItListens(uint16_t port) {
  return !OverPipes() || WaitUntil([&] {
    return platform::PipeListens(PipeName(port) + "_in") &&
           platform::PipeListens(PipeName(port) + "_out");
  });
}

/// How many sessions the tests of many sessions have.
int ManySessions() {
  const char* wanted = std::getenv("TQ_TEST_SESSIONS");
  return wanted != nullptr ? std::atoi(wanted) : 200;
}

uint32_t SessionCount() { return DEBUG_TQObjectCount().sessions; }

/// Connects args[1] peers to the port args[0] and keeps them. On "call" each of them calls once, on
/// "leave" they all close.
TQ_TEST_ROLE(manyPeers) {
  const auto port = static_cast<uint16_t>(std::stoi(args.at(0)));
  const int count = std::stoi(args.at(1));
  std::vector<RawPeer> peers;
  for (int i = 0; i < count; ++i) {
    auto peer = RawPeer::Connect(port);
    if (!peer) return 1;
    if (!peer->HandshakeAsConnector("test:1/peer" + std::to_string(i)).Completed()) return 2;
    peers.push_back(std::move(*peer));
  }
  Say("connected");
  while (const auto command = ReadCommand()) {
    if (*command == "leave") {
      peers.clear();
      continue;
    }
    for (RawPeer& peer : peers) {
      if (!peer.SendRequest(1, RAW_CALL, SLOT)) return 3;
    }
    for (RawPeer& peer : peers) {
      const auto reply = peer.ReadFrame();
      if (!reply || reply->kind != RAW_REPLY || reply->id != 1) return 4;
    }
    Say("called");
  }
  return 0;
}

TEST(Resources, AnIdleSessionCostsTwoThreadsAndTwoDescriptors) {
  constexpr int COUNT = 20;
  const LogRecorder log;
  const uint16_t port = StartHost(log);
  ChildProcess peers("manyPeers", {std::to_string(port), std::to_string(COUNT)});
  // The other listener has ended by itself by the time the peers are there.
  ASSERT_TRUE(peers.ExpectLine("connected"));
  ASSERT_TRUE(WaitUntil([] { return SessionCount() == COUNT; }));
  ASSERT_TRUE(WaitUntilItListens(port));
  const int threads = ThreadCount();
  const int descriptors = OpenDescriptorCount();
  peers.WriteLine("leave");
  ASSERT_TRUE(WaitUntil([] { return SessionCount() == 0; }));
  EXPECT_TRUE(WaitUntil([&] { return threads - ThreadCount() == 2 * COUNT; }))
      << threads << " threads with the sessions, " << ThreadCount() << " without";
  EXPECT_TRUE(WaitUntil([&] { return descriptors - OpenDescriptorCount() == 2 * COUNT; }))
      << descriptors << " descriptors with the sessions, " << OpenDescriptorCount() << " without";
  ShutdownWhileKnocking(port);
}

TEST(Resources, ManySessionsOfOneProcessAreServedAtTheSameTime) {
  const int count = ManySessions();
  const LogRecorder log;
  const uint16_t port = StartHost(log);
  ChildProcess peers("manyPeers", {std::to_string(port), std::to_string(count)});
  ASSERT_TRUE(peers.ExpectLine("connected", std::chrono::seconds(40)));
  EXPECT_EQ(SessionCount(), static_cast<uint32_t>(count));
  for (int round = 0; round < 3; ++round) {
    peers.WriteLine("call");
    ASSERT_TRUE(peers.ExpectLine("called"));
  }
  peers.CloseInput();
  EXPECT_TRUE(peers.ExpectSuccess());
  EXPECT_TRUE(WaitUntil([] { return SessionCount() == 0; }));
  TQShutdown();
}

#ifndef TQ_SANITIZED  // a sanitizer's own tables for each thread are larger than the session
TEST(Resources, AnIdleSessionHasLessThan64KiBResident) {
  const int count = ManySessions();
  const LogRecorder log(TQ_LOG_INFO);
  const uint16_t port = StartHost(log);
  TQSetLogLevel(0, 0, nullptr);  // the recorded lines are no cost of a session
  const uint64_t before = ResidentBytes();
  ChildProcess peers("manyPeers", {std::to_string(port), std::to_string(count)});
  ASSERT_TRUE(peers.ExpectLine("connected", std::chrono::seconds(40)));
  ASSERT_EQ(SessionCount(), static_cast<uint32_t>(count));
  const uint64_t after = ResidentBytes();
  const uint64_t perSession = (after - before) / static_cast<uint64_t>(count);
  RecordProperty("residentBytesPerSession", std::to_string(perSession));
  EXPECT_GT(after, before);
  EXPECT_LT(perSession, 64U * 1024U);
  peers.CloseInput();
  EXPECT_TRUE(peers.ExpectSuccess());
  TQShutdown();
}
#endif

// --- the cost of one call ------------------------------------------------------------------------

/// Serves SLOT until its input ends.
TQ_TEST_ROLE(emptyServer) {
  const LogRecorder log;
  Say(std::to_string(StartHost(log)));
  while (ReadCommand()) {
  }
  TQShutdown();
  return 0;
}

/// The port that an emptyServer has said.
uint16_t PortOf(ChildProcess& server) {
  const auto line = server.ReadLine();
  return line ? static_cast<uint16_t>(std::stoi(*line)) : 0;
}

/// A connected client for the calls that are counted.
class Caller {
 public:
  explicit Caller(uint16_t port) {
    EXPECT_EQ(TQInitialize("caller", 0, nullptr), TQ_ERR_OK);
    EXPECT_EQ(TQConnect("127.0.0.1", port, name, sizeof name, nullptr, 0), TQ_ERR_OK);
    TQSetInt32Value(params, "a", 1);
  }
  ~Caller() {
    TQCloseHandle(params);
    TQShutdown();
  }

  void Call(int count) {
    for (int i = 0; i < count; ++i) TQCloseHandle(TQCall(name, SLOT, params));
  }

  void CallWithoutParameters(int count) {
    for (int i = 0; i < count; ++i) TQCloseHandle(TQCall(name, SLOT, {nullptr}));
  }

 private:
  char name[256] = {};
  const HTQPARAMLIST params = TQCreateParamList();
};

TEST(Resources, ACallWritesItsHeadAndItsBlockAndNothingElse) {
  constexpr uint32_t CALLS = 500;
  ChildProcess server("emptyServer");
  Caller caller(PortOf(server));
  caller.Call(10);
  const uint32_t before = DEBUG_TQObjectCount().writeCalls;
  caller.Call(CALLS);
  EXPECT_EQ(DEBUG_TQObjectCount().writeCalls - before, 2 * CALLS);
}

TEST(Resources, ACallWithoutParametersIsOneWrite) {
  constexpr uint32_t CALLS = 500;
  ChildProcess server("emptyServer");
  Caller caller(PortOf(server));
  caller.CallWithoutParameters(10);
  const uint32_t before = DEBUG_TQObjectCount().writeCalls;
  caller.CallWithoutParameters(CALLS);
  EXPECT_EQ(DEBUG_TQObjectCount().writeCalls - before, CALLS);
}

TEST(Resources, AnEmptyReplyIsOneRead) {
  constexpr uint32_t CALLS = 500;
  ChildProcess server("emptyServer");
  Caller caller(PortOf(server));
  caller.Call(10);
  const uint32_t before = DEBUG_TQObjectCount().readCalls;
  caller.Call(CALLS);
  EXPECT_EQ(DEBUG_TQObjectCount().readCalls - before, CALLS);
}

TEST(Resources, ACallAllocatesWhatItQueuesAndNothingElse) {
  constexpr uint64_t CALLS = 500;
  ChildProcess server("emptyServer");
  Caller caller(PortOf(server));
  caller.Call(10);
  const uint64_t before = g_heapBlocks;
  const uint64_t regrownBefore = g_regrownBlocks;
  caller.Call(CALLS);
  // The message, its event, its empty result, the queue's node, and its entry among the requests
  // that wait for their reply.
  EXPECT_EQ(g_heapBlocks - before, 5 * CALLS);
  // The result's block, which stays empty, takes none.
  EXPECT_EQ(g_regrownBlocks - regrownBefore, 0U);
}

TEST(Resources, ANotificationWithoutMemoryReportsSuccessAndLeavesAGap) {
  const LogRecorder log;
  const uint16_t port = StartHost(log);
  const std::string name = "test:1/peer";
  auto peer = RawPeer::Connect(port);
  ASSERT_TRUE(peer);
  ASSERT_TRUE(peer->HandshakeAsConnector(name).Completed());
  ASSERT_TRUE(WaitUntil(
      [&] { return TQNotify(name.c_str(), 1, {nullptr}, nullptr, nullptr) == TQ_ERR_OK; }));
  g_refusedBlocks = 1;  // the message; there is memory again for its place in the queue
  EXPECT_EQ(TQNotify(name.c_str(), 2, {nullptr}, nullptr, nullptr), TQ_ERR_OK);
  EXPECT_EQ(g_refusedBlocks, 0);
  EXPECT_EQ(TQNotify(name.c_str(), 3, {nullptr}, nullptr, nullptr), TQ_ERR_OK);
  for (const uint32_t slot : {1U, 3U}) {
    const auto frame = peer->ReadFrame();
    ASSERT_TRUE(frame) << peer->Problem();
    EXPECT_EQ(frame->slotId, slot);
  }
  peer->Close();
  EXPECT_EQ(TQShutdown(), TQ_ERR_OK);
}

TEST(Resources, AnAcceptedPeerForWhomThereIsNoMemoryIsNeitherServedNorClosed) {
  const LogRecorder log;
  const uint16_t port = StartHost(log);
  g_sessionsRefused = true;
  auto peer = RawPeer::Connect(port);
  ASSERT_TRUE(peer);
  EXPECT_TRUE(log.WaitFor(TQ_LOG_ERROR, "ConnectionThread. Cannot create application object"));
  EXPECT_TRUE(
      log.WaitFor(TQ_LOG_INFO, "ConnectionThread. Initialization of new connection is completed."));
  g_sessionsRefused = false;
  EXPECT_EQ(TQShutdown(), TQ_ERR_OK);
  EXPECT_TRUE(peer->StaysSilentFor(std::chrono::milliseconds{50}));
}

/// Makes args[1] calls to the port args[0].
TQ_TEST_ROLE(countedCaller) {
  Caller caller(static_cast<uint16_t>(std::stoi(args.at(0))));
  caller.Call(std::stoi(args.at(1)));
  return 0;
}

/// Counts of system calls by name that a countedCaller makes.
std::map<std::string, int64_t> TraceCaller(uint16_t port, int calls) {
  const std::string table = testing::TempDir() + "tq_trace_" + std::to_string(port);
  // A role ends when its third descriptor does; strace starts this one, so it gets a pipe that
  // stays.
  std::ostringstream command;
  command << "mkfifo " << table << ".pipe && ASAN_OPTIONS=detect_leaks=0 timeout 40"
          << " strace -f -qq -c -o " << table << " -- " << testing::internal::GetArgvs().at(0)
          << " --role=countedCaller " << port << ' ' << calls << " 3<>" << table
          << ".pipe; status=$?; rm -f " << table << ".pipe; exit $status";
  EXPECT_EQ(std::system(command.str().c_str()), 0) << command.str();
  // % time, seconds, usecs/call, calls, errors (where there are some), name
  std::map<std::string, int64_t> counts;
  std::ifstream lines(table);
  for (std::string line; std::getline(lines, line);) {
    std::istringstream words(line);
    double share = 0;
    double seconds = 0;
    int64_t perCall = 0;
    int64_t count = 0;
    std::string rest;
    std::string name;
    if (!(words >> share >> seconds >> perCall >> count)) continue;
    while (words >> rest) name = rest;
    if (name != "total") counts[name] = count;
  }
  std::remove(table.c_str());
  return counts;
}

TEST(Resources, ACallMakesTheNamedSystemCallsOnly) {
  constexpr int FEW = 100;
  constexpr int CALLS = 1000;
  ChildProcess server("emptyServer");
  const uint16_t port = PortOf(server);
  const auto few = TraceCaller(port, FEW);
  const auto many = TraceCaller(port, FEW + CALLS);
  ASSERT_FALSE(many.empty());
  // What one call costs beyond the start and the end of the process.
  std::map<std::string, double> perCall;
  for (const auto& [name, count] : many) {
    const auto found = few.find(name);
    const int64_t base = found == few.end() ? 0 : found->second;
    perCall[name] = static_cast<double>(count - base) / CALLS;
  }
  // Head and block out; head in; waiting for data; and handing over between the three threads.
  EXPECT_NEAR(perCall["sendto"], 2, 0.01);
  EXPECT_NEAR(perCall["recvfrom"], 1, 0.01);
  EXPECT_NEAR(perCall["ppoll"], 1, 0.1);
  EXPECT_LT(perCall["futex"], 10);
  for (const auto& [name, count] : perCall) {
    if (name == "sendto" || name == "recvfrom" || name == "ppoll" || name == "futex") continue;
    EXPECT_LT(count, 0.1) << name;
  }
}

}  // namespace

extern "C" {

void* __wrap_malloc(std::size_t size) {
  g_heapBlocks.fetch_add(1);
  if (g_refusedBlocks > 0) {
    --g_refusedBlocks;
    return nullptr;
  }
  return __real_malloc(size);
}

void* __wrap_calloc(std::size_t count, std::size_t size) {
  g_heapBlocks.fetch_add(1);
  if (g_sessionsRefused && size == sizeof(TQAPPImpl)) {
    return nullptr;
  }
  return __real_calloc(count, size);
}

void* __wrap_realloc(void* block, std::size_t size) {
  g_regrownBlocks.fetch_add(1);
  return __real_realloc(block, size);
}

}  // extern "C"

// The process heap's operators, so that they are counted too.
void* operator new(std::size_t size) {
  void* block = std::malloc(size);
  if (block == nullptr) throw std::bad_alloc();
  return block;
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept { return std::malloc(size); }
// Not inlined: a compiler that sees only the free takes it for a mismatch with new.
[[gnu::noinline]] void operator delete(void* block) noexcept { std::free(block); }
[[gnu::noinline]] void operator delete(void* block, std::size_t) noexcept { std::free(block); }
void operator delete(void* block, const std::nothrow_t&) noexcept { std::free(block); }
