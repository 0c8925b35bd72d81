// Signals between real processes.
#include <gtest/gtest.h>
#include <tq/tq.h>

#include <atomic>
#include <chrono>
#include <string>
#include <vector>

#include "frame/locks.h"
#include "signals/signal_table.h"
#include "system/application.h"

namespace TQ::test {
namespace {

using detail::g_signals;
using detail::LockScope;
using std::chrono::milliseconds;

size_t SubscriberCount(const char* signal) {
  LockScope held(g_signals.lock);
  const auto* subscribers = g_signals.Find(signal);
  return subscribers != nullptr ? subscribers->size() : 0;
}

bool WaitForSubscribers(const char* signal, size_t count) {
  return WaitUntil([&] { return SubscriberCount(signal) == count; });
}

_tag_TQ_ERROR Emit(const char* signal, uint32_t x) {
  ScopedList list;
  list.Int32("x", x);
  return TQEmit(signal, list.Get(), nullptr, nullptr);
}

/// True if the emit found nobody.
bool FindsNobody(const char* signal) {
  CompletionRecorder done;
  EXPECT_EQ(TQEmit(signal, {nullptr}, done.Callback(), &done), TQ_ERR_OK);
  // With nobody there the callback has run by now.
  return done.Count() == 1 && !done.Calls()[0].applicationName.has_value();
}

/// This process emits; the others connect to it and subscribe.
class Emitter : public testing::Test {
 protected:
  void SetUp() override { TQRegisterSignal("ticks"); }

  const LocalLibrary library{"emitter", FreePort()};

  void Join(Application& application) const {
    const bool listens = WaitUntil([&] { return RawPeer::TryConnect(library.Port()).has_value(); });
    ASSERT_TRUE(listens);
    application.Do("connect " + std::to_string(library.Port()), "connected " + library.Name());
    // With the reply both know each other, and have told their listeners.
    application.Do("call " + library.Name() + " " + std::to_string(UNKNOWN_SLOT_ID) + " 0",
                   "called empty");
  }

  void Subscribe(Application& application, unsigned slotId) const {
    const size_t before = SubscriberCount("ticks");
    application.Do("subscribe " + library.Name() + " ticks " + std::to_string(slotId),
                   "subscribed 0");
    // It returns before the subscription is there.
    ASSERT_TRUE(WaitForSubscribers("ticks", before + 1));
  }

  void Unsubscribe(Application& application, unsigned slotId) const {
    application.Do("unsubscribe " + library.Name() + " ticks " + std::to_string(slotId),
                   "unsubscribed 0");
  }

  /// What the application says when the signal reaches one of its recording slots.
  std::string Heard(unsigned slotId, uint32_t x) const {
    return "slot " + std::to_string(slotId) + " from " + library.Name() +
           " params x=" + std::to_string(x) + " result null";
  }

  /// Nothing has reached the application since the last line.
  static void ExpectSilence(Application& application) {
    const auto line = application.Process().ReadLine(milliseconds(100));
    EXPECT_FALSE(line) << *line;
  }
};

TEST_F(Emitter, ReachesTheSlotOfASubscriber) {
  Application listener("listener");
  Join(listener);
  Subscribe(listener, RECORD_SLOT);
  EXPECT_EQ(Emit("ticks", 7), TQ_ERR_OK);
  listener.Expect(Heard(RECORD_SLOT, 7));
  EXPECT_EQ(Emit("ticks", 8), TQ_ERR_OK);
  listener.Expect(Heard(RECORD_SLOT, 8));
}

TEST_F(Emitter, ReachesEverySubscriber) {
  Application first("first");
  Application second("second");
  Application third("third");
  for (Application* each : {&first, &second, &third}) {
    Join(*each);
    Subscribe(*each, RECORD_SLOT);
  }
  for (uint32_t x = 1; x <= 20; ++x) EXPECT_EQ(Emit("ticks", x), TQ_ERR_OK);
  for (Application* each : {&first, &second, &third}) {
    for (uint32_t x = 1; x <= 20; ++x) each->Expect(Heard(RECORD_SLOT, x));
  }
}

TEST_F(Emitter, ReachesTheSlotsOfOneSubscriberInTheirOrderOfSubscription) {
  Application listener("listener");
  Join(listener);
  Subscribe(listener, ANOTHER_RECORD_SLOT);
  Subscribe(listener, RECORD_SLOT);
  for (uint32_t x = 1; x <= 10; ++x) {
    EXPECT_EQ(Emit("ticks", x), TQ_ERR_OK);
    listener.Expect(Heard(ANOTHER_RECORD_SLOT, x));
    listener.Expect(Heard(RECORD_SLOT, x));
  }
}

TEST_F(Emitter, OfTwoSubscriptionsOfOneSlotLosesOneByADisconnect) {
  Application listener("listener");
  Join(listener);
  Subscribe(listener, RECORD_SLOT);
  Subscribe(listener, RECORD_SLOT);
  Emit("ticks", 1);
  listener.Expect(Heard(RECORD_SLOT, 1));
  listener.Expect(Heard(RECORD_SLOT, 1));
  Unsubscribe(listener, RECORD_SLOT);
  EXPECT_EQ(SubscriberCount("ticks"), 1u);
  Emit("ticks", 2);
  listener.Expect(Heard(RECORD_SLOT, 2));
  ExpectSilence(listener);
}

TEST_F(Emitter, DoesNotReachASlotWhoseDisconnectHasReturned) {
  Application listener("listener");
  Join(listener);
  for (uint32_t round = 1; round <= 20; ++round) {
    Subscribe(listener, RECORD_SLOT);
    Unsubscribe(listener, RECORD_SLOT);
    EXPECT_EQ(SubscriberCount("ticks"), 0u) << "the disconnect waits until it is done";
    EXPECT_TRUE(FindsNobody("ticks"));
  }
  ExpectSilence(listener);
}

TEST_F(Emitter, CompletesOnceForEachSubscriberByItsName) {
  CompletionRecorder done;
  Application first("first");
  Application second("second");
  for (Application* each : {&first, &second}) {
    Join(*each);
    Subscribe(*each, ECHO_SLOT);
  }
  ScopedList list;
  list.Int32("x", 5);
  EXPECT_EQ(TQEmit("ticks", list.Get(), done.Callback(), &done), TQ_ERR_OK);
  ASSERT_TRUE(done.WaitForCount(2));
  std::vector<std::string> names;
  for (const auto& call : done.Calls()) {
    EXPECT_EQ(call.slotId, ECHO_SLOT);
    EXPECT_EQ(call.params, list.Get().impl);
    EXPECT_EQ(call.resultX, 5u);
    names.push_back(call.applicationName.value_or("nobody"));
  }
  EXPECT_NE(names[0], names[1]);
  for (const std::string& name : names) {
    EXPECT_TRUE(name == first.Name() || name == second.Name()) << name;
  }
}

TEST_F(Emitter, CompletesWithAnEmptyListWhereTheSlotIsUnknown) {
  CompletionRecorder done;
  Application listener("listener");
  Join(listener);
  Subscribe(listener, UNKNOWN_SLOT_ID);
  EXPECT_EQ(Emit("ticks", 1), TQ_ERR_OK);
  EXPECT_EQ(TQEmit("ticks", {nullptr}, done.Callback(), &done), TQ_ERR_OK);
  ASSERT_TRUE(done.WaitForCount(1));
  EXPECT_FALSE(done.Calls()[0].resultIsNull);
  EXPECT_EQ(done.Calls()[0].resultCount, 0u);
  EXPECT_EQ(SubscriberCount("ticks"), 1u) << "it stays subscribed";
}

TEST_F(Emitter, DropsAllSubscribersWithoutTellingThemWhenTheSignalIsRegisteredAgain) {
  Application first("first");
  Application second("second");
  for (Application* each : {&first, &second}) {
    Join(*each);
    Subscribe(*each, RECORD_SLOT);
  }
  EXPECT_EQ(TQRegisterSignal("ticks"), TQ_ERR_OK);
  EXPECT_TRUE(FindsNobody("ticks"));
  ExpectSilence(first);
  ExpectSilence(second);
  // They can come back.
  Subscribe(first, RECORD_SLOT);
  Emit("ticks", 3);
  first.Expect(Heard(RECORD_SLOT, 3));
}

TEST_F(Emitter, IgnoresSubscriptionsToASignalThatIsNotRegistered) {
  Application listener("listener");
  Join(listener);
  EXPECT_EQ(TQUnregisterSignal("ticks"), TQ_ERR_OK);
  listener.Do("subscribe " + library.Name() + " ticks 2", "subscribed 0");
  listener.Do("unsubscribe " + library.Name() + " ticks 2", "unsubscribed 0");
  EXPECT_EQ(Emit("ticks", 1), TQ_ERR_NO_SUCH_SIGNAL);
  EXPECT_EQ(TQRegisterSignal("ticks"), TQ_ERR_OK);
  EXPECT_TRUE(FindsNobody("ticks")) << "the earlier subscription was lost";
  ExpectSilence(listener);
}

TEST_F(Emitter, AcceptsTheDisconnectOfASubscriptionThatDoesNotExist) {
  Application listener("listener");
  Join(listener);
  Subscribe(listener, RECORD_SLOT);
  Unsubscribe(listener, ANOTHER_RECORD_SLOT);
  EXPECT_EQ(SubscriberCount("ticks"), 1u);
}

TEST(ConnectSignalBetweenProcesses, ToAnUnknownApplicationSucceedsWithoutEffect) {
  Application application("application");
  application.Do("subscribe nowhere:1/nobody ticks 2", "subscribed 0");
  application.Do("unsubscribe nowhere:1/nobody ticks 2", "unsubscribed 0");
  application.Do("register ticks", "registered 0");
  application.Do("announce ticks 1", "completed nobody slot 0 null");
  application.Expect("announced 0");
}

// ---- the subscriber's session ends -------------------------------------------------------------

TEST_F(Emitter, HasDroppedASubscriberWhoseProcessWasKilledBeforeTheDisconnectListenerRuns) {
  std::atomic<int> foundNobody{0};
  ListenerRecorder listeners;
  listeners.onDisconnect = [&](const ListenerRecorder::DisconnectCall&) {
    foundNobody += FindsNobody("ticks") ? 1 : 0;
  };
  Application listener("listener");
  Join(listener);
  Subscribe(listener, RECORD_SLOT);
  listener.Process().Kill();
  ASSERT_TRUE(listeners.WaitForDisconnects(1));
  ASSERT_TRUE(SessionHost::WaitForSessions(0));
  EXPECT_EQ(foundNobody, 1);
  EXPECT_EQ(SubscriberCount("ticks"), 0u);
}

TEST_F(Emitter, GoesOnServingTheOthersWhenASubscriberIsKilled) {
  Application doomed("doomed");
  Application other("other");
  Join(doomed);
  Subscribe(doomed, RECORD_SLOT);
  Join(other);
  Subscribe(other, RECORD_SLOT);
  doomed.Process().Kill();
  for (uint32_t x = 1; x <= 50; ++x) EXPECT_EQ(Emit("ticks", x), TQ_ERR_OK);
  for (uint32_t x = 1; x <= 50; ++x) other.Expect(Heard(RECORD_SLOT, x));
  EXPECT_TRUE(WaitForSubscribers("ticks", 1));
}

TEST_F(Emitter, MustBeSubscribedAgainByAPeerThatComesBackUnderItsName) {
  Application listener("listener");
  Join(listener);
  Subscribe(listener, RECORD_SLOT);
  listener.Do("disconnect " + library.Name(), "disconnected");
  ASSERT_TRUE(SessionHost::WaitForSessions(0));
  // The other side needs its moment, too, before the name is free there.
  ASSERT_TRUE(WaitUntil([&] {
    listener.Tell("counts");
    const auto line = listener.Process().ReadLineStarting("sessions ");
    return line && line->rfind("sessions 0 ", 0) == 0;
  }));
  Join(listener);
  EXPECT_TRUE(FindsNobody("ticks"));
  ExpectSilence(listener);
  Subscribe(listener, RECORD_SLOT);
  Emit("ticks", 4);
  listener.Expect(Heard(RECORD_SLOT, 4));
}

TEST_F(Emitter, DropsTheSubscriptionsOfAPeerThatItDisconnects) {
  Application listener("listener");
  Join(listener);
  listener.Do("listen", "listening");
  Subscribe(listener, RECORD_SLOT);
  EXPECT_EQ(TQDisconnect(listener.Name().c_str()), TQ_ERR_OK);
  EXPECT_EQ(SubscriberCount("ticks"), 0u);
  EXPECT_TRUE(FindsNobody("ticks"));
  listener.Expect("- " + library.Name());
}

// ---- subscribers that misbehave ----------------------------------------------------------------

void SubscribeRaw(RawPeer& peer, uint32_t slotId) {
  peer.SendRequest(1, RAW_NOTIFY, RAW_CONNECT_SIGNAL,
                   RawList().String("signalName", "ticks").Int32("slotName", slotId));
  peer.SendRequest(2, RAW_CALL, UNKNOWN_SLOT_ID);
  ASSERT_TRUE(peer.ReadFrame()) << peer.Problem();
}

TEST_F(Emitter, IsNotHeldUpByASubscriberThatDoesNotRead) {
  auto stuck = RawPeer::Connect(library.Port(), DEFAULT_DEADLINE, SMALL_RECEIVE_BUFFER);
  ASSERT_TRUE(stuck);
  ASSERT_TRUE(stuck->HandshakeAsConnector("test:1/stuck").Completed());
  SubscribeRaw(*stuck, 5);
  Application listener("listener");
  Join(listener);
  Subscribe(listener, RECORD_SLOT);
  ScopedList big;
  big.Binary("b", Filled(MORE_THAN_BUFFERS, 1)).Int32("x", 0);
  EXPECT_EQ(TQEmit("ticks", big.Get(), nullptr, nullptr), TQ_ERR_OK);
  listener.Expect(Heard(RECORD_SLOT, 0));
  for (uint32_t x = 1; x <= 20; ++x) EXPECT_EQ(Emit("ticks", x), TQ_ERR_OK);
  for (uint32_t x = 1; x <= 20; ++x) listener.Expect(Heard(RECORD_SLOT, x));
  stuck->Reset();
  EXPECT_TRUE(WaitForSubscribers("ticks", 1));
}

TEST_F(Emitter, IsNotDisturbedByASubscriberThatBreaksItsConnection) {
  auto broken = RawPeer::Connect(library.Port());
  ASSERT_TRUE(broken);
  ASSERT_TRUE(broken->HandshakeAsConnector("test:1/broken").Completed());
  SubscribeRaw(*broken, 5);
  SubscribeRaw(*broken, 6);
  Application listener("listener");
  Join(listener);
  Subscribe(listener, RECORD_SLOT);
  broken->Reset();
  for (uint32_t x = 1; x <= 50; ++x) EXPECT_EQ(Emit("ticks", x), TQ_ERR_OK);
  for (uint32_t x = 1; x <= 50; ++x) listener.Expect(Heard(RECORD_SLOT, x));
  EXPECT_TRUE(WaitForSubscribers("ticks", 1));
}

TEST_F(Emitter, IsNotDisturbedByNonsenseInARequest) {
  auto odd = RawPeer::Connect(library.Port());
  ASSERT_TRUE(odd);
  ASSERT_TRUE(odd->HandshakeAsConnector("test:1/odd").Completed());
  for (const uint32_t slotId : {RAW_CONNECT_SIGNAL, RAW_DISCONNECT_SIGNAL}) {
    for (const RawList& list :
         {RawList(), RawList().Int32("signalName", 1), RawList().String("slotName", "ticks"),
          RawList().Int32Array("signalName", {1, 2}).Binary("slotName", {1}),
          RawList().NoHandle("signalName")}) {
      odd->SendRequest(3, RAW_NOTIFY, slotId, list);
      odd->SendRequest(4, RAW_CALL, slotId, list);
      const auto reply = odd->ReadFrame();
      ASSERT_TRUE(reply) << odd->Problem();
      EXPECT_EQ(reply->bytes, ReplyHead(4, 0, 0));
    }
  }
  EXPECT_EQ(SubscriberCount("ticks"), 0u);
}

// ---- both ways ---------------------------------------------------------------------------------

TEST_F(Emitter, IsASubscriberOfItsSubscriberAsWell) {
  std::atomic<uint32_t> heard{0};
  const ScopedSlot slot(50,
                        [&](const SlotCall& call) { heard = TQGetInt32Value(call.params, "x"); });
  Application other("other");
  other.Do("register tocks", "registered 0");
  Join(other);
  Subscribe(other, RECORD_SLOT);
  EXPECT_EQ(TQConnectSignal(other.Name().c_str(), "tocks", 50), TQ_ERR_OK);
  // The next call is served behind the subscription.
  EXPECT_EQ(CallText(other.Name(), ECHO_SLOT, 1), "x=1");
  other.Do("emit tocks 11", "emitted 0");
  EXPECT_TRUE(WaitUntil([&] { return heard == 11; }));
  Emit("ticks", 12);
  other.Expect(Heard(RECORD_SLOT, 12));
  EXPECT_EQ(TQDisconnectSignal(other.Name().c_str(), "tocks", 50), TQ_ERR_OK);
  other.Do("announce tocks 13", "completed nobody slot 0 null");
  other.Expect("announced 0");
  EXPECT_EQ(heard, 11u);
}

}  // namespace
}  // namespace TQ::test
