/// @file
/// Slots and signals that this process offers, and calls, notifications and signals to peers.
///
/// A slot is a numbered function that peers call. A signal is a name that this process emits and to
/// which peers subscribe, each with a slot of its own. Peers are addressed by their full name, as
/// TQConnect or the connect listener gave it (<tq/application.h>). Nothing is delivered inside one
/// process: its own name is that of no session.
///
/// Lists. `params` stays the caller's; the message takes a reference of its own and no copy, and it
/// is read later, on a sending thread. Until then neither the list nor a list inside it may change.
/// It has been read when TQCall has returned or the completion callback runs. For a notification
/// without callback nothing tells: close the list and make a new one. Several messages may share
/// one unchanging list. A null `params` arrives as an empty list. A list whose own entries take
/// 2 GiB or more cannot be sent: its write counts as failed, after it has been done.
///
/// Order. All messages to one peer, calls, replies and notifications alike, go out in the order in
/// which they were queued, and the peer's slots run in that order, one at a time. A reply to us is
/// dealt with at once, and so can overtake a notification that the peer sent before it.
///
/// No time limits. Nothing here gives up after a time. A request is cancelled when its session
/// ends, and not before. These losses can be met with:
/// - A session that ends in the middle of a reply takes it along: the TQCall that waits for it
///   never returns, a completion callback is never called.
/// - A notification queued at the very moment at which its session ends reports TQ_ERR_OK, is
///   never sent and never completed.
/// - A session that ends with requests written and unanswered cancels them, but is never freed:
///   its memory and its connection stay to the end of the process.
/// - A reply or notification that cannot be written in time is dropped without a sign. If a part of
///   it had gone out, what follows reads as damage at the peer, who ends the session.
/// - A call that cannot be written ends the sending side of its session, which is out of reach from
///   then on: see TQDisconnect.
/// - What the dispatcher thread has not taken when the last TQShutdown ends it stays queued and
///   keeps sessions and their connections: calls and notifications of peers, which the next
///   TQInitialize serves and an unload drops, and requests whose write failed, for which TQCall
///   does not return meanwhile.
/// - A notification for which there was no memory leaves a gap in the queue of its session. If the
///   session ends before it has passed the gap, what was queued behind it is neither sent nor
///   completed, and TQCall does not return.
///
/// Texts are copied or used for the call only. A null name, a null array and a stale handle are not
/// tested for and must not be passed.
///
/// Threads. Any thread may call any function, any number at a time. Where callbacks run is told
/// with their types in <tq/types.h>. What they may do:
/// - TQNotify, TQEmit and TQConnectSignal do not wait for a peer and are allowed everywhere.
/// - TQCall and TQDisconnectSignal wait for the peer's reply. From a completion callback or a
///   connect or disconnect listener of the same session they never return, because the reply would
///   have to be read by that very thread. To other peers they work.
/// - From a slot they work, but all other calls and notifications to this process wait meanwhile,
///   and two processes that call each other from slots at the same moment block for good.
///
/// Exceptions. std::bad_alloc if the process heap has no memory, or the private heap none for a
/// place in a queue; nothing else arises here, except what a list function would throw where a flow
/// id is stored in a damaged list.
#pragma once

#include <tq/export.h>
#include <tq/types.h>

#ifdef __cplusplus
extern "C" {
#endif

// ---- what this process offers ------------------------------------------------------------------
//
// The tables live as long as the process: they can be filled before TQInitialize and keep what
// they hold over TQShutdown.

/// Registers a slot, or replaces callback and context of a registered one.
///
/// @param slotId    as the applications agree. 0xFFFFFFFF and 0xFFFFFFFE are the library's own, by
///                  which peers subscribe and unsubscribe; the first TQInitialize of a life
///                  registers them. They are not protected: to register another slot there, or to
///                  unregister them, switches subscribing off.
/// @param callback  must not be null.
/// @param context   handed to the callback and never looked at; must live as long as the slot.
/// @return TQ_ERR_OK, always.
/// Blocks while any slot runs on the dispatcher thread, unless it is called from that slot. From a
/// callback on a receiving thread that is for good if the slot disconnects that thread's session.
TQ_API _tag_TQ_ERROR TQRegisterSlot(unsigned slotId, TQSlotCallback callback, void* context);

/// Takes a slot away.
///
/// When this has returned the callback is not running and will not be called again, unless it is
/// that callback that calls: then it finishes, and its reply goes out. Calls to a slot that is not
/// registered are answered with an empty list.
///
/// @return TQ_ERR_OK; TQ_ERR_NO_SUCH_SLOT if there is none.
/// Blocks as TQRegisterSlot does.
TQ_API _tag_TQ_ERROR TQUnregisterSlot(unsigned slotId);

/// Registers a signal without subscribers.
///
/// If the name is registered already its subscribers are dropped: they get nothing more, and they
/// are not told.
///
/// @param name  case-sensitive bytes; copied.
/// @return TQ_ERR_OK, always.
/// Blocks at most while signals are emitted on other threads.
TQ_API _tag_TQ_ERROR TQRegisterSignal(const char* name);

/// Takes a signal away with its subscribers, who are not told.
///
/// @return TQ_ERR_OK; TQ_ERR_NO_SUCH_SIGNAL if there is none.
/// Blocks as TQRegisterSignal does.
TQ_API _tag_TQ_ERROR TQUnregisterSignal(const char* name);

// ---- calls and notifications -------------------------------------------------------------------

/// Calls a slot of a peer and waits for the reply.
///
/// @param applicationName  the peer's full name.
/// @param slotId           the slot there.
/// @param params           the arguments; may be null. Must not change until the return.
/// @return the reply's list, owned by the caller (close with TQCloseHandle). It is empty if the
///         peer has no such slot, if the slot put nothing into it, or if the request could not be
///         written. The null handle if there is no session of that name, if the session ended
///         before the reply, or if there was no memory.
/// Threads: any, except in callbacks on the same session's receiving thread: there it never
/// returns.
/// Blocks without limit, and for good if the session ends in the middle of the reply.
TQ_API _tag_HTQPARAMLIST TQCall(const char* applicationName, unsigned slotId,
                                _tag_HTQPARAMLIST params);

/// As TQCall, with a flow id in the list.
///
/// @param flowId  stored in `params` as a 32-bit value under the name "...FlowID", replacing any
///                value of that name; it stays there. Nothing in the library reads it: it is for
///                the slot at the other end. With a null `params` it is dropped.
/// This changes `params`, so no earlier message with the same list may still wait to be sent.
TQ_API _tag_HTQPARAMLIST TQCallWithFlow(unsigned flowId, const char* applicationName,
                                        unsigned slotId, _tag_HTQPARAMLIST params);

/// Sends to a slot of a peer and does not wait.
///
/// @param applicationName  the peer's full name.
/// @param slotId           the slot there.
/// @param params           the arguments; may be null. Must not change until it has been sent.
/// @param callback         told of the reply or of the end of the session, later and on a thread of
///                         the library. Null sends a one-way message: nothing comes back, and a
///                         peer without that slot drops it.
/// @param context          handed to the callback and never looked at; must live until then.
/// @return TQ_ERR_OK if the message was queued, which says nothing about its delivery, also if
///         there was no memory for the message itself and a gap was queued in its place;
///         TQ_ERR_NO_SESSION if there is no session of that name.
/// Does not block.
TQ_API _tag_TQ_ERROR TQNotify(const char* applicationName, unsigned slotId,
                              _tag_HTQPARAMLIST params, TQNotifyCallback callback, void* context);

/// As TQNotify, with a flow id in the list as for TQCallWithFlow.
TQ_API _tag_TQ_ERROR TQNotifyWithFlow(unsigned flowId, const char* applicationName, unsigned slotId,
                                      _tag_HTQPARAMLIST params, TQNotifyCallback callback,
                                      void* context);

// ---- signals -----------------------------------------------------------------------------------

/// Sends to every subscriber of a signal of this process, as TQNotify does, in the order in which
/// they subscribed.
///
/// @param signalName  a signal registered here.
/// @param params      shared by all the messages; may be null. Must not change until all are sent.
/// @param callback    told once for each subscriber, as for TQNotify. If there are no subscribers
///                    it is called once before the return, on this thread, with a null name, slot
///                    0, `params` and a null result. May be null.
/// @param context     handed to the callback.
/// @return TQ_ERR_OK, also without subscribers; TQ_ERR_NO_SUCH_SIGNAL if the name is not
///         registered, and the callback is then not called.
/// Does not wait for delivery.
TQ_API _tag_TQ_ERROR TQEmit(const char* signalName, _tag_HTQPARAMLIST params,
                            TQNotifyCallback callback, void* context);

/// As TQEmit, with a flow id in the list as for TQCallWithFlow, stored once for all subscribers and
/// also if there are none.
TQ_API _tag_TQ_ERROR TQEmitWithFlow(unsigned flowId, const char* signalName,
                                    _tag_HTQPARAMLIST params, TQNotifyCallback callback,
                                    void* context);

/// Subscribes a slot of this process to a signal of a peer.
///
/// The request is sent and not answered: it has no effect if there is no session of that name or
/// if the peer has no such signal, and a signal emitted right after the return may still miss us.
/// The peer serves the request before a TQCall to it that is made after the return: once that call
/// has brought its reply the subscription is in force, unless the request could not be written and
/// was dropped, as told under "No time limits".
/// Subscribing twice brings every emit twice. A subscription ends with the session, with
/// TQDisconnectSignal, or without a word when the peer registers the signal anew or unregisters
/// it. After connecting again one has to subscribe again.
///
/// @param applicationName  the emitting peer's full name.
/// @param signalName       the signal there; null stands for the empty name.
/// @param slotId           a slot of this process, which can be registered later.
/// @return TQ_ERR_OK, always.
/// Does not block.
TQ_API _tag_TQ_ERROR TQConnectSignal(const char* applicationName, const char* signalName,
                                     unsigned slotId);

/// Takes one subscription back, the oldest one of that signal and slot, and waits until the peer
/// has done so: what it emits later does not reach the slot. What it emitted before may still be on
/// its way to the dispatcher thread.
///
/// Arguments as for TQConnectSignal.
/// @return TQ_ERR_OK, always, also if there is no session or no such subscription.
/// Threads and blocking: as TQCall.
TQ_API _tag_TQ_ERROR TQDisconnectSignal(const char* applicationName, const char* signalName,
                                        unsigned slotId);

#ifdef __cplusplus
}  // extern "C"
#endif

#ifdef __cplusplus
// ---- arrays of registrations, C++ only ---------------------------------------------------------
//
// The exported names of these two carry their argument types, so C has to register one at a time.

/// Registers `count` slots, one after the other, as TQRegisterSlot does. The last of several
/// records with one id counts. Slots can be called between two of them.
///
/// @param records  `count` records without gaps; not read if `count` is below 1.
/// @return TQ_ERR_OK, always.
TQ_API _tag_TQ_ERROR TQRegisterSlots(const _tag_SLOT_DESCRIPTION* records, int count);

/// Registers `count` signals, one after the other, as TQRegisterSignal does, which drops the
/// subscribers of those that are registered already.
///
/// @param records  `count` records; not read if `count` is below 1.
/// @return TQ_ERR_OK, always.
TQ_API _tag_TQ_ERROR TQRegisterSignals(const _tag_SIGNAL_DESCRIPTION* records, int count);
#endif
