// Emitting a signal: who gets it, in which order, and what the emitter learns.
#include <tq/messaging.h>

#include "frame/locks.h"
#include "session/application_registry.h"
#include "session/session.h"
#include "signals/signal_table.h"

#include <tq/tq.h>

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "signals/queue_lock.h"
#include "support/raw_peer.h"
#include "support/session_host.h"

namespace TQ::test {
namespace {

using detail::g_applications;
using detail::g_signals;
using detail::LockScope;
using detail::SessionRef;
using std::chrono::milliseconds;

const std::string NAME = "test:1/raw";

// Subscribes the peer, and waits until that has been dealt with.
void Subscribe(RawPeer& peer, const char* signal, uint32_t slotId) {
  peer.SendRequest(1, RAW_NOTIFY, RAW_CONNECT_SIGNAL,
                   RawList().String("signalName", signal).Int32("slotName", slotId));
  peer.SendRequest(2, RAW_CALL, 0x5EED);
  ASSERT_TRUE(peer.ReadFrame()) << peer.Problem();
}

// The peer's next frame is the answer to a call of its own: nothing was sent to it before.
::testing::AssertionResult HasHeardNothing(RawPeer& peer) {
  peer.SendRequest(77, RAW_CALL, 0x5EED);
  const auto frame = peer.ReadFrame();
  if (!frame) {
    return ::testing::AssertionFailure() << peer.Problem();
  }
  if (frame->kind != RAW_REPLY || frame->id != 77) {
    return ::testing::AssertionFailure() << "a frame for slot " << frame->slotId;
  }
  return ::testing::AssertionSuccess();
}

// ---- nobody listens ----------------------------------------------------------------------------

TEST(Emit, OfASignalThatIsNotRegisteredSaysSoAndRunsNoCallback) {
  CompletionRecorder done;
  EXPECT_EQ(TQEmit("ticks", {nullptr}, done.Callback(), &done), TQ_ERR_NO_SUCH_SIGNAL);
  EXPECT_EQ(TQEmit("ticks", {nullptr}, nullptr, nullptr), TQ_ERR_NO_SUCH_SIGNAL);
  EXPECT_EQ(TQEmitWithFlow(1, "ticks", {nullptr}, done.Callback(), &done), TQ_ERR_NO_SUCH_SIGNAL);
  TQRegisterSignal("ticks");
  EXPECT_EQ(TQEmit("Ticks", {nullptr}, done.Callback(), &done), TQ_ERR_NO_SUCH_SIGNAL);
  EXPECT_EQ(done.Count(), 0u);
}

TEST(Emit, ToNobodyWithoutACallbackDoesNothing) {
  TQRegisterSignal("ticks");
  EXPECT_EQ(TQEmit("ticks", {nullptr}, nullptr, nullptr), TQ_ERR_OK);
  EXPECT_EQ(DEBUG_TQObjectCount().messages, 0u);
}

TEST(Emit, ToNobodyTellsTheCallbackAtOnceOnThisThread) {
  TQRegisterSignal("ticks");
  CompletionRecorder done;
  const ScopedList list;
  EXPECT_EQ(TQEmit("ticks", list.Get(), done.Callback(), &done), TQ_ERR_OK);
  ASSERT_EQ(done.Count(), 1u);
  const auto call = done.Calls()[0];
  EXPECT_FALSE(call.applicationName.has_value()) << "a null name";
  EXPECT_EQ(call.slotId, 0u);
  EXPECT_EQ(call.params, list.Get().impl);
  EXPECT_TRUE(call.resultIsNull);
  EXPECT_EQ(call.thread, std::this_thread::get_id());
}

TEST(Emit, ToNobodyWithAFlowIdTellsTheCallbackToo) {
  TQRegisterSignal("ticks");
  CompletionRecorder done;
  const ScopedList list;
  EXPECT_EQ(TQEmitWithFlow(9, "ticks", list.Get(), done.Callback(), &done), TQ_ERR_OK);
  EXPECT_EQ(done.Count(), 1u);
  EXPECT_EQ(TQGetInt32Value(list.Get(), "...FlowID"), 9u);
}

TEST(Emit, ToNobodyRunsTheCallbackWithoutTheTablesLock) {
  TQRegisterSignal("ticks");
  CompletionRecorder done;
  done.hook = [](const CompletionRecorder::Call&) {
    Gate registered;
    std::thread other([&] {
      TQRegisterSignal("tocks");
      registered.Open();
    });
    EXPECT_TRUE(registered.Wait());
    other.join();
  };
  EXPECT_EQ(TQEmit("ticks", {nullptr}, done.Callback(), &done), TQ_ERR_OK);
  EXPECT_EQ(done.Count(), 1u);
}

TEST(Emit, MayRunInTheCallbackOfAnEmit) {
  TQRegisterSignal("ticks");
  CompletionRecorder done;
  done.hook = [&](const CompletionRecorder::Call&) {
    if (done.Count() == 1) {
      TQRegisterSignal("tocks");
      EXPECT_EQ(TQEmit("tocks", {nullptr}, done.Callback(), &done), TQ_ERR_OK);
    }
  };
  EXPECT_EQ(TQEmit("ticks", {nullptr}, done.Callback(), &done), TQ_ERR_OK);
  EXPECT_EQ(done.Count(), 2u);
}

// ---- somebody listens --------------------------------------------------------------------------

TEST(Emit, SendsOneNotificationToEachSubscriberInTheOrderOfSubscription) {
  SessionHost host;
  TQRegisterSignal("ticks");
  RawPeer peer = host.Admit(NAME);
  for (const uint32_t slotId : {9u, 3u, 7u, 3u}) {
    Subscribe(peer, "ticks", slotId);
  }
  ScopedList list;
  list.Int32("x", 5);
  EXPECT_EQ(TQEmit("ticks", list.Get(), nullptr, nullptr), TQ_ERR_OK);
  uint32_t lastId = 0;
  for (const uint32_t slotId : {9u, 3u, 7u, 3u}) {
    const auto frame = peer.ReadFrame();
    ASSERT_TRUE(frame) << peer.Problem();
    EXPECT_EQ(frame->kind, RAW_NOTIFY);
    EXPECT_EQ(frame->slotId, slotId);
    EXPECT_EQ(frame->list, RawList().Int32("x", 5));
    EXPECT_GT(frame->id, lastId) << "each subscriber has a message of its own";
    lastId = frame->id;
  }
  EXPECT_TRUE(HasHeardNothing(peer));
}

TEST(Emit, ServesSeveralSessionsInTheOrderOfSubscription) {
  SessionHost host;
  TQRegisterSignal("ticks");
  // The names sort the other way round.
  RawPeer first = host.Admit("test:1/z");
  RawPeer second = host.Admit("test:1/m");
  RawPeer third = host.Admit("test:1/a");
  Subscribe(first, "ticks", 1);
  Subscribe(second, "ticks", 1);
  Subscribe(third, "ticks", 1);
  EXPECT_EQ(TQEmit("ticks", {nullptr}, nullptr, nullptr), TQ_ERR_OK);
  const auto one = first.ReadFrame();
  const auto two = second.ReadFrame();
  const auto three = third.ReadFrame();
  ASSERT_TRUE(one && two && three);
  EXPECT_LT(one->id, two->id);
  EXPECT_LT(two->id, three->id);
}

TEST(Emit, SharesOneListAmongAllSubscribers) {
  SessionHost host;
  TQRegisterSignal("ticks");
  RawPeer peer = host.Admit(NAME);
  for (const uint32_t slotId : {1u, 2u, 3u}) {
    Subscribe(peer, "ticks", slotId);
  }
  ASSERT_TRUE(WaitUntil([] { return DEBUG_TQObjectCount().paramLists == 0; }));
  const ScopedList list;
  const SessionRef session = g_applications.Find(NAME.c_str());
  std::thread emitter;
  {
    LockScope held(LockOf(session->Outgoing()));
    emitter = std::thread([&] { TQEmit("ticks", list.Get(), nullptr, nullptr); });
    ASSERT_TRUE(WaitUntil([] { return DEBUG_TQObjectCount().messages >= 1; }));
  }
  emitter.join();
  EXPECT_EQ(DEBUG_TQObjectCount().paramLists, 1u);
  for (int i = 0; i < 3; ++i) {
    ASSERT_TRUE(peer.ReadFrame()) << peer.Problem();
  }
}

TEST(Emit, WithACallbackSendsCallsAndCompletesOnceForEachSubscriber) {
  CompletionRecorder done;
  SessionHost host;
  TQRegisterSignal("ticks");
  RawPeer first = host.Admit("test:1/first");
  RawPeer second = host.Admit("test:1/second");
  Subscribe(first, "ticks", 5);
  Subscribe(second, "ticks", 6);
  const ScopedList list;
  EXPECT_EQ(TQEmit("ticks", list.Get(), done.Callback(), &done), TQ_ERR_OK);
  const auto toFirst = first.ReadFrame();
  const auto toSecond = second.ReadFrame();
  ASSERT_TRUE(toFirst && toSecond);
  EXPECT_EQ(toFirst->kind, RAW_CALL);
  EXPECT_EQ(toSecond->kind, RAW_CALL);
  EXPECT_EQ(done.Count(), 0u) << "an emit does not wait, and nothing has been answered";

  second.SendReply(toSecond->id, RawList().Int32("x", 2));
  ASSERT_TRUE(done.WaitForCount(1));
  first.SendReply(toFirst->id, RawList().Int32("x", 1));
  ASSERT_TRUE(done.WaitForCount(2));
  const auto calls = done.Calls();
  EXPECT_EQ(calls[0].applicationName, "test:1/second");
  EXPECT_EQ(calls[0].slotId, 6u);
  EXPECT_EQ(calls[0].resultX, 2u);
  EXPECT_EQ(calls[1].applicationName, "test:1/first");
  EXPECT_EQ(calls[1].slotId, 5u);
  EXPECT_EQ(calls[1].resultX, 1u);
  EXPECT_EQ(calls[0].params, list.Get().impl);
  EXPECT_EQ(calls[1].params, list.Get().impl);
}

TEST(Emit, OfOneSignalDoesNotReachTheSubscribersOfAnother) {
  SessionHost host;
  TQRegisterSignal("ticks");
  TQRegisterSignal("tocks");
  RawPeer peer = host.Admit(NAME);
  Subscribe(peer, "tocks", 5);
  EXPECT_EQ(TQEmit("ticks", {nullptr}, nullptr, nullptr), TQ_ERR_OK);
  EXPECT_TRUE(HasHeardNothing(peer));
}

TEST(Emit, PassesOverASubscriberWithoutASessionAndKeepsIt) {
  CompletionRecorder done;
  SessionHost host;
  TQRegisterSignal("ticks");
  RawPeer peer = host.Admit(NAME);
  {
    // Its session is not valid, and so it has no name that leads anywhere.
    LockScope held(g_signals.lock);
    g_signals.Find("ticks")->push_back({SessionRef(new TQAPPImpl()), 1});
  }
  Subscribe(peer, "ticks", 5);
  for (int round = 0; round < 2; ++round) {
    EXPECT_EQ(TQEmit("ticks", {nullptr}, nullptr, nullptr), TQ_ERR_OK);
    const auto frame = peer.ReadFrame();
    ASSERT_TRUE(frame) << peer.Problem();
    EXPECT_EQ(frame->slotId, 5u);
  }
  {
    LockScope held(g_signals.lock);
    EXPECT_EQ(g_signals.Find("ticks")->size(), 2u);
  }
  // Even alone it counts: nobody is told that nobody listens.
  TQRegisterSignal("ticks");
  {
    LockScope held(g_signals.lock);
    g_signals.Find("ticks")->push_back({SessionRef(new TQAPPImpl()), 1});
  }
  EXPECT_EQ(TQEmit("ticks", {nullptr}, done.Callback(), &done), TQ_ERR_OK);
  EXPECT_EQ(done.Count(), 0u);
  TQUnregisterSignal("ticks");
}

TEST(Emit, AddressesSubscribersByTheNameOfTheirSession) {
  SessionHost host;
  TQRegisterSignal("ticks");
  RawPeer peer = host.Admit(NAME);
  Subscribe(peer, "ticks", 5);
  // With the name gone from the registry the session runs on, out of reach.
  const SessionRef session = g_applications.Find(NAME.c_str());
  g_applications.Erase(NAME);
  EXPECT_EQ(TQEmit("ticks", {nullptr}, nullptr, nullptr), TQ_ERR_OK);
  g_applications.Set(NAME, session);
  EXPECT_TRUE(HasHeardNothing(peer));
  EXPECT_EQ(TQEmit("ticks", {nullptr}, nullptr, nullptr), TQ_ERR_OK);
  const auto frame = peer.ReadFrame();
  ASSERT_TRUE(frame) << peer.Problem();
  EXPECT_EQ(frame->slotId, 5u);
}

TEST(Emit, DoesNotWaitForDelivery) {
  SessionHost host;
  TQRegisterSignal("ticks");
  RawPeer peer = host.Admit(NAME, SMALL_RECEIVE_BUFFER);
  Subscribe(peer, "ticks", 5);
  ScopedList big;
  big.Binary("b", Filled(MORE_THAN_BUFFERS, 1));
  for (int i = 0; i < 4; ++i) {
    EXPECT_EQ(TQEmit("ticks", big.Get(), nullptr, nullptr), TQ_ERR_OK);
  }
  EXPECT_GE(DEBUG_TQObjectCount().messages, 3u);
  peer.Reset();
  ASSERT_TRUE(host.WaitForEnd(NAME));
}

TEST(Emit, HoldsTheTablesLockThroughItsWholeWalk) {
  SessionHost host;
  TQRegisterSignal("ticks");
  RawPeer first = host.Admit("test:1/first");
  RawPeer second = host.Admit("test:1/second");
  Subscribe(first, "ticks", 5);
  Subscribe(second, "ticks", 6);
  ASSERT_TRUE(WaitUntil([] { return DEBUG_TQObjectCount().messages == 0; }));
  const SessionRef session = g_applications.Find("test:1/first");
  std::thread emitter;
  std::thread registrar;
  Gate registered;
  {
    LockScope held(LockOf(session->Outgoing()));
    emitter =
        std::thread([] { EXPECT_EQ(TQEmit("ticks", {nullptr}, nullptr, nullptr), TQ_ERR_OK); });
    // The emit stands in its push for the first of the two.
    ASSERT_TRUE(WaitUntil([] { return DEBUG_TQObjectCount().messages == 1; }));
    registrar = std::thread([&] {
      TQRegisterSignal("ticks");
      registered.Open();
    });
    EXPECT_FALSE(registered.Wait(milliseconds(150)));
  }
  emitter.join();
  registrar.join();
  // The emit saw one whole list, and the registration came after it.
  EXPECT_TRUE(first.ReadFrame());
  EXPECT_TRUE(second.ReadFrame());
  CompletionRecorder nobody;
  EXPECT_EQ(TQEmit("ticks", {nullptr}, nobody.Callback(), &nobody), TQ_ERR_OK);
  EXPECT_EQ(nobody.Count(), 1u);
}

TEST(Emit, IsAllowedInASlot) {
  SessionHost host;
  TQRegisterSignal("ticks");
  const ScopedSlot slot(8, [](const SlotCall&) {
    EXPECT_EQ(TQEmit("ticks", {nullptr}, nullptr, nullptr), TQ_ERR_OK);
  });
  RawPeer peer = host.Admit(NAME);
  Subscribe(peer, "ticks", 5);
  peer.SendRequest(10, RAW_CALL, 8);
  const auto signal = peer.ReadFrame();
  ASSERT_TRUE(signal) << peer.Problem();
  EXPECT_EQ(signal->slotId, 5u);
  const auto reply = peer.ReadFrame();
  ASSERT_TRUE(reply) << peer.Problem();
  EXPECT_EQ(reply->id, 10u);
}

TEST(Emit, AfterTheSubscribersSessionEndedFindsNobody) {
  SessionHost host;
  TQRegisterSignal("ticks");
  {
    RawPeer peer = host.Admit(NAME);
    Subscribe(peer, "ticks", 5);
  }
  ASSERT_TRUE(host.WaitForEnd(NAME));
  CompletionRecorder nobody;
  EXPECT_EQ(TQEmit("ticks", {nullptr}, nobody.Callback(), &nobody), TQ_ERR_OK);
  ASSERT_EQ(nobody.Count(), 1u);
  EXPECT_FALSE(nobody.Calls()[0].applicationName.has_value());
}

TEST(Emit, WhileTheDisconnectListenerRunsFindsNobodyThough) {
  CompletionRecorder nobody;
  ListenerRecorder listeners;
  listeners.onDisconnect = [&](const ListenerRecorder::DisconnectCall&) {
    // The session can still be called, but its subscriptions are gone.
    EXPECT_EQ(TQNotify(NAME.c_str(), 1, {nullptr}, nullptr, nullptr), TQ_ERR_OK);
    EXPECT_EQ(TQEmit("ticks", {nullptr}, nobody.Callback(), &nobody), TQ_ERR_OK);
  };
  SessionHost host;
  TQRegisterSignal("ticks");
  {
    RawPeer peer = host.Admit(NAME);
    Subscribe(peer, "ticks", 5);
  }
  ASSERT_TRUE(listeners.WaitForDisconnects(1));
  ASSERT_TRUE(host.WaitForEnd(NAME));
  ASSERT_EQ(nobody.Count(), 1u);
  EXPECT_FALSE(nobody.Calls()[0].applicationName.has_value());
}

}  // namespace
}  // namespace TQ::test
