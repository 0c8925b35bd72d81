// Subscribing and unsubscribing: the two requests as they go out, and the two slots that serve
// them.
#include "signals/signal_connections.h"

#include "frame/locks.h"
#include "session/application_registry.h"
#include "session/session.h"
#include "signals/signal_table.h"

#include <tq/tq.h>

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "support/log_recorder.h"
#include "support/raw_peer.h"
#include "support/session_host.h"

namespace TQ::test {
namespace {

using detail::g_applications;
using detail::g_signals;
using detail::LockScope;
using detail::SessionRef;
using std::chrono::milliseconds;
using Slots = std::vector<uint32_t>;

const std::string NAME = "test:1/raw";

// ---- the requests ------------------------------------------------------------------------------

TEST(ConnectSignal, SendsANotificationWithNameAndSlot) {
  SessionHost host;
  RawPeer peer = host.Admit(NAME);
  EXPECT_EQ(TQConnectSignal(NAME.c_str(), "ticks", 0x01020304), TQ_ERR_OK);
  const auto frame = peer.ReadFrame();
  ASSERT_TRUE(frame) << peer.Problem();
  EXPECT_EQ(frame->bytes,
            RequestBytes(1, RAW_NOTIFY, 0xFFFFFFFF,
                         RawList().String("signalName", "ticks").Int32("slotName", 0x01020304)));
  EXPECT_TRUE(WaitUntil([] { return DEBUG_TQObjectCount().paramLists == 0; }));
}

TEST(ConnectSignal, ReturnsBeforeThePeerHasDealtWithIt) {
  SessionHost host;
  RawPeer peer = host.Admit(NAME);
  // The peer has read nothing yet.
  EXPECT_EQ(TQConnectSignal(NAME.c_str(), "ticks", 5), TQ_ERR_OK);
  EXPECT_TRUE(peer.ReadFrame());
}

TEST(ConnectSignal, SendsANullNameAsTheEmptyText) {
  SessionHost host;
  RawPeer peer = host.Admit(NAME);
  EXPECT_EQ(TQConnectSignal(NAME.c_str(), nullptr, 5), TQ_ERR_OK);
  const auto frame = peer.ReadFrame();
  ASSERT_TRUE(frame) << peer.Problem();
  EXPECT_EQ(frame->list, RawList().String("signalName", "").Int32("slotName", 5)) << frame->list;
}

TEST(ConnectSignal, ToAnUnknownApplicationSucceedsWithoutEffect) {
  EXPECT_EQ(TQConnectSignal("nowhere:1/nobody", "ticks", 5), TQ_ERR_OK);
  EXPECT_EQ(DEBUG_TQObjectCount().messages, 0u);
  EXPECT_EQ(DEBUG_TQObjectCount().paramLists, 0u);
}

TEST(DisconnectSignal, SendsACallWithNameAndSlotAndWaitsForTheReply) {
  SessionHost host;
  RawPeer peer = host.Admit(NAME);
  Gate returned;
  std::thread caller([&] {
    EXPECT_EQ(TQDisconnectSignal(NAME.c_str(), "ticks", 5), TQ_ERR_OK);
    returned.Open();
  });
  const auto frame = peer.ReadFrame();
  ASSERT_TRUE(frame) << peer.Problem();
  EXPECT_EQ(frame->bytes,
            RequestBytes(1, RAW_CALL, 0xFFFFFFFE,
                         RawList().String("signalName", "ticks").Int32("slotName", 5)));
  EXPECT_FALSE(returned.Wait(milliseconds(150)));
  peer.SendReply(1, RawList().Int32("whatever", 1));
  EXPECT_TRUE(returned.Wait());
  caller.join();
  EXPECT_TRUE(WaitUntil([] { return DEBUG_TQObjectCount().paramLists == 0; }))
      << "request and result are both closed";
}

TEST(DisconnectSignal, SendsANullNameAsTheEmptyText) {
  SessionHost host;
  RawPeer peer = host.Admit(NAME);
  std::thread caller([] { EXPECT_EQ(TQDisconnectSignal(NAME.c_str(), nullptr, 5), TQ_ERR_OK); });
  const auto frame = peer.ReadFrame();
  ASSERT_TRUE(frame) << peer.Problem();
  EXPECT_EQ(frame->list, RawList().String("signalName", "").Int32("slotName", 5)) << frame->list;
  peer.SendReply(1);
  caller.join();
}

TEST(DisconnectSignal, SucceedsWhenTheSessionEndsFirst) {
  SessionHost host;
  RawPeer peer = host.Admit(NAME);
  const SessionRef session = g_applications.Find(NAME.c_str());
  std::thread caller([] { EXPECT_EQ(TQDisconnectSignal(NAME.c_str(), "ticks", 5), TQ_ERR_OK); });
  ASSERT_TRUE(peer.ReadFrame()) << peer.Problem();
  peer.Close();
  caller.join();
  ASSERT_TRUE(host.WaitForEnd(NAME));
  session->Awaiting().Clear();  // the unanswered request would keep the session for good
}

TEST(DisconnectSignal, FromAnUnknownApplicationSucceedsAtOnce) {
  EXPECT_EQ(TQDisconnectSignal("nowhere:1/nobody", "ticks", 5), TQ_ERR_OK);
  EXPECT_EQ(DEBUG_TQObjectCount().paramLists, 0u);
}

// ---- the slots ---------------------------------------------------------------------------------

// A subscribed peer and what the signal table says of it.
class SignalSlots : public testing::Test {
 protected:
  void SetUp() override { TQRegisterSignal("ticks"); }

  // The slot's status and what it has put into the result.
  struct Answer {
    int status;
    uint32_t resultCount;
  };

  static Answer Run(TQSlotCallback slot, _tag_HTQPARAMLIST params, const char* applicationName) {
    const ScopedList result;
    const TQSlotCallInfo info = {applicationName, &g_signals};
    const int status = slot(params, result.Get(), &info);
    return {status, TQGetParamCount(result.Get())};
  }

  // Signal name and slot id; null and absent values are left out.
  static void Connect(const char* signal, uint32_t slotId, const char* name = NAME.c_str()) {
    ScopedList list;
    TQSetStringValue(list.Get(), "signalName", signal);
    list.Int32("slotName", slotId);
    const Answer answer = Run(&detail::ServeConnectSignal, list.Get(), name);
    EXPECT_EQ(answer.status, 0);
    EXPECT_EQ(answer.resultCount, 0u);
  }

  static void Disconnect(const char* signal, uint32_t slotId, const char* name = NAME.c_str()) {
    ScopedList list;
    TQSetStringValue(list.Get(), "signalName", signal);
    list.Int32("slotName", slotId);
    const Answer answer = Run(&detail::ServeDisconnectSignal, list.Get(), name);
    EXPECT_EQ(answer.status, 0);
    EXPECT_EQ(answer.resultCount, 0u);
  }

  static Slots Subscribed(const char* signal = "ticks") {
    LockScope held(g_signals.lock);
    Slots slots;
    for (const auto& each : *g_signals.Find(signal)) {
      slots.push_back(each.slotId);
    }
    return slots;
  }

  SessionHost host;
  RawPeer peer = host.Admit(NAME);
};

TEST_F(SignalSlots, ConnectAddsASubscriberAtTheEnd) {
  Connect("ticks", 9);
  Connect("ticks", 3);
  EXPECT_EQ(Subscribed(), (Slots{9, 3}));
  LockScope held(g_signals.lock);
  EXPECT_EQ(g_signals.Find("ticks")->front().session, g_applications.Find(NAME.c_str()));
}

TEST_F(SignalSlots, ConnectTwiceMakesTwoSubscribers) {
  Connect("ticks", 9);
  Connect("ticks", 9);
  EXPECT_EQ(Subscribed(), (Slots{9, 9}));
}

TEST_F(SignalSlots, ConnectOfAnUnknownApplicationHasNoEffect) {
  Connect("ticks", 9, "nowhere:1/nobody");
  Connect("ticks", 9, "");
  EXPECT_EQ(Subscribed(), Slots{});
}

TEST_F(SignalSlots, ConnectOfASessionThatIsNotValidHasNoEffect) {
  g_applications.Set("stale:1/peer", SessionRef(new TQAPPImpl()));
  Connect("ticks", 9, "stale:1/peer");
  g_applications.Erase("stale:1/peer");
  EXPECT_EQ(Subscribed(), Slots{});
}

TEST_F(SignalSlots, ConnectToASignalThatIsNotRegisteredHasNoEffect) {
  Connect("tocks", 9);
  TQRegisterSignal("tocks");
  EXPECT_EQ(Subscribed("tocks"), Slots{});
}

TEST_F(SignalSlots, ConnectWithoutASignalNameHasNoEffect) {
  TQRegisterSignal("");
  ScopedList list;
  list.Int32("slotName", 9);
  EXPECT_EQ(Run(&detail::ServeConnectSignal, list.Get(), NAME.c_str()).status, 0);
  EXPECT_EQ(Run(&detail::ServeDisconnectSignal, list.Get(), NAME.c_str()).status, 0);
  EXPECT_EQ(Run(&detail::ServeConnectSignal, {nullptr}, NAME.c_str()).status, 0);
  EXPECT_EQ(Run(&detail::ServeDisconnectSignal, {nullptr}, NAME.c_str()).status, 0);
  EXPECT_EQ(Subscribed(), Slots{});
  EXPECT_EQ(Subscribed(""), Slots{});
}

TEST_F(SignalSlots, ConnectWithASignalNameOfAnotherTypeHasNoEffect) {
  TQRegisterSignal("");
  ScopedList list;
  list.Int32("signalName", 1).Int32("slotName", 9);
  EXPECT_EQ(Run(&detail::ServeConnectSignal, list.Get(), NAME.c_str()).status, 0);
  EXPECT_EQ(Subscribed(), Slots{});
  EXPECT_EQ(Subscribed(""), Slots{});
}

TEST_F(SignalSlots, ConnectWithAnEmptySignalNameMeansTheSignalOfThatName) {
  TQRegisterSignal("");
  Connect("", 9);
  EXPECT_EQ(Subscribed(""), Slots{9});
}

TEST_F(SignalSlots, WithoutASlotNumberTakeSlotZero) {
  ScopedList list;
  TQSetStringValue(list.Get(), "signalName", "ticks");
  Run(&detail::ServeConnectSignal, list.Get(), NAME.c_str());
  EXPECT_EQ(Subscribed(), Slots{0});
  Connect("ticks", 5);
  Run(&detail::ServeDisconnectSignal, list.Get(), NAME.c_str());
  EXPECT_EQ(Subscribed(), Slots{5});
}

TEST_F(SignalSlots, WithASlotNumberOfAnotherTypeTakeSlotZero) {
  ScopedList list;
  TQSetStringValue(list.Get(), "signalName", "ticks");
  TQSetInt64Value(list.Get(), "slotName", 5);
  Run(&detail::ServeConnectSignal, list.Get(), NAME.c_str());
  EXPECT_EQ(Subscribed(), Slots{0});
}

TEST_F(SignalSlots, TheHighestSlotNumbersAreNumbersLikeOthers) {
  Connect("ticks", 0xFFFFFFFF);
  Connect("ticks", 0x80000000);
  EXPECT_EQ(Subscribed(), (Slots{0xFFFFFFFF, 0x80000000}));
  Disconnect("ticks", 0xFFFFFFFF);
  EXPECT_EQ(Subscribed(), Slots{0x80000000});
}

TEST_F(SignalSlots, DisconnectTakesOutTheOldestMatchOnly) {
  for (const uint32_t slotId : {1u, 2u, 1u, 3u}) {
    Connect("ticks", slotId);
  }
  Disconnect("ticks", 1);
  EXPECT_EQ(Subscribed(), (Slots{2, 1, 3}));
  Disconnect("ticks", 1);
  EXPECT_EQ(Subscribed(), (Slots{2, 3}));
  Disconnect("ticks", 1);
  EXPECT_EQ(Subscribed(), (Slots{2, 3}));
}

TEST_F(SignalSlots, DisconnectMatchesNameAndSlotBoth) {
  RawPeer other = host.Admit("test:1/other");
  Connect("ticks", 5);
  Connect("ticks", 6, "test:1/other");
  Disconnect("ticks", 6);
  Disconnect("ticks", 5, "test:1/other");
  Disconnect("ticks", 5, "test:1/ra");
  Disconnect("ticks", 5, "test:1/raww");
  Disconnect("ticks", 5, "");
  EXPECT_EQ(Subscribed(), (Slots{5, 6}));
  Disconnect("ticks", 6, "test:1/other");
  EXPECT_EQ(Subscribed(), Slots{5});
}

TEST_F(SignalSlots, DisconnectFromASignalThatIsNotRegisteredHasNoEffect) {
  Connect("ticks", 5);
  Disconnect("tocks", 5);
  EXPECT_EQ(Subscribed(), Slots{5});
}

TEST_F(SignalSlots, ASubscriberWhoseSessionIsNotValidCountsAsNameless) {
  {
    LockScope held(g_signals.lock);
    g_signals.Find("ticks")->push_back({SessionRef(new TQAPPImpl()), 5});
  }
  Disconnect("ticks", 5);
  EXPECT_EQ(Subscribed(), Slots{5});
  const uint32_t sessions = DEBUG_TQObjectCount().sessions;
  Disconnect("ticks", 5, "");
  EXPECT_EQ(Subscribed(), Slots{});
  EXPECT_EQ(DEBUG_TQObjectCount().sessions, sessions - 1);
}

// ---- both together -----------------------------------------------------------------------------

// Waits until everything that the peer has sent before has been dealt with.
void Settle(RawPeer& peer) {
  peer.SendRequest(2, RAW_CALL, 0x5EED);
  ASSERT_TRUE(peer.ReadFrame()) << peer.Problem();
}

RawList Subscription(const char* signal, uint32_t slotId) {
  return RawList().String("signalName", signal).Int32("slotName", slotId);
}

TEST_F(SignalSlots, ServeAPeersRequests) {
  peer.SendRequest(1, RAW_NOTIFY, RAW_CONNECT_SIGNAL, Subscription("ticks", 5));
  peer.SendRequest(1, RAW_NOTIFY, RAW_CONNECT_SIGNAL, Subscription("ticks", 5));
  Settle(peer);
  EXPECT_EQ(Subscribed(), (Slots{5, 5}));
  peer.SendRequest(3, RAW_CALL, RAW_DISCONNECT_SIGNAL, Subscription("ticks", 5));
  const auto reply = peer.ReadFrame();
  ASSERT_TRUE(reply) << peer.Problem();
  EXPECT_EQ(reply->bytes, ReplyHead(3, 0, 0)) << "an empty list";
  EXPECT_EQ(Subscribed(), Slots{5});
  // One is left, and the peer's slot is called once for each emit.
  EXPECT_EQ(TQEmit("ticks", {nullptr}, nullptr, nullptr), TQ_ERR_OK);
  const auto signal = peer.ReadFrame();
  ASSERT_TRUE(signal) << peer.Problem();
  EXPECT_EQ(signal->slotId, 5u);
  EXPECT_TRUE(peer.StaysSilentFor(milliseconds(50)));
}

TEST_F(SignalSlots, ServeARequestOfTheOtherKindToo) {
  peer.SendRequest(3, RAW_CALL, RAW_CONNECT_SIGNAL, Subscription("ticks", 5));
  const auto reply = peer.ReadFrame();
  ASSERT_TRUE(reply) << peer.Problem();
  EXPECT_EQ(reply->bytes, ReplyHead(3, 0, 0));
  EXPECT_EQ(Subscribed(), Slots{5});
  peer.SendRequest(4, RAW_NOTIFY, RAW_DISCONNECT_SIGNAL, Subscription("ticks", 5));
  Settle(peer);
  EXPECT_EQ(Subscribed(), Slots{});
}

TEST_F(SignalSlots, TellAPeerNothingOfASignalThatIsNotRegistered) {
  host.Log().Clear();
  peer.SendRequest(1, RAW_NOTIFY, RAW_CONNECT_SIGNAL, Subscription("tocks", 5));
  peer.SendRequest(7, RAW_CALL, RAW_DISCONNECT_SIGNAL, Subscription("tocks", 5));
  const auto reply = peer.ReadFrame();
  ASSERT_TRUE(reply) << peer.Problem();
  EXPECT_EQ(reply->bytes, ReplyHead(7, 0, 0));
  for (const LogLine& line : host.Log().Lines()) {
    EXPECT_EQ(line.text.rfind("ConnectionThread. ", 0), 0u) << line.text;
  }
}

TEST_F(SignalSlots, SurviveListsWithoutTheirValues) {
  peer.SendRequest(1, RAW_NOTIFY, RAW_CONNECT_SIGNAL);
  peer.SendRequest(1, RAW_NOTIFY, RAW_CONNECT_SIGNAL, RawList().String("other", "ticks"));
  peer.SendRequest(3, RAW_CALL, RAW_DISCONNECT_SIGNAL);
  const auto reply = peer.ReadFrame();
  ASSERT_TRUE(reply) << peer.Problem();
  EXPECT_EQ(reply->bytes, ReplyHead(3, 0, 0));
  EXPECT_EQ(Subscribed(), Slots{});
}

TEST_F(SignalSlots, APeerThatComesBackUnderItsNameMustSubscribeAgain) {
  peer.SendRequest(1, RAW_NOTIFY, RAW_CONNECT_SIGNAL, Subscription("ticks", 5));
  Settle(peer);
  peer.Close();
  ASSERT_TRUE(SessionHost::WaitForSessions(0));
  host.Log().Clear();
  RawPeer again = host.Admit(NAME);
  EXPECT_EQ(Subscribed(), Slots{});
  EXPECT_EQ(TQEmit("ticks", {nullptr}, nullptr, nullptr), TQ_ERR_OK);
  Settle(again);
  again.SendRequest(1, RAW_NOTIFY, RAW_CONNECT_SIGNAL, Subscription("ticks", 6));
  Settle(again);
  EXPECT_EQ(TQEmit("ticks", {nullptr}, nullptr, nullptr), TQ_ERR_OK);
  const auto frame = again.ReadFrame();
  ASSERT_TRUE(frame) << again.Problem();
  EXPECT_EQ(frame->slotId, 6u);
}

TEST_F(SignalSlots, WaitForAnEmitOnAnotherThread) {
  Gate connected;
  std::thread connector;
  {
    // What an emit holds through its walk.
    LockScope held(g_signals.lock);
    connector = std::thread([&] {
      Connect("ticks", 5);
      connected.Open();
    });
    EXPECT_FALSE(connected.Wait(milliseconds(150)));
  }
  EXPECT_TRUE(connected.Wait());
  connector.join();
  EXPECT_EQ(Subscribed(), Slots{5});
}

}  // namespace
}  // namespace TQ::test
