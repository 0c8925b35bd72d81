// The receiving thread against raw peers: start, read loop, and the order of the end.
#include <gtest/gtest.h>
#include <tq/tq.h>

#include <set>

#include "frame/settings.h"
#include "session/application_registry.h"
#include "session/session.h"
#include "support/free_port.h"
#include "support/scripted_handshake.h"
#include "support/session_host.h"
#include "support/transport.h"
#include "support/wait_until.h"

namespace TQ::test {
namespace {

using detail::SessionRef;
using std::chrono::milliseconds;
using Lines = std::vector<std::string>;

const std::string NAME = "raw.host:4711/peer";

SessionRef FindSession(const std::string& name) {
  return detail::g_applications.Find(name.c_str());
}

/// "name:local<->remote" as the last lines of both threads have it.
std::string Ends(const std::string& name, const RawPeer& peer) {
  return name + ":" + peer.RemoteAddress() + "<->" + peer.LocalAddress();
}

// ---- start -------------------------------------------------------------------------------------

TEST(ReceivingThread, AnnouncesTheConnectionWithTheNameDirectlyBehindTheText) {
  SessionHost host;
  RawPeer peer = host.Admit(NAME);
  EXPECT_TRUE(host.Log().WaitFor(TQ_LOG_INFO, "Application connected:raw.host:4711/peer"));
  EXPECT_EQ(host.Log().CountOfPrefix("Application connected:"), 1u);
}

TEST(ReceivingThread, GivesTheConnectListenerItsSixArgumentsInOrder) {
  ListenerRecorder listeners;
  SessionHost host;
  RawPeer peer = host.Admit("raw.host:4711/peer/and/more");
  ASSERT_TRUE(listeners.WaitForConnects(1));
  const auto call = listeners.Connects().at(0);
  EXPECT_EQ(call.localAddress, peer.RemoteAddress());
  EXPECT_EQ(call.remoteAddress, peer.LocalAddress());
  EXPECT_EQ(call.applicationName, "raw.host:4711/peer/and/more");
  EXPECT_EQ(call.host, "raw.host");
  EXPECT_EQ(call.port, 4711);
  EXPECT_EQ(call.application, "peer");
  EXPECT_EQ(call.thread, host.ReceivingThread("raw.host:4711/peer/and/more"));
  EXPECT_TRUE(listeners.Disconnects().empty());
}

TEST(ReceivingThread, GivesTheConnectListenerTheConnectorsAddressesWhenThisProcessConnects) {
  ListenerRecorder listeners;
  SessionHost host;
  RawListener listener(FreePort());
  RawPeer peer = host.ConnectOut(listener, NAME);
  ASSERT_TRUE(listeners.WaitForConnects(1));
  const auto call = listeners.Connects().at(0);
  EXPECT_EQ(call.localAddress, peer.RemoteAddress());
  EXPECT_EQ(call.remoteAddress, peer.LocalAddress());
  EXPECT_EQ(call.applicationName, NAME);
}

TEST(ReceivingThread, ReadsThePortOfANameAsTheLeadingDigits) {
  const std::vector<std::pair<std::string, int32_t>> cases = {
      {"h:x/a", 0}, {"h:12z/a", 12}, {"h:-5/a", -5}, {"h:99999/a", 99999}};
  ListenerRecorder listeners;
  SessionHost host;
  std::vector<RawPeer> peers;
  for (const auto& [name, port] : cases) {
    peers.push_back(host.Admit(name));
    ASSERT_TRUE(listeners.WaitForConnects(peers.size()));
    EXPECT_EQ(listeners.Connects().back().port, port) << name;
  }
}

TEST(ReceivingThread, EntersTheSessionIntoTheRegistryBeforeTheConnectListenerRuns) {
  std::atomic<int> result{1};
  std::atomic<bool> valid{false};
  Gate called;
  ListenerRecorder listeners;
  listeners.onConnect = [&](const auto& call) {
    valid = FindSession(call.applicationName).IsValid();
    result = TQNotify(call.applicationName.c_str(), 5, {nullptr}, nullptr, nullptr);
    called.Open();
  };
  SessionHost host;
  RawPeer peer = host.Admit(NAME);
  const auto frame = peer.ReadFrame();
  ASSERT_TRUE(frame) << peer.Problem();
  EXPECT_EQ(frame->slotId, 5u);
  ASSERT_TRUE(called.Wait());
  EXPECT_TRUE(valid);
  EXPECT_EQ(result, TQ_ERR_OK);
}

TEST(ReceivingThread, CanBeCalledByNameAsSoonAsTheConnectionIsMade) {
  Gate release;
  ListenerRecorder listeners;
  listeners.onConnect = [&](const auto&) { EXPECT_TRUE(release.Wait()); };
  SessionHost host;
  RawListener listener(FreePort());
  // Returns although the connect listener is still running.
  RawPeer peer = host.ConnectOut(listener, NAME);
  EXPECT_TRUE(FindSession(NAME).IsValid());
  EXPECT_EQ(TQNotify(NAME.c_str(), 5, {nullptr}, nullptr, nullptr), TQ_ERR_OK);
  EXPECT_TRUE(peer.ReadFrame()) << peer.Problem();
  release.Open();
}

TEST(ReceivingThread, ReadsNothingBeforeTheConnectListenerHasReturned) {
  Gate release;
  ListenerRecorder listeners;
  listeners.onConnect = [&](const auto&) { EXPECT_TRUE(release.Wait()); };
  SessionHost host;
  ScopedSlot slot(7, [](const SlotCall&) {});
  RawPeer peer = host.Admit(NAME);
  ASSERT_TRUE(peer.SendRequest(1, RAW_CALL, 7));
  EXPECT_TRUE(peer.StaysSilentFor(milliseconds{100}));
  EXPECT_EQ(slot.Calls(), 0u);
  release.Open();
  EXPECT_TRUE(peer.ReadFrame()) << peer.Problem();
}

TEST(ReceivingThread, LivesAndEndsWithoutListeners) {
  SessionHost host;
  RawPeer peer = host.Admit(NAME);
  peer.Close();
  EXPECT_TRUE(host.WaitForEnd(NAME));
  EXPECT_TRUE(host.WaitForSessions(0));
}

TEST(ReceivingThread, OfAPeerThatWasRefusedWarnsAndTellsNoListener) {
  ListenerRecorder listeners;
  SessionHost host;
  auto peer = RawPeer::Connect(host.Port());
  ASSERT_TRUE(peer);
  HandshakeOptions options;
  options.wrongDigest = true;
  (void)peer->HandshakeAsConnector(NAME, {}, options);
  EXPECT_TRUE(peer->WaitClosed());
  EXPECT_TRUE(host.WaitForSessions(0));
  // Once from each of the two threads.
  EXPECT_TRUE(host.Log().WaitForCount(TQ_LOG_WARNING, "Application '' is not initialized", 2));
  std::set<std::thread::id> threads;
  for (const LogLine& line : host.Log().Lines()) {
    if (line.text == "Application '' is not initialized") threads.insert(line.thread);
  }
  EXPECT_EQ(threads.size(), 2u);
  for (const char* prefix :
       {"Application connected:", "Remote disconnect: ", "Receiving thread finished for ",
        "Removing application ", "Cancel postponed outgoing",
        "All awaiting requests cancelled for ", "Sending thread finished for "}) {
    EXPECT_EQ(host.Log().CountOfPrefix(prefix), 0u) << prefix;
  }
  EXPECT_TRUE(listeners.Connects().empty());
  EXPECT_TRUE(listeners.Disconnects().empty());
  EXPECT_FALSE(FindSession(NAME));
  EXPECT_FALSE(FindSession(""));
}

// ---- read loop ---------------------------------------------------------------------------------

TEST(ReceivingThread, CompletesAReplyItself) {
  CompletionRecorder done;
  SessionHost host;
  RawPeer peer = host.Admit(NAME);
  ScopedList params;
  ASSERT_EQ(TQNotify(NAME.c_str(), 9, params.Get(), done.Callback(), &done), TQ_ERR_OK);
  const auto request = peer.ReadFrame();
  ASSERT_TRUE(request) << peer.Problem();
  ASSERT_TRUE(peer.SendReply(request->id, RawList().Int32("x", 42)));
  ASSERT_TRUE(done.WaitForCount(1));
  const auto call = done.Calls().at(0);
  EXPECT_EQ(call.applicationName, NAME);
  EXPECT_EQ(call.slotId, 9u);
  EXPECT_EQ(call.params, params.Get().impl);
  EXPECT_FALSE(call.resultIsNull);
  EXPECT_EQ(call.resultX, 42u);
  EXPECT_EQ(call.thread, host.ReceivingThread(NAME));
}

TEST(ReceivingThread, TakesRepliesInAnyOrder) {
  SessionHost host;
  RawPeer peer = host.Admit(NAME);
  CallInThread first(NAME, 1);
  const auto firstRequest = peer.ReadFrame();
  CallInThread second(NAME, 2);
  const auto secondRequest = peer.ReadFrame();
  ASSERT_TRUE(firstRequest && secondRequest) << peer.Problem();
  ASSERT_TRUE(peer.SendReply(secondRequest->id, RawList().Int32("x", 2)));
  ASSERT_TRUE(second.WaitReturned());
  EXPECT_FALSE(first.HasReturned());
  ASSERT_TRUE(peer.SendReply(firstRequest->id, RawList().Int32("x", 1)));
  ASSERT_TRUE(first.WaitReturned());
  EXPECT_EQ(TQGetInt32Value(first.Result(), "x"), 1u);
  EXPECT_EQ(TQGetInt32Value(second.Result(), "x"), 2u);
}

TEST(ReceivingThread, LetsAReplyOvertakeANotificationThatWasSentBefore) {
  Gate release, blocked;
  CompletionRecorder done;
  SessionHost host;
  ScopedSlot blocker(1, [&](const SlotCall&) {
    blocked.Open();
    EXPECT_TRUE(release.Wait());
  });
  ScopedSlot slot(2, [](const SlotCall&) {});
  RawPeer peer = host.Admit(NAME);
  ASSERT_EQ(TQNotify(NAME.c_str(), 9, {nullptr}, done.Callback(), &done), TQ_ERR_OK);
  const auto request = peer.ReadFrame();
  ASSERT_TRUE(request) << peer.Problem();
  ASSERT_TRUE(peer.SendRequest(1, RAW_NOTIFY, 1));
  ASSERT_TRUE(blocked.Wait());
  ASSERT_TRUE(peer.SendRequest(2, RAW_NOTIFY, 2));
  ASSERT_TRUE(peer.SendReply(request->id));
  EXPECT_TRUE(done.WaitForCount(1));
  EXPECT_EQ(slot.Calls(), 0u);
  release.Open();
  EXPECT_TRUE(WaitUntil([&] { return slot.Calls() == 1; }));
}

TEST(ReceivingThread, ReadsNoFrameWhileACompletionCallbackRuns) {
  Gate release;
  CompletionRecorder done;
  done.hook = [&](const auto&) { EXPECT_TRUE(release.Wait()); };
  SessionHost host;
  ScopedSlot slot(7, [](const SlotCall&) {});
  RawPeer peer = host.Admit(NAME);
  RawPeer other = host.Admit("other:1/raw");
  ASSERT_EQ(TQNotify(NAME.c_str(), 9, {nullptr}, done.Callback(), &done), TQ_ERR_OK);
  const auto request = peer.ReadFrame();
  ASSERT_TRUE(request) << peer.Problem();
  ASSERT_TRUE(peer.SendReply(request->id));
  ASSERT_TRUE(done.WaitForCount(1));
  ASSERT_TRUE(peer.SendRequest(1, RAW_CALL, 7));
  EXPECT_TRUE(peer.StaysSilentFor(milliseconds{100}));
  // Another session is not held up, neither by its own receiving thread nor by the dispatcher.
  ASSERT_TRUE(other.SendRequest(1, RAW_CALL, 7));
  EXPECT_TRUE(other.ReadFrame()) << other.Problem();
  release.Open();
  EXPECT_TRUE(peer.ReadFrame()) << peer.Problem();
}

TEST(ReceivingThread, RunsCompletionCallbacksOfTwoSessionsAtTheSameTime) {
  std::atomic<int> running{0};
  CompletionRecorder done;
  done.hook = [&](const auto&) {
    ++running;
    // Each waits for the other, which works only if both run at once.
    EXPECT_TRUE(WaitUntil([&] { return running == 2; }));
  };
  SessionHost host;
  RawPeer peer = host.Admit(NAME);
  RawPeer other = host.Admit("other:1/raw");
  for (RawPeer* each : {&peer, &other}) {
    const char* name = each == &peer ? NAME.c_str() : "other:1/raw";
    ASSERT_EQ(TQNotify(name, 9, {nullptr}, done.Callback(), &done), TQ_ERR_OK);
    const auto request = each->ReadFrame();
    ASSERT_TRUE(request) << each->Problem();
    ASSERT_TRUE(each->SendReply(request->id));
  }
  EXPECT_TRUE(done.WaitForCount(2));
}

// ---- causes of the end -------------------------------------------------------------------------

TEST(ReceivingThread, LogsARemoteDisconnectWhenThePeerClosesBetweenFrames) {
  ListenerRecorder listeners;
  SessionHost host;
  RawPeer peer = host.Admit(NAME);
  const std::string ends = Ends(NAME, peer);
  peer.Close();
  ASSERT_TRUE(host.WaitForEnd(NAME));
  EXPECT_EQ(host.ReceivingThreadLog(NAME),
            AsLogged({InfoLine("Application connected:raw.host:4711/peer"),
                      InfoLine("Receive failed: socket closed"),
                      InfoLine("Remote disconnect: \"raw.host:4711/peer\" stopped"),
                      InfoLine("Receiving thread finished for " + ends)}));
  EXPECT_EQ(listeners.Disconnects().size(), 1u);
}

TEST(ReceivingThread, GivesTheDisconnectListenerItsFourArgumentsInOrder) {
  ListenerRecorder listeners;
  SessionHost host;
  RawPeer peer = host.Admit("raw.host:4711/peer/and/more");
  peer.Close();
  ASSERT_TRUE(listeners.WaitForDisconnects(1));
  const auto call = listeners.Disconnects().at(0);
  EXPECT_EQ(call.applicationName, "raw.host:4711/peer/and/more");
  EXPECT_EQ(call.host, "raw.host");
  EXPECT_EQ(call.port, 4711);
  EXPECT_EQ(call.application, "peer");
  ASSERT_TRUE(host.WaitForEnd("raw.host:4711/peer/and/more"));
  EXPECT_EQ(call.thread, host.ReceivingThread("raw.host:4711/peer/and/more"));
  EXPECT_EQ(listeners.Disconnects().size(), 1u);
  EXPECT_EQ(listeners.Connects().size(), 1u);
}

// A pipe is closed or not; it cannot be broken.
TEST(ReceivingThreadOverTcp, LogsARemoteDisconnectWhenThePeerBreaksTheConnection) {
  SessionHost host;
  RawPeer peer = host.Admit(NAME);
  peer.Reset();
  ASSERT_TRUE(host.WaitForEnd(NAME));
  const Lines lines = host.ReceivingThreadLog(NAME);
  ASSERT_EQ(lines.size(), 4u) << host.Log().Dump();
  EXPECT_EQ(lines[1].substr(0, 28), InfoLine("Receive failed with code ") + lines[1][27]);
  EXPECT_EQ(lines[1].substr(lines[1].find(',')), ",expected=16");
  EXPECT_EQ(lines[2], InfoLine("Remote disconnect: \"raw.host:4711/peer\" stopped"));
}

TEST(ReceivingThread, LogsALocalShutdownForTQDisconnect) {
  ListenerRecorder listeners;
  SessionHost host;
  RawPeer peer = host.Admit(NAME);
  const std::string ends = Ends(NAME, peer);
  EXPECT_EQ(TQDisconnect(NAME.c_str()), TQ_ERR_OK);
  // The receiving thread was joined: its last line is there.
  EXPECT_EQ(host.ReceivingThreadLog(NAME),
            (Lines{InfoLine("Application connected:raw.host:4711/peer"),
                   InfoLine("Local shutdown: \"raw.host:4711/peer\" stopped"),
                   InfoLine("Receiving thread finished for " + ends)}));
  EXPECT_EQ(listeners.Disconnects().size(), 1u);
  EXPECT_TRUE(peer.WaitClosed());
}

TEST(ReceivingThread, LogsALocalShutdownWhenTheStopComesDuringABlockedRead) {
  SessionHost host;
  RawPeer peer = host.Admit(NAME);
  const std::string ends = Ends(NAME, peer);
  SessionHost::SetIoTimeout(SHORT_READS);
  // The first 5 bytes of a head: the read waits for the other 11 for as long as the session lives.
  ASSERT_TRUE(peer.SendBytes(Prefix(RequestHead(1, RAW_CALL, 7, 0, 0), 5)));
  ASSERT_TRUE(WaitUntil([] { return DEBUG_TQObjectCount().readCalls > 0; }));
  EXPECT_TRUE(peer.StaysSilentFor(milliseconds{100}));
  EXPECT_EQ(TQDisconnect(NAME.c_str()), TQ_ERR_OK);
  EXPECT_EQ(
      host.ReceivingThreadLog(NAME),
      AsLogged({InfoLine("Application connected:raw.host:4711/peer"),
                InfoLine("Receive failed: no data arrived in expected 2 seconds11,expected=11"),
                InfoLine("Local shutdown: \"raw.host:4711/peer\" stopped"),
                InfoLine("Receiving thread finished for " + ends)}));
}

TEST(ReceivingThread, WaitsInAHeadForAsLongAsTheSessionLives) {
  SessionHost host;
  ScopedSlot slot(7, [](const SlotCall&) {});
  RawPeer peer = host.Admit(NAME);
  SessionHost::SetIoTimeout(SHORT_READS);
  const Bytes frame = RequestBytes(1, RAW_CALL, 7, RawList());
  ASSERT_TRUE(peer.SendBytes(Prefix(frame, 5)));
  EXPECT_TRUE(peer.StaysSilentFor(milliseconds{1500}));
  ASSERT_TRUE(peer.SendBytes(Bytes(frame.begin() + 5, frame.end())));
  EXPECT_TRUE(peer.ReadFrame()) << peer.Problem();
}

TEST(ReceivingThread, GivesUpABodyThatDoesNotComeWithinTheReadLimit) {
  SessionHost host;
  RawPeer peer = host.Admit(NAME);
  const std::string ends = Ends(NAME, peer);
  SessionHost::SetIoTimeout(SHORT_READS);
  ASSERT_TRUE(peer.SendBytes(Prefix(RequestBytes(1, RAW_CALL, 7, RawList().Int32("x", 1)), 22)));
  EXPECT_TRUE(peer.WaitClosed());
  EXPECT_EQ(
      host.ReceivingThreadLog(NAME),
      AsLogged({InfoLine("Application connected:raw.host:4711/peer"),
                InfoLine("Receive failed: no data arrived in expected 2 seconds11,expected=6"),
                InfoLine("Deserialization failed"),
                InfoLine("Remote disconnect: \"raw.host:4711/peer\" stopped"),
                InfoLine("Receiving thread finished for " + ends)}));
}

TEST(ReceivingThread, LogsAGlobalShutdownWhenTheLibraryStopsBeforeTheReadLoop) {
  Gate release;
  ListenerRecorder listeners;
  listeners.onConnect = [&](const auto&) { EXPECT_TRUE(release.Wait()); };
  SessionHost host;
  RawPeer peer = host.Admit(NAME);
  const std::string ends = Ends(NAME, peer);
  std::thread shutdown([&] { host.Shutdown(); });
  EXPECT_TRUE(WaitUntil([] { return detail::StopAllRequested(); }));
  release.Open();
  shutdown.join();
  EXPECT_EQ(host.ReceivingThreadLog(NAME),
            (Lines{InfoLine("Application connected:raw.host:4711/peer"),
                   InfoLine("Global shutdown: \"raw.host:4711/peer\" stopped"),
                   InfoLine("Receiving thread finished for " + ends)}));
  EXPECT_EQ(listeners.Disconnects().size(), 1u);
}

TEST(ReceivingThread, LogsAGlobalShutdownAfterTheMessageDuringWhichTheLibraryStopped) {
  Gate release;
  CompletionRecorder done;
  done.hook = [&](const auto&) { EXPECT_TRUE(release.Wait()); };
  SessionHost host;
  RawPeer peer = host.Admit(NAME);
  ASSERT_EQ(TQNotify(NAME.c_str(), 9, {nullptr}, done.Callback(), &done), TQ_ERR_OK);
  const auto request = peer.ReadFrame();
  ASSERT_TRUE(request) << peer.Problem();
  ASSERT_TRUE(peer.SendReply(request->id));
  ASSERT_TRUE(done.WaitForCount(1));
  std::thread shutdown([&] { host.Shutdown(); });
  EXPECT_TRUE(WaitUntil([] { return detail::StopAllRequested(); }));
  release.Open();
  shutdown.join();
  EXPECT_EQ(host.Log().CountOf("Global shutdown: \"raw.host:4711/peer\" stopped"), 1u)
      << host.Log().Dump();
  EXPECT_EQ(host.Log().CountOfPrefix("Local shutdown: "), 0u);
}

TEST(ReceivingThread, LogsAGlobalShutdownWhenAReadFailsWhileTheLibraryStops) {
  Gate release;
  CompletionRecorder done;
  SessionHost host;
  RawPeer peer = host.Admit(NAME);
  const std::string ends = Ends(NAME, peer);
  // The read waits in the middle of a head when the stop comes.
  ASSERT_TRUE(peer.SendBytes({1, 0, 0}));
  EXPECT_TRUE(peer.StaysSilentFor(milliseconds{50}));
  std::thread shutdown([&] { host.Shutdown(); });
  EXPECT_TRUE(WaitUntil([] { return detail::StopAllRequested(); }));
  peer.Close();
  shutdown.join();
  EXPECT_EQ(host.ReceivingThreadLog(NAME),
            AsLogged({InfoLine("Application connected:raw.host:4711/peer"),
                      InfoLine("Receive failed: socket closed"),
                      InfoLine("Global shutdown: \"raw.host:4711/peer\" stopped"),
                      InfoLine("Receiving thread finished for " + ends)}));
}

TEST(ReceivingThread, OfAShutdownLogsEitherTheGlobalOrTheLocalText) {
  SessionHost host;
  RawPeer peer = host.Admit(NAME);
  host.Shutdown();
  EXPECT_EQ(host.Log().CountOf("Global shutdown: \"raw.host:4711/peer\" stopped") +
                host.Log().CountOf("Local shutdown: \"raw.host:4711/peer\" stopped"),
            1u)
      << host.Log().Dump();
  EXPECT_EQ(host.Log().CountOfPrefix("Remote disconnect: "), 0u);
}

TEST(ReceivingThread, LogsAGlobalShutdownWhenItsWaitFailsWhileTheLibraryStops) {
  const LogRecorder log;
  AdmittedSession peer(NAME);
  ASSERT_TRUE(peer.admitted);
  detail::stopAll = 1;
  peer.channel->HangUp();
  ASSERT_TRUE(WaitForSessionEnd(log, NAME));
  EXPECT_EQ(ReceivingThreadLog(log, NAME),
            (Lines{InfoLine("Application connected:raw.host:4711/peer"),
                   InfoLine("Global shutdown: \"raw.host:4711/peer\" stopped"),
                   InfoLine("Receiving thread finished for raw.host:4711/peer:"
                            "script:local<->script:remote")}));
}

TEST(ReceivingThread, LogsNoAddressesWithoutAValidChannel) {
  const LogRecorder log;
  AdmittedSession peer(NAME);
  ASSERT_TRUE(peer.admitted);
  peer.channel->SetValid(false);
  peer.channel->HangUp();
  ASSERT_TRUE(WaitForSessionEnd(log, NAME));
  EXPECT_EQ(log.CountOf("Receiving thread finished for raw.host:4711/peer:<->"), 1u);
  EXPECT_EQ(log.CountOf("Sending thread finished for raw.host:4711/peer:<->"), 1u);
}

// A read of a pipe looks at the stop of its session alone.
TEST(ReceivingThreadOverTcp, NoticesAStopOfTheLibraryThatNobodyWakesItFor) {
  SessionHost host;
  RawPeer peer = host.Admit(NAME);
  // Both threads are in their waits, which take 5 seconds.
  EXPECT_TRUE(peer.StaysSilentFor(milliseconds{50}));
  detail::stopAll = 1;
  ASSERT_TRUE(host.WaitForEnd(NAME));
  EXPECT_EQ(host.Log().CountOf("Global shutdown: \"raw.host:4711/peer\" stopped"), 1u);
  EXPECT_TRUE(peer.WaitClosed());
}

TEST(ReceivingThread, MayDisconnectItsOwnSessionFromACompletionCallback) {
  Gate callbackDone;
  CompletionRecorder done;
  done.hook = [&](const auto& call) {
    const SessionRef session = FindSession(*call.applicationName);
    // Returns at once, without waiting for the thread that it runs on.
    EXPECT_EQ(TQDisconnect(call.applicationName->c_str()), TQ_ERR_OK);
    EXPECT_TRUE(session.IsValid());
    callbackDone.Open();
  };
  SessionHost host;
  RawPeer peer = host.Admit(NAME);
  ASSERT_EQ(TQNotify(NAME.c_str(), 9, {nullptr}, done.Callback(), &done), TQ_ERR_OK);
  const auto request = peer.ReadFrame();
  ASSERT_TRUE(request) << peer.Problem();
  ASSERT_TRUE(peer.SendReply(request->id));
  EXPECT_TRUE(callbackDone.Wait());
  ASSERT_TRUE(host.WaitForEnd(NAME));
  EXPECT_EQ(host.Log().CountOf("Local shutdown: \"raw.host:4711/peer\" stopped"), 1u);
  EXPECT_TRUE(peer.WaitClosed());
}

// ---- the order of the end ----------------------------------------------------------------------

_tag_TQ_ERROR CountNobodyListens(const char* applicationName, unsigned slotId,
                                 _tag_HTQPARAMLIST /*params*/, _tag_HTQPARAMLIST /*result*/,
                                 void* context) {
  if (applicationName == nullptr && slotId == 0) ++*static_cast<std::atomic<int>*>(context);
  return TQ_ERR_OK;
}

TEST(ReceivingThread, TakesItsSubscriptionsOutBeforeTheDisconnectListenerRuns) {
  std::atomic<int> nobody{0};
  ListenerRecorder listeners;
  listeners.onDisconnect = [&](const auto&) {
    EXPECT_EQ(TQEmit("gone", {nullptr}, &CountNobodyListens, &nobody), TQ_ERR_OK);
    EXPECT_EQ(TQEmit("shared", {nullptr}, nullptr, nullptr), TQ_ERR_OK);
  };
  SessionHost host;
  TQRegisterSignal("gone");
  TQRegisterSignal("shared");
  RawPeer peer = host.Admit(NAME);
  RawPeer other = host.Admit("other:1/raw");
  const auto subscribe = [](RawPeer& each, const char* signal, uint32_t slotId) {
    const RawList body = RawList().String("signalName", signal).Int32("slotName", slotId);
    // A call and no notification, so that its reply tells when the subscription stands.
    ASSERT_TRUE(each.SendRequest(1, RAW_CALL, RAW_CONNECT_SIGNAL, body));
    ASSERT_TRUE(each.ReadFrame()) << each.Problem();
  };
  subscribe(peer, "gone", 3);
  subscribe(peer, "gone", 4);
  subscribe(peer, "shared", 5);
  subscribe(other, "shared", 6);
  subscribe(peer, "shared", 7);
  EXPECT_EQ(TQEmit("gone", {nullptr}, nullptr, nullptr), TQ_ERR_OK);
  for (const uint32_t slotId : {3u, 4u}) {
    const auto frame = peer.ReadFrame();
    ASSERT_TRUE(frame) << peer.Problem();
    EXPECT_EQ(frame->slotId, slotId);
  }

  peer.ShutdownWrite();
  ASSERT_TRUE(host.WaitForReceivingEnd(NAME));
  EXPECT_EQ(nobody, 1);
  const auto frame = other.ReadFrame();
  ASSERT_TRUE(frame) << other.Problem();
  EXPECT_EQ(frame->slotId, 6u);
  EXPECT_EQ(peer.ReceiveUntilClosed(), Bytes()) << peer.Problem();
  EXPECT_TRUE(other.StaysSilentFor(milliseconds{20}));
}

TEST(ReceivingThread, RunsTheDisconnectListenerWhileTheSessionIsFoundValidAndNotStopped) {
  std::atomic<bool> valid{false};
  std::atomic<int> stopRequested{-1};
  std::atomic<int> notified{1};
  Gate entered, release;
  ListenerRecorder listeners;
  listeners.onDisconnect = [&](const auto& call) {
    const SessionRef session = FindSession(call.applicationName);
    valid = session.IsValid();
    if (session) stopRequested = session->StopRequested().load();
    notified = TQNotify(call.applicationName.c_str(), 5, {nullptr}, nullptr, nullptr);
    entered.Open();
    EXPECT_TRUE(release.Wait());
  };
  SessionHost host;
  RawPeer peer = host.Admit(NAME);
  const SessionRef session = FindSession(NAME);
  ASSERT_TRUE(session);
  peer.ShutdownWrite();
  ASSERT_TRUE(entered.Wait());
  EXPECT_TRUE(valid);
  EXPECT_EQ(stopRequested, 0);
  EXPECT_EQ(notified, TQ_ERR_OK);
  // The sending thread is still at work.
  EXPECT_TRUE(peer.ReadFrame()) << peer.Problem();
  EXPECT_EQ(host.Log().CountOfPrefix("Removing application "), 0u);
  EXPECT_EQ(host.Log().CountOfPrefix("Receiving thread finished for "), 0u);
  release.Open();
  ASSERT_TRUE(host.WaitForEnd(NAME));
  EXPECT_EQ(session->StopRequested().load(), 1);
  EXPECT_FALSE(FindSession(NAME));
}

TEST(ReceivingThread, LetsRequestsBeCancelledOnlyAfterTheDisconnectListener) {
  Gate entered, release;
  ListenerRecorder listeners;
  listeners.onDisconnect = [&](const auto&) {
    entered.Open();
    EXPECT_TRUE(release.Wait());
  };
  SessionHost host;
  RawPeer peer = host.Admit(NAME);
  const SessionRef session = FindSession(NAME);
  CallInThread call(NAME, 9);
  ASSERT_TRUE(peer.ReadFrame()) << peer.Problem();
  peer.ShutdownWrite();
  ASSERT_TRUE(entered.Wait());
  EXPECT_FALSE(call.WaitReturned(milliseconds{50}));
  release.Open();
  ASSERT_TRUE(call.WaitReturned());
  EXPECT_EQ(call.Result().impl, nullptr);
  // The unanswered request keeps the session; it must not keep it beyond this test.
  ASSERT_TRUE(host.WaitForEnd(NAME));
  session->Awaiting().Clear();
}

TEST(ReceivingThread, EndsTheSendingThreadsWaitAtOnce) {
  SessionHost host;
  EXPECT_TRUE(IsQuickerOnce(milliseconds{4000}, [&](int run) {
    const std::string name = NAME + std::to_string(run);
    RawPeer peer = host.Admit(name);
    // Long enough for the sending thread to be in its wait of 5 seconds.
    EXPECT_TRUE(peer.StaysSilentFor(milliseconds{50}));
    peer.Close();
    EXPECT_TRUE(host.WaitForEnd(name));
  }));
}

TEST(ReceivingThread, StaysValidAfterItHasEndedUntilItIsJoined) {
  SessionHost host;
  RawPeer peer = host.Admit(NAME);
  SessionRef session = FindSession(NAME);
  peer.Close();
  ASSERT_TRUE(host.WaitForEnd(NAME));
  EXPECT_TRUE(session.IsValid());
  session->StopSession();
  EXPECT_FALSE(session.IsValid());
}

TEST(ReceivingThread, LeavesTheChannelToTheSession) {
  SessionHost host;
  RawPeer peer = host.Admit(NAME);
  SessionRef session = FindSession(NAME);
  peer.ShutdownWrite();
  ASSERT_TRUE(host.WaitForEnd(NAME));
  EXPECT_TRUE(peer.StaysSilentFor(milliseconds{50}));
  EXPECT_EQ(host.Log().CountOfPrefix("Closing socket channel("), 0u);
  session.Reset();
  EXPECT_TRUE(peer.WaitClosed());
}

// A write to a pipe takes as long as its peer lets it.
TEST(ReceivingThreadOverTcp, GoesOnReadingWhenTheSendingThreadHasEndedFirst) {
  SessionHost host;
  ScopedSlot slot(7, [](const SlotCall&) {});
  RawPeer peer = host.Admit(NAME, SMALL_RECEIVE_BUFFER);
  SessionHost::SetIoTimeout(SHORT_WRITES);
  const SessionRef session = FindSession(NAME);
  ScopedList big;
  big.Binary("b", Filled(MORE_THAN_BUFFERS, 1));
  CallInThread call(NAME, 9, big.Get());
  // The peer lets the write go on a little each time, until it has taken too long.
  ASSERT_TRUE(WaitUntil([&] {
    std::this_thread::sleep_for(milliseconds{150});
    return peer.ReceiveExactly(65536) && host.Log().CountOfPrefix("Send failed with ") == 1;
  }));
  ASSERT_TRUE(call.WaitReturned());
  EXPECT_NE(call.Result().impl, nullptr);
  ASSERT_TRUE(host.WaitForSendingEnd(NAME));
  EXPECT_FALSE(FindSession(NAME));
  EXPECT_EQ(host.Log().CountOfPrefix("Remote disconnect: "), 0u);
  EXPECT_TRUE(session.IsValid());

  // Calls are dispatched, and their replies stay in a queue that no thread serves any more.
  ASSERT_TRUE(peer.SendRequest(1, RAW_CALL, 7));
  ASSERT_TRUE(peer.SendRequest(2, RAW_CALL, 7));
  ASSERT_TRUE(WaitUntil([&] { return slot.Calls() == 2; }));
  ASSERT_TRUE(WaitUntil([] { return DEBUG_TQObjectCount().messages == 2; }));
  peer.ShutdownWrite();
  ASSERT_TRUE(host.WaitForReceivingEnd(NAME));
  EXPECT_EQ(host.Log().CountOf("Remote disconnect: \"raw.host:4711/peer\" stopped"), 1u);
  EXPECT_EQ(DEBUG_TQObjectCount().messages, 2u);
  // The two replies hold the session; they must not hold it beyond this test.
  session->Outgoing().ReleaseAll();
}

}  // namespace
}  // namespace TQ::test
