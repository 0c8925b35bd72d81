// The life of the library: initialisation, the listeners' gates and shutdown.
#include <tq/application.h>

#include <dlfcn.h>
#include <unistd.h>

#include <gtest/gtest.h>
#include <tq/tq.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <limits>
#include <optional>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "frame/globals.h"
#include "frame/locks.h"
#include "frame/settings.h"
#include "session/application_registry.h"
#include "session/session.h"
#include "signals/signal_table.h"
#include "signals/slot_table.h"
#include "support/child_process.h"
#include "support/free_port.h"
#include "support/log_gate.h"
#include "support/log_recorder.h"
#include "support/process_info.h"
#include "support/raw_peer.h"
#include "support/session_host.h"
#include "support/thread_faults.h"
#include "support/transport.h"
#include "support/wait_until.h"
#include "transport/listener_settings.h"

namespace {

// What the machine is called; empty for its real name.
std::string g_hostName;
std::atomic<bool> g_hostNameFails{false};

}  // namespace

// Stands before the system's own operation, so that a test decides what it gives.
extern "C" int gethostname(char* buffer, size_t size) noexcept {
  if (g_hostNameFails) {
    errno = ENAMETOOLONG;
    return -1;
  }
  if (g_hostName.empty()) {
    static const auto next =
        reinterpret_cast<int (*)(char*, size_t)>(dlsym(RTLD_NEXT, "gethostname"));
    return next(buffer, size);
  }
  // As the system does: a name that does not fit is cut off, without a NUL.
  std::strncpy(buffer, g_hostName.c_str(), size);
  return 0;
}

namespace TQ::test {
namespace {

using detail::connPipeThreadInfo;
using detail::connThreadInfo;
using detail::g_applications;
using detail::LockScope;
using std::chrono::milliseconds;
using Lines = std::vector<std::string>;

const std::string PEER = "test:1/raw";

const std::string NO_SOCKET_LISTENER =
    "Socket connection listener stopped. No socket listeners defined";
const std::string NO_PIPE_LISTENER = "ConnThread Pipe stopped - pipes are not defined";

std::string ApplicationName() { return detail::localApplicationName.Copy(); }

_tag_TQLIMITS LimitsInForce() { return detail::limits.Snapshot(); }

bool StopAll() { return detail::StopAllRequested(); }

bool GatesAreOpen() {
  const bool socketGate = detail::socketListenerGate->Wait(0);
  EXPECT_EQ(detail::pipeListenerGate->Wait(0), socketGate);
  return socketGate;
}

// The address that the socket listener is to use, as text; empty if none is defined.
std::string ListenAddress() {
  if (!connThreadInfo->Enabled()) {
    return "";
  }
  const auto address = connThreadInfo->ListenAddress();
  return std::to_string(address[4]) + "." + std::to_string(address[5]) + "." +
         std::to_string(address[6]) + "." + std::to_string(address[7]) + ":" +
         std::to_string(address[2] * 256 + address[3]);
}

bool AddressIsCleared() {
  const auto address = connThreadInfo->ListenAddress();
  return std::all_of(address.begin(), address.end(), [](uint8_t byte) { return byte == 0; });
}

Lines LinesOf(const LogRecorder& log) {
  Lines lines;
  for (const LogLine& line : log.Lines()) {
    lines.push_back(std::to_string(line.level) + " " + line.text);
  }
  return lines;
}

_tag_TQLIMITS EmptyRecord() {
  _tag_TQLIMITS record{};
  record.size = sizeof record;
  return record;
}

// Can peers connect there and be admitted?
bool Admits(uint16_t port, const std::string& name) {
  auto peer = RawPeer::Connect(port);
  return peer && peer->HandshakeAsConnector(name).Completed();
}

bool AdmitsOverPipes(const std::string& pipe, const std::string& name) {
  std::optional<RawPeer> peer;
  return WaitUntil([&] {
           peer = RawPeer::TryConnectPipes(pipe);
           return peer.has_value();
         }) &&
         peer->HandshakeAsConnector(name).Completed();
}

// A shutdown that need not wait for the listeners of these pipes, and of the port.
void ShutdownWhileKnockingAt(const std::vector<std::string>& pipes, uint16_t port = 0) {
  ShutdownWhile([&] {
    for (const std::string& pipe : pipes) (void)RawPeer::TryConnectPipes(pipe);
    if (port != 0) (void)RawPeer::TryConnect(port);
  });
}

// ---- the name and the log ----------------------------------------------------------------------

TEST(Initialize, LogsHostAndPortAndThenTheApplicationName) {
  g_hostName = "machine";
  LogRecorder log;
  EXPECT_EQ(TQInitialize("app", 0, nullptr), TQ_ERR_OK);
  EXPECT_EQ(LinesOf(log),
            (Lines{"8 Initializing with: host=127.0.0.1 port=0", "8 Application=machine:0/app"}));
  EXPECT_EQ(ApplicationName(), "machine:0/app");
  TQShutdown();
}

TEST(InitializeEx, LogsTheHostAsItWasGiven) {
  g_hostName = "machine";
  LogRecorder log;
  EXPECT_EQ(TQInitializeEx("0.0.0.0", "app", 4711, nullptr), TQ_ERR_OK);
  EXPECT_EQ(LinesOf(log), (Lines{"8 Initializing with: host=0.0.0.0 port=4711",
                                 "8 Application=machine:4711/app"}));
  TQShutdown();
}

TEST(InitializeEx, LogsANullHostAsSuchAndListensOnTheLoopback) {
  LogRecorder log;
  EXPECT_EQ(TQInitializeEx(nullptr, "app", 4711, nullptr), TQ_ERR_OK);
  EXPECT_EQ(LinesOf(log).at(0), "8 Initializing with: host=<NULL> port=4711");
  EXPECT_EQ(ListenAddress(), "127.0.0.1:4711");
  TQShutdown();
}

TEST(InitializeEx, LogsAnEmptyHostAsSuchAndListensOnTheLoopback) {
  LogRecorder log;
  EXPECT_EQ(TQInitializeEx("", "app", 4711, nullptr), TQ_ERR_OK);
  EXPECT_EQ(LinesOf(log).at(0), "8 Initializing with: host= port=4711");
  EXPECT_EQ(ListenAddress(), "127.0.0.1:4711");
  TQShutdown();
}

TEST(InitializeEx, ListensOnTheAddressThatItIsGiven) {
  EXPECT_EQ(TQInitializeEx("127.1.2.3", "app", 4711, nullptr), TQ_ERR_OK);
  EXPECT_EQ(ListenAddress(), "127.1.2.3:4711");
  TQShutdown();
}

TEST(InitializeEx, TakesAHostThatIsNoAddressForAllInterfaces) {
  EXPECT_EQ(TQInitializeEx("localhost", "app", 4711, nullptr), TQ_ERR_OK);
  EXPECT_EQ(ListenAddress(), "0.0.0.0:4711");
  TQShutdown();
}

TEST(Initialize, LogsNumbersWithoutTheSeparatorsOfAnyLocale) {
  class Grouping final : public std::numpunct<char> {
    char do_thousands_sep() const override { return '.'; }
    std::string do_grouping() const override { return "\3"; }
  };
  const std::locale before = std::locale::global(std::locale(std::locale(), new Grouping));
  g_hostName = "machine";
  LogRecorder log;
  EXPECT_EQ(TQInitialize("app", 54321, nullptr), TQ_ERR_OK);
  EXPECT_EQ(LinesOf(log), (Lines{"8 Initializing with: host=127.0.0.1 port=54321",
                                 "8 Application=machine:54321/app"}));
  TQShutdown();
  std::locale::global(before);
}

TEST(Initialize, KeepsAPortAbove65535InTheNameAndListensOnItsLowBits) {
  g_hostName = "machine";
  LogRecorder log;
  const uint16_t port = FreePort();
  EXPECT_EQ(TQInitialize("app", 0x20000 + port, nullptr), TQ_ERR_OK);
  EXPECT_EQ(ApplicationName(), "machine:" + std::to_string(0x20000 + port) + "/app");
  TQConnectionReady();
  EXPECT_TRUE(log.WaitFor(
      TQ_LOG_INFO, "listening for incoming connection on :127.0.0.1:" + std::to_string(port)));
  EXPECT_TRUE(Admits(port, PEER));
  ShutdownWhileKnocking(port);
}

TEST(Initialize, DefinesAListenerForAPortWhoseLowBitsAreZero) {
  EXPECT_EQ(TQInitialize("app", 0x10000, nullptr), TQ_ERR_OK);
  EXPECT_EQ(ListenAddress(), "127.0.0.1:0");
  TQShutdown();
}

TEST(Initialize, TakesANegativePortAsTheNumberThatItIs) {
  g_hostName = "machine";
  EXPECT_EQ(TQInitialize("app", -1, nullptr), TQ_ERR_OK);
  EXPECT_EQ(ApplicationName(), "machine:-1/app");
  EXPECT_EQ(ListenAddress(), "127.0.0.1:65535");
  TQShutdown();
}

TEST(Initialize, BoundsTheApplicationNameByNothing) {
  g_hostName = "machine";
  const std::string name(5000, 'n');
  EXPECT_EQ(TQInitialize(name.c_str(), 0, nullptr), TQ_ERR_OK);
  EXPECT_EQ(ApplicationName(), "machine:0/" + name);
  TQShutdown();
}

TEST(Initialize, TakesTheNameAsItIs) {
  g_hostName = "machine";
  EXPECT_EQ(TQInitialize("", 0, nullptr), TQ_ERR_OK);
  EXPECT_EQ(ApplicationName(), "machine:0/");
  TQShutdown();
  EXPECT_EQ(TQInitialize("a/b:c", 0, nullptr), TQ_ERR_OK);
  EXPECT_EQ(ApplicationName(), "machine:0/a/b:c");
  TQShutdown();
}

TEST(Initialize, CutsAHostNameThatFillsTheBuffer) {
  g_hostName = std::string(2000, 'h');
  EXPECT_EQ(TQInitialize("app", 0, nullptr), TQ_ERR_OK);
  EXPECT_EQ(ApplicationName(), std::string(1023, 'h') + ":0/app");
  TQShutdown();
}

TEST(Initialize, AsksForTheMachinesName) {
  std::array<char, 1024> machine{};
  ASSERT_EQ(gethostname(machine.data(), machine.size()), 0);
  EXPECT_EQ(TQInitialize("app", 0, nullptr), TQ_ERR_OK);
  EXPECT_EQ(ApplicationName(), std::string(machine.data()) + ":0/app");
  TQShutdown();
}

TEST(ApplicationName, IsEmptyBeforeAnyInitialization) { EXPECT_EQ(ApplicationName(), ""); }

TEST(ApplicationName, IsNotRebuiltByOtherListenAddresses) {
  g_hostName = "machine";
  EXPECT_EQ(TQInitialize("app", 0, nullptr), TQ_ERR_OK);
  TQStartListeners(nullptr, "127.0.0.1", 4711);
  EXPECT_EQ(ApplicationName(), "machine:0/app");
  TQShutdown();
  EXPECT_EQ(ApplicationName(), "machine:0/app") << "a shutdown does not reset it either";
}

// ---- counting ----------------------------------------------------------------------------------

TEST(RepeatedInitialize, UnderTheSameNameSucceedsAndCounts) {
  LogRecorder log;
  const uint16_t port = FreePort();
  EXPECT_EQ(TQInitialize("app", port, nullptr), TQ_ERR_OK);
  EXPECT_EQ(TQInitialize("app", port, nullptr), TQ_ERR_OK);
  TQConnectionReady();
  EXPECT_TRUE(Admits(port, "test:1/first"));
  EXPECT_EQ(TQShutdown(), TQ_ERR_OK);
  EXPECT_FALSE(StopAll());
  EXPECT_TRUE(Admits(port, "test:1/second")) << "the listeners stay up";
  EXPECT_EQ(log.CountOf("ConnectionThread. Shutdown"), 0u);
  ShutdownWhileKnocking(port);
  EXPECT_TRUE(StopAll());
  EXPECT_EQ(log.CountOf("ConnectionThread. Shutdown"), 1u);
  EXPECT_FALSE(RawPeer::TryConnect(port));
  EXPECT_EQ(log.CountOf("ConnThread Startup"), 1u) << "only the first starts threads";
}

TEST(RepeatedInitialize, UnderAnotherNameIsRejectedAndCountsAllTheSame) {
  g_hostName = "machine";
  const uint16_t port = FreePort();
  EXPECT_EQ(TQInitialize("app", port, nullptr), TQ_ERR_OK);
  EXPECT_EQ(TQInitialize("other", port, nullptr), TQ_ERR_NAME_REJECTED);
  EXPECT_EQ(static_cast<int>(TQ_ERR_NAME_REJECTED), -7);
  EXPECT_EQ(ApplicationName(), "machine:" + std::to_string(port) + "/app");
  TQConnectionReady();
  EXPECT_EQ(TQShutdown(), TQ_ERR_OK);
  EXPECT_FALSE(StopAll()) << "it takes one more shutdown";
  EXPECT_TRUE(Admits(port, PEER));
  ShutdownWhileKnocking(port);
  EXPECT_TRUE(StopAll());
}

TEST(RepeatedInitialize, WithAnotherPortIsRejectedAndCountsAllTheSame) {
  EXPECT_EQ(TQInitialize("app", 0, nullptr), TQ_ERR_OK);
  EXPECT_EQ(TQInitialize("app", 4711, nullptr), TQ_ERR_NAME_REJECTED);
  EXPECT_EQ(ListenAddress(), "");
  TQShutdown();
  EXPECT_FALSE(StopAll());
  TQShutdown();
  EXPECT_TRUE(StopAll());
}

TEST(RepeatedInitialize, ComparesTheWholeName) {
  EXPECT_EQ(TQInitialize("app", 0, nullptr), TQ_ERR_OK);
  const Lines others = {"ap", "appp", "App", "", "app "};
  for (const std::string& other : others) {
    EXPECT_EQ(TQInitialize(other.c_str(), 0, nullptr), TQ_ERR_NAME_REJECTED) << other;
  }
  for (size_t i = 0; i < others.size(); ++i) {
    TQShutdown();
    EXPECT_FALSE(StopAll());
  }
  TQShutdown();
  EXPECT_TRUE(StopAll());
}

TEST(RepeatedInitialize, IsRejectedWhenTheMachineHasBeenRenamed) {
  g_hostName = "machine";
  EXPECT_EQ(TQInitialize("app", 0, nullptr), TQ_ERR_OK);
  g_hostName = "renamed";
  EXPECT_EQ(TQInitialize("app", 0, nullptr), TQ_ERR_NAME_REJECTED);
  EXPECT_EQ(ApplicationName(), "machine:0/app");
  TQShutdown();
  TQShutdown();
}

TEST(RepeatedInitialize, LogsTheSameTwoLines) {
  g_hostName = "machine";
  EXPECT_EQ(TQInitialize("app", 0, nullptr), TQ_ERR_OK);
  LogRecorder log;
  EXPECT_EQ(TQInitializeEx(nullptr, "other", 5, nullptr), TQ_ERR_NAME_REJECTED);
  EXPECT_EQ(LinesOf(log),
            (Lines{"8 Initializing with: host=<NULL> port=5", "8 Application=machine:5/other"}));
  TQShutdown();
  TQShutdown();
}

TEST(RepeatedInitialize, IgnoresHostAndLimits) {
  EXPECT_EQ(TQInitializeEx("127.0.0.1", "app", 4711, nullptr), TQ_ERR_OK);
  _tag_TQLIMITS record = EmptyRecord();
  record.MAX_CONNECTIONS = 7;
  record.authBlock[0] = 9;
  EXPECT_EQ(TQInitializeEx("127.0.0.9", "app", 4711, &record), TQ_ERR_OK);
  EXPECT_EQ(ListenAddress(), "127.0.0.1:4711");
  EXPECT_EQ(LimitsInForce().MAX_CONNECTIONS, 100u);
  EXPECT_EQ(LimitsInForce().authBlock[0], 0);
  EXPECT_EQ(TQInitializeEx("\\pipe", "app", 4711, nullptr), TQ_ERR_OK);
  EXPECT_EQ(ListenAddress(), "127.0.0.1:4711");
  EXPECT_EQ(connPipeThreadInfo->pipeName.Copy(), "");
  TQShutdown();
  TQShutdown();
  TQShutdown();
}

TEST(RepeatedInitialize, ClearsTheStopLikeAnyOther) {
  EXPECT_EQ(TQInitialize("app", 0, nullptr), TQ_ERR_OK);
  for (const char* name : {"app", "other"}) {
    detail::stopAll.store(1);
    (void)TQInitialize(name, 0, nullptr);
    EXPECT_FALSE(StopAll()) << name;
  }
  TQShutdown();
  TQShutdown();
  TQShutdown();
}

TEST(Shutdown, WithoutAnInitializationDoesNothing) {
  LogRecorder log;
  EXPECT_EQ(TQShutdown(), TQ_ERR_OK);
  EXPECT_FALSE(StopAll());
  EXPECT_FALSE(GatesAreOpen());
  EXPECT_TRUE(log.Lines().empty()) << log.Dump();
}

TEST(Shutdown, ASecondTimeDoesNothing) {
  EXPECT_EQ(TQInitialize("app", 0, nullptr), TQ_ERR_OK);
  EXPECT_EQ(TQShutdown(), TQ_ERR_OK);
  detail::stopAll.store(0);
  EXPECT_EQ(TQShutdown(), TQ_ERR_OK);
  EXPECT_FALSE(StopAll());
  // The count has not gone below 0: the next initialisation is a first one again.
  EXPECT_EQ(TQInitialize("other", 0, nullptr), TQ_ERR_OK);
  EXPECT_EQ(TQShutdown(), TQ_ERR_OK);
}

TEST(Initialize, MayBeCalledAgainWhileItLogs) {
  // The lock of the initialisation is recursive: a host's log callback may come back in.
  static std::atomic<int> nested{1};
  static std::atomic<bool> entered{false};
  TQSetLogLevel(ALL_LOG_LEVELS, 0, [](uint32_t, int32_t, const char* text) {
    if (std::strncmp(text, "Application=", 12) == 0 && !entered.exchange(true)) {
      nested = TQInitialize("app", 0, nullptr);
    }
  });
  EXPECT_EQ(TQInitialize("app", 0, nullptr), TQ_ERR_OK);
  TQSetLogLevel(0, 0, nullptr);
  // It was the second of the two, and there was no name yet to compare with.
  EXPECT_EQ(nested, TQ_ERR_NAME_REJECTED);
  TQShutdown();
  EXPECT_FALSE(StopAll());
  TQShutdown();
  EXPECT_TRUE(StopAll());
}

TEST(Initialize, LogsItsArgumentsBeforeItWaitsForAnother) {
  g_hostName = "machine";
  const std::string arguments = "Initializing with: host=127.0.0.1 port=4711";
  LogRecorder log;
  LogGate holdsTheLock("Application=machine:0/first");
  std::thread first([] { EXPECT_EQ(TQInitialize("first", 0, nullptr), TQ_ERR_OK); });
  ASSERT_TRUE(holdsTheLock.WaitUntilReached());
  std::thread second(
      [] { EXPECT_EQ(TQInitialize("second", 4711, nullptr), TQ_ERR_NAME_REJECTED); });
  EXPECT_TRUE(log.WaitFor(TQ_LOG_INFO, arguments));
  EXPECT_EQ(ApplicationName(), "") << "the first still stands at its line, with the lock";
  EXPECT_EQ(log.CountOf("Application=machine:4711/second"), 0u);
  holdsTheLock.Open();
  first.join();
  second.join();
  EXPECT_EQ(log.CountOf(arguments), 1u);
  EXPECT_EQ(log.CountOf("Application=machine:4711/second"), 1u);
  TQShutdown();
  TQShutdown();
}

// ---- what can go wrong -------------------------------------------------------------------------

// Runs TQShutdown and gives the code of the system error that it raises, if it does.
std::optional<std::error_code> ErrorOfShutdown() {
  try {
    EXPECT_EQ(TQShutdown(), TQ_ERR_OK);
  } catch (const std::system_error& error) {
    return error.code();
  }
  return std::nullopt;
}

TEST(FailedInitialize, WithoutAHostNameSaysSoAndCounts) {
  g_hostNameFails = true;
  LogRecorder log;
  _tag_TQLIMITS record = EmptyRecord();
  record.MAX_CONNECTIONS = 7;
  EXPECT_EQ(TQInitialize("app", 4711, &record), TQ_ERR_FAILED);
  EXPECT_EQ(LinesOf(log),
            (Lines{"8 Initializing with: host=127.0.0.1 port=4711", "8 Cannot obtain host name"}));
  EXPECT_FALSE(detail::pipeListenerThread.joinable());
  EXPECT_FALSE(detail::socketListenerThread.joinable());
  EXPECT_FALSE(detail::dispatcherThread.joinable());
  EXPECT_EQ(ApplicationName(), "");
  EXPECT_EQ(TQUnregisterSlot(0xFFFFFFFF), TQ_ERR_NO_SUCH_SLOT);
  EXPECT_EQ(LimitsInForce().MAX_CONNECTIONS, 7u) << "the limits are in force by then";

  // The shutdown that it needs finds no thread to join.
  EXPECT_EQ(ErrorOfShutdown(), std::make_error_code(std::errc::invalid_argument));
  EXPECT_TRUE(StopAll());
  EXPECT_TRUE(GatesAreOpen());
  EXPECT_EQ(ErrorOfShutdown(), std::nullopt) << "the count is 0";
}

TEST(FailedInitialize, MakesTheNextOneARepeatedOne) {
  g_hostNameFails = true;
  EXPECT_EQ(TQInitialize("app", 0, nullptr), TQ_ERR_FAILED);
  g_hostNameFails = false;
  EXPECT_EQ(TQInitialize("app", 0, nullptr), TQ_ERR_NAME_REJECTED) << "there is no name in force";
  EXPECT_FALSE(detail::dispatcherThread.joinable());
  EXPECT_EQ(ErrorOfShutdown(), std::nullopt);
  EXPECT_EQ(ErrorOfShutdown(), std::make_error_code(std::errc::invalid_argument));
  // After that a life begins like any other.
  EXPECT_EQ(TQInitialize("app", 0, nullptr), TQ_ERR_OK);
  EXPECT_TRUE(detail::dispatcherThread.joinable());
  EXPECT_EQ(ErrorOfShutdown(), std::nullopt);
}

TEST(FailedInitialize, LeavesTheStopAsItWas) {
  EXPECT_EQ(TQInitialize("app", 0, nullptr), TQ_ERR_OK);
  detail::stopAll.store(1);
  g_hostNameFails = true;
  EXPECT_EQ(TQInitialize("app", 0, nullptr), TQ_ERR_FAILED);
  EXPECT_TRUE(StopAll());
  TQShutdown();
  TQShutdown();
}

TEST(FailedInitialize, OfARepeatedOneCountsAndHarmsNothing) {
  const uint16_t port = FreePort();
  EXPECT_EQ(TQInitialize("app", port, nullptr), TQ_ERR_OK);
  g_hostNameFails = true;
  EXPECT_EQ(TQInitialize("app", port, nullptr), TQ_ERR_FAILED);
  g_hostNameFails = false;
  TQConnectionReady();
  EXPECT_TRUE(Admits(port, PEER));
  EXPECT_EQ(ErrorOfShutdown(), std::nullopt);
  EXPECT_FALSE(StopAll());
  ShutdownWhileKnocking(port);
  EXPECT_TRUE(StopAll());
}

// The initialisation fails after this many of its three threads.
class InitializeOutOfThreads : public testing::TestWithParam<int> {};

INSTANTIATE_TEST_SUITE_P(After, InitializeOutOfThreads, testing::Values(0, 1, 2));

TEST_P(InitializeOutOfThreads, RaisesTheSystemErrorAndCounts) {
  Gate proceed;
  std::atomic<int> rejected{1};
  std::thread other([&] {
    EXPECT_TRUE(proceed.Wait());
    rejected = TQInitialize("other", 0, nullptr);
  });
  g_threadsLeft = GetParam();
  std::optional<std::error_code> raised;
  try {
    (void)TQInitialize("app", 4711, nullptr);
  } catch (const std::system_error& error) {
    raised = error.code();
  }
  g_threadsLeft = -1;
  EXPECT_EQ(raised, std::make_error_code(std::errc::resource_unavailable_try_again));
  EXPECT_EQ(detail::pipeListenerThread.joinable(), GetParam() > 0);
  EXPECT_EQ(detail::socketListenerThread.joinable(), GetParam() > 1);
  EXPECT_FALSE(detail::dispatcherThread.joinable());
  EXPECT_EQ(TQUnregisterSlot(0xFFFFFFFF), TQ_ERR_OK) << "registered before the threads";
  const auto address = detail::connThreadInfo->ListenAddress();
  EXPECT_EQ(detail::PortOf(address.data()), GetParam() == 2 ? 4711 : 0)
      << "recorded behind the two listeners and before the dispatcher";

  // The lock was let go, and the call has counted.
  proceed.Open();
  other.join();
  EXPECT_EQ(rejected, TQ_ERR_NAME_REJECTED);
  EXPECT_EQ(ErrorOfShutdown(), std::nullopt);
  EXPECT_EQ(ErrorOfShutdown(), std::make_error_code(std::errc::invalid_argument));
  EXPECT_FALSE(detail::pipeListenerThread.joinable()) << "those that were there are joined";
  EXPECT_FALSE(detail::socketListenerThread.joinable());
}

// ---- limits ------------------------------------------------------------------------------------

void ExpectDefaultLimits(const _tag_TQLIMITS& limits) {
  EXPECT_EQ(limits.size, 292u);
  EXPECT_EQ(limits.MAX_CONNECTIONS, 100u);
  EXPECT_EQ(limits.RESERVED_LIMIT_2, 64u);
  EXPECT_EQ(limits.MAX_READ_SIZE, 0x40000000u);
  EXPECT_EQ(limits.RESERVED_LIMIT_4, 0x40000000u);
  EXPECT_EQ(limits.RESERVED_LIMIT_5, 64u);
  EXPECT_EQ(limits.RESERVED_LIMIT_6, 0x04000000u);
  EXPECT_EQ(limits.RESERVED_LIMIT_7, 0x40000000u);
  EXPECT_EQ(limits.IO_TIMEOUT_MS, 60000u);
}

bool BlockIsZero(const _tag_TQLIMITS& limits) {
  return std::all_of(std::begin(limits.authBlock), std::end(limits.authBlock),
                     [](uint8_t byte) { return byte == 0; });
}

TEST(InitializeLimits, WithoutARecordAreTheDefaults) {
  EXPECT_EQ(TQInitialize("app", 0, nullptr), TQ_ERR_OK);
  ExpectDefaultLimits(LimitsInForce());
  EXPECT_TRUE(BlockIsZero(LimitsInForce()));
  TQShutdown();
}

TEST(InitializeLimits, OfARecordReplaceTheDefaultsOneByOne) {
  _tag_TQLIMITS record = EmptyRecord();
  record.MAX_CONNECTIONS = 1;
  record.RESERVED_LIMIT_2 = 2;
  record.MAX_READ_SIZE = 3;
  record.RESERVED_LIMIT_4 = 4;
  record.RESERVED_LIMIT_5 = 5;
  record.RESERVED_LIMIT_6 = 6;
  record.RESERVED_LIMIT_7 = 7;
  record.IO_TIMEOUT_MS = 0xFFFFFFFF;
  std::fill(std::begin(record.authBlock), std::end(record.authBlock), uint8_t{8});
  EXPECT_EQ(TQInitialize("app", 0, &record), TQ_ERR_OK);
  _tag_TQLIMITS limits = LimitsInForce();
  EXPECT_EQ(std::memcmp(&limits, &record, sizeof record), 0);
  TQShutdown();

  _tag_TQLIMITS partial = EmptyRecord();
  partial.RESERVED_LIMIT_5 = 55;
  EXPECT_EQ(TQInitialize("app", 0, &partial), TQ_ERR_OK);
  limits = LimitsInForce();
  EXPECT_EQ(limits.RESERVED_LIMIT_5, 55u);
  limits.RESERVED_LIMIT_5 = 64;
  ExpectDefaultLimits(limits);
  TQShutdown();
}

TEST(InitializeLimits, OfARecordOfZerosAreTheDefaultsWithTheBlockCleared) {
  const std::array<uint8_t, 3> block = {1, 2, 3};
  EXPECT_EQ(TQSetAuthenticationInfo(block.data(), 3), TQ_ERR_OK);
  const _tag_TQLIMITS record = EmptyRecord();
  EXPECT_EQ(TQInitialize("app", 0, &record), TQ_ERR_OK);
  ExpectDefaultLimits(LimitsInForce());
  EXPECT_TRUE(BlockIsZero(LimitsInForce()));
  TQShutdown();
  // Only the block in force was replaced: the next life starts from the one that was set.
  EXPECT_EQ(TQInitialize("app", 0, nullptr), TQ_ERR_OK);
  EXPECT_EQ(LimitsInForce().authBlock[2], 3);
  TQShutdown();
}

TEST(InitializeLimits, OfARecordOfTheWrongSizeCountForNothingWithoutAWord) {
  const std::array<uint8_t, 1> block = {77};
  EXPECT_EQ(TQSetAuthenticationInfo(block.data(), 1), TQ_ERR_OK);
  for (const uint32_t size : {0u, 36u, 291u, 293u, 0xFFFFFFFFu}) {
    _tag_TQLIMITS record = EmptyRecord();
    record.size = size;
    record.MAX_CONNECTIONS = 5;
    record.authBlock[0] = 9;
    LogRecorder log;
    EXPECT_EQ(TQInitialize("app", 0, &record), TQ_ERR_OK) << size;
    ExpectDefaultLimits(LimitsInForce());
    EXPECT_EQ(LimitsInForce().authBlock[0], 77) << size;
    Lines said;
    for (const LogLine& line : log.Lines()) {
      if (line.thread == std::this_thread::get_id()) said.push_back(line.text);
    }
    EXPECT_EQ(said, (Lines{"Initializing with: host=127.0.0.1 port=0",
                           "Application=" + ApplicationName()}));
    TQShutdown();
  }
}

TEST(InitializeLimits, OfAFormerLifeAreForgotten) {
  _tag_TQLIMITS record = EmptyRecord();
  record.MAX_CONNECTIONS = 5;
  record.authBlock[0] = 9;
  EXPECT_EQ(TQInitialize("app", 0, &record), TQ_ERR_OK);
  TQShutdown();
  EXPECT_EQ(LimitsInForce().MAX_CONNECTIONS, 5u) << "a shutdown does not reset them";
  EXPECT_EQ(TQInitialize("app", 0, nullptr), TQ_ERR_OK);
  ExpectDefaultLimits(LimitsInForce());
  EXPECT_TRUE(BlockIsZero(LimitsInForce()));
  TQShutdown();
}

TEST(InitializeLimits, MaxConnectionsOfFiveAdmitsSixSessions) {
  LogRecorder log;
  const uint16_t port = FreePort();
  _tag_TQLIMITS record = EmptyRecord();
  record.MAX_CONNECTIONS = 5;
  ASSERT_EQ(TQInitialize("app", port, &record), TQ_ERR_OK);
  TQConnectionReady();
  std::vector<RawPeer> peers;
  for (int i = 1; i <= 6; ++i) {
    auto peer = RawPeer::Connect(port);
    ASSERT_TRUE(peer);
    const std::string name = "test:1/peer" + std::to_string(i);
    ASSERT_TRUE(peer->HandshakeAsConnector(name).Completed()) << i;
    ASSERT_TRUE(log.WaitFor(TQ_LOG_INFO, "Startup completed for " + name));
    peers.push_back(std::move(*peer));
  }
  EXPECT_EQ(g_applications.Size(), 6u);
  auto seventh = RawPeer::Connect(port);
  ASSERT_TRUE(seventh);
  EXPECT_TRUE(seventh->WaitClosed());
  EXPECT_TRUE(log.WaitFor(TQ_LOG_CRITICAL,
                          "ConnectionThread. Connection limit reached. Closing connection. "
                          "g_applications.size()=6. limits.MAX_CONNECTIONS = 5"));
  ShutdownWhileKnocking(port);
}

// ---- threads and gates -------------------------------------------------------------------------

bool RunsThread(const std::string& name) {
  const auto names = ThreadNames();
  return std::find(names.begin(), names.end(), name) != names.end();
}

TEST(Initialize, StartsThreeThreadsAlsoWithPortZero) {
  LogRecorder log;
  EXPECT_EQ(TQInitialize("app", 0, nullptr), TQ_ERR_OK);
  EXPECT_TRUE(WaitUntil([] {
    return RunsThread("tq-listen-pipe") && RunsThread("tq-listen") && RunsThread("tq-dispatch");
  }));
  EXPECT_EQ(ListenAddress(), "");
  EXPECT_FALSE(GatesAreOpen());
  EXPECT_EQ(log.CountOfPrefix("ConnThread"), 0u) << "they wait at their gates";
  EXPECT_EQ(TQConnectionReady(), TQ_ERR_OK);
  EXPECT_TRUE(WaitUntil([] { return !RunsThread("tq-listen-pipe") && !RunsThread("tq-listen"); }));
  EXPECT_TRUE(RunsThread("tq-dispatch"));
  const auto socketListener = log.FirstWithPrefix("ConnThread Startup");
  const auto pipeListener = log.FirstWithPrefix("ConnThread Pipe Startup");
  ASSERT_TRUE(socketListener && pipeListener);
  Lines socketLines;
  Lines pipeLines;
  for (const LogLine& line : log.Lines()) {
    const std::string text = std::to_string(line.level) + " " + line.text;
    if (line.thread == socketListener->thread) socketLines.push_back(text);
    if (line.thread == pipeListener->thread) pipeLines.push_back(text);
  }
  EXPECT_EQ(socketLines, (Lines{"8 ConnThread Startup", "8 " + NO_SOCKET_LISTENER}));
  EXPECT_EQ(pipeLines, (Lines{"8 ConnThread Pipe Startup", "8 " + NO_PIPE_LISTENER}));
  TQShutdown();
  EXPECT_EQ(log.CountOf("ConnectionThread. Shutdown"), 0u);
}

TEST(InitializeEx, WithAPipeHostDefinesNoSocketListener) {
  g_hostName = "machine";
  LogRecorder log;
  const std::string pipe = PipeName(FreePort());
  EXPECT_EQ(TQInitializeEx(("\\" + pipe).c_str(), "app", 4711, nullptr), TQ_ERR_OK);
  EXPECT_EQ(LinesOf(log).at(0), "8 Initializing with: host=\\" + pipe + " port=4711");
  EXPECT_EQ(ApplicationName(), "machine:4711/app") << "the port counts through the name";
  EXPECT_EQ(connPipeThreadInfo->pipeName.Copy(), pipe);
  EXPECT_EQ(ListenAddress(), "");
  EXPECT_TRUE(AddressIsCleared());
  EXPECT_FALSE(RawPeer::TryConnectPipes(pipe)) << "it waits at its gate";
  TQConnectionReady();
  EXPECT_TRUE(log.WaitFor(TQ_LOG_INFO, NO_SOCKET_LISTENER));
  EXPECT_TRUE(log.WaitFor(TQ_LOG_INFO, "ConnThread Pipe Startup"));
  EXPECT_TRUE(AdmitsOverPipes(pipe, PEER));
  ShutdownWhileKnockingAt({pipe});
  EXPECT_EQ(log.CountOf(NO_PIPE_LISTENER), 0u);
  EXPECT_EQ(log.CountOf("ConnThread Shutdown"), 1u);
}

TEST(InitializeEx, DropsOneBackslashOfAPipeHost) {
  EXPECT_EQ(TQInitializeEx("\\\\orders\\", "app", 0, nullptr), TQ_ERR_OK);
  EXPECT_EQ(connPipeThreadInfo->pipeName.Copy(), "\\orders\\");
  TQShutdown();
}

TEST(Gates, HoldTheListenersUntilTheHostIsReady) {
  LogRecorder log;
  const uint16_t port = FreePort();
  EXPECT_EQ(TQInitialize("app", port, nullptr), TQ_ERR_OK);
  EXPECT_EQ(ListenAddress(), "127.0.0.1:" + std::to_string(port));
  EXPECT_TRUE(WaitUntil([] { return RunsThread("tq-listen") && RunsThread("tq-listen-pipe"); }));
  EXPECT_FALSE(GatesAreOpen());
  EXPECT_FALSE(RawPeer::TryConnect(port));
  EXPECT_EQ(log.CountOfPrefix("ConnThread"), 0u);
  EXPECT_EQ(TQConnectionReady(), TQ_ERR_OK);
  EXPECT_TRUE(GatesAreOpen());
  EXPECT_TRUE(Admits(port, PEER));
  EXPECT_EQ(TQConnectionReady(), TQ_ERR_OK) << "again without effect";
  ShutdownWhileKnocking(port);
}

TEST(Gates, OpenWithoutAnInitialization) {
  EXPECT_FALSE(GatesAreOpen());
  EXPECT_EQ(TQConnectionReady(), TQ_ERR_OK);
  EXPECT_TRUE(GatesAreOpen());
}

TEST(Gates, OpenedTooEarlyLetTheListenersPassWithWhatTheyFind) {
  LogRecorder log;
  const uint16_t port = FreePort();
  EXPECT_EQ(TQStartListeners(nullptr, "127.0.0.1", port), TQ_ERR_OK);
  EXPECT_TRUE(GatesAreOpen());
  EXPECT_EQ(ListenAddress(), "127.0.0.1:" + std::to_string(port));
  EXPECT_EQ(TQInitialize("app", 0, nullptr), TQ_ERR_OK);
  EXPECT_EQ(ListenAddress(), "") << "initialisation clears what was written";
  EXPECT_TRUE(AddressIsCleared());
  EXPECT_TRUE(log.WaitFor(TQ_LOG_INFO, NO_SOCKET_LISTENER)) << "without being let go";
  EXPECT_FALSE(RawPeer::TryConnect(port));
  TQShutdown();
}

TEST(Gates, StayOpenForASecondLife) {
  LogRecorder log;
  EXPECT_EQ(TQInitialize("app", 0, nullptr), TQ_ERR_OK);
  TQShutdown();
  EXPECT_TRUE(GatesAreOpen());
  log.Clear();
  EXPECT_EQ(TQInitialize("app", 0, nullptr), TQ_ERR_OK);
  EXPECT_TRUE(GatesAreOpen());
  EXPECT_TRUE(log.WaitFor(TQ_LOG_INFO, "ConnThread Startup")) << "nobody has let it go";
  EXPECT_TRUE(log.WaitFor(TQ_LOG_INFO, NO_SOCKET_LISTENER));
  EXPECT_TRUE(log.WaitFor(TQ_LOG_INFO, NO_PIPE_LISTENER));
  TQShutdown();
}

TEST(Gates, OfASecondLifeMayBePassedBeforeTheAddressIsRecorded) {
  // The listener of the second life stands at its first line until the address is there, or not.
  EXPECT_EQ(TQInitialize("app", 0, nullptr), TQ_ERR_OK);
  TQShutdown();
  const uint16_t port = FreePort();
  LogRecorder log;
  LogGate startup("ConnThread Startup");
  EXPECT_EQ(TQInitialize("app", port, nullptr), TQ_ERR_OK);
  ASSERT_TRUE(startup.WaitUntilReached());
  EXPECT_EQ(ListenAddress(), "127.0.0.1:" + std::to_string(port));
  startup.Open();
  EXPECT_TRUE(log.WaitForPrefix(TQ_LOG_INFO, "listening for incoming connection on :"));
  ShutdownWhileKnocking(port);
}

// ---- other addresses ---------------------------------------------------------------------------

TEST(StartListeners, LetsTheListenersGoWithAnotherAddress) {
  LogRecorder log;
  const uint16_t port = FreePort();
  EXPECT_EQ(TQInitialize("app", 0, nullptr), TQ_ERR_OK);
  int unread = 0;
  EXPECT_EQ(TQStartListeners(&unread, "127.0.0.1", port), TQ_ERR_OK);
  EXPECT_TRUE(log.WaitFor(
      TQ_LOG_INFO, "listening for incoming connection on :127.0.0.1:" + std::to_string(port)));
  EXPECT_TRUE(Admits(port, PEER));
  ShutdownWhileKnocking(port);
}

TEST(StartListeners, DoesNotReadItsFirstArgument) {
  int neverRead = 0;
  EXPECT_EQ(TQStartListeners(&neverRead, "127.0.0.1", 4711), TQ_ERR_OK);
  EXPECT_EQ(ListenAddress(), "127.0.0.1:4711");
}

TEST(StartListeners, ReplacesTheAddressOfTheInitialization) {
  LogRecorder log;
  const uint16_t first = FreePort();
  const uint16_t second = FreePort();
  EXPECT_EQ(TQInitialize("app", first, nullptr), TQ_ERR_OK);
  EXPECT_EQ(TQStartListeners(nullptr, "127.0.0.1", second), TQ_ERR_OK);
  EXPECT_TRUE(Admits(second, PEER));
  EXPECT_FALSE(RawPeer::TryConnect(first));
  ShutdownWhileKnocking(second);
}

TEST(StartListeners, WithPortZeroDefinesAListenerAllTheSame) {
  LogRecorder log;
  EXPECT_EQ(TQInitialize("app", 0, nullptr), TQ_ERR_OK);
  EXPECT_EQ(TQStartListeners(nullptr, "127.0.0.1", 0), TQ_ERR_OK);
  EXPECT_EQ(ListenAddress(), "127.0.0.1:0");
  EXPECT_TRUE(log.WaitFor(TQ_LOG_INFO, "listening for incoming connection on :127.0.0.1:0"));
  TQShutdown();
}

TEST(StartListeners, WithAPipeHostDefinesNoSocketListener) {
  LogRecorder log;
  const std::string pipe = PipeName(FreePort());
  EXPECT_EQ(TQInitialize("app", 4711, nullptr), TQ_ERR_OK);
  EXPECT_EQ(TQStartListeners(nullptr, ("\\" + pipe).c_str(), 4712), TQ_ERR_OK);
  EXPECT_EQ(ListenAddress(), "");
  EXPECT_TRUE(AddressIsCleared());
  EXPECT_EQ(connPipeThreadInfo->pipeName.Copy(), pipe);
  EXPECT_TRUE(log.WaitFor(TQ_LOG_INFO, NO_SOCKET_LISTENER));
  EXPECT_TRUE(AdmitsOverPipes(pipe, PEER));
  ShutdownWhileKnockingAt({pipe});
}

TEST(StartListeners, WithAnAddressLeavesThePipeNameAlone) {
  const std::string pipe = PipeName(FreePort());
  EXPECT_EQ(TQInitializeEx(("\\" + pipe).c_str(), "app", 0, nullptr), TQ_ERR_OK);
  const uint16_t port = FreePort();
  EXPECT_EQ(TQStartListeners(nullptr, "127.0.0.1", port), TQ_ERR_OK);
  EXPECT_EQ(connPipeThreadInfo->pipeName.Copy(), pipe);
  EXPECT_TRUE(Admits(port, PEER));
  EXPECT_TRUE(AdmitsOverPipes(pipe, "test:1/another"));
  ShutdownWhileKnockingAt({pipe}, port);
  EXPECT_EQ(connPipeThreadInfo->pipeName.Copy(), pipe) << "nor does a shutdown clear it";
}

TEST(StartListeners, ChangesNothingForAListenerThatHasPassedItsGate) {
  LogRecorder log;
  const uint16_t first = FreePort();
  const uint16_t second = FreePort();
  EXPECT_EQ(TQInitialize("app", first, nullptr), TQ_ERR_OK);
  TQConnectionReady();
  EXPECT_TRUE(log.WaitForPrefix(TQ_LOG_INFO, "listening for incoming connection on :"));
  EXPECT_EQ(TQStartListeners(nullptr, "127.0.0.1", second), TQ_ERR_OK);
  EXPECT_EQ(ListenAddress(), "127.0.0.1:" + std::to_string(second));
  EXPECT_TRUE(Admits(first, PEER));
  EXPECT_FALSE(RawPeer::TryConnect(second));
  EXPECT_EQ(log.CountOfPrefix("listening for incoming connection on :"), 1u);
  ShutdownWhileKnocking(first);
}

TEST(StartListeners, TakesAHostThatIsNoAddressForAllInterfaces) {
  EXPECT_EQ(TQStartListeners(nullptr, "", 4711), TQ_ERR_OK);
  EXPECT_EQ(ListenAddress(), "0.0.0.0:4711");
  EXPECT_EQ(TQStartListeners(nullptr, "localhost", 4711), TQ_ERR_OK);
  EXPECT_EQ(ListenAddress(), "0.0.0.0:4711");
}

// ---- shutdown ----------------------------------------------------------------------------------

TEST(Shutdown, LetsGatedListenersGoAndEnd) {
  LogRecorder log;
  const uint16_t port = FreePort();
  EXPECT_EQ(TQInitialize("app", port, nullptr), TQ_ERR_OK);
  EXPECT_EQ(TQShutdown(), TQ_ERR_OK);
  EXPECT_TRUE(GatesAreOpen());
  EXPECT_EQ(log.CountOf("ConnThread Pipe Startup"), 1u);
  EXPECT_EQ(log.CountOf("ConnThread Startup"), 1u);
  EXPECT_EQ(log.CountOf("ConnectionThread. Shutdown"), 1u);
  EXPECT_EQ(log.CountOfPrefix("listening for incoming connection on :"), 0u);
  for (const std::thread* thread :
       {&detail::pipeListenerThread, &detail::socketListenerThread, &detail::dispatcherThread}) {
    EXPECT_FALSE(thread->joinable());
  }
}

TEST(Shutdown, EndsTheLibrarysThreads) {
  std::thread([] {}).join();  // a sanitizer's own thread starts with the first
  const int before = ThreadCount();
  EXPECT_EQ(TQInitialize("app", 0, nullptr), TQ_ERR_OK);
  EXPECT_EQ(ThreadCount(), before + 3);
  TQShutdown();
  EXPECT_TRUE(WaitUntil([&] { return ThreadCount() == before; }));
}

TEST(Shutdown, EndsEverySessionBeforeItReturns) {
  ListenerRecorder listeners;
  SessionHost host;
  RawPeer first = host.Admit("test:1/first");
  RawPeer second = host.Admit("test:1/second");
  TQRegisterSignal("ticks");
  first.SendRequest(1, RAW_NOTIFY, RAW_CONNECT_SIGNAL,
                    RawList().String("signalName", "ticks").Int32("slotName", 5));
  first.SendRequest(2, RAW_CALL, 0x5EED);
  ASSERT_TRUE(first.ReadFrame());

  host.Shutdown();

  EXPECT_EQ(g_applications.Size(), 0u);
  EXPECT_EQ(listeners.Disconnects().size(), 2u);
  for (const std::string name : {"test:1/first", "test:1/second"}) {
    // Which of the two texts depends on what the receiving thread saw first.
    EXPECT_EQ(host.Log().CountOf("Global shutdown: \"" + name + "\" stopped") +
                  host.Log().CountOf("Local shutdown: \"" + name + "\" stopped"),
              1u)
        << host.Log().Dump();
    EXPECT_EQ(host.Log().CountOf("Removing application " + name), 1u);
  }
  {
    LockScope held(detail::g_signals.lock);
    EXPECT_TRUE(detail::g_signals.Find("ticks")->empty());
  }
  EXPECT_TRUE(first.WaitClosed());
  EXPECT_TRUE(second.WaitClosed());
  EXPECT_TRUE(SessionHost::WaitForSessions(0));
}

TEST(Shutdown, WaitsUntilEverySessionIsOutOfTheRegistryBeforeItEndsTheDispatcher) {
  SessionHost host;
  RawPeer peer = host.Admit(PEER);
  LogGate removing("Removing application " + PEER);
  std::thread shutdown([&] { host.Shutdown(); });
  ASSERT_TRUE(removing.WaitUntilReached());
  // The receiving thread has been joined; only the entry is left, and the shutdown looks at it
  // again and again.
  EXPECT_EQ(g_applications.Size(), 1u);
  std::this_thread::sleep_for(milliseconds(50));
  EXPECT_TRUE(RunsThread("tq-dispatch"));
  EXPECT_EQ(g_applications.Size(), 1u);
  removing.Open();
  shutdown.join();
  EXPECT_EQ(g_applications.Size(), 0u);
  EXPECT_FALSE(RunsThread("tq-dispatch"));
}

TEST(Shutdown, CancelsWhatWaitsForAReply) {
  SessionHost host;
  RawPeer peer = host.Admit(PEER);
  const detail::SessionRef session = g_applications.Find(PEER.c_str());
  CallInThread call(PEER, 7);
  ASSERT_TRUE(peer.ReadFrame());
  host.Shutdown();
  ASSERT_TRUE(call.WaitReturned());
  EXPECT_EQ(call.Result().impl, nullptr);
  ASSERT_TRUE(host.WaitForSendingEnd(PEER));
  session->Awaiting().Clear();  // the unanswered request would keep the session for good
}

TEST(Shutdown, WaitsForAHandshakeThatIsUnderWay) {
  SessionHost host;
  auto silent = RawPeer::Connect(host.Port());
  ASSERT_TRUE(silent);
  ASSERT_TRUE(host.Log().WaitFor(TQ_LOG_INFO, "ConnectionThread. Starting new application"));
  host.Shutdown();
  // The read of the handshake has run out before the listener could be joined.
  EXPECT_EQ(host.Log().CountOf("Stage 1: no appID specified"), 1u);
  EXPECT_EQ(host.Log().CountOf("ConnectionThread. Application start failed"), 1u);
  EXPECT_EQ(host.Log().CountOf("ConnectionThread. Shutdown"), 1u);
}

TEST(Shutdown, DuringAHandshakeLeavesNoSessionInTheRegistry) {
  SessionHost host;
  Gate over;
  LogGate starting("Start management threads for " + PEER);
  auto peer = RawPeer::Connect(host.Port());
  ASSERT_TRUE(peer);
  ASSERT_TRUE(peer->HandshakeAsConnector(PEER).Completed());
  ASSERT_TRUE(starting.WaitUntilReached());
  std::thread shutdown([&] {
    host.Shutdown();
    over.Open();
  });
  ASSERT_TRUE(WaitUntil([] { return StopAll(); }));
  {
    // The session's threads find the stop from the start, and the receiving one cannot make the
    // entry. The sending one must not take away what is still to come.
    LockScope held(g_applications.applicationsLock);
    starting.Open();
    std::this_thread::sleep_for(milliseconds(150));
    EXPECT_EQ(host.Log().CountOf("Removing application " + PEER), 0u);
  }
  EXPECT_TRUE(over.Wait());
  EXPECT_EQ(g_applications.Size(), 0u);
  g_applications.Erase(PEER);  // so that a failed test ends, too
  shutdown.join();
  EXPECT_EQ(host.Log().CountOf("Global shutdown: \"" + PEER + "\" stopped"), 1u);
  EXPECT_TRUE(host.WaitForSendingEnd(PEER));
}

TEST(Shutdown, JoinsTheReceivingThreadOfASessionWhoseSendingThreadSawTheStopFirst) {
  ListenerRecorder listeners;
  SessionHost host;
  RawPeer peer = host.Admit(PEER);
  // The socket listener stands on its way into a handshake, and the shutdown at the join of it.
  LogGate serving("ConnectionThread. Starting new application");
  ASSERT_TRUE(RawPeer::Connect(host.Port()));
  ASSERT_TRUE(serving.WaitUntilReached());
  std::thread shutdown([&] { host.Shutdown(); });
  ASSERT_TRUE(WaitUntil([] { return StopAll(); }));
  // Something to send wakes the sending thread, which then ends and takes the name away. On a slow
  // machine it may have come to that by its own poll.
  (void)TQNotify(PEER.c_str(), 7, {nullptr}, nullptr, nullptr);
  ASSERT_TRUE(host.WaitForSendingEnd(PEER));
  EXPECT_EQ(g_applications.Size(), 0u);

  serving.Open();
  shutdown.join();

  EXPECT_EQ(host.Log().CountOfPrefix("Receiving thread finished for " + PEER), 1u);
  EXPECT_EQ(listeners.Disconnects().size(), 1u);
}

TEST(Shutdown, WaitsForARunningSlot) {
  Gate entered;
  Gate mayReturn;
  Gate over;
  SessionHost host;
  const ScopedSlot slot(5, [&](const SlotCall&) {
    entered.Open();
    EXPECT_TRUE(mayReturn.Wait());
  });
  RawPeer peer = host.Admit(PEER);
  peer.SendRequest(1, RAW_CALL, 5);
  ASSERT_TRUE(entered.Wait());
  std::thread shutdown([&] {
    host.Shutdown();
    over.Open();
  });
  ASSERT_TRUE(host.WaitForSendingEnd(PEER));
  EXPECT_FALSE(over.Wait(milliseconds(150)));
  mayReturn.Open();
  EXPECT_TRUE(over.Wait());
  shutdown.join();
}

TEST(Shutdown, ResetsNothingElse) {
  g_hostName = "machine";
  ListenerRecorder listeners;
  _tag_TQLIMITS record = EmptyRecord();
  record.MAX_CONNECTIONS = 7;
  EXPECT_EQ(TQInitialize("app", 4711, &record), TQ_ERR_OK);
  TQRegisterSlot(
      5, [](_tag_HTQPARAMLIST, _tag_HTQPARAMLIST, const TQSlotCallInfo*) { return 0; }, nullptr);
  TQRegisterSignal("ticks");
  TQShutdown();
  EXPECT_EQ(ApplicationName(), "machine:4711/app");
  EXPECT_EQ(LimitsInForce().MAX_CONNECTIONS, 7u);
  EXPECT_EQ(ListenAddress(), "127.0.0.1:4711");
  EXPECT_NE(detail::g_connectListener.load(), nullptr);
  EXPECT_NE(detail::g_disconnectListener.load(), nullptr);
  EXPECT_TRUE(StopAll());
  EXPECT_EQ(TQUnregisterSlot(5), TQ_ERR_OK);
  EXPECT_EQ(TQUnregisterSlot(0xFFFFFFFF), TQ_ERR_OK);
  EXPECT_EQ(TQUnregisterSlot(0xFFFFFFFE), TQ_ERR_OK);
  EXPECT_EQ(TQUnregisterSignal("ticks"), TQ_ERR_OK);
}

TEST(SecondLife, KeepsThePipeNameOfTheFirstUnlessItBringsItsOwn) {
  const std::string orders = PipeName(FreePort());
  const std::string stock = PipeName(FreePort());
  EXPECT_EQ(TQInitializeEx(("\\" + orders).c_str(), "app", 0, nullptr), TQ_ERR_OK);
  TQShutdown();
  EXPECT_EQ(TQInitialize("app", 0, nullptr), TQ_ERR_OK);
  EXPECT_EQ(connPipeThreadInfo->pipeName.Copy(), orders) << "in a life that names no listener";
  EXPECT_TRUE(AdmitsOverPipes(orders, PEER));
  ShutdownWhileKnockingAt({orders});
  const uint16_t port = FreePort();
  EXPECT_EQ(TQInitialize("app", port, nullptr), TQ_ERR_OK);
  EXPECT_EQ(connPipeThreadInfo->pipeName.Copy(), orders) << "in a life with a socket listener";
  ShutdownWhileKnockingAt({orders}, port);
  EXPECT_EQ(TQInitializeEx(("\\" + stock).c_str(), "app", 0, nullptr), TQ_ERR_OK);
  EXPECT_EQ(connPipeThreadInfo->pipeName.Copy(), stock);
  // The gates are open: the listener may have passed before the new name was there.
  ShutdownWhileKnockingAt({orders, stock});
}

TEST(SecondLife, ServesSessionsLikeTheFirst) {
  LogRecorder log;
  for (int life = 1; life <= 3; ++life) {
    const std::string name = "test:1/raw" + std::to_string(life);
    ASSERT_EQ(TQInitialize("app", 0, nullptr), TQ_ERR_OK);
    EXPECT_FALSE(StopAll());
    RawListener listener(FreePort());
    std::optional<RawPeer> peer;
    std::thread acceptor([&] {
      peer = listener.Accept();
      ASSERT_TRUE(peer);
      EXPECT_TRUE(peer->HandshakeAsAcceptor(name).Completed());
    });
    EXPECT_EQ(TQConnect("127.0.0.1", listener.Port(), nullptr, 0, nullptr, 0), TQ_ERR_OK);
    acceptor.join();
    ASSERT_TRUE(peer);
    {
      const ScopedSlot slot(5, [&](const SlotCall& call) {
        TQSetInt32Value(call.result, "life", static_cast<uint32_t>(life));
      });
      peer->SendRequest(1, RAW_CALL, 5);
      const auto reply = peer->ReadFrame();
      ASSERT_TRUE(reply) << peer->Problem();
      EXPECT_EQ(reply->list, RawList().Int32("life", static_cast<uint32_t>(life)));
    }
    EXPECT_EQ(TQShutdown(), TQ_ERR_OK);
    EXPECT_TRUE(SessionHost::WaitForSessions(0));
  }
}

// ---- callbacks and shutdown --------------------------------------------------------------------

TEST(Shutdown, IsPossibleOnAReceivingThread) {
  // It does not wait for its own thread: the session's sending thread takes the entry away.
  ListenerRecorder listeners;
  std::atomic<bool> returned{false};
  listeners.onConnect = [&](const ListenerRecorder::ConnectCall&) {
    EXPECT_EQ(TQShutdown(), TQ_ERR_OK);
    EXPECT_EQ(g_applications.Size(), 0u);
    EXPECT_FALSE(detail::dispatcherThread.joinable());
    returned = true;
  };
  LogRecorder log;
  const uint16_t port = FreePort();
  ASSERT_EQ(TQInitialize("app", port, nullptr), TQ_ERR_OK);
  TQConnectionReady();
  {
    auto peer = RawPeer::Connect(port);
    ASSERT_TRUE(peer);
    ASSERT_TRUE(peer->HandshakeAsConnector(PEER).Completed());
    EXPECT_TRUE(peer->WaitClosed());
  }
  EXPECT_TRUE(WaitUntil([&] { return returned.load(); }));
  EXPECT_TRUE(log.WaitFor(TQ_LOG_INFO, "Global shutdown: \"" + PEER + "\" stopped"));
  EXPECT_TRUE(SessionHost::WaitForSessions(0));
}

TEST(Shutdown, LeavesTheSettersAndTheGatesToOthersMeanwhile) {
  Gate entered;
  Gate mayReturn;
  Gate initialized;
  ListenerRecorder listeners;
  listeners.onDisconnect = [&](const ListenerRecorder::DisconnectCall&) {
    entered.Open();
    EXPECT_TRUE(mayReturn.Wait());
  };
  SessionHost host;
  RawPeer peer = host.Admit(PEER);
  std::thread shutdown([&] { host.Shutdown(); });
  ASSERT_TRUE(entered.Wait());
  // None of these needs the lock that the shutdown holds.
  EXPECT_EQ(TQConnectionReady(), TQ_ERR_OK);
  EXPECT_EQ(TQStartListeners(nullptr, "127.0.0.1", 4711), TQ_ERR_OK);
  EXPECT_EQ(TQSetAuthFailedListener(nullptr), TQ_ERR_OK);
  EXPECT_EQ(TQSetAuthenticationInfo(nullptr, 0), TQ_ERR_OK);
  // These two do.
  std::thread initializer([&] {
    EXPECT_EQ(TQInitialize("later", 0, nullptr), TQ_ERR_OK);
    initialized.Open();
  });
  EXPECT_TRUE(host.Log().WaitFor(TQ_LOG_INFO, "Initializing with: host=127.0.0.1 port=0"));
  EXPECT_FALSE(initialized.Wait(milliseconds(150)));
  EXPECT_EQ(host.Log().CountOfPrefix("Application="), 1u) << "the line before needs no lock";
  mayReturn.Open();
  EXPECT_TRUE(initialized.Wait());
  shutdown.join();
  initializer.join();
  EXPECT_FALSE(StopAll()) << "a new life, after the end of the first";
  EXPECT_EQ(TQShutdown(), TQ_ERR_OK);
}

// ---- what ends the process, or never ends ------------------------------------------------------

TQ_TEST_ROLE(exitWithoutShutdown) {
  TQInitialize("app", 0, nullptr);
  Say("initialized");
  return 0;
}

TEST(ProcessExit, WithoutTheLastShutdownTerminates) {
  ChildProcess child("exitWithoutShutdown", {}, ErrorOutput::MERGED);
  ASSERT_TRUE(child.ExpectLine("initialized"));
  const auto status = child.Wait();
  ASSERT_TRUE(status);
  EXPECT_TRUE(status->Aborted()) << *status;
}

TQ_TEST_ROLE(exitWithOneShutdownTooFew) {
  TQInitialize("app", 0, nullptr);
  TQInitialize("other", 0, nullptr);
  TQShutdown();
  Say("initialized");
  return 0;
}

TEST(ProcessExit, WithOneShutdownTooFewTerminates) {
  ChildProcess child("exitWithOneShutdownTooFew", {}, ErrorOutput::MERGED);
  ASSERT_TRUE(child.ExpectLine("initialized"));
  const auto status = child.Wait();
  ASSERT_TRUE(status);
  EXPECT_TRUE(status->Aborted()) << *status;
}

TQ_TEST_ROLE(exitAfterShutdown) {
  TQInitialize("app", 0, nullptr);
  TQInitialize("other", 0, nullptr);
  TQShutdown();
  TQShutdown();
  return 0;
}

TEST(ProcessExit, AfterTheLastShutdownIsInOrder) {
  ChildProcess child("exitAfterShutdown");
  EXPECT_TRUE(child.ExpectSuccess());
}

// Runs TQShutdown where a thread would have to join itself, and says what came of it.
std::atomic<bool> g_triedShutdown{false};

void SayWhatShutdownRaises() {
  try {
    TQShutdown();
    Say("returned");
  } catch (const std::system_error& error) {
    const bool deadlock = error.code() == std::errc::resource_deadlock_would_occur;
    Say(deadlock ? "would deadlock" : "another error: " + error.code().message());
  }
  g_triedShutdown = true;
}

int RunUntilShutdownIsTried(uint16_t port) {
  _tag_TQLIMITS record = EmptyRecord();
  record.IO_TIMEOUT_MS = 2000;
  TQInitialize("app", port, &record);
  TQConnectionReady();
  EXPECT_TRUE(WaitUntil([] { return g_triedShutdown.load(); }));
  Say(StopAll() ? "stop is set" : "stop is not set");
  // The count is 0, so that this finds nothing to do, and the lock was let go.
  Say(TQShutdown() == TQ_ERR_OK ? "nothing left to shut down" : "?");
  return 0;
}

/// A slot that shuts down takes the lock of the slots before the one of initialisation, which takes
/// them the other way round. A deadlock detector is right to report that, and is not wanted here.
void AllowLocksAgainstTheirOrder() {
  setenv("TSAN_OPTIONS", "detect_deadlocks=0", 1);  // NOLINT(concurrency-mt-unsafe): one thread yet
}

void ExpectSelfJoinToBeRaised(ChildProcess& child) {
  EXPECT_TRUE(child.ExpectLine("would deadlock"));
  EXPECT_TRUE(child.ExpectLine("stop is set"));
  EXPECT_TRUE(child.ExpectLine("nothing left to shut down"));
  // The thread that could not join itself is never joined, and so the process cannot end in order.
  const auto status = child.Wait();
  ASSERT_TRUE(status);
  EXPECT_TRUE(status->Aborted()) << *status;
}

TQ_TEST_ROLE(shutdownInASlot) {
  const auto port = static_cast<uint16_t>(std::stoi(args.at(0)));
  TQRegisterSlot(
      5,
      [](_tag_HTQPARAMLIST, _tag_HTQPARAMLIST, const TQSlotCallInfo*) {
        SayWhatShutdownRaises();
        return 0;
      },
      nullptr);
  return RunUntilShutdownIsTried(port);
}

TEST(Shutdown, InASlotRaisesTheErrorOfTheJoinAndLeavesTheCountAtZero) {
  const uint16_t port = FreePort();
  AllowLocksAgainstTheirOrder();
  ChildProcess child("shutdownInASlot", {std::to_string(port)}, ErrorOutput::MERGED);
  auto peer = RawPeer::Connect(port);
  ASSERT_TRUE(peer);
  ASSERT_TRUE(peer->HandshakeAsConnector(PEER).Completed());
  peer->SendRequest(1, RAW_CALL, 5);
  EXPECT_TRUE(peer->WaitClosed()) << "the sessions were stopped before";
  ExpectSelfJoinToBeRaised(child);
}

TQ_TEST_ROLE(shutdownOnTheSocketListener) {
  const auto port = static_cast<uint16_t>(std::stoi(args.at(0)));
  TQSetAuthFailedListener([](const char*, const char*, const char*) { SayWhatShutdownRaises(); });
  return RunUntilShutdownIsTried(port);
}

TEST(Shutdown, OnTheSocketListenerRaisesTheErrorOfTheJoinAndLeavesTheCountAtZero) {
  const uint16_t port = FreePort();
  ChildProcess child("shutdownOnTheSocketListener", {std::to_string(port)}, ErrorOutput::MERGED);
  auto peer = RawPeer::Connect(port);
  ASSERT_TRUE(peer);
  HandshakeOptions options;
  options.wrongDigest = true;
  EXPECT_FALSE(peer->HandshakeAsConnector(PEER, {}, options).Completed());
  ExpectSelfJoinToBeRaised(child);
}

// A listener that initialises while the shutdown joins its thread.
TQ_TEST_ROLE(initializeInTheDisconnectListener) {
  const auto port = static_cast<uint16_t>(std::stoi(args.at(0)));
  TQSetDisconnectListener([](const char*, const char*, int32_t, const char*) {
    Say("initializing");
    TQInitialize("app", 0, nullptr);
    Say("initialized");
  });
  TQInitialize("app", port, nullptr);
  TQConnectionReady();
  AwaitCommand("shut down");
  TQShutdown();
  Say("shut down");
  return 0;
}

TEST(Shutdown, NeverEndsWhenAListenerThatItWaitsForInitializes) {
  const uint16_t port = FreePort();
  ChildProcess child("initializeInTheDisconnectListener", {std::to_string(port)});
  auto peer = RawPeer::Connect(port);
  ASSERT_TRUE(peer);
  ASSERT_TRUE(peer->HandshakeAsConnector(PEER).Completed());
  peer->SendRequest(1, RAW_CALL, 5);
  ASSERT_TRUE(peer->ReadFrame()) << "the session is there";
  child.WriteLine("shut down");
  ASSERT_TRUE(child.ExpectLine("initializing"));
  EXPECT_FALSE(child.ReadLine(milliseconds(1000)));
  EXPECT_TRUE(child.IsRunning());
}

}  // namespace
}  // namespace TQ::test
