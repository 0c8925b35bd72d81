// ITQMessage and TQSlotCallMessage: what travels between two applications after the handshake.
#pragma once

#include "frame/counted_ref.h"
#include "params/list_store.h"
#include "wire/frame_layout.h"
#include "wire/sync_event.h"

#include <tq/types.h>

#include <atomic>
#include <cstddef>
#include <cstdint>

class TQAPPImpl;

/// A queued message.
///
/// Referenced by: queue nodes, the table of awaited requests, local variables. It keeps its session
/// alive. May die on any thread. A message is in one owner's hands at each stage, so its fields
/// take no lock; `kind` alone is seen by two threads, when a reply comes before the request has
/// been written to its end.
class ITQMessage : public MTObjects::MTReferencedTypeBase {
 public:
  /// What a blocking call sleeps on, one for each call.
  class ISyncEvent final : public MTObjects::MTReferencedTypeBase {
   public:
    void Set() { event.Set(); }
    bool Wait(uint32_t timeoutMs) { return event.Wait(timeoutMs); }

   private:
    bool CheckValid() const override { return true; }

    TQ::detail::OneShot event;
  };

  using SyncEventRef = TQ::detail::CountedRef<ISyncEvent>;
  using SessionRef = TQ::detail::CountedRef<TQAPPImpl>;

  static void* operator new(std::size_t size) noexcept;
  static void operator delete(void* block);

  /// Writes the message to the session's channel as a frame of kind `frameKind`: the bytes written,
  /// or negative.
  virtual int32_t Serialize(uint32_t frameKind) = 0;

  /// Reads the rest of a frame from the session's channel. `tail` is the words behind the first two
  /// of the head; null stands for the message's own. Negative on failure.
  virtual int32_t Deserialize(const uint64_t* tail) = 0;

  /// Ends the message's life as a request, once. `dropResult` says that it was cancelled.
  virtual void Complete(bool dropResult);

  virtual uint32_t GetSlotId() const { return 0; }
  virtual const TQ::detail::ListRef& GetParams() const;
  virtual const TQ::detail::ListRef& GetResult() const;

  uint32_t RequestId() const { return requestId; }
  uint32_t Kind() const { return kind.load(std::memory_order_relaxed); }
  void SetKind(uint32_t value) { kind.store(value, std::memory_order_relaxed); }
  const SessionRef& Session() const { return session; }

  // A peer may answer before it has read the request to its end. The sending thread then still
  // reads the caller's list, so neither a caller nor a callback may be given that list back yet.
  void BeginWriting() { writing.store(true, std::memory_order_relaxed); }
  void EndWriting();
  void WaitUntilWritten() const;

 protected:
  ITQMessage(SyncEventRef event, uint32_t id, uint32_t messageKind, uint64_t tail,
             SessionRef owner);
  ~ITQMessage() override;
  bool CheckValid() const override { return true; }

  // Constant after construction.
  const SyncEventRef syncEvent;  ///< null for all but a blocking call
  const uint32_t requestId;
  std::atomic<uint32_t> kind;
  const uint64_t headTail;  ///< the words behind the first two of an inbound head, else 0
  const SessionRef session;

  std::atomic<bool> writing{false};
};

namespace TQ::detail {

using MessageRef = CountedRef<ITQMessage>;

}  // namespace TQ::detail

/// A slot call, its reply, or a notification: the only kind of message there is.
class TQSlotCallMessage final : public ITQMessage {
 public:
  /// What a completion callback needs.
  struct Completion {
    TQNotifyCallback callback = nullptr;
    void* context = nullptr;
  };

  /// A message of this process, with a new request id. Null when the private heap is exhausted.
  static TQ::detail::CountedRef<TQSlotCallMessage> Outbound(SessionRef session, uint32_t kind,
                                                            uint32_t slotId, FastHolderImpl* params,
                                                            SyncEventRef event,
                                                            Completion completion);

  /// A message that a peer has begun to send. Null when the private heap is exhausted.
  static TQ::detail::CountedRef<TQSlotCallMessage> Inbound(SessionRef session, uint32_t requestId,
                                                           uint32_t kind, uint64_t headTail);

  int32_t Serialize(uint32_t frameKind) override;
  int32_t Deserialize(const uint64_t* tail) override;
  void Complete(bool dropResult) override;
  uint32_t GetSlotId() const override { return slotId; }
  const TQ::detail::ListRef& GetParams() const override { return params; }
  const TQ::detail::ListRef& GetResult() const override { return result; }

 private:
  TQSlotCallMessage(SyncEventRef event, uint32_t id, uint32_t messageKind, uint64_t tail,
                    SessionRef owner, uint32_t slot, TQ::detail::ListRef paramList,
                    TQ::detail::ListRef resultList, bool isInbound, Completion onCompletion);
  ~TQSlotCallMessage() override;

  uint32_t slotId;             ///< UNKNOWN_SLOT on an inbound message until its head is parsed
  TQ::detail::ListRef params;  ///< shared with the caller, who keeps his own reference
  TQ::detail::ListRef result;  ///< null on every notification
  const bool inbound;
  const Completion completion;
};

namespace TQ::detail {

/// Takes one frame off the session's channel.
///
/// A request becomes a new message; a reply fills the request that waits for it, which leaves the
/// table of awaited requests. Null means that the session has failed: the stream cannot be
/// resynchronised. Runs on the session's receiving thread.
MessageRef ReceiveMessage(TQAPPImpl& session);

}  // namespace TQ::detail
