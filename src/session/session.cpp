#include "session/session.h"

#include "frame/log.h"
#include "frame/object_counts.h"

#include <cstdlib>
#include <system_error>

using namespace TQ::detail;

TQAPPImpl::TQAPPImpl() : awaitingRequests(std::make_unique<AwaitingRequests>()) {
  g_objectCounts.sessions.fetch_add(1);
}

void* TQAPPImpl::operator new(std::size_t size) noexcept { return std::calloc(1, size); }

void TQAPPImpl::operator delete(void* block) { std::free(block); }

namespace {

/// A thread that still runs, or has run and was never joined, goes on without its object.
void DetachIfHeld(std::thread& thread, const char* failureText) {
  try {
    if (thread.joinable()) thread.detach();
  } catch (const std::system_error&) {
    Log(TQ_LOG_WARNING, failureText);
  }
}

}  // namespace

TQAPPImpl::~TQAPPImpl() {
  const std::string local = channel.IsValid() ? channel->GetLocalAddress() : std::string();
  const std::string remote = channel.IsValid() ? channel->GetRemoteAddress() : std::string();
  Log(TQ_LOG_INFO, "Destroying TQAPPImpl::~TQAPPImpl(", name, "):", local, "<->", remote);
  g_objectCounts.sessions.fetch_sub(1);
  awaitingRequests->Clear();
  awaitingRequests.reset();
  // The last reference may have fallen on one of these very threads, which then ends by itself.
  DetachIfHeld(receivingThread, "Received thread is already detached(stopped)");
  holdsReceivingThread.store(0, std::memory_order_relaxed);
  DetachIfHeld(sendingThread, "Sending thread is already detached(stopped)");
  Log(TQ_LOG_INFO, "Destroyed TQAPPImpl::~TQAPPImpl(", name, "):", local, "<->", remote);
  // The members go in reverse: the queue with what is left in it, and the channel after that, which
  // closes the connection when this was its last reference.
}

bool TQAPPImpl::CheckValid() const {
  return holdsReceivingThread.load(std::memory_order_relaxed) != 0 && Authenticated();
}

bool TQAPPImpl::CreateManagementThreads() {
  // Each thread is given its reference here, so that the session cannot die before the thread has
  // run its first instruction.
  receivingThread = std::thread([self = SessionRef(this)] { self->ReceivingThreadBody(); });
  receivingThreadId = receivingThread.get_id();
  holdsReceivingThread.store(1, std::memory_order_relaxed);
  sendingThread = std::thread([self = SessionRef(this)] { self->SendingThreadBody(); });
  return true;
}

bool TQAPPImpl::StartManagementThreads() {
  Log(TQ_LOG_INFO, "Start management threads for ", name);
  {
    LockScope held(receivingLock);
    receivingStart = true;
  }
  receivingStartCondition.SignalOne();
  {
    LockScope held(sendingLock);
    sendingStart = true;
  }
  sendingStartCondition.SignalOne();
  AwaitReceivingReady();
  {
    LockScope held(sendingLock);
    while (!sendingReady) sendingReadyCondition.Wait(sendingLock);
  }
  Log(TQ_LOG_INFO, "Startup completed for ", name);
  return true;
}

void TQAPPImpl::StopSession() {
  stopRequested.store(1, std::memory_order_relaxed);
  outgoing.Wake(false);
  channel->Wakeup();
  if (receivingThreadId == std::this_thread::get_id()) return;
  LockScope held(joinLock);
  if (!receivingThread.joinable()) return;
  receivingThread.join();
  holdsReceivingThread.store(0, std::memory_order_relaxed);
}

void TQAPPImpl::AwaitReceivingStart() {
  LockScope held(receivingLock);
  while (!receivingStart) receivingStartCondition.Wait(receivingLock);
}

void TQAPPImpl::AnnounceReceivingReady() {
  {
    LockScope held(receivingLock);
    receivingReady = true;
  }
  receivingReadyCondition.SignalAll();  // the maker waits for it, and an early end of the session
}

void TQAPPImpl::AwaitReceivingReady() {
  LockScope held(receivingLock);
  while (!receivingReady) receivingReadyCondition.Wait(receivingLock);
}

void TQAPPImpl::AwaitSendingStart() {
  LockScope held(sendingLock);
  while (!sendingStart) sendingStartCondition.Wait(sendingLock);
}

void TQAPPImpl::AnnounceSendingReady() {
  {
    LockScope held(sendingLock);
    sendingReady = true;
  }
  sendingReadyCondition.SignalOne();
}

void TQAPPImpl::LogNotInitialized() const {
  Log(TQ_LOG_WARNING, "Application '", name, "' is not initialized");
}

void TQAPPImpl::LogThreadFinished(const char* text) const {
  const std::string local = channel.IsValid() ? channel->GetLocalAddress() : std::string();
  const std::string remote = channel.IsValid() ? channel->GetRemoteAddress() : std::string();
  Log(TQ_LOG_INFO, text, name, ":", local, "<->", remote);
}
