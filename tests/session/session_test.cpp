// The session object: its life, its two threads, its place in the registry, and who may end it.
#include "session/session.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <tq/tq.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <memory>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "frame/settings.h"
#include "session/application_registry.h"
#include "support/bytes.h"
#include "support/channel_ends.h"
#include "support/child_process.h"
#include "support/free_port.h"
#include "support/host_calls.h"
#include "support/listener_recorder.h"
#include "support/log_gate.h"
#include "support/log_recorder.h"
#include "support/loopback_pair.h"
#include "support/process_info.h"
#include "support/raw_peer.h"
#include "support/scripted_channel.h"
#include "support/scripted_handshake.h"
#include "support/test_message.h"
#include "support/thread_faults.h"
#include "support/transport.h"
#include "support/wait_until.h"
#include "transport/socket_channel.h"

namespace {

// No thread can be let go any more.
std::atomic<bool> g_detachFails{false};

}  // namespace

// Stands before the system's own, so that a test can let it fail at will.
extern "C" int pthread_detach(pthread_t thread) noexcept {
  using Detach = int (*)(pthread_t);
  static const auto detach = reinterpret_cast<Detach>(dlsym(RTLD_NEXT, "pthread_detach"));
  return g_detachFails ? EINVAL : detach(thread);
}

namespace TQ::test {
namespace {

using std::chrono::milliseconds;

using detail::ChannelRef;
using detail::g_applications;
using detail::SessionRef;
using Texts = std::vector<std::string>;

constexpr const char* PEER_NAME = "there:1/peer";
const std::string CONNECT_CALL = "connect script:local script:remote there:1/peer there 1 peer";
const std::string DISCONNECT_CALL = "disconnect there:1/peer there 1 peer";
const std::string SENDING_FINISHED =
    "Sending thread finished for there:1/peer:script:local<->script:remote";
const std::string RECEIVING_FINISHED =
    "Receiving thread finished for there:1/peer:script:local<->script:remote";

uint32_t SessionsAlive() { return DEBUG_TQObjectCount().sessions; }

SessionRef NewSession() { return SessionRef(new TQAPPImpl()); }

class SessionTest : public testing::Test {
 protected:
  SessionTest() {
    std::thread([] {}).join();
    threadsBefore = ThreadCount();
  }

  ~SessionTest() override {
    EXPECT_TRUE(WaitUntil([] { return SessionsAlive() == 0; })) << log.Dump();
    EXPECT_TRUE(ThreadsEnded());
  }

  bool ThreadsEnded(int others = 0) const {
    return WaitUntil([&] { return ThreadCount() == threadsBefore + others; });
  }

  Texts LinesOf(std::thread::id thread) const {
    Texts lines;
    for (const LogLine& line : log.Lines()) {
      if (line.thread == thread) {
        lines.push_back(std::to_string(line.level) + " " + line.text);
      }
    }
    return lines;
  }

  Texts CallerLog() const { return LinesOf(std::this_thread::get_id()); }

  /// The thread that has logged this line; none if nobody has.
  std::thread::id ThreadOf(const std::string& text) const {
    for (const LogLine& line : log.Lines()) {
      if (line.text == text) return line.thread;
    }
    return {};
  }

  LogRecorder log;
  int threadsBefore = 0;
};

// ---- made and destroyed ------------------------------------------------------------------------

class Session : public SessionTest {};

TEST_F(Session, IsCountedAndNeitherNamedNorValidWhenNew) {
  const SessionRef session = NewSession();
  EXPECT_EQ(SessionsAlive(), 1u);
  EXPECT_EQ(session->Name(), "");
  EXPECT_FALSE(session->CheckValid());
  EXPECT_FALSE(session.IsValid());
  EXPECT_FALSE(session->Channel());
  EXPECT_EQ(session->StopRequested(), 0);
  EXPECT_FALSE(session->Outgoing().Pop(0));
  EXPECT_FALSE(session->Awaiting().Take(1));
  EXPECT_EQ(ThreadCount(), threadsBefore);
  EXPECT_TRUE(log.Lines().empty());
}

TEST_F(Session, StartsInZeroedStorage) {
  // What is freed here is dirty, so that storage taken again would show it.
  for (int i = 0; i < 10; ++i) {
    void* dirty = TQAPPImpl::operator new(sizeof(TQAPPImpl));
    std::memset(dirty, 0xA5, sizeof(TQAPPImpl));
    TQAPPImpl::operator delete(dirty);
    auto* storage = static_cast<uint8_t*>(TQAPPImpl::operator new(sizeof(TQAPPImpl)));
    ASSERT_NE(storage, nullptr);
    EXPECT_TRUE(
        std::all_of(storage, storage + sizeof(TQAPPImpl), [](uint8_t b) { return b == 0; }));
    TQAPPImpl::operator delete(storage);
  }
}

TEST_F(Session, LogsItsEndWithoutAddressesWhenItHasNoChannel) {
  NewSession();
  EXPECT_EQ(CallerLog(), (Texts{"8 Destroying TQAPPImpl::~TQAPPImpl():<->",
                                "8 Destroyed TQAPPImpl::~TQAPPImpl():<->"}));
  EXPECT_EQ(SessionsAlive(), 0u);
}

TEST_F(Session, LogsItsEndWithoutANameWhenItWasRefused) {
  auto session = NewSession();
  EXPECT_FALSE(session->AcceptHandshake(ChannelRef(new ScriptedChannel())));
  ASSERT_TRUE(ThreadsEnded());
  log.Clear();
  session.Reset();
  EXPECT_EQ(CallerLog(),
            (Texts{"8 Destroying TQAPPImpl::~TQAPPImpl():script:local<->script:remote",
                   "8 Destroyed TQAPPImpl::~TQAPPImpl():script:local<->script:remote"}));
}

TEST_F(Session, LogsItsEndWithItsNameWhenItWasAdmitted) {
  AdmittedSession peer(PEER_NAME);
  peer.channel->HangUp();
  ASSERT_TRUE(ThreadsEnded());
  log.Clear();
  peer.session.Reset();
  EXPECT_EQ(
      CallerLog(),
      (Texts{"8 Destroying TQAPPImpl::~TQAPPImpl(there:1/peer):script:local<->script:remote",
             "8 Destroyed TQAPPImpl::~TQAPPImpl(there:1/peer):script:local<->script:remote"}));
}

TEST_F(Session, LogsItsEndWithoutAddressesWhenItsChannelIsNotValidAnyMore) {
  AdmittedSession peer(PEER_NAME);
  peer.channel->HangUp();
  ASSERT_TRUE(ThreadsEnded());
  peer.channel->SetValid(false);
  log.Clear();
  peer.session.Reset();
  EXPECT_EQ(CallerLog(), (Texts{"8 Destroying TQAPPImpl::~TQAPPImpl(there:1/peer):<->",
                                "8 Destroyed TQAPPImpl::~TQAPPImpl(there:1/peer):<->"}));
}

TEST_F(Session, ClosesItsChannelLast) {
  LoopbackPair pair;
  const std::string addresses = pair.NearAddress() + "<->" + pair.FarAddress();
  RawPeer peer = pair.TakeFarAsPeer();
  const auto socket = pair.TakeNear();
  auto session = NewSession();
  peer.ShutdownWrite();
  EXPECT_FALSE(session->AcceptHandshake(ChannelRef(new SocketChannel(socket))));
  ASSERT_TRUE(ThreadsEnded());
  EXPECT_TRUE(peer.StaysSilentFor(milliseconds{50}));
  log.Clear();
  session.Reset();
  const std::string number = std::to_string(socket);
  EXPECT_EQ(CallerLog(), (Texts{"8 Destroying TQAPPImpl::~TQAPPImpl():" + addresses,
                                "8 Destroyed TQAPPImpl::~TQAPPImpl():" + addresses,
                                "8 Closing socket channel(" + number + ") " + addresses,
                                "8 Socket channel has been closed " + number}));
  EXPECT_TRUE(peer.WaitClosed());
}

TEST_F(Session, CountsItselfOutBetweenItsTwoLastLines) {
  static std::vector<uint32_t> counts;
  TQSetLogLevel(ALL_LOG_LEVELS, 0,
                [](uint32_t, int32_t, const char*) { counts.push_back(SessionsAlive()); });
  NewSession();
  EXPECT_EQ(counts, (std::vector<uint32_t>{1, 0}));
}

TEST_F(Session, ReleasesAwaitingRequestsBeforeAndQueuedMessagesAfterItsLastLine) {
  static TestMessage::Events events;
  static std::vector<size_t> destroyed;
  auto session = NewSession();
  session->Awaiting().Insert(TestMessage::Make(1, &events));
  session->Awaiting().Insert(TestMessage::Make(2, &events));
  session->Outgoing().Push(TestMessage::Make(3, &events));
  TQSetLogLevel(ALL_LOG_LEVELS, 0, [](uint32_t, int32_t, const char*) {
    destroyed.push_back(events.destroyed.size());
  });
  session.Reset();
  // At the first line nothing, at the last one the two that were awaited.
  EXPECT_EQ(destroyed, (std::vector<size_t>{0, 2}));
  EXPECT_EQ(events.destroyed.size(), 3u);
  EXPECT_EQ(events.destroyed.back(), 3u);
  EXPECT_TRUE(events.completed.empty());
  EXPECT_TRUE(events.cancelled.empty());
}

TEST_F(Session, IsKeptByEachOfItsMessages) {
  detail::MessageRef message;
  {
    AdmittedSession peer(PEER_NAME);
    message = TestMessage::Make(1, nullptr, peer.session);
  }
  ASSERT_TRUE(ThreadsEnded());
  EXPECT_EQ(SessionsAlive(), 1u);
  EXPECT_EQ(g_applications.Size(), 0u);
  message.Reset();
  EXPECT_EQ(SessionsAlive(), 0u);
}

// ---- the start protocol ------------------------------------------------------------------------

class SessionStart : public SessionTest {};

TEST_F(SessionStart, ParksBothThreadsUntilTheyAreStarted) {
  auto session = NewSession();
  EXPECT_TRUE(session->CreateManagementThreads());
  EXPECT_EQ(ThreadCount(), threadsBefore + 2);
  // Each thread has a reference of its own.
  TQAPPImpl* const borrowed = session.Get();
  session.Reset();
  EXPECT_EQ(SessionsAlive(), 1u);
  EXPECT_TRUE(log.Lines().empty()) << log.Dump();
  session = SessionRef(borrowed);
  EXPECT_TRUE(session->StartManagementThreads());
}

TEST_F(SessionStart, LogsBeforeAndAfterItOnTheStartersThread) {
  const auto session = NewSession();
  session->CreateManagementThreads();
  EXPECT_TRUE(session->StartManagementThreads());
  EXPECT_EQ(CallerLog(), (Texts{"8 Start management threads for ", "8 Startup completed for "}));
  ASSERT_TRUE(ThreadsEnded());
}

TEST_F(SessionStart, MakesEachThreadOfARefusedSessionWarnOnceAndEnd) {
  const auto session = NewSession();
  session->CreateManagementThreads();
  session->StartManagementThreads();
  ASSERT_TRUE(ThreadsEnded());
  std::vector<std::thread::id> warned;
  for (const LogLine& line : log.Lines()) {
    if (line.thread != std::this_thread::get_id()) {
      EXPECT_EQ(line.level, static_cast<uint32_t>(TQ_LOG_WARNING));
      EXPECT_EQ(line.text, "Application '' is not initialized");
      warned.push_back(line.thread);
    }
  }
  ASSERT_EQ(warned.size(), 2u) << log.Dump();
  EXPECT_NE(warned[0], warned[1]);
}

TEST_F(SessionStart, ReturnsWhileTheThreadsOfARefusedSessionStillWarn) {
  // A thread says that it is ready before it warns.
  LogGate gate("Application '' is not initialized");
  const auto session = NewSession();
  session->CreateManagementThreads();
  EXPECT_TRUE(session->StartManagementThreads());
  EXPECT_TRUE(gate.WaitUntilReached(2));
  EXPECT_EQ(ThreadCount(), threadsBefore + 2);
}

TEST_F(SessionStart, LeavesNoEntryForARefusedSession) {
  LogGate gate("Application '' is not initialized");
  const auto session = NewSession();
  EXPECT_FALSE(session->AcceptHandshake(ChannelRef(new ScriptedChannel())));
  EXPECT_EQ(g_applications.Size(), 0u);
  ASSERT_TRUE(gate.WaitUntilReached(2));
  EXPECT_EQ(g_applications.Size(), 0u);
  gate.Open();
  ASSERT_TRUE(ThreadsEnded());
  EXPECT_EQ(g_applications.Size(), 0u);
  EXPECT_FALSE(g_applications.Find(""));
}

TEST_F(SessionStart, LosesNoSignalBetweenTheThreads) {
  for (int round = 0; round < 500; ++round) {
    const auto session = NewSession();
    session->CreateManagementThreads();
    ASSERT_TRUE(session->StartManagementThreads());
  }
  ASSERT_TRUE(ThreadsEnded());
  EXPECT_EQ(log.CountOf("Application '' is not initialized"), 1000u);
}

TEST_F(SessionStart, EntersAnAdmittedSessionBeforeItReturns) {
  // The receiving thread cannot get past its first line.
  LogGate gate("Application connected:there:1/peer");
  AdmittedSession peer(PEER_NAME);
  EXPECT_TRUE(peer.admitted);
  EXPECT_EQ(g_applications.Find(PEER_NAME), peer.session);
  EXPECT_EQ(CallerLog(), (Texts{"8 Start management threads for there:1/peer",
                                "8 Startup completed for there:1/peer"}));
  EXPECT_EQ(TQNotify(PEER_NAME, 1, {}, nullptr, nullptr), TQ_ERR_OK);
  EXPECT_TRUE(gate.WaitUntilReached());
}

TEST_F(SessionStart, DoesNotReturnBeforeTheEntryIsMade) {
  auto* const channel = new ScriptedChannel();
  const ChannelRef held(channel);
  FeedConnector(*channel, PEER_NAME, PEER_NAME);
  std::atomic<bool> locked{false};
  std::atomic<bool> returned{false};
  std::thread holder;
  // From the last name on nobody gets at the registry, and so no entry can be made.
  channel->Before("send 8", [&](const void*) {
    if (channel->Writes().size() != 2) return;
    holder = std::thread([&] {
      const detail::LockScope registry(g_applications.applicationsLock);
      locked = true;
      EXPECT_FALSE(WaitUntil([&] { return returned.load(); }, milliseconds{200}));
    });
    EXPECT_TRUE(WaitUntil([&] { return locked.load(); }));
  });
  const auto session = NewSession();
  EXPECT_TRUE(session->AcceptHandshake(held));
  returned = true;
  ASSERT_TRUE(holder.joinable());
  holder.join();
  EXPECT_EQ(g_applications.Find(PEER_NAME), session);
  channel->HangUp();
}

TEST_F(SessionStart, DoesNotWaitForTheConnectListener) {
  std::atomic<bool> goOn{false};
  std::atomic<bool> done{false};
  ListenerRecorder listeners([&](const ListenerCall& call) {
    if (call.text == CONNECT_CALL) {
      EXPECT_TRUE(WaitUntil([&] { return goOn.load(); }));
      done = true;
    }
  });
  AdmittedSession peer(PEER_NAME);
  EXPECT_TRUE(peer.admitted);
  EXPECT_FALSE(done);
  goOn = true;
  EXPECT_TRUE(WaitUntil([&] { return done.load(); }));
  peer.channel->HangUp();
  EXPECT_TRUE(listeners.WaitFor(DISCONNECT_CALL));
}

// ---- an admitted session -----------------------------------------------------------------------

class AdmittedSessionTest : public SessionTest {
 protected:
  ListenerRecorder listeners;
};

TEST_F(AdmittedSessionTest, LogsItsWholeLifeOnItsThreads) {
  AdmittedSession peer(PEER_NAME);
  ASSERT_TRUE(log.WaitFor(TQ_LOG_INFO, "Application connected:there:1/peer"));
  const std::thread::id receiving = ThreadOf("Application connected:there:1/peer");
  peer.channel->HangUp();
  ASSERT_TRUE(log.WaitFor(TQ_LOG_INFO, SENDING_FINISHED));
  const std::thread::id sending = ThreadOf(SENDING_FINISHED);
  EXPECT_EQ(CallerLog(), (Texts{"8 Start management threads for there:1/peer",
                                "8 Startup completed for there:1/peer"}));
  ASSERT_TRUE(log.WaitFor(TQ_LOG_INFO, RECEIVING_FINISHED));
  EXPECT_EQ(LinesOf(receiving),
            (Texts{"8 Application connected:there:1/peer",
                   "8 Remote disconnect: \"there:1/peer\" stopped", "8 " + RECEIVING_FINISHED}));
  EXPECT_EQ(LinesOf(sending),
            (Texts{"8 Removing application there:1/peer",
                   "8 Cancel postponed outgoing Outgoing messages queue has been "
                   "cleared forthere:1/peer",
                   "8 All awaiting requests cancelled for there:1/peer", "8 " + SENDING_FINISHED}));
  EXPECT_EQ(listeners.Texts(), (Texts{CONNECT_CALL, DISCONNECT_CALL}));
  for (const ListenerCall& call : listeners.Calls()) {
    EXPECT_EQ(call.thread, receiving);
  }
}

TEST_F(AdmittedSessionTest, StaysValidUntilItsReceivingThreadIsJoined) {
  AdmittedSession peer(PEER_NAME);
  EXPECT_TRUE(peer.session->CheckValid());
  peer.channel->HangUp();
  ASSERT_TRUE(ThreadsEnded());
  // Both threads have ended, and nobody has joined the first.
  EXPECT_TRUE(peer.session->CheckValid());
  peer.session->StopSession();
  EXPECT_FALSE(peer.session->CheckValid());
}

TEST_F(AdmittedSessionTest, CanBeCalledWhileTheDisconnectListenerRuns) {
  static std::atomic<int> result;
  static std::atomic<bool> wasValid;
  result = -1;
  TQSetDisconnectListener([](const char* name, const char*, int32_t, const char*) {
    wasValid = g_applications.Find(name).IsValid();
    result = TQNotify(name, 1, {}, nullptr, nullptr);
  });
  AdmittedSession peer(PEER_NAME);
  peer.channel->HangUp();
  ASSERT_TRUE(log.WaitFor(TQ_LOG_INFO, SENDING_FINISHED));
  EXPECT_TRUE(wasValid);
  EXPECT_EQ(result, TQ_ERR_OK);
  EXPECT_EQ(TQNotify(PEER_NAME, 1, {}, nullptr, nullptr), TQ_ERR_NO_SESSION);
}

TEST_F(AdmittedSessionTest, LeavesTheRegistryAfterItHasSaidSo) {
  LogGate gate("Removing application there:1/peer");
  AdmittedSession peer(PEER_NAME);
  peer.channel->HangUp();
  ASSERT_TRUE(gate.WaitUntilReached());
  EXPECT_EQ(g_applications.Find(PEER_NAME), peer.session);
  EXPECT_TRUE(peer.session->CheckValid());
  gate.Open();
  ASSERT_TRUE(log.WaitForPrefix(TQ_LOG_INFO, "Cancel postponed outgoing "));
  EXPECT_FALSE(g_applications.Find(PEER_NAME));
}

TEST_F(AdmittedSessionTest, CancelsWhatIsQueuedAfterItHasLeftTheRegistry) {
  static TestMessage::Events events;
  static bool wasFound = true;
  events.onComplete = [](uint32_t) {
    wasFound = static_cast<bool>(g_applications.Find(PEER_NAME));
  };
  AdmittedSession peer(PEER_NAME);
  {
    LogGate gate("Removing application there:1/peer");
    peer.channel->HangUp();
    ASSERT_TRUE(gate.WaitUntilReached());
    peer.session->Outgoing().Push(TestMessage::Make(1, &events));
    peer.session->Awaiting().Insert(TestMessage::Make(2, &events));
  }
  ASSERT_TRUE(log.WaitFor(TQ_LOG_INFO, SENDING_FINISHED));
  EXPECT_EQ(events.cancelled, (std::vector<uint32_t>{1, 2}));
  EXPECT_FALSE(wasFound);
  // What was queued is released, what was awaited stays.
  EXPECT_EQ(events.destroyed, std::vector<uint32_t>{1});
}

// ---- the last reference ------------------------------------------------------------------------

TEST_F(AdmittedSessionTest, CanDieOnItsSendingThread) {
  LogGate gate(SENDING_FINISHED);
  {
    AdmittedSession peer(PEER_NAME);
    ASSERT_TRUE(peer.admitted);
    EXPECT_EQ(TQDisconnect(PEER_NAME), TQ_ERR_OK);
    ASSERT_TRUE(gate.WaitUntilReached());
  }
  EXPECT_EQ(SessionsAlive(), 1u);
  gate.Open();
  const std::string last =
      "Destroyed TQAPPImpl::~TQAPPImpl(there:1/peer):script:local<->script:remote";
  ASSERT_TRUE(log.WaitFor(TQ_LOG_INFO, last));
  EXPECT_EQ(ThreadOf(last), ThreadOf(SENDING_FINISHED));
  EXPECT_EQ(log.CountOfPrefix("Sending thread is already"), 0u);
  EXPECT_TRUE(ThreadsEnded());
}

TEST_F(AdmittedSessionTest, CanDieOnItsReceivingThread) {
  LogGate gate(RECEIVING_FINISHED);
  {
    AdmittedSession peer(PEER_NAME);
    ASSERT_TRUE(peer.admitted);
    peer.channel->HangUp();
    ASSERT_TRUE(gate.WaitUntilReached());
    ASSERT_TRUE(log.WaitFor(TQ_LOG_INFO, SENDING_FINISHED));
  }
  // Time for the sending thread to give its reference up; it is the only other one.
  ASSERT_TRUE(ThreadsEnded(1));
  EXPECT_EQ(SessionsAlive(), 1u);
  gate.Open();
  const std::string last =
      "Destroyed TQAPPImpl::~TQAPPImpl(there:1/peer):script:local<->script:remote";
  ASSERT_TRUE(log.WaitFor(TQ_LOG_INFO, last));
  EXPECT_EQ(ThreadOf(last), ThreadOf(RECEIVING_FINISHED));
  EXPECT_EQ(log.CountOfPrefix("Received thread is already"), 0u);
  EXPECT_TRUE(ThreadsEnded());
}

TEST_F(SessionStart, LetsARefusedSessionDieOnOneOfItsThreads) {
  LogGate gate("Application '' is not initialized");
  EXPECT_FALSE(NewSession()->AcceptHandshake(ChannelRef(new ScriptedChannel())));
  ASSERT_TRUE(gate.WaitUntilReached(2));
  EXPECT_EQ(SessionsAlive(), 1u);
  gate.Open();
  const std::string last = "Destroyed TQAPPImpl::~TQAPPImpl():script:local<->script:remote";
  ASSERT_TRUE(log.WaitFor(TQ_LOG_INFO, last));
  const Texts lines = LinesOf(ThreadOf(last));
  EXPECT_EQ(lines.front(), "4 Application '' is not initialized");
  EXPECT_TRUE(ThreadsEnded());
}

// ---- stopping a session ------------------------------------------------------------------------

class Disconnect : public AdmittedSessionTest {};

TEST_F(Disconnect, OfAnUnknownNameDoesNothing) {
  EXPECT_EQ(TQDisconnect("nobody:1/here"), TQ_ERR_OK);
  EXPECT_EQ(TQDisconnect(""), TQ_ERR_OK);
  EXPECT_TRUE(log.Lines().empty());
}

TEST_F(Disconnect, ReturnsWhenTheReceivingThreadHasEnded) {
  AdmittedSession peer(PEER_NAME);
  EXPECT_EQ(TQDisconnect(PEER_NAME), TQ_ERR_OK);
  EXPECT_EQ(log.CountOf(RECEIVING_FINISHED), 1u);
  EXPECT_EQ(log.CountOf("Local shutdown: \"there:1/peer\" stopped"), 1u);
  EXPECT_EQ(listeners.CountOf(DISCONNECT_CALL), 1u);
  EXPECT_FALSE(peer.session->CheckValid());
  EXPECT_NE(peer.session->StopRequested(), 0);
  // Its channel was woken: a wait of the scripted one ends by nothing else.
  EXPECT_EQ(peer.channel->CountOf("wakeup"), 1u);
}

TEST_F(Disconnect, LeavesTheEndOfTheSendingThreadToItself) {
  LogGate gate("Removing application there:1/peer");
  AdmittedSession peer(PEER_NAME);
  EXPECT_EQ(TQDisconnect(PEER_NAME), TQ_ERR_OK);
  ASSERT_TRUE(gate.WaitUntilReached());
  // Still found, and not valid: the same to callers as nobody.
  EXPECT_EQ(g_applications.Find(PEER_NAME), peer.session);
  EXPECT_FALSE(g_applications.Find(PEER_NAME).IsValid());
  EXPECT_EQ(TQNotify(PEER_NAME, 1, {}, nullptr, nullptr), TQ_ERR_NO_SESSION);
  EXPECT_EQ(TQCall(PEER_NAME, 1, {}).impl, nullptr);
  EXPECT_EQ(TQDisconnect(PEER_NAME), TQ_ERR_OK);
}

TEST_F(Disconnect, AgainDoesNothing) {
  AdmittedSession peer(PEER_NAME);
  EXPECT_EQ(TQDisconnect(PEER_NAME), TQ_ERR_OK);
  EXPECT_EQ(TQDisconnect(PEER_NAME), TQ_ERR_OK);
  ASSERT_TRUE(log.WaitFor(TQ_LOG_INFO, SENDING_FINISHED));
  EXPECT_EQ(TQDisconnect(PEER_NAME), TQ_ERR_OK);
  EXPECT_EQ(listeners.CountOf(DISCONNECT_CALL), 1u);
}

TEST_F(Disconnect, JoinsAThreadThatHasEndedByItself) {
  AdmittedSession peer(PEER_NAME);
  peer.channel->HangUp();
  ASSERT_TRUE(ThreadsEnded());
  peer.session->StopSession();
  EXPECT_FALSE(peer.session->CheckValid());
  peer.session->StopSession();
}

TEST_F(Disconnect, FromTheConnectListenerDoesNotJoinItself) {
  std::atomic<bool> returned{false};
  static std::atomic<bool>* flag;
  flag = &returned;
  TQSetConnectListener(
      [](const char*, const char*, const char* name, const char*, int32_t, const char*) {
        EXPECT_EQ(TQDisconnect(name), TQ_ERR_OK);
        flag->store(true);
      });
  AdmittedSession peer(PEER_NAME);
  EXPECT_TRUE(WaitUntil([&] { return returned.load(); }));
  ASSERT_TRUE(log.WaitFor(TQ_LOG_INFO, SENDING_FINISHED));
  EXPECT_EQ(log.CountOf("Local shutdown: \"there:1/peer\" stopped"), 1u);
  // Nobody has joined the thread; the destructor lets it go.
  EXPECT_TRUE(ThreadsEnded());
  EXPECT_TRUE(peer.session->CheckValid());
}

TEST_F(Disconnect, FromTheDisconnectListenerDoesNotJoinItself) {
  static std::atomic<bool> returned;
  returned = false;
  TQSetDisconnectListener([](const char* name, const char*, int32_t, const char*) {
    EXPECT_EQ(TQDisconnect(name), TQ_ERR_OK);
    returned = true;
  });
  {
    AdmittedSession peer(PEER_NAME);
    peer.channel->HangUp();
    EXPECT_TRUE(WaitUntil([] { return returned.load(); }));
    ASSERT_TRUE(log.WaitFor(TQ_LOG_INFO, SENDING_FINISHED));
    EXPECT_EQ(log.CountOf("Remote disconnect: \"there:1/peer\" stopped"), 1u);
  }
  EXPECT_TRUE(ThreadsEnded());
}

TEST_F(Disconnect, FromTwoSidesEndsTheSessionOnce) {
  // One thread stands in the join while the disconnect listener comes back in on the thread that is
  // joined.
  static std::atomic<bool> returned;
  returned = false;
  TQSetDisconnectListener([](const char* name, const char*, int32_t, const char*) {
    EXPECT_EQ(TQDisconnect(name), TQ_ERR_OK);
    returned = true;
  });
  AdmittedSession peer(PEER_NAME);
  EXPECT_EQ(TQDisconnect(PEER_NAME), TQ_ERR_OK);
  EXPECT_TRUE(returned);
  EXPECT_FALSE(peer.session->CheckValid());
}

TEST_F(Disconnect, ByManyThreadsAtATimeTouchesNothingThatIsFreed) {
  constexpr int ROUNDS = 60;
  constexpr int THREADS = 4;
  for (int round = 0; round < ROUNDS; ++round) {
    std::atomic<int> ready{0};
    {
      auto peer = std::make_unique<AdmittedSession>(PEER_NAME);
      ASSERT_TRUE(peer->admitted);
      // Only the registry and the threads hold the session now.
      peer->session.Reset();
      std::vector<std::thread> threads;
      for (int i = 0; i < THREADS; ++i) {
        threads.emplace_back([&] {
          ++ready;
          while (ready < THREADS) {
          }
          try {
            EXPECT_EQ(TQDisconnect(PEER_NAME), TQ_ERR_OK);
          } catch (const std::system_error&) {
            // One of two that stop a session may find its thread joined by the other.
          }
        });
      }
      for (std::thread& thread : threads) {
        thread.join();
      }
    }
    ASSERT_TRUE(WaitUntil([] { return SessionsAlive() == 0; }));
    ASSERT_FALSE(g_applications.Find(PEER_NAME));
  }
  EXPECT_EQ(listeners.CountOf(DISCONNECT_CALL), static_cast<size_t>(ROUNDS));
}

// ---- one name, several sessions ----------------------------------------------------------------

class OneName : public AdmittedSessionTest {};

TEST_F(OneName, IsAdmittedAgainWhileTheStoppedSessionStillHasItsEntry) {
  LogGate gate("Removing application there:1/peer");
  AdmittedSession older(PEER_NAME);
  ASSERT_EQ(TQDisconnect(PEER_NAME), TQ_ERR_OK);
  ASSERT_TRUE(gate.WaitUntilReached());
  ASSERT_EQ(g_applications.Find(PEER_NAME), older.session);

  AdmittedSession newer(PEER_NAME);
  EXPECT_TRUE(newer.admitted);
  EXPECT_EQ(g_applications.Find(PEER_NAME), newer.session);
  EXPECT_EQ(TQNotify(PEER_NAME, 1, {}, nullptr, nullptr), TQ_ERR_OK);

  // The end of the older session takes the newer one's entry with it.
  gate.Open();
  ASSERT_TRUE(log.WaitFor(TQ_LOG_INFO, SENDING_FINISHED));
  EXPECT_FALSE(g_applications.Find(PEER_NAME));
  EXPECT_EQ(TQNotify(PEER_NAME, 1, {}, nullptr, nullptr), TQ_ERR_NO_SESSION);
  // It runs on, out of reach.
  EXPECT_EQ(TQDisconnect(PEER_NAME), TQ_ERR_OK);
  EXPECT_TRUE(newer.session->CheckValid());
  EXPECT_EQ(newer.session->StopRequested(), 0);
  EXPECT_TRUE(WaitUntil([&] { return listeners.CountOf(CONNECT_CALL) == 2; }));
  EXPECT_EQ(listeners.CountOf(DISCONNECT_CALL), 1u);
}

// A connection from the library to a peer that stops before its last word.
struct HalfConnected {
  explicit HalfConnected(const std::string& peerName) : name(peerName) {
    thread = std::thread([this] { result = ConnectTo(listener.Port()); });
    peer = listener.Accept();
    if (peer) {
      HandshakeOptions options;
      options.stopAfterStep = 5;
      steps = peer->HandshakeAsAcceptor(name, {}, options).stepsDone;
    }
  }
  ~HalfConnected() {
    peer.reset();
    if (thread.joinable()) thread.join();
  }

  _tag_TQ_ERROR Finish() {
    peer->SendName(name);
    thread.join();
    return result;
  }

  std::string name;
  RawListener listener{FreePort()};
  std::optional<RawPeer> peer;
  int steps = 0;
  _tag_TQ_ERROR result = TQ_ERR_FAILED;
  std::thread thread;
};

TEST_F(OneName, IsTakenOverByTheSecondOfTwoThatComeAtTheSameTime) {
  ASSERT_EQ(TQInitialize("host", 0, nullptr), TQ_ERR_OK);
  {
    HalfConnected older(PEER_NAME);
    HalfConnected newer(PEER_NAME);
    ASSERT_EQ(older.steps, 5);
    ASSERT_EQ(newer.steps, 5);
    // Both have passed the test for duplicates.
    ASSERT_EQ(older.Finish(), TQ_ERR_OK);
    ASSERT_EQ(newer.Finish(), TQ_ERR_OK);
    EXPECT_EQ(g_applications.Size(), 1u);
    EXPECT_EQ(SessionsAlive(), 2u);
    ASSERT_EQ(TQNotify(PEER_NAME, 7, {}, nullptr, nullptr), TQ_ERR_OK);
    const auto frame = newer.peer->ReadFrame();
    ASSERT_TRUE(frame) << newer.peer->Problem();
    EXPECT_EQ(frame->slotId, 7u);
    EXPECT_TRUE(older.peer->StaysSilentFor(milliseconds{50}));
    // The older one is served all the same.
    older.peer->SendRequest(1, RAW_CALL, 5);
    ASSERT_TRUE(older.peer->ReadFrame());

    // The end of the older one takes the newer one's entry with it.
    older.peer->Close();
    ASSERT_TRUE(log.WaitForPrefix(TQ_LOG_INFO, "Sending thread finished for there:1/peer:"));
    EXPECT_EQ(TQNotify(PEER_NAME, 7, {}, nullptr, nullptr), TQ_ERR_NO_SESSION);
    EXPECT_EQ(g_applications.Size(), 0u);
    EXPECT_EQ(TQDisconnect(PEER_NAME), TQ_ERR_OK);
    // The newer one runs on and is served.
    newer.peer->SendRequest(2, RAW_CALL, 5);
    const auto reply = newer.peer->ReadFrame();
    ASSERT_TRUE(reply) << newer.peer->Problem();
    EXPECT_EQ(reply->id, 2u);
    EXPECT_TRUE(WaitUntil([] { return SessionsAlive() == 1; }));
    newer.peer->Close();
  }
  ASSERT_TRUE(WaitUntil([] { return SessionsAlive() == 0; }));
  EXPECT_EQ(TQShutdown(), TQ_ERR_OK);
}

TEST_F(OneName, EndsTheOlderSessionInPeaceWhenTheNewerEndsFirst) {
  ASSERT_EQ(TQInitialize("host", 0, nullptr), TQ_ERR_OK);
  {
    HalfConnected older(PEER_NAME);
    HalfConnected newer(PEER_NAME);
    ASSERT_EQ(older.Finish(), TQ_ERR_OK);
    ASSERT_EQ(newer.Finish(), TQ_ERR_OK);
    EXPECT_EQ(TQDisconnect(PEER_NAME), TQ_ERR_OK);
    EXPECT_TRUE(newer.peer->WaitClosed());
    EXPECT_TRUE(older.peer->StaysSilentFor(milliseconds{50}));
    EXPECT_EQ(TQNotify(PEER_NAME, 7, {}, nullptr, nullptr), TQ_ERR_NO_SESSION);
    older.peer->Close();
  }
  ASSERT_TRUE(WaitUntil([] { return SessionsAlive() == 0; }));
  EXPECT_EQ(TQShutdown(), TQ_ERR_OK);
}

// ---- with a peer -------------------------------------------------------------------------------

// The two ends of a connection over the transport of the tests.
struct Connection {
  ChannelRef channel;
  RawPeer peer;
};

template <typename Ends>
Connection TakeBoth() {
  Ends ends;
  return {ends.Ref(), std::move(ends.Far())};
}

Connection NewConnection() { return OverPipes() ? TakeBoth<PipeEnds>() : TakeBoth<SocketEnds>(); }

// A library session that has admitted a peer of the tests' own.
struct PeerSession {
  explicit PeerSession(Connection connection = NewConnection()) : peer(std::move(connection.peer)) {
    std::thread handshake([&] { result = peer.HandshakeAsConnector(PEER_NAME); });
    admitted = NewSession()->AcceptHandshake(connection.channel);
    handshake.join();
  }

  RawPeer peer;
  HandshakeResult result;
  bool admitted = false;
};

class WithAPeer : public AdmittedSessionTest {};

TEST_F(WithAPeer, DisconnectFromACompletionCallbackDoesNotJoinItself) {
  static std::atomic<bool> returned;
  returned = false;
  PeerSession session;
  ASSERT_TRUE(session.admitted);
  ASSERT_EQ(TQNotify(
                PEER_NAME, 3, {},
                [](const char* name, unsigned, _tag_HTQPARAMLIST, _tag_HTQPARAMLIST, void*) {
                  EXPECT_EQ(TQDisconnect(name), TQ_ERR_OK);
                  returned = true;
                  return TQ_ERR_OK;
                },
                nullptr),
            TQ_ERR_OK);
  const auto frame = session.peer.ReadFrame();
  ASSERT_TRUE(frame) << session.peer.Problem();
  session.peer.SendReply(frame->id);
  EXPECT_TRUE(WaitUntil([] { return returned.load(); }));
  EXPECT_TRUE(session.peer.WaitClosed());
  EXPECT_EQ(log.CountOf("Local shutdown: \"there:1/peer\" stopped"), 1u);
}

TEST_F(WithAPeer, DisconnectIsSeenByThePeerAsAClose) {
  PeerSession session;
  ASSERT_TRUE(session.admitted);
  EXPECT_EQ(TQDisconnect(PEER_NAME), TQ_ERR_OK);
  EXPECT_EQ(session.peer.ReceiveUntilClosed(), Bytes());
  EXPECT_FALSE(session.peer.WasReset());
}

TEST_F(WithAPeer, DisconnectLetsASessionGoWhoseRequestsWereAnswered) {
  PeerSession session;
  ASSERT_TRUE(session.admitted);
  std::thread caller([] {
    const _tag_HTQPARAMLIST result = TQCall(PEER_NAME, 3, {});
    EXPECT_NE(result.impl, nullptr);
    TQCloseHandle(result);
  });
  const auto frame = session.peer.ReadFrame();
  ASSERT_TRUE(frame) << session.peer.Problem();
  session.peer.SendReply(frame->id);
  caller.join();
  EXPECT_EQ(TQDisconnect(PEER_NAME), TQ_ERR_OK);
  EXPECT_TRUE(session.peer.WaitClosed());
  EXPECT_TRUE(WaitUntil([] { return SessionsAlive() == 0; }));
  EXPECT_EQ(DEBUG_TQObjectCount().messages, 0u);
}

// Ends a session with a request that nobody has answered, and tells what stays of it.
TQ_TEST_ROLE(endUnanswered) {
  LogRecorder log;
  PeerSession session;
  EXPECT_TRUE(session.admitted);
  const int descriptors = OpenDescriptorCount();
  std::thread caller([] { EXPECT_EQ(TQCall(PEER_NAME, 3, {}).impl, nullptr); });
  EXPECT_TRUE(session.peer.ReadFrame());
  EXPECT_EQ(TQDisconnect(PEER_NAME), TQ_ERR_OK);
  caller.join();
  EXPECT_TRUE(log.WaitForPrefix(TQ_LOG_INFO, "Sending thread finished for there:1/peer:"));
  // The peer is not told of the end, for nothing is closed.
  EXPECT_TRUE(session.peer.StaysSilentFor(milliseconds{500}));
  EXPECT_EQ(OpenDescriptorCount(), descriptors);
  EXPECT_EQ(SessionsAlive(), 1u);
  EXPECT_EQ(DEBUG_TQObjectCount().messages, 1u);
  EXPECT_EQ(g_applications.Size(), 0u);
  EXPECT_EQ(log.CountOfPrefix("Destroying TQAPPImpl"), 0u);
  Say(testing::Test::HasFailure() ? "differs" : "stays");
  return AwaitCommand("never") ? 0 : 1;
}

TEST(SessionWithUnansweredRequests, IsNeverDestroyedAndKeepsItsConnection) {
  ChildProcess process("endUnanswered");
  EXPECT_TRUE(process.ExpectLine("stays"));
  // Without the checks at an orderly end: the session, its request and its sending thread, which
  // has ended and will never be let go, are what a checker of leaks looks for.
  process.Kill();
}

// ---- a thread that cannot be let go ------------------------------------------------------------

TQ_TEST_ROLE(dieWithoutDetaching) {
  std::thread([] {}).join();
  const int threadsBefore = ThreadCount();
  auto session = NewSession();
  session->CreateManagementThreads();
  session->StartManagementThreads();
  EXPECT_TRUE(WaitUntil([&] { return ThreadCount() == threadsBefore; }));
  TQSetLogLevel(ALL_LOG_LEVELS, 0, [](uint32_t level, int32_t, const char* text) {
    Say(std::to_string(level) + " " + text);
  });
  g_detachFails = true;
  session.Reset();
  Say("lives on");
  return 0;
}

TEST(SessionThatCannotLetItsThreadsGo, SaysSoAndEndsTheProcess) {
  ChildProcess process("dieWithoutDetaching", {}, ErrorOutput::MERGED);
  EXPECT_TRUE(process.ExpectLine("8 Destroying TQAPPImpl::~TQAPPImpl():<->"));
  EXPECT_TRUE(process.ExpectLine("4 Received thread is already detached(stopped)"));
  EXPECT_TRUE(process.ExpectLine("4 Sending thread is already detached(stopped)"));
  EXPECT_TRUE(process.ExpectLine("8 Destroyed TQAPPImpl::~TQAPPImpl():<->"));
  const auto status = process.Wait();
  ASSERT_TRUE(status);
  EXPECT_TRUE(status->Aborted()) << *status;
}

// ---- no more threads ---------------------------------------------------------------------------

class NoThreads : public testing::Test {
 protected:
  NoThreads() {
    std::thread([] {}).join();
    threadsBefore = ThreadCount();
  }

  static std::error_code CodeOf(const std::function<void()>& operation) {
    try {
      operation();
    } catch (const std::system_error& error) {
      return error.code();
    }
    return {};
  }

  /// TQConnect to a peer that accepts it, when so many threads can be had.
  std::error_code ConnectWithThreads(int count) {
    std::thread acceptor([this] { peer = listener.Accept(); });
    g_threadsLeft = count;
    const std::error_code code = CodeOf([this] { ConnectTo(listener.Port()); });
    g_threadsLeft = -1;
    acceptor.join();
    return code;
  }

  LogRecorder log;
  RawListener listener{FreePort()};
  std::optional<RawPeer> peer;
  int threadsBefore = 0;
};

const std::error_code TRY_AGAIN = std::make_error_code(std::errc::resource_unavailable_try_again);

TEST_F(NoThreads, AtAllMakeTQConnectThrowAndLeaveNothing) {
  EXPECT_EQ(ConnectWithThreads(0), TRY_AGAIN);
  EXPECT_EQ(SessionsAlive(), 0u);
  EXPECT_EQ(ThreadCount(), threadsBefore);
  EXPECT_EQ(log.CountOfPrefix("Start management threads"), 0u);
  ASSERT_TRUE(peer);
  EXPECT_EQ(peer->ReceiveUntilClosed(), Bytes());
}

TEST_F(NoThreads, ForSendingMakeTQConnectThrowAndLeaveTheReceivingOneParked) {
  EXPECT_EQ(ConnectWithThreads(1), TRY_AGAIN);
  EXPECT_EQ(SessionsAlive(), 1u);
  EXPECT_EQ(ThreadCount(), threadsBefore + 1);
  EXPECT_EQ(log.CountOfPrefix("Start management threads"), 0u);
  EXPECT_EQ(log.CountOfPrefix("Destroying"), 0u);
  // The channel was not the session's yet.
  ASSERT_TRUE(peer);
  EXPECT_EQ(peer->ReceiveUntilClosed(), Bytes());
}

TEST_F(NoThreads, AtAllMakeTheAcceptingSideThrowToItsCaller) {
  auto session = NewSession();
  g_threadsLeft = 0;
  EXPECT_EQ(CodeOf([&] { session->AcceptHandshake(ChannelRef(new ScriptedChannel())); }),
            TRY_AGAIN);
  g_threadsLeft = -1;
  EXPECT_FALSE(session->CheckValid());
  EXPECT_TRUE(log.Lines().empty()) << log.Dump();
  session.Reset();
  EXPECT_EQ(SessionsAlive(), 0u);
}

TEST_F(NoThreads, LeaveOtherSessionsAlone) {
  PeerSession other;
  ASSERT_TRUE(other.admitted);
  EXPECT_EQ(ConnectWithThreads(0), TRY_AGAIN);
  ASSERT_EQ(TQNotify(PEER_NAME, 3, {}, nullptr, nullptr), TQ_ERR_OK);
  EXPECT_TRUE(other.peer.ReadFrame());
  other.peer.Close();
  EXPECT_TRUE(WaitUntil([] { return SessionsAlive() == 0; }));
}

// Listens, and cannot make a thread any more.
TQ_TEST_ROLE(listenWithoutThreads) {
  const auto port = static_cast<uint16_t>(std::stoi(args.at(0)));
  LogRecorder log;
  EXPECT_EQ(TQInitializeEx(HostText(port).c_str(), "host", port, nullptr), TQ_ERR_OK);
  EXPECT_EQ(TQConnectionReady(), TQ_ERR_OK);
  EXPECT_TRUE(log.WaitForPrefix(TQ_LOG_INFO, OverPipes()
                                                 ? "ConnThread Pipe Startup"
                                                 : "listening for incoming connection on :"));
  g_threadsLeft = 0;
  Say("ready");
  (void)AwaitCommand("never");
  return 0;
}

TEST(NoThreadsForAnAcceptedPeer, EndTheProcess) {
  const uint16_t port = FreePort();
  ChildProcess process("listenWithoutThreads", {std::to_string(port)}, ErrorOutput::MERGED);
  ASSERT_TRUE(process.ExpectLine("ready"));
  auto peer = RawPeer::Connect(port);
  ASSERT_TRUE(peer);
  const auto status = process.Wait();
  ASSERT_TRUE(status);
  EXPECT_TRUE(status->Aborted()) << *status;
}

}  // namespace
}  // namespace TQ::test
