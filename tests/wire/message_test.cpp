#include "wire/message.h"

#include <gtest/gtest.h>
#include <tq/tq.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "params/list_store.h"
#include "session/session.h"
#include "support/bytes.h"
#include "support/hex.h"
#include "support/memory_channel.h"
#include "support/parked_session.h"
#include "support/raw_peer.h"
#include "support/wait_until.h"

namespace TQ::test {
namespace {

using detail::ListRef;
using detail::MSG_CALL;
using detail::MSG_NOTIFY;
using detail::MSG_REPLY;
using MessageRef = detail::CountedRef<TQSlotCallMessage>;
using Completion = TQSlotCallMessage::Completion;
using Sizes = std::vector<uint32_t>;
using SyncEventRef = ITQMessage::SyncEventRef;
using std::chrono::milliseconds;

uint32_t MessageCount() { return DEBUG_TQObjectCount().messages; }

// A session that was never admitted: it carries messages out, and it is not valid.
struct PlainSession {
  PlainSession() : channel(new MemoryChannel()), session(new TQAPPImpl()) {
    session->Assign(detail::ChannelRef(channel.Get()));
  }

  detail::CountedRef<MemoryChannel> channel;
  ITQMessage::SessionRef session;
};

ListRef ListOf(const char* name, uint32_t value) {
  ListRef list = FastHolderImpl::Create();
  TQSetInt32Value({list.Get()}, name, value);
  return list;
}

MessageRef Outbound(const ITQMessage::SessionRef& session, uint32_t kind, uint32_t slot,
                    const ListRef& params, const SyncEventRef& event = nullptr,
                    Completion completion = {}) {
  return TQSlotCallMessage::Outbound(session, kind, slot, params.Get(), event, completion);
}

// ---- the object --------------------------------------------------------------------------------

TEST(Message, IdsStartAtOneAndNotificationsUseThemUpLikeCalls) {
  const PlainSession one;
  const PlainSession two;
  EXPECT_EQ(Outbound(one.session, MSG_CALL, 1, nullptr)->RequestId(), 1u);
  EXPECT_EQ(Outbound(one.session, MSG_NOTIFY, 1, nullptr)->RequestId(), 2u);
  // All sessions share the counter.
  EXPECT_EQ(Outbound(two.session, MSG_CALL, 1, nullptr)->RequestId(), 3u);
  // A message of a peer keeps the peer's id and uses up none.
  EXPECT_EQ(TQSlotCallMessage::Inbound(one.session, 77, MSG_CALL, 0)->RequestId(), 77u);
  EXPECT_EQ(Outbound(one.session, MSG_CALL, 1, nullptr)->RequestId(), 4u);
}

TEST(Message, IdsAreUniqueAcrossThreads) {
  const PlainSession plain;
  constexpr size_t EACH = 500;
  std::vector<std::vector<uint32_t>> ids(4);
  std::vector<std::thread> threads;
  for (auto& own : ids) {
    threads.emplace_back([&] {
      for (size_t i = 0; i < EACH; ++i) {
        own.push_back(Outbound(plain.session, MSG_NOTIFY, 1, nullptr)->RequestId());
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  std::vector<bool> seen(4 * EACH + 1);
  for (const auto& own : ids) {
    for (const uint32_t id : own) {
      ASSERT_LE(id, 4 * EACH);
      EXPECT_FALSE(seen[id]);
      seen[id] = true;
    }
  }
}

TEST(Message, OutboundCallHasTheCallersListAndAnEmptyResult) {
  const PlainSession plain;
  const ListRef params = ListOf("a", 1);
  const MessageRef message = Outbound(plain.session, MSG_CALL, 42, params);
  EXPECT_EQ(message->Kind(), MSG_CALL);
  EXPECT_EQ(message->GetSlotId(), 42u);
  EXPECT_EQ(message->GetParams(), params) << "the list is shared, not copied";
  ASSERT_TRUE(message->GetResult());
  EXPECT_EQ(message->GetResult()->ParamCount(), 0u);
  EXPECT_EQ(message->Session(), plain.session);
  EXPECT_TRUE(message.IsValid());
}

TEST(Message, OutboundNotificationHasNoResult) {
  const PlainSession plain;
  const MessageRef message = Outbound(plain.session, MSG_NOTIFY, 42, nullptr);
  EXPECT_EQ(message->Kind(), MSG_NOTIFY);
  EXPECT_FALSE(message->GetParams());
  EXPECT_FALSE(message->GetResult());
}

TEST(Message, InboundCallHasTwoEmptyListsAndNoSlotYet) {
  const PlainSession plain;
  const MessageRef message = TQSlotCallMessage::Inbound(plain.session, 9, MSG_CALL, 5);
  EXPECT_EQ(message->GetSlotId(), 0xFFFFFFFFu);
  ASSERT_TRUE(message->GetParams());
  ASSERT_TRUE(message->GetResult());
  EXPECT_EQ(message->GetParams()->ParamCount(), 0u);
  EXPECT_FALSE(message->GetParams() == message->GetResult());
}

TEST(Message, InboundNotificationHasNoResult) {
  const PlainSession plain;
  const MessageRef message = TQSlotCallMessage::Inbound(plain.session, 9, MSG_NOTIFY, 5);
  EXPECT_TRUE(message->GetParams());
  EXPECT_FALSE(message->GetResult());
}

TEST(Message, LivingMessagesAreCounted) {
  const PlainSession plain;
  EXPECT_EQ(MessageCount(), 0u);
  {
    const MessageRef one = Outbound(plain.session, MSG_CALL, 1, nullptr);
    const MessageRef two = TQSlotCallMessage::Inbound(plain.session, 1, MSG_NOTIFY, 0);
    const MessageRef same = one;
    EXPECT_EQ(MessageCount(), 2u);
  }
  EXPECT_EQ(MessageCount(), 0u);
}

TEST(Message, KeepsItsSessionAndItsListsAlive) {
  MessageRef message;
  {
    const PlainSession plain;
    message = Outbound(plain.session, MSG_CALL, 1, ListOf("a", 1));
  }
  EXPECT_EQ(DEBUG_TQObjectCount().sessions, 1u);
  EXPECT_EQ(DEBUG_TQObjectCount().paramLists, 2u);
  message.Reset();
  EXPECT_EQ(DEBUG_TQObjectCount().sessions, 0u);
  EXPECT_EQ(DEBUG_TQObjectCount().paramLists, 0u);
}

// ---- writing -----------------------------------------------------------------------------------

TEST(Message, CallIsTwentyBytesInOneSendAndThenTheBlock) {
  const PlainSession plain;
  const MessageRef message = Outbound(plain.session, MSG_CALL, 7, ListOf("a", 1));
  EXPECT_EQ(message->Serialize(MSG_CALL), 8);
  EXPECT_EQ(ToHex(plain.channel->Written()),
            "01 00 00 00 01 00 00 00 07 00 00 00 08 00 00 00 00 00 00 00 "
            "03 61 00 02 01 00 00 00");
  EXPECT_EQ(plain.channel->WriteSizes(), (Sizes{20, 8}));
}

TEST(Message, NotificationWithoutAListIsAnEmptyFrame) {
  const PlainSession plain;
  const MessageRef message = Outbound(plain.session, MSG_NOTIFY, 0x01020304, nullptr);
  EXPECT_GE(message->Serialize(MSG_NOTIFY), 0);
  EXPECT_EQ(ToHex(plain.channel->Written()),
            "01 00 00 00 03 00 00 00 04 03 02 01 00 00 00 00 00 00 00 00");
}

TEST(Message, CallWithAnEmptyListIsTheSameAsOneWithout) {
  const PlainSession plain;
  (void)Outbound(plain.session, MSG_CALL, 7, FastHolderImpl::Create())->Serialize(MSG_CALL);
  const Bytes withEmpty = plain.channel->Written();
  (void)Outbound(plain.session, MSG_CALL, 7, nullptr)->Serialize(MSG_CALL);
  const Bytes both = plain.channel->Written();
  EXPECT_EQ(ToHex(withEmpty), "01 00 00 00 01 00 00 00 07 00 00 00 00 00 00 00 00 00 00 00");
  EXPECT_EQ(Bytes(both.begin() + 24, both.end()), Bytes(withEmpty.begin() + 4, withEmpty.end()));
}

TEST(Message, NestedListsFollowTheirHead) {
  const PlainSession plain;
  const ListRef params = FastHolderImpl::Create();
  TQSetHandleValue({params.Get()}, "c", {ListOf("a", 1).Get()});
  (void)Outbound(plain.session, MSG_CALL, 7, params)->Serialize(MSG_CALL);
  EXPECT_EQ(plain.channel->Written(),
            RequestBytes(1, RAW_CALL, 7, RawList().Handle("c", RawList().Int32("a", 1))));
  EXPECT_EQ(plain.channel->WriteSizes(), (Sizes{20, 8, 8, 8}));
}

TEST(Message, InternalSlotsTravelAsTheyAre) {
  const PlainSession plain;
  (void)Outbound(plain.session, MSG_NOTIFY, detail::CONNECT_SIGNAL_SLOT, nullptr)
      ->Serialize(MSG_NOTIFY);
  (void)Outbound(plain.session, MSG_CALL, detail::DISCONNECT_SIGNAL_SLOT, nullptr)
      ->Serialize(MSG_CALL);
  EXPECT_EQ(ToHex(plain.channel->Written()),
            "01 00 00 00 03 00 00 00 ff ff ff ff 00 00 00 00 00 00 00 00 "
            "02 00 00 00 01 00 00 00 fe ff ff ff 00 00 00 00 00 00 00 00");
}

TEST(Message, ReplyIsSixteenBytesWithThePeersIdAndTheResult) {
  const PlainSession plain;
  const MessageRef message = TQSlotCallMessage::Inbound(plain.session, 0x11223344, MSG_CALL, 0);
  TQSetInt32Value({message->GetParams().Get()}, "param", 5);
  TQSetInt32Value({message->GetResult().Get()}, "a", 1);
  message->SetKind(MSG_REPLY);
  EXPECT_EQ(message->Serialize(MSG_REPLY), 8);
  EXPECT_EQ(ToHex(plain.channel->Written()),
            "44 33 22 11 02 00 00 00 08 00 00 00 00 00 00 00 "
            "03 61 00 02 01 00 00 00");
  EXPECT_EQ(plain.channel->WriteSizes(), (Sizes{16, 8}));
}

TEST(Message, SlotThatLeftNothingGivesAnEmptyReply) {
  const PlainSession plain;
  const MessageRef message = TQSlotCallMessage::Inbound(plain.session, 1, MSG_CALL, 0);
  (void)message->Serialize(MSG_REPLY);
  EXPECT_EQ(ToHex(plain.channel->Written()), "01 00 00 00 02 00 00 00 00 00 00 00 00 00 00 00");
}

TEST(Message, ReplyWithoutAResultIsEmpty) {
  const PlainSession plain;
  const MessageRef message = TQSlotCallMessage::Inbound(plain.session, 1, MSG_NOTIFY, 0);
  ASSERT_FALSE(message->GetResult());
  (void)message->Serialize(MSG_REPLY);
  EXPECT_EQ(ToHex(plain.channel->Written()), "01 00 00 00 02 00 00 00 00 00 00 00 00 00 00 00");
}

TEST(Message, InboundCallThatIsWrittenBecomesItsReply) {
  const PlainSession plain;
  const MessageRef message = TQSlotCallMessage::Inbound(plain.session, 3, MSG_CALL, 0);
  (void)message->Serialize(MSG_CALL);
  EXPECT_EQ(message->Kind(), MSG_REPLY);
  EXPECT_EQ(ToHex(plain.channel->Written()), "03 00 00 00 02 00 00 00 00 00 00 00 00 00 00 00");
}

// A reply that comes before its request is written turns the request's kind over.
TEST(Message, KindThatChangesMeanwhileDoesNotChangeWhatIsWritten) {
  const PlainSession plain;
  const MessageRef message = Outbound(plain.session, MSG_CALL, 7, ListOf("a", 1));
  message->SetKind(MSG_REPLY);
  (void)message->Serialize(MSG_CALL);
  EXPECT_EQ(plain.channel->Written(), RequestBytes(1, RAW_CALL, 7, RawList().Int32("a", 1)));
}

TEST(Message, FailedHeadGivesTheChannelsResultAndNothingOfTheBody) {
  const PlainSession plain;
  plain.channel->FailOperation(1, -7);
  EXPECT_EQ(Outbound(plain.session, MSG_CALL, 7, ListOf("a", 1))->Serialize(MSG_CALL), -7);
  EXPECT_EQ(plain.channel->WriteSizes(), Sizes{20});
}

TEST(Message, FailedBodyIsNegative) {
  const PlainSession plain;
  plain.channel->FailOperation(2, -7);
  EXPECT_LT(Outbound(plain.session, MSG_CALL, 7, ListOf("a", 1))->Serialize(MSG_CALL), 0);
  EXPECT_EQ(plain.channel->WriteSizes(), (Sizes{20, 8}));
}

TEST(Message, ListThatChangesBeforeItIsWrittenGoesOutChanged) {
  const PlainSession plain;
  const ListRef params = ListOf("a", 1);
  const MessageRef message = Outbound(plain.session, MSG_NOTIFY, 7, params);
  TQSetInt32Value({params.Get()}, "b", 2);
  (void)message->Serialize(MSG_NOTIFY);
  EXPECT_EQ(plain.channel->Written(),
            RequestBytes(1, RAW_NOTIFY, 7, RawList().Int32("a", 1).Int32("b", 2)));
}

// ---- reading -----------------------------------------------------------------------------------

TEST(Message, NothingIsReadForASessionThatIsNotValid) {
  const PlainSession plain;
  plain.channel->Feed(Bytes(64));
  const MessageRef message = TQSlotCallMessage::Inbound(plain.session, 1, MSG_CALL, 0);
  EXPECT_EQ(message->Deserialize(nullptr), -1);
  EXPECT_TRUE(plain.channel->ReadSizes().empty());
}

TEST(Message, NothingIsReadWithoutASession) {
  const MessageRef message = TQSlotCallMessage::Inbound(nullptr, 1, MSG_CALL, 0);
  EXPECT_EQ(message->Deserialize(nullptr), -1);
}

TEST(Message, NothingIsReadWithoutAList) {
  ParkedSession session;
  session.Feed(Bytes(64));
  const uint64_t tail = 0;
  // A notification has no result for a reply to go to.
  const MessageRef message = Outbound(session.Ref(), MSG_NOTIFY, 1, nullptr);
  EXPECT_EQ(message->Deserialize(&tail), -1) << "and no list of parameters either";
  message->SetKind(MSG_REPLY);
  EXPECT_EQ(message->Deserialize(&tail), -1);
  EXPECT_TRUE(session.ReadSizes().empty());
}

TEST(Message, RequestTakesItsSlotFromTheTailAndFourMoreBytes) {
  ParkedSession session;
  session.Feed(Concat({U32(0), RawList().Int32("a", 1).Block()}));
  const uint64_t tail = ReadU64(Concat({U32(42), U32(8)}).data());
  const MessageRef message = TQSlotCallMessage::Inbound(session.Ref(), 1, MSG_CALL, tail);
  EXPECT_EQ(message->Deserialize(nullptr), 8);
  EXPECT_EQ(message->GetSlotId(), 42u);
  EXPECT_EQ(TQGetInt32Value({message->GetParams().Get()}, "a"), 1u);
  EXPECT_EQ(session.ReadSizes(), (Sizes{4, 8}));
  EXPECT_EQ(session.ReadFlags(), (std::vector<const detail::StopFlag*>{nullptr, nullptr}))
      << "behind the first head there is no stop flag";
}

TEST(Message, ReplyTakesBothWordsFromTheTail) {
  ParkedSession session;
  session.Feed(RawList().Int32("a", 1).Block());
  const uint64_t tail = ReadU64(Concat({U32(8), U32(0)}).data());
  const MessageRef message = Outbound(session.Ref(), MSG_CALL, 7, nullptr);
  message->SetKind(MSG_REPLY);
  EXPECT_EQ(message->Deserialize(&tail), 8);
  EXPECT_EQ(message->GetSlotId(), 7u);
  EXPECT_EQ(TQGetInt32Value({message->GetResult().Get()}, "a"), 1u);
  EXPECT_EQ(session.ReadSizes(), Sizes{8});
}

TEST(Message, FailedReadOfTheLastWordGivesTheChannelsResult) {
  ParkedSession session;
  session.Feed(Bytes(64));
  session.FailOperation(1, -7);
  const MessageRef message = TQSlotCallMessage::Inbound(session.Ref(), 1, MSG_NOTIFY, 42);
  EXPECT_EQ(message->Deserialize(nullptr), -7);
  EXPECT_EQ(session.ReadSizes(), Sizes{4});
}

// ---- completion --------------------------------------------------------------------------------

struct CompletionCall {
  int calls = 0;
  std::string name;
  unsigned slot = 0;
  const void* params = nullptr;
  const void* result = nullptr;
  ITQMessage::ISyncEvent* event = nullptr;
  bool eventWasSet = false;
};

_tag_TQ_ERROR RecordCompletion(const char* name, unsigned slot, _tag_HTQPARAMLIST params,
                               _tag_HTQPARAMLIST result, void* context) {
  auto& call = *static_cast<CompletionCall*>(context);
  ++call.calls;
  call.name = name;
  call.slot = slot;
  call.params = params.impl;
  call.result = result.impl;
  if (call.event != nullptr) call.eventWasSet = call.event->Wait(0);
  return TQ_ERR_FAILED;
}

TEST(Message, CompletionSetsTheEventAndKeepsTheResult) {
  const PlainSession plain;
  const SyncEventRef event(new ITQMessage::ISyncEvent());
  const MessageRef message = Outbound(plain.session, MSG_CALL, 1, nullptr, event);
  EXPECT_FALSE(event->Wait(0));
  message->Complete(false);
  EXPECT_TRUE(event->Wait(0));
  EXPECT_TRUE(message->GetResult());
}

TEST(Message, CancellationDropsTheResultAndSetsTheEvent) {
  const PlainSession plain;
  const SyncEventRef event(new ITQMessage::ISyncEvent());
  const MessageRef message = Outbound(plain.session, MSG_CALL, 1, nullptr, event);
  message->Complete(true);
  EXPECT_FALSE(message->GetResult());
  EXPECT_TRUE(event->Wait(0));
}

TEST(Message, CallbackIsToldSlotListsAndSession) {
  ParkedSession session;
  CompletionCall call;
  const ListRef params = ListOf("a", 1);
  const MessageRef message =
      Outbound(session.Ref(), MSG_CALL, 42, params, nullptr, {&RecordCompletion, &call});
  message->Complete(false);
  EXPECT_EQ(call.calls, 1);
  EXPECT_EQ(call.name, ParkedSession::NAME);
  EXPECT_EQ(call.slot, 42u);
  EXPECT_EQ(call.params, params.Get());
  EXPECT_EQ(call.result, message->GetResult().Get());
  EXPECT_NE(call.result, nullptr);
}

TEST(Message, CallbackOfACancellationIsToldNoResult) {
  const PlainSession plain;
  CompletionCall call;
  const MessageRef message =
      Outbound(plain.session, MSG_CALL, 42, nullptr, nullptr, {&RecordCompletion, &call});
  message->Complete(true);
  EXPECT_EQ(call.calls, 1);
  EXPECT_EQ(call.params, nullptr);
  EXPECT_EQ(call.result, nullptr);
}

TEST(Message, CallbackComesBeforeTheEvent) {
  const PlainSession plain;
  const SyncEventRef event(new ITQMessage::ISyncEvent());
  CompletionCall call;
  call.event = event.Get();
  const MessageRef message =
      Outbound(plain.session, MSG_CALL, 1, nullptr, event, {&RecordCompletion, &call});
  message->Complete(false);
  EXPECT_FALSE(call.eventWasSet);
  EXPECT_TRUE(event->Wait(0));
}

TEST(Message, CompletionWithoutEventAndCallbackDoesNothing) {
  const PlainSession plain;
  const MessageRef message = Outbound(plain.session, MSG_NOTIFY, 1, nullptr);
  message->Complete(false);
  message->Complete(true);
  EXPECT_FALSE(message->GetResult());
}

// ---- a reply that comes early ------------------------------------------------------------------

TEST(Message, ThatIsNotBeingWrittenIsNotWaitedFor) {
  const PlainSession plain;
  Outbound(plain.session, MSG_CALL, 1, nullptr)->WaitUntilWritten();
}

TEST(Message, ThatIsBeingWrittenIsWaitedForUntilItsEnd) {
  const PlainSession plain;
  const MessageRef message = Outbound(plain.session, MSG_CALL, 1, nullptr);
  message->BeginWriting();
  std::atomic<bool> ended{false};
  std::thread reader([&] {
    message->WaitUntilWritten();
    ended = true;
  });
  std::this_thread::sleep_for(milliseconds{50});
  EXPECT_FALSE(ended);
  message->EndWriting();
  reader.join();
  message->WaitUntilWritten();
}

}  // namespace
}  // namespace TQ::test
