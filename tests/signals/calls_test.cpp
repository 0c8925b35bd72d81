// Calls and notifications: what goes out, who waits for what, and what comes back.
#include <tq/messaging.h>

#include "frame/settings.h"
#include "session/application_registry.h"
#include "session/session.h"

#include <tq/tq.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "signals/queue_lock.h"
#include "support/log_recorder.h"
#include "support/raw_peer.h"
#include "support/session_host.h"
#include "support/wait_until.h"

namespace TQ::test {
namespace {

using detail::g_applications;
using detail::LockScope;
using detail::SessionRef;
using std::chrono::milliseconds;

const std::string NAME = "test:1/raw";

SessionRef FindSession(const std::string& name) { return g_applications.Find(name.c_str()); }

/// A session that ends with requests unanswered is kept for good by those requests. This takes them
/// out at the end of the test.
class UnansweredRequests final {
 public:
  explicit UnansweredRequests(const std::string& name) : session(FindSession(name)) {}
  ~UnansweredRequests() { session->Awaiting().Clear(); }
  UnansweredRequests(const UnansweredRequests&) = delete;
  UnansweredRequests& operator=(const UnansweredRequests&) = delete;

 private:
  const SessionRef session;
};

// ---- who can be called -------------------------------------------------------------------------

TEST(Call, OfAnUnknownNameReturnsTheNullHandleAtOnce) {
  EXPECT_EQ(TQCall("nowhere:1/nobody", 7, {nullptr}).impl, nullptr);
  SessionHost host;
  EXPECT_EQ(TQCall("nowhere:1/nobody", 7, {nullptr}).impl, nullptr);
  EXPECT_EQ(TQCall("", 7, {nullptr}).impl, nullptr);
}

TEST(Notify, OfAnUnknownNameSaysThatThereIsNoSession) {
  CompletionRecorder done;
  EXPECT_EQ(TQNotify("nowhere:1/nobody", 7, {nullptr}, nullptr, nullptr), TQ_ERR_NO_SESSION);
  EXPECT_EQ(TQNotify("nowhere:1/nobody", 7, {nullptr}, done.Callback(), &done), TQ_ERR_NO_SESSION);
  EXPECT_EQ(static_cast<int>(TQ_ERR_NO_SESSION), -5);
  EXPECT_EQ(done.Count(), 0u);
}

TEST(Call, KnowsNoSessionUnderItsOwnName) {
  SessionHost host;
  const ScopedSlot slot(7, [](const SlotCall&) {});
  const std::string self = detail::localApplicationName.Copy();
  ASSERT_FALSE(self.empty());
  EXPECT_EQ(TQCall(self.c_str(), 7, {nullptr}).impl, nullptr);
  EXPECT_EQ(TQNotify(self.c_str(), 7, {nullptr}, nullptr, nullptr), TQ_ERR_NO_SESSION);
  EXPECT_EQ(slot.Calls(), 0u);
}

TEST(Call, ComparesNamesByteForByte) {
  SessionHost host;
  RawPeer peer = host.Admit(NAME);
  for (const char* name : {"test:1/ra", "test:1/raww", "TEST:1/raw", "test:1/RAW", "raw", "test"}) {
    EXPECT_EQ(TQCall(name, 7, {nullptr}).impl, nullptr) << name;
    EXPECT_EQ(TQNotify(name, 7, {nullptr}, nullptr, nullptr), TQ_ERR_NO_SESSION) << name;
  }
}

TEST(Call, OfASessionThatIsNotValidReturnsTheNullHandle) {
  g_applications.Set("stale:1/peer", SessionRef(new TQAPPImpl()));
  const uint32_t messages = DEBUG_TQObjectCount().messages;
  EXPECT_EQ(TQCall("stale:1/peer", 7, {nullptr}).impl, nullptr);
  EXPECT_EQ(TQNotify("stale:1/peer", 7, {nullptr}, nullptr, nullptr), TQ_ERR_NO_SESSION);
  EXPECT_EQ(DEBUG_TQObjectCount().messages, messages);
  g_applications.Erase("stale:1/peer");
}

TEST(Call, DoesNotLog) {
  SessionHost host;
  RawPeer peer = host.Admit(NAME);
  host.Log().Clear();
  EXPECT_EQ(TQCall("nowhere:1/nobody", 7, {nullptr}).impl, nullptr);
  EXPECT_EQ(TQNotify("nowhere:1/nobody", 7, {nullptr}, nullptr, nullptr), TQ_ERR_NO_SESSION);
  EXPECT_EQ(TQNotify(NAME.c_str(), 7, {nullptr}, nullptr, nullptr), TQ_ERR_OK);
  ASSERT_TRUE(peer.ReadFrame());
  CallInThread call(NAME, 7);
  const auto frame = peer.ReadFrame();
  ASSERT_TRUE(frame) << peer.Problem();
  peer.SendReply(frame->id);
  ASSERT_TRUE(call.WaitReturned());
  // The listener's own lines about the admission may still come.
  for (const LogLine& line : host.Log().Lines()) {
    EXPECT_EQ(line.text.rfind("ConnectionThread. ", 0), 0u) << line.text;
  }
}

// ---- what goes out and comes back --------------------------------------------------------------

TEST(Call, GoesOutAsACallFrameAndReturnsTheReplysList) {
  SessionHost host;
  RawPeer peer = host.Admit(NAME);
  ScopedList list;
  list.Int32("x", 1);
  CallInThread call(NAME, 0x01020304, list.Get());
  const auto frame = peer.ReadFrame();
  ASSERT_TRUE(frame) << peer.Problem();
  // The first message of the process has the id 1.
  EXPECT_EQ(frame->bytes, RequestBytes(1, RAW_CALL, 0x01020304, RawList().Int32("x", 1)));
  EXPECT_FALSE(call.HasReturned());
  peer.SendReply(1, RawList().Int32("y", 2).String("z", "text"));
  ASSERT_TRUE(call.WaitReturned());
  ASSERT_NE(call.Result().impl, nullptr);
  EXPECT_EQ(TQGetParamCount(call.Result()), 2u);
  EXPECT_EQ(TQGetInt32Value(call.Result(), "y"), 2u);
  EXPECT_STREQ(TQGetStringValue(call.Result(), "z"), "text");
}

TEST(Call, OfNullParamsSendsAnEmptyList) {
  SessionHost host;
  RawPeer peer = host.Admit(NAME);
  CallInThread call(NAME, 7);
  const auto frame = peer.ReadFrame();
  ASSERT_TRUE(frame) << peer.Problem();
  EXPECT_EQ(frame->bytes, RequestHead(1, RAW_CALL, 7, 0, 0));
  peer.SendReply(1);
  ASSERT_TRUE(call.WaitReturned());
}

TEST(Call, ReturnsAValidEmptyListForAnEmptyReply) {
  SessionHost host;
  RawPeer peer = host.Admit(NAME);
  CallInThread call(NAME, 7);
  ASSERT_TRUE(peer.ReadFrame()) << peer.Problem();
  peer.SendReply(1);
  ASSERT_TRUE(call.WaitReturned());
  ASSERT_NE(call.Result().impl, nullptr);
  EXPECT_EQ(TQGetParamCount(call.Result()), 0u);
}

TEST(Call, GivesItsCallerTheOneReferenceOnTheResult) {
  SessionHost host;
  RawPeer peer = host.Admit(NAME);
  const uint32_t before = DEBUG_TQObjectCount().paramLists;
  {
    CallInThread call(NAME, 7);
    ASSERT_TRUE(peer.ReadFrame()) << peer.Problem();
    peer.SendReply(1, RawList().Int32("y", 2));
    ASSERT_TRUE(call.WaitReturned());
    ASSERT_TRUE(WaitUntil([] { return DEBUG_TQObjectCount().messages == 0; }));
    EXPECT_EQ(DEBUG_TQObjectCount().paramLists, before + 1);
    // The list outlives the session that it came from.
    TQDisconnect(NAME.c_str());
    ASSERT_TRUE(SessionHost::WaitForSessions(0));
    EXPECT_EQ(TQGetInt32Value(call.Result(), "y"), 2u);
  }
  EXPECT_EQ(DEBUG_TQObjectCount().paramLists, before);
}

TEST(Call, LeavesTheParamsWithTheirOwner) {
  SessionHost host;
  RawPeer peer = host.Admit(NAME);
  const uint32_t before = DEBUG_TQObjectCount().paramLists;
  {
    ScopedList list;
    list.Int32("x", 1);
    CallInThread call(NAME, 7, list.Get());
    ASSERT_TRUE(peer.ReadFrame()) << peer.Problem();
    peer.SendReply(1);
    ASSERT_TRUE(call.WaitReturned());
    EXPECT_EQ(TQGetInt32Value(list.Get(), "x"), 1u);
    EXPECT_EQ(TQGetParamCount(list.Get()), 1u);
  }
  EXPECT_TRUE(WaitUntil([&] { return DEBUG_TQObjectCount().paramLists == before; }));
}

TEST(Call, UsesTheNameForTheLookUpOnly) {
  SessionHost host;
  RawPeer peer = host.Admit(NAME);
  CompletionRecorder done;
  std::string name = NAME;
  EXPECT_EQ(TQNotify(name.c_str(), 7, {nullptr}, done.Callback(), &done), TQ_ERR_OK);
  name.assign(name.size(), '?');
  const auto frame = peer.ReadFrame();
  ASSERT_TRUE(frame) << peer.Problem();
  peer.SendReply(frame->id);
  ASSERT_TRUE(done.WaitForCount(1));
  EXPECT_EQ(done.Calls()[0].applicationName, NAME);
}

TEST(Notify, WithoutACallbackGoesOutAsANotification) {
  SessionHost host;
  RawPeer peer = host.Admit(NAME);
  ScopedList list;
  list.Int32("x", 1);
  EXPECT_EQ(TQNotify(NAME.c_str(), 7, list.Get(), nullptr, nullptr), TQ_ERR_OK);
  auto frame = peer.ReadFrame();
  ASSERT_TRUE(frame) << peer.Problem();
  EXPECT_EQ(frame->bytes, RequestBytes(1, RAW_NOTIFY, 7, RawList().Int32("x", 1)));
  EXPECT_EQ(TQNotify(NAME.c_str(), 7, {nullptr}, nullptr, nullptr), TQ_ERR_OK);
  frame = peer.ReadFrame();
  ASSERT_TRUE(frame) << peer.Problem();
  EXPECT_EQ(frame->bytes, RequestHead(2, RAW_NOTIFY, 7, 0, 0));
}

TEST(Notify, WithACallbackGoesOutAsACall) {
  SessionHost host;
  RawPeer peer = host.Admit(NAME);
  CompletionRecorder done;
  EXPECT_EQ(TQNotify(NAME.c_str(), 7, {nullptr}, done.Callback(), &done), TQ_ERR_OK);
  const auto frame = peer.ReadFrame();
  ASSERT_TRUE(frame) << peer.Problem();
  EXPECT_EQ(frame->bytes, RequestHead(1, RAW_CALL, 7, 0, 0));
  peer.SendReply(1);
  EXPECT_TRUE(done.WaitForCount(1));
}

TEST(Notify, GivesItsCallbackTheReplyOnTheReceivingThread) {
  SessionHost host;
  RawPeer peer = host.Admit(NAME);
  CompletionRecorder done;
  ScopedList list;
  EXPECT_EQ(TQNotify(NAME.c_str(), 7, list.Get(), done.Callback(), &done), TQ_ERR_OK);
  ASSERT_TRUE(peer.ReadFrame()) << peer.Problem();
  EXPECT_EQ(done.Count(), 0u) << "nothing completes before the reply";
  peer.SendReply(1, RawList().Int32("x", 5).Int32("y", 6));
  ASSERT_TRUE(done.WaitForCount(1));
  const auto call = done.Calls()[0];
  EXPECT_EQ(call.applicationName, NAME);
  EXPECT_EQ(call.slotId, 7u);
  EXPECT_EQ(call.params, list.Get().impl) << "the very list that was sent";
  EXPECT_FALSE(call.resultIsNull);
  EXPECT_EQ(call.resultCount, 2u);
  EXPECT_EQ(call.resultX, 5u);
  EXPECT_EQ(call.thread, host.ReceivingThread(NAME));
  // The result is gone after the callback.
  EXPECT_TRUE(WaitUntil([] { return DEBUG_TQObjectCount().paramLists == 1; }));
  EXPECT_EQ(done.Count(), 1u);
}

TEST(Notify, TakesItsOwnReferenceOnTheListAndNoCopy) {
  CompletionRecorder done;
  SessionHost host;
  RawPeer peer = host.Admit(NAME, SMALL_RECEIVE_BUFFER);
  {
    ScopedList big;
    big.Binary("b", Filled(MORE_THAN_BUFFERS, 1));
    EXPECT_EQ(TQNotify(NAME.c_str(), 1, big.Get(), nullptr, nullptr), TQ_ERR_OK);
    ScopedList list;
    list.Int32("x", 77);
    EXPECT_EQ(TQNotify(NAME.c_str(), 2, list.Get(), nullptr, nullptr), TQ_ERR_OK);
    EXPECT_EQ(DEBUG_TQObjectCount().paramLists, 2u) << "no list is made for a notification";
  }
  // Their owner has closed both, and nothing of them has been read by the peer yet.
  EXPECT_EQ(DEBUG_TQObjectCount().paramLists, 2u);
  ASSERT_TRUE(peer.ReadFrame()) << peer.Problem();
  const auto frame = peer.ReadFrame();
  ASSERT_TRUE(frame) << peer.Problem();
  EXPECT_EQ(frame->list, RawList().Int32("x", 77));
  EXPECT_TRUE(WaitUntil([] { return DEBUG_TQObjectCount().paramLists == 0; }));
}

TEST(Notify, ReturnsWithoutWaitingForThePeer) {
  SessionHost host;
  RawPeer peer = host.Admit(NAME, SMALL_RECEIVE_BUFFER);
  ScopedList big;
  big.Binary("b", Filled(MORE_THAN_BUFFERS, 1));
  // The first cannot be written while the peer does not read, and the others stand behind it.
  for (int i = 0; i < 5; ++i) {
    EXPECT_EQ(TQNotify(NAME.c_str(), 1, big.Get(), nullptr, nullptr), TQ_ERR_OK);
  }
  EXPECT_GE(DEBUG_TQObjectCount().messages, 4u);
  peer.Reset();
  ASSERT_TRUE(host.WaitForEnd(NAME));
}

TEST(Requests, HaveIdsThatCountUpThroughAllSessions) {
  SessionHost host;
  RawPeer first = host.Admit("test:1/first");
  RawPeer second = host.Admit("test:1/second");
  for (uint32_t round = 0; round < 3; ++round) {
    EXPECT_EQ(TQNotify("test:1/first", 7, {nullptr}, nullptr, nullptr), TQ_ERR_OK);
    EXPECT_EQ(TQNotify("test:1/second", 7, {nullptr}, nullptr, nullptr), TQ_ERR_OK);
    const auto one = first.ReadFrame();
    const auto two = second.ReadFrame();
    ASSERT_TRUE(one && two);
    EXPECT_EQ(one->id, round * 2 + 1);
    EXPECT_EQ(two->id, round * 2 + 2);
  }
}

TEST(Call, IsMatchedWithItsReplyByTheIdAlone) {
  SessionHost host;
  RawPeer peer = host.Admit(NAME);
  CallInThread first(NAME, 1);
  CallInThread second(NAME, 2);
  CallInThread third(NAME, 3);
  std::vector<RawFrame> frames;
  for (int i = 0; i < 3; ++i) {
    auto frame = peer.ReadFrame();
    ASSERT_TRUE(frame) << peer.Problem();
    frames.push_back(std::move(*frame));
  }
  for (auto frame = frames.rbegin(); frame != frames.rend(); ++frame) {
    peer.SendReply(frame->id, RawList().Int32("slot", frame->slotId));
  }
  ASSERT_TRUE(first.WaitReturned() && second.WaitReturned() && third.WaitReturned());
  EXPECT_EQ(TQGetInt32Value(first.Result(), "slot"), 1u);
  EXPECT_EQ(TQGetInt32Value(second.Result(), "slot"), 2u);
  EXPECT_EQ(TQGetInt32Value(third.Result(), "slot"), 3u);
}

// ---- what is locked ----------------------------------------------------------------------------

// Takes the registry's lock on another thread and tells whether that could be done in time.
bool RegistryCanBeLockedWithin(milliseconds timeout, std::thread* locker, Gate* locked) {
  *locker = std::thread([locked] {
    LockScope held(g_applications.applicationsLock);
    locked->Open();
  });
  return locked->Wait(timeout);
}

TEST(Notify, PushesWithNoLockHeld) {
  SessionHost host;
  RawPeer peer = host.Admit(NAME);
  const SessionRef session = FindSession(NAME);
  std::thread notifier;
  std::thread locker;
  Gate locked;
  {
    LockScope held(LockOf(session->Outgoing()));
    notifier = std::thread(
        [] { EXPECT_EQ(TQNotify(NAME.c_str(), 7, {nullptr}, nullptr, nullptr), TQ_ERR_OK); });
    // The message exists, so the look-up is over; its push cannot end while the queue is locked.
    EXPECT_TRUE(WaitUntil([] { return DEBUG_TQObjectCount().messages == 1; }));
    EXPECT_TRUE(RegistryCanBeLockedWithin(DEFAULT_DEADLINE, &locker, &locked));
  }
  notifier.join();
  locker.join();
  EXPECT_TRUE(peer.ReadFrame());
}

TEST(Call, HoldsTheRegistrysLockThroughThePush) {
  SessionHost host;
  RawPeer peer = host.Admit(NAME);
  const SessionRef session = FindSession(NAME);
  std::optional<CallInThread> call;
  std::thread locker;
  Gate locked;
  {
    LockScope held(LockOf(session->Outgoing()));
    call.emplace(NAME, 7);
    EXPECT_TRUE(WaitUntil([] { return DEBUG_TQObjectCount().messages == 1; }));
    EXPECT_FALSE(RegistryCanBeLockedWithin(milliseconds(150), &locker, &locked));
  }
  EXPECT_TRUE(locked.Wait()) << "it is let go before the call waits for its reply";
  locker.join();
  const auto frame = peer.ReadFrame();
  ASSERT_TRUE(frame) << peer.Problem();
  EXPECT_FALSE(call->HasReturned());
  peer.SendReply(frame->id);
  EXPECT_TRUE(call->WaitReturned());
}

TEST(Call, LetsEveryOtherLookUpPassWhileItWaitsForItsReply) {
  SessionHost host;
  RawPeer peer = host.Admit(NAME);
  CallInThread call(NAME, 7);
  const auto frame = peer.ReadFrame();
  ASSERT_TRUE(frame) << peer.Problem();
  EXPECT_EQ(TQNotify(NAME.c_str(), 8, {nullptr}, nullptr, nullptr), TQ_ERR_OK);
  EXPECT_EQ(TQCall("nowhere:1/nobody", 7, {nullptr}).impl, nullptr);
  RawPeer another = host.Admit("test:1/another");
  peer.SendReply(frame->id);
  EXPECT_TRUE(call.WaitReturned());
}

// ---- the session ends --------------------------------------------------------------------------

// Fills the way to a peer that does not read, so that whatever comes next stays queued.
void BlockTheWay(RawPeer& peer) {
  ScopedList big;
  big.Binary("b", Filled(MORE_THAN_BUFFERS, 1));
  ASSERT_EQ(TQNotify(NAME.c_str(), 1, big.Get(), nullptr, nullptr), TQ_ERR_OK);
  ASSERT_TRUE(peer.ReceiveExactly(20)) << "the write has begun";
}

TEST(Cancellation, OfAQueuedCallReturnsTheNullHandle) {
  SessionHost host;
  RawPeer peer = host.Admit(NAME, SMALL_RECEIVE_BUFFER);
  BlockTheWay(peer);
  CallInThread call(NAME, 7);
  ASSERT_TRUE(WaitUntil([] { return DEBUG_TQObjectCount().messages == 2; }));
  EXPECT_FALSE(call.HasReturned());
  TQDisconnect(NAME.c_str());
  peer.Reset();
  ASSERT_TRUE(call.WaitReturned());
  EXPECT_EQ(call.Result().impl, nullptr);
}

TEST(Cancellation, OfAQueuedNotificationRunsItsCallbackOnceOnTheSendingThread) {
  SessionHost host;
  RawPeer peer = host.Admit(NAME, SMALL_RECEIVE_BUFFER);
  BlockTheWay(peer);
  CompletionRecorder done;
  ScopedList list;
  EXPECT_EQ(TQNotify(NAME.c_str(), 7, list.Get(), done.Callback(), &done), TQ_ERR_OK);
  TQDisconnect(NAME.c_str());
  peer.Reset();
  ASSERT_TRUE(host.WaitForSendingEnd(NAME));
  ASSERT_EQ(done.Count(), 1u);
  const auto call = done.Calls()[0];
  EXPECT_EQ(call.applicationName, NAME);
  EXPECT_EQ(call.slotId, 7u);
  EXPECT_EQ(call.params, list.Get().impl);
  EXPECT_TRUE(call.resultIsNull);
  EXPECT_EQ(call.thread, host.SendingThread(NAME));
}

TEST(Cancellation, OfAWrittenCallReturnsTheNullHandle) {
  SessionHost host;
  RawPeer peer = host.Admit(NAME);
  const UnansweredRequests kept(NAME);
  CallInThread call(NAME, 7);
  ASSERT_TRUE(peer.ReadFrame()) << peer.Problem();
  peer.Close();
  ASSERT_TRUE(call.WaitReturned());
  EXPECT_EQ(call.Result().impl, nullptr);
  EXPECT_TRUE(host.WaitForEnd(NAME));
}

TEST(Cancellation, OfAWrittenNotificationRunsItsCallbackOnceOnTheSendingThread) {
  CompletionRecorder done;
  SessionHost host;
  RawPeer peer = host.Admit(NAME);
  const UnansweredRequests kept(NAME);
  EXPECT_EQ(TQNotify(NAME.c_str(), 7, {nullptr}, done.Callback(), &done), TQ_ERR_OK);
  ASSERT_TRUE(peer.ReadFrame()) << peer.Problem();
  peer.Close();
  ASSERT_TRUE(host.WaitForEnd(NAME));
  ASSERT_EQ(done.Count(), 1u);
  const auto call = done.Calls()[0];
  EXPECT_EQ(call.applicationName, NAME);
  EXPECT_EQ(call.slotId, 7u);
  EXPECT_TRUE(call.resultIsNull);
  EXPECT_EQ(call.thread, host.SendingThread(NAME));
}

TEST(Cancellation, OfAnAnsweredRequestDoesNotHappen) {
  CompletionRecorder done;
  SessionHost host;
  RawPeer peer = host.Admit(NAME);
  EXPECT_EQ(TQNotify(NAME.c_str(), 7, {nullptr}, done.Callback(), &done), TQ_ERR_OK);
  ASSERT_TRUE(peer.ReadFrame()) << peer.Problem();
  peer.SendReply(1);
  ASSERT_TRUE(done.WaitForCount(1));
  peer.Close();
  ASSERT_TRUE(host.WaitForEnd(NAME));
  EXPECT_EQ(done.Count(), 1u);
}

// A session whose receiving thread is kept in the connect listener, with its connection broken: the
// next write fails, and nothing but that write tells of the break.
class BrokenConnection final {
 public:
  BrokenConnection() {
    listeners.onConnect = [this](const ListenerRecorder::ConnectCall&) {
      connected.Open();
      EXPECT_TRUE(mayGoOn.Wait());
    };
    RawPeer peer = host.Admit(NAME);
    EXPECT_TRUE(connected.Wait());
    peer.Reset();
  }
  ~BrokenConnection() {
    mayGoOn.Open();
    EXPECT_TRUE(host.WaitForEnd(NAME));
  }

  Gate connected;
  Gate mayGoOn;
  ListenerRecorder listeners;
  SessionHost host;
};

TEST(FailedWrite, OfACallReturnsItsOwnEmptyList) {
  BrokenConnection broken;
  const _tag_HTQPARAMLIST result = TQCall(NAME.c_str(), 7, {nullptr});
  ASSERT_NE(result.impl, nullptr);
  EXPECT_EQ(TQGetParamCount(result), 0u);
  TQCloseHandle(result);
}

TEST(FailedWrite, OfANotificationGivesItsCallbackAnEmptyListOnTheDispatcher) {
  CompletionRecorder done;
  std::atomic<std::thread::id> dispatcher{};
  const ScopedSlot slot(5, [&](const SlotCall&) { dispatcher = std::this_thread::get_id(); });
  BrokenConnection broken;
  EXPECT_EQ(TQNotify(NAME.c_str(), 7, {nullptr}, done.Callback(), &done), TQ_ERR_OK);
  ASSERT_TRUE(done.WaitForCount(1));
  broken.mayGoOn.Open();
  RawPeer other = broken.host.Admit("test:1/other");
  other.SendRequest(1, RAW_CALL, 5);
  ASSERT_TRUE(other.ReadFrame()) << other.Problem();
  const auto call = done.Calls()[0];
  EXPECT_EQ(call.applicationName, NAME);
  EXPECT_EQ(call.slotId, 7u);
  EXPECT_FALSE(call.resultIsNull);
  EXPECT_EQ(call.resultCount, 0u);
  EXPECT_EQ(call.thread, dispatcher.load());
  EXPECT_EQ(done.Count(), 1u);
}

TEST(FailedWrite, CancelsWhatStandsBehindIt) {
  CompletionRecorder first;
  CompletionRecorder second;
  BrokenConnection broken;
  const SessionRef session = FindSession(NAME);
  {
    // The end of the session waits for this lock, and so comes after both are queued.
    LockScope held(g_applications.applicationsLock);
    EXPECT_EQ(TQNotify(NAME.c_str(), 7, {nullptr}, first.Callback(), &first), TQ_ERR_OK);
    EXPECT_EQ(TQNotify(NAME.c_str(), 8, {nullptr}, second.Callback(), &second), TQ_ERR_OK);
  }
  ASSERT_TRUE(first.WaitForCount(1));
  ASSERT_TRUE(second.WaitForCount(1));
  EXPECT_FALSE(first.Calls()[0].resultIsNull);
  EXPECT_TRUE(second.Calls()[0].resultIsNull);
  EXPECT_NE(first.Calls()[0].thread, second.Calls()[0].thread);
}

TEST(FailedWrite, OfANotificationWithoutCallbackIsPassedOver) {
  BrokenConnection broken;
  EXPECT_EQ(TQNotify(NAME.c_str(), 7, {nullptr}, nullptr, nullptr), TQ_ERR_OK);
  ASSERT_TRUE(WaitUntil([] { return DEBUG_TQObjectCount().messages == 0; }));
  // The session goes on until somebody notices.
  EXPECT_EQ(TQNotify(NAME.c_str(), 7, {nullptr}, nullptr, nullptr), TQ_ERR_OK);
}

// ---- calls from callbacks ----------------------------------------------------------------------

TEST(CallFromACallback, OfACancellationFailsAtOnce) {
  CompletionRecorder done;
  std::atomic<int> nullResults{0};
  done.hook = [&](const CompletionRecorder::Call&) {
    if (TQCall(NAME.c_str(), 9, {nullptr}).impl == nullptr) {
      ++nullResults;
    }
    EXPECT_EQ(TQNotify(NAME.c_str(), 9, {nullptr}, nullptr, nullptr), TQ_ERR_NO_SESSION);
  };
  SessionHost host;
  RawPeer peer = host.Admit(NAME, SMALL_RECEIVE_BUFFER);
  const UnansweredRequests kept(NAME);
  EXPECT_EQ(TQNotify(NAME.c_str(), 7, {nullptr}, done.Callback(), &done), TQ_ERR_OK);
  ASSERT_TRUE(peer.ReadFrame()) << peer.Problem();
  BlockTheWay(peer);
  EXPECT_EQ(TQNotify(NAME.c_str(), 8, {nullptr}, done.Callback(), &done), TQ_ERR_OK);
  TQDisconnect(NAME.c_str());
  peer.Reset();
  ASSERT_TRUE(host.WaitForSendingEnd(NAME));
  ASSERT_EQ(done.Count(), 2u);
  EXPECT_EQ(done.Calls()[0].slotId, 8u) << "the queue is drained first";
  EXPECT_EQ(nullResults, 2);
}

TEST(CallFromACallback, OfAReplyWorksToAnotherSession) {
  CompletionRecorder done;
  std::atomic<uint32_t> answer{0};
  done.hook = [&](const CompletionRecorder::Call&) {
    const _tag_HTQPARAMLIST result = TQCall("test:1/other", 9, {nullptr});
    answer = TQGetInt32Value(result, "x");
    TQCloseHandle(result);
  };
  SessionHost host;
  RawPeer peer = host.Admit(NAME);
  RawPeer other = host.Admit("test:1/other");
  EXPECT_EQ(TQNotify(NAME.c_str(), 7, {nullptr}, done.Callback(), &done), TQ_ERR_OK);
  ASSERT_TRUE(peer.ReadFrame()) << peer.Problem();
  peer.SendReply(1);
  const auto nested = other.ReadFrame();
  ASSERT_TRUE(nested) << other.Problem();
  other.SendReply(nested->id, RawList().Int32("x", 4));
  EXPECT_TRUE(WaitUntil([&] { return answer == 4; }));
  EXPECT_TRUE(done.WaitForCount(1));
}

TEST(CallFromACallback, OfASlotWorksAndHoldsUpAllOtherSlots) {
  SessionHost host;
  const ScopedSlot slot(5, [](const SlotCall& call) {
    const _tag_HTQPARAMLIST result = TQCall(NAME.c_str(), 9, {nullptr});
    TQSetInt32Value(call.result, "x", TQGetInt32Value(result, "x") + 1);
    TQCloseHandle(result);
  });
  const ScopedSlot quick(6, [](const SlotCall&) {});
  RawPeer peer = host.Admit(NAME);
  RawPeer other = host.Admit("test:1/other");
  peer.SendRequest(50, RAW_CALL, 5);
  const auto nested = peer.ReadFrame();
  ASSERT_TRUE(nested) << peer.Problem();
  EXPECT_EQ(nested->kind, RAW_CALL);
  EXPECT_EQ(nested->slotId, 9u);
  // Every other call of the process waits meanwhile.
  other.SendRequest(60, RAW_CALL, 6);
  EXPECT_TRUE(other.StaysSilentFor(milliseconds(150)));
  EXPECT_EQ(quick.Calls(), 0u);
  peer.SendReply(nested->id, RawList().Int32("x", 10));
  const auto reply = peer.ReadFrame();
  ASSERT_TRUE(reply) << peer.Problem();
  EXPECT_EQ(reply->id, 50u);
  EXPECT_EQ(reply->list, RawList().Int32("x", 11));
  const auto late = other.ReadFrame();
  ASSERT_TRUE(late) << other.Problem();
  EXPECT_EQ(late->id, 60u);
}

TEST(NotifyFromACallback, IsAllowedEverywhere) {
  CompletionRecorder done;
  std::atomic<int> accepted{0};
  const auto notify = [&] {
    if (TQNotify(NAME.c_str(), 9, {nullptr}, nullptr, nullptr) == TQ_ERR_OK) {
      ++accepted;
    }
  };
  done.hook = [&](const CompletionRecorder::Call&) { notify(); };
  ListenerRecorder listeners;
  listeners.onConnect = [&](const ListenerRecorder::ConnectCall&) { notify(); };
  listeners.onDisconnect = [&](const ListenerRecorder::DisconnectCall&) { notify(); };
  const ScopedSlot slot(5, [&](const SlotCall&) { notify(); });
  SessionHost host;
  RawPeer peer = host.Admit(NAME);
  ASSERT_TRUE(peer.ReadFrame()) << "from the connect listener: " << peer.Problem();
  peer.SendRequest(50, RAW_CALL, 5);
  ASSERT_TRUE(peer.ReadFrame()) << "from the slot: " << peer.Problem();
  ASSERT_TRUE(peer.ReadFrame()) << peer.Problem();
  EXPECT_EQ(TQNotify(NAME.c_str(), 7, {nullptr}, done.Callback(), &done), TQ_ERR_OK);
  const auto request = peer.ReadFrame();
  ASSERT_TRUE(request) << peer.Problem();
  peer.SendReply(request->id);
  ASSERT_TRUE(peer.ReadFrame()) << "from the completion callback: " << peer.Problem();
  peer.Close();
  ASSERT_TRUE(host.WaitForEnd(NAME));
  EXPECT_EQ(accepted, 4);
}

}  // namespace
}  // namespace TQ::test
