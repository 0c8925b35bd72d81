// The sending thread against raw peers: order on the wire, failed writes, and how a session is
// taken down.
#include <gtest/gtest.h>
#include <tq/tq.h>

#include <algorithm>

#include "session/application_registry.h"
#include "session/probe_message.h"
#include "session/session.h"
#include "support/session_host.h"
#include "support/transport.h"

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

SessionRef FindSession(const std::string& name) {
  return detail::g_applications.Find(name.c_str());
}

/// A slot that tells the dispatcher's thread.
std::thread::id DispatcherThread(RawPeer& peer) {
  std::thread::id thread;
  ScopedSlot slot(1000, [&](const SlotCall&) { thread = std::this_thread::get_id(); });
  EXPECT_TRUE(peer.SendRequest(1000, RAW_CALL, 1000));
  EXPECT_TRUE(peer.ReadFrame()) << peer.Problem();
  return thread;
}

/// Keeps the sending thread of a session inside a write, until the peer reads on or breaks off.
class HeldWrite {
 public:
  /// `peer` must have a small receive buffer.
  HeldWrite(const std::string& name, RawPeer& receiver) : peer(receiver) {
    big.Binary("b", Filled(MORE_THAN_BUFFERS, 1));
    EXPECT_EQ(TQNotify(name.c_str(), 500, big.Get(), nullptr, nullptr), TQ_ERR_OK);
    // Its first bytes are there, so the sending thread is in the middle of it.
    EXPECT_TRUE(peer.ReceiveExactly(HEAD));
  }

  /// Reads the rest of the frame, which lets the write end.
  bool Finish() { return peer.ReceiveExactly(20 + TQGetHandleSize(big.Get()) - HEAD).has_value(); }

 private:
  static constexpr size_t HEAD = 20;

  RawPeer& peer;
  ScopedList big;
};

// ---- order on the wire -------------------------------------------------------------------------

TEST(SendingThread, WritesFramesInTheOrderOfTheQueueWhateverTheirKinds) {
  constexpr uint32_t COUNT = 300;
  CompletionRecorder done;
  SessionHost host;
  RawPeer peer = host.Admit(NAME);
  for (uint32_t i = 0; i < COUNT; ++i) {
    const bool wantsReply = i % 3 == 0;
    ASSERT_EQ(TQNotify(NAME.c_str(), i, {nullptr}, wantsReply ? done.Callback() : nullptr, &done),
              TQ_ERR_OK);
  }
  uint32_t lastId = 0;
  for (uint32_t i = 0; i < COUNT; ++i) {
    const auto frame = peer.ReadFrame();
    ASSERT_TRUE(frame) << i << " " << peer.Problem();
    EXPECT_EQ(frame->slotId, i);
    EXPECT_EQ(frame->kind, i % 3 == 0 ? RAW_CALL : RAW_NOTIFY);
    EXPECT_GT(frame->id, lastId);
    lastId = frame->id;
    if (frame->kind == RAW_CALL) {
      ASSERT_TRUE(peer.SendReply(frame->id));
    }
  }
  EXPECT_TRUE(done.WaitForCount(COUNT / 3));
}

TEST(SendingThread, WritesAReplyBehindWhatItsSlotHasQueued) {
  SessionHost host;
  ScopedSlot slot(7, [](const SlotCall& call) {
    EXPECT_EQ(TQNotify(call.applicationName.c_str(), 21, {nullptr}, nullptr, nullptr), TQ_ERR_OK);
    EXPECT_EQ(TQNotify(call.applicationName.c_str(), 22, {nullptr}, nullptr, nullptr), TQ_ERR_OK);
  });
  RawPeer peer = host.Admit(NAME);
  ASSERT_TRUE(peer.SendRequest(99, RAW_CALL, 7));
  const auto first = peer.ReadFrame();
  const auto second = peer.ReadFrame();
  const auto third = peer.ReadFrame();
  ASSERT_TRUE(first && second && third) << peer.Problem();
  EXPECT_EQ(first->slotId, 21u);
  EXPECT_EQ(second->slotId, 22u);
  EXPECT_EQ(third->kind, RAW_REPLY);
  EXPECT_EQ(third->id, 99u);
}

TEST(SendingThread, IsTheOnlyWriterSoThatFramesOfManyThreadsNeverMix) {
  constexpr uint32_t THREADS = 4;
  constexpr uint32_t EACH = 40;
  SessionHost host;
  RawPeer peer = host.Admit(NAME);
  std::vector<std::thread> threads;
  for (uint32_t thread = 0; thread < THREADS; ++thread) {
    threads.emplace_back([thread] {
      for (uint32_t i = 0; i < EACH; ++i) {
        // Several writes a frame: head, blocks and the descriptor between them.
        ScopedList list, nested;
        nested.Int32("i", i).Binary("b", Pattern(5000, thread * EACH + i));
        list.Int32("thread", thread);
        TQSetHandleValue(list.Get(), "nested", nested.Get());
        EXPECT_EQ(TQNotify(NAME.c_str(), thread, list.Get(), nullptr, nullptr), TQ_ERR_OK);
      }
    });
  }
  std::vector<uint32_t> next(THREADS, 0);
  for (uint32_t i = 0; i < THREADS * EACH; ++i) {
    const auto frame = peer.ReadFrame();
    if (!frame) ADD_FAILURE() << i << " " << peer.Problem();
    if (!frame) break;
    const uint32_t thread = frame->slotId;
    const uint32_t number = next.at(thread)++;
    const RawList expected =
        RawList()
            .Int32("thread", thread)
            .Handle(
                "nested",
                RawList().Int32("i", number).Binary("b", Pattern(5000, thread * EACH + number)));
    EXPECT_EQ(frame->list, expected);
  }
  for (std::thread& each : threads) each.join();
}

TEST(SendingThread, WritesTheReplyOfAnInboundCallUnderTheCallersId) {
  SessionHost host;
  ScopedSlot slot(7, [](const SlotCall& call) { TQSetInt32Value(call.result, "x", 5); });
  RawPeer peer = host.Admit(NAME);
  for (const uint32_t id : {0u, 1u, 0xFFFFFFFFu, 1u}) {
    ASSERT_TRUE(peer.SendRequest(id, RAW_CALL, 7));
    const auto reply = peer.ReadFrame();
    ASSERT_TRUE(reply) << peer.Problem();
    EXPECT_EQ(reply->bytes, ReplyBytes(id, RawList().Int32("x", 5)));
  }
}

// ---- awaited requests --------------------------------------------------------------------------

TEST(SendingThread, MakesTheEntryOfARequestBeforeTheFirstByteGoesOut) {
  ProbeLog seen;
  SessionHost host;
  RawPeer peer = host.Admit(NAME);
  const SessionRef session = FindSession(NAME);
  bool entryWasThere = false;
  const ProbeRef probe = Probe(seen, session, 77, MSG_CALL);
  probe->duringSerialize = [&] { entryWasThere = session->Awaiting().Take(77) == probe.Get(); };
  session->Outgoing().Push(AsMessage(probe));
  ASSERT_TRUE(seen.WaitForCount(1));
  // The queue's order tells that the first one is done.
  session->Outgoing().Push(AsMessage(Probe(seen, session, 78, MSG_NOTIFY)));
  ASSERT_TRUE(seen.WaitForCount(2));
  EXPECT_TRUE(entryWasThere);
  EXPECT_FALSE(session->Awaiting().Take(78));
}

TEST(SendingThread, StoresTheNumberOfAwaitedRequestsWithEachNewEntry) {
  CompletionRecorder done;
  SessionHost host;
  RawPeer peer = host.Admit(NAME);
  std::vector<uint32_t> ids;
  for (uint32_t i = 1; i <= 3; ++i) {
    ASSERT_EQ(TQNotify(NAME.c_str(), 9, {nullptr}, done.Callback(), &done), TQ_ERR_OK);
    const auto request = peer.ReadFrame();
    ASSERT_TRUE(request) << peer.Problem();
    ids.push_back(request->id);
    EXPECT_EQ(DEBUG_TQObjectCount().pendingCalls, i);
  }
  // A notification makes no entry.
  ASSERT_EQ(TQNotify(NAME.c_str(), 9, {nullptr}, nullptr, nullptr), TQ_ERR_OK);
  ASSERT_TRUE(peer.ReadFrame()) << peer.Problem();
  EXPECT_EQ(DEBUG_TQObjectCount().pendingCalls, 3u);
  // A reply takes its entry out without storing a number; the next request stores what is left.
  ASSERT_TRUE(peer.SendReply(ids[0]));
  ASSERT_TRUE(peer.SendReply(ids[2]));
  ASSERT_TRUE(done.WaitForCount(2));
  EXPECT_EQ(DEBUG_TQObjectCount().pendingCalls, 3u);
  ASSERT_EQ(TQNotify(NAME.c_str(), 9, {nullptr}, done.Callback(), &done), TQ_ERR_OK);
  const auto request = peer.ReadFrame();
  ASSERT_TRUE(request) << peer.Problem();
  EXPECT_EQ(DEBUG_TQObjectCount().pendingCalls, 2u);
  ASSERT_TRUE(peer.SendReply(request->id));
  ASSERT_TRUE(peer.SendReply(ids[1]));
  ASSERT_TRUE(done.WaitForCount(4));
  EXPECT_EQ(DEBUG_TQObjectCount().pendingCalls, 2u);
  // An id that is not there stores the number too.
  ASSERT_TRUE(peer.SendReply(ids[1]));
  EXPECT_TRUE(peer.WaitClosed());
  EXPECT_EQ(DEBUG_TQObjectCount().pendingCalls, 0u);
}

TEST(SendingThread, ReplacesAnEntryOfTheSameIdAndReleasesIt) {
  ProbeLog seen;
  SessionHost host;
  RawPeer peer = host.Admit(NAME);
  const SessionRef session = FindSession(NAME);
  session->Outgoing().Push(AsMessage(Probe(seen, session, 77, MSG_CALL)));
  ASSERT_TRUE(seen.WaitForCount(1));
  const ProbeRef second = Probe(seen, session, 77, MSG_CALL);
  session->Outgoing().Push(AsMessage(second));
  ASSERT_TRUE(seen.WaitForCount(3));
  // The first one is released without completion.
  EXPECT_EQ(seen.Texts(), (Lines{"serialize 77 as 1", "destroy 77", "serialize 77 as 1"}));
  EXPECT_EQ(DEBUG_TQObjectCount().pendingCalls, 1u);
  EXPECT_TRUE(session->Awaiting().Take(77) == second.Get());
}

// ---- what is not written -----------------------------------------------------------------------

TEST(SendingThread, PassesOverNullAndInvalidMessages) {
  ProbeLog seen;
  SessionHost host;
  RawPeer peer = host.Admit(NAME);
  const SessionRef session = FindSession(NAME);
  const ProbeRef invalid = Probe(seen, session, 1, MSG_CALL);
  invalid->valid = false;
  session->Outgoing().Push(AsMessage(invalid));
  session->Outgoing().Push(nullptr);
  session->Outgoing().Push(AsMessage(Probe(seen, session, 2, MSG_NOTIFY)));
  ASSERT_TRUE(seen.WaitForCount(2));
  EXPECT_EQ(seen.Texts(), (Lines{"serialize 2 as 3", "destroy 2"}));
  EXPECT_FALSE(session->Awaiting().Take(1));
  EXPECT_EQ(host.Log().CountOfPrefix("Removing application "), 0u);
}

TEST(SendingThread, PassesOverFailedWritesOfRepliesAndNotifications) {
  ProbeLog seen;
  SessionHost host;
  RawPeer peer = host.Admit(NAME);
  const SessionRef session = FindSession(NAME);
  const size_t linesBefore = host.Log().Lines().size();
  for (const uint32_t kind : {uint32_t{MSG_REPLY}, uint32_t{MSG_NOTIFY}, 9u}) {
    const ProbeRef probe = Probe(seen, session, kind, kind);
    probe->serializeResult = -1;
    session->Outgoing().Push(AsMessage(probe));
  }
  session->Outgoing().Push(AsMessage(Probe(seen, session, 5, MSG_NOTIFY)));
  const auto times = [&seen](const std::string& text) {
    const Lines texts = seen.Texts();
    return std::count(texts.begin(), texts.end(), text);
  };
  ASSERT_TRUE(WaitUntil([&] { return times("destroy 5") == 1; }));
  const Lines texts = seen.Texts();
  EXPECT_EQ(times("serialize 2 as 2"), 1);
  EXPECT_EQ(times("serialize 3 as 3"), 1);
  EXPECT_EQ(times("serialize 9 as 9"), 1);
  EXPECT_EQ(times("serialize 5 as 3"), 1);
  EXPECT_EQ(std::count_if(texts.begin(), texts.end(),
                          [](const std::string& text) { return text.find("complete") == 0; }),
            0);
  EXPECT_EQ(host.Log().Lines().size(), linesBefore) << host.Log().Dump();
  EXPECT_TRUE(FindSession(NAME).IsValid());
}

// A write to a pipe takes as long as its peer lets it.
TEST(SendingThreadOverTcp, DropsANotificationThatCannotBeWrittenAndGoesOn) {
  SessionHost host;
  RawPeer peer = host.Admit(NAME, SMALL_RECEIVE_BUFFER);
  SessionHost::SetIoTimeout(SHORT_WRITES);
  HeldWrite held(NAME, peer);
  ASSERT_EQ(TQNotify(NAME.c_str(), 501, {nullptr}, nullptr, nullptr), TQ_ERR_OK);
  Bytes received;
  ASSERT_TRUE(WaitUntil([&] {
    std::this_thread::sleep_for(milliseconds{150});
    const auto some = peer.ReceiveExactly(65536);
    if (some) received = *some;
    return !some || host.Log().CountOfPrefix("Send failed with ") == 1;
  }));
  EXPECT_EQ(host.Log().CountOf("Send failed with 11"), 1u) << host.Log().Dump();
  EXPECT_TRUE(FindSession(NAME).IsValid());
  EXPECT_EQ(host.Log().CountOfPrefix("Removing application "), 0u);
  // The next frame follows in the middle of the one that was given up.
  TQDisconnect(NAME.c_str());
  const auto rest = peer.ReceiveUntilClosed();
  ASSERT_TRUE(rest) << peer.Problem();
  Append(received, *rest);
  ASSERT_GT(received.size(), 20u);
  EXPECT_EQ(ReadU32(received.data() + received.size() - 16), RAW_NOTIFY);
  EXPECT_EQ(ReadU32(received.data() + received.size() - 12), 501u);
}

// ---- failed writes of requests -----------------------------------------------------------------

TEST(SendingThread, HandsARequestWhoseWriteFailedToTheDispatcher) {
  ProbeLog seen;
  SessionHost host;
  RawPeer peer = host.Admit(NAME);
  const std::thread::id dispatcher = DispatcherThread(peer);
  const SessionRef session = FindSession(NAME);
  const ProbeRef probe = Probe(seen, session, 77, MSG_CALL);
  probe->serializeResult = -1;
  session->Outgoing().Push(AsMessage(probe));
  ASSERT_TRUE(seen.WaitForCount(2));
  EXPECT_EQ(seen.Texts(), (Lines{"serialize 77 as 1", "complete 77 kind 2"}));
  EXPECT_EQ(seen.Events()[1].thread, dispatcher);
  // The sending side ends, the receiving side does not.
  ASSERT_TRUE(host.WaitForSendingEnd(NAME));
  EXPECT_FALSE(FindSession(NAME));
  EXPECT_EQ(host.SendingThreadLog(NAME).size(), 4u);
  EXPECT_EQ(session->StopRequested().load(), 0);
  EXPECT_EQ(host.Log().CountOfPrefix("Remote disconnect: "), 0u);
  EXPECT_EQ(host.Log().CountOfPrefix("Receiving thread finished for "), 0u);
  EXPECT_FALSE(session->Awaiting().Take(77));
  peer.Close();
  EXPECT_TRUE(host.WaitForReceivingEnd(NAME));
}

TEST(SendingThread, LeavesARequestAloneWhoseReplyCameBeforeItsWriteFailed) {
  ProbeLog seen;
  SessionHost host;
  RawPeer peer = host.Admit(NAME);
  const SessionRef session = FindSession(NAME);
  const ProbeRef probe = Probe(seen, session, 77, MSG_CALL);
  probe->serializeResult = -1;
  probe->duringSerialize = [&] { EXPECT_TRUE(session->Awaiting().Take(77)); };
  session->Outgoing().Push(AsMessage(probe));
  ASSERT_TRUE(host.WaitForSendingEnd(NAME));
  // What was queued for the dispatcher before would be done by now.
  RawPeer other = host.Admit("other:1/raw");
  (void)DispatcherThread(other);
  EXPECT_EQ(seen.Texts(), (Lines{"serialize 77 as 1"}));
  peer.Close();
  EXPECT_TRUE(host.WaitForReceivingEnd(NAME));
}

/// Replies to the first request of the first peer, of which only the head was read, and waits until
/// the reply was taken.
void ReplyEarly(RawPeer& peer) {
  // A handshake takes 5 reads. On a pipe the read of the first head follows at once, before
  // anything is there to be read.
  constexpr uint32_t READS_WITH_FIRST_HEAD = 6;
  ASSERT_TRUE(WaitUntil(
      [] { return !OverPipes() || DEBUG_TQObjectCount().readCalls == READS_WITH_FIRST_HEAD; }));
  const auto head = peer.ReceiveExactly(20);
  ASSERT_TRUE(head) << peer.Problem();
  const uint32_t reads = DEBUG_TQObjectCount().readCalls;
  ASSERT_TRUE(peer.SendReply(ReadU32(head->data()), RawList().Int32("x", 5)));
  // The head, then the body, which is read once the entry has left the table.
  const uint32_t expected = reads + (OverPipes() ? 1 : 2);
  ASSERT_TRUE(WaitUntil([&] { return DEBUG_TQObjectCount().readCalls >= expected; }));
}

TEST(SendingThread, LeavesACallItsReplyWhenTheWriteFailsAfterwards) {
  SessionHost host;
  RawPeer peer = host.Admit(NAME, SMALL_RECEIVE_BUFFER);
  ScopedList big;
  big.Binary("b", Filled(MORE_THAN_BUFFERS, 1));
  CallInThread call(NAME, 9, big.Get());
  ReplyEarly(peer);
  peer.Reset();
  ASSERT_TRUE(call.WaitReturned());
  EXPECT_EQ(TQGetInt32Value(call.Result(), "x"), 5u);
}

TEST(SendingThread, LeavesACallbackItsReplyWhenTheWriteFailsAfterwards) {
  ScopedList big;
  CompletionRecorder done;
  // The list is not being read any more, so the callback may change it.
  done.hook = [&](const auto&) { TQRemoveAllValues(big.Get()); };
  SessionHost host;
  RawPeer peer = host.Admit(NAME, SMALL_RECEIVE_BUFFER);
  big.Binary("b", Filled(MORE_THAN_BUFFERS, 1));
  ASSERT_EQ(TQNotify(NAME.c_str(), 9, big.Get(), done.Callback(), &done), TQ_ERR_OK);
  ReplyEarly(peer);
  peer.Reset();
  ASSERT_TRUE(host.WaitForEnd(NAME));
  ASSERT_EQ(done.Count(), 1u);
  EXPECT_EQ(done.Calls()[0].resultX, 5u);
  EXPECT_EQ(done.Calls()[0].thread, host.ReceivingThread(NAME));
}

TEST(SendingThread, GivesACallWhoseOwnWriteFailedAValidEmptyList) {
  SessionHost host;
  RawPeer peer = host.Admit(NAME, SMALL_RECEIVE_BUFFER);
  ScopedList big;
  big.Binary("b", Filled(MORE_THAN_BUFFERS, 1));
  CallInThread call(NAME, 9, big.Get());
  ASSERT_TRUE(peer.ReceiveExactly(20)) << peer.Problem();
  peer.Reset();
  ASSERT_TRUE(call.WaitReturned());
  EXPECT_NE(call.Result().impl, nullptr);
  EXPECT_EQ(TQGetParamCount(call.Result()), 0u);
  EXPECT_EQ(host.Log().CountOfPrefix("Send failed with "), TimesOfASocket(1)) << host.Log().Dump();
}

TEST(SendingThread, LetsTheDispatcherRunTheCallbackOfARequestWhoseWriteFailed) {
  CompletionRecorder done;
  SessionHost host;
  RawPeer other = host.Admit("other:1/raw");
  const std::thread::id dispatcher = DispatcherThread(other);
  RawPeer peer = host.Admit(NAME, SMALL_RECEIVE_BUFFER);
  ScopedList big;
  big.Binary("b", Filled(MORE_THAN_BUFFERS, 1));
  ASSERT_EQ(TQNotify(NAME.c_str(), 9, big.Get(), done.Callback(), &done), TQ_ERR_OK);
  ASSERT_TRUE(peer.ReceiveExactly(20)) << peer.Problem();
  // Queued behind it, and cancelled in its turn.
  ASSERT_EQ(TQNotify(NAME.c_str(), 10, {nullptr}, done.Callback(), &done), TQ_ERR_OK);
  peer.Reset();
  ASSERT_TRUE(done.WaitForCount(2));
  ASSERT_TRUE(host.WaitForEnd(NAME));
  for (const auto& call : done.Calls()) {
    EXPECT_EQ(call.applicationName, NAME);
    if (call.slotId == 9) {
      EXPECT_EQ(call.thread, dispatcher);
      EXPECT_FALSE(call.resultIsNull);
      EXPECT_EQ(call.resultCount, 0u);
      EXPECT_EQ(call.params, big.Get().impl);
    } else {
      EXPECT_EQ(call.slotId, 10u);
      EXPECT_EQ(call.thread, host.SendingThread(NAME));
      EXPECT_TRUE(call.resultIsNull);
    }
  }
  EXPECT_TRUE(host.WaitForSessions(1));
}

// ---- the end -----------------------------------------------------------------------------------

TEST(SendingThread, LogsTheFourLinesOfItsEndInOrder) {
  SessionHost host;
  RawPeer peer = host.Admit(NAME);
  const std::string ends = NAME + ":" + peer.RemoteAddress() + "<->" + peer.LocalAddress();
  TQDisconnect(NAME.c_str());
  ASSERT_TRUE(host.WaitForSendingEnd(NAME));
  EXPECT_EQ(host.SendingThreadLog(NAME),
            (Lines{InfoLine("Removing application raw.host:4711/peer"),
                   InfoLine("Cancel postponed outgoing Outgoing messages queue has been cleared for"
                            "raw.host:4711/peer"),
                   InfoLine("All awaiting requests cancelled for raw.host:4711/peer"),
                   InfoLine("Sending thread finished for " + ends)}));
}

TEST(SendingThread, CancelsWhatIsQueuedInsteadOfFlushingIt) {
  CompletionRecorder done;
  SessionHost host;
  RawPeer peer = host.Admit(NAME, SMALL_RECEIVE_BUFFER);
  HeldWrite held(NAME, peer);
  CallInThread call(NAME, 10);
  ASSERT_TRUE(WaitUntil([] { return DEBUG_TQObjectCount().messages == 2; }));
  ASSERT_EQ(TQNotify(NAME.c_str(), 11, {nullptr}, done.Callback(), &done), TQ_ERR_OK);
  ASSERT_EQ(TQNotify(NAME.c_str(), 12, {nullptr}, nullptr, nullptr), TQ_ERR_OK);
  ASSERT_EQ(TQNotify(NAME.c_str(), 13, {nullptr}, done.Callback(), &done), TQ_ERR_OK);
  TQDisconnect(NAME.c_str());
  EXPECT_FALSE(call.HasReturned());
  EXPECT_EQ(done.Count(), 0u);
  // The frame that is under way is finished, and nothing follows it.
  ASSERT_TRUE(held.Finish()) << peer.Problem();
  EXPECT_EQ(peer.ReceiveUntilClosed(), Bytes()) << peer.Problem();
  ASSERT_TRUE(call.WaitReturned());
  EXPECT_EQ(call.Result().impl, nullptr);
  ASSERT_TRUE(done.WaitForCount(2));
  const auto calls = done.Calls();
  EXPECT_EQ(calls.at(0).slotId, 11u);
  EXPECT_EQ(calls.at(1).slotId, 13u);
  for (const auto& each : calls) {
    EXPECT_EQ(each.applicationName, NAME);
    EXPECT_TRUE(each.resultIsNull);
    EXPECT_EQ(each.thread, host.SendingThread(NAME));
  }
}

TEST(SendingThread, DropsQueuedRepliesWithoutASign) {
  SessionHost host;
  ScopedSlot slot(7, [](const SlotCall&) {});
  RawPeer peer = host.Admit(NAME, SMALL_RECEIVE_BUFFER);
  HeldWrite held(NAME, peer);
  ASSERT_TRUE(peer.SendRequest(1, RAW_CALL, 7));
  ASSERT_TRUE(WaitUntil([&] { return slot.Calls() == 1; }));
  TQDisconnect(NAME.c_str());
  ASSERT_TRUE(held.Finish()) << peer.Problem();
  EXPECT_EQ(peer.ReceiveUntilClosed(), Bytes()) << peer.Problem();
}

TEST(SendingThread, TakesTheSessionOutOfTheRegistryBeforeItCancelsAnything) {
  std::atomic<int> notified{1};
  std::atomic<bool> callReturnedNull{false};
  CompletionRecorder done;
  done.hook = [&](const auto& call) {
    notified = TQNotify(call.applicationName->c_str(), 1, {nullptr}, nullptr, nullptr);
    // Fails at once instead of waiting for ever.
    callReturnedNull = TQCall(call.applicationName->c_str(), 1, {nullptr}).impl == nullptr;
  };
  SessionHost host;
  RawPeer peer = host.Admit(NAME, SMALL_RECEIVE_BUFFER);
  HeldWrite held(NAME, peer);
  ASSERT_EQ(TQNotify(NAME.c_str(), 11, {nullptr}, done.Callback(), &done), TQ_ERR_OK);
  // The peer is lost, and nobody joins the receiving thread: the session stays valid.
  peer.ShutdownWrite();
  ASSERT_TRUE(host.WaitForReceivingEnd(NAME));
  EXPECT_TRUE(FindSession(NAME).IsValid());
  ASSERT_TRUE(held.Finish()) << peer.Problem();
  EXPECT_TRUE(peer.WaitClosed());
  ASSERT_EQ(done.Count(), 1u);
  EXPECT_EQ(notified, TQ_ERR_NO_SESSION);
  EXPECT_TRUE(callReturnedNull);
}

TEST(SendingThread, LeavesNobodyUnderTheNameAfterADisconnect) {
  SessionHost host;
  RawPeer peer = host.Admit(NAME);
  TQDisconnect(NAME.c_str());
  EXPECT_EQ(TQNotify(NAME.c_str(), 1, {nullptr}, nullptr, nullptr), TQ_ERR_NO_SESSION);
  EXPECT_EQ(TQCall(NAME.c_str(), 1, {nullptr}).impl, nullptr);
  EXPECT_TRUE(peer.WaitClosed());
}

/// Queues one message before and one behind a message that ends the drain.
void ExpectDrainToEndAt(bool nullMessage) {
  ProbeLog seen;
  Gate entered, release;
  SessionHost host;
  RawPeer peer = host.Admit(NAME);
  const SessionRef session = FindSession(NAME);
  const ProbeRef blocker = Probe(seen, session, 1, MSG_NOTIFY);
  blocker->duringSerialize = [&] {
    entered.Open();
    EXPECT_TRUE(release.Wait());
  };
  session->Outgoing().Push(AsMessage(blocker));
  ASSERT_TRUE(entered.Wait());
  const ProbeRef invalid = Probe(seen, session, 3, MSG_NOTIFY);
  invalid->valid = false;
  session->Outgoing().Push(AsMessage(Probe(seen, session, 2, MSG_CALL)));
  session->Outgoing().Push(nullMessage ? MessageRef() : AsMessage(invalid));
  session->Outgoing().Push(AsMessage(Probe(seen, session, 4, MSG_CALL)));
  TQDisconnect(NAME.c_str());
  release.Open();
  ASSERT_TRUE(host.WaitForSendingEnd(NAME));
  // What stands behind it is neither sent nor completed, and keeps the session.
  EXPECT_EQ(seen.Texts(), (Lines{"serialize 1 as 3", "complete 2 dropped kind 1", "destroy 2"}));
  session->Outgoing().ReleaseAll();
  const Lines texts = seen.Texts();
  EXPECT_EQ(std::count(texts.begin(), texts.end(), "destroy 4"), 1);
}

TEST(SendingThread, EndsItsDrainAtTheFirstNullMessage) { ExpectDrainToEndAt(true); }

TEST(SendingThread, EndsItsDrainAtTheFirstInvalidMessage) { ExpectDrainToEndAt(false); }

TEST(SendingThread, NeitherSendsNorCompletesWhatIsPushedAfterItsEnd) {
  ProbeLog seen;
  SessionHost host;
  RawPeer peer = host.Admit(NAME);
  SessionRef session = FindSession(NAME);
  TQDisconnect(NAME.c_str());
  ASSERT_TRUE(host.WaitForSendingEnd(NAME));
  session->Outgoing().Push(AsMessage(Probe(seen, session, 1, MSG_CALL)));
  TQAPPImpl* kept = session.Get();
  session.Reset();
  // The message holds the session, and so the connection.
  EXPECT_TRUE(peer.StaysSilentFor(milliseconds{50}));
  EXPECT_EQ(seen.Texts(), Lines());
  EXPECT_EQ(DEBUG_TQObjectCount().sessions, 1u);
  session = SessionRef(kept);
  session->Outgoing().ReleaseAll();
  session.Reset();
  EXPECT_EQ(seen.Texts(), Lines{"destroy 1"});
  EXPECT_TRUE(peer.WaitClosed());
}

// ---- cancelling what waits for a reply ---------------------------------------------------------

TEST(SendingThread, CancelsACallThatWaitsForItsReply) {
  SessionHost host;
  RawPeer peer = host.Admit(NAME);
  const SessionRef session = FindSession(NAME);
  CallInThread call(NAME, 9);
  ASSERT_TRUE(peer.ReadFrame()) << peer.Problem();
  TQDisconnect(NAME.c_str());
  ASSERT_TRUE(call.WaitReturned());
  EXPECT_EQ(call.Result().impl, nullptr);
  ASSERT_TRUE(host.WaitForEnd(NAME));
  session->Awaiting().Clear();
}

TEST(SendingThread, CancelsAwaitedRequestsInTheOrderOfTheirIds) {
  ProbeLog seen;
  SessionHost host;
  RawPeer peer = host.Admit(NAME);
  const SessionRef session = FindSession(NAME);
  for (const uint32_t id : {300u, 0xFFFFFFFFu, 1u, 0x80000000u, 0u}) {
    session->Outgoing().Push(AsMessage(Probe(seen, session, id, MSG_CALL)));
  }
  ASSERT_TRUE(seen.WaitForCount(5));
  TQDisconnect(NAME.c_str());
  ASSERT_TRUE(host.WaitForSendingEnd(NAME));
  const Lines texts = seen.Texts();
  EXPECT_EQ(Lines(texts.begin() + 5, texts.end()),
            (Lines{"complete 0 dropped kind 1", "complete 1 dropped kind 1",
                   "complete 300 dropped kind 1", "complete 2147483648 dropped kind 1",
                   "complete 4294967295 dropped kind 1"}));
  for (size_t i = 5; i < texts.size(); ++i) {
    EXPECT_EQ(seen.Events()[i].thread, host.SendingThread(NAME));
  }
  session->Awaiting().Clear();
}

TEST(SendingThread, CancelsQueuedMessagesBeforeAwaitedOnes) {
  ProbeLog seen;
  Gate entered, release;
  SessionHost host;
  RawPeer peer = host.Admit(NAME);
  const SessionRef session = FindSession(NAME);
  const ProbeRef blocker = Probe(seen, session, 5, MSG_CALL);
  blocker->duringSerialize = [&] {
    entered.Open();
    EXPECT_TRUE(release.Wait());
  };
  session->Outgoing().Push(AsMessage(blocker));
  ASSERT_TRUE(entered.Wait());
  session->Outgoing().Push(AsMessage(Probe(seen, session, 9, MSG_CALL)));
  session->Outgoing().Push(AsMessage(Probe(seen, session, 6, MSG_CALL)));
  TQDisconnect(NAME.c_str());
  release.Open();
  ASSERT_TRUE(host.WaitForSendingEnd(NAME));
  EXPECT_EQ(seen.Texts(),
            (Lines{"serialize 5 as 1", "complete 9 dropped kind 1", "destroy 9",
                   "complete 6 dropped kind 1", "destroy 6", "complete 5 dropped kind 1"}));
  session->Awaiting().Clear();
}

TEST(SendingThread, HoldsTheLockOfTheAwaitedRequestsWhileItCancels) {
  std::atomic<bool> othersGotIn{false};
  std::atomic<bool> selfGotIn{false};
  std::thread outsider;
  Gate outsiderStarted;
  SessionRef session;
  CompletionRecorder done;
  done.hook = [&](const auto&) {
    // This thread may come back in.
    selfGotIn = !session->Awaiting().Take(0xFFFFFFFF);
    if (!outsider.joinable()) {
      outsider = std::thread([&] {
        outsiderStarted.Open();
        (void)session->Awaiting().Take(0xFFFFFFFF);
        othersGotIn = true;
      });
    }
    EXPECT_TRUE(outsiderStarted.Wait());
    std::this_thread::sleep_for(milliseconds{30});
    EXPECT_FALSE(othersGotIn);
  };
  SessionHost host;
  RawPeer peer = host.Admit(NAME);
  session = FindSession(NAME);
  for (int i = 0; i < 2; ++i) {
    ASSERT_EQ(TQNotify(NAME.c_str(), 9, {nullptr}, done.Callback(), &done), TQ_ERR_OK);
    ASSERT_TRUE(peer.ReadFrame()) << peer.Problem();
  }
  TQDisconnect(NAME.c_str());
  ASSERT_TRUE(done.WaitForCount(2));
  ASSERT_TRUE(host.WaitForEnd(NAME));
  outsider.join();
  EXPECT_TRUE(othersGotIn);
  EXPECT_TRUE(selfGotIn);
  session->Awaiting().Clear();
  session.Reset();
}

TEST(SendingThread, GivesCancelledCallbacksTheNameTheListAndANullResult) {
  CompletionRecorder done;
  SessionHost host;
  RawPeer peer = host.Admit(NAME);
  const SessionRef session = FindSession(NAME);
  ScopedList params;
  params.Int32("x", 3);
  ASSERT_EQ(TQNotify(NAME.c_str(), 9, params.Get(), done.Callback(), &done), TQ_ERR_OK);
  ASSERT_TRUE(peer.ReadFrame()) << peer.Problem();
  peer.Close();
  ASSERT_TRUE(done.WaitForCount(1));
  ASSERT_TRUE(host.WaitForEnd(NAME));
  ASSERT_EQ(done.Count(), 1u);
  const auto call = done.Calls().at(0);
  EXPECT_EQ(call.applicationName, NAME);
  EXPECT_EQ(call.slotId, 9u);
  EXPECT_EQ(call.params, params.Get().impl);
  EXPECT_TRUE(call.resultIsNull);
  EXPECT_EQ(call.thread, host.SendingThread(NAME));
  session->Awaiting().Clear();
}

TEST(SendingThread, LeavesAwaitedEntriesInPlaceSoThatTheSessionIsKept) {
  CompletionRecorder done;
  SessionHost host;
  RawPeer peer = host.Admit(NAME);
  SessionRef session = FindSession(NAME);
  for (int i = 0; i < 2; ++i) {
    ASSERT_EQ(TQNotify(NAME.c_str(), 9, {nullptr}, done.Callback(), &done), TQ_ERR_OK);
    ASSERT_TRUE(peer.ReadFrame()) << peer.Problem();
  }
  TQAPPImpl* kept = session.Get();
  session.Reset();
  peer.ShutdownWrite();
  ASSERT_TRUE(host.WaitForEnd(NAME));
  EXPECT_EQ(done.Count(), 2u);
  EXPECT_EQ(host.Log().CountOf("All awaiting requests cancelled for raw.host:4711/peer"), 1u);
  EXPECT_EQ(DEBUG_TQObjectCount().pendingCalls, 2u);
  EXPECT_EQ(DEBUG_TQObjectCount().messages, 2u);
  // Nobody else holds the session, and still neither it nor its connection goes.
  EXPECT_TRUE(peer.StaysSilentFor(milliseconds{100}));
  EXPECT_EQ(DEBUG_TQObjectCount().sessions, 1u);
  EXPECT_EQ(host.Log().CountOfPrefix("Destroying TQAPPImpl::~TQAPPImpl("), 0u);
  session = SessionRef(kept);
  session->Awaiting().Clear();
  session.Reset();
  EXPECT_TRUE(peer.WaitClosed());
  EXPECT_EQ(done.Count(), 2u);
}

TEST(SendingThread, LetsASessionWithNothingUnansweredGo) {
  CompletionRecorder done;
  SessionHost host;
  RawPeer peer = host.Admit(NAME);
  ASSERT_EQ(TQNotify(NAME.c_str(), 9, {nullptr}, done.Callback(), &done), TQ_ERR_OK);
  const auto request = peer.ReadFrame();
  ASSERT_TRUE(request) << peer.Problem();
  ASSERT_TRUE(peer.SendReply(request->id));
  ASSERT_TRUE(done.WaitForCount(1));
  peer.ShutdownWrite();
  EXPECT_TRUE(peer.WaitClosed());
  EXPECT_TRUE(host.WaitForSessions(0));
}

}  // namespace
}  // namespace TQ::test
