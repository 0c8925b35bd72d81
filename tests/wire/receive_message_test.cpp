// Taking frames off a channel: what ReceiveMessage makes of every kind, of damage and of replies.
#include <gtest/gtest.h>
#include <tq/tq.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "frame/object_counts.h"
#include "params/list_store.h"
#include "session/session.h"
#include "support/bytes.h"
#include "support/child_process.h"
#include "support/free_port.h"
#include "support/host_calls.h"
#include "support/log_recorder.h"
#include "support/parked_session.h"
#include "support/raw_peer.h"
#include "support/wait_until.h"
#include "wire/message.h"

namespace TQ::test {
namespace {

using detail::ListRef;
using detail::MessageRef;
using detail::MSG_CALL;
using detail::MSG_NOTIFY;
using detail::MSG_REPLY;
using detail::ReceiveMessage;
using std::chrono::milliseconds;
using Sizes = std::vector<uint32_t>;

uint32_t MessageCount() { return DEBUG_TQObjectCount().messages; }

// A call of this process that its sending thread has written and that waits for its reply.
struct Awaited {
  explicit Awaited(ParkedSession& session)
      : event(new ITQMessage::ISyncEvent()),
        message(TQSlotCallMessage::Outbound(session.Ref(), MSG_CALL, 7, nullptr, event, {})) {
    session.Get().Awaiting().Insert(MessageRef(message.Get()));
  }

  uint32_t Id() const { return message->RequestId(); }
  bool IsCompleted() const { return event->Wait(0); }

  ITQMessage::SyncEventRef event;
  detail::CountedRef<TQSlotCallMessage> message;
};

// ---- requests ----------------------------------------------------------------------------------

TEST(ReceiveMessage, CallBecomesAMessageWithItsListAndAnEmptyResult) {
  ParkedSession session;
  const RawList list = RawList().Int32("a", 1).Handle("c", RawList().Int32("b", 2));
  session.Feed(RequestBytes(77, RAW_CALL, 42, list));
  const MessageRef message = ReceiveMessage(session.Get());
  ASSERT_TRUE(message);
  EXPECT_EQ(message->RequestId(), 77u);
  EXPECT_EQ(message->Kind(), MSG_CALL);
  EXPECT_EQ(message->GetSlotId(), 42u);
  EXPECT_EQ(message->Session(), session.Ref());
  const _tag_HTQPARAMLIST params{message->GetParams().Get()};
  EXPECT_EQ(TQGetInt32Value(params, "a"), 1u);
  const ListRef nested = ListRef::Adopt(TQGetHandleValue(params, "c").impl);
  EXPECT_EQ(TQGetInt32Value({nested.Get()}, "b"), 2u);
  ASSERT_TRUE(message->GetResult());
  EXPECT_EQ(message->GetResult()->ParamCount(), 0u);
  EXPECT_EQ(session.Remaining(), 0u);
}

TEST(ReceiveMessage, NotificationHasNoResult) {
  ParkedSession session;
  session.Feed(RequestBytes(5, RAW_NOTIFY, 0xFFFFFFFF, RawList()));
  const MessageRef message = ReceiveMessage(session.Get());
  ASSERT_TRUE(message);
  EXPECT_EQ(message->Kind(), MSG_NOTIFY);
  EXPECT_EQ(message->GetSlotId(), 0xFFFFFFFFu);
  EXPECT_EQ(message->GetParams()->ParamCount(), 0u) << "an empty list, not a null handle";
  EXPECT_FALSE(message->GetResult());
}

TEST(ReceiveMessage, FirstReadIsSixteenBytesAndStopsWithTheSession) {
  ParkedSession session;
  session.Feed(RequestBytes(5, RAW_CALL, 1, RawList().Int32("a", 1)));
  ASSERT_TRUE(ReceiveMessage(session.Get()));
  EXPECT_EQ(session.ReadSizes(), (Sizes{16, 4, 8}));
  EXPECT_EQ(session.ReadFlags(), (std::vector<const detail::StopFlag*>{
                                     &session.Get().StopRequested(), nullptr, nullptr}));
}

TEST(ReceiveMessage, FramesFollowEachOtherWithNothingBetween) {
  ParkedSession session;
  Awaited call(session);
  session.Feed(Concat({RequestBytes(1, RAW_CALL, 1, RawList().Int32("a", 1)),
                       ReplyBytes(call.Id(), RawList().Int32("r", 9)),
                       RequestBytes(2, RAW_NOTIFY, 3, RawList()),
                       RequestBytes(3, RAW_CALL, 4, RawList().String("s", "t"))}));
  EXPECT_EQ(ReceiveMessage(session.Get())->RequestId(), 1u);
  EXPECT_EQ(ReceiveMessage(session.Get()), call.message.Get());
  EXPECT_EQ(ReceiveMessage(session.Get())->RequestId(), 2u);
  EXPECT_EQ(ReceiveMessage(session.Get())->RequestId(), 3u);
  EXPECT_EQ(session.Remaining(), 0u);
}

TEST(ReceiveMessage, CallGoesBackAsAReplyUnderThePeersId) {
  ParkedSession session;
  session.Feed(RequestBytes(0xABCDEF01, RAW_CALL, 42, RawList().Int32("a", 1)));
  const MessageRef message = ReceiveMessage(session.Get());
  ASSERT_TRUE(message);
  TQSetInt32Value({message->GetResult().Get()}, "sum", 3);
  EXPECT_GE(message->Serialize(message->Kind()), 0);
  EXPECT_EQ(session.Written(), ReplyBytes(0xABCDEF01, RawList().Int32("sum", 3)));
}

class UnknownKinds : public testing::TestWithParam<uint32_t> {};

TEST_P(UnknownKinds, EndTheSessionWithNoMessageBuiltAndNoLogLine) {
  ParkedSession session;
  session.Feed(Concat({RequestHead(1, GetParam(), 42, 8, 0), Bytes(64)}));
  const uint32_t messages = MessageCount();
  LogRecorder log;
  EXPECT_FALSE(ReceiveMessage(session.Get()));
  EXPECT_EQ(session.ReadSizes(), Sizes{16});
  EXPECT_EQ(MessageCount(), messages);
  EXPECT_TRUE(log.Lines().empty()) << log.Dump();
}

INSTANTIATE_TEST_SUITE_P(ReceiveMessage, UnknownKinds,
                         testing::Values(0u, 4u, 7u, 0x100u, 0x01000000u, 0xFFFFFFFFu));

TEST(ReceiveMessage, RequestThatIsCutAnywhereFails) {
  const RawList list = RawList().Int32("a", 1).Handle("c", RawList().String("s", "text"));
  const Bytes frame = RequestBytes(77, RAW_CALL, 42, list);
  ParkedSession session;
  for (size_t size = 0; size < frame.size(); ++size) {
    LogRecorder log;
    // What the reads before have left is used up first.
    session.Feed(Prefix(frame, size));
    EXPECT_FALSE(ReceiveMessage(session.Get())) << size;
    EXPECT_EQ(MessageCount(), 0u) << size;
    // A head that is cut is silent; behind it the message was begun.
    if (size < 16) {
      EXPECT_TRUE(log.Lines().empty()) << log.Dump();
    } else {
      EXPECT_EQ(log.Texts(), std::vector<std::string>{"Deserialization failed"}) << size;
      EXPECT_EQ(log.CountOfLevel(TQ_LOG_INFO), 1u);
    }
    session.Drain();
  }
}

TEST(ReceiveMessage, DamagedRequestIsOneLineAndNoMessage) {
  const RawList damaged = RawList().Entry("a", 6, U32(1));
  for (const RawList& list : {damaged, RawList().Handle("c", damaged)}) {
    for (const uint32_t kind : {RAW_CALL, RAW_NOTIFY}) {
      ParkedSession session;
      session.Feed(RequestBytes(1, kind, 42, list));
      LogRecorder log;
      EXPECT_FALSE(ReceiveMessage(session.Get()));
      EXPECT_EQ(log.Texts(), std::vector<std::string>{"Deserialization failed"});
      EXPECT_EQ(log.CountOfLevel(TQ_LOG_INFO), 1u);
      EXPECT_EQ(MessageCount(), 0u);
    }
  }
}

TEST(ReceiveMessage, AnnouncedSizesThatWrapFail) {
  for (uint32_t size = 0xFFFFFFF8; size != 0; ++size) {
    ParkedSession session;
    session.Feed(Concat({RequestHead(1, RAW_CALL, 42, size, 1), Bytes(64)}));
    LogRecorder log;
    EXPECT_FALSE(ReceiveMessage(session.Get())) << size;
    EXPECT_EQ(log.CountOf("Deserialization failed"), 1u);
  }
}

// ---- replies -----------------------------------------------------------------------------------

TEST(ReceiveMessage, ReplyFillsTheCallersOwnRequest) {
  ParkedSession session;
  Awaited call(session);
  const FastHolderImpl* result = call.message->GetResult().Get();
  session.Feed(ReplyBytes(call.Id(), RawList().Int32("sum", 3).Handle("c", RawList())));
  const MessageRef message = ReceiveMessage(session.Get());
  EXPECT_EQ(message, call.message.Get());
  EXPECT_EQ(message->Kind(), MSG_REPLY);
  EXPECT_EQ(message->GetResult(), result) << "the list that the caller waits for";
  EXPECT_EQ(TQGetInt32Value({message->GetResult().Get()}, "sum"), 3u);
  EXPECT_EQ(session.ReadSizes(), (Sizes{16, 28, 0}));
  EXPECT_FALSE(call.IsCompleted()) << "completion is the reading thread's next step";
}

TEST(ReceiveMessage, ReplyTakesTheRequestOutOfTheTable) {
  ParkedSession session;
  Awaited call(session);
  session.Feed(Concat({ReplyBytes(call.Id(), RawList()), ReplyBytes(call.Id(), RawList())}));
  EXPECT_TRUE(ReceiveMessage(session.Get()));
  EXPECT_FALSE(ReceiveMessage(session.Get())) << "a second reply is not awaited";
}

TEST(ReceiveMessage, RepliesMayComeInAnyOrder) {
  ParkedSession session;
  Awaited first(session);
  Awaited second(session);
  session.Feed(Concat({ReplyBytes(second.Id(), RawList().Int32("x", 2)),
                       ReplyBytes(first.Id(), RawList().Int32("x", 1))}));
  EXPECT_EQ(ReceiveMessage(session.Get()), second.message.Get());
  EXPECT_EQ(ReceiveMessage(session.Get()), first.message.Get());
  EXPECT_EQ(TQGetInt32Value({first.message->GetResult().Get()}, "x"), 1u);
  EXPECT_EQ(TQGetInt32Value({second.message->GetResult().Get()}, "x"), 2u);
}

TEST(ReceiveMessage, ReplyToAnIdThatIsNotAwaitedFailsWithItsBodyUnread) {
  ParkedSession session;
  Awaited call(session);
  session.Feed(ReplyBytes(call.Id() + 1, RawList().Int32("a", 1)));
  LogRecorder log;
  EXPECT_FALSE(ReceiveMessage(session.Get()));
  EXPECT_EQ(session.ReadSizes(), Sizes{16});
  EXPECT_EQ(session.Remaining(), 8u);
  EXPECT_TRUE(log.Lines().empty()) << log.Dump();
  // The other request still waits.
  session.Drain();
  session.Feed(ReplyBytes(call.Id(), RawList()));
  EXPECT_TRUE(ReceiveMessage(session.Get()));
}

TEST(ReceiveMessage, RepliesOfOneSessionDoNotMeetTheRequestsOfAnother) {
  ParkedSession mine;
  Awaited call(mine);
  ParkedSession other("test:1/other");
  other.Feed(ReplyBytes(call.Id(), RawList()));
  EXPECT_FALSE(ReceiveMessage(other.Get()));
  mine.Feed(ReplyBytes(call.Id(), RawList()));
  EXPECT_TRUE(ReceiveMessage(mine.Get()));
}

// Required: the request has left the table by then, and nothing ever completes it.
TEST(ReceiveMessage, DamagedReplyLeavesItsRequestBehindUncompletedAndWithoutALogLine) {
  const RawList good = RawList().Int32("a", 1);
  const Bytes frames[] = {ReplyBytes(1, RawList().Entry("a", 6, U32(1))),
                          Prefix(ReplyBytes(1, good), 20),
                          Prefix(ReplyBytes(1, RawList().Handle("c", good)), 30)};
  for (Bytes frame : frames) {
    ParkedSession session;
    Awaited call(session);
    std::copy_n(U32(call.Id()).begin(), 4, frame.begin());
    session.Feed(frame);
    LogRecorder log;
    EXPECT_FALSE(ReceiveMessage(session.Get()));
    EXPECT_TRUE(log.Lines().empty()) << log.Dump();
    EXPECT_FALSE(session.Get().Awaiting().Take(call.Id()));
    session.Stop();
    EXPECT_FALSE(call.IsCompleted());
  }
}

// ---- end to end --------------------------------------------------------------------------------

constexpr char PEER[] = "test:1/raw";
constexpr uint32_t SLOT = 42;

// Reaches the parent's listener, calls its slot on a thread and tells how that goes.
TQ_TEST_ROLE(callAndReport) {
  EXPECT_EQ(ConnectTo(static_cast<uint16_t>(std::stoi(args.at(0)))), TQ_ERR_OK);
  std::atomic<bool> returned{false};
  std::thread caller([&] {
    const _tag_HTQPARAMLIST result = TQCall(PEER, SLOT, {nullptr});
    returned = true;
    TQCloseHandle(result);
  });
  EXPECT_TRUE(WaitUntil(
      [] { return TQNotify(PEER, SLOT, {nullptr}, nullptr, nullptr) == TQ_ERR_NO_SESSION; }));
  // Both threads of the session have ended what they can end.
  std::this_thread::sleep_for(milliseconds{1500});
  Say(returned ? "returned" : "blocked");
  // The caller's thread cannot be joined.
  std::_Exit(testing::Test::HasFailure() ? 1 : 0);
}

class CallerOfReply : public testing::Test {
 protected:
  // Lets the child call, answers with the bytes, and gives its word on the call.
  std::string Answer(const Bytes& body, uint32_t size, uint32_t count) {
    RawListener listener(FreePort());
    ChildProcess child("callAndReport", {std::to_string(listener.Port())});
    auto peer = listener.Accept();
    if (!peer || !peer->HandshakeAsAcceptor(PEER).Completed()) return "no handshake";
    // The notifications that ask for the end may come first.
    std::optional<RawFrame> call = peer->ReadFrame();
    while (call && call->kind != RAW_CALL) call = peer->ReadFrame();
    if (!call) return "no call: " + peer->Problem();
    peer->SendBytes(Concat({ReplyHead(call->id, size, count), body}));
    peer->ShutdownWrite();
    std::string word = child.ReadLine().value_or("nothing");
    EXPECT_TRUE(child.ExpectSuccess());
    return word;
  }
};

// Required: a call whose reply is damaged or cut never returns, although its session ends.
TEST_F(CallerOfReply, StaysBlockedWhenTheBodyIsDamaged) {
  const RawList damaged = RawList().Entry("a", 6, U32(1));
  EXPECT_EQ(Answer(damaged.Block(), damaged.BlockSize(), 0), "blocked");
}

TEST_F(CallerOfReply, StaysBlockedWhenTheBodyIsCut) {
  EXPECT_EQ(Answer(Bytes(4), 8, 0), "blocked");
}

TEST_F(CallerOfReply, IsReleasedWhenNoReplyBegins) {
  RawListener listener(FreePort());
  ChildProcess child("callAndReport", {std::to_string(listener.Port())});
  auto peer = listener.Accept();
  ASSERT_TRUE(peer);
  ASSERT_TRUE(peer->HandshakeAsAcceptor(PEER).Completed());
  std::optional<RawFrame> call = peer->ReadFrame();
  while (call && call->kind != RAW_CALL) call = peer->ReadFrame();
  ASSERT_TRUE(call);
  peer->ShutdownWrite();
  EXPECT_TRUE(child.ExpectLine("returned"));
  EXPECT_TRUE(child.ExpectSuccess());
}

// The peer answers when it has seen the head alone. The sending thread then still reads the
// caller's list, which the caller may change or free as soon as the call returns.
TEST(ReceiveMessageEarly, ReplyReleasesTheCallerOnlyWhenItsListIsWritten) {
  constexpr size_t LARGE = size_t{16} << 20;
  RawListener listener(FreePort(), 4096);
  std::optional<RawPeer> peer;
  std::thread acceptor([&] {
    peer = listener.Accept();
    ASSERT_TRUE(peer);
    EXPECT_TRUE(peer->HandshakeAsAcceptor(PEER).Completed());
  });
  ASSERT_EQ(ConnectTo(listener.Port()), TQ_ERR_OK);
  acceptor.join();

  const Bytes value = Pattern(LARGE);
  const _tag_HTQPARAMLIST params = TQCreateParamList();
  TQSetBinaryValue(params, "value", value.data(), static_cast<uint32_t>(value.size()));
  std::atomic<bool> returned{false};
  std::atomic<uint32_t> answer{0};
  std::thread caller([&] {
    const _tag_HTQPARAMLIST result = TQCall(PEER, SLOT, params);
    returned = true;
    answer = TQGetInt32Value(result, "x");
    TQCloseHandle(result);
    // What the caller does with its list must not show in the frame.
    TQRemoveAllValues(params);
    for (int i = 0; i < 1000; ++i) TQSetInt32Value(params, std::to_string(i).c_str(), 0);
  });
  const auto head = peer->ReceiveExactly(20);
  ASSERT_TRUE(head);
  const uint32_t readsBefore = detail::g_objectCounts.readCalls;
  ASSERT_TRUE(peer->SendReply(ReadU32(head->data()), RawList().Int32("x", 5)));
  // Head and body of the reply have been read.
  ASSERT_TRUE(WaitUntil([&] { return detail::g_objectCounts.readCalls >= readsBefore + 2; }));
  std::this_thread::sleep_for(milliseconds{200});
  EXPECT_FALSE(returned);
  const auto body = peer->ReceiveExactly(ReadU32(head->data() + 12));
  caller.join();
  EXPECT_EQ(answer, 5u);
  EXPECT_TRUE(body == RawList().Binary("value", value).Block());
  TQCloseHandle(params);
  TQDisconnect(PEER);
  EXPECT_TRUE(WaitUntil([] { return DEBUG_TQObjectCount().sessions == 0; }));
}

}  // namespace
}  // namespace TQ::test
