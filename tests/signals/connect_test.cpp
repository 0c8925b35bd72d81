// Opening and closing sessions on the host's initiative.
#include <tq/application.h>

#include "frame/locks.h"
#include "session/application_registry.h"
#include "session/session.h"
#include "signals/signal_table.h"

#include <tq/tq.h>

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <chrono>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "support/free_port.h"
#include "support/log_recorder.h"
#include "support/raw_peer.h"
#include "support/session_host.h"
#include "support/transport.h"

namespace TQ::test {
namespace {

using detail::g_applications;
using detail::g_signals;
using detail::LockScope;
using detail::SessionRef;
using std::chrono::milliseconds;

const std::string NAME = "test:1/raw";

// What a raw peer makes of a connection, on a thread of its own.
class AcceptingPeer final {
 public:
  explicit AcceptingPeer(const std::string& name, const Bytes& authBlock = {},
                         const HandshakeOptions& options = {})
      : thread([this, name, authBlock, options] {
          if (auto accepted = listener.Accept()) {
            handshake = accepted->HandshakeAsAcceptor(name, authBlock, options);
            peer.emplace(std::move(*accepted));
          }
        }) {}
  ~AcceptingPeer() { Join(); }
  AcceptingPeer(const AcceptingPeer&) = delete;
  AcceptingPeer& operator=(const AcceptingPeer&) = delete;

  uint16_t Port() const { return listener.Port(); }
  RawPeer& Peer() {
    Join();
    return peer.value();
  }
  const HandshakeResult& Handshake() {
    Join();
    return handshake;
  }

 private:
  void Join() {
    if (thread.joinable()) {
      thread.join();
    }
  }

  RawListener listener{FreePort()};
  HandshakeResult handshake;
  std::optional<RawPeer> peer;
  std::thread thread;
};

// ---- connecting --------------------------------------------------------------------------------

TEST(Connect, GivesThePeersNameAndLeavesASessionThatWorksAtOnce) {
  SessionHost host;
  AcceptingPeer accepting(NAME);
  std::array<char, 300> name;
  name.fill('#');
  ASSERT_EQ(TQConnect(HostText(accepting.Port()).c_str(), accepting.Port(), name.data(),
                      name.size(), nullptr, 0),
            TQ_ERR_OK);
  EXPECT_STREQ(name.data(), NAME.c_str());
  EXPECT_EQ(name.back(), '\0') << "the rest of the buffer is cleared";
  EXPECT_EQ(TQNotify(name.data(), 7, {nullptr}, nullptr, nullptr), TQ_ERR_OK);
  const auto frame = accepting.Peer().ReadFrame();
  ASSERT_TRUE(frame) << accepting.Peer().Problem();
  EXPECT_EQ(frame->slotId, 7u);
}

TEST(Connect, WithoutANameBufferSucceedsAndTheListenerTellsTheName) {
  ListenerRecorder listeners;
  SessionHost host;
  AcceptingPeer accepting(NAME);
  ASSERT_EQ(TQConnect(HostText(accepting.Port()).c_str(), accepting.Port(), nullptr, 0, nullptr, 0),
            TQ_ERR_OK);
  ASSERT_TRUE(listeners.WaitForConnects(1));
  const std::string name = listeners.Connects()[0].applicationName;
  EXPECT_EQ(name, NAME);
  EXPECT_EQ(TQNotify(name.c_str(), 7, {nullptr}, nullptr, nullptr), TQ_ERR_OK);
  EXPECT_TRUE(accepting.Peer().ReadFrame());
}

TEST(Connect, LeavesTheSessionToItsThreadsAndTheRegistry) {
  SessionHost host;
  AcceptingPeer accepting(NAME);
  ASSERT_EQ(ConnectTo(accepting.Port()), TQ_ERR_OK);
  EXPECT_EQ(DEBUG_TQObjectCount().sessions, 1u);
  accepting.Peer().Close();
  EXPECT_TRUE(SessionHost::WaitForSessions(0));
}

TEST(ConnectOverTcp, WhereItCannotGoFailsWithoutALogLine) {
  LogRecorder log;
  std::array<char, 16> name;
  name.fill('#');
  const auto untouched = name;
  const auto fails = [&](const char* host, int32_t port) {
    EXPECT_EQ(TQConnect(host, port, name.data(), name.size(), nullptr, 0), TQ_ERR_FAILED)
        << host << ":" << port;
    EXPECT_EQ(name, untouched) << host << ":" << port;
  };
  fails("127.0.0.1", 0);
  fails("localhost", 4711);
  fails("", 4711);
  fails("127.0.0.1.1", 4711);
  EXPECT_EQ(DEBUG_TQObjectCount().sessions, 0u);
  for (const LogLine& line : log.Lines()) {
    // Of the sessions that were made and dropped, and nothing else.
    EXPECT_NE(line.text.find("TQAPPImpl::~TQAPPImpl"), std::string::npos) << line.text;
  }
}

TEST(Connect, ToAPortThatNobodyListensOnFails) {
  SessionHost host;
  std::array<char, 16> name;
  name.fill('#');
  const auto untouched = name;
  EXPECT_EQ(ConnectTo(FreePort(), name.data(), name.size()), TQ_ERR_FAILED);
  EXPECT_EQ(name, untouched);
  EXPECT_TRUE(SessionHost::WaitForSessions(0));
}

TEST(ConnectOverTcp, UsesTheLowSixteenBitsOfThePort) {
  SessionHost host;
  AcceptingPeer accepting(NAME);
  EXPECT_EQ(TQConnect("127.0.0.1", 0x10000 + accepting.Port(), nullptr, 0, nullptr, 0), TQ_ERR_OK);
}

TEST(Connect, ToAPeerThatIsConnectedAlreadyIsRejectedAndLeavesTheSessionAlone) {
  SessionHost host;
  AcceptingPeer first(NAME);
  ASSERT_EQ(ConnectTo(first.Port()), TQ_ERR_OK);
  AcceptingPeer second(NAME);
  EXPECT_EQ(ConnectTo(second.Port()), TQ_ERR_NAME_REJECTED);
  EXPECT_EQ(static_cast<int>(TQ_ERR_NAME_REJECTED), -7);
  EXPECT_TRUE(second.Peer().WaitClosed());
  EXPECT_TRUE(SessionHost::WaitForSessions(1));
  EXPECT_EQ(TQNotify(NAME.c_str(), 7, {nullptr}, nullptr, nullptr), TQ_ERR_OK);
  EXPECT_TRUE(first.Peer().ReadFrame());
}

TEST(Connect, ToAPeerThatClosesInsteadOfConfirmingIsRejected) {
  SessionHost host;
  HandshakeOptions options;
  options.stopAfterStep = 5;
  RawListener listener(FreePort());
  std::thread acceptor([&] {
    auto peer = listener.Accept();
    ASSERT_TRUE(peer);
    peer->HandshakeAsAcceptor(NAME, {}, options);
    peer->Close();
  });
  EXPECT_EQ(ConnectTo(listener.Port()), TQ_ERR_NAME_REJECTED);
  acceptor.join();
  EXPECT_TRUE(SessionHost::WaitForSessions(0));
}

TEST(Connect, ProvesTheAuthenticationBlockThatItIsGiven) {
  SessionHost host;
  const Bytes block = Pattern(256);
  AcceptingPeer accepting(NAME, block);
  EXPECT_EQ(TQConnect(HostText(accepting.Port()).c_str(), accepting.Port(), nullptr, 0,
                      block.data(), 256),
            TQ_ERR_OK);
  EXPECT_TRUE(accepting.Handshake().digestMatches);
}

TEST(Connect, WithMoreThan256BytesOfAuthenticationFails) {
  SessionHost host;
  const Bytes block = Pattern(257);
  AcceptingPeer accepting(NAME);
  EXPECT_EQ(TQConnect(HostText(accepting.Port()).c_str(), accepting.Port(), nullptr, 0,
                      block.data(), 257),
            TQ_ERR_FAILED);
  EXPECT_EQ(accepting.Handshake().stepsDone, 0);
}

TEST(Connect, OfAProcessThatHasNoNamePresentsTheEmptyName) {
  LogRecorder log;
  RawListener listener(FreePort());
  std::string presented = "?";
  std::thread acceptor([&] {
    auto peer = listener.Accept();
    ASSERT_TRUE(peer);
    const auto name = peer->ReadName();
    ASSERT_TRUE(name) << peer->Problem();
    presented = name->text;
    peer->Close();
  });
  EXPECT_EQ(ConnectTo(listener.Port()), TQ_ERR_FAILED);
  acceptor.join();
  EXPECT_EQ(presented, "");
  EXPECT_TRUE(SessionHost::WaitForSessions(0));
}

TEST(Connect, InAProcessThatIsNotInitializedWorksAndNobodyServesTheCalls) {
  LogRecorder log;
  {
    AcceptingPeer accepting(NAME);
    ASSERT_EQ(ConnectTo(accepting.Port()), TQ_ERR_OK);
    const ScopedSlot slot(7, [](const SlotCall&) {});
    accepting.Peer().SendRequest(1, RAW_CALL, 7);
    EXPECT_TRUE(accepting.Peer().StaysSilentFor(milliseconds(150)));
    EXPECT_EQ(slot.Calls(), 0u);
    // Its own calls work: replies need no dispatcher.
    CallInThread call(NAME, 9);
    const auto frame = accepting.Peer().ReadFrame();
    ASSERT_TRUE(frame) << accepting.Peer().Problem();
    accepting.Peer().SendReply(frame->id);
    EXPECT_TRUE(call.WaitReturned());
    EXPECT_NE(call.Result().impl, nullptr);
    TQDisconnect(NAME.c_str());
  }
  // The call that nobody has served is released with the library.
  EXPECT_TRUE(log.WaitForPrefix(TQ_LOG_INFO, "Sending thread finished for "));
  EXPECT_EQ(DEBUG_TQObjectCount().messages, 1u);
}

TEST(Connect, ToSeveralPeersAtOnceWorks) {
  SessionHost host;
  std::vector<std::thread> connectors;
  std::atomic<int> connected{0};
  constexpr int COUNT = 4;
  std::array<std::optional<AcceptingPeer>, COUNT> peers;
  for (int i = 0; i < COUNT; ++i) {
    peers[i].emplace("test:1/peer" + std::to_string(i));
  }
  for (auto& peer : peers) {
    connectors.emplace_back([&] { connected += ConnectTo(peer->Port()) == TQ_ERR_OK ? 1 : 0; });
  }
  for (auto& connector : connectors) {
    connector.join();
  }
  EXPECT_EQ(connected, COUNT);
  for (int i = 0; i < COUNT; ++i) {
    EXPECT_EQ(TQNotify(("test:1/peer" + std::to_string(i)).c_str(), 7, {nullptr}, nullptr, nullptr),
              TQ_ERR_OK);
    EXPECT_TRUE(peers[i]->Peer().ReadFrame());
  }
}

// ---- disconnecting -----------------------------------------------------------------------------

TEST(Disconnect, OfANameThatIsNotConnectedDoesNothing) {
  LogRecorder log;
  EXPECT_EQ(TQDisconnect("nowhere:1/nobody"), TQ_ERR_OK);
  EXPECT_EQ(TQDisconnect(""), TQ_ERR_OK);
  EXPECT_TRUE(log.Lines().empty()) << log.Dump();
}

TEST(Disconnect, LeavesASessionThatIsNotValidToFinish) {
  // It has no channel either: stopping it would be seen.
  g_applications.Set("stale:1/peer", SessionRef(new TQAPPImpl()));
  EXPECT_EQ(TQDisconnect("stale:1/peer"), TQ_ERR_OK);
  EXPECT_EQ(g_applications.Find("stale:1/peer")->StopRequested(), 0);
  g_applications.Erase("stale:1/peer");
}

TEST(Disconnect, ReturnsWhenTheReceivingThreadHasEnded) {
  ListenerRecorder listeners;
  SessionHost host;
  TQRegisterSignal("ticks");
  RawPeer peer = host.Admit(NAME);
  peer.SendRequest(1, RAW_NOTIFY, RAW_CONNECT_SIGNAL,
                   RawList().String("signalName", "ticks").Int32("slotName", 5));
  peer.SendRequest(2, RAW_CALL, 0x5EED);
  ASSERT_TRUE(peer.ReadFrame());
  const SessionRef session = g_applications.Find(NAME.c_str());

  EXPECT_EQ(TQDisconnect(NAME.c_str()), TQ_ERR_OK);

  EXPECT_EQ(listeners.Disconnects().size(), 1u);
  EXPECT_EQ(host.Log().CountOfPrefix("Receiving thread finished for " + NAME), 1u);
  EXPECT_EQ(host.Log().CountOf("Local shutdown: \"" + NAME + "\" stopped"), 1u);
  EXPECT_FALSE(session.IsValid());
  {
    LockScope held(g_signals.lock);
    EXPECT_TRUE(g_signals.Find("ticks")->empty());
  }
  // Whether or not its entry is still there, it cannot be called any more.
  EXPECT_EQ(TQNotify(NAME.c_str(), 7, {nullptr}, nullptr, nullptr), TQ_ERR_NO_SESSION);
  EXPECT_EQ(TQCall(NAME.c_str(), 7, {nullptr}).impl, nullptr);
}

TEST(Disconnect, SendsNoWordOfGoodbye) {
  SessionHost host;
  RawPeer peer = host.Admit(NAME);
  EXPECT_EQ(TQDisconnect(NAME.c_str()), TQ_ERR_OK);
  EXPECT_EQ(peer.ReceiveUntilClosed(), Bytes{});
}

TEST(Disconnect, ASecondTimeFindsNothingToDo) {
  SessionHost host;
  RawPeer peer = host.Admit(NAME);
  EXPECT_EQ(TQDisconnect(NAME.c_str()), TQ_ERR_OK);
  EXPECT_EQ(TQDisconnect(NAME.c_str()), TQ_ERR_OK);
  ASSERT_TRUE(host.WaitForEnd(NAME));
  EXPECT_EQ(TQDisconnect(NAME.c_str()), TQ_ERR_OK);
  EXPECT_EQ(host.Log().CountOf("Local shutdown: \"" + NAME + "\" stopped"), 1u);
}

TEST(Disconnect, LeavesOtherSessionsAlone) {
  SessionHost host;
  RawPeer peer = host.Admit(NAME);
  RawPeer other = host.Admit("test:1/other");
  EXPECT_EQ(TQDisconnect(NAME.c_str()), TQ_ERR_OK);
  EXPECT_EQ(TQNotify("test:1/other", 7, {nullptr}, nullptr, nullptr), TQ_ERR_OK);
  EXPECT_TRUE(other.ReadFrame());
}

// Disconnects on another thread while a callback holds up the session's receiving thread. No lock
// of the library may be held meanwhile.
void ExpectDisconnectToWaitFor(Gate& callbackRuns, Gate& mayReturn) {
  Gate returned;
  std::thread disconnector([&] {
    EXPECT_EQ(TQDisconnect(NAME.c_str()), TQ_ERR_OK);
    returned.Open();
  });
  EXPECT_TRUE(callbackRuns.Wait());
  EXPECT_FALSE(returned.Wait(milliseconds(150)));
  TQRegisterSlot(
      99, [](_tag_HTQPARAMLIST, _tag_HTQPARAMLIST, const TQSlotCallInfo*) { return 0; }, nullptr);
  TQUnregisterSlot(99);
  TQRegisterSignal("tocks");
  EXPECT_EQ(TQNotify("nowhere:1/nobody", 1, {nullptr}, nullptr, nullptr), TQ_ERR_NO_SESSION);
  mayReturn.Open();
  EXPECT_TRUE(returned.Wait());
  disconnector.join();
}

TEST(Disconnect, WaitsForARunningDisconnectListenerWithoutALock) {
  Gate running;
  Gate mayReturn;
  ListenerRecorder listeners;
  listeners.onDisconnect = [&](const ListenerRecorder::DisconnectCall&) {
    running.Open();
    EXPECT_TRUE(mayReturn.Wait());
  };
  SessionHost host;
  RawPeer peer = host.Admit(NAME);
  ExpectDisconnectToWaitFor(running, mayReturn);
}

TEST(Disconnect, WaitsForARunningCompletionCallbackWithoutALock) {
  Gate running;
  Gate mayReturn;
  CompletionRecorder done;
  done.hook = [&](const CompletionRecorder::Call&) {
    running.Open();
    EXPECT_TRUE(mayReturn.Wait());
  };
  SessionHost host;
  RawPeer peer = host.Admit(NAME);
  EXPECT_EQ(TQNotify(NAME.c_str(), 7, {nullptr}, done.Callback(), &done), TQ_ERR_OK);
  ASSERT_TRUE(peer.ReadFrame());
  peer.SendReply(1);
  ASSERT_TRUE(running.Wait());
  ExpectDisconnectToWaitFor(running, mayReturn);
}

TEST(Disconnect, InASlotEndsTheCallersSessionAndTheReplyIsDropped) {
  SessionHost host;
  Gate left;
  const ScopedSlot slot(5, [&](const SlotCall& call) {
    EXPECT_EQ(TQDisconnect(call.applicationName.c_str()), TQ_ERR_OK);
    EXPECT_EQ(TQNotify(call.applicationName.c_str(), 7, {nullptr}, nullptr, nullptr),
              TQ_ERR_NO_SESSION);
    left.Open();
  });
  RawPeer peer = host.Admit(NAME);
  peer.SendRequest(1, RAW_CALL, 5);
  ASSERT_TRUE(left.Wait());
  EXPECT_EQ(peer.ReceiveUntilClosed(), Bytes{}) << "no reply";
  EXPECT_TRUE(SessionHost::WaitForSessions(0));
}

TEST(Disconnect, InTheConnectListenerReturnsAtOnceAndTheSessionEndsAfterIt) {
  std::atomic<bool> returned{false};
  ListenerRecorder listeners;
  listeners.onConnect = [&](const ListenerRecorder::ConnectCall& call) {
    EXPECT_EQ(TQDisconnect(call.applicationName.c_str()), TQ_ERR_OK);
    returned = true;
  };
  SessionHost host;
  auto peer = RawPeer::Connect(host.Port());
  ASSERT_TRUE(peer);
  ASSERT_TRUE(peer->HandshakeAsConnector(NAME).Completed());
  EXPECT_EQ(peer->ReceiveUntilClosed(), Bytes{});
  EXPECT_TRUE(returned);
  ASSERT_TRUE(host.WaitForEnd(NAME));
  EXPECT_EQ(host.Log().CountOf("Local shutdown: \"" + NAME + "\" stopped"), 1u);
  EXPECT_TRUE(SessionHost::WaitForSessions(0));
}

TEST(Disconnect, InTheDisconnectListenerReturnsAtOnce) {
  ListenerRecorder listeners;
  std::atomic<bool> returned{false};
  listeners.onDisconnect = [&](const ListenerRecorder::DisconnectCall& call) {
    EXPECT_EQ(TQDisconnect(call.applicationName.c_str()), TQ_ERR_OK);
    returned = true;
  };
  SessionHost host;
  { RawPeer peer = host.Admit(NAME); }
  ASSERT_TRUE(host.WaitForEnd(NAME));
  EXPECT_TRUE(returned);
  EXPECT_EQ(host.Log().CountOf("Remote disconnect: \"" + NAME + "\" stopped"), 1u);
  EXPECT_TRUE(SessionHost::WaitForSessions(0));
}

TEST(Disconnect, OfSeveralThreadsAtOnceTouchesNothingThatIsGone) {
  SessionHost host;
  for (int round = 0; round < 20; ++round) {
    const std::string name = "test:1/raw" + std::to_string(round);
    RawPeer peer = host.Admit(name);
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; ++i) {
      threads.emplace_back([&] {
        try {
          EXPECT_EQ(TQDisconnect(name.c_str()), TQ_ERR_OK);
        } catch (const std::system_error&) {
          // Two that come to one join may not both have it.
        }
      });
    }
    for (auto& thread : threads) {
      thread.join();
    }
    EXPECT_TRUE(peer.WaitClosed());
  }
  EXPECT_TRUE(SessionHost::WaitForSessions(0));
}

}  // namespace
}  // namespace TQ::test
