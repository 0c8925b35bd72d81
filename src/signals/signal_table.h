// What this process offers by name: its signals and who has subscribed to them.
#pragma once

#include "frame/counted_ref.h"
#include "frame/locks.h"

#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <string>

class TQAPPImpl;

namespace TQ::detail {

/// A peer, and the slot of the peer that is called whenever the signal is emitted.
struct Subscriber {
  CountedRef<TQAPPImpl> session;
  uint32_t slotId;
};

/// In order of arrival.
using SubscriberList = std::list<Subscriber>;

/// Signals by name, for the whole life of the process.
///
/// Threads: any.
class SignalTable {
 public:
  // Recursive: a completion callback that runs on an emitting thread may register signals, and a
  // slot may emit.
  RecursiveMutex lock;

  /// Intended: registering is resetting. A name that is there already loses all its subscribers,
  /// and those peers are not told.
  void Register(const char* name);

  /// False when there is no such signal.
  bool Unregister(const char* name);

  /// The subscribers of `name`, or null when there is no such signal.
  SubscriberList* Find(const char* name) TQ_REQUIRES(lock);

  /// Takes every signal away.
  void Clear();

  /// Takes out every subscriber whose session is `session`.
  void RemoveSubscriptionsOf(const TQAPPImpl& session);

 private:
  std::map<std::string, SubscriberList, std::less<>> signals TQ_GUARDED_BY(lock);
};

extern SignalTable& g_signals;

}  // namespace TQ::detail
