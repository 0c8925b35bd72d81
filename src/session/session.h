// TQAPPImpl: one connection to one peer application.
#pragma once

#include "frame/counted_ref.h"
#include "frame/locks.h"
#include "frame/settings.h"
#include "session/awaiting_requests.h"
#include "session/message_queue.h"
#include "transport/transport_channel.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>

/// The session: the channel, the two threads that serve it, the messages that wait to go out and
/// the requests that wait for their reply.
///
/// Made by: TQConnect on the caller's thread, and a listener for each accepted connection; both
/// then run the handshake on that thread. Referenced by: the maker until the handshake has
/// returned, each of the two threads, the registry, every message of the session, every
/// subscription of the peer, and lookups. May die on any of these threads, its own included;
/// destruction closes the channel. Locks: two for the start protocol, each taken alone; one for the
/// join. The queue and the table of awaited requests bring their own.
class TQAPPImpl final : public MTObjects::MTReferencedTypeBase {
 public:
  using StopFlag = TQ::detail::StopFlag;

  TQAPPImpl();

  /// Zeroed storage on the process heap; null when there is none.
  static void* operator new(std::size_t size) noexcept;
  static void operator delete(void* block);

  /// Serves a peer that has connected to this process: true when it was admitted. Runs on a
  /// listener thread, logs what goes wrong and tells the host's listeners.
  bool AcceptHandshake(const TQ::detail::ChannelRef& acceptedChannel);

  /// Presents this process to a peer that it has connected to. Runs on the thread of TQConnect and
  /// logs nothing.
  _tag_TQ_ERROR ConnectHandshake(const TQ::detail::ChannelRef& connectedChannel, char* nameOut,
                                 uint32_t nameOutSize, const uint8_t* authData, int32_t authLength);

  /// Reaches `target` and runs ConnectHandshake. TQ_ERR_FAILED when there is no way to the peer.
  _tag_TQ_ERROR ConnectTo(const char* target, uint32_t port, char* nameOut, uint32_t nameOutSize,
                          const uint8_t* authData, int32_t authLength);

  /// Gives the session its channel, which it keeps to its end: true when the channel can be used.
  /// The handshakes call it, before the two threads are let go.
  bool Assign(const TQ::detail::ChannelRef& newChannel);

  /// Asks both threads to end and waits for the receiving one, unless it is the caller. Throws
  /// std::system_error when the join fails.
  void StopSession();

  /// Makes the two threads, which park at once. True if it returns at all: a thread that cannot be
  /// made throws std::system_error, and the first one then stays parked.
  bool CreateManagementThreads();

  /// Lets both threads go and waits until they have got past their start; the receiving one first.
  /// True, always.
  bool StartManagementThreads();

  const std::string& Name() const { return name; }
  const TQ::detail::ChannelRef& Channel() const { return channel; }
  const StopFlag& StopRequested() const { return stopRequested; }
  TQ::detail::AwaitingRequests& Awaiting() { return *awaitingRequests; }
  TQ::detail::MessageQueue& Outgoing() { return outgoing; }

  /// Valid from the end of a good handshake until the receiving thread has been joined.
  bool CheckValid() const override;

 private:
  /// Why a receiving thread left its loop.
  enum class EndCause { GLOBAL, LOCAL, REMOTE };

  ~TQAPPImpl() override;

  void RunAcceptingSide();
  _tag_TQ_ERROR RunConnectingSide(const TQ::detail::ChannelRef& newChannel, char* nameOut,
                                  uint32_t nameOutSize, const uint8_t* authData,
                                  int32_t authLength);
  bool VerifyPeer(const std::string& firstName);
  bool AdoptPeerName(const std::string& peerName);
  void ReportUnknownPeer() const;

  void ReceivingThreadBody();
  void SendingThreadBody();
  void AwaitReceivingStart();
  void AnnounceReceivingReady();
  void AwaitReceivingReady();
  void AwaitSendingStart();
  void AnnounceSendingReady();
  void LogNotInitialized() const;
  void AnnounceConnection() const;
  EndCause ReadFrames();
  bool ReadOneFrame();
  EndCause CauseOfFailure() const;
  void EndReceiving(EndCause cause);
  void WriteMessages();
  bool WriteOne(const TQ::detail::MessageRef& message);
  void FinishFailedRequest(const TQ::detail::MessageRef& message);
  void EndSending();
  void DrainOutgoing();
  void LogThreadFinished(const char* text) const;

  bool Authenticated() const { return authenticated.load(std::memory_order_relaxed) != 0; }
  bool StopWanted() const { return stopRequested.load(std::memory_order_relaxed) != 0; }

  // Constant after construction.
  std::unique_ptr<TQ::detail::AwaitingRequests> awaitingRequests;

  // Written by the maker before StartManagementThreads, only read afterwards; the start protocol's
  // locks order the two.
  std::string name;  ///< the peer's full name: the key in the registry
  TQ::detail::ChannelRef channel;

  std::thread receivingThread;
  std::thread sendingThread;

  // The start protocol: the maker sets a start flag, the thread answers with its ready flag.
  TQ::detail::Mutex receivingLock;
  TQ::detail::Mutex sendingLock;
  TQ::detail::Condition receivingReadyCondition;
  TQ::detail::Condition receivingStartCondition;
  TQ::detail::Condition sendingReadyCondition;
  TQ::detail::Condition sendingStartCondition;
  bool receivingReady TQ_GUARDED_BY(receivingLock) = false;
  bool sendingReady TQ_GUARDED_BY(sendingLock) = false;
  bool receivingStart TQ_GUARDED_BY(receivingLock) = false;
  bool sendingStart TQ_GUARDED_BY(sendingLock) = false;

  // Atomic, one transition each.
  StopFlag stopRequested{0};
  std::atomic<uint8_t> authenticated{0};

  // As `name`. Two pieces of it, which belong to the kept layout of a session; who needs the pieces
  // takes the name apart anew.
  std::string peerHost;
  std::string peerApplication;
  std::string remoteAddress;
  std::string localAddress;

  TQ::detail::MessageQueue outgoing;

  // Atomic: set before the threads park, cleared after the join.
  std::atomic<uint8_t> holdsReceivingThread{0};

  // Held across the join of the receiving thread, so that of two who stop the session the second
  // finds the thread joined. The receiving thread itself never takes it.
  TQ::detail::Mutex joinLock;
  std::thread::id receivingThreadId;  ///< written with receivingThread
};

namespace TQ::detail {

using SessionRef = CountedRef<TQAPPImpl>;

}  // namespace TQ::detail
