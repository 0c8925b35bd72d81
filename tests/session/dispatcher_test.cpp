// The dispatcher: the one thread that runs slots, and what it does with each kind of message.
#include <gtest/gtest.h>
#include <tq/tq.h>

#include <algorithm>
#include <cstdlib>

#include "frame/settings.h"
#include "session/application_registry.h"
#include "session/dispatcher.h"
#include "session/probe_message.h"
#include "session/session.h"
#include "support/child_process.h"
#include "support/free_port.h"
#include "support/session_host.h"

namespace TQ::test {
namespace {

using detail::MessageRef;
using detail::MSG_CALL;
using detail::MSG_NOTIFY;
using detail::MSG_REPLY;
using detail::SessionRef;
using std::chrono::milliseconds;
using Lines = std::vector<std::string>;

const std::string NAME = "raw.host:4711/peer";
const std::string OTHER = "other.host:1/peer";

SessionRef FindSession(const std::string& name) {
  return detail::g_applications.Find(name.c_str());
}

/// Sends a call and gives what came back.
std::optional<RawFrame> CallSlot(RawPeer& peer, uint32_t slotId, const RawList& list = {}) {
  if (!peer.SendRequest(slotId + 1, RAW_CALL, slotId, list)) return std::nullopt;
  return peer.ReadFrame();
}

/// A slot that keeps the dispatcher until it is let go.
class BlockingSlot {
 public:
  explicit BlockingSlot(uint32_t slotId)
      : slot(slotId, [this](const SlotCall& call) {
          name = call.applicationName;
          entered.Open();
          EXPECT_TRUE(release.Wait());
        }) {}
  ~BlockingSlot() { release.Open(); }

  Gate entered, release;
  std::string name;

 private:
  ScopedSlot slot;
};

bool WaitForMessages(uint32_t count) {
  return WaitUntil([count] { return DEBUG_TQObjectCount().messages == count; });
}

// ---- slots -------------------------------------------------------------------------------------

TEST(Dispatcher, GivesASlotTheListTheResultTheCallersNameAndTheContext) {
  SessionHost host;
  std::optional<SlotCall> seen;
  uint32_t number = 0;
  ScopedSlot slot(7, [&](const SlotCall& call) {
    seen = call;
    number = TQGetInt32Value(call.params, "n");
    EXPECT_EQ(TQGetParamCount(call.result), 0u);
    TQSetInt32Value(call.result, "x", number + 1);
  });
  RawPeer peer = host.Admit(NAME);
  const auto reply = CallSlot(peer, 7, RawList().Int32("n", 41));
  ASSERT_TRUE(reply) << peer.Problem();
  EXPECT_EQ(reply->bytes, ReplyBytes(8, RawList().Int32("x", 42)));
  ASSERT_TRUE(seen);
  EXPECT_NE(seen->params.impl, nullptr);
  EXPECT_NE(seen->result.impl, nullptr);
  EXPECT_EQ(seen->applicationName, NAME);
  EXPECT_EQ(number, 41u);
}

TEST(Dispatcher, GivesASlotAnEmptyListForACallWithoutValues) {
  SessionHost host;
  bool isNull = true;
  uint32_t count = 1;
  ScopedSlot slot(7, [&](const SlotCall& call) {
    isNull = call.params.impl == nullptr;
    count = TQGetParamCount(call.params);
  });
  RawPeer peer = host.Admit(NAME);
  ASSERT_TRUE(CallSlot(peer, 7)) << peer.Problem();
  EXPECT_FALSE(isNull);
  EXPECT_EQ(count, 0u);
}

TEST(Dispatcher, GivesASlotANullResultForANotificationAndAnswersNothing) {
  SessionHost host;
  std::atomic<bool> resultIsNull{false};
  ScopedSlot slot(7, [&](const SlotCall& call) {
    resultIsNull = call.result.impl == nullptr;
    TQSetInt32Value(call.result, "x", 1);  // refused, as for every null list
  });
  RawPeer peer = host.Admit(NAME);
  ASSERT_TRUE(peer.SendRequest(1, RAW_NOTIFY, 7));
  const auto reply = CallSlot(peer, 99);
  ASSERT_TRUE(reply) << peer.Problem();
  EXPECT_EQ(reply->id, 100u);
  EXPECT_TRUE(resultIsNull);
  EXPECT_EQ(slot.Calls(), 1u);
}

int AnswerWithStatus(_tag_HTQPARAMLIST /*params*/, _tag_HTQPARAMLIST result,
                     const TQSlotCallInfo* info) {
  TQSetInt32Value(result, "x", 1);
  return *static_cast<const int*>(info->context);
}

TEST(Dispatcher, IgnoresWhatASlotReturns) {
  SessionHost host;
  RawPeer peer = host.Admit(NAME);
  for (int status : {0, -1, 1, 7}) {
    TQRegisterSlot(7, &AnswerWithStatus, &status);
    const auto reply = CallSlot(peer, 7);
    ASSERT_TRUE(reply) << peer.Problem();
    EXPECT_EQ(reply->list, RawList().Int32("x", 1)) << status;
  }
}

TEST(Dispatcher, AnswersACallOfAnUnknownSlotWithAnEmptyList) {
  SessionHost host;
  RawPeer peer = host.Admit(NAME);
  const size_t linesBefore = host.Log().Lines().size();
  const auto reply = CallSlot(peer, 12345, RawList().Int32("n", 1));
  ASSERT_TRUE(reply) << peer.Problem();
  EXPECT_EQ(ToText(reply->bytes), ToText(ReplyBytes(12346, RawList())));
  EXPECT_EQ(host.Log().Lines().size(), linesBefore) << host.Log().Dump();
}

TEST(Dispatcher, LetsANotificationOfAnUnknownSlotVanish) {
  SessionHost host;
  RawPeer peer = host.Admit(NAME);
  const size_t linesBefore = host.Log().Lines().size();
  ASSERT_TRUE(peer.SendRequest(1, RAW_NOTIFY, 12345, RawList().Int32("n", 1)));
  const auto reply = CallSlot(peer, 99);
  ASSERT_TRUE(reply) << peer.Problem();
  EXPECT_EQ(reply->id, 100u);
  EXPECT_TRUE(WaitForMessages(0));
  EXPECT_EQ(host.Log().Lines().size(), linesBefore) << host.Log().Dump();
}

TEST(Dispatcher, RunsAllSlotsOfAllSessionsOnOneThreadOneAtATime) {
  constexpr uint32_t EACH = 200;
  SessionHost host;
  std::atomic<int> running{0};
  std::atomic<int> together{0};
  std::vector<std::thread::id> threads;
  const auto body = [&](const SlotCall&) {
    if (++running != 1) ++together;
    threads.push_back(std::this_thread::get_id());
    std::this_thread::yield();
    --running;
  };
  ScopedSlot first(1, body);
  ScopedSlot second(2, body);
  RawPeer peer = host.Admit(NAME);
  RawPeer other = host.Admit(OTHER);
  for (uint32_t i = 0; i < EACH; ++i) {
    ASSERT_TRUE(peer.SendRequest(i, RAW_NOTIFY, 1));
    ASSERT_TRUE(other.SendRequest(i, RAW_NOTIFY, 2));
  }
  ASSERT_TRUE(WaitUntil([&] { return first.Calls() + second.Calls() == 2 * EACH; }));
  ASSERT_TRUE(CallSlot(peer, 99)) << peer.Problem();
  EXPECT_EQ(together, 0);
  ASSERT_EQ(threads.size(), 2 * EACH);
  for (const auto& thread : threads) EXPECT_EQ(thread, threads.front());
  EXPECT_NE(threads.front(), host.ReceivingThread(NAME));
  EXPECT_NE(threads.front(), host.ReceivingThread(OTHER));
}

TEST(Dispatcher, TakesMessagesInTheOrderInWhichTheyWereReadAcrossSessions) {
  SessionHost host;
  Lines order;
  BlockingSlot blocker(1);
  ScopedSlot slot(2, [&](const SlotCall& call) {
    order.push_back(call.applicationName + " " + std::to_string(TQGetInt32Value(call.params, "n")));
  });
  RawPeer peer = host.Admit(NAME);
  RawPeer other = host.Admit(OTHER);
  ASSERT_TRUE(peer.SendRequest(1, RAW_NOTIFY, 1));
  ASSERT_TRUE(blocker.entered.Wait());
  // Each is in the dispatch queue before the next one is sent.
  uint32_t queued = 1;
  for (const auto& [from, number] :
       {std::pair{&peer, 1u}, {&other, 2u}, {&other, 3u}, {&peer, 4u}, {&other, 5u}}) {
    ASSERT_TRUE(from->SendRequest(number, RAW_NOTIFY, 2, RawList().Int32("n", number)));
    ASSERT_TRUE(WaitForMessages(++queued));
  }
  blocker.release.Open();
  ASSERT_TRUE(CallSlot(peer, 99)) << peer.Problem();
  EXPECT_EQ(order, (Lines{NAME + " 1", OTHER + " 2", OTHER + " 3", NAME + " 4", OTHER + " 5"}));
}

TEST(Dispatcher, HoldsUpTheCallsOfOtherSessionsWhileASlotRunsButNotTheirReplies) {
  CompletionRecorder done;
  SessionHost host;
  BlockingSlot blocker(1);
  RawPeer peer = host.Admit(NAME);
  RawPeer other = host.Admit(OTHER);
  ASSERT_TRUE(peer.SendRequest(1, RAW_CALL, 1));
  ASSERT_TRUE(blocker.entered.Wait());
  ASSERT_TRUE(other.SendRequest(2, RAW_CALL, 99));
  EXPECT_TRUE(other.StaysSilentFor(milliseconds{50}));
  ASSERT_EQ(TQNotify(OTHER.c_str(), 9, {nullptr}, done.Callback(), &done), TQ_ERR_OK);
  const auto request = other.ReadFrame();
  ASSERT_TRUE(request) << other.Problem();
  EXPECT_EQ(request->slotId, 9u);
  ASSERT_TRUE(other.SendReply(request->id));
  EXPECT_TRUE(done.WaitForCount(1));
  blocker.release.Open();
  EXPECT_TRUE(other.ReadFrame()) << other.Problem();
  EXPECT_TRUE(peer.ReadFrame()) << peer.Problem();
}

TEST(Dispatcher, LetsASlotCallItsCallerBack) {
  SessionHost host;
  uint32_t answer = 0;
  ScopedSlot slot(7, [&](const SlotCall& call) {
    const _tag_HTQPARAMLIST reply = TQCall(call.applicationName.c_str(), 70, call.params);
    answer = TQGetInt32Value(reply, "x");
    TQSetInt32Value(call.result, "x", answer + 1);
    TQCloseHandle(reply);
  });
  RawPeer peer = host.Admit(NAME);
  ASSERT_TRUE(peer.SendRequest(1, RAW_CALL, 7, RawList().Int32("n", 3)));
  const auto nested = peer.ReadFrame();
  ASSERT_TRUE(nested) << peer.Problem();
  EXPECT_EQ(nested->slotId, 70u);
  EXPECT_EQ(nested->list, RawList().Int32("n", 3));
  ASSERT_TRUE(peer.SendReply(nested->id, RawList().Int32("x", 10)));
  const auto reply = peer.ReadFrame();
  ASSERT_TRUE(reply) << peer.Problem();
  EXPECT_EQ(reply->bytes, ReplyBytes(1, RawList().Int32("x", 11)));
}

TEST(Dispatcher, LetsASlotKeepItsListsByReference) {
  SessionHost host;
  _tag_HTQPARAMLIST kept = {nullptr};
  ScopedSlot slot(7, [&](const SlotCall& call) { kept = TQReferenceHandle(call.params); });
  RawPeer peer = host.Admit(NAME);
  ASSERT_TRUE(CallSlot(peer, 7, RawList().Int32("n", 3))) << peer.Problem();
  EXPECT_TRUE(WaitForMessages(0));
  EXPECT_EQ(DEBUG_TQObjectCount().paramLists, 1u);
  EXPECT_EQ(TQGetInt32Value(kept, "n"), 3u);
  TQCloseHandle(kept);
  EXPECT_EQ(DEBUG_TQObjectCount().paramLists, 0u);
}

// ---- the slot table while a slot runs ----------------------------------------------------------

TEST(Dispatcher, FinishesASlotThatUnregistersItselfAndSendsItsReply) {
  SessionHost host;
  std::atomic<int> unregistered{1};
  std::optional<ScopedSlot> slot;
  slot.emplace(7, [&](const SlotCall& call) {
    unregistered = TQUnregisterSlot(7);
    TQSetInt32Value(call.result, "x", 1);
  });
  RawPeer peer = host.Admit(NAME);
  auto reply = CallSlot(peer, 7);
  ASSERT_TRUE(reply) << peer.Problem();
  EXPECT_EQ(unregistered, TQ_ERR_OK);
  EXPECT_EQ(reply->list, RawList().Int32("x", 1));
  reply = CallSlot(peer, 7);
  ASSERT_TRUE(reply) << peer.Problem();
  EXPECT_EQ(reply->list, RawList());
  EXPECT_EQ(slot->Calls(), 1u);
}

TEST(Dispatcher, LetsASlotRegisterAndReplaceSlots) {
  SessionHost host;
  std::optional<ScopedSlot> added, replacement;
  ScopedSlot slot(7, [&](const SlotCall& call) {
    added.emplace(8, [](const SlotCall& inner) { TQSetInt32Value(inner.result, "x", 8); });
    replacement.emplace(7, [](const SlotCall& inner) { TQSetInt32Value(inner.result, "x", 77); });
    TQSetInt32Value(call.result, "x", 7);
  });
  RawPeer peer = host.Admit(NAME);
  for (const auto& [slotId, x] : {std::pair{7u, 7u}, {8u, 8u}, {7u, 77u}}) {
    const auto reply = CallSlot(peer, slotId);
    ASSERT_TRUE(reply) << peer.Problem();
    EXPECT_EQ(reply->list, RawList().Int32("x", x));
  }
}

TEST(Dispatcher, MakesAnotherThreadsUnregisterWaitForTheSlotAndForItsReply) {
  SessionHost host;
  Gate entered, release, unregistered, registered;
  ScopedSlot slot(7, [&](const SlotCall&) {
    entered.Open();
    EXPECT_TRUE(release.Wait());
  });
  RawPeer peer = host.Admit(NAME);
  ASSERT_TRUE(peer.SendRequest(1, RAW_CALL, 7));
  ASSERT_TRUE(entered.Wait());
  int result = 1;
  std::thread unregistering([&] {
    result = TQUnregisterSlot(7);
    TQNotify(NAME.c_str(), 70, {nullptr}, nullptr, nullptr);
    unregistered.Open();
  });
  std::thread registering([&] {
    TQRegisterSlot(8, &AnswerWithStatus, nullptr);
    registered.Open();
  });
  EXPECT_FALSE(unregistered.Wait(milliseconds{100}));
  EXPECT_FALSE(registered.IsOpen());
  release.Open();
  unregistering.join();
  registering.join();
  EXPECT_EQ(result, TQ_ERR_OK);
  // The reply was queued before the other thread went on.
  const auto first = peer.ReadFrame();
  const auto second = peer.ReadFrame();
  ASSERT_TRUE(first && second) << peer.Problem();
  EXPECT_EQ(first->kind, RAW_REPLY);
  EXPECT_EQ(second->slotId, 70u);
  TQUnregisterSlot(8);
}

// ---- sessions that end -------------------------------------------------------------------------

TEST(Dispatcher, QueuesNoReplyForASessionThatWentInvalidDuringTheCallback) {
  SessionHost host;
  BlockingSlot blocker(1);
  RawPeer peer = host.Admit(NAME);
  ASSERT_TRUE(peer.SendRequest(1, RAW_CALL, 1));
  ASSERT_TRUE(blocker.entered.Wait());
  TQDisconnect(NAME.c_str());
  ASSERT_TRUE(host.WaitForEnd(NAME));
  blocker.release.Open();
  // The message goes, and the session with it.
  EXPECT_EQ(peer.ReceiveUntilClosed(), Bytes()) << peer.Problem();
  EXPECT_TRUE(WaitForMessages(0));
  EXPECT_TRUE(host.WaitForSessions(0));
  EXPECT_EQ(blocker.name, NAME);
}

TEST(Dispatcher, CallsASlotWithAnEmptyNameWhenTheSessionIsNotValidAnyMore) {
  SessionHost host;
  BlockingSlot blocker(1);
  Lines names;
  ScopedSlot slot(2,
                  [&](const SlotCall& call) { names.push_back("'" + call.applicationName + "'"); });
  RawPeer peer = host.Admit(NAME);
  RawPeer other = host.Admit(OTHER);
  ASSERT_TRUE(other.SendRequest(1, RAW_NOTIFY, 1));
  ASSERT_TRUE(blocker.entered.Wait());
  ASSERT_TRUE(peer.SendRequest(2, RAW_CALL, 2));
  ASSERT_TRUE(WaitForMessages(2));
  ASSERT_TRUE(peer.SendRequest(3, RAW_NOTIFY, 2));
  ASSERT_TRUE(WaitForMessages(3));
  TQDisconnect(NAME.c_str());
  blocker.release.Open();
  ASSERT_TRUE(CallSlot(other, 99)) << other.Problem();
  EXPECT_EQ(names, (Lines{"''", "''"}));
  EXPECT_EQ(peer.ReceiveUntilClosed(), Bytes()) << peer.Problem();
}

TEST(Dispatcher, QueuesTheReplyOfASessionThatEndedByItselfWhereNobodySendsIt) {
  SessionHost host;
  BlockingSlot blocker(1);
  RawPeer peer = host.Admit(NAME);
  SessionRef session = FindSession(NAME);
  ASSERT_TRUE(peer.SendRequest(1, RAW_CALL, 1));
  ASSERT_TRUE(blocker.entered.Wait());
  peer.ShutdownWrite();
  ASSERT_TRUE(host.WaitForEnd(NAME));
  blocker.release.Open();
  RawPeer other = host.Admit(OTHER);
  ASSERT_TRUE(CallSlot(other, 99)) << other.Problem();
  // Its thread was never joined, so the session counts as valid: the reply waits in the queue.
  TQAPPImpl* kept = session.Get();
  session.Reset();
  EXPECT_TRUE(peer.StaysSilentFor(milliseconds{50}));
  EXPECT_EQ(DEBUG_TQObjectCount().messages, 1u);
  EXPECT_EQ(DEBUG_TQObjectCount().sessions, 2u);
  session = SessionRef(kept);
  session->Outgoing().ReleaseAll();
  session.Reset();
  EXPECT_EQ(peer.ReceiveUntilClosed(), Bytes()) << peer.Problem();
}

// ---- kinds -------------------------------------------------------------------------------------

TEST(Dispatcher, CompletesAReplyAsDoneWithoutTheLockOfTheSlotTable) {
  ProbeLog seen;
  std::atomic<bool> tableWasFree{false};
  SessionHost host;
  RawPeer peer = host.Admit(NAME);
  const ProbeRef probe = Probe(seen, FindSession(NAME), 5, MSG_REPLY);
  probe->duringComplete = [&] {
    // Another thread gets in while the callback runs; if it had to wait, this would not end well.
    Gate registered;
    std::thread other([&] {
      TQRegisterSlot(8, &AnswerWithStatus, nullptr);
      registered.Open();
    });
    tableWasFree = registered.Wait(milliseconds{5000});
    other.detach();
    if (!tableWasFree) std::abort();
  };
  detail::Dispatch(AsMessage(probe));
  ASSERT_TRUE(seen.WaitForCount(1));
  ASSERT_TRUE(CallSlot(peer, 99)) << peer.Problem();
  EXPECT_EQ(seen.Texts(), Lines{"complete 5 kind 2"});
  EXPECT_TRUE(tableWasFree);
  TQUnregisterSlot(8);
}

TEST(Dispatcher, DoesNothingWithAnyOtherKind) {
  ProbeLog seen;
  SessionHost host;
  RawPeer peer = host.Admit(NAME);
  ScopedSlot slot(0, [](const SlotCall&) {});  // the slot id of a probe
  for (const uint32_t kind : {0u, 4u, 0xFFFFFFFFu}) {
    detail::Dispatch(AsMessage(Probe(seen, FindSession(NAME), kind, kind)));
  }
  ASSERT_TRUE(CallSlot(peer, 99)) << peer.Problem();
  EXPECT_EQ(seen.Texts(), (Lines{"destroy 0", "destroy 4", "destroy 4294967295"}));
  EXPECT_EQ(slot.Calls(), 0u);
}

TEST(Dispatcher, TurnsACallIntoItsReplyAndHandsItToItsSession) {
  ProbeLog seen;
  SessionHost host;
  RawPeer peer = host.Admit(NAME);
  ScopedSlot slot(0, [](const SlotCall&) {});
  detail::Dispatch(AsMessage(Probe(seen, FindSession(NAME), 5, MSG_CALL)));
  detail::Dispatch(AsMessage(Probe(seen, FindSession(NAME), 6, MSG_NOTIFY)));
  detail::Dispatch(AsMessage(Probe(seen, nullptr, 7, MSG_CALL)));
  ASSERT_TRUE(CallSlot(peer, 99)) << peer.Problem();
  ASSERT_TRUE(seen.WaitForCount(4));
  const Lines texts = seen.Texts();
  const auto count = [&](const char* text) { return std::count(texts.begin(), texts.end(), text); };
  EXPECT_EQ(count("serialize 5 as 2"), 1);
  EXPECT_EQ(count("destroy 5"), 1);
  EXPECT_EQ(count("destroy 6"), 1);
  EXPECT_EQ(count("destroy 7"), 1);
  EXPECT_EQ(slot.Calls(), 3u);
}

TEST(Dispatcher, PassesOverNullAndInvalidMessages) {
  ProbeLog seen;
  SessionHost host;
  RawPeer peer = host.Admit(NAME);
  ScopedSlot slot(0, [](const SlotCall&) {});
  const ProbeRef invalid = Probe(seen, FindSession(NAME), 1, MSG_CALL);
  invalid->valid = false;
  detail::Dispatch(AsMessage(invalid));
  detail::Dispatch(MessageRef());
  ASSERT_TRUE(CallSlot(peer, 99)) << peer.Problem();
  EXPECT_EQ(seen.Texts(), Lines());
  EXPECT_EQ(slot.Calls(), 0u);
}

// ---- the end of the dispatcher -----------------------------------------------------------------

TEST(Dispatcher, LeavesWhatIsQueuedAtAShutdownAndServesItInTheNextLife) {
  SessionHost host;
  BlockingSlot blocker(1);
  Lines names;
  ScopedSlot slot(2,
                  [&](const SlotCall& call) { names.push_back("'" + call.applicationName + "'"); });
  RawPeer peer = host.Admit(NAME);
  ASSERT_TRUE(peer.SendRequest(1, RAW_CALL, 1));
  ASSERT_TRUE(blocker.entered.Wait());
  ASSERT_TRUE(peer.SendRequest(2, RAW_CALL, 2));
  ASSERT_TRUE(WaitForMessages(2));
  // Joined and so not valid any more: the first call is not answered.
  TQDisconnect(NAME.c_str());
  ASSERT_TRUE(host.WaitForEnd(NAME));
  std::thread shutdown([&] { host.Shutdown(); });
  EXPECT_TRUE(WaitUntil([] { return detail::StopAllRequested(); }));
  blocker.release.Open();
  shutdown.join();
  EXPECT_EQ(DEBUG_TQObjectCount().messages, 1u);
  EXPECT_EQ(names, Lines());

  ASSERT_EQ(TQInitialize("host", 0, nullptr), TQ_ERR_OK);
  EXPECT_TRUE(WaitForMessages(0));
  TQShutdown();
  EXPECT_EQ(names, Lines{"''"});
}

/// Registered before the library is loaded, and so run after its objects have gone.
void SayMessagesLeft() {
  Say("at the end " + std::to_string(DEBUG_TQObjectCount().messages) + " messages, " +
      std::to_string(DEBUG_TQObjectCount().sessions) + " sessions");
}

[[gnu::constructor(101)]] void SayMessagesLeftAtTheVeryEnd() { std::atexit(&SayMessagesLeft); }

TQ_TEST_ROLE(leaveQueued) {
  SessionHost host;
  BlockingSlot blocker(1);
  ScopedSlot slot(2, [](const SlotCall&) { Say("the slot has run"); });
  RawPeer peer = host.Admit(NAME);
  EXPECT_TRUE(peer.SendRequest(1, RAW_CALL, 1));
  EXPECT_TRUE(blocker.entered.Wait());
  EXPECT_TRUE(peer.SendRequest(2, RAW_CALL, 2));
  EXPECT_TRUE(WaitForMessages(2));
  TQDisconnect(NAME.c_str());
  EXPECT_TRUE(host.WaitForEnd(NAME));
  std::thread shutdown([&] { host.Shutdown(); });
  EXPECT_TRUE(WaitUntil([] { return detail::StopAllRequested(); }));
  blocker.release.Open();
  shutdown.join();
  Say("after the shutdown " + std::to_string(DEBUG_TQObjectCount().messages) + " messages, " +
      std::to_string(DEBUG_TQObjectCount().sessions) + " sessions");
  std::exit(0);  // without the destructor of the host, which expects no messages
}

TEST(Dispatcher, ReleasesWhatItHasLeftWhenTheLibraryIsUnloaded) {
  ChildProcess child("leaveQueued");
  ASSERT_TRUE(child.ExpectLine("after the shutdown 1 messages, 1 sessions"));
  ASSERT_TRUE(child.ExpectLine("at the end 0 messages, 0 sessions"));
  EXPECT_TRUE(child.ExpectSuccess());
}

}  // namespace
}  // namespace TQ::test
