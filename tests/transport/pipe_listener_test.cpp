#include "transport/pipe_listener.h"

#include <gtest/gtest.h>
#include <tq/tq.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/channel_ends.h"
#include "support/free_port.h"
#include "support/listener_recorder.h"
#include "support/log_gate.h"
#include "support/log_recorder.h"
#include "support/pipe_library.h"
#include "support/platform.h"
#include "support/process_info.h"
#include "support/raw_peer.h"
#include "support/socket_state.h"
#include "support/system_faults.h"
#include "support/transport.h"
#include "support/wait_until.h"
#include "transport/listener_settings.h"

// The linker leads the library's zeroed blocks here (see tests/CMakeLists.txt).
extern "C" void* __real_calloc(std::size_t count, std::size_t size);

namespace TQ::test {
namespace {

/// Sessions that are still to find no memory.
std::atomic<int> g_refusedSessions{0};

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using Texts = std::vector<std::string>;

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

// ---- the gate, with pipes ----------------------------------------------------------------------

TEST(PipeListener, MakesItsPipesBehindTheGate) {
  PipeLibrary library(PipeLibrary::CLOSED);
  ASSERT_TRUE(WaitUntil([] { return HasThread("tq-listen-pipe"); }));
  std::this_thread::sleep_for(milliseconds{50});
  EXPECT_FALSE(RawPeer::TryConnectPipes(library.Name()));
  ASSERT_EQ(TQConnectionReady(), TQ_ERR_OK);
  (void)library.Admit("test:1/raw");
}

TEST(PipeListener, ShutdownBeforeTheGateOpensMakesNoPipe) {
  LogRecorder log;
  const int before = SocketsMade();
  ASSERT_EQ(TQInitializeEx("\\orders", "pipes", 0, nullptr), TQ_ERR_OK);
  ASSERT_EQ(TQShutdown(), TQ_ERR_OK);
  EXPECT_EQ(PipeListenerLog(log), (Texts{"8 ConnThread Pipe Startup", "8 ConnThread Shutdown"}));
  EXPECT_EQ(SocketsMade(), before);
}

TEST(PipeListener, StartListenersGivesTheNameAndOpensTheGate) {
  const std::string name = PipeName(FreePort());
  ASSERT_EQ(TQInitialize("pipes", 0, nullptr), TQ_ERR_OK);
  ASSERT_EQ(TQStartListeners(nullptr, ("\\" + name).c_str(), 0), TQ_ERR_OK);
  (void)PipeLibrary::AdmitTo(name, "test:1/raw");
  ShutDownWithVisitors(name);
}

// ---- names -------------------------------------------------------------------------------------

void ExpectNoPipes() {
  LogRecorder log;
  const int before = SocketsMade();
  ASSERT_EQ(TQInitialize("pipes", 0, nullptr), TQ_ERR_OK);
  ASSERT_EQ(TQConnectionReady(), TQ_ERR_OK);
  EXPECT_TRUE(log.WaitFor(TQ_LOG_INFO, "ConnThread Pipe stopped - pipes are not defined"));
  EXPECT_EQ(TQShutdown(), TQ_ERR_OK);
  EXPECT_EQ(PipeListenerLog(log), (Texts{"8 ConnThread Pipe Startup",
                                         "8 ConnThread Pipe stopped - pipes are not defined"}));
  EXPECT_EQ(SocketsMade(), before);
}

TEST(PipeListener, NamesThatAreEqualDefineNoPipes) {
  detail::inboundPipeName = detail::outboundPipeName = PipeName(FreePort());
  ExpectNoPipes();
}

TEST(PipeListener, InboundNameAloneDefinesNoPipes) {
  detail::inboundPipeName = PipeName(FreePort());
  ExpectNoPipes();
}

TEST(PipeListener, OutboundNameAloneDefinesNoPipes) {
  detail::outboundPipeName = PipeName(FreePort());
  ExpectNoPipes();
}

TEST(PipeListener, WithoutANameItGoesOnWithTheNamesThatItHolds) {
  const std::string name = PipeName(FreePort());
  detail::inboundPipeName = name + "_in";
  detail::outboundPipeName = name + "_out";
  ASSERT_EQ(TQInitialize("pipes", 0, nullptr), TQ_ERR_OK);
  ASSERT_EQ(TQConnectionReady(), TQ_ERR_OK);
  (void)PipeLibrary::AdmitTo(name, "test:1/raw");
  ShutDownWithVisitors(name);
}

TEST(PipeListener, NamesOutliveAShutdownAndServeAnInitialisationWithoutAName) {
  std::string name;
  {
    const PipeLibrary library;
    name = library.Name();
    (void)library.Admit("test:1/before");
  }
  EXPECT_EQ(detail::inboundPipeName, name + "_in");
  EXPECT_EQ(detail::outboundPipeName, name + "_out");
  ASSERT_EQ(TQInitialize("again", 0, nullptr), TQ_ERR_OK);
  (void)PipeLibrary::AdmitTo(name, "test:1/after");
  ShutDownWithVisitors(name);
  EXPECT_EQ(detail::inboundPipeName, name + "_in");
}

// The gate is open, so the listener of a second life may have looked before the name is stored.
TEST(PipeListener, OfASecondLifeServesTheNewNameIfItIsStoredWhileItStandsAtItsFirstLine) {
  std::string former;
  {
    const PipeLibrary library;
    former = library.Name();
    (void)library.Admit("test:1/before");
  }
  const std::string name = PipeName(FreePort());
  LogRecorder log;
  LogGate startup("ConnThread Pipe Startup");
  ASSERT_EQ(TQInitializeEx(("\\" + name).c_str(), "again", 0, nullptr), TQ_ERR_OK);
  ASSERT_TRUE(startup.WaitUntilReached());
  EXPECT_EQ(detail::inboundPipeName, former + "_in");
  startup.Open();
  (void)PipeLibrary::AdmitTo(name, "test:1/after");
  EXPECT_EQ(platform::WaitingPipes(former), Texts());
  ShutDownWithVisitors(name);
  EXPECT_EQ(detail::inboundPipeName, name + "_in");
  EXPECT_EQ(detail::outboundPipeName, name + "_out");
}

// The other order: what it has taken it keeps.
TEST(PipeListener, OfASecondLifeServesTheFormerNameIfItHasLookedBeforeTheNewOneIsStored) {
  std::string former;
  {
    const PipeLibrary library;
    former = library.Name();
  }
  const std::string name = PipeName(FreePort());
  detail::connPipeThreadInfo->pipeName.Set(former);
  ASSERT_EQ(TQInitialize("again", 0, nullptr), TQ_ERR_OK);
  (void)PipeLibrary::AdmitTo(former, "test:1/first");
  detail::connPipeThreadInfo->pipeName.Set(name);
  (void)PipeLibrary::AdmitTo(former, "test:1/second");
  EXPECT_EQ(platform::WaitingPipes(name), Texts());
  ShutDownWithVisitors(former);
}

// ---- lines -------------------------------------------------------------------------------------

std::string InboundLine(const std::string& name) {
  return R"(8 Inbound pipe \\.\pipe\)" + name + "_in connected";
}

std::string OutboundLine(const std::string& name) {
  return R"(8 Outbound pipe \\.\pipe\)" + name + "_out connected";
}

/// The listener's wait for a peer has begun, since the last call where there was one. It is told by
/// its limit of ten seconds from the waits of sessions and handshakes.
bool WaitUntilItWaits() {
  return WaitUntil([] {
    const std::vector<int64_t> limits = TakePollLimits();
    return std::any_of(limits.begin(), limits.end(),
                       [](int64_t limit) { return limit > 5000000 && limit <= 10000000; });
  });
}

TEST(PipeListener, AdmissionIsLoggedLineByLine) {
  LogRecorder log;
  {
    const PipeLibrary library;
    ASSERT_TRUE(WaitUntilItWaits());
    const RawPeer peer = library.Admit("test:1/raw");
    ASSERT_TRUE(log.WaitFor(TQ_LOG_INFO, "Startup completed for test:1/raw"));
    EXPECT_EQ(PipeListenerLog(log),
              (Texts{"8 ConnThread Pipe Startup", InboundLine(library.Name()),
                     OutboundLine(library.Name()), "8 Start management threads for test:1/raw",
                     "8 Startup completed for test:1/raw"}));
  }
  EXPECT_EQ(PipeListenerLog(log).back(), "8 ConnThread Shutdown");
}

TEST(PipeListener, OneBackslashOfTheHostTextIsCutAndTheOthersStandInTheLines) {
  LogRecorder log;
  const PipeLibrary library(PipeLibrary::OPEN, 0, R"(\\)");
  ASSERT_TRUE(WaitUntilItWaits());
  const RawPeer peer = library.Admit("test:1/raw");
  const Texts lines = PipeListenerLog(log);
  ASSERT_GE(lines.size(), 3u);
  EXPECT_EQ(lines[1], R"(8 Inbound pipe \\.\pipe\\)" + library.Name() + "_in connected");
  EXPECT_EQ(lines[2], R"(8 Outbound pipe \\.\pipe\\)" + library.Name() + "_out connected");
}

TEST(PipeListener, PeerThatWasThereFirstHasNoInboundLine) {
  LogRecorder log;
  std::atomic<bool> held{false};
  BeforeAccept([&](int socket) {
    if (held.exchange(true)) return;
    EXPECT_TRUE(WaitUntil([&] { return HasWaitingPeer(socket); }));
  });
  {
    const PipeLibrary library;
    const RawPeer peer = library.Admit("test:1/raw");
    const Texts lines = PipeListenerLog(log);
    ASSERT_GE(lines.size(), 2u);
    EXPECT_EQ(lines[0], "8 ConnThread Pipe Startup");
    EXPECT_EQ(lines[1], OutboundLine(library.Name()));
    EXPECT_EQ(log.CountOfPrefix("Inbound pipe "), 0u);
  }
  BeforeAccept(nullptr);
}

TEST(PipeListener, FailedHandshakeIsToldAndTheNextPeerIsServed) {
  LogRecorder log;
  const PipeLibrary library;
  ASSERT_TRUE(WaitUntilItWaits());
  auto peer = ConnectToPipes(library.Name());
  ASSERT_TRUE(peer);
  peer->ShutdownWrite();
  ASSERT_TRUE(log.WaitFor(TQ_LOG_ERROR, "Application start failed"));
  const Texts lines = PipeListenerLog(log);
  ASSERT_GE(lines.size(), 4u);
  EXPECT_EQ(lines[1], InboundLine(library.Name()));
  EXPECT_EQ(lines[2], OutboundLine(library.Name()));
  EXPECT_EQ(std::count(lines.begin(), lines.end(), "2 Application start failed"), 1);
  EXPECT_TRUE(peer->WaitClosed());
  EXPECT_TRUE(WaitUntil([] { return DEBUG_TQObjectCount().sessions == 0; }));
  (void)library.Admit("test:1/next");
}

TEST(PipeListener, SessionThatCannotBeMadeIsToldAndItsPeerClosed) {
  LogRecorder log;
  g_refusedSessions = 1;
  const PipeLibrary library;
  auto peer = ConnectToPipes(library.Name());
  ASSERT_TRUE(peer);
  EXPECT_EQ(peer->ReceiveUntilClosed(), Bytes());
  EXPECT_TRUE(log.WaitFor(TQ_LOG_ERROR, "Cannot create application object"));
  EXPECT_EQ(PipeListenerLog(log).back(), "2 Cannot create application object");
  (void)library.Admit("test:1/next");
  EXPECT_EQ(log.CountOfLevel(TQ_LOG_ERROR), 1u);
}

// ---- serving -----------------------------------------------------------------------------------

TEST(PipeListener, AddressesOfASessionAreThePipesNames) {
  const ListenerRecorder listeners;
  const PipeLibrary library;
  const RawPeer peer = library.Admit("test:1/raw");
  EXPECT_TRUE(listeners.WaitFor("connect " + library.Name() + "_in " + library.Name() +
                                "_out test:1/raw test 1 raw"));
}

TEST(PipeListener, AdmitsOnePeerAfterTheOther) {
  const PipeLibrary library;
  std::vector<RawPeer> peers;
  for (int i = 0; i < 10; ++i) peers.push_back(library.Admit("test:1/p" + std::to_string(i)));
  EXPECT_EQ(DEBUG_TQObjectCount().sessions, 10u);
}

TEST(PipeListener, WhileAHandshakeRunsThereIsNoPipe) {
  const PipeLibrary library;
  auto silent = ConnectToPipes(library.Name());
  ASSERT_TRUE(silent);
  // Its name is closed a moment after the peer was told that it was taken.
  EXPECT_TRUE(WaitUntil([&] { return platform::WaitingPipes(library.Name()).empty(); }));
  EXPECT_FALSE(RawPeer::TryConnectPipes(library.Name()));
  silent->Close();
  (void)library.Admit("test:1/next");
}

TEST(PipeListener, KeepsNoReferenceToASession) {
  const PipeLibrary library;
  RawPeer peer = library.Admit("test:1/raw");
  EXPECT_EQ(DEBUG_TQObjectCount().sessions, 1u);
  peer.Close();
  EXPECT_TRUE(WaitUntil([] { return DEBUG_TQObjectCount().sessions == 0; }));
}

TEST(PipeListener, LimitOfOneAdmitsTwoAndClosesTheThirdWithoutALine) {
  LogRecorder log;
  const PipeLibrary library(PipeLibrary::OPEN, 1);
  ASSERT_TRUE(WaitUntilItWaits());
  RawPeer first = library.Admit("test:1/first");
  ASSERT_TRUE(WaitUntilItWaits());
  RawPeer second = library.Admit("test:1/second");
  ASSERT_TRUE(WaitUntilItWaits());
  const auto before = static_cast<std::ptrdiff_t>(PipeListenerLog(log).size());
  auto third = ConnectToPipes(library.Name());
  ASSERT_TRUE(third);
  EXPECT_EQ(third->ReceiveUntilClosed(), Bytes()) << "nothing is sent";
  EXPECT_FALSE(third->SendBytes(Pattern(1)));
  // It waits for the next one, so nothing is still to be said about the third.
  ASSERT_TRUE(WaitUntilItWaits());
  const Texts lines = PipeListenerLog(log);
  EXPECT_EQ(Texts(lines.begin() + before, lines.end()),
            (Texts{InboundLine(library.Name()), OutboundLine(library.Name())}));
  EXPECT_EQ(log.CountOfLevel(TQ_LOG_CRITICAL), 0u);
  // The two stay, and one that leaves makes room again.
  EXPECT_TRUE(first.StaysSilentFor(milliseconds{20}));
  second.Close();
  ASSERT_TRUE(WaitUntil([] { return DEBUG_TQObjectCount().sessions == 1; }));
  (void)library.Admit("test:1/third");
}

// ---- waiting for nobody ------------------------------------------------------------------------

TEST(PipeListener, PipesAreMadeAnewEveryTenSecondsWithoutALine) {
  LogRecorder log;
  const auto start = steady_clock::now();
  const PipeLibrary library;
  const std::string inbound = "tq.pipe:" + library.Name() + "_in";
  const std::string outbound = "tq.pipe:" + library.Name() + "_out";
  Texts names;
  const auto made = [&](size_t count) {
    for (std::string& name : TakeBoundNames()) names.push_back(std::move(name));
    return names.size() >= count;
  };
  // Made once, and then twice again.
  for (const size_t count : {2U, 4U, 6U}) ASSERT_TRUE(WaitUntil([&] { return made(count); }));
  EXPECT_GE(ElapsedMs(start), 20000);
  EXPECT_EQ(names, (Texts{inbound, outbound, inbound, outbound, inbound, outbound}));
  EXPECT_EQ(PipeListenerLog(log), Texts{"8 ConnThread Pipe Startup"});
  EXPECT_EQ(platform::OpenPipeEnds().size(), 2u) << "the old ones are closed";
  (void)library.Admit("test:1/raw");
}

TEST(PipeListener, ShutdownOfAnIdleListenerTakesOneRenewalAtTheMost) {
  LogRecorder log;
  const std::string name = PipeName(FreePort());
  ASSERT_EQ(TQInitializeEx(("\\" + name).c_str(), "pipes", 0, nullptr), TQ_ERR_OK);
  ASSERT_EQ(TQConnectionReady(), TQ_ERR_OK);
  ASSERT_TRUE(WaitUntilItWaits());
  (void)TakeBoundNames();
  EXPECT_EQ(TQShutdown(), TQ_ERR_OK);
  EXPECT_LE(TakeBoundNames().size(), 2u);
  EXPECT_EQ(PipeListenerLog(log), (Texts{"8 ConnThread Pipe Startup", "8 ConnThread Shutdown"}));
  EXPECT_FALSE(HasThread("tq-listen-pipe"));
  EXPECT_TRUE(platform::OpenPipeEnds().empty());
}

// ---- one attempt -------------------------------------------------------------------------------

/// Names of its own, and the log of what one AcceptPipe says.
class AcceptPipe : public testing::Test {
 protected:
  AcceptPipe() {
    detail::inboundPipeName = name + "_in";
    detail::outboundPipeName = name + "_out";
    (void)TakePollLimits();
  }

  void ExpectNothingLeft() const {
    EXPECT_TRUE(platform::OpenPipeEnds().empty());
    EXPECT_TRUE(WaitUntil([&] { return platform::WaitingPipes(name).empty(); }));
  }

  const std::string name = PipeName(FreePort());
  LogRecorder log;
};

TEST_F(AcceptPipe, MakesTheInboundPipeFirstAndGivesAChannelOfBoth) {
  std::optional<RawPeer> peer;
  std::thread connector([&] { peer = ConnectToPipes(name); });
  const detail::ChannelRef channel = detail::AcceptPipe();
  connector.join();
  ASSERT_TRUE(channel.IsValid());
  ASSERT_TRUE(peer);
  const Texts names = TakeBoundNames();
  ASSERT_GE(names.size(), 2u);
  EXPECT_EQ(names[0], "tq.pipe:" + name + "_in");
  const auto own = [](const std::string& text) { return text.find("tq.pipe:") == 0; };
  EXPECT_EQ(std::count_if(names.begin(), names.end(), own), 2);
  EXPECT_EQ(channel->GetLocalAddress(), name + "_in");
  EXPECT_EQ(channel->GetRemoteAddress(), name + "_out");
  ASSERT_TRUE(peer->SendBytes(Pattern(10)));
  EXPECT_EQ(ReceiveBytes(*channel, 10), Pattern(10));
  EXPECT_EQ(SendBytes(*channel, Pattern(20)), 20);
  EXPECT_EQ(peer->ReceiveExactly(20), Pattern(20));
  EXPECT_EQ(log.Texts().back(), OutboundLine(name).substr(2));
  EXPECT_EQ(log.CountOfLevel(TQ_LOG_INFO), log.Lines().size());
  EXPECT_TRUE(WaitUntil([&] { return platform::WaitingPipes(name).empty(); }))
      << "one peer at a time";
}

TEST_F(AcceptPipe, WaitsTenSecondsOnTheFirstPipe) {
  FailCalls(SystemCall::POLL, 1);
  EXPECT_FALSE(detail::AcceptPipe());
  const std::vector<int64_t> limits = TakePollLimits();
  ASSERT_EQ(limits.size(), 1u);
  EXPECT_LE(limits[0], 10000000);
  EXPECT_GT(limits[0], 5000000);
  EXPECT_TRUE(log.Lines().empty()) << log.Dump();
  ExpectNothingLeft();
}

TEST_F(AcceptPipe, NobodyInTenSecondsIsNoChannelAndNoLine) {
  const auto start = steady_clock::now();
  EXPECT_FALSE(detail::AcceptPipe());
  EXPECT_GE(ElapsedMs(start), 10000);
  EXPECT_TRUE(log.Lines().empty()) << log.Dump();
  ExpectNothingLeft();
}

TEST_F(AcceptPipe, WaitsOnTheSecondPipeWithoutALimitAndTheFirstLineIsWrittenBefore) {
  std::thread acceptor([] { EXPECT_TRUE(detail::AcceptPipe()); });
  EXPECT_TRUE(WaitUntilItWaits());
  const platform::Handle inbound =
      platform::OpenPipe(name + "_in", platform::NO_HANDLE, DEFAULT_DEADLINE);
  EXPECT_NE(inbound, platform::NO_HANDLE);
  EXPECT_TRUE(WaitUntil([] {
    const std::vector<int64_t> limits = TakePollLimits();
    return std::find(limits.begin(), limits.end(), -1) != limits.end();
  }));
  EXPECT_EQ(log.Texts(), Texts{InboundLine(name).substr(2)});
  const platform::Handle outbound = platform::OpenPipe(name + "_out", inbound, DEFAULT_DEADLINE);
  EXPECT_NE(outbound, platform::NO_HANDLE);
  acceptor.join();
  EXPECT_EQ(log.Texts(), (Texts{InboundLine(name).substr(2), OutboundLine(name).substr(2)}));
  platform::CloseSocket(inbound);
  platform::CloseSocket(outbound);
}

TEST_F(AcceptPipe, FailureAtTheFirstPipeIsNoChannelAndNoLine) {
  FailCalls(SystemCall::ACCEPT, 1);
  EXPECT_FALSE(detail::AcceptPipe());
  EXPECT_TRUE(TakePollLimits().empty());
  EXPECT_TRUE(log.Lines().empty()) << log.Dump();
  ExpectNothingLeft();
}

TEST_F(AcceptPipe, FailureAtTheSecondPipeClosesBoth) {
  // Two find nobody, one takes the peer, and the fourth is that of the second pipe.
  FailCalls(SystemCall::ACCEPT, 1, 3);
  detail::ChannelRef channel;
  std::thread acceptor([&] { channel = detail::AcceptPipe(); });
  EXPECT_TRUE(WaitUntilItWaits());
  const platform::Handle inbound =
      platform::OpenPipe(name + "_in", platform::NO_HANDLE, DEFAULT_DEADLINE);
  EXPECT_NE(inbound, platform::NO_HANDLE);
  acceptor.join();
  EXPECT_FALSE(channel);
  EXPECT_EQ(FailedCalls(SystemCall::ACCEPT), 1);
  EXPECT_EQ(log.Texts(), Texts{InboundLine(name).substr(2)});
  platform::CloseSocket(inbound);
  ExpectNothingLeft();
}

TEST_F(AcceptPipe, NameThatIsTakenIsNoChannelAndNoLineAndNotTriedWithoutAPause) {
  for (const char* taken : {"_in", "_out"}) {
    const platform::Handle holder = platform::ListenPipe(name + taken);
    const auto start = steady_clock::now();
    EXPECT_FALSE(detail::AcceptPipe()) << taken;
    EXPECT_GE(ElapsedMs(start), 100);
    EXPECT_EQ(platform::OpenPipeEnds(), std::vector<platform::Handle>{holder});
    EXPECT_TRUE(TakePollLimits().empty());
    platform::CloseSocket(holder);
  }
  EXPECT_TRUE(log.Lines().empty()) << log.Dump();
}

}  // namespace
}  // namespace TQ::test

extern "C" void* __wrap_calloc(std::size_t count, std::size_t size) {
  using namespace TQ::test;
  if (size == sizeof(TQAPPImpl) && faults::TakeOne(g_refusedSessions)) return nullptr;
  return __real_calloc(count, size);
}
