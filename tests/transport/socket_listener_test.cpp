#include "transport/socket_listener.h"

#include <gtest/gtest.h>
#include <tq/tq.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "frame/settings.h"
#include "support/free_port.h"
#include "support/host_conditions.h"
#include "support/listening_library.h"
#include "support/log_recorder.h"
#include "support/process_info.h"
#include "support/raw_peer.h"
#include "support/socket_state.h"
#include "support/wait_until.h"

namespace TQ::test {
namespace {

using std::chrono::milliseconds;
using Texts = std::vector<std::string>;

constexpr char ADMITTED[] = "ConnectionThread. Initialization of new connection is completed.";
constexpr char FAILED[] = "ConnectionThread. Application start failed";
constexpr char STOPPED[] = "Socket connection listener stopped. No socket listeners defined";

std::string ListeningText(const std::string& host, uint16_t port) {
  return "listening for incoming connection on :" + host + ":" + std::to_string(port);
}

std::string BindText(uint16_t port) {
  return "bind to:127.0.0.1:" + std::to_string(port) + " FAILED. Try to reinitialize listener";
}

// The library's end of the peer's connection.
platform::Handle AcceptedSocketOf(const RawPeer& peer) {
  for (const platform::Handle socket : OpenSockets()) {
    if (IsStream(socket) && platform::RemotePort(socket) == peer.LocalPort()) return socket;
  }
  return platform::NO_HANDLE;
}

bool HasListenerThread() {
  const std::vector<std::string> names = ThreadNames();
  return std::count(names.begin(), names.end(), "tq-listen") != 0;
}

// ---- the gate ----------------------------------------------------------------------------------

TEST(SocketListener, WaitsAtItsGate) {
  LogRecorder log;
  ListeningLibrary library(ListeningLibrary::GATE_CLOSED);
  ASSERT_TRUE(WaitUntil([] { return HasListenerThread(); }));
  std::this_thread::sleep_for(milliseconds{50});
  EXPECT_EQ(log.CountOf("ConnThread Startup"), 0u);
  EXPECT_FALSE(RawPeer::TryConnect(library.Port()));
  EXPECT_TRUE(OpenSockets().empty());
  ASSERT_EQ(TQConnectionReady(), TQ_ERR_OK);
  EXPECT_TRUE(log.WaitFor(TQ_LOG_INFO, ListeningText("127.0.0.1", library.Port())));
  EXPECT_TRUE(RawPeer::TryConnect(library.Port()));
}

TEST(SocketListener, EndsAtOnceWhenNoListenerIsDefined) {
  LogRecorder log;
  ASSERT_EQ(TQInitialize("listener", 0, nullptr), TQ_ERR_OK);
  ASSERT_EQ(TQConnectionReady(), TQ_ERR_OK);
  ASSERT_TRUE(log.WaitFor(TQ_LOG_INFO, STOPPED));
  EXPECT_TRUE(WaitUntil([] { return !HasListenerThread(); }));
  TQShutdown();
  EXPECT_EQ(ListenerLog(log), (Texts{"8 ConnThread Startup", std::string("8 ") + STOPPED}));
}

TEST(SocketListener, ShutdownBeforeAnyListenerTakesTheSamePath) {
  LogRecorder log;
  ASSERT_EQ(TQInitialize("listener", 0, nullptr), TQ_ERR_OK);
  ASSERT_EQ(TQShutdown(), TQ_ERR_OK);
  EXPECT_EQ(ListenerLog(log), (Texts{"8 ConnThread Startup", std::string("8 ") + STOPPED}));
}

TEST(SocketListener, ShutdownBeforeTheGateOpensBindsNothing) {
  LogRecorder log;
  { ListeningLibrary library(ListeningLibrary::GATE_CLOSED); }
  EXPECT_EQ(ListenerLog(log), (Texts{"8 ConnThread Startup", "8 ConnectionThread. Shutdown"}));
}

// ---- binding and listening ---------------------------------------------------------------------

TEST(SocketListener, ListeningSocketIsPlainUninheritedAndHasABacklogOfFive) {
  LogRecorder log;
  ListeningLibrary library;
  const platform::Handle listener = ListenerOn(library.Port());
  ASSERT_NE(listener, platform::NO_HANDLE);
  EXPECT_FALSE(ReusesAddress(listener));
  EXPECT_FALSE(ReusesPort(listener));
  EXPECT_FALSE(SendsWithoutDelay(listener));
  EXPECT_FALSE(IsNonBlocking(listener));
  EXPECT_FALSE(IsInheritable(listener));
  EXPECT_EQ(ListenBacklog(listener), 5);
  EXPECT_EQ(OwnAddress(listener), "127.0.0.1:" + std::to_string(library.Port()));
}

class OtherHostTexts : public testing::TestWithParam<const char*> {};

TEST_P(OtherHostTexts, BindToAllInterfaces) {
  LogRecorder log;
  ListeningLibrary library(ListeningLibrary::GATE_OPEN, {}, GetParam());
  ASSERT_TRUE(log.WaitFor(TQ_LOG_INFO, ListeningText("0.0.0.0", library.Port())));
  EXPECT_EQ(OwnAddress(ListenerOn(library.Port())), "0.0.0.0:" + std::to_string(library.Port()));
  EXPECT_TRUE(RawPeer::TryConnect(library.Port()));
}

INSTANTIATE_TEST_SUITE_P(SocketListener, OtherHostTexts,
                         testing::Values("localhost", "not an address", "127.0.0.1.1"));

TEST(SocketListener, StartListenersGivesTheAddressAndOpensTheGate) {
  LogRecorder log;
  ASSERT_EQ(TQInitialize("listener", 0, nullptr), TQ_ERR_OK);
  const uint16_t port = FreePort();
  ASSERT_EQ(TQStartListeners(nullptr, "127.0.0.1", port), TQ_ERR_OK);
  EXPECT_TRUE(log.WaitFor(TQ_LOG_INFO, ListeningText("127.0.0.1", port)));
  EXPECT_TRUE(RawPeer::TryConnect(port));
  TQShutdown();
}

TEST(SocketListener, StartListenersWithPortZeroListensOnAnyPort) {
  LogRecorder log;
  ASSERT_EQ(TQInitialize("listener", 0, nullptr), TQ_ERR_OK);
  ASSERT_EQ(TQStartListeners(nullptr, "127.0.0.1", 0), TQ_ERR_OK);
  EXPECT_TRUE(log.WaitFor(TQ_LOG_INFO, ListeningText("127.0.0.1", 0)));
  const std::vector<platform::Handle> sockets = OpenSockets();
  ASSERT_EQ(sockets.size(), 1u);
  EXPECT_TRUE(IsListening(sockets[0]));
  EXPECT_NE(platform::LocalPort(sockets[0]), 0);
  TQShutdown();
}

TEST(SocketListener, StartListenersWithABackslashLeavesNoSocketListener) {
  LogRecorder log;
  ASSERT_EQ(TQInitialize("listener", FreePort(), nullptr), TQ_ERR_OK);
  ASSERT_EQ(TQStartListeners(nullptr, "\\orders", 0), TQ_ERR_OK);
  EXPECT_TRUE(log.WaitFor(TQ_LOG_INFO, STOPPED));
  TQShutdown();
}

TEST(SocketListener, AddressThatChangesWhileItListensHasNoEffect) {
  LogRecorder log;
  ListeningLibrary library;
  const uint16_t other = FreePort();
  ASSERT_EQ(TQStartListeners(nullptr, "127.0.0.1", other), TQ_ERR_OK);
  // One round of the listener, and a connection through it.
  std::this_thread::sleep_for(milliseconds{1300});
  RawPeer peer = library.Admit("test:1/raw");
  EXPECT_FALSE(RawPeer::TryConnect(other));
  EXPECT_EQ(log.CountOfPrefix("listening for"), 1u);
}

TEST(SocketListener, PortInUseIsToldOnceAndWaitedFor) {
  const uint16_t port = FreePort();
  std::optional<RawListener> holder(port);
  LogRecorder log;
  ListeningLibrary library(ListeningLibrary::GATE_OPEN_UNCHECKED, {}, "127.0.0.1", port);
  ASSERT_TRUE(log.WaitFor(TQ_LOG_CRITICAL, BindText(port)));
  // Two further attempts.
  std::this_thread::sleep_for(milliseconds{2300});
  EXPECT_EQ(ListenerLog(log), (Texts{"8 ConnThread Startup", "1 " + BindText(port)}));
  EXPECT_TRUE(WaitUntil([] { return OpenSockets().size() == 1; })) << "a failed socket is closed";
  holder.reset();
  ASSERT_TRUE(log.WaitFor(TQ_LOG_INFO, ListeningText("127.0.0.1", port)));
  EXPECT_EQ(log.CountOfLevel(TQ_LOG_CRITICAL), 1u);
  (void)library.Admit("test:1/raw");
}

TEST(SocketListener, AddressIsReadAtEachAttemptToBind) {
  const uint16_t port = FreePort();
  const RawListener holder(port);
  LogRecorder log;
  ListeningLibrary library(ListeningLibrary::GATE_OPEN_UNCHECKED, {}, "127.0.0.1", port);
  ASSERT_TRUE(log.WaitFor(TQ_LOG_CRITICAL, BindText(port)));
  const uint16_t other = FreePort();
  ASSERT_EQ(TQStartListeners(nullptr, "127.0.0.1", other), TQ_ERR_OK);
  EXPECT_TRUE(log.WaitFor(TQ_LOG_INFO, ListeningText("127.0.0.1", other)));
}

TEST(SocketListener, SocketThatCannotBeMadeFailsTheBind) {
  LogRecorder log;
  ListeningLibrary library(ListeningLibrary::GATE_CLOSED);
  {
    const NoMoreDescriptors none;
    ASSERT_EQ(TQConnectionReady(), TQ_ERR_OK);
    ASSERT_TRUE(log.WaitFor(TQ_LOG_CRITICAL, BindText(library.Port())));
  }
  EXPECT_TRUE(log.WaitFor(TQ_LOG_INFO, ListeningText("127.0.0.1", library.Port())));
  EXPECT_EQ(log.CountOfLevel(TQ_LOG_CRITICAL), 1u);
}

TEST(SocketListener, ShutdownEndsTheAttemptsToBind) {
  const uint16_t port = FreePort();
  const RawListener holder(port);
  LogRecorder log;
  {
    ListeningLibrary library(ListeningLibrary::GATE_OPEN_UNCHECKED, {}, "127.0.0.1", port);
    ASSERT_TRUE(log.WaitFor(TQ_LOG_CRITICAL, BindText(port)));
  }
  EXPECT_EQ(ListenerLog(log),
            (Texts{"8 ConnThread Startup", "1 " + BindText(port), "8 ConnectionThread. Shutdown"}));
}

// What was listening when the last line was logged.
std::atomic<int> g_listeningAtShutdown{-1};

void CountListenersAtShutdown(uint32_t, int32_t, const char* text) {
  if (std::string(text) != "ConnectionThread. Shutdown") return;
  const std::vector<platform::Handle> sockets = OpenSockets();
  g_listeningAtShutdown = static_cast<int>(std::count_if(
      sockets.begin(), sockets.end(), [](platform::Handle s) { return IsListening(s); }));
}

TEST(SocketListener, ShutdownClosesTheListeningSocketBeforeTheLastLine) {
  {
    ListeningLibrary library;
    TQSetLogLevel(TQ_LOG_INFO, 0, &CountListenersAtShutdown);
  }
  TQSetLogLevel(0, 0, nullptr);
  EXPECT_EQ(g_listeningAtShutdown, 0);
  EXPECT_TRUE(OpenSockets().empty());
}

// ---- serving -----------------------------------------------------------------------------------

TEST(SocketListener, AdmissionIsLoggedLineByLine) {
  LogRecorder log;
  std::string local;
  std::string remote;
  std::string handle;
  {
    ListeningLibrary library;
    RawPeer peer = library.Admit("test:1/raw");
    ASSERT_TRUE(log.WaitFor(TQ_LOG_INFO, ADMITTED));
    handle = std::to_string(AcceptedSocketOf(peer));
    local = peer.RemoteAddress();
    remote = peer.LocalAddress();
    EXPECT_EQ(ListenerLog(log),
              (Texts{"8 ConnThread Startup", "8 " + ListeningText("127.0.0.1", library.Port()),
                     "8 ConnectionThread. Accepting new connection",
                     "8 ConnectionThread. Connection from: '127.0.0.1' has been accepted",
                     "8 ConnectionThread. Configuring new socket.",
                     "8 ConnectionThread. Starting new application",
                     "8 Socket channel(" + handle + ") " + local + "<->" + remote,
                     "8 Start management threads for test:1/raw",
                     "8 Startup completed for test:1/raw", std::string("8 ") + ADMITTED}));
  }
  EXPECT_EQ(ListenerLog(log).back(), "8 ConnectionThread. Shutdown");
}

TEST(SocketListener, FailedHandshakeIsCompletedToo) {
  LogRecorder log;
  ListeningLibrary library;
  auto peer = RawPeer::TryConnect(library.Port());
  ASSERT_TRUE(peer);
  peer->ShutdownWrite();
  ASSERT_TRUE(log.WaitFor(TQ_LOG_INFO, ADMITTED));
  Texts own;
  for (const std::string& line : ListenerLog(log)) {
    if (line.find("ConnectionThread.") != std::string::npos) own.push_back(line);
  }
  EXPECT_EQ(own, (Texts{"8 ConnectionThread. Accepting new connection",
                        "8 ConnectionThread. Connection from: '127.0.0.1' has been accepted",
                        "8 ConnectionThread. Configuring new socket.",
                        "8 ConnectionThread. Starting new application", std::string("2 ") + FAILED,
                        std::string("8 ") + ADMITTED}));
  EXPECT_TRUE(peer->WaitClosed());
  EXPECT_TRUE(WaitUntil([] { return DEBUG_TQObjectCount().sessions == 0; }));
}

TEST(SocketListener, AcceptedSocketIsConfigured) {
  ListeningLibrary library;
  auto peer = RawPeer::TryConnect(library.Port());
  ASSERT_TRUE(peer);
  const auto greeting = peer->HandshakeAsConnector("test:1/raw");
  ASSERT_TRUE(greeting.Completed()) << greeting.failure;
  const platform::Handle accepted = AcceptedSocketOf(*peer);
  ASSERT_NE(accepted, platform::NO_HANDLE);
  EXPECT_TRUE(SendsWithoutDelay(accepted));
  EXPECT_TRUE(IsNonBlocking(accepted));
  EXPECT_EQ(ReceiveBufferSize(accepted), ReportedBufferSize(0x10000));
  EXPECT_EQ(SendBufferSize(accepted), ReportedBufferSize(0x10000));
  EXPECT_FALSE(IsInheritable(accepted));
}

TEST(SocketListener, SilentPeerHoldsTheNextOneBack) {
  LogRecorder log;
  ListeningLibrary library;
  auto silent = RawPeer::TryConnect(library.Port());
  ASSERT_TRUE(silent);
  ASSERT_TRUE(log.WaitFor(TQ_LOG_INFO, "ConnectionThread. Starting new application"));
  auto next = RawPeer::TryConnect(library.Port());
  ASSERT_TRUE(next);
  const auto greeting = next->HandshakeAsConnector("test:1/next");
  EXPECT_TRUE(greeting.Completed()) << greeting.failure;
  ASSERT_TRUE(log.WaitForCount(TQ_LOG_INFO, ADMITTED, 2));
  // The silent one was given up by the time limit, and only then the next one was looked at.
  const Texts lines = ListenerLog(log);
  const auto failed = std::find(lines.begin(), lines.end(), std::string("2 ") + FAILED);
  const auto second =
      std::find(failed, lines.end(), "8 ConnectionThread. Accepting new connection");
  EXPECT_NE(second, lines.end());
  EXPECT_EQ(std::count(lines.begin(), failed, "8 ConnectionThread. Accepting new connection"), 1);
  EXPECT_TRUE(silent->WaitClosed());
}

TEST(SocketListener, HeldUpPeerWaitsInTheBacklog) {
  ListeningLibrary::Limits limits;
  limits.ioTimeoutMs = 60000;
  ListeningLibrary library(ListeningLibrary::GATE_OPEN, limits);
  auto silent = RawPeer::TryConnect(library.Port());
  ASSERT_TRUE(silent);
  const platform::Handle listener = ListenerOn(library.Port());
  ASSERT_TRUE(WaitUntil([&] { return WaitingConnections(listener) == 0; }));
  auto next = RawPeer::TryConnect(library.Port());
  ASSERT_TRUE(next);
  EXPECT_EQ(WaitingConnections(listener), 1);
  silent->Close();
  EXPECT_TRUE(WaitUntil([&] { return WaitingConnections(listener) == 0; }));
  const auto greeting = next->HandshakeAsConnector("test:1/next");
  EXPECT_TRUE(greeting.Completed()) << greeting.failure;
}

TEST(SocketListener, ShutdownWaitsForAHandshakeThatIsUnderWay) {
  LogRecorder log;
  std::optional<RawPeer> silent;
  {
    ListeningLibrary library;
    silent = RawPeer::TryConnect(library.Port());
    ASSERT_TRUE(silent);
    ASSERT_TRUE(log.WaitFor(TQ_LOG_INFO, "ConnectionThread. Starting new application"));
  }
  const Texts lines = ListenerLog(log);
  ASSERT_GE(lines.size(), 3u);
  EXPECT_EQ(log.CountOf(FAILED), 1u);
  EXPECT_EQ(lines[lines.size() - 2], std::string("8 ") + ADMITTED);
  EXPECT_EQ(lines.back(), "8 ConnectionThread. Shutdown");
}

TEST(SocketListener, ConnectionThatComesAfterTheStopIsNotAccepted) {
  LogRecorder log;
  std::optional<RawPeer> late;
  {
    std::optional<ListeningLibrary> library(std::in_place);
    const uint16_t port = library->Port();
    std::thread stopper([&] { library.reset(); });
    EXPECT_TRUE(WaitUntil([] { return detail::StopAllRequested(); }));
    late = RawPeer::TryConnect(port);
    stopper.join();
  }
  EXPECT_EQ(log.CountOfPrefix("ConnectionThread. Accepting"), 0u) << log.Dump();
  if (late) {
    EXPECT_TRUE(late->WaitClosed());
  }
}

TEST(SocketListener, KeepsNoReferenceToASession) {
  ListeningLibrary library;
  RawPeer peer = library.Admit("test:1/raw");
  EXPECT_EQ(DEBUG_TQObjectCount().sessions, 1u);
  peer.Close();
  EXPECT_TRUE(WaitUntil([] { return DEBUG_TQObjectCount().sessions == 0; }));
  EXPECT_NE(ListenerOn(library.Port()), platform::NO_HANDLE);
}

TEST(SocketListener, AdmitsOnePeerAfterTheOther) {
  ListeningLibrary library;
  std::vector<RawPeer> peers;
  for (int i = 0; i < 10; ++i) peers.push_back(library.Admit("test:1/p" + std::to_string(i)));
  EXPECT_EQ(DEBUG_TQObjectCount().sessions, 10u);
}

// ---- the limit on connections ------------------------------------------------------------------

TEST(SocketListener, LimitOfOneAdmitsTwoAndClosesTheThirdAtOnce) {
  LogRecorder log;
  ListeningLibrary::Limits limits;
  limits.maxConnections = 1;
  ListeningLibrary library(ListeningLibrary::GATE_OPEN, limits);
  RawPeer first = library.Admit("test:1/first");
  RawPeer second = library.Admit("test:1/second");
  auto third = RawPeer::TryConnect(library.Port());
  ASSERT_TRUE(third);
  EXPECT_EQ(third->ReceiveUntilClosed(), Bytes());
  ASSERT_TRUE(log.WaitFor(TQ_LOG_CRITICAL,
                          "ConnectionThread. Connection limit reached. Closing connection. "
                          "g_applications.size()=2. limits.MAX_CONNECTIONS = 1"));
  const Texts lines = ListenerLog(log);
  ASSERT_GE(lines.size(), 2u);
  EXPECT_EQ(lines[lines.size() - 2],
            "8 ConnectionThread. Connection from: '127.0.0.1' has been accepted");
  EXPECT_EQ(lines.back().substr(0, 2), "1 ") << "nothing follows the line";
  // The two stay, and one that leaves makes room again.
  EXPECT_TRUE(first.StaysSilentFor(milliseconds{20}));
  second.Close();
  ASSERT_TRUE(WaitUntil([] { return DEBUG_TQObjectCount().sessions == 1; }));
  (void)library.Admit("test:1/third");
  EXPECT_EQ(log.CountOfLevel(TQ_LOG_CRITICAL), 1u);
}

TEST(SocketListener, LargerLimitIsStrictToo) {
  LogRecorder log;
  ListeningLibrary::Limits limits;
  limits.maxConnections = 4;
  ListeningLibrary library(ListeningLibrary::GATE_OPEN, limits);
  std::vector<RawPeer> peers;
  for (int i = 0; i < 5; ++i) peers.push_back(library.Admit("test:1/p" + std::to_string(i)));
  for (int i = 0; i < 2; ++i) {
    auto refused = RawPeer::TryConnect(library.Port());
    ASSERT_TRUE(refused);
    EXPECT_EQ(refused->ReceiveUntilClosed(), Bytes());
  }
  EXPECT_TRUE(log.WaitForCount(TQ_LOG_CRITICAL,
                               "ConnectionThread. Connection limit reached. Closing connection. "
                               "g_applications.size()=5. limits.MAX_CONNECTIONS = 4",
                               2));
}

// ---- a difficult host --------------------------------------------------------------------------

TEST(SocketListener, WorksUnderHostSignals) {
  LogRecorder log;
  ListeningLibrary library;
  const SignalStorm storm;
  ASSERT_TRUE(
      WaitUntil([] { return !SignalStorm::IsAvailable() || SignalStorm::Delivered() > 100; }));
  RawPeer peer = library.Admit("test:1/raw");
  EXPECT_EQ(log.CountOfLevel(TQ_LOG_ERROR), 0u) << log.Dump();
  EXPECT_EQ(log.CountOfLevel(TQ_LOG_CRITICAL), 0u) << log.Dump();
  EXPECT_TRUE(peer.StaysSilentFor(milliseconds{50}));
}

TEST(SocketListener, WorksWithDescriptorsAboveTheOldSetLimit) {
  const DescriptorsInUse used(1100);
  ListeningLibrary library;
  EXPECT_GT(ListenerOn(library.Port()), 1100);
  RawPeer peer = library.Admit("test:1/raw");
  EXPECT_GT(AcceptedSocketOf(peer), 1100);
}

}  // namespace
}  // namespace TQ::test
