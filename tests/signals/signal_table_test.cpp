// What this process offers by name: registration, and what it does to the subscribers.
#include "signals/signal_table.h"

#include "frame/locks.h"
#include "session/session.h"

#include <tq/tq.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/raw_peer.h"
#include "support/session_host.h"

namespace TQ::test {
namespace {

using detail::g_signals;
using detail::LockScope;
using detail::SessionRef;
using detail::SubscriberList;

// The slots of a signal's subscribers, oldest first; {NOT_REGISTERED} if there is no such signal.
constexpr uint32_t NOT_REGISTERED = 0xDEADBEEF;

std::vector<uint32_t> SubscribedSlots(const char* signal) {
  LockScope held(g_signals.lock);
  const SubscriberList* subscribers = g_signals.Find(signal);
  if (subscribers == nullptr) {
    return {NOT_REGISTERED};
  }
  std::vector<uint32_t> slots;
  for (const auto& each : *subscribers) {
    slots.push_back(each.slotId);
  }
  return slots;
}

using Slots = std::vector<uint32_t>;

void AddSubscriber(const char* signal, const SessionRef& session, uint32_t slotId) {
  LockScope held(g_signals.lock);
  g_signals.Find(signal)->push_back({session, slotId});
}

bool IsRegistered(const char* signal) { return SubscribedSlots(signal) != Slots{NOT_REGISTERED}; }

TEST(SignalTable, RegisteringMakesASignalWithoutSubscribers) {
  EXPECT_FALSE(IsRegistered("ticks"));
  EXPECT_EQ(TQRegisterSignal("ticks"), TQ_ERR_OK);
  EXPECT_EQ(SubscribedSlots("ticks"), Slots{});
}

TEST(SignalTable, RegisteringAgainSucceedsAndDropsAllSubscribers) {
  TQRegisterSignal("ticks");
  {
    const SessionRef session(new TQAPPImpl());
    for (const uint32_t slotId : {1u, 2u, 3u}) {
      AddSubscriber("ticks", session, slotId);
    }
  }
  ASSERT_EQ(SubscribedSlots("ticks"), (Slots{1, 2, 3}));
  ASSERT_EQ(DEBUG_TQObjectCount().sessions, 1u);
  EXPECT_EQ(TQRegisterSignal("ticks"), TQ_ERR_OK);
  EXPECT_EQ(SubscribedSlots("ticks"), Slots{});
  EXPECT_EQ(DEBUG_TQObjectCount().sessions, 0u) << "every subscriber's reference is released";
}

TEST(SignalTable, RegisteringLeavesOtherSignalsAlone) {
  TQRegisterSignal("ticks");
  TQRegisterSignal("tocks");
  const SessionRef session(new TQAPPImpl());
  AddSubscriber("ticks", session, 1);
  AddSubscriber("tocks", session, 2);
  TQRegisterSignal("ticks");
  EXPECT_EQ(SubscribedSlots("ticks"), Slots{});
  EXPECT_EQ(SubscribedSlots("tocks"), Slots{2});
  TQRegisterSignal("tocks");
}

TEST(SignalTable, UnregisteringReleasesEverySubscribersSession) {
  TQRegisterSignal("ticks");
  AddSubscriber("ticks", SessionRef(new TQAPPImpl()), 1);
  AddSubscriber("ticks", SessionRef(new TQAPPImpl()), 2);
  ASSERT_EQ(DEBUG_TQObjectCount().sessions, 2u);
  EXPECT_EQ(TQUnregisterSignal("ticks"), TQ_ERR_OK);
  EXPECT_FALSE(IsRegistered("ticks"));
  EXPECT_EQ(DEBUG_TQObjectCount().sessions, 0u);
}

TEST(SignalTable, UnregisteringAnUnknownNameSaysSo) {
  EXPECT_EQ(TQUnregisterSignal("ticks"), TQ_ERR_NO_SUCH_SIGNAL);
  EXPECT_EQ(static_cast<int>(TQ_ERR_NO_SUCH_SIGNAL), -4);
  TQRegisterSignal("ticks");
  EXPECT_EQ(TQUnregisterSignal("tick"), TQ_ERR_NO_SUCH_SIGNAL);
  EXPECT_EQ(TQUnregisterSignal("tickss"), TQ_ERR_NO_SUCH_SIGNAL);
  EXPECT_EQ(TQUnregisterSignal("ticks"), TQ_ERR_OK);
  EXPECT_EQ(TQUnregisterSignal("ticks"), TQ_ERR_NO_SUCH_SIGNAL);
}

TEST(SignalTable, NamesAreComparedByteForByte) {
  for (const char* name : {"", "a", "A", "a ", "aa", "\xC3\xA4", "\xFF"}) {
    EXPECT_FALSE(IsRegistered(name)) << name;
    EXPECT_EQ(TQRegisterSignal(name), TQ_ERR_OK);
    EXPECT_TRUE(IsRegistered(name)) << name;
  }
  EXPECT_FALSE(IsRegistered("\xC3\x84"));
  EXPECT_EQ(TQUnregisterSignal(""), TQ_ERR_OK);
  EXPECT_TRUE(IsRegistered("a"));
}

TEST(SignalTable, KeepsACopyOfTheName) {
  std::string name = "ticks";
  TQRegisterSignal(name.c_str());
  name[0] = 'x';
  EXPECT_TRUE(IsRegistered("ticks"));
  EXPECT_FALSE(IsRegistered("xicks"));
}

TEST(SignalRecords, RegisterOneSignalEach) {
  const _tag_SIGNAL_DESCRIPTION records[] = {{"one"}, {"two"}, {"three"}};
  EXPECT_EQ(TQRegisterSignals(records, 2), TQ_ERR_OK);
  EXPECT_TRUE(IsRegistered("one"));
  EXPECT_TRUE(IsRegistered("two"));
  EXPECT_FALSE(IsRegistered("three")) << "the count bounds what is read";
}

TEST(SignalRecords, ACountOfZeroOrLessDoesNotReadTheArray) {
  EXPECT_EQ(TQRegisterSignals(nullptr, 0), TQ_ERR_OK);
  EXPECT_EQ(TQRegisterSignals(nullptr, -1), TQ_ERR_OK);
  EXPECT_EQ(TQRegisterSignals(nullptr, INT32_MIN), TQ_ERR_OK);
}

TEST(SignalRecords, MayNameASignalTwice) {
  const _tag_SIGNAL_DESCRIPTION records[] = {{"one"}, {"one"}};
  EXPECT_EQ(TQRegisterSignals(records, 2), TQ_ERR_OK);
  EXPECT_EQ(TQUnregisterSignal("one"), TQ_ERR_OK);
  EXPECT_EQ(TQUnregisterSignal("one"), TQ_ERR_NO_SUCH_SIGNAL);
}

TEST(SignalRecords, ResetSignalsThatAreThereAlready) {
  TQRegisterSignal("one");
  AddSubscriber("one", SessionRef(new TQAPPImpl()), 1);
  const _tag_SIGNAL_DESCRIPTION record = {"one"};
  EXPECT_EQ(TQRegisterSignals(&record, 1), TQ_ERR_OK);
  EXPECT_EQ(SubscribedSlots("one"), Slots{});
  EXPECT_EQ(DEBUG_TQObjectCount().sessions, 0u);
}

TEST(SignalTable, KeepsSignalsOverShutdownAndANewInitialization) {
  TQRegisterSignal("before");
  ASSERT_EQ(TQInitialize("app", 0, nullptr), TQ_ERR_OK);
  TQRegisterSignal("during");
  TQShutdown();
  EXPECT_TRUE(IsRegistered("before"));
  EXPECT_TRUE(IsRegistered("during"));
  ASSERT_EQ(TQInitialize("app", 0, nullptr), TQ_ERR_OK);
  EXPECT_TRUE(IsRegistered("before"));
  EXPECT_TRUE(IsRegistered("during"));
  TQShutdown();
}

TEST(SignalTable, RemovesASessionsSubscriptionsFromEverySignalAndNoOthers) {
  TQRegisterSignal("ticks");
  TQRegisterSignal("tocks");
  // Both sessions have the same, empty, name: only the identity tells them apart.
  const SessionRef leaving(new TQAPPImpl());
  const SessionRef staying(new TQAPPImpl());
  AddSubscriber("ticks", leaving, 1);
  AddSubscriber("ticks", staying, 2);
  AddSubscriber("ticks", leaving, 3);
  AddSubscriber("ticks", staying, 4);
  AddSubscriber("tocks", leaving, 5);
  g_signals.RemoveSubscriptionsOf(*leaving);
  EXPECT_EQ(SubscribedSlots("ticks"), (Slots{2, 4}));
  EXPECT_EQ(SubscribedSlots("tocks"), Slots{});
  TQUnregisterSignal("ticks");
}

// ---- over connections --------------------------------------------------------------------------

// Subscribes the peer, and waits until that has been dealt with.
void Subscribe(RawPeer& peer, const char* signal, uint32_t slotId) {
  peer.SendRequest(1, RAW_NOTIFY, RAW_CONNECT_SIGNAL,
                   RawList().String("signalName", signal).Int32("slotName", slotId));
  peer.SendRequest(2, RAW_CALL, 0x5EED);
  ASSERT_TRUE(peer.ReadFrame()) << peer.Problem();
}

TEST(SignalTable, RegisteringANameWithThreeSubscribersLeavesItWithNone) {
  SessionHost host;
  TQRegisterSignal("ticks");
  RawPeer first = host.Admit("test:1/first");
  RawPeer second = host.Admit("test:1/second");
  RawPeer third = host.Admit("test:1/third");
  Subscribe(first, "ticks", 5);
  Subscribe(second, "ticks", 5);
  Subscribe(third, "ticks", 5);
  ASSERT_EQ(SubscribedSlots("ticks"), (Slots{5, 5, 5}));

  EXPECT_EQ(TQRegisterSignal("ticks"), TQ_ERR_OK);

  CompletionRecorder nobody;
  EXPECT_EQ(TQEmit("ticks", {nullptr}, nobody.Callback(), &nobody), TQ_ERR_OK);
  EXPECT_EQ(nobody.Count(), 1u) << "nobody listens, and the name is still registered";
  // The peers are not told: the next thing that they hear is an answer of their own.
  for (RawPeer* peer : {&first, &second, &third}) {
    peer->SendRequest(77, RAW_CALL, 0x5EED);
    const auto frame = peer->ReadFrame();
    ASSERT_TRUE(frame) << peer->Problem();
    EXPECT_EQ(frame->id, 77u);
  }
}

TEST(SignalTable, UnregisteringASignalSilencesItsSubscribers) {
  SessionHost host;
  TQRegisterSignal("ticks");
  RawPeer peer = host.Admit("test:1/raw");
  Subscribe(peer, "ticks", 5);
  EXPECT_EQ(TQUnregisterSignal("ticks"), TQ_ERR_OK);
  EXPECT_EQ(TQEmit("ticks", {nullptr}, nullptr, nullptr), TQ_ERR_NO_SUCH_SIGNAL);
  TQRegisterSignal("ticks");
  EXPECT_EQ(TQEmit("ticks", {nullptr}, nullptr, nullptr), TQ_ERR_OK);
  peer.SendRequest(77, RAW_CALL, 0x5EED);
  const auto frame = peer.ReadFrame();
  ASSERT_TRUE(frame) << peer.Problem();
  EXPECT_EQ(frame->id, 77u);
}

}  // namespace
}  // namespace TQ::test
