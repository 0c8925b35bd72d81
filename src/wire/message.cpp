#include "wire/message.h"

#include "frame/little_endian.h"
#include "frame/log.h"
#include "frame/object_counts.h"
#include "frame/private_heap.h"
#include "session/session.h"
#include "wire/inline_buffer.h"
#include "wire/list_stream.h"

#include <array>
#include <utility>

using namespace TQ::detail;

namespace {

/// Shared by all sessions. The first message of the process has the id 1; the ids wrap silently.
std::atomic<uint32_t> g_lastRequestId{0};

const ListRef g_noList;

constexpr uint32_t HEAD_BUFFER_SIZE = 128;
using HeadBuffer = TQMemoryBufferTpl<HEAD_BUFFER_SIZE>;

void AppendDword(HeadBuffer& buffer, uint32_t value) { buffer.AppendAligned(&value, sizeof value); }

}  // namespace

// --- ITQMessage ----------------------------------------------------------------------------------

ITQMessage::ITQMessage(SyncEventRef event, uint32_t id, uint32_t messageKind, uint64_t tail,
                       SessionRef owner)
    : syncEvent(std::move(event)),
      requestId(id),
      kind(messageKind),
      headTail(tail),
      session(std::move(owner)) {
  g_objectCounts.messages.fetch_add(1);
}

ITQMessage::~ITQMessage() { g_objectCounts.messages.fetch_sub(1); }

void* ITQMessage::operator new(std::size_t size) noexcept { return TQAllocate(size); }

void ITQMessage::operator delete(void* block) { TQFree(block); }

void ITQMessage::Complete(bool /*dropResult*/) {
  if (syncEvent) syncEvent->Set();
}

const ListRef& ITQMessage::GetParams() const { return g_noList; }

const ListRef& ITQMessage::GetResult() const { return g_noList; }

void ITQMessage::EndWriting() {
  writing.store(false, std::memory_order_release);  // pairs with the acquire in WaitUntilWritten
  writing.notify_all();
}

void ITQMessage::WaitUntilWritten() const { writing.wait(true, std::memory_order_acquire); }

// --- TQSlotCallMessage ---------------------------------------------------------------------------

TQSlotCallMessage::TQSlotCallMessage(SyncEventRef event, uint32_t id, uint32_t messageKind,
                                     uint64_t tail, SessionRef owner, uint32_t slot,
                                     ListRef paramList, ListRef resultList, bool isInbound,
                                     Completion onCompletion)
    : ITQMessage(std::move(event), id, messageKind, tail, std::move(owner)),
      slotId(slot),
      params(std::move(paramList)),
      result(std::move(resultList)),
      inbound(isInbound),
      completion(onCompletion) {}

TQSlotCallMessage::~TQSlotCallMessage() = default;

CountedRef<TQSlotCallMessage> TQSlotCallMessage::Outbound(SessionRef session, uint32_t kind,
                                                          uint32_t slotId, FastHolderImpl* params,
                                                          SyncEventRef event,
                                                          Completion completion) {
  const uint32_t requestId = g_lastRequestId.fetch_add(1) + 1;
  return CountedRef<TQSlotCallMessage>(new TQSlotCallMessage(
      std::move(event), requestId, kind, 0, std::move(session), slotId, ListRef(params),
      kind == MSG_CALL ? FastHolderImpl::Create() : ListRef(), false, completion));
}

CountedRef<TQSlotCallMessage> TQSlotCallMessage::Inbound(SessionRef session, uint32_t requestId,
                                                         uint32_t kind, uint64_t headTail) {
  return CountedRef<TQSlotCallMessage>(new TQSlotCallMessage(
      nullptr, requestId, kind, headTail, std::move(session), UNKNOWN_SLOT,
      FastHolderImpl::Create(), kind == MSG_NOTIFY ? ListRef() : FastHolderImpl::Create(), true,
      Completion{}));
}

int32_t TQSlotCallMessage::Serialize(uint32_t frameKind) {
  // The dispatcher has done so already. A call that came in must in no case go back out as one.
  if (inbound && frameKind == MSG_CALL) {
    frameKind = MSG_REPLY;
    SetKind(MSG_REPLY);
  }
  ListRef list = frameKind == MSG_REPLY ? result : params;
  if (!list.IsValid()) list = FastHolderImpl::Create();
  if (!list) return -1;

  const ListDescriptor descriptor = DescriptorOf(*list);
  HeadBuffer head;
  AppendDword(head, requestId);
  AppendDword(head, frameKind);
  if (frameKind != MSG_REPLY) AppendDword(head, slotId);
  AppendDword(head, descriptor.blockSize);
  AppendDword(head, descriptor.handleCount);

  ITransportChannel& channel = *session->Channel();
  const int32_t headResult = channel.Send(head.Data(), static_cast<uint32_t>(head.Size()));
  if (headResult < 0) return headResult;
  return WriteParamList(*list, channel, nullptr);
}

int32_t TQSlotCallMessage::Deserialize(const uint64_t* tail) {
  if (!session.IsValid()) return -1;
  const bool isReply = Kind() == MSG_REPLY;
  const ListRef& list = isReply ? result : params;
  if (!list.IsValid()) return -1;

  ITransportChannel& channel = *session->Channel();
  HeadBuffer words;
  words.AppendAligned(tail != nullptr ? tail : &headTail, sizeof headTail);
  if (!isReply) {
    slotId = words.DwordAt(0);
    uint8_t rest[REQUEST_HEAD_SIZE - FIRST_HEAD_SIZE];
    const int32_t restResult = channel.Receive(rest, sizeof rest);
    if (restResult < 0) return restResult;
    words.AppendAligned(rest, sizeof rest);
  }
  const uint64_t last = words.Size() - sizeof(uint32_t);
  const ListDescriptor descriptor = {words.DwordAt(last - sizeof(uint32_t)), words.DwordAt(last)};
  return ReadParamList(*list, channel, descriptor, nullptr);
}

void TQSlotCallMessage::Complete(bool dropResult) {
  if (dropResult) result.Reset();
  if (completion.callback != nullptr) {
    // The callback may change the list, so the sending thread must be done with it.
    WaitUntilWritten();
    // What the callback answers has no meaning to anyone.
    (void)completion.callback(session->Name().c_str(), slotId, {params.Get()}, {result.Get()},
                              completion.context);
  }
  ITQMessage::Complete(dropResult);
}

// --- reading frames ------------------------------------------------------------------------------

namespace {

/// The first 16 bytes of every frame.
struct FirstHead {
  uint32_t requestId = 0xFFFFFFFF;
  uint32_t kind = 0;
  uint64_t tail = 0;
};

bool ReadFirstHead(TQAPPImpl& session, FirstHead* head) {
  std::array<uint8_t, FIRST_HEAD_SIZE> bytes{};
  const int32_t result =
      session.Channel()->Receive(bytes.data(), FIRST_HEAD_SIZE, &session.StopRequested());
  if (result < 0) return false;
  head->requestId = LoadDword(&bytes[HEAD_REQUEST_ID]);
  head->kind = LoadDword(&bytes[HEAD_KIND]);
  head->tail = LoadQword(&bytes[HEAD_TAIL]);
  return true;
}

/// Reads a reply's body into the list that the caller of the request waits for.
///
/// Intended: the request has left the table by then. When its body turns out to be damaged or cut,
/// nothing completes it, and a call that waits for it stays blocked.
MessageRef ReceiveReply(TQAPPImpl& session, const FirstHead& head) {
  MessageRef request = session.Awaiting().Take(head.requestId);
  if (!request) return nullptr;
  request->SetKind(MSG_REPLY);
  if (request->Deserialize(&head.tail) < 0) return nullptr;
  return request;
}

MessageRef ReceiveRequest(TQAPPImpl& session, const FirstHead& head) {
  const auto message = TQSlotCallMessage::Inbound(ITQMessage::SessionRef(&session), head.requestId,
                                                  head.kind, head.tail);
  if (!message || message->Deserialize(nullptr) < 0) {
    Log(TQ_LOG_INFO, "Deserialization failed");
    return nullptr;
  }
  return MessageRef(message.Get());
}

}  // namespace

MessageRef TQ::detail::ReceiveMessage(TQAPPImpl& session) {
  FirstHead head;
  if (!ReadFirstHead(session, &head)) return nullptr;
  switch (head.kind) {
    case MSG_REPLY:
      return ReceiveReply(session, head);
    case MSG_CALL:
    case MSG_NOTIFY:
      return ReceiveRequest(session, head);
    default:
      return nullptr;
  }
}
