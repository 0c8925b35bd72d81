// What a session is like over pipes where it is not as over sockets, and which listeners a host
// gets by the forms of its texts.
#include <gtest/gtest.h>
#include <tq/tq.h>

#include <array>
#include <atomic>
#include <chrono>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "frame/settings.h"
#include "session/application_registry.h"
#include "session/session.h"
#include "support/child_process.h"
#include "support/free_port.h"
#include "support/session_host.h"
#include "support/transport.h"

namespace TQ::test {
namespace {

using detail::SessionRef;
using std::chrono::milliseconds;
using Lines = std::vector<std::string>;

const std::string NAME = "raw.host:4711/peer";
constexpr uint32_t ADD_ONE = 7;

SessionRef FindSession(const std::string& name) {
  return detail::g_applications.Find(name.c_str());
}

void AddOne(const SlotCall& call) {
  TQSetInt32Value(call.result, "x", TQGetInt32Value(call.params, "n") + 1);
}

/// True if the peer's call of ADD_ONE is answered.
bool IsServed(RawPeer& peer) {
  if (!peer.SendRequest(1, RAW_CALL, ADD_ONE, RawList().Int32("n", 4))) return false;
  const auto reply = peer.ReadFrame();
  return reply && reply->list == RawList().Int32("x", 5);
}

// ---- listeners ---------------------------------------------------------------------------------

TEST(ListenersOverPipes, OfAPipeHostAreNoneForSockets) {
  SessionHost host;
  ScopedSlot slot(ADD_ONE, &AddOne);
  EXPECT_EQ(host.Log().CountOf("Socket connection listener stopped. No socket listeners defined"),
            1u);
  EXPECT_EQ(platform::Connect(host.Port(), DEFAULT_DEADLINE), platform::NO_HANDLE);
  RawPeer peer = host.Admit(NAME);
  EXPECT_TRUE(IsServed(peer));
}

// Connects as it is told and calls ADD_ONE.
TQ_TEST_ROLE(connectAndCall) {
  EXPECT_EQ(TQInitialize(args.at(0).c_str(), 0, nullptr), TQ_ERR_OK);
  std::array<char, 256> peer{};
  EXPECT_EQ(
      TQConnect(args.at(1).c_str(), std::stoi(args.at(2)), peer.data(), peer.size(), nullptr, 0),
      TQ_ERR_OK);
  ScopedList list;
  list.Int32("n", 4);
  const _tag_HTQPARAMLIST result = TQCall(peer.data(), ADD_ONE, list.Get());
  Say("x=" + std::to_string(TQGetInt32Value(result, "x")));
  TQCloseHandle(result);
  AwaitCommand("end");
  TQShutdown();
  return 0;
}

/// This process with a listener on pipes and one on a port.
class TwoListeners {
 public:
  TwoListeners() {
    EXPECT_EQ(TQInitializeEx(HostText(port).c_str(), "both", port, nullptr), TQ_ERR_OK);
    EXPECT_EQ(TQStartListeners(nullptr, "127.0.0.1", port), TQ_ERR_OK);
    EXPECT_TRUE(log.WaitForPrefix(TQ_LOG_INFO, "listening for incoming connection on :"));
    EXPECT_TRUE(log.WaitFor(TQ_LOG_INFO, "ConnThread Pipe Startup"));
  }

  ~TwoListeners() {
    ShutdownWhile([this] {
      (void)RawPeer::TryConnect(port);
      platform::CloseSocket(platform::Connect(port, DEFAULT_DEADLINE));
    });
    EXPECT_TRUE(SessionHost::WaitForSessions(0));
  }

  TwoListeners(const TwoListeners&) = delete;
  TwoListeners& operator=(const TwoListeners&) = delete;

  uint16_t Port() const { return port; }

  /// Connected, without a handshake, and taken by its listener.
  RawPeer PeerOverPipes() const {
    auto peer = RawPeer::Connect(port);
    EXPECT_TRUE(log.WaitFor(TQ_LOG_INFO,
                            "Outbound pipe " + PipePath(PipeName(port) + "_out") + " connected"));
    return peer ? std::move(*peer) : RawPeer(platform::NO_HANDLE);
  }
  RawPeer PeerOverTcp() const {
    RawPeer peer(platform::Connect(port, DEFAULT_DEADLINE));
    EXPECT_TRUE(log.WaitFor(TQ_LOG_INFO, "ConnectionThread. Starting new application"));
    return peer;
  }

 private:
  const uint16_t port = FreePort();
  LogRecorder log;
};

TEST(ListenersOverPipes, AreJoinedByOneForSocketsWhenAnAddressFollows) {
  ListenerRecorder listeners;
  const TwoListeners library;
  const uint16_t port = library.Port();
  ScopedSlot slot(ADD_ONE, &AddOne);
  ChildProcess overPipes("connectAndCall", {"pipes", HostText(port), "0"});
  EXPECT_TRUE(overPipes.ExpectLine("x=5"));
  ChildProcess overTcp("connectAndCall", {"sockets", "127.0.0.1", std::to_string(port)});
  EXPECT_TRUE(overTcp.ExpectLine("x=5"));
  ASSERT_TRUE(listeners.WaitForConnects(2));
  const auto connects = listeners.Connects();
  EXPECT_EQ(connects[0].application, "pipes");
  EXPECT_EQ(connects[0].localAddress, PipeName(port) + "_in");
  EXPECT_EQ(connects[0].remoteAddress, PipeName(port) + "_out");
  EXPECT_EQ(connects[1].application, "sockets");
  EXPECT_EQ(connects[1].localAddress, "127.0.0.1:" + std::to_string(port));
  for (ChildProcess* each : {&overPipes, &overTcp}) {
    each->WriteLine("end");
    EXPECT_TRUE(each->ExpectSuccess());
  }
}

/// Takes the other peer through its whole handshake and a call while `silent` keeps its listener in
/// a handshake, which then goes its way, too.
void ExpectTheOtherIsServedFirst(RawPeer silent, RawPeer other) {
  ScopedSlot slot(ADD_ONE, &AddOne);
  for (RawPeer* each : {&other, &silent}) {
    const HandshakeResult handshake =
        each->HandshakeAsConnector(each == &other ? "raw.host:1/other" : "raw.host:1/silent");
    EXPECT_TRUE(handshake.Completed()) << handshake.failure;
    EXPECT_TRUE(IsServed(*each)) << each->Problem();
  }
}

TEST(ListenersOverPipes, ServeAPeerOnThePortDuringAHandshakeOnThePipes) {
  const TwoListeners library;
  RawPeer silent = library.PeerOverPipes();
  ExpectTheOtherIsServedFirst(std::move(silent), library.PeerOverTcp());
}

TEST(ListenersOverPipes, ServeAPeerOnThePipesDuringAHandshakeOnThePort) {
  const TwoListeners library;
  RawPeer silent = library.PeerOverTcp();
  ExpectTheOtherIsServedFirst(std::move(silent), library.PeerOverPipes());
}

TEST(ListenersOverPipes, RefuseAPeerAboveTheLimitWithoutAWord) {
  SessionHost host;
  _tag_TQLIMITS record{};
  record.MAX_CONNECTIONS = 1;
  detail::limits.Override(record);
  RawPeer first = host.Admit("raw.host:1/first");
  RawPeer second = host.Admit("raw.host:1/second");  // refused are those above the limit
  host.Log().Clear();
  auto third = RawPeer::Connect(host.Port());
  ASSERT_TRUE(third);
  EXPECT_EQ(third->ReceiveUntilClosed(), Bytes());
  for (const std::string& text : host.Log().Texts()) {
    EXPECT_NE(text.find("bound pipe "), std::string::npos) << text;
  }
  EXPECT_EQ(host.Log().CountOf("Outbound pipe " + PipePath(PipeName(host.Port()) + "_out") +
                               " connected"),
            1u);
}

/// A peer that opens the first pipe of the host and the second when it is told, which keeps the
/// listener until then.
class HesitantPeer {
 public:
  explicit HesitantPeer(const SessionHost& host) : pipe(PipeName(host.Port())) {
    EXPECT_TRUE(WaitUntil([&] {
      first = platform::OpenPipe(pipe + "_in", platform::NO_HANDLE, DEFAULT_DEADLINE);
      return first != platform::NO_HANDLE;
    }));
  }

  void OpenTheOtherAndGo() {
    const auto second = platform::OpenPipe(pipe + "_out", first, DEFAULT_DEADLINE);
    EXPECT_NE(second, platform::NO_HANDLE);
    platform::CloseSocket(first);
    platform::CloseSocket(second);
  }

 private:
  const std::string pipe;
  platform::Handle first = platform::NO_HANDLE;
};

TEST(ListenersOverPipes, WaitForAPeerThatHasOpenedOnePipeEvenInAShutdown) {
  SessionHost host;
  HesitantPeer hesitant(host);
  Gate over;
  std::thread shutdown([&] {
    host.Shutdown();
    over.Open();
  });
  EXPECT_TRUE(WaitUntil([] { return detail::StopAllRequested(); }));
  EXPECT_FALSE(over.Wait(milliseconds{300}));
  hesitant.OpenTheOtherAndGo();
  EXPECT_TRUE(over.Wait());
  shutdown.join();
}

// ---- connecting --------------------------------------------------------------------------------

TEST(ConnectOverPipes, IgnoresThePort) {
  SessionHost host;
  for (const int32_t port : {0, 1, -1, 0x10000}) {
    RawListener listener(FreePort());
    std::optional<RawPeer> peer;
    HandshakeResult handshake;
    std::thread acceptor([&] {
      peer = listener.Accept();
      if (peer) handshake = peer->HandshakeAsAcceptor("raw.host:1/" + std::to_string(port));
    });
    EXPECT_EQ(TQConnect(HostText(listener.Port()).c_str(), port, nullptr, 0, nullptr, 0), TQ_ERR_OK)
        << port;
    acceptor.join();
    EXPECT_TRUE(handshake.Completed()) << handshake.failure;
  }
}

// ---- reading -----------------------------------------------------------------------------------

// The receiving thread waits for bytes and looks at the stop once a second; what comes before that
// is read. Which of the two comes first is not up to the test, so it has several attempts.
TEST(ReceivingThreadOverPipes, ReadsAFrameThatComesBetweenTheStopAndItsNextLook) {
  SessionHost host;
  ScopedSlot slot(ADD_ONE, &AddOne);
  for (int attempt = 0; attempt < 10 && slot.Calls() == 0; ++attempt) {
    const std::string name = NAME + std::to_string(attempt);
    RawPeer peer = host.Admit(name);
    const SessionRef session = FindSession(name);
    ASSERT_TRUE(session);
    std::thread disconnect([&] { TQDisconnect(name.c_str()); });
    EXPECT_TRUE(WaitUntil([&] { return session->StopRequested().load() != 0; }));
    EXPECT_TRUE(peer.SendRequest(1, RAW_NOTIFY, ADD_ONE));
    disconnect.join();
    ASSERT_TRUE(host.WaitForEnd(name));
    EXPECT_EQ(host.Log().CountOf("Local shutdown: \"" + name + "\" stopped"), 1u);
    EXPECT_TRUE(WaitUntil([] { return DEBUG_TQObjectCount().messages == 0; }));
  }
  EXPECT_EQ(slot.Calls(), 1u);
}

/// Waits until the receiving thread of the first peer is in its first read, the sixth with those of
/// the handshake.
bool WaitForFirstRead() {
  return WaitUntil([] { return DEBUG_TQObjectCount().readCalls == 6; });
}

// A read looks at the stop of its session alone, and not at that of the library.
TEST(ReceivingThreadOverPipes, DoesNotNoticeAStopOfTheLibraryThatNobodyWakesItFor) {
  SessionHost host;
  RawPeer peer = host.Admit(NAME);
  ASSERT_TRUE(WaitForFirstRead());
  detail::stopAll = 1;
  ASSERT_TRUE(host.WaitForSendingEnd(NAME));
  EXPECT_TRUE(peer.StaysSilentFor(milliseconds{1500}));
  EXPECT_EQ(host.Log().CountOfPrefix("Receiving thread finished for "), 0u);
  peer.Close();
  ASSERT_TRUE(host.WaitForReceivingEnd(NAME));
  EXPECT_EQ(host.Log().CountOf("Global shutdown: \"" + NAME + "\" stopped"), 1u);
}

// While the shutdown waits for the listener, the sending thread takes the session out of the
// registry.
TEST(ReceivingThreadOverPipes, IsStoppedByAShutdownThatItsSendingThreadHasComeBefore) {
  SessionHost host;
  RawPeer peer = host.Admit(NAME);
  ASSERT_TRUE(WaitForFirstRead());
  HesitantPeer hesitant(host);
  std::thread shutdown([&] { host.Shutdown(); });
  EXPECT_TRUE(host.WaitForSendingEnd(NAME));
  EXPECT_EQ(host.Log().CountOfPrefix("Receiving thread finished for "), 0u);
  hesitant.OpenTheOtherAndGo();
  shutdown.join();
  EXPECT_EQ(host.Log().CountOf("Global shutdown: \"" + NAME + "\" stopped"), 1u);
  EXPECT_EQ(host.Log().CountOfPrefix("Receiving thread finished for "), 1u);
  EXPECT_TRUE(peer.WaitClosed());
}

TEST(ReceivingThreadOverPipes, GoesOnReadingWhenTheSendingThreadHasEndedFirst) {
  SessionHost host;
  ScopedSlot slot(ADD_ONE, &AddOne);
  RawPeer peer = host.Admit(NAME);
  const SessionRef session = FindSession(NAME);
  peer.CloseReadPipe();
  CallInThread call(NAME, 9);
  ASSERT_TRUE(call.WaitReturned());
  EXPECT_NE(call.Result().impl, nullptr);
  EXPECT_EQ(TQGetParamCount(call.Result()), 0u);
  ASSERT_TRUE(host.WaitForSendingEnd(NAME));
  EXPECT_FALSE(FindSession(NAME));
  EXPECT_EQ(host.Log().CountOfPrefix("Remote disconnect: "), 0u);
  EXPECT_TRUE(session->CheckValid());
  // Calls are dispatched, and their replies stay in a queue that no thread serves any more.
  ASSERT_TRUE(peer.SendRequest(1, RAW_CALL, ADD_ONE));
  ASSERT_TRUE(peer.SendRequest(2, RAW_CALL, ADD_ONE));
  ASSERT_TRUE(WaitUntil([&] { return slot.Calls() == 2; }));
  ASSERT_TRUE(WaitUntil([] { return DEBUG_TQObjectCount().messages == 2; }));
  peer.Close();
  ASSERT_TRUE(host.WaitForReceivingEnd(NAME));
  EXPECT_EQ(host.Log().CountOf("Remote disconnect: \"" + NAME + "\" stopped"), 1u);
  // The two replies hold the session; they must not hold it beyond this test.
  session->Outgoing().ReleaseAll();
}

// ---- writing -----------------------------------------------------------------------------------

/// A session whose sending thread stands in the middle of a frame, since its peer does not read.
struct HeldWrite {
  explicit HeldWrite(bool wantsReply = true) {
    SessionHost::SetIoTimeout(SHORT_WRITES);
    value = Filled(MORE_THAN_BUFFERS, 1);
    big.Binary("b", value);
    const auto callback = wantsReply ? done.Callback() : nullptr;
    EXPECT_EQ(TQNotify(NAME.c_str(), 9, big.Get(), callback, &done), TQ_ERR_OK);
    EXPECT_EQ(peer.ReceiveExactly(20),
              RequestHead(1, wantsReply ? RAW_CALL : RAW_NOTIFY, 9, TQGetHandleSize(big.Get()), 0));
  }

  bool ReadRest() {
    return peer.ReceiveExactly(TQGetHandleSize(big.Get())) == RawList().Binary("b", value).Block();
  }

  CompletionRecorder done;
  SessionHost host;
  RawPeer peer = host.Admit(NAME);
  Bytes value;
  ScopedList big;
};

TEST(SendingThreadOverPipes, WritesForAsLongAsItsPeerTakes) {
  HeldWrite held;
  // Several times what a write may take on a socket.
  EXPECT_FALSE(
      held.host.Log().WaitForPrefix(TQ_LOG_INFO, "Removing application ", milliseconds{500}));
  EXPECT_EQ(held.done.Count(), 0u);
  ASSERT_TRUE(held.ReadRest()) << held.peer.Problem();
  ASSERT_TRUE(held.peer.SendReply(1, RawList().Int32("x", 5)));
  ASSERT_TRUE(held.done.WaitForCount(1));
  EXPECT_EQ(held.done.Calls()[0].resultX, 5u);
}

TEST(SendingThreadOverPipes, IsNotWaitedForByADisconnect) {
  HeldWrite held;
  const SessionRef session = FindSession(NAME);
  EXPECT_EQ(TQDisconnect(NAME.c_str()), TQ_ERR_OK);
  EXPECT_EQ(held.host.Log().CountOf("Local shutdown: \"" + NAME + "\" stopped"), 1u);
  EXPECT_EQ(held.host.Log().CountOfPrefix("Removing application "), 0u);
  EXPECT_EQ(detail::g_applications.Size(), 1u) << "its entry goes with the end of the write";
  ASSERT_TRUE(held.ReadRest()) << held.peer.Problem();
  ASSERT_TRUE(held.host.WaitForEnd(NAME));
  EXPECT_EQ(detail::g_applications.Size(), 0u);
  ASSERT_EQ(held.done.Count(), 1u);
  EXPECT_TRUE(held.done.Calls()[0].resultIsNull);
  session->Awaiting().Clear();
}

TEST(SendingThreadOverPipes, HoldsUpAShutdownUntilItsPeerReadsOrGoes) {
  HeldWrite held(false);
  Gate over;
  std::thread shutdown([&] {
    held.host.Shutdown();
    over.Open();
  });
  ASSERT_TRUE(held.host.WaitForReceivingEnd(NAME));
  EXPECT_FALSE(over.Wait(milliseconds{500}));
  held.peer.Close();
  EXPECT_TRUE(over.Wait());
  shutdown.join();
}

}  // namespace
}  // namespace TQ::test
