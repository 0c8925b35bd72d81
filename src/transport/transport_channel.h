// ITransportChannel: the byte stream through which a session reaches its peer.
#pragma once

#include "frame/counted_ref.h"
#include "frame/settings.h"

#include <tq/counted_base.h>

#include <cstdint>
#include <string>

/// A connected byte stream. It knows nothing of frames, handshakes or lists.
///
/// Intended: lengths have 32 bits and results are signed. A read or write of 2 GiB or more is
/// carried out, and what it gives back, the length, is negative: a failure. That bounds a list's
/// block.
///
/// Threads: during the handshake one thread does everything; afterwards one thread calls Receive
/// and WaitForData, one other calls Send, and any thread calls Wakeup. The address texts never
/// change. May die on any thread; destruction closes the connection.
/// A failed operation leaves the stream at an unknown position, and the channel does not remember
/// it. A caller should give the session up; the sending thread does so for calls alone and goes on
/// behind a reply or a notification.
struct ITransportChannel : public MTObjects::MTReferencedTypeBase {
  ~ITransportChannel() override = default;

  bool CheckValid() const override = 0;

  /// Reads exactly `length` bytes: `length`, or -1. While the byte at `stopFlag` is zero the read
  /// waits for as long as it takes; another thread may set it at any time. A null flag
  /// stands for the form without one.
  virtual int32_t Receive(void* buffer, uint32_t length, const TQ::detail::StopFlag* stopFlag) = 0;

  /// The same within the channel's time limit.
  virtual int32_t Receive(void* buffer, uint32_t length) = 0;

  /// Writes exactly `length` bytes: `length`, or -1.
  virtual int32_t Send(const void* buffer, uint32_t length) = 0;

  virtual std::string GetRemoteAddress() const = 0;
  virtual std::string GetLocalAddress() const = 0;

  /// Positive when data can be read, 0 when the time ran out or a wake-up was consumed, negative on
  /// failure.
  virtual int32_t WaitForData(uint32_t timeoutMs) = 0;

  /// The same without a time limit. The library always gives one; this form keeps its place among
  /// the virtual operations, whose order is fixed.
  virtual int32_t WaitForData() = 0;

  /// Makes a current or the next WaitForData return 0. Reads and writes are not interrupted.
  virtual void Wakeup() = 0;
};

namespace TQ::detail {

using ChannelRef = CountedRef<ITransportChannel>;

}  // namespace TQ::detail
